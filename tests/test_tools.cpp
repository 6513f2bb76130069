// The toolbox: checked strings, the name digest, bounded formatting, paths,
// time texts, the thread wrapper and the exception family.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"

namespace {

// A registry per test, so that signatures and counters can be read back.
class ToolsTest : public ::testing::Test {
 protected:
  void SetUp() override { g_p_mem_checker = new MemChecker(); }
  void TearDown() override {
    delete g_p_mem_checker;
    g_p_mem_checker = nullptr;
  }
  static const MemBlockEntry* EntryOf(const void* p_user_av) {
    const unsigned char* pb_lv = static_cast<const unsigned char*>(p_user_av) - MEM_HEADER_SIZE;
    uint32_t ui_counter_lv;
    memcpy(&ui_counter_lv, pb_lv + 4, 4);
    return &g_p_mem_checker->m_p_base_elems[ui_counter_lv / I_MEM_BLOCK_NUM][ui_counter_lv % I_MEM_BLOCK_NUM];
  }
};

// ---------------------------------------------------------------------------
// SafeString

TEST_F(ToolsTest, AssignReplacesTheBlockExactly) {
  {
    SafeString s_lv;
    EXPECT_EQ(1, s_lv.m_i_size);
    EXPECT_EQ(34, EntryOf(s_lv.m_p_text)->m_i_sign);
    SafeStringAssign(&s_lv, "camera", 17);
    SafeStringAssign(&s_lv, nullptr, 17);
    EXPECT_STREQ("camera", s_lv.m_p_text);
    EXPECT_EQ(7, s_lv.m_i_size);
    EXPECT_EQ(17, EntryOf(s_lv.m_p_text)->m_i_sign);
    SafeStringAssign(&s_lv, s_lv.m_p_text + 3, 17);  // read before its block goes
    EXPECT_STREQ("era", s_lv.m_p_text);
    EXPECT_EQ(4, g_p_mem_checker->m_i64_memcounter);
  }
  EXPECT_EQ(0, g_p_mem_checker->m_i64_memcounter);  // released on the way out
}

TEST_F(ToolsTest, AppendKeepsFourSpareBytesOrReallocatesExactly) {
  SafeString s_lv;
  SafeStringAssign(&s_lv, "0123456789", 5);  // size 11
  s_lv.m_p_text[3] = 0;
  char* p_block_lv = s_lv.m_p_text;
  SafeStringAppend(&s_lv, "abcd", 6);  // total 7: size is total + 4
  EXPECT_EQ(p_block_lv, s_lv.m_p_text);
  EXPECT_EQ(11, s_lv.m_i_size);
  EXPECT_STREQ("012abcd", s_lv.m_p_text);

  s_lv.m_p_text[3] = 0;
  SafeStringAppend(&s_lv, "abcde", 6);  // total 8: size is total + 3
  // A new block (the heap may hand back the same address): its size and
  // signature show the reallocation.
  EXPECT_EQ(9, s_lv.m_i_size);
  EXPECT_STREQ("012abcde", s_lv.m_p_text);
  EXPECT_EQ(6, EntryOf(s_lv.m_p_text)->m_i_sign);

  SafeStringAppend(&s_lv, nullptr, 6);
  EXPECT_STREQ("012abcde", s_lv.m_p_text);
  SafeStringAppend(&s_lv, s_lv.m_p_text + 3, 6);  // the text lies in the old block
  EXPECT_STREQ("012abcdeabcde", s_lv.m_p_text);
  EXPECT_EQ(14, s_lv.m_i_size);
  SafeStringDestroy(&s_lv);
  EXPECT_EQ(0, g_p_mem_checker->m_i64_memcounter);  // the temporary copy went too
}

TEST_F(ToolsTest, CopyTakesBytesAndSizeAsTheyAreAndTupleMatch) {
  SafeString keys_lv[5], copy_lv[5], pat_lv[5];
  for (int i_lv = 0; i_lv < 5; i_lv++) SafeStringAssign(&keys_lv[i_lv], i_lv == 3 ? "video" : "k", 1);
  keys_lv[3].m_p_text[2] = 0;
  SafeStringTupleCopy(copy_lv, keys_lv, 9);
  EXPECT_EQ(0, memcmp("vi\0eo", copy_lv[3].m_p_text, 6));
  EXPECT_EQ(6, copy_lv[3].m_i_size);
  EXPECT_EQ(9, EntryOf(copy_lv[3].m_p_text)->m_i_sign);
  SafeStringDestroy(&keys_lv[0]);
  SafeStringCopy(&copy_lv[0], &keys_lv[0], 9);  // empty source: nothing changes
  EXPECT_STREQ("k", copy_lv[0].m_p_text);
  SafeStringDestroy(&pat_lv[1]);  // empty and null patterns match anything
  EXPECT_EQ(1, SafeStringTupleMatch(keys_lv, pat_lv));
  SafeStringAssign(&pat_lv[3], "vi", 1);
  EXPECT_EQ(1, SafeStringTupleMatch(copy_lv, pat_lv));
  SafeStringAssign(&pat_lv[3], "v", 1);
  EXPECT_EQ(0, SafeStringTupleMatch(copy_lv, pat_lv));
  SafeStringAssign(&pat_lv[0], "k", 1);  // a pattern with text needs a text
  EXPECT_EQ(0, SafeStringTupleMatch(keys_lv, pat_lv));
}

TEST_F(ToolsTest, JoinSeparatesEveryEntryIncludingNull) {
  SafeString out_lv;
  const char* s_parts_lv[3] = {"a", nullptr, "bc"};
  SafeStringJoin(s_parts_lv, 3, &out_lv, '$');
  EXPECT_STREQ("a$$bc", out_lv.m_p_text);
  EXPECT_EQ(6, out_lv.m_i_size);
  EXPECT_EQ(17, EntryOf(out_lv.m_p_text)->m_i_sign);
  const char* s_self_lv[2] = {out_lv.m_p_text, "z"};  // an input inside out
  SafeStringJoin(s_self_lv, 2, &out_lv, '_');
  EXPECT_STREQ("a$$bc_z", out_lv.m_p_text);
}

// ---------------------------------------------------------------------------
// StrHash64

uint64_t Hash(const std::string& s_av) { return StrHash64(s_av.data(), static_cast<uint32_t>(s_av.size())); }

TEST(StrHash64Test, DigestDependsOnEveryByteAndTheLength) {
  EXPECT_EQ(Hash("video"), Hash(std::string("video")));
  EXPECT_EQ(StrHash64(nullptr, 0), Hash(""));
  // Every prefix, across the 8-byte block edges, gives its own digest.
  std::string s_text_lv = "key1$key2$key3$in_abcdefghij";
  std::set<uint64_t> seen_lv;
  for (size_t i_lv = 0; i_lv <= s_text_lv.size(); i_lv++) seen_lv.insert(Hash(s_text_lv.substr(0, i_lv)));
  EXPECT_EQ(s_text_lv.size() + 1, seen_lv.size());
  EXPECT_NE(Hash("abcdefgh"), Hash(std::string("abcdefgh\0", 9)));
  for (size_t i_lv = 0; i_lv < s_text_lv.size(); i_lv++) {
    std::string s_lv = s_text_lv;
    s_lv[i_lv] ^= 0x40;
    EXPECT_NE(Hash(s_text_lv), Hash(s_lv)) << i_lv;
  }
  // Blocks are chained, not summed.
  EXPECT_NE(Hash("AAAAAAAABBBBBBBB"), Hash("BBBBBBBBAAAAAAAA"));
}

// ---------------------------------------------------------------------------
// FormatStr, PathJoin

TEST(FormatStrTest, BoundsAndResults) {
  char s_lv[8];
  EXPECT_EQ(RC_E_INVALIDARG, FormatStr(s_lv, 0, "x"));
  EXPECT_EQ(RC_E_INVALIDARG, FormatStr(s_lv, 0x80000000u, "x"));
  EXPECT_EQ(RC_OK, FormatStr(s_lv, 1, "%s", ""));
  EXPECT_STREQ("", s_lv);
  EXPECT_EQ(RC_E_BUFFER_SMALL, FormatStr(s_lv, 1, "x"));
  EXPECT_STREQ("", s_lv);
  EXPECT_EQ(RC_OK, FormatStr(s_lv, 4, "%d", 123));
  EXPECT_STREQ("123", s_lv);
  EXPECT_EQ(RC_E_BUFFER_SMALL, FormatStr(s_lv, 4, "%d", 1234));
  EXPECT_STREQ("123", s_lv);
}

TEST(PathJoinTest, JoinsWithOneSlashAndRefusesNullOrTooLong) {
  char s_out_lv[PATH_JOIN_SIZE];
  const char* s_cases_lv[][2] = {{"/srv/memory", "/srv/memory/w"}, {"/srv/memory/", "/srv/memory/w"},
                                 {"C:\\srv\\", "C:\\srv\\/w"}, {"", "/w"}};
  for (auto& case_lv : s_cases_lv) {
    EXPECT_EQ(RC_OK, PathJoin(s_out_lv, case_lv[0], "w"));
    EXPECT_STREQ(case_lv[1], s_out_lv);
  }
  EXPECT_EQ(RC_E_FAIL, PathJoin(s_out_lv, nullptr, "w"));
  EXPECT_STREQ("", s_out_lv);
  EXPECT_EQ(RC_E_FAIL, PathJoin(nullptr, "d", "w"));
  std::string s_dir_lv(2045, 'd');
  EXPECT_EQ(RC_OK, PathJoin(s_out_lv, s_dir_lv.c_str(), "w"));  // 2,047 characters fit
  s_dir_lv += 'd';
  EXPECT_EQ(RC_E_FAIL, PathJoin(s_out_lv, s_dir_lv.c_str(), "w"));
  EXPECT_STREQ("", s_out_lv);
}

// ---------------------------------------------------------------------------
// Time texts, ParseTwoDigits

TEST(TimeTextTest, TextAndLocalTimesOfAKnownTime) {
  PlCalendar cal_lv = {2024, 2, 0, 29, 13, 5, 9, 7};
  uint64_t ui64_ticks_lv = 0;
  ASSERT_TRUE(PlCalendarToFileTime(&cal_lv, &ui64_ticks_lv));
  char s_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(ui64_ticks_lv, s_lv);
  EXPECT_STREQ("2024.02.29 13:05:09:007", s_lv);

  std::string s_saved_lv = getenv("TZ") != nullptr ? getenv("TZ") : "";
  setenv("TZ", "XYZ-3", 1);  // three hours east of UTC, no summer time
  PlClockTimeZoneChanged();
  EXPECT_EQ(1700000000000000LL + 3 * 3600000000LL, UnixMicrosToLocal(1700000000000000LL));
  PlClockUseManual(ui64_ticks_lv);
  EXPECT_EQ(ui64_ticks_lv + 3 * 3600 * PL_TICKS_PER_SECOND, FileTimeNowLocal());
  PlClockUseReal();
  setenv("TZ", s_saved_lv.c_str(), 1);
  if (s_saved_lv.empty()) unsetenv("TZ");
  PlClockTimeZoneChanged();
}

TEST(SmallFunctionsTest, ParseTwoDigits) {
  EXPECT_EQ(8, ParseTwoDigits("08:30"));
  EXPECT_EQ(7, ParseTwoDigits(" 7:15"));
  EXPECT_EQ(12, ParseTwoDigits("1 2:00"));
  EXPECT_EQ(23, ParseTwoDigits("2359"));
  EXPECT_EQ(0, ParseTwoDigits(nullptr));
}

// ---------------------------------------------------------------------------
// CThread

struct TThreadProbe {
  std::atomic<int> m_i_runs{0};
  PlEvent* m_p_release = nullptr;
  bool m_b_throw = false;
};

void ProbeBody(void* p_arg_av) {
  TThreadProbe* p_lv = static_cast<TThreadProbe*>(p_arg_av);
  p_lv->m_i_runs++;
  if (p_lv->m_p_release != nullptr) p_lv->m_p_release->Wait(PL_INFINITE);
  if (p_lv->m_b_throw) throw km::InvalidArgumentException("bad");
}

TEST(CThreadTest, StartJoinRestartAndExitCodes) {
  CThread thread_lv;
  CThreadInit(&thread_lv, ProbeBody);
  EXPECT_TRUE(CThreadTryJoin(&thread_lv));  // never started
  TThreadProbe probe_lv;
  CThreadStart(&thread_lv, &probe_lv);
  ASSERT_EQ(PL_WAIT_OBJECT_0, thread_lv.m_h_thread->Join(5000));
  EXPECT_EQ(0u, thread_lv.m_h_thread->ExitCode());
  // Started again on the finished thread: the old handle goes, a new one
  // runs, and an exception out of the body ends it with exit code 1.
  probe_lv.m_b_throw = true;
  CThreadStart(&thread_lv, &probe_lv);
  ASSERT_EQ(PL_WAIT_OBJECT_0, thread_lv.m_h_thread->Join(5000));
  EXPECT_EQ(1u, thread_lv.m_h_thread->ExitCode());
  CThreadJoin(&thread_lv);
  EXPECT_EQ(nullptr, thread_lv.m_h_thread);
  EXPECT_EQ(2, probe_lv.m_i_runs.load());
}

TEST(CThreadTest, RunningThreadRefusesStartAndTimesOutJoin) {
  PlClockUseManual(PL_UNIX_EPOCH_TICKS);
  PlEvent release_lv(true, false);
  TThreadProbe probe_lv;
  probe_lv.m_p_release = &release_lv;
  CThread thread_lv;
  CThreadInit(&thread_lv, ProbeBody);
  CThreadStart(&thread_lv, &probe_lv);
  EXPECT_THROW(CThreadStart(&thread_lv, &probe_lv), km::SystemException);
  std::atomic<int> i_state_lv{0};  // 1: TryJoin gave false, 2: Join threw Timeout
  std::thread joiner_lv([&] {
    i_state_lv = CThreadTryJoin(&thread_lv) ? 3 : 1;
    EXPECT_THROW(CThreadJoin(&thread_lv), km::TimeoutException);
    i_state_lv = 2;
  });
  PlSleep(30);
  PlClockAdvance(1000 * static_cast<int64_t>(PL_TICKS_PER_MS));
  PlSleep(30);
  EXPECT_EQ(0, i_state_lv.load());  // the wait is 1,001 ms
  for (int i_lv = 0; i_lv < 200 && i_state_lv.load() != 2; i_lv++) {
    PlClockAdvance(50 * static_cast<int64_t>(PL_TICKS_PER_MS));
    PlSleep(5);
  }
  joiner_lv.join();
  EXPECT_EQ(2, i_state_lv.load());
  PlClockUseReal();
  release_lv.Set();
  CThreadJoin(&thread_lv);
}

// ---------------------------------------------------------------------------
// km::Exception family

TEST(ExceptionTest, WhatGivesTheNameAndCopiesAreDeepAndKeepTheClass) {
  EXPECT_STREQ("Exception", km::Exception("m").what());
  EXPECT_STREQ("Logic exception", km::LogicException("m").what());
  EXPECT_STREQ("Runtime exception", km::RuntimeException("m").what());
  EXPECT_STREQ("System exception", km::SystemException("m").what());
  km::TimeoutException outer_lv("outer");
  outer_lv.m_i_code = 7;
  outer_lv.m_p_nested = new km::InvalidArgumentException("inner");
  outer_lv.m_p_nested->m_p_nested = new km::SystemException("deepest");
  std::unique_ptr<km::Exception> p_clone_lv(outer_lv.clone());
  EXPECT_STREQ("Timeout", p_clone_lv->what());
  EXPECT_EQ(7, p_clone_lv->m_i_code);
  EXPECT_NE(outer_lv.m_p_nested->m_p_nested, p_clone_lv->m_p_nested->m_p_nested);
  EXPECT_EQ("deepest", p_clone_lv->m_p_nested->m_p_nested->m_s_message);
  EXPECT_EQ("km::SystemException", p_clone_lv->m_p_nested->m_p_nested->className());
  const km::Exception& base_lv = *outer_lv.m_p_nested;
  try {
    base_lv.rethrow();
  } catch (const km::InvalidArgumentException& e_lv) {
    EXPECT_STREQ("Invalid argument", e_lv.what());
    EXPECT_EQ("inner", e_lv.m_s_message);
    EXPECT_NE(base_lv.m_p_nested, e_lv.m_p_nested);
  }
}

}  // namespace
