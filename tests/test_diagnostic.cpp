// The speed statistics and their "traffic" table, and the per-thread wait
// statistics with their "WD" lines, under the manual clock.
#include "linux/common_use/diagnostic.h"

#include <stdlib.h>
#include <time.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "include/host/core_api.h"
#include "linux/common_use/config.h"
#include "linux/common_use/service/service2.h"
#include "platform/pl_clock.h"
#include "tests/test_log.h"

namespace {

const int64_t kSecond = 10000000;

// 2024.03.05 10:20:30:456 UTC; the manual counter runs at 10 MHz, so counter
// counts are ticks.
class DiagnosticTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    PlClockTimeZoneChanged();
    PlCalendar cal = {2024, 3, 2, 5, 10, 20, 30, 456};
    uint64_t ticks = 0;
    ASSERT_TRUE(PlCalendarToFileTime(&cal, &ticks));
    PlClockUseManual(ticks);
  }
  void TearDown() override { PlClockUseReal(); }

  // One entry measured as if it had taken the given ticks.
  static void Add(TSpeedStat* stat, uint32_t size, uint32_t useful, int64_t duration) {
    int64_t measured = -1;
    SpeedAdd(stat, PlPerfCounter() - duration, size, useful, &measured);
    EXPECT_EQ(measured, duration);
  }
  static std::string Table(TSpeedStat* stat) {
    SafeString out;
    SpeedTableQuery(stat, &out);
    return out.m_p_text != nullptr ? out.m_p_text : "";
  }
  static std::vector<std::string> Rows(const std::string& table) {
    std::vector<std::string> rows;
    std::istringstream in(table);
    for (std::string row; std::getline(in, row);) rows.push_back(row);
    return rows;
  }
  // The row of the table that starts with the time text.
  static std::string Row(const std::string& table, const std::string& time) {
    for (const std::string& row : Rows(table))
      if (row.compare(0, time.size(), time) == 0) return row.substr(time.size());
    return "<missing>";
  }
};

const char* const kEmpty = " write size 0 write 0 write useful 0 ";

TEST_F(DiagnosticTest, EmptyTableShowsTwentyFourQuietRowsEndingAtTheNextMinute) {
  TSpeedStat stat;
  std::string table = Table(&stat);
  std::vector<std::string> rows = Rows(table);
  ASSERT_EQ(rows.size(), 24u);
  EXPECT_EQ(rows.front(), std::string("2024.03.05 10:17:00:000") + kEmpty);
  EXPECT_EQ(rows[1], std::string("2024.03.05 10:17:10:000") + kEmpty);
  EXPECT_EQ(rows.back(), std::string("2024.03.05 10:20:50:000") + kEmpty);
  EXPECT_EQ(table.back(), '\n');
  EXPECT_EQ(table.find("error"), std::string::npos);

  // No active entry: the text stays as it was.
  SafeString out;
  SafeStringAssign(&out, "kept", 1);
  TSpeedSiteInfo* sites = new TSpeedSiteInfo[SPEED_SITE_NUM]();
  SpeedTable(&stat, sites, &out);
  EXPECT_STREQ(out.m_p_text, "kept");
  delete[] sites;
}

TEST_F(DiagnosticTest, RowShowsKibPerSecondOfThePeriodAndMarksSlowAccess) {
  TSpeedStat stat;
  Add(&stat, 102400, 51200, kSecond / 2);  // 100 KiB in 0.5 s: 200 KiB/s access
  Add(&stat, 20, 20, 0);                   // below a head: added, not counted
  std::string table = Table(&stat);
  EXPECT_EQ(Row(table, "2024.03.05 10:20:30:000"), " write size 100 write 10 write useful 5  error");
  EXPECT_EQ(Row(table, "2024.03.05 10:20:20:000"), kEmpty);

  // The named long form.
  stat.m_i_print_form = 1;
  TSpeedSiteInfo* sites = new TSpeedSiteInfo[SPEED_SITE_NUM]();
  sites[0].m_b_active = 1;
  SafeStringAssign(&sites[0].m_s_name, "disk", 1);
  SafeString out;
  SpeedTable(&stat, sites, &out);
  EXPECT_EQ(Row(out.m_p_text, "2024.03.05 10:20:30:000"),
            " disk write size 100 access write 200 write 10 size 0 acc read 0 read 0  error");
  // Any other form prints the times alone.
  stat.m_i_print_form = 7;
  SpeedTable(&stat, sites, &out);
  EXPECT_EQ(Row(out.m_p_text, "2024.03.05 10:20:30:000"), " error");
  delete[] sites;
}

TEST_F(DiagnosticTest, OnlyLongMeasuresOfSlowAccessMarkTheRow) {
  TSpeedStat stat;
  Add(&stat, 102400, 0, 200000);  // 5000 KiB/s would be fast anyway; too short to judge
  Add(&stat, 1024, 0, 0);
  SpeedSetCurrSlot(&stat, 0);
  EXPECT_EQ(Row(Table(&stat), "2024.03.05 10:20:30:000"), " write size 50 write 10 write useful 0 ");

  PlClockAdvance(10 * kSecond);
  SpeedSetCurrSlot(&stat, 1);
  Add(&stat, 10240, 0, 200000);  // 10 KiB in 0.02 s: 500 KiB/s, but too short
  EXPECT_EQ(Row(Table(&stat), "2024.03.05 10:20:40:000"), " write size 10 write 1 write useful 0 ");

  PlClockAdvance(10 * kSecond);
  SpeedSetCurrSlot(&stat, 2);
  Add(&stat, 10240, 0, 200001);
  EXPECT_EQ(Row(Table(&stat), "2024.03.05 10:20:50:000"), " write size 10 write 1 write useful 0  error");
}

TEST_F(DiagnosticTest, SlotFollowsTheArchiveAndIsClearedWhenReused) {
  TSpeedStat stat;
  SpeedSetCurrSlot(&stat, 5);  // ignored for the very first entry: slot 0
  Add(&stat, 102400, 0, kSecond);
  ASSERT_NE(stat.m_p_sites[0], nullptr);
  EXPECT_EQ(stat.m_p_sites[0]->m_i_slot, 0);

  PlClockAdvance(10 * kSecond);
  Add(&stat, 204800, 0, kSecond);  // the archive says 5: the site moves there
  EXPECT_EQ(stat.m_p_sites[0]->m_i_slot, 5);
  std::string table = Table(&stat);
  EXPECT_EQ(Row(table, "2024.03.05 10:20:30:000"), " write size 100 write 10 write useful 0  error");
  EXPECT_EQ(Row(table, "2024.03.05 10:20:40:000"), " write size 200 write 20 write useful 0  error");
  // The period that ended with the move was already judged when slot 0 is
  // reused: its access speed of 100 KiB/s is the lowest seen.
  EXPECT_EQ(stat.m_i_min_speed, 0x40000000);
  PlClockAdvance(10 * kSecond);
  SpeedSetCurrSlot(&stat, 0);
  Add(&stat, 1024, 0, 0);
  EXPECT_EQ(stat.m_i_min_speed, 100);
  EXPECT_EQ(stat.m_i64_min_speed_time, static_cast<int64_t>(FileTimeNowLocal()));
  table = Table(&stat);
  EXPECT_EQ(Row(table, "2024.03.05 10:20:30:000"), kEmpty);
  EXPECT_EQ(Row(table, "2024.03.05 10:20:50:000"), " write size 1 write 0 write useful 0 ");

  // A slot number beyond the ring is folded into it, not written past it.
  PlClockAdvance(10 * kSecond);
  SpeedSetCurrSlot(&stat, 77);
  Add(&stat, 2048, 0, 0);
  EXPECT_EQ(stat.m_p_sites[0]->m_i_slot, 27);
  SpeedSetCurrSlot(&stat, -51);
  PlClockAdvance(10 * kSecond);
  Add(&stat, 3072, 0, 0);
  EXPECT_EQ(stat.m_p_sites[0]->m_i_slot, 49);
  table = Table(&stat);
  EXPECT_EQ(Row(table, "2024.03.05 10:21:00:000"), " write size 2 write 0 write useful 0 ");
  EXPECT_EQ(Row(table, "2024.03.05 10:21:10:000"), " write size 3 write 0 write useful 0 ");
}

TEST_F(DiagnosticTest, ShortPeriodStepsByTwoHundredMillisecondsOnASecondGrid) {
  TSpeedStat stat;
  SpeedSetPeriod(&stat, SPEED_PERIOD_200MS);
  Add(&stat, 102400, 102400, 0);
  std::vector<std::string> rows = Rows(Table(&stat));
  ASSERT_EQ(rows.size(), 24u);
  EXPECT_EQ(rows.front(), std::string("2024.03.05 10:20:26:200") + kEmpty);
  EXPECT_EQ(rows[21], "2024.03.05 10:20:30:400 write size 100 write 500 write useful 500 ");
  EXPECT_EQ(rows.back(), std::string("2024.03.05 10:20:30:800") + kEmpty);

  // Any other period: a grid of five periods.
  SpeedSetPeriod(&stat, 3 * kSecond);
  rows = Rows(Table(&stat));
  EXPECT_EQ(rows.front().substr(0, 23), "2024.03.05 10:19:33:000");  // 10:20:45 - 72 s
}

TEST_F(DiagnosticTest, BadArgumentsAreIgnored) {
  SpeedAdd(nullptr, 0, 1, 1, nullptr);
  TSpeedStat stat;
  SpeedSetPeriod(&stat, 0);  // a period of nothing would divide by zero
  EXPECT_EQ(stat.m_i64_period, SPEED_PERIOD_10S);
  SpeedTable(&stat, nullptr, nullptr);
  WaitStatPrint(nullptr, 2, 0, 0);
  TWaitStat wd;
  ASSERT_EQ(WaitStatInit(&wd, 3), 0);
  WaitState(&wd, WAIT_GROUP_NUM, 1);
  WaitState(&wd, 17, WAIT_STATE_NUM);
  WaitState(&wd, 17, -1);
  for (int g = 0; g < WAIT_GROUP_NUM; g++) EXPECT_EQ(wd.m_p_groups[g].m_i_state, 0);
  WaitStatDestroy(&wd);
  WaitState(&wd, 17, 1);  // after destroy: silent
}

// The wait lines go to "arc.tracedecim" of the reference logging library.
class WaitStatTest : public DiagnosticTest {
 protected:
  void SetUp() override {
    DiagnosticTest::SetUp();
    char dir[] = "/tmp/test_diagnostic_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    m_log.Open(m_dir);
    g_p_log_status_list = new CLogStatusList();
    LogStatusRecomputeAllOff(g_p_log_status_list);
    ASSERT_EQ(WaitStatInit(&m_wd, 7), 0);
  }
  void TearDown() override {
    WaitStatDestroy(&m_wd);
    m_log.Close();
    delete g_p_log_status_list;
    g_p_log_status_list = nullptr;
    EXPECT_EQ(system(("rm -rf " + m_dir).c_str()), 0);
    DiagnosticTest::TearDown();
  }
  // The "WD" lines written so far, without their time and level.
  std::vector<std::string> Lines() {
    std::istringstream in(m_log.Read("arc.tracedecim"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      size_t at = line.find("<wd_");
      if (at != std::string::npos) lines.push_back(line.substr(at));
    }
    return lines;
  }

  writer_test::TestLog m_log;
  std::string m_dir;
  TWaitStat m_wd;
};

TEST_F(WaitStatTest, PrintsThousandthsOfTheSpanPerStateAndStartsAnew) {
  WaitState(&m_wd, WAIT_GROUP_ON_FRAME, 1);
  PlClockAdvance(kSecond);
  WaitState(&m_wd, WAIT_GROUP_ON_FRAME, 2);
  PlClockAdvance(3 * kSecond);
  WaitState(&m_wd, WAIT_GROUP_ON_FRAME, 0);  // rest is not reported
  WaitState(&m_wd, WAIT_GROUP_GET_AND_WR, 5);
  PlClockAdvance(kSecond / 2);
  WaitState(&m_wd, WAIT_GROUP_GET_AND_WR, 5);  // same state again: time adds up
  PlClockAdvance(kSecond / 2);
  WaitState(&m_wd, WAIT_GROUP_GET_AND_WR, 0);
  WaitState(&m_wd, WAIT_GROUP_OPEN_HANDLE, 3);  // still in its state: nothing booked yet
  PlClockAdvance(5 * kSecond);
  WaitStatPrint(&m_wd, 1, 5, -7);
  // A span of 10 s and one count; times in thousandths, the sum in percent.
  std::vector<std::string> lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "<wd_5_-7_1> SCwaitPerc 0 3 WD(3,5)99  9");
  EXPECT_EQ(lines[1], "<wd_5_-7_1> SCwaitPerc 0 17 WD(17,1)99 WD(17,2)299  39");

  // All counters zero after a print: nothing more to say, even for the
  // state that was running.
  for (int g = 0; g < WAIT_GROUP_NUM; g++) {
    EXPECT_EQ(m_wd.m_p_groups[g].m_i_state, 0);
    for (int s = 0; s < WAIT_STATE_NUM; s++) EXPECT_EQ(m_wd.m_p_groups[g].m_i64_times[s], 0);
  }
  WaitStatPrint(&m_wd, 1, 5, -7);
  EXPECT_EQ(Lines().size(), 2u);

  // The span starts at the last print; camera 0 is the common thread.
  PlClockAdvance(5 * kSecond);
  WaitState(&m_wd, WAIT_GROUP_BUFF_THREAD, 20);
  PlClockAdvance(5 * kSecond);
  WaitState(&m_wd, WAIT_GROUP_BUFF_THREAD, 0);
  WaitStatPrint(&m_wd, 2, 0, 0);
  lines = Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2], "<wd_0_0_2> CCwaitPerc 0 2 WD(2,20)499  49");
}

}  // namespace
