// The plug-in as the host sees it: libwriter.so loaded beside the reference
// bus, log and archive, driven through its six exports, and checked through
// the archive's record of calls, the bus and the log files.
#include "include/host/archive_api.h"
#include "include/host/core_api.h"
#include "include/host/log_api.h"
#include "include/host/plugin_api.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"
#include "tests/test_plugin_host.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const char kFishTypes[] = R"({"writer":["profiles"]})";
const char kDay[] = R"([{"begin":" 0 : 00 ","end":" 24 : 00 "}])";

std::string Fish() {
  std::string usual;
  for (const char* d : {"monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"})
    usual += std::string(usual.empty() ? "" : ",") + "\"" + d + "\":" + kDay;
  return std::string(
             R"({"common":{"key1":"host","key2":"4201","key3":"key3","enable":"1","_typeJS":"profiles"},)"
             R"("archive":{"_name":{"_level":0,"_value":"archive"},"writer":{)"
             R"("in":{"_level":0,"_value":"trackSource"},"by_events":{"_level":0,"_value":false},)"
             R"("events":{"_level":1,"_value":"20001,20008,20009,20010,20016,20017,20026,20027,20028,20030,20034,)"
             R"(20035,20074,20075,20076,20078,20081,20084"},)"
             R"("prev_write":{"_level":1,"_value":0},"post_write":{"_level":1,"_value":0},)"
             R"("storage":{"_level":1,"_value":""},"depth_restrict":{"_level":1,"_value":false},)"
             R"("depth":{"_level":1,"_value":0},"view_prior":{"_level":1,"_value":0,"_values":[0,1,2]},)"
             R"("only_key_frame":{"_level":1,"_value":false},"arc_key1":{"_level":3,"_value":""},)"
             R"("arc_key2":{"_level":3,"_value":""},"arc_key3":{"_level":3,"_value":""},)"
             R"("_schedule":{"usual":{)") +
         usual + R"(},"holidays":)" + kDay + R"(,"working_weekends":)" + kDay +
         R"(},"profiles::network_5_4::km54server::ID_54::_value":null}}})";
}

const char kLanguage[] =
    R"({"archive":"Archive","writer":"Writer","by_events":"By events","events":"Events",)"
    R"("prev_write":"Prev write","post_write":"Post write","storage":"Storage","depth_restrict":"Depth Restrict",)"
    R"("only_key_frame":"Only Key Frame","depth":"Depth","view_prior":"View Prior","arc_key1":"arc_key1",)"
    R"("arc_key2":"arc_key2","arc_key3":"arc_key3","true":"Yes","false":"No"})";

// A camera document with keys a/b/c, arc keys A/B/C and the given extra
// writer settings.
std::string Camera(const std::string& in, const std::string& extra = "") {
  return R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
         R"("arc_key1":{"_value":"A"},"arc_key2":{"_value":"B"},"arc_key3":{"_value":"C"},)"
         R"("in":{"_value":")" +
         in + "\"}" + extra + "}}}";
}

int64_t Hash(const std::string& s) { return static_cast<int64_t>(StrHash64(s.data(), static_cast<uint32_t>(s.size()))); }

// What a test holder of a track has received.
struct Rx {
  std::vector<std::string> names;     // first element's name of each message
  std::vector<std::string> texts;     // and its text, for type 2
  std::vector<std::string> nested;    // name of the first nested element, for type 1
};

void Receive(void* user, ProfileParam* p) {
  Rx* rx = static_cast<Rx*>(user);
  rx->names.push_back(p[0].name != nullptr ? p[0].name : "");
  rx->texts.push_back(p[0].type == PP_STRING ? static_cast<const char*>(p[0].value) : "");
  const ProfileParam* in = p[0].type == PP_LIST ? static_cast<const ProfileParam*>(p[0].value) : nullptr;
  rx->nested.push_back(in != nullptr && in[0].name != nullptr ? in[0].name : "");
  for (const ProfileParam* e = p; e->type != PP_END; e++)
    if (e->type == PP_STRING && strcmp(e->name, "params") == 0) rx->texts.back() = static_cast<const char*>(e->value);
}

void FishReply(void* user, ProfileParam* p, int32_t zero) {
  EXPECT_EQ(0, zero);
  Receive(user, p);
}

class DllMainTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_archive = dlopen(WRITER_BIN_DIR "/libwarchive.so", RTLD_NOW | RTLD_LOCAL);
    s_log = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, s_archive) << dlerror();
    ASSERT_NE(nullptr, s_log) << dlerror();
    CoreImportRow rows[] = {{"core_sethook", reinterpret_cast<void**>(&s_sethook)},
                            {"core_gethook", reinterpret_cast<void**>(&s_gethook)},
                            {nullptr, nullptr}};
    core_dll_open("core", rows);
  }

  void SetUp() override {
    char dir[] = "/tmp/test_dllmain_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    m_dir = dir;
    m_lib = LoadPluginBeside(s_archive, s_log, m_dir, m_archive_extra);
    ASSERT_NE(nullptr, m_lib);
    dll_init = Sym<DllInitFn>(m_lib, "dll_init");
    dll_free = Sym<DllFreeFn>(m_lib, "dll_free");
    plugin_open = Sym<PluginOpenFn>(m_lib, "plugin_open");
    plugin_close = Sym<PluginCloseFn>(m_lib, "plugin_close");
    dll_exec = Sym<DllExecFn>(m_lib, "dll_exec");
    plugin_exec = Sym<PluginExecFn>(m_lib, "plugin_exec");
  }

  void TearDown() override {
    if (m_lib != nullptr) dlclose(m_lib);
    Sym<void (*)()>(s_archive, "archive_reset")();
    Sym<int32_t (*)(const char*)>(s_archive, "archive_configure")(nullptr);
    core_set_path("archive", nullptr);
    core_set_path("log-1", nullptr);
    EXPECT_EQ(0, system(("rm -rf " + m_dir).c_str()));
  }

  std::vector<ArchiveCall> Calls() {
    std::vector<ArchiveCall> calls(ARCHIVE_CALL_LOG_SIZE);
    int32_t n = Sym<int32_t (*)(ArchiveCall*, int32_t, int64_t)>(s_archive, "archive_call_log")(
        calls.data(), ARCHIVE_CALL_LOG_SIZE, m_seen);
    calls.resize(n);
    if (n > 0) m_seen = calls.back().seq;
    return calls;
  }

  // The calls since the last look, as "kind:code:id:value" texts.
  std::vector<std::string> CallTexts(int64_t id3) {
    std::vector<std::string> out;
    for (const ArchiveCall& c : Calls()) {
      std::string id = c.id == id3 ? "cam" : std::to_string(c.id);
      out.push_back(std::to_string(c.kind) + ":" + std::to_string(c.code) + ":" + id + ":" + std::to_string(c.value));
    }
    return out;
  }

  std::string Log(const char* name) { return ReadAll(m_dir + "/log/" + name + ".log"); }

  void* Open(const std::string& json) {
    ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(json.c_str())}, {PP_END, nullptr, nullptr}};
    return plugin_open(params);
  }
  void Exec(void* pair, const char* name, const std::string& json) {
    ProfileParam params[] = {{PP_STRING, name, const_cast<char*>(json.c_str())}, {PP_END, nullptr, nullptr}};
    EXPECT_EQ(0, plugin_exec(pair, params));
  }

  static void* s_archive;
  static void* s_log;
  static CoreSetHookFn s_sethook;
  static CoreGetHookFn s_gethook;
  std::string m_archive_extra;
  std::string m_dir;
  void* m_lib = nullptr;
  int64_t m_seen = 0;
  DllInitFn dll_init = nullptr;
  DllFreeFn dll_free = nullptr;
  PluginOpenFn plugin_open = nullptr;
  PluginCloseFn plugin_close = nullptr;
  DllExecFn dll_exec = nullptr;

  std::string Status() {
    Rx rx;
    ProfileCallback reply = {&rx, reinterpret_cast<void*>(&Receive)};
    ProfileParam ask[] = {{PP_CALLBACK, "exec", &reply},
                          {PP_STRING, "json", const_cast<char*>(R"({"query_id":"GetStatus"})")},
                          {PP_END, nullptr, nullptr}};
    EXPECT_EQ(0, dll_exec(ask));
    return rx.texts.empty() ? "" : rx.texts[0];
  }
  PluginExecFn plugin_exec = nullptr;
};

void* DllMainTest::s_archive = nullptr;
void* DllMainTest::s_log = nullptr;
CoreSetHookFn DllMainTest::s_sethook = nullptr;
CoreGetHookFn DllMainTest::s_gethook = nullptr;

TEST_F(DllMainTest, InitPublishesKeysAndServesTheTemplateByteForByte) {
  Rx language;
  ProfileCallback lang_cb = {&language, reinterpret_cast<void*>(&Receive)};
  TrackHandle lang = profile_open("track_language1", &lang_cb, __FILE__, __LINE__);
  s_sethook(7);
  ASSERT_EQ(0, dll_init());
  EXPECT_EQ(40, s_gethook());
  ASSERT_EQ(1u, language.names.size());
  EXPECT_EQ("method", language.names[0]);
  EXPECT_EQ(kLanguage, language.texts[0]);
  // Asked again, the keys go out again.
  TrackHandle ask = profile_open("track_language0", nullptr, __FILE__, __LINE__);
  ProfileParam get_keys[] = {{PP_STRING, "json", const_cast<char*>("x")},
                             {PP_STRING, "method", const_cast<char*>("GetKeys")}, {PP_END, nullptr, nullptr}};
  profile_data(ask, get_keys, 0);
  EXPECT_EQ(2u, language.names.size());

  Rx fish;
  ProfileCallback reply = {&fish, reinterpret_cast<void*>(&FishReply)};
  ProfileParam ask_fish[] = {{PP_CALLBACK, "get_fish_types", &reply}, {PP_CALLBACK, "get_fish", &reply},
                             {PP_END, nullptr, nullptr}};
  EXPECT_EQ(0, dll_exec(ask_fish));
  ASSERT_EQ(2u, fish.names.size());
  EXPECT_EQ("fish_types", fish.names[0]);
  EXPECT_EQ(kFishTypes, fish.texts[0]);
  EXPECT_EQ("fish", fish.names[1]);
  EXPECT_EQ(Fish(), fish.texts[1]);

  s_sethook(9);
  EXPECT_EQ(0, dll_free());
  EXPECT_EQ(7, s_gethook());  // the value dll_init saw
  std::vector<std::string> calls = CallTexts(0);
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ("1:0:-1:0", calls[0]);
  EXPECT_EQ("2:0:-1:0", calls[1]);
  std::string arc = Log("arc");
  // The logger comes up inside GlobalInit: earlier lines go nowhere.
  EXPECT_EQ(std::string::npos, arc.find("<root>writer dll_init start 2"));
  EXPECT_LT(arc.find("sizeof( TUnivStruct ) is 8 sizeof( TDeb8687 ) is 12 sizeof( TDeb8688 ) is 16"),
            arc.find("<root>writer: dll_init end "));
  EXPECT_LT(arc.find("<root>writer: dll_free start "), arc.find("<root>writer: dll_free end bef GlobalDeinit44"));
  profile_close(ask);
  profile_close(lang);
}

TEST_F(DllMainTest, CameraLivesFromOpenToCloseWithEveryCodeInOrder) {
  ASSERT_EQ(0, dll_init());
  int64_t id3 = Hash("A$B$C$");
  int64_t video = Hash("video"), audio = Hash("audio");
  Calls();
  void* pair = Open(Camera("trackSource"));
  ASSERT_NE(nullptr, pair);
  std::vector<std::string> want = {"7:0:cam:" + std::to_string(video), "5:90:cam:0",
                                   "7:0:cam:" + std::to_string(audio), "5:108:cam:0"};
  EXPECT_EQ(want, CallTexts(id3));
  EXPECT_EQ(2, core_bus_holder_count("a_b_c_trackSource"));
  EXPECT_EQ(2, core_bus_holder_count("a_b_c"));
  // Only the global sender and the events registrator.
  EXPECT_EQ(2, core_bus_holder_count("track_event"));

  // Start asks the source for frames on the status track, once per channel.
  Rx source;
  ProfileCallback source_cb = {&source, reinterpret_cast<void*>(&Receive)};
  TrackHandle status = profile_open("a_b_c", &source_cb, __FILE__, __LINE__);
  ProfileParam start[] = {{PP_INT32, "start", &source}, {PP_END, nullptr, nullptr}};
  // The start is the channels' first control: the report shows its time.
  EXPECT_EQ(2, Count(Status(), "\"sched_last_get\":\"1601.01.01"));
  EXPECT_EQ(0, plugin_exec(pair, start));
  EXPECT_EQ(0, Count(Status(), "\"sched_last_get\":\"1601.01.01"));
  EXPECT_EQ((std::vector<std::string>{"5:64:cam:1", "5:104:cam:1"}), CallTexts(id3));
  EXPECT_EQ((std::vector<std::string>{"frame", "frame"}), source.names);
  EXPECT_EQ((std::vector<std::string>{"get", "get"}), source.nested);

  // Same track keys: the tracks stay; by_events brings the event tracks.
  std::string decim_before = Log("arc");
  Exec(pair, "json", Camera("trackSource", R"(,"by_events":{"_value":true})"));
  EXPECT_EQ((std::vector<std::string>{"5:90:cam:1", "5:108:cam:1"}), CallTexts(id3));
  EXPECT_EQ(Count(decim_before, "open track cm="), Count(Log("arc"), "open track cm="));
  EXPECT_EQ(4, core_bus_holder_count("track_event"));

  // A new "in" reopens both tracks under the new name.
  Exec(pair, "json", Camera("other"));
  EXPECT_EQ((std::vector<std::string>{"5:90:cam:0", "5:108:cam:0"}), CallTexts(id3));
  EXPECT_EQ(0, core_bus_holder_count("a_b_c_trackSource"));
  EXPECT_EQ(2, core_bus_holder_count("a_b_c_other"));
  EXPECT_EQ(2, core_bus_holder_count("track_event"));
  EXPECT_EQ(Count(decim_before, "open track cm=") + 2, Count(Log("arc"), "open track cm="));

  // Close: each channel leaves in two steps, video first.
  EXPECT_EQ(0, plugin_close(pair));
  EXPECT_EQ((std::vector<std::string>{"5:64:cam:-1", "5:89:cam:-1", "5:104:cam:-1", "5:105:cam:-1"}),
            CallTexts(id3));
  EXPECT_EQ(0, core_bus_holder_count("a_b_c_other"));
  EXPECT_EQ(1, core_bus_holder_count("a_b_c"));  // the test's own holder
  std::string arc = Log("arc");
  std::string cam = "cam " + std::to_string(id3) + ", vp 1 ";
  EXPECT_LT(arc.find("<root>writer.dll plugin_close start " + cam), arc.find("<root>writer.dll plugin_close end " + cam));
  EXPECT_NE(std::string::npos, arc.find("name3 A$B$C$ id3 " + std::to_string(id3)));
  profile_close(status);
  EXPECT_EQ(0, dll_free());
}

TEST_F(DllMainTest, UnrecognisedDocumentStillGivesAChannelWithIdZero) {
  ASSERT_EQ(0, dll_init());
  Calls();
  void* pair = Open("not json at all");
  ASSERT_NE(nullptr, pair);
  std::vector<std::string> calls = CallTexts(-12345);
  ASSERT_EQ(4u, calls.size());
  EXPECT_EQ("5:90:0:0", calls[1]);
  EXPECT_EQ("5:108:0:0", calls[3]);
  EXPECT_EQ(0, plugin_close(pair));
  EXPECT_EQ((std::vector<std::string>{"5:64:0:-1", "5:89:0:-1", "5:104:0:-1", "5:105:0:-1"}), CallTexts(-12345));
  EXPECT_NE(std::string::npos, Log("arc").find("<error>writer: ___ error - json config not recognized"));
  EXPECT_EQ(0, dll_free());
}

TEST_F(DllMainTest, OpenAndExecIgnoreWhatIsNotThere) {
  ASSERT_EQ(0, dll_init());
  Calls();
  EXPECT_EQ(nullptr, plugin_open(nullptr));
  EXPECT_EQ(0, plugin_close(nullptr));
  EXPECT_EQ(0, plugin_exec(nullptr, nullptr));
  void* pair = Open(Camera("t"));
  Calls();
  // A "start" with a null value ends the walk: nothing starts.
  ProfileParam start[] = {{PP_INT32, "start", nullptr}, {PP_INT32, "start", &pair}, {PP_END, nullptr, nullptr}};
  EXPECT_EQ(0, plugin_exec(pair, start));
  EXPECT_TRUE(Calls().empty());
  EXPECT_EQ(0, plugin_close(pair));
  EXPECT_EQ(0, dll_free());
  EXPECT_EQ(Count(Log("arc"), "plugin_close start"), 1);
}

TEST_F(DllMainTest, ExecRunsTheQueryOnlyWithBothExecAndJson) {
  ASSERT_EQ(0, dll_init());
  EXPECT_EQ(-1, dll_exec(nullptr));
  Rx rx;
  ProfileCallback reply = {&rx, reinterpret_cast<void*>(&Receive)};
  ProfileParam json_first[] = {{PP_STRING, "json", const_cast<char*>("{}")}, {PP_CALLBACK, "exec", &reply},
                               {PP_END, nullptr, nullptr}};
  EXPECT_EQ(0, dll_exec(json_first));
  ASSERT_EQ(1u, rx.names.size());
  EXPECT_EQ("json", rx.names[0]);
  ProfileParam exec_only[] = {{PP_CALLBACK, "exec", &reply}, {PP_END, nullptr, nullptr}};
  EXPECT_EQ(0, dll_exec(exec_only));
  // A callback element with a null value ends the walk before the json.
  Rx fish;
  ProfileCallback fish_cb = {&fish, reinterpret_cast<void*>(&FishReply)};
  ProfileParam cut[] = {{PP_CALLBACK, "get_fish", &fish_cb}, {PP_CALLBACK, "exec", nullptr},
                        {PP_STRING, "json", const_cast<char*>("{}")}, {PP_CALLBACK, "exec", &reply},
                        {PP_END, nullptr, nullptr}};
  EXPECT_EQ(0, dll_exec(cut));
  EXPECT_EQ(1u, rx.names.size());
  EXPECT_EQ(1u, fish.names.size());
  EXPECT_EQ(0, dll_free());
  std::string arc = Log("arc");
  EXPECT_EQ(1, Count(arc, "writer dll_exec 6"));
  EXPECT_EQ(3, Count(arc, "writer dll_exec 5"));
  EXPECT_EQ(4, Count(arc, "writer dll_exec 1"));
}

TEST_F(DllMainTest, FailedInitRefusesWorkAndFreesSafely) {
  core_set_path("archive", nullptr);
  s_sethook(3);
  EXPECT_EQ(-1, dll_init());
  Rx rx;
  ProfileCallback reply = {&rx, reinterpret_cast<void*>(&FishReply)};
  ProfileParam ask[] = {{PP_CALLBACK, "get_fish", &reply}, {PP_END, nullptr, nullptr}};
  EXPECT_EQ(-1, dll_exec(ask));
  EXPECT_TRUE(rx.names.empty());
  EXPECT_EQ(nullptr, Open(Camera("t")));
  EXPECT_EQ(1, core_bus_holder_count("track_language0"));
  EXPECT_EQ(0, dll_free());
  EXPECT_EQ(3, s_gethook());
  EXPECT_EQ(0, core_bus_holder_count("track_language0"));
  EXPECT_TRUE(Calls().empty());
}

class DllMainSlowArchiveTest : public DllMainTest {
 protected:
  void SetUp() override {
    m_archive_extra = ",\"ready_delay_ms\":300";
    DllMainTest::SetUp();
  }
};

TEST_F(DllMainSlowArchiveTest, OpenWaitsUntilTheArchiveIsReady) {
  ASSERT_EQ(0, dll_init());
  int64_t start = PlPerfCounter();
  void* pair = Open(Camera("t"));
  double waited = static_cast<double>(PlPerfCounter() - start) / static_cast<double>(PlPerfFrequency());
  ASSERT_NE(nullptr, pair);
  EXPECT_GE(waited, 0.2);
  EXPECT_EQ(0, plugin_close(pair));
  EXPECT_EQ(0, dll_free());
}

}  // namespace

// Without its storage library, or with one that lacks a function, the host
// process is ended at once with its line on standard output: nothing is to be
// recorded without every function.
TEST_F(DllMainTest, MissingStorageLibraryOrFunctionEndsTheProcess) {
  auto init_with = [&](const char* path) {
    core_set_path("archive", path);
    dup2(2, 1);  // the death test reads what the child writes on stderr
    dll_init();
  };
  EXPECT_EXIT(init_with("/nonexistent/libwarchive.so"), ::testing::ExitedWithCode(1),
              "Couldn't open libarchive.so: \n");
  EXPECT_EXIT(init_with(WRITER_BIN_DIR "/liblog.so"), ::testing::ExitedWithCode(1), "Couldn't find dll_init2: \n");
}
