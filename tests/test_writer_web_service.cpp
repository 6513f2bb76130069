// The query dispatch end to end: queries as JSON texts against real
// channels built on the plug-in's units, with the manual clock; and one
// query through dll_exec of the loaded libwriter.so.
#include <dlfcn.h>
#include <stdlib.h>

#include <cstring>

#include "linux/common_use/config.h"
#include "tests/test_plugin_host.h"
#include "tests/test_text_util.h"
#include "tests/test_writer_channel.h"
#include "writer/writer_buffer.h"
#include "writer/writer_inform.h"
#include "writer/writer_web_service.h"

namespace {

using writer_test::ChannelTest;
using writer_test::kSecond;

const char kHelpHead[] = "Текущее состояние процесса записи:\r\n";
const char kAccepted[] = "[\"Команда принята.\"]";

std::string Text(const SafeString& s) { return s.m_p_text != nullptr ? s.m_p_text : ""; }

std::string Time(int64_t ticks) {
  char s[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(ticks), s);
  return s;
}

// The lines of a joined answer.
std::vector<std::string> Lines(const std::string& answer) {
  std::vector<std::string> out;
  if (answer.size() < 4 || answer.compare(0, 2, "[\n") != 0) return out;
  std::string body = answer.substr(2, answer.size() - 4);
  for (size_t at = 0;;) {
    size_t end = body.find(",\n", at);
    out.push_back(body.substr(at, end == std::string::npos ? std::string::npos : end - at));
    if (end == std::string::npos) return out;
    at = end + 2;
  }
}

class WebServiceTest : public ChannelTest {
 protected:
  void SetUp() override {
    ChannelTest::SetUp();
    Fresh(m_w);
  }
  void TearDown() override {
    for (CWriter* w : m_extra) {
      WriterCloseTracks(w);
      SafeDelete(w);
    }
    ChannelTest::TearDown();
  }

  std::string Ask(const char* json, const char* method = nullptr) {
    SafeString out;
    QueryExec(method, json, &out, -1);
    return Text(out);
  }

  // A further channel of camera k1/k2/k3, its thread stopped like the first.
  CWriter* Open(const std::string& k1, const std::string& k2, const std::string& k3, const std::string& extra = "") {
    CWriter* w = SafeNew<CWriter>(1);
    w->m_i64_type_id = g_p_writer_global->m_i64_video_id;
    SafeStringAssign(&w->m_s_type, "video", 1);
    std::string doc = R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
                      R"("arc_key1":{"_value":")" +
                      k1 + R"("},"arc_key2":{"_value":")" + k2 + R"("},"arc_key3":{"_value":")" + k3 +
                      R"("},"in":{"_value":"u"})" + extra + "}}}";
    ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
    WriterOpen(w, params);
    ExitThreadWriteBuffering(w->m_camera_info_w->m_p_write_buffering);
    m_extra.push_back(w);
    Fresh(w);
    return w;
  }

  // A channel whose thread has just run and whose source has just sent.
  void Fresh(CWriter* w) {
    int64_t now = static_cast<int64_t>(FileTimeNowLocal());
    AtomicPut(&w->m_status.m_i64_buff_thread_last_itter, now);
    AtomicPut(&w->m_status.m_i64_last_source_stat, now);
  }

  std::vector<CWriter*> m_extra;
};

TEST_F(WebServiceTest, VersAndTheLogQueriesAnswerBeforeTheHelpFlag) {
  const std::string vers = R"({"version":"15.11.26.0"})";
  EXPECT_EQ(vers, Ask(R"({"query_id":"vers","view":"by_events","key1":"x"})"));
  EXPECT_EQ(vers, Ask(R"({"":"","query_id":"vers"})"));
  EXPECT_EQ(vers, Ask(R"({"":""})", "vers"));
  EXPECT_EQ(kHelpHead, Ask(R"({"":"","query_id":"vers"})", "GetStatus").substr(0, strlen(kHelpHead)));

  g_p_log_status_list = new CLogStatusList();
  EXPECT_EQ("", Ask(R"({"":"","query_id":"query_log_status_add","value":"fmt %d"})"));
  EXPECT_EQ("", Ask(R"({"query_id":"query_log_status_add"})"));  // no value: nothing added
  EXPECT_EQ("[\n{\"file\":\"\",\"line\":0,\"log\":\"fmt %d\",\"is_on\":true}\n]",
            Ask(R"({"":"","query_id":"query_log_status"})"));
  std::string long_format(1600, 'x');
  Ask((R"({"query_id":"query_log_status_add","value":")" + long_format + "\"}").c_str());
  Ask(R"({"query_id":"query_log_status_off","value":"fmt %d"})");
  // Too long a subscription shows as an empty item, which sorts first.
  EXPECT_EQ("[\n,\n{\"file\":\"\",\"line\":0,\"log\":\"fmt %d\",\"is_on\":false}\n]",
            Ask(R"({"query_id":"query_log_status"})"));
  EXPECT_EQ("", Ask(R"({"query_id":"log_status"})"));  // no site bound yet
  Ask(R"({"query_id":"query_log_status_delete","value":"fmt %d"})");
  Ask((R"({"query_id":"query_log_status_delete","value":")" + long_format + "\"}").c_str());
  EXPECT_EQ("", Ask(R"({"query_id":"query_log_status"})"));
  // A full list takes no new subscription and says so.
  for (int i = 0; i <= I_LOG_STATUS_MAX; i++)
    Ask((R"({"query_id":"query_log_status_add","value":"<n>)" + std::to_string(i) + "\"}").c_str());
  EXPECT_EQ(I_LOG_STATUS_MAX, g_p_log_status_list->m_list.m_i_count);
  delete g_p_log_status_list;
  g_p_log_status_list = nullptr;
}

TEST_F(WebServiceTest, HelpAnswersANamelessBrokenOrHelpQueryAndUnknownNamesGetTheError) {
  std::string help = Ask(R"({"query_id":"help"})");
  EXPECT_GT(help.size(), 4500u);
  EXPECT_LT(help.size(), 6000u);
  EXPECT_EQ(0u, help.find(kHelpHead));
  EXPECT_EQ(help.size() - 2, help.rfind("\r\n"));
  size_t at = 0;
  for (const char* heading : {"Информация регистратора событий:\r\n",
                              "Запрос диагностики по интенсивности выдачи данных на запись в архив:\r\n",
                              "Запрос общего состояния записи:\r\n", "Установка параметров для команды traffic:\r\n",
                              kHelpHead, "Результат - строка json с перечнем ошибок "}) {
    size_t next = help.find(heading, at + 1);
    EXPECT_NE(std::string::npos, next) << heading;
    at = next;
  }
  for (const char* json : {"{}", "not json", R"({"query_id":7})", R"({"query_id":"GetStatus","":""})"})
    EXPECT_EQ(help, Ask(json)) << json;
  EXPECT_EQ(help, Ask(nullptr));
  EXPECT_EQ("{ \"error\":\"unknown query\" }", Ask(R"({"query_id":"getstatus"})"));
  EXPECT_EQ("{ \"error\":\"unknown query\" }", Ask(nullptr, "nope"));
}

TEST_F(WebServiceTest, AChannelLineCarriesTheStatusBlockWithTheRoundTimeUnquoted) {
  int64_t now = static_cast<int64_t>(FileTimeNowLocal());
  TWriterStatus* st = &m_w->m_status;
  st->m_i64_last_source_stat = now - 6 * kSecond;
  st->m_i_buff_frames[0] = 4;
  st->m_i_buff_frames[1] = 2;
  st->m_b_last_need = 1;
  st->m_b_sched = 1;
  st->m_i64_sched_last_get = now - kSecond;
  st->m_i64_last_detect = now - 2 * kSecond;
  st->m_i64_last_alive_confirm = now - 3 * kSecond;
  m_info->m_i64_pass_prev_window = 25;
  m_info->m_b_wait_key = 1;
  std::string line =
      R"({"key1":"A","key2":"B","key3":"C","key4":"","type":"video","by_event_prop":false,)"
      R"("forced_recording":false,"error":false,"buff_thread_last_itter":)" +
      Time(now) + R"(,"buff1_size":4,"buff2_size":2,"storage":0,"last_source":")" + Time(now - 6 * kSecond) +
      R"(","no_signal":true,"need_write":1,"sched":1,"by_event_condit":1,"sched_last_get":")" + Time(now - kSecond) +
      R"(","last_refused":"1601.01.01 00:00:00:000","last_detect":")" + Time(now - 2 * kSecond) +
      R"(","last_iamlive":")" + Time(now - 3 * kSecond) + R"(","no_write_in_sec":    2.5000,"wait_key_frame_mode":1})";
  EXPECT_EQ("[\n" + line + "\n]", Ask(R"({"query_id":"GetStatus"})"));
  // An unknown view and a null params text give the same form.
  EXPECT_EQ("[\n" + line + "\n]", Ask(R"({"query_id":"GetStatus","view":"nonsense"})"));
  EXPECT_EQ("[\n" + line + "\n]", Ask(nullptr, "GetStatus"));
}

TEST_F(WebServiceTest, LinesAreSortedByTheirTextAndFilteredByTheKeys) {
  Open("Z", "B", "C2");
  Open("0first", "X", "Y");
  std::vector<std::string> all = Lines(Ask(R"({"query_id":"GetStatus"})"));
  ASSERT_EQ(3u, all.size());
  EXPECT_EQ(0u, all[0].find(R"({"key1":"0first")"));
  EXPECT_EQ(0u, all[1].find(R"({"key1":"A")"));
  EXPECT_EQ(0u, all[2].find(R"({"key1":"Z")"));
  EXPECT_EQ(std::vector<std::string>{all[1]}, Lines(Ask(R"({"query_id":"GetStatus","object_id":{"key1":"A"}})")));
  EXPECT_EQ((std::vector<std::string>{all[1], all[2]}), Lines(Ask(R"({"query_id":"GetStatus","key2":"B"})")));
  EXPECT_EQ(std::vector<std::string>{all[2]},
            Lines(Ask(R"({"query_id":"GetStatus","object_id":{"key1":5},"key1":"Z"})")));
  EXPECT_EQ(all, Lines(Ask(R"({"query_id":"GetStatus","key4":"nobody"})")));
  EXPECT_EQ("", Ask(R"({"query_id":"GetStatus","object_id":{"key4":"nobody"}})"));
}

// Whatever an operator's tool sends, the answer is bounded and nothing is
// read or written outside its place (run under the address sanitizer).
TEST_F(WebServiceTest, HostileQueriesAndOverlongKeysAnswerWithinBounds) {
  std::string deep(3000, '[');
  EXPECT_EQ(0u, Ask(deep.c_str()).find(kHelpHead));
  std::string huge = R"({"query_id":")" + std::string(1 << 20, 'q') + R"("})";
  EXPECT_EQ("{ \"error\":\"unknown query\" }", Ask(huge.c_str()));
  EXPECT_EQ("", Ask(R"({"query_id":"work_mode_set","value":"%s%n%s%n"})"));
  std::string key(5000, 'k');
  Open(key, "B", "C");
  for (const char* view : {"", "by_events", "buffer_fill", "buffer_fill_over_0"}) {
    std::string q = std::string(R"({"query_id":"GetStatus","view":")") + view + "\"}";
    EXPECT_LT(Ask(q.c_str()).size(), 20000u) << view;
  }
  EXPECT_LT(Ask(R"({"query_id":"GetError"})").size(), 10000u);
}

TEST_F(WebServiceTest, WithNoChannelTheAnswerStaysAsItCameIn) {
  CListOurRemove(&g_p_writer_global->m_list_writers, m_w);
  AtomicPut(&g_p_writer_global->m_b_work_mode_150204, 1);
  EXPECT_EQ("", Ask(R"({"query_id":"GetStatus"})"));
  EXPECT_EQ("", Ask(R"({"query_id":"GetError"})"));
  SafeString out;
  SafeStringAssign(&out, "kept", 1);
  QueryExec(nullptr, R"({"query_id":"GetStatus","view":"buffer_fill"})", &out, -1);
  EXPECT_EQ("kept", Text(out));
  CListOurAdd(&g_p_writer_global->m_list_writers, m_w);
}

TEST_F(WebServiceTest, ByEventsShowsOnlyByEventChannelsWithTheirEventsInPlaceOfTheBody) {
  CWriter* e = Open("E", "B", "C", R"(,"by_events":{"_value":true})");
  std::vector<std::string> lines = Lines(Ask(R"({"query_id":"GetStatus","view":"by_events"})"));
  ASSERT_EQ(1u, lines.size());
  SafeString events;
  EventsToJson(&e->m_by_event, &events);
  std::string tail =
      "\"buff_thread_last_itter\":" + Time(e->m_status.m_i64_buff_thread_last_itter) + Text(events) + "}";
  EXPECT_EQ(0u, lines[0].find(R"({"key1":"E","key2":"B","key3":"C","key4":"","type":"video","by_event_prop":true,)"));
  EXPECT_EQ(lines[0].size() - tail.size(), lines[0].rfind(tail));
}

TEST_F(WebServiceTest, BufferFillViewsShowTheRingsAndLeaveOutChannelsBelowTheirThreshold) {
  Open("Z", "Q", "C");
  EXPECT_EQ("", Ask(R"({"query_id":"GetStatus","view":"buffer_fill_over_0"})"));
  EXPECT_EQ(2u, Lines(Ask(R"({"query_id":"GetStatus","view":"buffer_fill_breif"})")).size());
  std::vector<std::string> full = Lines(Ask(R"({"query_id":"GetStatus","view":"buffer_fill"})"));
  ASSERT_EQ(2u, full.size());
  EXPECT_EQ(0u, full[0].find(R"({"key2":"B","type":"video","buff1":[["00:00:00:000",0],)"));
  EXPECT_EQ(120, Count(full[0], "\",0]"));

  StatGen(&m_w->m_status.m_buff_fill1, 0, 0, 30);
  EXPECT_EQ("", Ask(R"({"query_id":"GetStatus","view":"buffer_fill_over_30"})"));  // 30 is not over 30
  EXPECT_EQ(1u, Lines(Ask(R"({"query_id":"GetStatus","view":"buffer_fill_over_1"})")).size());
  Advance(1);
  StatGen(&m_w->m_status.m_buff_fill2, 0, 1, 31);
  std::string zeros;
  for (int i = 0; i < 59; i++) zeros += "0,";
  PlCalendar cal = {};
  ASSERT_TRUE(PlFileTimeToCalendar(FileTimeNowLocal(), &cal));
  char curr[16];
  snprintf(curr, sizeof(curr), "%02d:%02d:%02d:000", cal.i_hour, cal.i_minute, cal.i_second);
  EXPECT_EQ("[\n{\"key2\":\"B\",\"type\":\"video\",\"curr\":\"" + std::string(curr) + "\",\"buff1\":[" + zeros +
                "30],\"buff2\":[" + zeros + "31]}\n]",
            Ask(R"({"query_id":"GetStatus","view":"buffer_fill_over_30"})"));
}

TEST_F(WebServiceTest, WorkModesAreSetAndResetByValueAndAWrongValueChangesNothing) {
  CWriterGlobal* g = g_p_writer_global;
  const std::pair<const char*, int32_t*> modes[] = {{"150204", &g->m_b_work_mode_150204},
                                                    {"150602", &g->m_b_work_mode_150602},
                                                    {"150605", &g->m_b_work_mode_150605},
                                                    {"150607", &g->m_b_work_mode_150607}};
  for (const auto& mode : modes) {
    std::string value = std::string(R"(,"value":")") + mode.first + "\"}";
    EXPECT_EQ(kAccepted, Ask((R"({"query_id":"work_mode_set")" + value).c_str()));
    EXPECT_EQ(1, *mode.second) << mode.first;
    EXPECT_EQ(kAccepted, Ask((R"({"query_id":"work_mode_reset")" + value).c_str()));
    EXPECT_EQ(0, *mode.second) << mode.first;
  }
  Ask(R"({"query_id":"work_mode_set","value":"150204"})");
  EXPECT_EQ("", Ask(R"({"query_id":"work_mode_reset","value":"150205"})"));
  EXPECT_EQ("", Ask(R"({"query_id":"work_mode_reset","value":150204})"));
  EXPECT_EQ(1, g->m_b_work_mode_150204);
  // The mode lists a channel that has no error; an empty key keeps its "_".
  EXPECT_EQ("{\"camera_read_error\":[\n{\"name\":\"A_B_C_\",\"text\":\"Для типа video ошибка записи\",\"id\":0}\n]}",
            Ask(R"({"query_id":"GetError"})"));
}

TEST_F(WebServiceTest, AStalledThreadIsAnErrorUnlessMarkingRunsCleanWhichGetErrorIgnores) {
  Open("Z", "B", "C");
  EXPECT_EQ("", Ask(R"({"query_id":"GetError"})"));
  Advance(10);
  EXPECT_EQ("", Ask(R"({"query_id":"GetError"})"));  // not yet over 10 s
  Advance(1);
  Fresh(m_extra[0]);
  std::string error = Ask(R"({"query_id":"GetError"})");
  EXPECT_EQ(1, Count(error, "\"name\""));
  EXPECT_EQ(1, Count(error, "\"name\":\"A_B_C_\""));
  EXPECT_EQ(1, Count(Ask(R"({"query_id":"GetStatus","key1":"A"})"), "\"error\":true"));
  L().fault(ARCHIVE_FAULT_MARKING_RUNNING, -1, 1);
  EXPECT_EQ(1, Count(Ask(R"({"query_id":"GetStatus","key1":"A"})"), "\"error\":false"));
  EXPECT_EQ(error, Ask(R"({"query_id":"GetError"})"));
  L().fault(ARCHIVE_FAULT_MARKING_FAILED, -1, 1);
  EXPECT_EQ(1, Count(Ask(R"({"query_id":"GetStatus","key1":"A"})"), "\"error\":true"));
  // A write error counts whatever the thread and the marking do.
  L().fault(ARCHIVE_FAULT_MARKING_FAILED, -1, 0);
  m_extra[0]->m_status.m_b_is_write_error = 1;
  EXPECT_EQ(1, Count(Ask(R"({"query_id":"GetStatus","key1":"Z"})"), "\"error\":true"));
  EXPECT_EQ(2, Count(Ask(R"({"query_id":"GetError"})"), "\"name\""));
}

TEST_F(WebServiceTest, NoSignalComesOnlyAfterFiveSilentSeconds) {
  Advance(5);
  EXPECT_EQ(1, Count(Ask(R"({"query_id":"GetStatus"})"), "\"no_signal\":false"));
  Advance(1);
  EXPECT_EQ(1, Count(Ask(R"({"query_id":"GetStatus"})"), "\"no_signal\":true"));
}

TEST_F(WebServiceTest, TrafficParamsKnowTwoScalesAndCommonStatusReadsTheBufferMemory) {
  TSpeedStat* stat = &g_p_writer_global->m_speed_stat;
  EXPECT_EQ("", Ask(R"({"query_id":"traffic_params","scale":"200ms"})"));
  EXPECT_EQ(2000000, stat->m_i64_period);
  EXPECT_EQ("", Ask(R"({"query_id":"traffic_params","scale":"1s"})"));
  EXPECT_EQ(2000000, stat->m_i64_period);
  Ask(R"({"query_id":"traffic_params","scale":"10s"})");
  EXPECT_EQ(100000000, stat->m_i64_period);
  EXPECT_EQ(24, Count(Ask(R"({"query_id":"traffic"})"), "\n"));

  BuffsUsedMemAdd(4096);
  EXPECT_EQ("{\"buffs_used_mem\":" + std::to_string(BuffsUsedMemRead()) + "}", Ask(R"({"query_id":"common_status"})"));
  BuffsUsedMemAdd(-4096);
}

TEST_F(WebServiceTest, EventsRegisterAnswersNothingUntilAnEventAndThenTheOpenOnesFilteredByKey) {
  const char query[] = R"({"query_id":"events_register","object_id":{"key2":"door"}})";
  EXPECT_EQ("", Ask(query));
  TrackHandle post = profile_open("track_event", nullptr, __FILE__, __LINE__);
  int32_t type = 20001;
  ProfileParam start[] = {{PP_INT32, "event_type", &type},
                          {PP_STRING, "key2", const_cast<char*>("door")},
                          {PP_STRING, "sysinfo", const_cast<char*>(",event_stop_id=20002,guid=g1,")},
                          {PP_END, nullptr, nullptr}};
  profile_data(post, start, 0);
  profile_close(post);
  std::string answer = Ask(query);
  EXPECT_EQ(0u, answer.find("[\n{\"key1\":\"\",\"key2\":\"door\"")) << answer;
  EXPECT_NE(std::string::npos, answer.find("\"event\":20001,\"cntr\":1,")) << answer;
  EXPECT_EQ(1, Count(answer, "\"key2\""));
  EXPECT_EQ("", Ask(R"({"query_id":"events_register","key2":"gate"})"));
}

// Every message a holder of a track heard, as name=value texts; a pointer
// of type 3 is shown by its address.
struct Messages {
  std::vector<std::vector<std::string>> all;
  static void On(void* user, ProfileParam* p) {
    std::vector<std::string> msg;
    for (const ProfileParam* e = p; e != nullptr && e->type != PP_END; e++) {
      std::string value = e->type == PP_STRING && e->value != nullptr
                              ? static_cast<const char*>(e->value)
                              : std::to_string(reinterpret_cast<uintptr_t>(e->value));
      msg.push_back(std::string(e->name != nullptr ? e->name : "") + "=" + value);
    }
    static_cast<Messages*>(user)->all.push_back(msg);
  }
};

// The host's web front: holds both tracks and hears what the plug-in sends.
class WebFrontTest : public WebServiceTest {
 protected:
  void SetUp() override {
    WebServiceTest::SetUp();
    ProfileCallback list_cb = {&m_list, reinterpret_cast<void*>(&Messages::On)};
    ProfileCallback methods_cb = {&m_answers, reinterpret_cast<void*>(&Messages::On)};
    m_h_list = profile_open("trackWsListMethods", &list_cb, __FILE__, __LINE__);
    m_h_methods = profile_open("plugin_methods_writer", &methods_cb, __FILE__, __LINE__);
  }
  void TearDown() override {
    profile_close(m_h_list);
    profile_close(m_h_methods);
    WebServiceTest::TearDown();
  }
  void Request(const char* cmd) {
    ProfileParam p[] = {{PP_STRING, "cmd", const_cast<char*>(cmd)}, {PP_END, nullptr, nullptr}};
    profile_data(m_h_list, p, 0);
  }
  // A "call" as the front makes it; a null method or params is left out.
  void Call(const char* method, const char* params = nullptr, int32_t* alive = nullptr) {
    std::vector<ProfileParam> p = {{PP_STRING, "cmd", const_cast<char*>("call")},
                                   {PP_OBJECT, "owner_data", &m_owner},
                                   {PP_INT32, "check_alive", alive != nullptr ? alive : &m_alive}};
    if (method != nullptr) p.push_back({PP_STRING, "method", const_cast<char*>(method)});
    if (params != nullptr) p.push_back({PP_STRING, "params", const_cast<char*>(params)});
    p.push_back({PP_END, nullptr, nullptr});
    profile_data(m_h_methods, p.data(), 0);
  }
  std::vector<std::string> Result(const std::string& json) {
    return {"cmd=result", "json=" + json, "owner_data=" + std::to_string(reinterpret_cast<uintptr_t>(&m_owner))};
  }

  Messages m_list, m_answers;
  TrackHandle m_h_list = 0, m_h_methods = 0;
  int m_owner = 0;
  int32_t m_alive = 0;
};

TEST_F(WebFrontTest, ARequestGetsTheFourRegistrationsInOrderEveryTime) {
  const std::string params =
      R"(method_params=[{"name": "key1", "value": ""}, {"name": "key2", "value": ""}, {"name": "key3", "value": ""}, )"
      R"({"name": "key4", "value": ""}, {"name": "view", "value": ""}])";
  Request("register");  // the front's own word: not asked
  EXPECT_TRUE(m_list.all.empty());
  Request("request");
  ASSERT_EQ(4u, m_list.all.size());
  const std::vector<std::string> head = {"cmd=register", "plugin_name=writer"};
  EXPECT_EQ((std::vector<std::string>{
                "cmd=register", "plugin_name=writer", "method_name=vers", "in_track=plugin_methods_writer",
                "method_help={\"help\":\"измения в версиях:\n\"140212 - запрос get_status;\n\" \n\"}"}),
            m_list.all[0]);
  ASSERT_EQ(6u, m_list.all[1].size());
  EXPECT_EQ((std::vector<std::string>{"cmd=register", "plugin_name=writer", "method_name=GetStatus", params}),
            std::vector<std::string>(m_list.all[1].begin(), m_list.all[1].begin() + 4));
  EXPECT_EQ(0u, m_list.all[1][4].find("method_help={\"help\":\"Состояние процесса записи.Поля результата:\n"));
  for (const char* field : {"buff1_size", "need_write", "buffer_fill_over_30", "object_id"})
    EXPECT_NE(std::string::npos, m_list.all[1][4].find(field)) << field;
  EXPECT_EQ("in_track=plugin_methods_writer", m_list.all[1][5]);
  ASSERT_EQ(6u, m_list.all[2].size());
  EXPECT_EQ("method_name=events_register", m_list.all[2][2]);
  EXPECT_EQ(params, m_list.all[2][3]);
  EXPECT_EQ(0u, m_list.all[2][4].find("method_help={\"help\":\"Состояние процесса записи.Поля результата:\n"));
  EXPECT_EQ(std::string::npos, m_list.all[2][4].find("buff1_size"));
  EXPECT_EQ((std::vector<std::string>{"cmd=register", "plugin_name=writer", "method_name=GetError",
                                      "method_help={\"help\":\"Состояние процесса записи.Результат - строка json с "
                                      "перечнем ошибок\n\"}",
                                      "in_track=plugin_methods_writer"}),
            m_list.all[3]);
  Request("request");
  EXPECT_EQ(8u, m_list.all.size());
  on_plugin_result(g_p_writer_global->m_p_web_service, nullptr);  // logged only
  EXPECT_EQ(8u, m_list.all.size());
}

TEST_F(WebFrontTest, ACallIsAnsweredThroughTheQueryDispatchBeforeItReturns) {
  m_alive = 7;
  Call("GetStatus");  // no params: default keys and view
  EXPECT_EQ(8, m_alive);
  ASSERT_EQ(1u, m_answers.all.size());
  EXPECT_EQ(Result(Ask(nullptr, "GetStatus")), m_answers.all[0]);
  EXPECT_EQ(0u, m_answers.all[0][1].find("json=[\n{\"key1\":\"A\""));
  Call("GetStatus", R"({"key1":"nobody"})");
  EXPECT_EQ(Result(""), m_answers.all[1]);
  // The method is the query, whatever "query_id" the params name.
  Call("vers", R"({"query_id":"GetError"})");
  EXPECT_EQ(Result(R"({"version":"15.11.26.0"})"), m_answers.all[2]);
  Call("events_register", "not json");
  EXPECT_EQ(Result(""), m_answers.all[3]);
  Call("GetError");
  EXPECT_EQ(Result(""), m_answers.all[4]);
  EXPECT_EQ(12, m_alive);
}

TEST_F(WebFrontTest, AnyOtherMethodGetsTheErrorAnswerAndTheCallerStillSeesItTaken) {
  m_alive = 7;
  for (const char* method : {"help", "query_log_status", "getstatus", ""}) Call(method);
  EXPECT_EQ(11, m_alive);
  int32_t at_limit = INT32_MAX;  // a caller's counter stops at its largest value
  Call("GetError", nullptr, &at_limit);
  EXPECT_EQ(INT32_MAX, at_limit);
  m_answers.all.pop_back();
  ASSERT_EQ(4u, m_answers.all.size());
  for (const auto& answer : m_answers.all)
    EXPECT_EQ((std::vector<std::string>{"cmd=result", "error=error message in text format",
                                        "owner_data=" + std::to_string(reinterpret_cast<uintptr_t>(&m_owner))}),
              answer);
}

TEST_F(WebFrontTest, CallsWithoutWhatTheyNeedAreDroppedUnanswered) {
  int32_t seven = 7;
  ProfileParam no_counter[] = {{PP_STRING, "cmd", const_cast<char*>("call")},
                               {PP_STRING, "method", const_cast<char*>("vers")},
                               {PP_END, nullptr, nullptr}};
  profile_data(m_h_methods, no_counter, 0);
  Call(nullptr);  // no method
  EXPECT_EQ(0, m_alive);
  ProfileParam wrong_types[] = {{PP_STRING, "cmd", const_cast<char*>("call")},
                                {PP_INT32, "method", &seven},
                                {PP_STRING, "check_alive", const_cast<char*>("1")},
                                {PP_END, nullptr, nullptr}};
  profile_data(m_h_methods, wrong_types, 0);
  for (const char* cmd : {"stop", "request", "result"}) {
    ProfileParam other[] = {{PP_STRING, "cmd", const_cast<char*>(cmd)},
                            {PP_STRING, "method", const_cast<char*>("vers")},
                            {PP_INT32, "check_alive", &seven},
                            {PP_END, nullptr, nullptr}};
    profile_data(m_h_methods, other, 0);
  }
  ProfileParam no_cmd[] = {{PP_STRING, nullptr, const_cast<char*>("call")},
                           {PP_STRING, "method", const_cast<char*>("vers")},
                           {PP_INT32, "check_alive", &seven},
                           {PP_END, nullptr, nullptr}};
  profile_data(m_h_methods, no_cmd, 0);
  on_plugin_data2(g_p_writer_global->m_p_web_service, nullptr);
  EXPECT_EQ(7, seven);
  EXPECT_TRUE(m_answers.all.empty());
  // A timeout below 1 is only reported: the call is answered as usual.
  int32_t zero = 0;
  ProfileParam timeout[] = {{PP_STRING, "cmd", const_cast<char*>("call")},
                            {PP_STRING, "method", const_cast<char*>("vers")},
                            {PP_INT32, "timeout", &zero},
                            {PP_INT32, "timeout", nullptr},
                            {PP_INT32, "check_alive", &seven},
                            {PP_END, nullptr, nullptr}};
  profile_data(m_h_methods, timeout, 0);
  EXPECT_EQ(8, seven);
  ASSERT_EQ(1u, m_answers.all.size());
  EXPECT_EQ("json={\"version\":\"15.11.26.0\"}", m_answers.all[0][1]);
}

void OnAnswer(void* user, ProfileParam* p) {
  if (p[0].type == PP_STRING && strcmp(p[0].name, "json") == 0)
    static_cast<std::vector<std::string>*>(user)->push_back(static_cast<const char*>(p[0].value));
}

// libwriter.so loaded beside the reference archive and log, with a temp
// folder for its files; each Load is one plug-in life up to Unload.
class WebServiceDoorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_archive = dlopen(WRITER_BIN_DIR "/libwarchive.so", RTLD_NOW | RTLD_LOCAL);
    m_log = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, m_archive);
    ASSERT_NE(nullptr, m_log);
    ASSERT_NE(nullptr, mkdtemp(m_dir));
  }
  void TearDown() override {
    core_set_path("writer", nullptr);
    core_set_path("archive", nullptr);
    core_set_path("log-1", nullptr);
    EXPECT_EQ(0, system((std::string("rm -rf ") + m_dir).c_str()));
  }
  void* Load() {
    void* lib = LoadPluginBeside(m_archive, m_log, m_dir, "");
    EXPECT_NE(nullptr, lib);
    if (lib != nullptr) {
      EXPECT_EQ(0, Sym<int32_t (*)()>(lib, "dll_init")());
    }
    return lib;
  }
  void Unload(void* lib) {
    EXPECT_EQ(0, Sym<int32_t (*)()>(lib, "dll_free")());
    dlclose(lib);
    Sym<void (*)()>(m_archive, "archive_reset")();
    Sym<int32_t (*)(const char*)>(m_archive, "archive_configure")(nullptr);
  }
  void Exec(void* lib, const char* json) {
    ProfileCallback reply = {&m_answers, reinterpret_cast<void*>(&OnAnswer)};
    ProfileParam q[] = {
        {PP_CALLBACK, "exec", &reply}, {PP_STRING, "json", const_cast<char*>(json)}, {PP_END, nullptr, nullptr}};
    EXPECT_EQ(0, Sym<int32_t (*)(ProfileParam*)>(lib, "dll_exec")(q));
  }

  void* m_archive = nullptr;
  void* m_log = nullptr;
  char m_dir[40] = "/tmp/test_writer_web_service_XXXXXX";
  std::vector<std::string> m_answers;
};

TEST_F(WebServiceDoorTest, AQueryThroughDllExecComesBackThroughTheExecCallback) {
  void* lib = Load();
  ASSERT_NE(nullptr, lib);
  Exec(lib, R"({"query_id":"vers"})");
  EXPECT_EQ(std::vector<std::string>{R"({"version":"15.11.26.0"})"}, m_answers);
  Unload(lib);
}

// The subscriptions of one run are in the next: dll_free saves them beside
// the plug-in's folder, and dll_init reads them back.
TEST_F(WebServiceDoorTest, SubscriptionsSurviveARestartOfThePlugIn) {
  core_set_path("writer", (std::string(m_dir) + "/plugins/writer.so").c_str());
  for (int run = 0; run < 2; run++) {
    void* lib = Load();
    ASSERT_NE(nullptr, lib);
    if (run == 0) Exec(lib, R"({"query_id":"query_log_status_add","value":"<x>kept %d"})");
    Exec(lib, R"({"query_id":"query_log_status"})");
    Unload(lib);
  }
  const std::string line = "[\n{\"file\":\"\",\"line\":0,\"log\":\"<x>kept %d\",\"is_on\":true}\n]";
  EXPECT_EQ((std::vector<std::string>{"", line, line}), m_answers);  // the add answers nothing
  EXPECT_EQ("{\"query_log_status\":[\n{\"log\":\"<x>kept %d\",\"is_on\":true}\n]}\n",
            ReadAll(std::string(m_dir) + "/config/writer.js"));
}

}  // namespace
