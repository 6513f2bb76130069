// The liveness and error-status judges of one channel, run by hand under
// the manual clock against the reference archive; and the fill statistic
// that the frame path feeds for the status report.
#include <cstring>

#include "tests/test_text_util.h"
#include "tests/test_writer_channel.h"
#include "writer/writer_inform.h"

namespace {

using writer_test::ChannelTest;
using writer_test::Heard;
using writer_test::kSecond;

class InformTest : public ChannelTest {
 protected:
  void SetUp() override {
    ChannelTest::SetUp();
    ProfileCallback cb = {&m_alive, reinterpret_cast<void*>(&Heard::On)};
    m_h_alive = profile_open("alive_track", &cb, __FILE__, __LINE__);
  }
  // Whatever a test did, the channel's end takes it off the watch.
  void TearDown() override {
    ChannelTest::TearDown();
    EXPECT_EQ("unregister", m_alive.firsts.empty() ? "" : m_alive.firsts.back());
    profile_close(m_h_alive);
  }
  void SourceAlive() { AtomicPut(&m_w->m_status.m_i64_last_source_stat, static_cast<int64_t>(FileTimeNowLocal())); }
  int Registers() {
    int n = 0;
    for (const std::string& s : m_alive.firsts) n += s == "register";
    return n;
  }
  Heard m_alive;
  TrackHandle m_h_alive = 0;
};

TEST_F(InformTest, AStallIsForgivenDuringTheGraceThenConfirmationsStopAndTheirExpiryIsPosted) {
  SourceAlive();
  IAmLive(m_buff, -1);  // no session, live source, path present: still in the grace
  EXPECT_EQ(1, Registers());
  SourceAlive();
  IAmLive(m_buff, -1);  // within 5 s: no run
  EXPECT_EQ(1, Registers());
  Advance(1800);
  SourceAlive();
  IAmLive(m_buff, -1);  // the grace's last instant still forgives
  EXPECT_EQ(2, Registers());
  EXPECT_TRUE(m_events.event_types.empty());
  Advance(18);
  SourceAlive();
  IAmLive(m_buff, -1);  // stalled: no confirmation, the last one 18 s old
  EXPECT_EQ(2, Registers());
  EXPECT_TRUE(m_events.event_types.empty());
  Advance(6);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(2, Registers());
  ASSERT_EQ(1u, m_events.event_types.size());
  EXPECT_EQ(60002, m_events.event_types[0]);
  EXPECT_EQ("I am live confirm erpired video", m_events.comments[0]);
  Advance(6);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(2, Registers());
  EXPECT_EQ(1u, m_events.event_types.size());  // at most every 600 s
  // A silent source is no stall of the writer.
  Advance(6);
  IAmLive(m_buff, -1);
  EXPECT_EQ(3, Registers());
}

// The archive is asked about the channel's own storage: another storage
// missing is no concern of this channel.
class StorageInformTest : public InformTest {
 protected:
  std::string WriterExtra() override { return R"(,"storage":{"_value":"disk2"})"; }
};

TEST_F(StorageInformTest, AMissingStoragePathKeepsLivenessAndIsPostedAtMostEvery600s) {
  int64_t storage = m_info->m_i64_storage_id;
  L().fault(ARCHIVE_FAULT_STORAGE_MISSING, storage + 1, 1);
  Advance(1801);
  SourceAlive();
  IAmLive(m_buff, -1);  // path present: the stall is the writer's
  EXPECT_EQ(0, Registers());
  EXPECT_TRUE(m_events.event_types.empty());
  L().fault(ARCHIVE_FAULT_STORAGE_MISSING, storage, 1);
  Advance(6);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(1, Registers());
  ASSERT_EQ(1u, m_events.event_types.size());
  EXPECT_EQ(60033, m_events.event_types[0]);
  EXPECT_EQ("storage id disk2 video", m_events.comments[0]);
  Advance(6);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(2, Registers());
  EXPECT_EQ(1u, m_events.event_types.size());
}

TEST_F(InformTest, TheWriteErrorFlagRisesAfterFiveSecondsOfErrorAndFallsAtTheFirstGoodCheck) {
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);  // nothing written yet: error begins, the timer is armed
  EXPECT_EQ(0, m_w->m_status.m_b_is_write_error);
  Advance(6);
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);
  EXPECT_EQ(1, m_w->m_status.m_b_is_write_error);
  Send(true);
  Drain();
  Advance(6);
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);  // the session wrote 6 s ago: no stall
  EXPECT_EQ(0, m_w->m_status.m_b_is_write_error);
  Advance(12);
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);  // 18 s: a stall, timed from the last check
  EXPECT_EQ(1, m_w->m_status.m_b_is_write_error);
  // While the archive marks without fault, writes may pause.
  L().fault(ARCHIVE_FAULT_MARKING_RUNNING, -1, 1);
  Advance(6);
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);
  EXPECT_EQ(0, m_w->m_status.m_b_is_write_error);
  int64_t before = m_w->m_status.m_i64_buff_thread_last_itter;
  Advance(1);
  WriteErrorStatusFormation_Vart2(m_buff);  // within 5 s: only the round time moves
  EXPECT_EQ(before + 10000000LL, m_w->m_status.m_i64_buff_thread_last_itter);
}

// The ring as the "buffer_fill_breif" view shows it: 60 bare values,
// oldest first.
std::string Brief(TBuffFillStat* ring) {
  std::string out;
  BuffFillToJson(ring, &out, "buffer_fill_breif");
  return out;
}

std::string Values(const std::vector<int>& tail) {
  std::string out = "[";
  for (size_t i = 0; i < 60; i++) {
    if (i > 0) out += ",";
    out += i + tail.size() < 60 ? "0" : std::to_string(tail[i + tail.size() - 60]);
  }
  return out + "]";
}

TEST_F(InformTest, ASlotIsClosedByTheFirstFrameOfALaterSecondWithTheLargestCountUpToIt) {
  TBuffFillStat ring;
  StatGen(&ring, 1, 0, 2);  // the first frame ever closes a slot at once
  EXPECT_EQ(Values({2}), Brief(&ring));
  PlClockAdvance(kSecond / 10);
  StatGen(&ring, 1, 0, 7);
  PlClockAdvance(kSecond / 10);
  StatGen(&ring, 1, 0, 5);
  EXPECT_EQ(Values({2}), Brief(&ring));  // steady frames within the second write nothing
  // Seconds without frames leave no slot: the next frame closes one slot.
  Advance(5);
  StatGen(&ring, 1, 0, 1);
  EXPECT_EQ(Values({2, 7}), Brief(&ring));
  Advance(1);
  StatGen(&ring, 1, 0, 9);  // the closing frame's own count is in its slot
  EXPECT_EQ(Values({2, 7, 9}), Brief(&ring));
  EXPECT_EQ(0, BuffFillNotEmpty(&ring, "buffer_fill_over_30"));
  EXPECT_EQ(1, BuffFillNotEmpty(&ring, "buffer_fill_over_1"));
}

TEST_F(InformTest, TheRingKeepsTheLastSixtyPeriodsAndTheFullViewPairsThemWithTheirTime) {
  TBuffFillStat ring;
  std::vector<int> kept;
  for (int i = 1; i <= 61; i++) {
    StatGen(&ring, 1, 1, i);
    if (i > 1) kept.push_back(i);
    Advance(1);
  }
  EXPECT_EQ(Values(kept), Brief(&ring));
  std::string full;
  BuffFillToJson(&ring, &full, "buffer_fill");
  PlCalendar cal = {};
  ASSERT_TRUE(PlFileTimeToCalendar(FileTimeNowLocal() - kSecond, &cal));
  char last[40];
  snprintf(last, sizeof(last), "[\"%02d:%02d:%02d:000\",61]]", cal.i_hour, cal.i_minute, cal.i_second);
  EXPECT_EQ(0u, full.find("[[\""));
  EXPECT_EQ(full.size() - strlen(last), full.rfind(last));
  EXPECT_EQ(60, Count(full, "\","));
}

TEST_F(InformTest, EachPutFeedsTheRingOfItsBufferIndex) {
  Send(true);
  Send(false);
  EXPECT_EQ(Values({1}), Brief(&m_w->m_status.m_buff_fill1));
  Drain();  // the other buffer now accepts
  Advance(1);
  Send(true);
  EXPECT_EQ(Values({1}), Brief(&m_w->m_status.m_buff_fill2));
  EXPECT_EQ(Values({1}), Brief(&m_w->m_status.m_buff_fill1));
}

}  // namespace
