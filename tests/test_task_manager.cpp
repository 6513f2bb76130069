// The schedule engine under the manual clock: plan and calendar reading,
// the hour states of a week told to an owner, the calendar rows, and the
// thread's end. No hour is waited out: the clock is moved over the full
// hour and the test waits (a bounded real time) for the thread's pass.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <mutex>
#include <string>
#include <vector>

#include "Schedule/TaskManager.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"

namespace {

using namespace kelmar_schedule;

const int64_t kSecond = static_cast<int64_t>(PL_TICKS_PER_SECOND);

struct Json {
  explicit Json(const std::string& text) : v(yajl_tree_parse(text.c_str(), nullptr, 0)) {}
  ~Json() { yajl_tree_free(v); }
  yajl_val v;
};

// An owner that keeps every state it is told.
struct Probe {
  void On(int32_t state) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(state);
  }
  std::vector<int32_t> Calls() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }
  std::mutex mutex;
  std::vector<int32_t> calls;
};

uint64_t At(int y, int mo, int d, int h, int mi = 0) {
  PlCalendar c = {y, mo, 0, d, h, mi, 0, 0};
  uint64_t local = 0;
  EXPECT_TRUE(PlCalendarToFileTime(&c, &local));
  return PlLocalToFileTime(local);
}

class TaskManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Zone("UTC0"); }
  // The thread is waiting here; with the manual clock standing, the join
  // can only end because the stop reached it.
  void TearDown() override {
    Drop();
    delete m_m;
    PlClockUseReal();
  }
  static void Zone(const char* tz) {
    setenv("TZ", tz, 1);
    PlClockTimeZoneChanged();
  }
  // The engine leaves tasks to their owners, which give them back.
  void Drop() {
    for (int32_t id : m_ids) m_m->unregisterTask(id);
    m_ids.clear();
  }
  // A new engine at a time. The clock then moves inside the hour or over it
  // through NextHour only: a jump past the thread's deadline would make a
  // pass that no step waits for.
  void Start(uint64_t utc) {
    if (m_m != nullptr) Drop();
    delete m_m;
    PlClockUseManual(utc);
    m_m = new TaskManager();
    ASSERT_TRUE(WaitPasses(1));
  }
  bool WaitPasses(int32_t n, int real_ms = 2000) {
    for (int i = 0; i < real_ms && AtomicGet(&m_m->m_i_passes) < n; i++) PlSleep(1);
    return AtomicGet(&m_m->m_i_passes) >= n;
  }
  // A change that signals once, made while the thread cannot evaluate: the
  // next pass sees it whole.
  template <class F>
  void Step(F change) {
    int32_t before;
    {
      PlCritLock lock(&m_m->m_crit_sect_tasks);
      change();
      before = AtomicGet(&m_m->m_i_passes);
    }
    ASSERT_TRUE(WaitPasses(before + 1));
  }
  int32_t Register(Probe* p, const std::string& plan) {
    Json j(plan);
    int32_t id = -1;
    Step([&] { id = m_m->registerTask(p, &Probe::On, j.v); });
    m_ids.push_back(id);
    return id;
  }
  // Moves the clock over a full hour and waits for the pass. A move made
  // before the thread was back in its wait pushes its deadline on; nudges
  // of a second reach it still inside the new hour.
  void Cross(int64_t step) {
    int32_t before = AtomicGet(&m_m->m_i_passes);
    PlClockAdvance(step);
    for (int i = 0; i < 10 && !WaitPasses(before + 1, 300); i++) PlClockAdvance(kSecond);
    ASSERT_EQ(before + 1, AtomicGet(&m_m->m_i_passes));
  }
  // Evaluates two seconds before the next local full hour, then crosses it.
  void NextHour() {
    uint64_t local = PlFileTimeToLocal(PlFileTimeUtc()), hour = 3600 * PL_TICKS_PER_SECOND;
    PlClockSet(PlLocalToFileTime(local - local % hour + hour) - 2 * kSecond);
    Step([&] { m_m->loadDayTypes("{}"); });
    Cross(3 * kSecond);
  }
  // The row used at noon of a date after the calendars: three tasks, each
  // inside all day in one kind of row only.
  std::string RowOn(int mo, int d, const std::vector<std::string>& calendars) {
    Start(At(2024, mo, d, 12));
    for (const std::string& c : calendars) Step([&] { m_m->loadDayTypes(c.c_str()); });
    const std::string all = R"([{"begin":"0:00","end":"24:00"}])";
    std::string days;
    for (const char* day : {"monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"})
      days += std::string(days.empty() ? "" : ",") + "\"" + day + "\":" + all;
    Probe holiday, working, weekday;
    Register(&holiday, R"({"holidays":)" + all + "}");
    Register(&working, R"({"working_weekends":)" + all + "}");
    Register(&weekday, R"({"usual":{)" + days + "}}");
    Drop();
    return std::string(holiday.Calls().empty() ? "" : "holidays") + (working.Calls().empty() ? "" : "working") +
           (weekday.Calls().empty() ? "" : "weekday");
  }

  TaskManager* m_m = nullptr;
  std::vector<int32_t> m_ids;
};

TEST(PlanReading, RowsFollowWellFormedIntervalsAndDatesAreALowerCaseMonthAndADay) {
  int32_t rows[I_PLAN_ROWS][I_PLAN_HOURS];
  for (auto& r : rows)
    for (int32_t& h : r) h = 7;  // what the document does not reach keeps this
  Json plan(R"({"usual":{"monday":[{"begin":"8 : 30","end":"9 : 30"},{"begin":"5:00","end":"5:00"},)"
            R"({"begin":"22:00","end":"6:00"},{"begin":"24:00","end":"24:00"},{"end":"2:00","begin":"1:00"}],)"
            R"("tuesday":[{"from":"3:00","end":"2:00"},{"begin":"20:00","end":" 24 : 00 "},"x",{"begin":"1:00"}],)"
            R"("wednesday":[],"thursday":[{"begin":7,"end":"5:00"},{"begin":"1:00","end":"2:00","x":1}],)"
            R"("friday":{"begin":"1:00","end":"2:00"},"someday":[{"begin":"1:00","end":"2:00"}]},)"
            R"("holidays":[{"begin":"ab","end":"123"}],"working_weekends":"all"})");
  parseSchedule(plan.v, rows);
  Json other(R"(["usual"])");
  parseSchedule(other.v, rows);
  std::string in[I_PLAN_ROWS];
  for (int r = 0; r < I_PLAN_ROWS; r++)
    for (int h = 0; h < I_PLAN_HOURS; h++) in[r] += rows[r][h] == 0 ? 'x' : rows[r][h] == 1 ? '.' : '?';
  EXPECT_EQ("........x...............", in[1]);  // 8:30 to 9:30 is hour 8 only; the rest is refused
  EXPECT_EQ("xx..................xxxx", in[2]);  // a first key other than "begin" reads as hour 0
  EXPECT_EQ("........................", in[3]);
  EXPECT_EQ("xxxxx...................", in[4]);               // a number is no time text: hour 0
  EXPECT_EQ("????????????????????????", in[5]);               // no array
  EXPECT_EQ("????????????????????????", in[0]);               // not named
  EXPECT_EQ("xxxxxxxxxxxx............", in[I_ROW_HOLIDAYS]);  // "ab" is 0, "123" is 12
  EXPECT_EQ("????????????????????????", in[I_ROW_WORKING_WEEKENDS]);
  int32_t m = -1, d = -1;
  EXPECT_TRUE(parseMonthDay("february_31", &m, &d));
  EXPECT_EQ(1, m);
  EXPECT_EQ(31, d);
  for (const char* bad : {"May_2", "june_0", "june_32", "june", "", "_5", "jun_5", "june_99999999999999999999"})
    EXPECT_FALSE(parseMonthDay(bad, &m, &d)) << bad;
  EXPECT_FALSE(parseMonthDay(nullptr, &m, &d));
}

TEST_F(TaskManagerTest, AWeekIsToldAtEachChangeOnlyAndOnTheFullHour) {
  Start(At(2024, 6, 10, 7, 30));  // a Monday
  Probe p;
  // Monday 8-10 and 22-24 running on to tuesday 0-2, thursday hour 8,
  // friday hour 23; wednesday empty, saturday refused, sunday unnamed.
  Register(&p, R"({"usual":{"monday":[{"begin":"8:00","end":"10:00"},{"begin":"22:00","end":"24:00"}],)"
               R"("tuesday":[{"begin":" 0 : 00 ","end":"2:00"}],"wednesday":[],)"
               R"("thursday":[{"begin":"8:30","end":"9:30"}],"friday":[{"begin":"23:00","end":"24:00"}],)"
               R"("saturday":[{"begin":"22:00","end":"6:00"}]},"holidays":[{"begin":"0:00","end":"24:00"}]})");
  EXPECT_TRUE(p.Calls().empty());  // outside at the start: nothing to tell
  PlClockSet(At(2024, 6, 10, 8) - 2 * kSecond);
  Step([&] { m_m->loadDayTypes("{}"); });
  PlClockAdvance(2 * kSecond);
  PlSleep(20);
  EXPECT_TRUE(p.Calls().empty());  // not at the full hour itself
  Cross(PL_TICKS_PER_MS);          // but 1 ms after it
  std::vector<int32_t> expected;
  for (int hour = 8; hour < 8 + 7 * 24; hour++) {
    if (hour > 8) NextHour();
    int day = hour / 24, h = hour % 24;  // day 0 is monday
    bool in = (day == 0 && (h == 8 || h == 9 || h >= 22)) || (day == 1 && h < 2) || (day == 3 && h == 8) ||
              (day == 4 && h == 23);
    if ((in ? 0 : 1) != (expected.empty() ? 1 : expected.back())) expected.push_back(in ? 0 : 1);
    ASSERT_EQ(expected, p.Calls()) << "day " << day << " hour " << h;
  }
  EXPECT_EQ(8u, expected.size());
}

TEST_F(TaskManagerTest, ACalendarDateSwitchesTheRowOfTheDayBeforeIt) {
  const std::string cal = R"({"holidays":["june_15","May_2"],"working_weekends":["april_1","march_1"]})";
  EXPECT_EQ("holidays", RowOn(6, 14, {cal}));
  EXPECT_EQ("weekday", RowOn(6, 15, {cal}));
  EXPECT_EQ("working", RowOn(3, 31, {cal}));
  EXPECT_EQ("weekday", RowOn(2, 29, {cal}));  // march_1 would be 31 february
  EXPECT_EQ("weekday", RowOn(5, 1, {cal}));
  // Marks stay when a later document leaves them out; of a date in both
  // lists the one applied last wins.
  EXPECT_EQ("holidays", RowOn(6, 14, {cal, R"({"holidays":[],"working_weekends":[]})"}));
  EXPECT_EQ("working", RowOn(6, 14, {R"({"holidays":["june_15"],"working_weekends":["june_15"]})"}));
  // No document of two lists: nothing applied, the thread woken all the
  // same (each step waits for its pass).
  for (const char* bad : {R"({"holidays":["june_15"],"working_weekends":[],"x":1})", "{\"holidays\":[\"june_15\"",
                          R"({"x":["june_15"],"holidays":["june_15"]})"})
    EXPECT_EQ("weekday", RowOn(6, 14, {bad})) << bad;
  // 31 December reads one place behind the table, which nobody writes.
  std::string december;
  for (int d = 1; d <= 31; d++) december += (d > 1 ? ",\"december_" : "\"december_") + std::to_string(d) + "\"";
  const std::string all = R"({"holidays":[)" + december + R"(],"working_weekends":["january_1"]})";
  EXPECT_EQ("holidays", RowOn(12, 30, {all}));
  EXPECT_EQ("weekday", RowOn(12, 31, {all}));
}

TEST_F(TaskManagerTest, TheHourIsTheLocalOne) {
  Zone("XYZ-3:30");
  Start(At(2024, 6, 10, 10, 15));  // 06:45 UTC
  Probe p;
  Register(&p, R"({"usual":{"monday":[{"begin":"10:00","end":"11:00"}]}})");
  EXPECT_EQ(std::vector<int32_t>({0}), p.Calls());
  NextHour();
  EXPECT_EQ(std::vector<int32_t>({0, 1}), p.Calls());
}

TEST_F(TaskManagerTest, UpdatesKeepTheToldStateAndAnUnregisteredOwnerHearsNothing) {
  Start(At(2024, 6, 10, 0, 30));
  Probe p, q;
  const std::string monday = R"({"usual":{"monday":[{"begin":"0:00","end":"2:00"}]}})";
  int32_t id = Register(&p, monday);
  int32_t other = Register(&q, monday);
  EXPECT_GT(other, id);
  Json same(monday), tuesday(R"({"usual":{"tuesday":[]}})"), closed(R"({"usual":{"monday":[]}})");
  Step([&] { m_m->updateTask(id, same.v); });
  Step([&] { m_m->updateTask(id, tuesday.v); });  // monday is not named: its row stays
  EXPECT_EQ(std::vector<int32_t>({0}), p.Calls());
  m_m->updateTask(12345, closed.v);  // unknown ids: ignored
  m_m->unregisterTask(12345);
  Step([&] { m_m->updateTask(id, closed.v); });
  EXPECT_EQ(std::vector<int32_t>({0, 1}), p.Calls());
  m_m->unregisterTask(other);
  NextHour();
  NextHour();  // 02:00: q's plan closes, but q is gone
  EXPECT_EQ(std::vector<int32_t>({0}), q.Calls());
  EXPECT_EQ(1u, m_m->m_tasks.size());
}

TEST_F(TaskManagerTest, AClockBeyondTheCalendarEndsTheThreadAndTheDestructorSkipsTheJoin) {
  Start(At(2024, 6, 10, 0, 30));
  PlThread* thread = m_m->m_p_thread->m_h_thread;
  ASSERT_NE(nullptr, thread);
  PlClockSet(0x8000000000000000ULL);
  m_m->loadDayTypes("{}");
  for (int i = 0; i < 2000 && thread->ExitCode() == PL_STILL_ACTIVE; i++) PlSleep(1);
  EXPECT_EQ(1u, thread->ExitCode());  // the wrapper caught the exception
}

}  // namespace
