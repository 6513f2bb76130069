// The liveness and error-status judges of one channel, run by hand under
// the manual clock against the reference archive.
#include "writer/writer_inform.h"

#include "tests/test_writer_channel.h"

namespace {

using writer_test::ChannelTest;
using writer_test::Heard;

class InformTest : public ChannelTest {
 protected:
  void SetUp() override {
    ChannelTest::SetUp();
    ProfileCallback cb = {&m_alive, reinterpret_cast<void*>(&Heard::On)};
    m_h_alive = profile_open("alive_track", &cb, __FILE__, __LINE__);
  }
  void TearDown() override {
    profile_close(m_h_alive);
    ChannelTest::TearDown();
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
  Advance(1801);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(1, Registers());
  ASSERT_EQ(1u, m_events.event_types.size());
  EXPECT_EQ(60002, m_events.event_types[0]);
  EXPECT_EQ("I am live confirm erpired video", m_events.comments[0]);
  Advance(6);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(1, Registers());
  EXPECT_EQ(1u, m_events.event_types.size());  // at most every 600 s
  // A silent source is no stall of the writer.
  Advance(6);
  IAmLive(m_buff, -1);
  EXPECT_EQ(2, Registers());
}

TEST_F(InformTest, AMissingStoragePathKeepsLivenessAndIsPostedAtMostEvery600s) {
  L().fault(ARCHIVE_FAULT_STORAGE_MISSING, -1, 1);
  Advance(1801);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(1, Registers());
  ASSERT_EQ(1u, m_events.event_types.size());
  EXPECT_EQ(60033, m_events.event_types[0]);
  EXPECT_EQ("storage id  video", m_events.comments[0]);
  Advance(6);
  SourceAlive();
  IAmLive(m_buff, -1);
  EXPECT_EQ(2, Registers());
  EXPECT_EQ(1u, m_events.event_types.size());
}

TEST_F(InformTest, TheWriteErrorFlagRisesAfterFiveSecondsOfErrorAndFallsAtTheFirstGoodCheck) {
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);  // error begins: the timer is armed
  EXPECT_EQ(0, m_w->m_status.m_b_is_write_error);
  Advance(6);
  SourceAlive();
  WriteErrorStatusFormation_Vart2(m_buff);
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

}  // namespace
