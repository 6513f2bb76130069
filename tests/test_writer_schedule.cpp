// A channel whose document carries a "_schedule", beside the schedule
// engine and a calendar holder that answers "get_list" as the reference
// host does: frames pass the gate only inside the plan as the manual clock
// goes over full hours, the calendar switches a date's row, and
// reconfiguration replaces the plan.
#include <stdlib.h>

#include <atomic>

#include "Schedule/TaskManager.h"
#include "tests/test_writer_channel.h"

namespace {

using kelmar_schedule::g_p_task_manager;
using writer_test::ChannelTest;
using writer_test::kSecond;

// Wednesday 4-6; holidays 3-4; working weekends never. The channel's clock
// starts on wednesday 15 November 2023, 03:11:40 UTC.
const char kPlan[] = R"({"usual":{"wednesday":[{"begin":"4:00","end":"6:00"}]},)"
                     R"("holidays":[{"begin":"3:00","end":"4:00"}],"working_weekends":[]})";

void OnRequest(void* user, ProfileParam* p) {
  if (p[0].type == PP_LIST && std::string(p[0].name) == "frame") ++*static_cast<std::atomic<int>*>(user);
}

class ScheduleTest : public ChannelTest {
 protected:
  // The test channel's document has no "_type" mark; the extra text closes
  // "writer" and adds the mark beside it.
  static std::string Extra(const std::string& plan) {
    return (plan.empty() ? "" : R"(,"_schedule":)" + plan) + R"(},"_type":{"_value":"writer")";
  }
  std::string WriterExtra() override { return Extra(kPlan); }

  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    PlClockTimeZoneChanged();
    PlClockUseManual(writer_test::kStartUtc);
    g_p_task_manager = new kelmar_schedule::TaskManager();
    ProfileCallback in = {this, reinterpret_cast<void*>(&ScheduleTest::OnScheduleIn)};
    m_h_out = profile_open("track_schedule_out", nullptr, __FILE__, __LINE__);
    m_h_in = profile_open("track_schedule_in", &in, __FILE__, __LINE__);
    ChannelTest::SetUp();
    ProfileCallback status = {&m_gets, reinterpret_cast<void*>(&OnRequest)};
    m_h_status = profile_open("a_b_c", &status, __FILE__, __LINE__);
    Quiet();
  }
  void TearDown() override {
    profile_close(m_h_status);
    ChannelTest::TearDown();
    EXPECT_TRUE(g_p_task_manager->m_tasks.empty());  // the channel gave its task back
    // and its calendar and request tracks: only the test's own holders stay.
    EXPECT_EQ(1, core_bus_holder_count("track_schedule_out"));
    EXPECT_EQ(1, core_bus_holder_count("track_schedule_in"));
    delete g_p_task_manager;
    g_p_task_manager = nullptr;
    profile_close(m_h_in);
    profile_close(m_h_out);
  }

  // The reference host's answer to "get_list".
  static void OnScheduleIn(void* user, ProfileParam*) {
    ScheduleTest* t = static_cast<ScheduleTest*>(user);
    t->Answer({{PP_STRING, "holidays_and_working_weekends", const_cast<char*>(t->m_calendar.c_str())}});
  }
  void Answer(std::vector<ProfileParam> elements) {
    elements.push_back({PP_END, nullptr, nullptr});
    profile_data(m_h_out, elements.data(), 0);
  }

  int32_t Passes() { return AtomicGet(&g_p_task_manager->m_i_passes); }
  // Until the signals of an open or reconfiguration have all been taken
  // and their passes are over.
  void Quiet() {
    int32_t seen = -1;
    for (int i = 0; i < 200 && (seen != Passes() || g_p_task_manager->m_h_event->IsSet()); i++) {
      seen = Passes();
      PlSleep(10);
    }
  }
  // Evaluates two seconds before the next full hour (one signal, one pass),
  // then moves over it; nudges reach a deadline that a move made before the
  // thread was back in its wait pushed on.
  void NextHour() {
    uint64_t now = PlFileTimeUtc(), hour = 3600 * PL_TICKS_PER_SECOND;
    PlClockSet(now - now % hour + hour - 2 * kSecond);
    int32_t before;
    {
      PlCritLock lock(&g_p_task_manager->m_crit_sect_tasks);
      g_p_task_manager->loadDayTypes("{}");
      before = Passes();
    }
    for (int i = 0; i < 2000 && Passes() == before; i++) PlSleep(1);
    before = Passes();
    PlClockAdvance(3 * kSecond);
    for (int i = 1; i <= 3000 && Passes() == before; i++) {
      PlSleep(1);
      if (i % 300 == 0) PlClockAdvance(kSecond);
    }
    ASSERT_EQ(before + 1, Passes());
  }
  void Reconfigure(const std::string& plan) {
    std::string doc = Document(Extra(plan));
    ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
    WriterReconfigure(m_w, params);
    Quiet();
  }
  // Sends a key frame; whether the gate let it into the buffer.
  bool Taken() {
    int32_t before = Queued();
    Send(true);
    return Queued() > before;
  }
  int32_t State() { return AtomicGet(&m_w->m_p_schedule->m_b_state); }

  std::string m_calendar = R"({"holidays":[],"working_weekends":[]})";
  std::atomic<int> m_gets{0};
  TrackHandle m_h_in = 0, m_h_out = 0, m_h_status = 0;
};

TEST_F(ScheduleTest, FramesPassOnlyInsideThePlanAsTheClockGoesOverFullHours) {
  WriterSchedule* s = m_w->m_p_schedule;
  EXPECT_GE(s->m_i_task_id, 0);
  EXPECT_EQ(1, s->m_b_is_shedule_present);
  EXPECT_FALSE(Taken());  // 03:11
  EXPECT_EQ(0, m_w->m_status.m_b_sched);
  NextHour();  // 04:00: the interval begins, the source is asked at once
  EXPECT_EQ(1, State());
  EXPECT_EQ(1, m_gets.load());
  int64_t asked = AtomicGet(&m_w->m_status.m_i64_sched_last_get);
  EXPECT_EQ(static_cast<int64_t>(PlFileTimeToLocal(PlFileTimeUtc())), asked);
  EXPECT_TRUE(Taken());
  NextHour();  // 05:00, inside still: nothing is said
  EXPECT_EQ(1, m_gets.load());
  EXPECT_EQ(asked, AtomicGet(&m_w->m_status.m_i64_sched_last_get));
  EXPECT_TRUE(Taken());
  NextHour();  // 06:00: the interval ends without a message
  EXPECT_EQ(0, State());
  EXPECT_EQ(1, m_gets.load());
  EXPECT_FALSE(Taken());
  EXPECT_EQ(0, m_w->m_status.m_b_sched);
}

// The host's calendar names 16 November, which the engine applies to the
// day before it: on 15 November the holidays row (4-5) is used, not the
// wednesday one (never).
class CalendarTest : public ScheduleTest {
 protected:
  CalendarTest() { m_calendar = R"({"holidays":["november_16"],"working_weekends":[]})"; }
  std::string WriterExtra() override {
    return Extra(R"({"usual":{"wednesday":[]},"holidays":[{"begin":"4:00","end":"5:00"}],"working_weekends":[]})");
  }
};

TEST_F(CalendarTest, TheHostsAnswerSwitchesTheDateToItsRowAndALaterMessageIsTakenToo) {
  EXPECT_FALSE(Taken());  // 03:11
  NextHour();
  EXPECT_EQ(1, State());
  EXPECT_TRUE(Taken());
  std::string later = R"({"working_weekends":["november_16"],"holidays":[]})";
  Answer({{PP_INT32, "x", nullptr},
          {PP_STRING, "holidays_and_working_weekends", const_cast<char*>(later.c_str())},
          {PP_STRING, "y", const_cast<char*>(m_calendar.c_str())}});  // another key's text is no calendar
  Quiet();
  EXPECT_EQ(0, State());
  EXPECT_FALSE(Taken());
  WriterSchedule::on_schedule_out(m_w->m_p_schedule, nullptr);
}

TEST_F(ScheduleTest, ReconfigurationReplacesThePlanOfTheSameTaskAndADocumentWithoutOneKeepsIt) {
  int32_t id = m_w->m_p_schedule->m_i_task_id;
  Reconfigure(kPlan);
  EXPECT_EQ(id, m_w->m_p_schedule->m_i_task_id);
  EXPECT_EQ(0, State());
  Reconfigure(R"({"usual":{"wednesday":[{"begin":"3:00","end":"4:00"}]}})");
  EXPECT_EQ(id, m_w->m_p_schedule->m_i_task_id);
  EXPECT_EQ(1, State());
  EXPECT_EQ(1, m_gets.load());
  Reconfigure("");
  EXPECT_EQ(1, State());
  EXPECT_EQ(1, m_w->m_p_schedule->m_b_is_shedule_present);
  EXPECT_TRUE(Taken());
}

// Documents that name no plan leave a binding without a task; a plan of
// the wrong shape is a task that is never inside. A first "archive" without
// the "writer" mark is passed over, not stood on.
TEST_F(ScheduleTest, BadDocumentsMakeNoTaskAndAMalformedArchiveIsPassedOver) {
  const std::string plan = R"("writer":{"_schedule":{}})";
  for (const std::string& doc : {std::string("not json"), std::string("[1]"), std::string(R"({"archive":{}})"),
                                 R"({"archive":{"_type":{"_value":7},)" + plan + "}}",
                                 R"({"archive":{"_type":{"_value":"reader"},)" + plan + "}}",
                                 std::string(R"({"archive":{"_type":{"_value":"writer"}}})"),
                                 std::string(R"({"archive":{"writer":{}},"archive":{"_type":{"_value":"writer"},)"
                                             R"("writer":{"_schedule":"all"}}})")}) {
    WriterSchedule* s = SafeNew<WriterSchedule>(1, m_w);
    ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
    LoadFromParams(s, params);
    Quiet();
    bool last = doc.find("all") != std::string::npos;
    EXPECT_EQ(last ? 1 : 0, s->m_b_is_shedule_present) << doc;
    EXPECT_EQ(last, s->m_i_task_id >= 0) << doc;
    EXPECT_EQ(0, AtomicGet(&s->m_b_state));
    SafeDelete(s);
  }
}

}  // namespace
