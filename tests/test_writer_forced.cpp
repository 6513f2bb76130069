// Forced recording commands as an outside API client sends them on
// "track_vp-api", through the reference bus: the camera is looked up with a
// peer that answers "rtsp:list_cameras", the command becomes events on
// "track_event", and the answer comes back in XML.
#include <atomic>
#include <thread>

#include "tests/test_writer_channel.h"
#include "writer/writer_by_event.h"
#include "writer/writer_forced.h"

namespace {

using writer_test::ChannelTest;
using writer_test::kSecond;

// The peer that knows the cameras: "door-1" is camera B.
struct CameraPeer {
  bool silent = false;
  std::string last_cmd;
  TrackHandle h_cmd = 0, h_data = 0;
  static void On(void* user, ProfileParam* p) {
    CameraPeer* peer = static_cast<CameraPeer*>(user);
    void *owner = nullptr, *number = nullptr;
    for (const ProfileParam* e = p; e->type != PP_END; e++) {
      std::string name = e->name;
      if (name == "cmd") peer->last_cmd = static_cast<const char*>(e->value);
      if (name == "owner") owner = e->value;
      if (name == "owner_data") number = e->value;
    }
    if (peer->silent) return;
    std::string json = peer->last_cmd.find("\"id\":\"door-1\"") != std::string::npos
                           ? "[{\"id\":\"door-1\",\"key1\":\"A\",\"key2\":\"B\",\"key3\":\"C\"}]"
                           : "[]";
    ProfileParam answer[] = {{PP_STRING, "json", const_cast<char*>(json.c_str())},
                             {PP_OBJECT, "owner", owner},
                             {PP_OBJECT, "owner_data", number},
                             {PP_END, nullptr, nullptr}};
    profile_data(peer->h_data, answer, 0);
  }
};

// "type sysinfo" of each event on "track_event".
void OnPosted(void* user, ProfileParam* p) {
  std::string type, sysinfo;
  for (const ProfileParam* e = p; e->type != PP_END; e++) {
    std::string name = e->name != nullptr ? e->name : "";
    if (name == "event_type" && e->value) type = std::to_string(*static_cast<int32_t*>(e->value));
    if (name == "sysinfo" && e->value) sysinfo = static_cast<const char*>(e->value);
  }
  if (!type.empty()) static_cast<std::vector<std::string>*>(user)->push_back(type + " " + sysinfo);
}

// The "result" texts the API client hears.
void OnAnswer(void* user, ProfileParam* p) {
  for (const ProfileParam* e = p; e->type != PP_END; e++)
    if (e->name != nullptr && std::string(e->name) == "result")
      static_cast<std::vector<std::string>*>(user)->push_back(static_cast<const char*>(e->value));
}

class ForcedTest : public ChannelTest {
 protected:
  std::string WriterExtra() override { return R"(,"by_events":{"_value":true},"events":{"_value":""})"; }
  void SetUp() override {
    ChannelTest::SetUp();
    ProfileCallback peer_cb = {&m_peer, reinterpret_cast<void*>(&CameraPeer::On)};
    m_peer.h_cmd = profile_open("trackWsServerCmd", &peer_cb, __FILE__, __LINE__);
    m_peer.h_data = profile_open("trackWsServerData", nullptr, __FILE__, __LINE__);
    ProfileCallback posted_cb = {&m_posted, reinterpret_cast<void*>(&OnPosted)};
    m_h_posted = profile_open("track_event", &posted_cb, __FILE__, __LINE__);
    ProfileCallback api_cb = {&m_answers, reinterpret_cast<void*>(&OnAnswer)};
    m_h_api = profile_open("track_vp-api", &api_cb, __FILE__, __LINE__);
    m_e = &m_w->m_by_event;
    InitEventStatus(m_e);
    Advance(6);
    NeedWrite(m_e, -1);  // the first duration check is behind us
  }
  void TearDown() override {
    profile_close(m_h_api);
    profile_close(m_h_posted);
    profile_close(m_peer.h_data);
    profile_close(m_peer.h_cmd);
    ChannelTest::TearDown();
  }
  // One command; args as name/value pairs, a null value for the duration.
  void Command(const char* method, std::vector<std::pair<const char*, const char*>> args, bool own = false) {
    std::vector<ProfileParam> list;
    for (auto& a : args) list.push_back({PP_STRING, a.first, const_cast<char*>(a.second)});
    list.push_back({PP_END, nullptr, nullptr});
    std::vector<ProfileParam> msg;
    if (method != nullptr) msg.push_back({PP_STRING, "method", const_cast<char*>(method)});
    msg.push_back({PP_LIST, "args", list.data()});
    if (own) msg.push_back({PP_STRING, "self44", const_cast<char*>("self44")});
    msg.push_back({PP_END, nullptr, nullptr});
    profile_data(m_h_api, msg.data(), 0);
  }
  std::string LastAnswer() { return m_answers.empty() ? "(none)" : m_answers.back(); }

  CameraPeer m_peer;
  CWriterByEvent* m_e = nullptr;
  TrackHandle m_h_posted = 0, m_h_api = 0;
  std::vector<std::string> m_posted, m_answers;
};

TEST_F(ForcedTest, TimedStartRecordsUntilItsDurationRunsOut) {
  EXPECT_EQ(0, NeedWrite(m_e, -1));
  Command("start_recording", {{"id", "door-1"}, {"30", nullptr}});
  EXPECT_EQ("<result cause=\"0\"></result>", LastAnswer());
  EXPECT_NE(std::string::npos, m_peer.last_cmd.find("\"params\": \n  {\n\"id\":\"door-1\"  }"));
  EXPECT_EQ((std::vector<std::string>{"60030 ,event_stop_id=60031,dur=30,"}), m_posted);
  EXPECT_EQ(1, ForcedEventCounter(m_e));
  Advance(25);
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  Advance(11);  // past the limit: the check posts the stop, which comes back
  EXPECT_EQ(0, NeedWrite(m_e, -1));
  EXPECT_EQ("60031 ,event_start_id=60030", m_posted.back());
  EXPECT_EQ(0, ForcedEventCounter(m_e));
}

TEST_F(ForcedTest, OpenEndedStartLastsUntilTheStopWhoseDurationIsIgnored) {
  Command("start_recording", {{"id", "door-1"}});
  EXPECT_EQ("60030 ,event_stop_id=60031,", m_posted.back());
  Advance(600);
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  Command("stop_recording", {{"id", "door-1"}, {"5", nullptr}});
  EXPECT_EQ(S_FORCED_ANSWER_OK, LastAnswer());
  EXPECT_EQ("60031 ,event_start_id=60030", m_posted.back());
  EXPECT_EQ(0, NeedWrite(m_e, -1));
  EXPECT_EQ(2u, m_answers.size());
}

TEST_F(ForcedTest, OwnAnswersAndOtherKindsAreNeitherActedOnNorAnswered) {
  Command("start_recording", {{"id", "door-1"}}, true);
  ProfileParam msg[] = {{PP_STRING, "method", const_cast<char*>("start_recording")}, {PP_END, nullptr, nullptr}};
  profile_writer_forced_f(g_p_writer_global->m_p_forced, 0, 1, msg);
  EXPECT_TRUE(m_answers.empty());
  EXPECT_TRUE(m_posted.empty());
  EXPECT_EQ(0, ForcedEventCounter(m_e));
}

TEST_F(ForcedTest, EveryFailureGetsTheSameNotAvailableAnswer) {
  const std::string not_available =
      "<result cause=\"4\"><params><param name=\"descr\" value=\"not_available\"/></params></result>";
  EXPECT_EQ(not_available, S_FORCED_ANSWER_NOT_AVAILABLE);
  Command("Start_recording", {{"id", "door-1"}});  // the comparison is exact
  Command(nullptr, {{"id", "door-1"}});
  Command("start_recording", {{"30", nullptr}});
  Command("start_recording", {{"id", ""}});
  Command("start_recording", {{"id", "gate-9"}});
  Command("start_recording", {{"id", "a\"b\\c\n"}});  // escaped into the request, still unknown
  EXPECT_NE(std::string::npos, m_peer.last_cmd.find("\"id\":\"a\\\"b\\\\c\""));
  Command("start_recording", {{"id", std::string(5000, 'x').c_str()}});  // not even asked for
  profile_writer_forced_f(g_p_writer_global->m_p_forced, 0, 2, nullptr);
  AtomicPut(&m_info->m_b_write_by_event, 0);
  Command("start_recording", {{"id", "door-1"}});
  AtomicPut(&m_info->m_b_write_by_event, 1);
  EXPECT_EQ(std::vector<std::string>(9, not_available), m_answers);
  EXPECT_TRUE(m_posted.empty());
}

TEST_F(ForcedTest, CameraPeerThatNeverAnswersGivesNotAvailableAfterFiveSeconds) {
  m_peer.silent = true;
  std::atomic<bool> done{false};
  uint64_t before = PlFileTimeUtc();
  std::thread mover([&] {
    while (!done) {
      PlClockAdvance(kSecond / 2);
      PlSleep(2);
    }
  });
  Command("start_recording", {{"id", "door-1"}});
  done = true;
  mover.join();
  EXPECT_GE(PlFileTimeUtc() - before, uint64_t(5 * kSecond));
  EXPECT_EQ(S_FORCED_ANSWER_NOT_AVAILABLE, LastAnswer());
  EXPECT_TRUE(m_posted.empty());
}

TEST(ParseForcedArgs, IdIsTheLastTextNamedIdAndTheDurationAValuelessDigitName) {
  TForcedRequest req;
  // Neither a null id, nor a name with a letter or a value, a number element
  // or a nameless one counts; only "30" is a duration.
  ProfileParam args[] = {{PP_STRING, "id", const_cast<char*>("first")},
                         {PP_STRING, "id", const_cast<char*>("door-1")},
                         {PP_STRING, "id", nullptr},
                         {PP_STRING, "12a", nullptr},
                         {PP_STRING, "45", const_cast<char*>("x")},
                         {PP_INT32, "7", nullptr},
                         {PP_STRING, nullptr, nullptr},
                         {PP_STRING, "30", nullptr},
                         {PP_END, nullptr, nullptr}};
  ParseForcedArgs(&req, args);
  EXPECT_STREQ("door-1", req.m_s_id.m_p_text);
  EXPECT_EQ(30, req.m_i64_dur);
  EXPECT_EQ(1, req.m_b_dur_present);

  ProfileParam odd[] = {{PP_STRING, "", nullptr}, {PP_END, nullptr, nullptr}};
  ParseForcedArgs(&req, odd);  // an empty name is a duration of 0
  EXPECT_EQ(0, req.m_i64_dur);
  EXPECT_EQ(1, req.m_b_dur_present);
  EXPECT_STREQ("", SafeStringText(&req.m_s_id));
  ProfileParam huge[] = {{PP_STRING, "99999999999999999999999", nullptr}, {PP_END, nullptr, nullptr}};
  ParseForcedArgs(&req, huge);
  EXPECT_EQ(INT64_MAX, req.m_i64_dur);
  ParseForcedArgs(&req, nullptr);
  EXPECT_EQ(0, req.m_b_dur_present);
}

}  // namespace
