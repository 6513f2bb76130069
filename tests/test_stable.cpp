// Tests of the stability monitor: slots, the minute's files, the crash print
// and the hook values. The test program stands in for the host executable,
// so the three folders appear beside it; the manual clock makes each pass
// happen when the test moves it by a minute.
#include "linux/common_use/service/Stable.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_os.h"

namespace {

const int64_t kSecond = static_cast<int64_t>(PL_TICKS_PER_SECOND);

// The hook as the host keeps it, with every set recorded. When the host
// library offers no hook functions, a per-thread value stands in for it.
CoreSetHookFn g_host_set = nullptr;
CoreGetHookFn g_host_get = nullptr;
thread_local uint8_t t_hook = 0;
std::mutex g_record_mutex;
std::vector<std::pair<uint32_t, uint8_t>> g_sets;
std::vector<std::pair<uint32_t, uint8_t>> g_gets;

void RecordingSet(uint8_t value) {
  {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    g_sets.emplace_back(PlThreadCurrentId(), value);
  }
  if (g_host_set != nullptr) {
    g_host_set(value);
  } else {
    t_hook = value;
  }
}

uint8_t RecordingGet() {
  uint8_t value = g_host_get != nullptr ? g_host_get() : t_hook;
  std::lock_guard<std::mutex> lock(g_record_mutex);
  g_gets.emplace_back(PlThreadCurrentId(), value);
  return value;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream out;
  out << in.rdbuf();
  return out.str();
}

bool WaitFor(const std::function<bool()>& done, int real_ms) {
  for (int i = 0; i < real_ms; ++i) {
    if (done()) return true;
    PlSleep(1);
  }
  return done();
}

int CountOccurrences(const std::string& text, const std::string& what) {
  int count = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++count;
  return count;
}

std::string HeaderNow(const char* tail) {
  PlCalendar cal;
  EXPECT_TRUE(PlFileTimeToCalendar(PlFileTimeUtc(), &cal));
  char line[96];
  snprintf(line, sizeof(line), "%d %d:%d:%d%s", cal.i_day, cal.i_hour, cal.i_minute, cal.i_second, tail);
  return line;
}

const char kStart[] = "start /test_stable\nstart thread print\n";

class StableTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    CoreImportRow rows[] = {{"core_sethook", reinterpret_cast<void**>(&g_host_set)},
                            {"core_gethook", reinterpret_cast<void**>(&g_host_get)},
                            {nullptr, nullptr}};
    core_dll_open("core", rows);
    core_sethook = RecordingSet;
    core_gethook = RecordingGet;
  }
  static void TearDownTestSuite() {
    core_sethook = nullptr;
    core_gethook = nullptr;
    core_dll_close("core");
  }

  void SetUp() override {
    PlCalendar cal = {2024, 3, 4, 14, 9, 41, 0, 0};
    uint64_t start = 0;
    ASSERT_TRUE(PlCalendarToFileTime(&cal, &start));
    PlClockUseManual(start);
    char exe[512];
    ASSERT_GT(PlExePath(exe, sizeof(exe)), 0u);
    dir_ = exe;
    dir_ = dir_.substr(0, dir_.rfind('/'));
    stable_ = dir_ + "/stable/test_stable.log";
    cpu_ = dir_ + "/cpu/test_stable.log";
    memory_ = dir_ + "/memory/test_stable.log";
    strcpy(g_s_plugin_path, "/test_stable");
    {
      std::lock_guard<std::mutex> lock(g_record_mutex);
      g_sets.clear();
      g_gets.clear();
    }
    g_p_stable = static_cast<StableObject*>(calloc(1, sizeof(StableObject)));
    StableStart();
    // The thread writes its start line last to the memory file, then waits.
    ASSERT_TRUE(WaitFor([&] { return ReadFile(memory_) == kStart; }, 5000));
  }

  void TearDown() override {
    StableStop();
    free(g_p_stable);
    g_p_stable = nullptr;
    g_s_plugin_path[0] = 0;
    PlClockUseReal();
    for (const char* sub : {"stable", "cpu", "memory"}) {
      std::remove((dir_ + "/" + sub + "/test_stable.log").c_str());
      std::remove((dir_ + "/" + sub).c_str());  // an empty folder only: others may use it
    }
  }

  int Passes() { return CountOccurrences(ReadFile(memory_), "\nmem "); }

  // Moves the clock a minute and waits for the pass. A move made before the
  // thread was back in its wait is not seen by it, so it is made again.
  void RunPass() {
    int before = Passes();
    for (int attempt = 0; attempt < 5; ++attempt) {
      PlClockAdvance(60 * kSecond);
      if (WaitFor([&] { return Passes() > before; }, 1000)) return;
    }
    FAIL() << "the print thread made no pass";
  }

  // What a pass appended to a file.
  std::string Appended(const std::string& path, size_t before) { return ReadFile(path).substr(before); }

  static std::string SlotLine(int index, int counter, int point, const char* name) {
    char line[128];
    snprintf(line, sizeof(line), "[%d][%d] a=%d tID %d '%s'\n", index, counter, point,
             static_cast<int>(PlThreadCurrentId()), name);
    return line;
  }

  std::string dir_, stable_, cpu_, memory_;
};

TEST_F(StableTest, OnePassWritesSlotsCpuAndMemory) {
  int32_t frame = StableEnter("on_frame");
  StableMark(frame, 20123);
  int32_t longer = StableEnter("abcdefghijklmnopqrstuvwxyz");
  EXPECT_STREQ("abcdefghijklmnopqrst", g_p_stable->m_slots[longer].m_s_name);
  g_p_stable->m_i64_memcounter = 4096;

  RunPass();
  std::string header = HeaderNow("----------------------\n");
  EXPECT_EQ(kStart + header + SlotLine(1, 2, 20123, "on_frame") + SlotLine(2, 1, 1, "abcdefghijklmnopqrst"),
            ReadFile(stable_));
  // The mark came at once, so point 1 holds no time and is not counted.
  EXPECT_EQ(kStart + header + "MYTORMOZ=0 % cpu=0 mysleep=0 profdata=0 CNT=0", ReadFile(cpu_));
  EXPECT_EQ(kStart + header + "mem 4096\n", ReadFile(memory_));
  // The crash print shows the time of the last header.
  char kept[32];
  snprintf(kept, sizeof(kept), "%d %d:%d:", g_p_stable->m_i_day, g_p_stable->m_i_hour, g_p_stable->m_i_minute);
  EXPECT_EQ(0u, header.find(kept));
}

TEST_F(StableTest, StallShownFromSecondPassOnUnlessTheCounterMoved) {
  int32_t blocked = StableEnter("blocked");
  StableMark(blocked, 20123);
  int32_t busy = StableEnter("busy");
  int32_t handed = StableEnter("handed");
  int32_t spare = StableEnter("spare");
  RunPass();
  EXPECT_EQ(0, CountOccurrences(ReadFile(stable_), "TORMOZ"));

  StableMark(busy, 20005);
  StableLeave(handed);
  StableLeave(spare);
  // Given back slots queue behind the free ones: the handed one comes round
  // again after every other slot has been claimed.
  for (int i = 0; i < STABLE_SLOT_NUM - 5; ++i) ASSERT_NE(handed, StableEnter("filler"));
  ASSERT_EQ(handed, StableEnter("again"));

  size_t before = ReadFile(stable_).size();
  RunPass();
  std::string pass2 = Appended(stable_, before);
  EXPECT_NE(std::string::npos, pass2.find(SlotLine(blocked, 2, 20123, "blocked") + "TORMOZ!!!!\n"));
  EXPECT_NE(std::string::npos, pass2.find(SlotLine(busy, 2, 20005, "busy") + SlotLine(handed, 2, 1, "again")));
  EXPECT_EQ(1, CountOccurrences(pass2, "TORMOZ!!!!\n"));

  before = ReadFile(stable_).size();
  RunPass();
  std::string pass3 = Appended(stable_, before);
  EXPECT_NE(std::string::npos, pass3.find(SlotLine(blocked, 2, 20123, "blocked") + "TORMOZ!!!!\n"));
  EXPECT_EQ(STABLE_SLOT_NUM - 2, CountOccurrences(pass3, "TORMOZ!!!!\n"));
}

TEST_F(StableTest, FullTableHandsOutSlotZeroForGood) {
  for (int i = 1; i <= STABLE_SLOT_NUM - 2; ++i) ASSERT_EQ(i, StableEnter("live"));
  EXPECT_EQ(0, StableEnter("one too many"));
  EXPECT_EQ(0, g_p_stable->m_slots[0].m_s_name[0]);

  StableLeave(0);
  EXPECT_EQ(&g_p_stable->m_slots[0], g_p_stable->m_p_tail);
  EXPECT_EQ(&g_p_stable->m_slots[0], g_p_stable->m_slots[STABLE_SLOT_NUM - 1].m_p_next);
  StableLeave(5);
  EXPECT_EQ(&g_p_stable->m_slots[5], g_p_stable->m_p_tail);
  EXPECT_EQ(0, StableEnter("still none"));
  EXPECT_EQ(0, StableEnter("still none"));
}

TEST_F(StableTest, MarkAndLeaveOutsideTheTablesTouchNothing) {
  int32_t slot = StableEnter("guarded");
  std::vector<char> before(reinterpret_cast<char*>(g_p_stable),
                           reinterpret_cast<char*>(g_p_stable) + sizeof(StableObject));
  StableMark(-1, 5);
  StableMark(-2, 5);
  StableMark(STABLE_SLOT_NUM, 5);
  StableMark(slot, STABLE_POINT_NUM);
  StableMark(slot, -3);
  StableLeave(-1);
  StableLeave(STABLE_SLOT_NUM);
  StableLeave(-40000);
  EXPECT_EQ(0, memcmp(before.data(), g_p_stable, sizeof(StableObject)));
}

TEST_F(StableTest, CpuFileBooksTimeToTheEarlierPoint) {
  int32_t slot = StableEnter("cpu");
  PlClockAdvance(6 * kSecond);
  StableMark(slot, 20);  // 6 s on point 1, from StableEnter
  PlClockAdvance(3 * kSecond);
  StableMark(slot, 90001);
  PlClockAdvance(12 * kSecond);
  StableMark(slot, 30);  // 12 s of waiting
  PlClockAdvance(3 * kSecond / 10);
  StableMark(slot, 40);  // 0.3 s: under 1 %, not listed, still summed
  PlClockAdvance(6 * kSecond);
  StableLeave(slot);  // books 6 s on point 40 and counts nothing

  size_t before = ReadFile(cpu_).size();
  RunPass();
  std::string header1 = HeaderNow("----------------------\n");
  RunPass();
  std::string header2 = HeaderNow("----------------------\n");
  EXPECT_EQ(header1 + "[1] 10 % 1\n[20] 5 % 1\n[40] 10 % 0\n[90001] 20 % 1\n" +
                "MYTORMOZ=25 % cpu=45 mysleep=20 profdata=25 CNT=4" + header2 +
                "MYTORMOZ=0 % cpu=0 mysleep=0 profdata=0 CNT=0",
            Appended(cpu_, before));
}

TEST_F(StableTest, FileOverTenThousandLinesIsEmptiedAtTheNextPass) {
  for (int i = 0; i < STABLE_SLOT_NUM - 2; ++i) StableEnter("live");
  // 1,199 counted lines a pass (header and slots; stall lines do not count):
  // 10,791 after nine passes, so the tenth pass starts the file anew.
  for (int pass = 0; pass < 9; ++pass) RunPass();
  EXPECT_EQ(0u, ReadFile(stable_).find(kStart));
  RunPass();
  std::string text = ReadFile(stable_);
  EXPECT_EQ(0u, text.find(HeaderNow("----------------------\n")));
  EXPECT_EQ(1 + 2 * (STABLE_SLOT_NUM - 2), CountOccurrences(text, "\n"));
}

TEST_F(StableTest, CrashPrintWritesLiveSlotsAndTheMemoryList) {
  // After a pass the print thread has its buffers and only waits, so the
  // checker can come and go under it.
  RunPass();
  int32_t frame = StableEnter("on_frame");
  StableMark(frame, 20123);
  g_p_stable->m_slots[frame].m_ui_counter = 258;  // only the low byte is shown
  int32_t other = StableEnter("other");
  g_p_stable->m_slots[other].m_ui_thread_id = 0x80000001u;
  g_p_stable->m_i_day = 14;
  g_p_stable->m_i_hour = 9;
  g_p_stable->m_i_minute = 41;
  MemChecker* checker = new MemChecker();
  strcpy(checker->m_s_mem_path, memory_.c_str());
  g_p_mem_checker = checker;

  uint32_t tid = PlThreadCurrentId();
  char own[160];
  snprintf(own, sizeof(own), "ENASOS--- ---tiD %u x %X ind %d intrenal count 2 point 20123 threadon_frame\n", tid,
           tid, frame);
  char other_line[160];
  snprintf(other_line, sizeof(other_line), "tiD 2147483649 x 80000001 ind %d intrenal count 1 point 1 threadother\n",
           other);
  size_t stable_before = ReadFile(stable_).size();
  size_t memory_before = ReadFile(memory_).size();
  exception_filter(static_cast<int32_t>(tid));
  EXPECT_EQ(std::string("crash aT ___20xx:xx:14 9:41\n") + own + other_line + "__\n",
            Appended(stable_, stable_before));
  EXPECT_EQ("----------\n", Appended(memory_, memory_before));

  // The argument is compared as the 32 bits of the id, sign bit included.
  stable_before = ReadFile(stable_).size();
  exception_filter(static_cast<int32_t>(0x80000001u));
  EXPECT_NE(std::string::npos, Appended(stable_, stable_before).find(std::string("ENASOS--- ---") + other_line));

  // Without the monitor only the memory list is written.
  StableObject* monitor = g_p_stable;
  g_p_stable = nullptr;
  stable_before = ReadFile(stable_).size();
  memory_before = ReadFile(memory_).size();
  exception_filter(static_cast<int32_t>(tid));
  g_p_stable = monitor;
  EXPECT_EQ(stable_before, ReadFile(stable_).size());
  EXPECT_EQ("----------\n", Appended(memory_, memory_before));

  g_p_mem_checker = nullptr;
  delete checker;
}

TEST_F(StableTest, StopEndsTheThreadPromptlyWithItsExitLine) {
  auto begin = std::chrono::steady_clock::now();
  StableStop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(kStart + HeaderNow("---normal exit\n"), ReadFile(stable_));
  EXPECT_EQ(nullptr, g_p_stable->m_h_thread);
  EXPECT_EQ(nullptr, g_p_stable->m_p_lock);
  // Once stopped, entries still work but are not shown.
  EXPECT_EQ(-1, StableEnter("late"));
  StableLeave(-1);
}

TEST_F(StableTest, HookIsFortyInsideFortyNineAfterAndSavedValueAtTheEnd) {
  core_sethook(7);
  TStableScope scope = {HookGet(), StableEnter("entry")};
  EXPECT_EQ(40, HookGet());
  StableLeave(StableEnter("inner"));
  EXPECT_EQ(49, HookGet());
  StableScopeEnd(&scope);
  EXPECT_EQ(7, HookGet());
  EXPECT_EQ(0, g_p_stable->m_slots[scope.m_i_slot].m_s_name[0]);

  // The print thread sets 40 for its run and puts back what it found.
  uint32_t printer = g_p_stable->m_h_thread->Id();
  StableStop();
  std::vector<uint8_t> sets, gets;
  {
    std::lock_guard<std::mutex> lock(g_record_mutex);
    for (const auto& rec : g_sets) {
      if (rec.first == printer) sets.push_back(rec.second);
    }
    for (const auto& rec : g_gets) {
      if (rec.first == printer) gets.push_back(rec.second);
    }
  }
  ASSERT_EQ(2u, sets.size());
  ASSERT_EQ(1u, gets.size());
  EXPECT_EQ(40, sets[0]);
  EXPECT_EQ(gets[0], sets[1]);
}

}  // namespace
