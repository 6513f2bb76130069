// The checked allocator and its registry: block words, release checks,
// growth and wrap-round of the registry, the scan, and the crash list.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "include/host/core_api.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_os.h"
#include "tests/test_log.h"

namespace {

uint32_t Word(const void* p_av, int i_offset_av) {
  uint32_t ui_lv;
  memcpy(&ui_lv, static_cast<const unsigned char*>(p_av) + i_offset_av, sizeof(ui_lv));
  return ui_lv;
}

void SetWord(void* p_av, int i_offset_av, uint32_t ui_av) {
  memcpy(static_cast<unsigned char*>(p_av) + i_offset_av, &ui_av, sizeof(ui_av));
}

unsigned char* BlockOf(void* p_user_av) { return static_cast<unsigned char*>(p_user_av) - MEM_HEADER_SIZE; }

class MemCheckerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_p = g_p_mem_checker = new MemChecker();
    g_i_mem_last_bad_base = g_i_mem_last_bad_index = -1;
  }
  void TearDown() override {
    for (char*& p_lv : m_blocks)
      if (p_lv != nullptr) SAFE_MEM_FREE(p_lv);
    m_blocks.clear();
    delete g_p_mem_checker;
    g_p_mem_checker = nullptr;
  }
  char* Alloc(int32_t i_size_av, int32_t i_sign_av = 5) {
    char* p_lv = nullptr;
    SAFE_MEM_ALLOCB5(p_lv, i_size_av, i_sign_av);
    m_blocks.push_back(p_lv);
    return p_lv;
  }
  void Fill(int i_count_av) {
    for (int i_lv = 0; i_lv < i_count_av; i_lv++) Alloc(1);
  }
  // Hands a block back to the heap after a test called SafeMemReleaseCheck.
  void Forget(int i_av) {
    PlAlignedFree(BlockOf(m_blocks[i_av]));
    m_blocks[i_av] = nullptr;
  }
  MemBlockEntry& Entry(int i_base_av, int i_index_av) { return m_p->m_p_base_elems[i_base_av][i_index_av]; }
  std::string ScanStep() {
    ::testing::internal::CaptureStdout();
    CheckNextBaseElem(m_p, "writer");
    return ::testing::internal::GetCapturedStdout();
  }

  MemChecker* m_p = nullptr;
  std::vector<char*> m_blocks;
};

TEST_F(MemCheckerTest, AllocationWritesHeaderTrailerAndEntry) {
  unsigned char* pb_lv = BlockOf(Alloc(10, 7));
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(pb_lv) % 32);
  EXPECT_EQ(MEM_PREFIX_WORD, Word(pb_lv, 0));
  EXPECT_EQ(0u, Word(pb_lv, 4));  // base 0, entry 0
  EXPECT_EQ(10u, Word(pb_lv, 8));
  EXPECT_EQ(MEM_SUFFIX_WORD, Word(pb_lv, 42));
  for (int i_lv : {12, 28, 32, 41, 46, 73}) EXPECT_EQ(0, pb_lv[i_lv]) << i_lv;
  EXPECT_EQ(7, Entry(0, 0).m_i_sign);
  EXPECT_EQ(pb_lv, Entry(0, 0).m_pb_block);
  EXPECT_EQ(1u, Word(BlockOf(Alloc(3)), 4));
  EXPECT_EQ(13, m_p->m_i64_memcounter);
  char* p_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_lv, 0, 1);
  SAFE_MEM_ALLOCB5(p_lv, -5, 1);
  EXPECT_EQ(nullptr, p_lv);
  EXPECT_EQ(2, m_p->m_i_block_counter);
  EXPECT_EQ(13, m_p->m_i64_memcounter);
}

TEST_F(MemCheckerTest, ReleaseMarksGoodBlocksAndTouchesNoOtherEntry) {
  unsigned char* pb_lv = BlockOf(Alloc(5));
  EXPECT_EQ(1, SafeMemReleaseCheck(m_blocks[0]));
  EXPECT_EQ(MEM_FREED_PREFIX, Word(pb_lv, 0));
  EXPECT_EQ(0, memcmp(pb_lv + 4, "DD33ffUU", 8));
  EXPECT_EQ(MEM_FREED_SUFFIX, Word(pb_lv, 37));
  EXPECT_EQ(0u, Entry(0, 0).m_ui64_size);
  // Stale: counter 0x33334444 names base 8589, which is no entry.
  Alloc(5);
  EXPECT_EQ(0, SafeMemReleaseCheck(m_blocks[0]));
  EXPECT_EQ(5 - static_cast<int64_t>(MEM_FREED_SIZE), m_p->m_i64_memcounter);
  // Forged: a counter that names another live block's entry.
  SetWord(BlockOf(Alloc(5)), 4, 1);
  EXPECT_EQ(0, SafeMemReleaseCheck(m_blocks[2]));
  EXPECT_EQ(5u, Entry(0, 1).m_ui64_size);
  Forget(0);
  Forget(2);
}

TEST_F(MemCheckerTest, DamagedBlocksAreReportedAndStillReleased) {
  char* p_lv = Alloc(6);
  p_lv[6] = static_cast<char>(0xAA);  // one byte past the end
  EXPECT_EQ(0x876543AAu, Word(BlockOf(p_lv), 38));
  EXPECT_EQ(0, SafeMemReleaseCheck(p_lv));
  EXPECT_EQ(MEM_PREFIX_WORD, Word(BlockOf(p_lv), 0));  // not overwritten
  EXPECT_EQ(0u, Entry(0, 0).m_ui64_size);
  EXPECT_EQ(0, m_p->m_i64_memcounter);
  Forget(0);
  Alloc(6)[6] = 1;
  SAFE_MEM_FREE(m_blocks[1]);  // the leak check sees it if it stays
  // A size word that lost its entry's size keeps the entry, and the memory
  // stays for the scan to read.
  unsigned char* pb_lv = BlockOf(Alloc(16));
  SetWord(pb_lv, 8, 8);
  SAFE_MEM_FREE(m_blocks[2]);
  EXPECT_EQ(8u, Entry(0, 2).m_ui64_size);
  PlAlignedFree(pb_lv);
}

TEST_F(MemCheckerTest, ShrinkingReallocCopiesNothing) {
  memset(Alloc(8), 0x5A, 8);
  SAFE_MEM_REALLOCB4(m_blocks[0], 12, 2);
  EXPECT_EQ(0, memcmp(m_blocks[0], "ZZZZZZZZ\0\0\0\0", 12));
  EXPECT_EQ(2, Entry(0, 1).m_i_sign);
  SAFE_MEM_REALLOCB4(m_blocks[0], 4, 3);
  EXPECT_EQ(0, memcmp(m_blocks[0], "\0\0\0\0", 4));
  EXPECT_EQ(4, m_p->m_i64_memcounter);
}

// Blocks of whole pages carry the same words and entry; growth keeps the
// bytes and reads zero past them (the old trailer too), a shrink and a
// refusal behave as for heap blocks.
TEST_F(MemCheckerTest, PagesBlocksGrowInPlaceShrinkToZeroAndSurviveARefusal) {
  char* p_lv = nullptr;
  ASSERT_EQ(1, SAFE_MEM_PAGES_REALLOCB4(p_lv, 0, 8, 30));
  EXPECT_EQ(MEM_PREFIX_WORD, Word(BlockOf(p_lv), 0));
  EXPECT_EQ(MEM_SUFFIX_WORD, Word(BlockOf(p_lv), 40));
  memset(p_lv, 0x5A, 8);
  for (int32_t i_size_lv : {100, 70000, 300000}) {
    int32_t i_old_lv = static_cast<int32_t>(Word(BlockOf(p_lv), 8));
    ASSERT_EQ(1, SAFE_MEM_PAGES_REALLOCB4(p_lv, i_old_lv, i_size_lv, 30));
    EXPECT_EQ(0, memcmp(p_lv, "ZZZZZZZ", 7));
    EXPECT_EQ(i_old_lv == 8 ? 'Z' : 1, p_lv[i_old_lv - 1]);
    for (int32_t i_lv = i_old_lv; i_lv < i_size_lv; i_lv++) ASSERT_EQ(0, p_lv[i_lv]) << i_size_lv << " " << i_lv;
    EXPECT_EQ(MEM_SUFFIX_WORD, Word(BlockOf(p_lv), MEM_HEADER_SIZE + i_size_lv));
    EXPECT_EQ(i_size_lv, m_p->m_i64_memcounter);
    p_lv[i_size_lv - 1] = 1;
  }
  const MemBlockEntry& entry_lv = Entry(0, m_p->m_i_block_counter - 1);
  EXPECT_EQ(BlockOf(p_lv), entry_lv.m_pb_block);
  EXPECT_EQ(30, entry_lv.m_i_sign);

  SafeMemFailNext(30, 1);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(0, SAFE_MEM_PAGES_REALLOCB4(p_lv, 300000, 400000, 30));
  EXPECT_NE(std::string::npos, ::testing::internal::GetCapturedStdout().find("in SAFE_MEM_ALLOCB5"));
  EXPECT_EQ(300000, m_p->m_i64_memcounter);
  EXPECT_EQ(0, memcmp(p_lv, "ZZZZZZZZ", 8));

  ASSERT_EQ(1, SAFE_MEM_PAGES_REALLOCB4(p_lv, 300000, 5000, 29));
  for (int32_t i_lv = 0; i_lv < 5000; i_lv++) ASSERT_EQ(0, p_lv[i_lv]) << i_lv;
  EXPECT_EQ(5000, m_p->m_i64_memcounter);
  EXPECT_EQ(0, SAFE_MEM_PAGES_REALLOCB4(p_lv, 5000, 0, 29));  // no block: the old one stays
  // A block overrun before it grows is reported, and the grown one is sound.
  p_lv[5000] = 1;
  ASSERT_EQ(1, SAFE_MEM_PAGES_REALLOCB4(p_lv, 5000, 9000, 30));
  EXPECT_EQ(0, p_lv[5000]);
  // One whose size word lost its entry's size stays where the scan reads it;
  // its bytes move to a fresh block.
  unsigned char* pb_old_lv = BlockOf(p_lv);
  p_lv[8999] = 7;
  SetWord(pb_old_lv, 8, 100);
  ASSERT_EQ(1, SAFE_MEM_PAGES_REALLOCB4(p_lv, 9000, 20000, 30));
  EXPECT_NE(pb_old_lv, BlockOf(p_lv));
  EXPECT_EQ(MEM_PREFIX_WORD, Word(pb_old_lv, 0));
  EXPECT_EQ(7, p_lv[8999]);
  SAFE_MEM_PAGES_FREE(p_lv, 20000);
  EXPECT_EQ(nullptr, p_lv);
  EXPECT_EQ(9000 - 100, m_p->m_i64_memcounter);  // the entry that stays
  PlPagesFree(pb_old_lv, 9000 + MEM_EXTRA_SIZE);
}

TEST_F(MemCheckerTest, FullBaseElementGrowsToBaseOneAndSkipsItsEntryZero) {
  Fill(I_MEM_BLOCK_NUM);
  EXPECT_EQ(static_cast<uint32_t>(I_MEM_BLOCK_NUM - 1), Word(BlockOf(m_blocks.back()), 4));
  EXPECT_NE(nullptr, m_p->m_p_base_elems[1]);
  EXPECT_EQ(nullptr, m_p->m_p_base_elems[2]);
  Fill(1);
  EXPECT_EQ(static_cast<uint32_t>(I_MEM_BLOCK_NUM + 1), Word(BlockOf(m_blocks.back()), 4));
}

// Fills base 0 to entry 99,998, frees entries 0..n-1 and takes entry 99,999:
// the search runs off the end with n entries free.
TEST_F(MemCheckerTest, TwentyThousandFreeWrapsRoundFewerGrow) {
  for (int i_free_lv : {19999, 20000}) {
    TearDown();
    SetUp();
    Fill(I_MEM_BLOCK_NUM - 1);
    for (int i_lv = 0; i_lv < i_free_lv; i_lv++) SAFE_MEM_FREE(m_blocks[i_lv]);
    Fill(1);
    bool b_wrap_lv = i_free_lv >= 20000;
    EXPECT_EQ(b_wrap_lv ? 1 : 0, m_p->m_i_circle_counter);
    EXPECT_EQ(b_wrap_lv, m_p->m_p_base_elems[1] == nullptr);
    Fill(1);  // entry 0 of base 0 or of base 1 is passed over
    EXPECT_EQ(b_wrap_lv ? 1u : 100001u, Word(BlockOf(m_blocks.back()), 4));
    EXPECT_EQ(b_wrap_lv ? 1u : 0u, (b_wrap_lv ? Entry(0, 1) : Entry(1, 1)).m_ui_circle);
  }
}

TEST_F(MemCheckerTest, FullRegistryHandsOutUnregisteredBlocksThatReportThemselves) {
  Alloc(4);
  m_p->m_b_is_error = 1;
  char* p_lv = Alloc(9);
  EXPECT_EQ(MEM_UNREGISTERED, Word(BlockOf(p_lv), 4));
  EXPECT_EQ(13, m_p->m_i64_memcounter);
  GetNextFreeIndex(m_p);
  EXPECT_EQ(-1, m_p->m_i_block_counter);
  EXPECT_EQ(-1, m_p->m_i_block_counter_base);
  EXPECT_EQ(0, SafeMemReleaseCheck(p_lv));  // remembered size 0
  Forget(1);
}

TEST_F(MemCheckerTest, BlocksLiveOnWithoutRegistry) {
  g_p_mem_checker = nullptr;
  Alloc(5);
  Alloc(5)[5] = 0;
  g_p_mem_checker = m_p;
  EXPECT_EQ(MEM_UNREGISTERED, Word(BlockOf(m_blocks[0]), 4));
  EXPECT_EQ(0u, Word(BlockOf(Alloc(7)), 4));
  EXPECT_EQ(1, SafeMemReleaseCheck(m_blocks[0]));  // nothing to compare its size with
  EXPECT_EQ(2, m_p->m_i64_memcounter);
  g_p_mem_checker = nullptr;
  EXPECT_EQ(1, SafeMemReleaseCheck(m_blocks[2]));
  EXPECT_EQ(0, SafeMemReleaseCheck(m_blocks[1]));
  g_p_mem_checker = m_p;
  for (int i_lv = 0; i_lv < 3; i_lv++) Forget(i_lv);
}

TEST_F(MemCheckerTest, CheckBlockTellsWhichWordIsWrong) {
  Fill(4);
  SetWord(BlockOf(m_blocks[0]), 0, 0);
  m_blocks[1][1] = 0;
  Entry(0, 2).m_ui64_size = 2;
  int32_t i_error_lv = -1;
  for (int i_lv = 0; i_lv < 4; i_lv++) {
    EXPECT_EQ(i_lv == 3 ? 1 : 0, CheckBlock(m_p, &Entry(0, i_lv), &i_error_lv));
    EXPECT_EQ((i_lv + 1) % 4, i_error_lv);
  }
  Entry(0, 2).m_ui64_size = 1;
}

TEST_F(MemCheckerTest, ScanWithOneBaseElementScansOnlyOnce) {
  Fill(4);
  m_blocks[2][1] = 0;
  EXPECT_EQ("", ScanStep());  // first pass remembers (0, 2)
  EXPECT_EQ(2, g_i_mem_last_bad_index);
  EXPECT_EQ("", ScanStep());  // comes round to base 0 and stops
  // With two elements the steps alternate, and base 0 leads a pass with the
  // same bad block again.
  CreateNewBaseElem(m_p);
  EXPECT_EQ("", ScanStep());
  EXPECT_EQ(1, m_p->m_i_scan_base);
  EXPECT_EQ("archive throw exception div 0", ScanStep());
  std::unique_ptr<StableObject> p_stable_lv(new StableObject());
  g_p_stable = p_stable_lv.get();
  ScanStep();
  g_p_stable = nullptr;
  EXPECT_EQ(4, p_stable_lv->m_i64_memcounter);
}

// The scan runs on the stability monitor's thread while every other
// thread allocates: it reads the byte counter under the registry lock.
TEST_F(MemCheckerTest, TheScanReadsTheCounterWhileOtherThreadsAllocate) {
  std::unique_ptr<StableObject> p_stable_lv(new StableObject());
  g_p_stable = p_stable_lv.get();
  std::atomic<bool> b_stop_lv{false};
  std::thread alloc_lv([&b_stop_lv] {
    while (!b_stop_lv.load()) {
      char* p_lv = nullptr;
      SAFE_MEM_ALLOCB5(p_lv, 16, 5);
      SAFE_MEM_FREE(p_lv);
    }
  });
  for (int i_lv = 0; i_lv < 200; i_lv++) CheckNextBaseElem(m_p, "writer");
  b_stop_lv.store(true);
  alloc_lv.join();
  CheckNextBaseElem(m_p, "writer");
  g_p_stable = nullptr;
  EXPECT_EQ(0, p_stable_lv->m_i64_memcounter);
}

TEST_F(MemCheckerTest, CrashListIsPlainTextAndStopsAfter101Lines) {
  char s_path_lv[] = "/tmp/memdumpXXXXXX";
  int fd_lv = mkstemp(s_path_lv);
  unlink(s_path_lv);
  auto dump_lv = [&] {
    EXPECT_EQ(0, ftruncate(fd_lv, 0));
    lseek(fd_lv, 0, SEEK_SET);
    MemCheckerDumpToFile(fd_lv, m_p);
    std::string s_lv(1 << 16, 0);
    s_lv.resize(pread(fd_lv, &s_lv[0], s_lv.size(), 0));
    return s_lv;
  };
  Fill(18);
  m_blocks[17][1] = 0;
  Entry(0, 17).m_ui64_size = 64;
  Entry(0, 17).m_i_sign = 34;
  EXPECT_EQ("----------\nbase ind 0ind 17circl use 0size 64sign 34error 2\n", dump_lv());
  Entry(0, 17).m_ui64_size = 1;
  Fill(150);
  for (char* p_lv : m_blocks) p_lv[1] = 0;
  CreateNewBaseElem(m_p);
  Fill(1);
  m_blocks.back()[1] = 0;  // in base 1: not reached either
  std::string s_lv = dump_lv();
  EXPECT_EQ(102, std::count(s_lv.begin(), s_lv.end(), '\n'));
  EXPECT_NE(std::string::npos, s_lv.find("base ind 0ind 100circl"));
  EXPECT_EQ(std::string::npos, s_lv.find("base ind 0ind 101circl"));
  PlFileClose(fd_lv);
}

// Run from a copy elsewhere (below), the program is told where to expect
// the file.
TEST_F(MemCheckerTest, MemoryPathIsBesideTheExecutable) {
  MemCheckerInitPath(m_p, "writer");
  const char* s_want_lv = getenv("MEMCHECKER_WANT_PATH");
  EXPECT_STREQ(s_want_lv != nullptr ? s_want_lv : WRITER_BIN_DIR "/memory/writer.log", m_p->m_s_mem_path);
  if (s_want_lv == nullptr) {
    EXPECT_EQ(0, access(WRITER_BIN_DIR "/memory", F_OK));
  }
}

// A backslash in the executable's name separates as a slash does.
TEST_F(MemCheckerTest, MemoryPathCutsTheExecutableNameAtABackslashToo) {
  char s_dir_lv[] = "/tmp/test_memchecker_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(s_dir_lv));
  std::string dir_lv = s_dir_lv;
  ASSERT_EQ(0, mkdir((dir_lv + "/bin").c_str(), 0755));
  std::string exe_lv = dir_lv + "/bin/tools\\memchecker";
  ASSERT_EQ(0, system(("cp /proc/" + std::to_string(getpid()) + "/exe '" + exe_lv + "'").c_str()));
  std::string cmd_lv = "MEMCHECKER_WANT_PATH='" + dir_lv + "/bin/tools/memory/writer.log' '" + exe_lv +
                       "' --gtest_filter=MemCheckerTest.MemoryPathIsBesideTheExecutable >/dev/null";
  EXPECT_EQ(0, system(cmd_lv.c_str()));
  EXPECT_EQ(0, system(("rm -rf " + dir_lv).c_str()));
}

// The report of a damaged block reaches the main log: the fault line, then
// the two markers with nothing between them. "arc.transf", which takes the
// markers' second copies, is off by default.
TEST_F(MemCheckerTest, DamageAtReleaseIsReportedInTheLog) {
  char s_dir_lv[] = "/tmp/test_memchecker_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(s_dir_lv));
  writer_test::TestLog log_lv;
  log_lv.Open(s_dir_lv);
  char* p_lv = Alloc(10, 9);
  p_lv[10] = 0x11;  // one byte past the end
  SAFE_MEM_FREE(m_blocks.back());
  log_lv.Close();

  std::istringstream in_lv(log_lv.Read("arc"));
  std::vector<std::string> lines_lv;
  for (std::string s_line_lv; std::getline(in_lv, s_line_lv);) lines_lv.push_back(s_line_lv);
  ASSERT_EQ(3u, lines_lv.size());
  EXPECT_NE(std::string::npos, lines_lv[0].find("<error> mem 2 : pref 12345678, counter 0, size 10, suff 87654311, "
                                                "rememb_size 10 sign 9 circl 0 memchecker "));
  EXPECT_NE(std::string::npos, lines_lv[1].find("---error free beg---"));
  EXPECT_NE(std::string::npos, lines_lv[2].find("---error free end---"));
  EXPECT_EQ(0, system((std::string("rm -rf ") + s_dir_lv).c_str()));
}

}  // namespace
