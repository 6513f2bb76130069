// The saved subscriptions: the file config/writer.js written and read back
// through a real folder, the file forms that cannot be read, and the
// buffering thread's rewrite every 180 s on the manual clock.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <type_traits>

#include "include/host/log_api.h"
#include "linux/common_use/config.h"
#include "linux/common_use/service/service2.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"
#include "tests/test_writer_channel.h"

namespace {

using writer_test::ChannelTest;
using writer_test::kSecond;

const char kEmptyFile[] = "{\"query_log_status\":[\n\n]}\n";

void* LogLib() {
  static void* lib = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
  return lib;
}

template <typename Op>
int32_t Query(Op op, CLogStatusList* list, const std::string& format) {
  SafeString text;
  SafeStringAssign(&text, format.c_str(), 17);
  int32_t rc = RC_OK;
  if constexpr (std::is_same_v<decltype(op(list, &text)), void>) op(list, &text);
  else rc = op(list, &text);
  SafeStringDestroy(&text);
  return rc;
}

TLogStatusElem* Elem(CLogStatusList* list, int32_t index) {
  return static_cast<TLogStatusElem*>(CListOurGet(&list->m_list, index));
}

void Write(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// A channel beside a state folder: the host's path of the plug-in is
// STATE/plugins/writer.so, so the file is STATE/config/writer.js, and the
// logger writes into STATE/log.
class SavedParamsTest : public ChannelTest {
 protected:
  void SetUp() override {
    ChannelTest::SetUp();
    char dir[] = "/tmp/test_config_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_state = dir;
    m_file = m_state + "/config/writer.js";
    ASSERT_NE(LogLib(), nullptr);
    ASSERT_EQ(0, mkdir((m_state + "/log").c_str(), 0755));
    ASSERT_EQ(0,
              reinterpret_cast<LogConfigureFn>(dlsym(LogLib(), "log_configure"))((m_state + "/log").c_str(), nullptr));
    core_set_path("log-1", WRITER_BIN_DIR "/liblog.so");
    LogDllLoad();
    core_set_path("writer", (m_state + "/plugins/writer.so").c_str());
    g_p_log_status_list = new CLogStatusList();
    LogStatusRecomputeAllOff(g_p_log_status_list);
  }
  void TearDown() override {
    ChannelTest::TearDown();  // the thread stops before the list goes
    delete g_p_log_status_list;
    g_p_log_status_list = nullptr;
    LogDllUnload();
    core_set_path("writer", nullptr);
    core_set_path("log-1", nullptr);
    EXPECT_EQ(0, system(("rm -rf " + m_state).c_str()));
  }

  // A list as at the next start: loaded from the file.
  CLogStatusList* Restart() {
    delete g_p_log_status_list;
    g_p_log_status_list = new CLogStatusList();
    LogStatusLoad(g_p_log_status_list);
    return g_p_log_status_list;
  }
  std::string Log(const char* name) { return ReadAll(m_state + "/log/" + name); }

  std::string m_state;
  std::string m_file;
};

TEST_F(SavedParamsTest, TheFileKeepsEveryFormatAndTheNextStartHasThemAllOn) {
  CLogStatusList* list = g_p_log_status_list;
  Query(LogStatusAdd, list, "<a>one %d");
  Query(LogStatusAdd, list, "<b>two");
  Query(LogStatusOff, list, "<b>two");
  SaveLogStatus(list);
  EXPECT_EQ(
      "{\"query_log_status\":[\n{\"log\":\"<a>one %d\",\"is_on\":true},\n{\"log\":\"<b>two\",\"is_on\":false}\n]}\n",
      ReadAll(m_file));
  // The first save finds no file to delete, and says so.
  EXPECT_EQ(1, Count(Log("arc.log"), "<error>Error: delete file 2 " + m_file + " \n"));

  list = Restart();
  ASSERT_EQ(2, list->m_list.m_i_count);
  EXPECT_STREQ("<a>one %d", Elem(list, 0)->log.m_p_text);
  EXPECT_STREQ("<b>two", Elem(list, 1)->log.m_p_text);
  // The off one comes back on: only a saved true is read.
  EXPECT_EQ(1, Elem(list, 0)->is_on);
  EXPECT_EQ(1, Elem(list, 1)->is_on);
  EXPECT_EQ(LogStatusHash("<b>two"), Elem(list, 1)->hash);
  EXPECT_EQ(0, list->m_b_all_off);
  // The file shows in the log in pieces of 90 bytes, "%" and line feeds
  // masked.
  std::string trace = Log("arc.tracedecim.log");
  EXPECT_EQ(1, Count(trace, " <rename> readed bef ParamsParser44\n"));
  EXPECT_EQ(1, Count(trace,
                     " <rename>json:{\"query_log_status\":[?{\"log\":\"<a>one !d\",\"is_on\":true},?"
                     "{\"log\":\"<b>two\",\"is_on\":false}?]}?\n"));
  Query(LogStatusDelete, list, "<a>one %d");
  SaveLogStatus(list);
  EXPECT_EQ("{\"query_log_status\":[\n{\"log\":\"<b>two\",\"is_on\":true}\n]}\n", ReadAll(m_file));
}

TEST_F(SavedParamsTest, ALongFileIsLoggedInNinetyBytePieces) {
  std::string format = "<x>" + std::string(200, 'y');
  Query(LogStatusAdd, g_p_log_status_list, format);
  SaveLogStatus(g_p_log_status_list);
  Restart();
  std::string text = ReadAll(m_file);
  std::string trace = Log("arc.tracedecim.log");
  EXPECT_EQ(static_cast<int>((text.size() + 89) / 90), Count(trace, "<rename>json:"));
  EXPECT_EQ(1, Count(trace, "<rename>json:" + text.substr(90, 90) + "\n"));
}

TEST_F(SavedParamsTest, AMissingFileIsMadeEmptyAndAnEmptyListSavesAnEmptyArray) {
  CLogStatusList* list = Restart();  // no config folder: nothing to read
  EXPECT_EQ(0, list->m_list.m_i_count);
  EXPECT_EQ(1, list->m_b_all_off);
  EXPECT_FALSE(Exists(m_file));
  SaveLogStatus(list);
  EXPECT_EQ(kEmptyFile, ReadAll(m_file));
  Write(m_file, "");
  list = Restart();
  EXPECT_EQ(0, list->m_list.m_i_count);
  EXPECT_EQ(1, list->m_b_all_off);
  EXPECT_EQ(0, Count(Log("arc.tracedecim.log"), "readed bef"));
  // With the folder there, a missing file is made by the load.
  ASSERT_EQ(0, unlink(m_file.c_str()));
  Restart();
  EXPECT_TRUE(Exists(m_file));
  EXPECT_EQ("", ReadAll(m_file));
}

TEST_F(SavedParamsTest, FilesOfAnotherShapeGiveAnEmptyListAndTheNextSaveReplacesThem) {
  ASSERT_EQ(0, mkdir((m_state + "/config").c_str(), 0755));
  for (const char* text : {"not json", "[1,2]", "{\"query_log_status\":{\"log\":\"<a>x\"}}",
                           "{\"query_log_status\":[1,null,\"<a>x\",{\"is_on\":true},{\"log\":5},{\"log\":\"\"}]}",
                           "{\"query_log_status\":[{\"log\":\"<a>x\",\"is_on\":true}"}) {
    Write(m_file, text);
    CLogStatusList* list = Restart();
    EXPECT_EQ(0, list->m_list.m_i_count) << text;
    EXPECT_EQ(1, list->m_b_all_off) << text;
  }
  SaveLogStatus(g_p_log_status_list);
  EXPECT_EQ(kEmptyFile, ReadAll(m_file));
}

// A format text is saved as it stands: one with a double quote makes a
// file that the next start cannot read, and the whole list is lost then.
TEST_F(SavedParamsTest, AFormatWithADoubleQuoteLosesTheListAtTheNextStart) {
  Query(LogStatusAdd, g_p_log_status_list, "<a>kept");
  Query(LogStatusAdd, g_p_log_status_list, "<q>say \"%s\"");
  SaveLogStatus(g_p_log_status_list);
  EXPECT_EQ(1, Count(ReadAll(m_file), "{\"log\":\"<q>say \"%s\"\",\"is_on\":true}"));
  EXPECT_EQ(0, Restart()->m_list.m_i_count);
}

TEST_F(SavedParamsTest, TheListIsBoundedByQueryAndByFile) {
  CLogStatusList* list = g_p_log_status_list;
  for (int i = 0; i < I_LOG_STATUS_MAX; i++) ASSERT_EQ(RC_OK, Query(LogStatusAdd, list, "<a>" + std::to_string(i)));
  EXPECT_EQ(RC_LOG_STATUS_FULL, Query(LogStatusAdd, list, "<a>one more"));
  EXPECT_EQ(I_LOG_STATUS_MAX, list->m_list.m_i_count);
  // A text the full list holds is still turned on again.
  Query(LogStatusOff, list, "<a>7");
  EXPECT_EQ(RC_OK, Query(LogStatusAdd, list, "<a>7"));
  EXPECT_EQ(1, Elem(list, 7)->is_on);
  // A file longer than the bound gives its first entries and a line.
  ASSERT_EQ(0, mkdir((m_state + "/config").c_str(), 0755));
  std::string text = "{\"query_log_status\":[";
  for (int i = 0; i < I_LOG_STATUS_MAX + 3; i++)
    text += std::string(i ? "," : "") + "{\"log\":\"<f>" + std::to_string(i) + "\",\"is_on\":true}";
  Write(m_file, text + "]}");
  list = Restart();
  EXPECT_EQ(I_LOG_STATUS_MAX, list->m_list.m_i_count);
  EXPECT_STREQ("<f>0", Elem(list, 0)->log.m_p_text);
  EXPECT_EQ(1, Count(Log("arc.log"), "saved file holds more than 1024 subscriptions, the rest is left out"));
}

TEST_F(SavedParamsTest, TextsAtTheSizeLimitSaveAnEmptyFile) {
  Query(LogStatusAdd, g_p_log_status_list, std::string(10000000 - 330 - 1, 'a'));
  SaveLogStatus(g_p_log_status_list);
  EXPECT_EQ(10000000u - 331u + 49u, ReadAll(m_file).size());  // the text and its markup
  Query(LogStatusAdd, g_p_log_status_list, "b");
  SaveLogStatus(g_p_log_status_list);
  EXPECT_TRUE(Exists(m_file));
  EXPECT_EQ("", ReadAll(m_file));
}

TEST_F(SavedParamsTest, AFileTooLargeToBeOursIsNotRead) {
  ASSERT_EQ(0, mkdir((m_state + "/config").c_str(), 0755));
  std::string text = "{\"query_log_status\":[{\"log\":\"<a>x\",\"is_on\":true}]}";
  Write(m_file, text);
  ASSERT_EQ(0, truncate(m_file.c_str(), 65LL * 1024 * 1024));  // sparse, the JSON and zeros behind it
  EXPECT_EQ(0, Restart()->m_list.m_i_count);
  EXPECT_EQ(1, Count(Log("arc.log"),
                     "<error>saved parameters: " + m_file + " has 68157440 bytes, too many to be ours; not read\n"));
}

TEST_F(SavedParamsTest, AnUnusablePlaceLosesNothingButIsLogged) {
  // The file's place is taken by a folder: nothing read, nothing written.
  ASSERT_EQ(0, mkdir((m_state + "/config").c_str(), 0755));
  ASSERT_EQ(0, mkdir(m_file.c_str(), 0755));
  Query(LogStatusAdd, g_p_log_status_list, "<a>x");
  SaveLogStatus(g_p_log_status_list);
  EXPECT_EQ(0, Restart()->m_list.m_i_count);
  std::string arc = Log("arc.log");
  EXPECT_EQ(1, Count(arc, "<error>saved parameters: cannot open " + m_file + " (errno 21)\n"));
  EXPECT_EQ(1, Count(arc, "<error>Error: delete file 2 " + m_file + " \n"));
  EXPECT_EQ(1, Count(arc, "<error>SaveParamsArchive_Level1 error create file \n"));
  EXPECT_EQ(1, Count(arc,
                     "<error>Error - error create file for saved info for WriteFilesServer2 (parted) (in dir) "
                     "WriteBasePathInfoToFile 2 \n name len " +
                         std::to_string(m_file.size()) + ", name " + m_file + " \n"));
  // The config folder cannot be made: silence, and no file.
  ASSERT_EQ(0, system(("rm -rf " + m_state + "/config").c_str()));
  Write(m_state + "/config", "a file");
  SaveLogStatus(g_p_log_status_list);
  EXPECT_EQ("a file", ReadAll(m_state + "/config"));
  // Without a path from the host there is nothing to read or write.
  core_set_path("writer", nullptr);
  SaveLogStatus(g_p_log_status_list);
  EXPECT_EQ(0, Restart()->m_list.m_i_count);
  char path[2048] = "x";
  EXPECT_EQ(-1, BuildSavePath(path, sizeof(path), 0));
  EXPECT_STREQ("", path);
}

TEST_F(SavedParamsTest, TheHostsPathLosesTwoComponentsAndBackslashesCount) {
  char path[2048];
  core_set_path("writer", "C:\\srv\\plugins\\writer.dll");
  EXPECT_EQ(0, BuildSavePath(path, sizeof(path), 0));
  EXPECT_STREQ("C:/srv/config/writer.js", path);
  core_set_path("writer", "writer.so");
  EXPECT_EQ(-1, BuildSavePath(path, sizeof(path), 0));
  core_set_path("writer", ("/" + std::string(3000, 'p') + "/w/x.so").c_str());
  EXPECT_EQ(-1, BuildSavePath(path, sizeof(path), 0));
  core_set_path("writer", "/a/b/c.so");
  EXPECT_EQ(-1, BuildSavePath(path, 10, 0));  // does not fit the caller's area
}

// The buffering thread rewrites the file once 180 s have passed since the
// last rewrite; the clock is moved and the thread woken.
TEST_F(SavedParamsTest, TheBufferingThreadRewritesTheFileEvery180Seconds) {
  CLogStatusList* list = g_p_log_status_list;
  AtomicPut(&list->m_i64_last_save, static_cast<int64_t>(FileTimeNowLocal()));
  Query(LogStatusAdd, list, "<a>one");
  ASSERT_EQ(0, StartThreadWriteBuffering(m_buff));
  // A round is known to have begun when it has marked the channel alive at
  // the clock's time; the one begun after it, one tick later, shows that
  // the first has finished.
  auto begun = [&]() {
    int64_t now = static_cast<int64_t>(FileTimeNowLocal());
    for (int i = 0; i < 400 && AtomicGet(&m_w->m_status.m_i64_buff_thread_last_itter) != now; i++) {
      m_buff->m_h_event_activate_thread_write_buffering->Set();
      PlSleep(5);
    }
    ASSERT_EQ(now, AtomicGet(&m_w->m_status.m_i64_buff_thread_last_itter));
  };
  auto round = [&](int64_t seconds) {
    Advance(seconds);
    begun();
    PlClockAdvance(1);
    begun();
  };
  round(61);
  round(61);
  EXPECT_FALSE(Exists(m_file));
  round(61);
  EXPECT_EQ("{\"query_log_status\":[\n{\"log\":\"<a>one\",\"is_on\":true}\n]}\n", ReadAll(m_file));
  Query(LogStatusAdd, list, "<b>two");
  round(61);
  round(61);
  EXPECT_EQ(1, Count(ReadAll(m_file), "\"log\""));
  round(61);
  EXPECT_EQ(2, Count(ReadAll(m_file), "\"log\""));
}

}  // namespace
