// The plug-in's trace functions, site records and "log_status" report,
// driven against the reference logging library.
#include "include/host/core_api.h"
#include "linux/common_use/config.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

const char* const kTime = "2024.03.05 10:20:30:456";

std::string Text(const SafeString* s) { return s != nullptr && s->m_p_text != nullptr ? s->m_p_text : ""; }

// Runs one of the list's queries with a format text.
template <typename Op>
void Query(Op op, const char* format) {
  SafeString text;
  SafeStringAssign(&text, format, 17);
  op(g_p_log_status_list, &text);
}

TLogStatusElem* Elem(int32_t index) {
  return static_cast<TLogStatusElem*>(CListOurGet(&g_p_log_status_list->m_list, index));
}

void* g_lib = nullptr;  // the test's own hold, to configure the library
LogSetLevelFn g_set_level = nullptr;

class LoggingTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_lib = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(g_lib, nullptr) << dlerror();
    g_set_level = reinterpret_cast<LogSetLevelFn>(dlsym(g_lib, "log_set_level"));
    setenv("TZ", "UTC", 1);
    tzset();
    PlClockTimeZoneChanged();
  }
  static void TearDownTestSuite() { dlclose(g_lib); }

  void SetUp() override {
    char dir[] = "/tmp/test_logging_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    auto configure = reinterpret_cast<LogConfigureFn>(dlsym(g_lib, "log_configure"));
    ASSERT_EQ(configure(m_dir.c_str(), nullptr), 0);
    PlCalendar cal = {2024, 3, 2, 5, 10, 20, 30, 456};
    uint64_t ticks = 0;
    ASSERT_TRUE(PlCalendarToFileTime(&cal, &ticks));
    PlClockUseManual(ticks);
  }
  void TearDown() override {
    LogDllUnload();
    delete g_p_log_status_list;
    g_p_log_status_list = nullptr;
    core_set_path("log-1", nullptr);
    PlClockUseReal();
    EXPECT_EQ(system(("rm -rf " + m_dir).c_str()), 0);
  }

  // The logger with an empty subscription list, as after start.
  static void Load() {
    core_set_path("log-1", WRITER_BIN_DIR "/liblog.so");
    LogDllLoad();
    ASSERT_NE(g_p_log_common, nullptr);
    g_p_log_status_list = new CLogStatusList();
    LogStatusRecomputeAllOff(g_p_log_status_list);
  }
  std::string File(const char* name) { return ReadAll(m_dir + "/" + name); }
  bool Exists(const char* name) {
    struct stat st;
    return stat((m_dir + "/" + name).c_str(), &st) == 0;
  }

  std::string m_dir;
};

TEST_F(LoggingTest, WithoutLibraryEveryCallReturnsAtOnce) {
  testing::internal::CaptureStdout();
  LogDllLoad();  // the host knows no path: silence
  core_set_path("log-1", "/nonexistent/liblog.so");
  LogDllLoad();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Couldn't open log.dll: \n");
  EXPECT_EQ(g_p_log_common, nullptr);
  EXPECT_EQ(g_p_log_site_version, nullptr);

  // Not even a list that is not all off wakes the sites then.
  g_p_log_status_list = new CLogStatusList();
  CLastLogStatus site;
  int formatted = -1;
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 1, "<root>none%n", &formatted);
  Trace45_Level1(TLOG_ARC, TSEV_FAULT, &site, "f.cpp", 1, "<root>none%n", &formatted);
  EXPECT_EQ(formatted, -1);
  EXPECT_EQ(site.m_p_last_text, nullptr);
}

TEST_F(LoggingTest, MissingLibraryFunctionEndsTheProcess) {
  std::string out = m_dir + "/stdout.txt";
  // Loadable, but without any of the six functions.
  core_set_path("log-1", WRITER_BIN_DIR "/libwriter_platform.so");
  EXPECT_EXIT(if (freopen(out.c_str(), "w", stdout) != nullptr) LogDllLoad(), testing::ExitedWithCode(1), "");
  EXPECT_EQ(ReadAll(out), "Couldn't find dll_init: \n");
}

TEST_F(LoggingTest, TraceLinesCarryTheSeverityLevelAndTheFinishedText) {
  Load();
  CLastLogStatus site;
  int formatted = -1;
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 1, "<root>plain %d%n", 1, &formatted);
  EXPECT_EQ(formatted, 13);
  Trace45_Level1(TLOG_ARC, 10, &site, "f.cpp", 1, "<error>s10");
  Trace45_Level1(TLOG_ARC, TSEV_FAULT, &site, "f.cpp", 1, "<error>s20");
  Trace45_Level1(TLOG_ARC, 50, &site, "f.cpp", 1, "<error>s50");
  Trace45_Level1(TLOG_ARC, TSEV_TRACE, &site, "f.cpp", 1, "<root>s60");
  Trace45_Level1(TLOG_ARC, 61, &site, "f.cpp", 1, "<root>unknown severity");
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 1, "<root>%s", "100% %s %n");  // written as it stands
  std::string head = std::string(kTime) + " ";
  EXPECT_EQ(File("arc.log"), head + "5000 <root>plain 1\n" + head + "50000 <error>s10\n" + head +
                                 "40000 <error>s20\n" + head + "10000 <error>s50\n" + head + "5000 <root>s60\n" +
                                 head + "5000 <root>100% %s %n\n");

  Trace44_Level1(TLOG_ARC_TRACEDECIM, &site, "f.cpp", 1, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(File("arc.tracedecim.log"), head + "5000 " + std::string(1023, 'x') + "\n");
  Trace44_Level1(static_cast<TLog2>(99), &site, "f.cpp", 1, "<x>stray");
  EXPECT_EQ(File("arc.common.log"), head + "5000 <x>stray\n");
  LogWriteLevel(g_p_log_common, 20000, 0, 5, "f.cpp", "fn", 3, "<thread>cam %lld started", 42LL);
  EXPECT_EQ(File("common.log"), head + "20000 <thread>cam 42 started\n");
  EXPECT_EQ(site.m_p_last_text, nullptr);  // nobody subscribed
}

TEST_F(LoggingTest, LevelChangesReachTheFlagsOnlyAfterTwentySeconds) {
  Load();
  CLastLogStatus site;
  int formatted = -1;
  Trace44_Level1(TLOG_ARC_TRACE, &site, "f.cpp", 1, "<t>frame%n", &formatted);
  Trace45_Level1(TLOG_ARC_TRANSF, 10, &site, "f.cpp", 1, "<mem>fault%n", &formatted);
  EXPECT_EQ(formatted, -1);  // off channels format nothing, whatever the severity

  ASSERT_EQ(g_set_level("arc.trace", 5000), 1);
  ASSERT_EQ(g_set_level("arc", 30000), 1);
  PlClockAdvance(20 * PL_TICKS_PER_SECOND);
  Trace44_Level1(TLOG_ARC_TRACE, &site, "f.cpp", 1, "<t>still cached");
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 1, "<root>dropped by the library");
  EXPECT_FALSE(Exists("arc.trace.log"));
  EXPECT_FALSE(Exists("arc.log"));

  PlClockAdvance(1);
  Trace44_Level1(TLOG_ARC_TRACE, &site, "f.cpp", 1, "<t>now on");
  Trace45_Level1(TLOG_ARC, TSEV_FAULT, &site, "f.cpp", 1, "<error>now off%n", &formatted);
  EXPECT_EQ(File("arc.trace.log"), "2024.03.05 10:20:50:456 5000 <t>now on\n");
  EXPECT_EQ(formatted, -1);
}

// What a stand-in library was given.
struct FakeCall {
  int calls = 0;
  int64_t threshold = 0;
  std::string seen;
};
FakeCall g_fake;

int64_t FakeLevel(uint64_t) { return g_fake.threshold; }
void FakeWrite(uint64_t, int64_t level, int32_t zero, int64_t random, const char* file, const char* function,
               int32_t line, const char* format, va_list args) {
  char text[128] = "(null)";
  if (format != nullptr) vsnprintf(text, sizeof(text), format, args);
  std::ostringstream seen;
  seen << level << "|" << zero << "|" << random << "|" << file << "|" << function << "|" << line << "|" << text;
  g_fake.calls++;
  g_fake.seen = seen.str();
}

TEST(LogWriteLevelTest, PassesNullTextWhenTheThresholdIsAboveTheLevel) {
  TLogBinding binding = {1, FakeWrite, FakeLevel, nullptr, "fake"};
  g_fake = FakeCall();
  g_fake.threshold = 10000;
  LogWriteLevel(&binding, 5000, 0, 123, "src", "fn", 42, "<x>%d", 5);
  EXPECT_EQ(g_fake.seen, "5000|0|123|src|fn|42|(null)");
  g_fake.threshold = 20000;
  LogWriteLevel(&binding, 20000, 0, 1, "src", "fn", 42, "<x>%d %s", 5, "five");
  EXPECT_EQ(g_fake.seen, "20000|0|1|src|fn|42|<x>5 five");

  binding.m_ui64_handle = 0;
  LogWriteLevel(&binding, 50000, 0, 1, "src", "fn", 42, "<x>");
  LogWriteLevel(nullptr, 50000, 0, 1, "src", "fn", 42, "<x>");
  EXPECT_EQ(g_fake.calls, 2);
}

TEST_F(LoggingTest, SubscribedSiteKeepsItsTextWhileItsLoggerIsOff) {
  Load();
  EXPECT_EQ(g_p_log_status_list->m_b_all_off, 1);
  Query(LogStatusAdd, "<t>sub %d");
  EXPECT_EQ(g_p_log_status_list->m_b_all_off, 0);

  CLastLogStatus sub, other;
  Trace44_Level1(TLOG_ARC_TRACE, &sub, "a/file.cpp", 77, "<t>sub %d", 7);
  Trace44_Level1(TLOG_ARC_TRACE, &other, "a/file.cpp", 78, "<t>other %d", 7);
  EXPECT_EQ(Text(sub.m_p_last_text), "<t>sub 7");
  EXPECT_EQ(other.m_p_last_text, nullptr);
  EXPECT_FALSE(Exists("arc.trace.log"));

  PlClockAdvance(PL_TICKS_PER_SECOND);
  Trace44_Level1(TLOG_ARC_TRACE, &sub, "a/file.cpp", 77, "<t>sub %d", 8);
  SafeString out;
  LogStatusReport(&out, -1);
  EXPECT_EQ(Text(&out), "[\n{\"fl\":\"a/file.cpp\",\"ln\":77,\"t\":\"2024.03.05 10:20:31:456\",\"lg\":\"<t>sub 8\"}\n]");
}

TEST_F(LoggingTest, SitesLookInTheListOnlyWhenTheVersionMoves) {
  Load();
  Query(LogStatusAdd, "<x>unrelated");
  CLastLogStatus site;
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 5, "<x>mine");
  EXPECT_EQ(site.m_i_on, 0);

  TLogStatusElem* quiet = new TLogStatusElem();  // added without a version step
  SafeStringAssign(&quiet->log, "<x>mine", 100);
  quiet->hash = LogStatusHash("<x>mine");
  CListOurAdd(&g_p_log_status_list->m_list, quiet);
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 5, "<x>mine");
  EXPECT_EQ(site.m_i_on, 0);

  Query(LogStatusAdd, "<x>another");
  Trace44_Level1(TLOG_ARC, &site, "f.cpp", 5, "<x>mine");
  EXPECT_EQ(site.m_i_on, 1);
  EXPECT_EQ(quiet->site, &site);

  // A second site of the same format turns on too and takes the element.
  Query(LogStatusAdd, "<x>mine");
  EXPECT_EQ(g_p_log_status_list->m_list.m_i_count, 3);
  CLastLogStatus twin;
  Trace44_Level1(TLOG_ARC, &twin, "g.cpp", 6, "<x>mine");
  EXPECT_EQ(site.m_i_on + twin.m_i_on, 2);
  EXPECT_EQ(Text(&quiet->file) + ":" + std::to_string(quiet->line), "g.cpp:6");
}

TEST_F(LoggingTest, ReportIsSortedAndKeepsEmptyItemsForLongTexts) {
  Load();
  SafeString out;
  SafeStringAssign(&out, "as prepared", 17);
  std::string long_format(1490, 'q');
  Query(LogStatusAdd, "<b>line");
  Query(LogStatusAdd, "<a>line %d");
  Query(LogStatusAdd, long_format.c_str());
  LogStatusReport(&out, -1);
  EXPECT_EQ(Text(&out), "as prepared");  // no site bound yet

  CLastLogStatus b_site, a_site, long_site;
  Trace45_Level1(TLOG_ARC_TRACE, TSEV_TRACE, &b_site, "b.cpp", 20, "<b>line");
  Trace45_Level1(TLOG_ARC, TSEV_FAULT, &a_site, "a.cpp", 10, "<a>line %d", 3);
  // The format text is the site's identity, so it goes in as the format; it holds no '%'.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  Trace44_Level1(TLOG_ARC, &long_site, "long_f.cpp", 1, long_format.c_str());  // 1,500 with the file
#pragma GCC diagnostic pop
  LogStatusReport(&out, -1);
  std::string t = kTime;
  EXPECT_EQ(Text(&out), "[\n,\n{\"fl\":\"a.cpp\",\"ln\":10,\"t\":\"" + t + "\",\"lg\":\"<a>line 3\"},\n" +
                            "{\"fl\":\"b.cpp\",\"ln\":20,\"t\":\"" + t + "\",\"lg\":\"<b>line\"}\n]");
}

TEST_F(LoggingTest, DeleteAndOffStopTheSiteAndAddTurnsItOnAgain) {
  Load();
  Query(LogStatusAdd, "<x>kept %d");
  Query(LogStatusAdd, "<x>gone %d");
  CLastLogStatus kept, gone;
  Trace44_Level1(TLOG_ARC, &kept, "k.cpp", 1, "<x>kept %d", 1);
  Trace44_Level1(TLOG_ARC, &gone, "g.cpp", 1, "<x>gone %d", 1);

  Query(LogStatusDelete, "<x>gone %d");
  EXPECT_EQ(g_p_log_status_list->m_list.m_i_count, 1);
  Trace44_Level1(TLOG_ARC, &gone, "g.cpp", 1, "<x>gone %d", 2);
  EXPECT_EQ(Text(gone.m_p_last_text), "<x>gone 1");

  Query(LogStatusOff, "<x>kept %d");
  EXPECT_EQ(kept.m_i_on + Elem(0)->is_on, 0);
  EXPECT_EQ(Elem(0)->site, &kept);  // the element stays as it was
  EXPECT_EQ(g_p_log_status_list->m_b_all_off, 1);
  SafeString out;
  LogStatusReport(&out, -1);
  EXPECT_EQ(Text(&out), "");

  Query(LogStatusAdd, "<x>kept %d");
  EXPECT_EQ(kept.m_i_on, 0);  // until its own next line
  Trace44_Level1(TLOG_ARC, &kept, "k.cpp", 1, "<x>kept %d", 3);
  EXPECT_EQ(Text(kept.m_p_last_text), "<x>kept 3");

  LogDllUnload();  // from here on nothing is formatted
  int formatted = -1;
  Trace44_Level1(TLOG_ARC, &kept, "k.cpp", 1, "<x>kept %d%n", 4, &formatted);
  EXPECT_EQ(formatted, -1);
  EXPECT_EQ(Text(kept.m_p_last_text), "<x>kept 3");
}

}  // namespace
