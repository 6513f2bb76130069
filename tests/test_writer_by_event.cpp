// A channel's event state driven through the reference bus: events posted
// on "track_event" reach the channel and the registrator as in a running
// host; the manual clock stands in for the post-event and forced spans.
#include <atomic>
#include <thread>

#include "linux/common_use/config.h"
#include "tests/test_writer_channel.h"
#include "writer/writer_by_event.h"

namespace {

using writer_test::ChannelTest;
using writer_test::kSecond;

// "type sysinfo comment" of each event other holders of "track_event" see.
void OnPosted(void* user, ProfileParam* p) {
  std::string type, text;
  for (const ProfileParam* e = p; e->type != PP_END; e++) {
    std::string name = e->name != nullptr ? e->name : "";
    if (name == "event_type" && e->value) type = std::to_string(*static_cast<int32_t*>(e->value));
    if ((name == "sysinfo" || name == "comment") && e->value)
      text += " " + std::string(static_cast<const char*>(e->value));
  }
  if (!type.empty()) static_cast<std::vector<std::string>*>(user)->push_back(type + text);
}
// "frame" requests a channel sends its source on the status track.
void OnRequest(void* user, ProfileParam* p) {
  if (p[0].type == PP_LIST && std::string(p[0].name) == "frame") ++*static_cast<int*>(user);
}

TEventElem* Find(CListOur* list, int32_t event) {
  for (int32_t i = 0; list != nullptr && i < list->m_i_count; i++) {
    TEventElem* el = static_cast<TEventElem*>(CListOurGet(list, i));
    if (el->event == event) return el;
  }
  return nullptr;
}
std::vector<std::string> Guids(const TEventElem* el) {
  std::vector<std::string> out;
  for (int32_t i = 0; i < el->guids->m_i_count; i++)
    out.push_back(static_cast<SafeString*>(CListOurGet(el->guids, i))->m_p_text);
  return out;
}

class ByEventTest : public ChannelTest {
 protected:
  std::string WriterExtra() override {
    return R"(,"by_events":{"_value":true},"events":{"_value":"20001,20005"},"post_write":{"_value":5})";
  }
  void SetUp() override {
    ChannelTest::SetUp();
    m_h_post = profile_open("track_event", nullptr, __FILE__, __LINE__);
    ProfileCallback posted_cb = {&m_posted, reinterpret_cast<void*>(&OnPosted)};
    m_h_posted = profile_open("track_event", &posted_cb, __FILE__, __LINE__);
    ProfileCallback requests_cb = {&m_requests, reinterpret_cast<void*>(&OnRequest)};
    m_h_requests = profile_open("a_b_c", &requests_cb, __FILE__, __LINE__);
    m_e = &m_w->m_by_event;
  }
  void TearDown() override {
    profile_close(m_h_requests);
    profile_close(m_h_posted);
    profile_close(m_h_post);
    ChannelTest::TearDown();
  }
  // One event as a poster sends it; a null key2 leaves the element out.
  void Post(int32_t type, const std::string& sysinfo, const char* key2 = "B") {
    std::vector<ProfileParam> msg = {{PP_INT32, "event_type", &type}, {PP_STRING, "key1", const_cast<char*>("A")}};
    if (key2 != nullptr) msg.push_back({PP_STRING, "key2", const_cast<char*>(key2)});
    msg.push_back({PP_STRING, "sysinfo", const_cast<char*>(sysinfo.c_str())});
    msg.push_back({PP_END, nullptr, nullptr});
    profile_data(m_h_post, msg.data(), 0);
  }
  void Start(const std::string& guid) { Post(20001, ",event_stop_id=20002,guid=" + guid + ","); }
  void Stop(const std::string& guid) { Post(20002, ",event_start_id=20001,guid=" + guid + ","); }
  TEventElem* Mine(int32_t event) { return Find(&m_e->m_list_events, event); }
  TEventElem* Reg(int32_t event) {
    TEventCamera* cam = GetCamera(&g_p_writer_global->m_events_registrator.m_list_cameras, m_info->m_s_arc_keys);
    return Find(cam != nullptr ? &cam->m_list_events : nullptr, event);
  }
  int64_t Now() { return static_cast<int64_t>(FileTimeNowLocal()); }

  CWriterByEvent* m_e = nullptr;
  TrackHandle m_h_post = 0, m_h_posted = 0, m_h_requests = 0;
  std::vector<std::string> m_posted;
  int m_requests = 0;
};

TEST(SysInfo, EachPieceIsReadFromThirtyEightBytesFromItsComma) {
  struct Case {
    std::string text;
    int32_t ok, stop_mark, stop_id, start_mark;
    std::string guid;
    int64_t dur;
  };
  const std::string g31(31, 'g'), d32 = std::string(30, '0') + "15";
  const Case cases[] = {
      {",event_stop_id=60031,dur=15,", 1, 1, 60031, 0, "", 15 * kSecond},  // one comma closes and opens
      {",event_stop_id=60031", 0, 1, 0, 0, "", 0},                         // open id: 0, the rest unread
      {",guid=g,dur=5,event_start_id=1,event_stop_id=60031", 0, 1, 0, 0, "", 0},
      {",event_start_id=60030", 1, 0, 0, 1, "", 0},  // never read, needs no comma
      {",event_stop_id=abc,guid=x1,", 1, 1, 0, 0, "x1", 0},
      {",event_stop_id=1,guid=" + g31 + ",", 1, 1, 1, 0, g31, 0},
      {",event_stop_id=1,guid=" + g31 + "g,", 0, 1, 1, 0, "", 0},
      {",event_stop_id=1,dur=" + d32 + ",", 1, 1, 1, 0, "", 15 * kSecond},
      {",event_stop_id=1,dur=0" + d32 + ",", 0, 1, 1, 0, "", 0},
      {",dur=99999999999999999999,event_stop_id=2,", 1, 1, 2, 0, "", INT64_MAX / kSecond * kSecond},
      // A megabyte of text whose last piece runs into its end.
      {",event_stop_id=3," + std::string(1 << 20, 'x') + ",guid=tail", 0, 1, 3, 0, "", 0},
  };
  for (const Case& c : cases) {
    TEventMsg msg = {};
    EXPECT_EQ(c.ok, SysInfoRead(c.text.c_str(), &msg)) << c.text;
    EXPECT_EQ(c.stop_mark * 1000000 + c.stop_id, msg.b_stop_mark * 1000000 + msg.i_stop_id) << c.text;
    EXPECT_EQ(c.start_mark, msg.b_start_mark) << c.text;
    EXPECT_EQ(c.guid, msg.s_guid) << c.text;
    EXPECT_EQ(c.dur, msg.i64_dur) << c.text;
    EXPECT_EQ(c.dur != 0, msg.b_dur_pres != 0) << c.text;
  }
}

// An element whose guid list cannot be had gives its own block back, and
// the list it was meant for stays as it was.
TEST(EventElem, AnElementWithoutMemoryForItsGuidListLeavesNothingAllocated) {
  MemChecker* p_saved = g_p_mem_checker;
  MemChecker checker;
  g_p_mem_checker = &checker;
  CListOur list;
  int64_t i64_before = checker.m_i64_memcounter;
  SafeMemFailNext(I_SIGN_EVENT_LIST, 1);
  EXPECT_EQ(nullptr, EventElemCreate(20001, 20002));
  EXPECT_EQ(i64_before, checker.m_i64_memcounter);
  SafeMemFailNext(I_SIGN_EVENT_ELEM, 1);
  EventListAdd(&list, 20001, 20002);
  EXPECT_EQ(0, list.m_i_count);
  EXPECT_EQ(i64_before, checker.m_i64_memcounter);
  EventListAdd(&list, 20001, 20002);  // the switch is spent
  EXPECT_EQ(1, list.m_i_count);
  EventListClear(&list);
  g_p_mem_checker = p_saved;
}

TEST_F(ByEventTest, BadMessagesAndAChannelNotRecordingByEventsChangeNothing) {
  int32_t type = 20001;
  char* key2 = const_cast<char*>("B");
  char* start = const_cast<char*>(",event_stop_id=20002,");
  // Wrong types, null values and a nameless element are passed over.
  ProfileParam bad[] = {{PP_INT32, "event_type", &type},   {PP_STRING, "event_type", start},
                        {PP_INT32, "event_type", nullptr}, {PP_INT32, nullptr, &type},
                        {PP_STRING, "key2", key2},         {PP_INT32, "key2", &type},
                        {PP_STRING, "key1", nullptr},      {PP_STRING, "sysinfo", start},
                        {PP_STRING, "sysinfo", nullptr},   {PP_END, nullptr, nullptr}};
  ProfileParam null_key2[] = {{PP_INT32, "event_type", &type},
                              {PP_STRING, "key2", nullptr},
                              {PP_STRING, "sysinfo", start},
                              {PP_END, nullptr, nullptr}};
  ProfileParam good[] = {{PP_INT32, "event_type", &type},
                         {PP_STRING, "key2", key2},
                         {PP_STRING, "sysinfo", start},
                         {PP_END, nullptr, nullptr}};
  InitEventStatus(m_e);
  profile_data(m_h_post, bad, 0);  // the last sysinfo is null: the registrator drops it
  profile_data(m_h_post, null_key2, 0);
  on_profile_events(m_e, nullptr);
  on_profile_events(nullptr, good);
  ParseEventG(nullptr, good);
  // The channel takes both: "bad" has its marked sysinfo, and a null key2
  // leaves the one before. The registrator takes neither.
  EXPECT_EQ(2, m_e->m_i_on_counter);
  EXPECT_EQ(nullptr, Reg(20001));
  m_info->m_b_write_by_event = 0;
  m_e->m_b_init_done = 0;
  on_profile_events(m_e, good);
  InitEventStatus(m_e);
  EXPECT_EQ(2, m_e->m_i_on_counter);
  EXPECT_EQ(0, m_e->m_b_init_done);
  EXPECT_EQ(1, NeedWrite(m_e, -1));  // the schedule and the common condition alone
}

TEST_F(ByEventTest, OpenEventsAreCountedAndTheLastStopOpensThePostEventSpan) {
  EXPECT_EQ(0, NeedWrite(m_e, -1));  // before the first take-over
  InitEventStatus(m_e);              // nothing open: the span starts now
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  Advance(6);
  Send(true);
  EXPECT_EQ(0, Queued());
  Start("g1");
  EXPECT_EQ(1, m_requests);  // the source had stopped: asked again
  EXPECT_EQ(Now(), m_w->m_status.m_i64_sched_last_get);
  EXPECT_EQ(Now(), m_w->m_status.m_i64_last_detect);
  Start("g2");
  Send(true);
  Send(false);
  EXPECT_EQ(2, Queued());
  Stop("g1");
  EXPECT_EQ(1, m_e->m_i_on_counter);
  EXPECT_EQ(1, m_e->m_b_event_accepted);
  EXPECT_EQ((std::vector<std::string>{"g2"}), Guids(Mine(20001)));
  Advance(100);
  Stop("g2");
  EXPECT_EQ(0, m_e->m_b_event_accepted);
  Advance(4);
  Send(false);
  EXPECT_EQ(3, Queued());
  int asked = m_requests;
  Start("g3");  // inside the span: the source still sends, nobody asks
  EXPECT_EQ(asked, m_requests);
  Stop("g3");
  Advance(5);
  Send(false);
  EXPECT_EQ(3, Queued());
  EXPECT_EQ(6, Mine(20001)->incr_cntr);
}

TEST_F(ByEventTest, StopWithoutStartGoesNegativeUncorrectedAndSwallowsTheNextStart) {
  InitEventStatus(m_e);
  Post(20005, ",event_stop_id=20006,");
  Post(20006, ",event_start_id=20005");
  Post(20006, ",event_start_id=20005");
  EXPECT_EQ(-1, Mine(20005)->m_i_counter);
  EXPECT_EQ(-1, m_e->m_i_on_counter);
  Post(20005, ",event_stop_id=20006,");
  EXPECT_EQ(0, m_e->m_b_event_accepted);
  Post(20005, ",event_stop_id=20006,");
  EXPECT_EQ(1, m_e->m_b_event_accepted);
  EXPECT_EQ(1, Reg(20005)->m_i_counter);
}

TEST_F(ByEventTest, OnlyMarkedEventsOfKnownTypesForThisCameraCount) {
  InitEventStatus(m_e);
  Post(20001, ",guid=plain,");                    // no mark
  Post(20099, ",event_stop_id=20100,");           // not in the list
  Post(20002, ",event_start_id=20001,guid=x,");   // no start has taught 20002 yet
  Post(20001, ",event_stop_id=20002,", "X");      // another camera
  Post(20001, ",event_stop_id=20002,", nullptr);  // judged by the key2 before: X
  EXPECT_EQ(0, m_e->m_i_on_counter);
  Post(20001, ",event_stop_id=20002,");
  Post(20001, ",event_stop_id=20002,", nullptr);  // now judged by B
  EXPECT_EQ(2, m_e->m_i_on_counter);
  EXPECT_EQ(1, Reg(20001)->m_i_counter);  // the registrator wants key2 in each message
  Post(20001, ",event_stop_id=20002");    // an open id teaches the partner 0
  EXPECT_EQ(0, Mine(20001)->stop_event);
  Start(std::string(32, 'g'));  // a guid beyond the scratch: counted without it
  EXPECT_EQ(4, m_e->m_i_on_counter);
  EXPECT_TRUE(Guids(Mine(20001)).empty());
  EXPECT_EQ(1, Reg(20001)->m_i_counter);  // the registrator dropped both whole
}

TEST_F(ByEventTest, ForcedElementIsAFlagWhoseLimitEachStartReplacesOrRemoves) {
  InitEventStatus(m_e);
  Post(60030, ",event_stop_id=60031,dur=30,");
  Post(60030, ",event_stop_id=60031,dur=30,");  // the audio channel's copy
  EXPECT_EQ(1, ForcedEventCounter(m_e));
  EXPECT_EQ(1, m_e->m_i_on_counter);
  EXPECT_EQ(Now() + 30 * kSecond, Mine(60030)->dur_mark);
  Advance(5);
  Post(60030, ",event_stop_id=60031,dur=60,");
  EXPECT_EQ(Now() + 60 * kSecond, Mine(60030)->dur_mark);
  Post(60030, ",event_stop_id=60031,");
  EXPECT_EQ(0, Mine(60030)->dur_pres + Mine(60030)->dur_mark);
  // A duration past the clock's range ends at its far end, not in the past.
  Post(60030, ",event_stop_id=60031,dur=922337203685,");
  EXPECT_EQ(INT64_MAX, Mine(60030)->dur_mark);
  Post(60031, ",event_start_id=60030");
  Post(60031, ",event_start_id=60030");
  EXPECT_EQ(0, ForcedEventCounter(m_e));
  EXPECT_EQ(0, m_e->m_i_on_counter);
  EXPECT_EQ(0, m_e->m_b_event_accepted);
}

TEST_F(ByEventTest, ForcedSpanEndsAfterItsDurationAndTheStopComesBackThroughTheBus) {
  InitEventStatus(m_e);
  Advance(6);
  NeedWrite(m_e, -1);  // the first check runs at once
  Post(60030, ",event_stop_id=60031,dur=15,");
  Advance(11);
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  Advance(5);  // past the limit, but the check comes every 10 s only
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  EXPECT_EQ(1, ForcedEventCounter(m_e));
  Advance(6);
  EXPECT_EQ(1, NeedWrite(m_e, -1));  // the stop opened the post-event span
  EXPECT_EQ("60031 by http video ,event_start_id=60030", m_posted.back());
  EXPECT_EQ(0, ForcedEventCounter(m_e));
  EXPECT_EQ(0, Reg(60030)->m_i_counter);
  Advance(5);
  EXPECT_EQ(0, NeedWrite(m_e, -1));
}

TEST_F(ByEventTest, NeedWriteFollowsItsTableAndTheScheduleWins) {
  InitEventStatus(m_e);
  Advance(6);
  WriterSchedule* sched = m_w->m_p_schedule;
  EXPECT_EQ(0, NeedWrite(m_e, -1));
  m_e->prev_write = 3 * kSecond;  // the ring decides later
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  m_e->prev_write = 0;
  Start("g1");
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  sched->m_b_is_shedule_present = 1;  // a plan whose hour is outside
  EXPECT_EQ(0, NeedWrite(m_e, -1));
  EXPECT_EQ(0, m_w->m_status.m_b_sched);
  sched->m_b_state = 1;
  EXPECT_EQ(1, NeedWrite(m_e, -1));
  EXPECT_EQ(1, m_w->m_status.m_b_sched);
  m_info->m_b_write_off = 1;
  EXPECT_EQ(0, NeedWrite(m_e, -1));
  m_info->m_b_write_off = 0;
}

TEST_F(ByEventTest, ChannelsOpenedOrReconfiguredLaterTakeTheOpenEventsFromTheRegistrator) {
  InitEventStatus(m_e);
  Start("\"g1\"");
  Post(60030, ",event_stop_id=60031,dur=30,");
  CWriter* late = SafeNew<CWriter>(1);
  late->m_i64_type_id = g_p_writer_global->m_i64_audio_id;
  std::string doc = Document(WriterExtra());
  ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
  WriterOpen(late, params);
  CWriterByEvent* e = &late->m_by_event;
  int asked = m_requests;
  InitEventStatus(e);
  EXPECT_EQ(2, e->m_i_on_counter);
  EXPECT_EQ(1, e->m_b_event_accepted);
  EXPECT_EQ(asked + 1, m_requests);
  EXPECT_EQ(20002, Find(&e->m_list_events, 20001)->stop_event);  // learned from the registrator
  EXPECT_EQ(Mine(60030)->dur_mark, Find(&e->m_list_events, 60030)->dur_mark);
  SafeString json;
  EventsToJson(e, &json);  // its own change count; the forced element has no guid to show
  EXPECT_STREQ(
      "\"cntr\":2,\"events\":\n[{\"event\":20001,\"cntr\":1,\"incr_cntr\":0,\"dur_mark\":\"1601.01.01 "
      "00:00:00:000\",\"dur_pres\":false,\"guids\":[\"g1\"]}]",
      json.m_p_text);
  WriterReconfigure(m_w, params);
  EXPECT_EQ(2, m_e->m_i_on_counter);
  EXPECT_EQ((std::vector<std::string>{"\"g1\""}), Guids(Mine(20001)));
  Stop("\"g1\"");  // reaches the late channel, which never saw the start
  EXPECT_EQ(1, e->m_i_on_counter);
  Post(60031, ",event_start_id=60030");
  EXPECT_EQ(0, e->m_b_event_accepted + m_e->m_b_event_accepted);
  WriterCloseTracks(late);
  SafeDelete(late);
}

// Events from a poster's thread while the host's thread takes the state
// over and a frame thread's forced check posts its own stops: no thread
// waits on another for good, and once the poster is done the counts agree.
TEST_F(ByEventTest, EventsFromAnotherThreadDuringTakeOverAndForcedStopsEndBalanced) {
  // The test's own listeners keep no lock: they are away while two threads post.
  profile_close(m_h_events);
  profile_close(m_h_posted);
  InitEventStatus(m_e);
  std::atomic<bool> done{false};
  std::thread poster([&] {
    TrackHandle h = profile_open("track_event", nullptr, __FILE__, __LINE__);
    int32_t start = 20001, stop = 20002, forced = 60030;
    for (int i = 0; i < 300; i++) {
      std::string on = ",event_stop_id=20002,guid=g" + std::to_string(i) + ",";
      std::string off = ",event_start_id=20001,guid=g" + std::to_string(i) + ",";
      ProfileParam msg[] = {{PP_INT32, "event_type", &start},
                            {PP_STRING, "key2", const_cast<char*>("B")},
                            {PP_STRING, "sysinfo", const_cast<char*>(on.c_str())},
                            {PP_END, nullptr, nullptr}};
      profile_data(h, msg, 0);
      msg[0].value = &stop;
      msg[2].value = const_cast<char*>(off.c_str());
      profile_data(h, msg, 0);
      if (i % 50 != 0) continue;
      msg[0].value = &forced;
      msg[2].value = const_cast<char*>(",event_stop_id=60031,dur=0,");
      profile_data(h, msg, 0);
    }
    profile_close(h);
    done = true;
  });
  while (!done) {
    InitEventStatus(m_e);
    Advance(11);  // each check finds the zero-length limits run out
    NeedWrite(m_e, -1);
  }
  poster.join();
  ProfileCallback events_cb = {&m_events, reinterpret_cast<void*>(&writer_test::Heard::On)};
  m_h_events = profile_open("track_event", &events_cb, __FILE__, __LINE__);
  ProfileCallback posted_cb = {&m_posted, reinterpret_cast<void*>(&OnPosted)};
  m_h_posted = profile_open("track_event", &posted_cb, __FILE__, __LINE__);
  Advance(11);
  NeedWrite(m_e, -1);
  InitEventStatus(m_e);
  EXPECT_EQ(0, m_e->m_i_on_counter);
  EXPECT_EQ(0, m_e->m_b_event_accepted);
  EXPECT_TRUE(Guids(Mine(20001)).empty());
  EXPECT_EQ(0, Reg(20001)->m_i_counter);
}

// The trace lines of the counting, read back from the reference log.
class ByEventLogTest : public ByEventTest {
 protected:
  void SetUp() override {
    ByEventTest::SetUp();
    m_log.Open(m_dir.m_s_path);
    g_p_log_status_list = new CLogStatusList();
    LogStatusRecomputeAllOff(g_p_log_status_list);
  }
  void TearDown() override {
    m_log.Close();
    delete g_p_log_status_list;
    g_p_log_status_list = nullptr;
    ByEventTest::TearDown();
  }
  std::string Log(const char* name) { return m_log.Read(name); }
  writer_test::TestLog m_log;
};

TEST_F(ByEventLogTest, NegativeCountersAreReportedByTheChannelAndOnlyTheElementOnesByTheRegistrator) {
  InitEventStatus(m_e);
  Post(20005, ",event_stop_id=20006,guid=a,");
  Post(20006, ",event_start_id=20005,guid=a,");
  Post(20006, ",event_start_id=20005,guid=b,");
  std::string arc = Log("arc"), decim = Log("arc.tracedecim");
  EXPECT_EQ(2, Count(arc, "<error13> event info CorrectState : p_elem_lv->m_i_counter < 0")) << arc;
  // Per element from the one that went below on: 20005 and 60030 behind it.
  EXPECT_EQ(2, Count(arc, "<error> CorrectState : i_on_counter_av < 0 i_on_counter_av -1")) << arc;
  EXPECT_EQ(2, Count(decim, "CorrectState : on p_elem_lv->m_i_counter < 0 m_i_counter -1 "));
  // Said after every stop of an ordinary element, whatever the counter.
  EXPECT_EQ(4, Count(decim, "CorrectState : p_elem_lv->m_i_counter < 0 m_i_counter "));
  EXPECT_NE(std::string::npos,
            decim.find("writer CorrectState bef decr list ind 1 event 20005 guid b  m_i_counter 0 i_on_counter_av 0"));
  EXPECT_NE(std::string::npos, decim.find("<-1_by_ev>writer CorrectState i_on_counter_av < 0  m_i_counter -1 "
                                          "i_on_counter_av -1"));
  EXPECT_NE(std::string::npos,
            decim.find("writer on_profile_events bef RefreshStateByCounter m_i_on_counter -1 guid b"));
}

}  // namespace
