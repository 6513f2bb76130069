// The reference logging library on its own, loaded as a plug-in loads it.
#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "include/host/log_api.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"

namespace {

struct LogLib {
  LogDllInitFn dll_init;
  LogDllFreeFn dll_free;
  LogInitFn init;
  LogVWriteFn vwrite;
  LogGetLevelFn get_level;
  LogFreeFn free;
  LogConfigureFn configure;
  LogSetLevelFn set_level;
};
LogLib g_lib;
void* g_handle = nullptr;

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void Write(uint64_t handle, int64_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  g_lib.vwrite(handle, level, 0, 7, "file", "function", 12, format, args);
  va_end(args);
}

class LogLibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_handle = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(g_handle, nullptr) << dlerror();
    const char* names[] = {"dll_init", "dll_free", "log_init",      "log_vwrite",
                           "log_get_level", "log_free", "log_configure", "log_set_level"};
    void** slots = reinterpret_cast<void**>(&g_lib);
    for (int i = 0; i < 8; i++) ASSERT_NE(slots[i] = dlsym(g_handle, names[i]), nullptr) << names[i];
    setenv("TZ", "UTC", 1);
    tzset();
    PlClockTimeZoneChanged();
  }
  static void TearDownTestSuite() { dlclose(g_handle); }

  void SetUp() override {
    char dir[] = "/tmp/test_log_library_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    PlCalendar cal = {2024, 3, 2, 5, 10, 20, 30, 456};
    uint64_t ticks = 0;
    ASSERT_TRUE(PlCalendarToFileTime(&cal, &ticks));
    PlClockUseManual(ticks);
    ASSERT_EQ(g_lib.dll_init(0), 0);
    ASSERT_EQ(g_lib.configure(m_dir.c_str(), nullptr), 0);
  }
  void TearDown() override {
    for (uint64_t handle : m_handles) g_lib.free(handle);
    EXPECT_EQ(g_lib.dll_free(), 0);
    PlClockUseReal();
    std::string cmd = "rm -rf " + m_dir;
    EXPECT_EQ(system(cmd.c_str()), 0);
  }

  uint64_t Open(const char* name) {
    struct {
      uint64_t handle;
      char rest[56];
    } binding;
    binding.handle = 99;
    EXPECT_EQ(g_lib.init(&binding, name, 0), 0);
    m_handles.push_back(binding.handle);
    return binding.handle;
  }
  std::string File(const char* name) { return ReadAll(m_dir + "/" + name); }

  std::string m_dir;
  std::vector<uint64_t> m_handles;
};

TEST_F(LogLibraryTest, WritesEachLoggerToItsOwnFileWithTimeAndLevel) {
  uint64_t arc = Open("arc");
  uint64_t common = Open("common");
  Write(arc, 5000, "<root>hello %d %s %d%%", 7, "x", 50);
  Write(common, 20000, "<thread>cam %lld started\n", 42LL);
  Write(arc, 40000, "second");
  EXPECT_EQ(File("arc.log"),
            "2024.03.05 10:20:30:456 5000 <root>hello 7 x 50%\n"
            "2024.03.05 10:20:30:456 40000 second\n");
  EXPECT_EQ(File("common.log"), "2024.03.05 10:20:30:456 20000 <thread>cam 42 started\n");

  uint64_t odd = Open("../a/b c");
  Write(odd, 5000, "odd");
  EXPECT_TRUE(Exists(m_dir + "/.._a_b_c.log"));
}

TEST_F(LogLibraryTest, DefaultThresholdsAndDroppedLines) {
  uint64_t arc = Open("arc");
  EXPECT_EQ(g_lib.get_level(arc), 5000);
  EXPECT_EQ(g_lib.get_level(Open("arc.tracedecim")), 5000);
  EXPECT_EQ(g_lib.get_level(Open("common")), 20000);
  EXPECT_GT(g_lib.get_level(Open("arc.trace")), 20000);
  EXPECT_GT(g_lib.get_level(Open("arc.transf")), 20000);
  EXPECT_EQ(g_lib.get_level(Open("anything.else")), 5000);
  EXPECT_EQ(g_lib.get_level(0), INT64_MAX);

  Write(arc, 4999, "below threshold");
  Write(arc, 5000, nullptr);
  Write(0, 50000, "no handle");
  EXPECT_FALSE(Exists(m_dir + "/arc.log"));

  struct {
    uint64_t handle;
  } binding = {5};
  EXPECT_NE(g_lib.init(&binding, "", 0), 0);
  EXPECT_EQ(binding.handle, 0u);
  EXPECT_NE(g_lib.init(nullptr, "arc", 0), 0);

  uint64_t gone = Open("gone");
  m_handles.pop_back();
  EXPECT_EQ(g_lib.free(gone), 0);
  EXPECT_EQ(g_lib.free(gone), -1);
}

TEST_F(LogLibraryTest, ConfigurationFileSetsThresholdsAndReportsBadLines) {
  std::string config = m_dir + "/log.conf";
  std::ofstream(config) << "# thresholds\n"
                           "\n"
                           "arc = 30000   # quiet\n"
                           "  arc.trace=100\n"
                           "* = 7000\n"
                           "no equals sign\n"
                           "common = lots\n"
                           " = 5\n"
                           "arc.load = 5 junk\n"
                           "two words = 5\n";
  uint64_t arc = Open("arc");
  testing::internal::CaptureStderr();
  EXPECT_EQ(g_lib.configure(m_dir.c_str(), config.c_str()), 0);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "log: " + config + ":6: bad line skipped: no equals sign\n" + "log: " + config +
                     ":7: bad line skipped: common = lots\n" + "log: " + config + ":8: bad line skipped:  = 5\n" +
                     "log: " + config + ":9: bad line skipped: arc.load = 5 junk\n" + "log: " + config +
                     ":10: bad line skipped: two words = 5\n");
  EXPECT_EQ(g_lib.get_level(arc), 30000);  // an open logger follows at once
  EXPECT_EQ(g_lib.get_level(Open("arc.trace")), 100);
  EXPECT_EQ(g_lib.get_level(Open("common")), 20000);
  EXPECT_EQ(g_lib.get_level(Open("arc.load")), 5000);
  EXPECT_EQ(g_lib.get_level(Open("other")), 7000);

  // A run-time change reaches open and later loggers of the name.
  EXPECT_EQ(g_lib.set_level("arc", 25000), 1);
  EXPECT_EQ(g_lib.get_level(Open("arc")), 25000);
  Write(arc, 20000, "dropped");
  Write(arc, 25000, "kept");
  EXPECT_EQ(File("arc.log"), "2024.03.05 10:20:30:456 25000 kept\n");

  // A missing file fails, and the defaults stand again.
  testing::internal::CaptureStderr();
  EXPECT_EQ(g_lib.configure(m_dir.c_str(), (m_dir + "/missing.conf").c_str()), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot read"), std::string::npos);
  EXPECT_EQ(g_lib.get_level(arc), 5000);
}

// A host learns what a plug-in reported during one of its calls from the
// counts of its own thread: lines handed with their text count whatever the
// threshold keeps; a line handed without text cannot, and the peak of the
// threshold tells the host when that may have happened.
TEST_F(LogLibraryTest, CountsLinesByLeadingTextPerThreadWhateverTheThreshold) {
  auto count_texts = reinterpret_cast<LogCountTextsFn>(dlsym(g_handle, "log_count_texts"));
  auto thread_counts = reinterpret_cast<LogThreadCountsFn>(dlsym(g_handle, "log_thread_counts"));
  auto peak = reinterpret_cast<LogLevelPeakFn>(dlsym(g_handle, "log_level_peak"));
  ASSERT_TRUE(count_texts != nullptr && thread_counts != nullptr && peak != nullptr);
  const char* texts[] = {"<error3> pass", "<root>first", ""};
  EXPECT_EQ(2, count_texts(texts, 3));  // an empty text is no text
  EXPECT_EQ(-1, count_texts(texts, LOG_COUNT_TEXTS_MAX + 1));
  uint64_t arc = Open("arc");
  int64_t before[2] = {0, 0}, after[2] = {0, 0};
  ASSERT_EQ(2, thread_counts(before, 2));
  Write(arc, 40000, "<error3> pass over %d", 1);
  Write(arc, 1, "<error3> pass, below the threshold");
  Write(arc, 5000, nullptr);
  Write(arc, 5000, "<root>first key");
  Write(arc, 5000, " <root>first: not at the start");
  Write(0, 5000, "<root>first, no logger");
  std::thread other([&] {
    Write(arc, 40000, "<error3> pass of another thread");
    int64_t mine[2] = {0, 0};
    thread_counts(mine, 2);
    EXPECT_EQ(1, mine[0]);
  });
  other.join();
  thread_counts(after, 2);
  EXPECT_EQ(2, after[0] - before[0]);
  EXPECT_EQ(1, after[1] - before[1]);

  EXPECT_EQ(5000, peak("arc"));
  g_lib.set_level("arc", 40000);
  g_lib.set_level("arc", 5000);
  EXPECT_EQ(40000, peak("arc")) << "lines below 40000 may have been dropped meanwhile";
  EXPECT_EQ(0, g_lib.configure(m_dir.c_str(), nullptr));
  EXPECT_EQ(5000, peak("arc"));
  EXPECT_GT(peak("arc.trace"), 20000);
  EXPECT_EQ(0, count_texts(nullptr, 0));
}

TEST_F(LogLibraryTest, WithoutFolderWritesNowhereAndSaysSoOnce) {
  uint64_t arc = Open("arc");
  ASSERT_EQ(g_lib.configure(nullptr, nullptr), 0);
  testing::internal::CaptureStderr();
  Write(arc, 5000, "one");
  Write(arc, 5000, "two");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "log: no folder configured, lines are not written\n");
  EXPECT_FALSE(Exists(m_dir + "/arc.log"));

  // A new folder takes the lines of loggers already open.
  std::string moved = m_dir + "/moved";
  ASSERT_EQ(g_lib.configure(moved.c_str(), nullptr), 0);
  Write(arc, 5000, "three");
  EXPECT_EQ(ReadAll(moved + "/arc.log"), "2024.03.05 10:20:30:456 5000 three\n");
}

TEST_F(LogLibraryTest, ManyThreadsWriteWholeLines) {
  uint64_t arc = Open("arc");
  const int kThreads = 8;
  const int kLines = 200;
  std::string long_text(6000, 'L');  // past the library's stack buffer
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; i++) Write(arc, 5000, "t%d i%d %s", t, i, i % 10 == 0 ? long_text.c_str() : "s");
    });
  }
  for (std::thread& th : threads) th.join();

  std::istringstream in(File("arc.log"));
  const std::string head = "2024.03.05 10:20:30:456 5000 ";
  std::vector<int> per_thread(kThreads, 0);
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) {
    int t = -1, i = -1, rest = 0;
    ASSERT_EQ(line.compare(0, head.size(), head), 0) << line.substr(0, 80);
    ASSERT_EQ(sscanf(line.c_str() + head.size(), "t%d i%d %n", &t, &i, &rest), 2) << line.substr(0, 80);
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(line.substr(head.size() + rest), i % 10 == 0 ? long_text : "s");
    per_thread[t]++;
    lines++;
  }
  EXPECT_EQ(lines, kThreads * kLines);
  for (int count : per_thread) EXPECT_EQ(count, kLines);
}

}  // namespace
