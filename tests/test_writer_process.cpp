// The write process of one channel against the reference archive, with
// the manual clock: who gets into the buffers when they are full, what is
// reported, and how the archive session is kept.
#include "writer/writer_process.h"

#include <thread>

#include "tests/test_writer_channel.h"
#include "writer/writer_intake.h"

namespace {

using writer_test::ChannelTest;

class NoGrowthTest : public ChannelTest {
 protected:
  std::string ArchiveExtra() override { return ",\"increase_write_buffers\":0"; }
};

TEST_F(NoGrowthTest, FiveHundredFramesFillTheBufferThenOnlyAKeyFrameRestartsTheStream) {
  Send(true);
  for (int i = 1; i < 500; i++) Send(false);
  EXPECT_EQ(500, Queued());
  Send(false);  // over the limit although the buffer has room
  Send(true);   // a key frame is turned away just the same
  EXPECT_EQ(500, Queued());
  EXPECT_EQ(1, m_info->m_b_wait_key);
  Drain();
  EXPECT_EQ(500, Stats().frames_written);
  Send(false);  // room again, but the stream waits for a key frame
  Send(false);
  EXPECT_EQ(0, Queued());
  Send(true);
  Send(false);
  EXPECT_EQ(2, Queued());
  EXPECT_EQ(0, m_info->m_b_wait_key);
  // Every message was answered, passed over or not.
  EXPECT_EQ(506, m_need);
}

TEST_F(NoGrowthTest, OverloadReportRisesAtTheTwentyFirstPassOfAWindowAndFallsAfterQuietTime) {
  Send(true);
  EXPECT_EQ((std::vector<int64_t>{0}), Sets(126));  // the first good frame finds no passes
  for (int i = 1; i < 500; i++) Send(false);
  // The first pass opens the 10 s window; 21 passes inside it raise the
  // report.
  for (int i = 0; i < 21; i++) Send(false);
  EXPECT_TRUE(Sets(126).empty());
  Send(false);
  EXPECT_EQ((std::vector<int64_t>{1}), Sets(126));
  // One event at the first pass, none within the next 120 s.
  ASSERT_EQ(1u, m_events.comments.size());
  EXPECT_EQ("number of pass event 1 video", m_events.comments[0]);
  EXPECT_EQ(60024, m_events.event_types[0]);
  Advance(60);
  Send(false);
  EXPECT_EQ(1u, m_events.comments.size());
  Advance(61);
  Send(false);
  ASSERT_EQ(2u, m_events.comments.size());
  EXPECT_EQ("number of pass event 23 video", m_events.comments[1]);
  Calls();
  // Good frames within 180 s of the last check leave the report up; the
  // first check after that only clears the count, the next one reports.
  Drain();
  Send(true);
  EXPECT_TRUE(Sets(126).empty());
  Advance(60);
  Drain();
  Send(true);
  EXPECT_TRUE(Sets(126).empty());
  Advance(181);
  Drain();
  Send(true);
  EXPECT_EQ((std::vector<int64_t>{0}), Sets(126));
}

class GrowthTest : public ChannelTest {
 protected:
  std::string ArchiveExtra() override { return ",\"increase_write_buffers\":1,\"max_buffers_bytes\":" + m_max; }
  std::string m_max = "100000000";
};

TEST_F(GrowthTest, GrowthLetsMoreThanFiveHundredFramesQueue) {
  Send(true);
  for (int i = 1; i < 700; i++) Send(false);
  EXPECT_EQ(700, Queued());
  EXPECT_EQ(m_buff->m_buffs[m_buff->m_i_curr_put_ind].m_i_buff_size_b, BuffsUsedMemRead());
  Drain();
  EXPECT_EQ(700, Stats().frames_written);
}

class SmallLimitTest : public GrowthTest {
 protected:
  void SetUp() override {
    m_max = "1";
    GrowthTest::SetUp();
  }
};

TEST_F(SmallLimitTest, MemoryAboveTheLimitStopsGrowthAtFiveHundred) {
  Send(true);
  for (int i = 1; i < 600; i++) Send(false);
  EXPECT_EQ(500, Queued());
}

TEST_F(ChannelTest, AFrameLargerThanThirtyMebibytesIsPassedOver) {
  Send(true);
  Send(std::string(0x1E00000, 'x').empty(), std::string(0x1E00000, 'x'));
  EXPECT_EQ(1, Queued());
  EXPECT_EQ(1, m_info->m_b_wait_key);
}

// A frame without a type is told by its code: an audio code has no place
// in a video channel.
TEST_F(ChannelTest, AFrameWithoutATypeTakesItsMediumFromItsCode) {
  Send(true, "k", 0, nullptr, "PCMA");
  EXPECT_EQ(0, Queued());
  Send(true, "k", 0, nullptr, "h264");
  EXPECT_EQ(1, Queued());
}

TEST_F(ChannelTest, ARefusedWriteIsReportedTwiceWithMinus61AndTheNextRecordIsStillWritten) {
  Send(true);
  Send(false);
  Send(false);
  L().fault(ARCHIVE_FAULT_FAIL_ONE_IN, -1, 2);
  Calls();
  Drain();
  EXPECT_EQ(2, Stats().frames_written);
  EXPECT_EQ((std::vector<int64_t>{-61, -61}), Sets(65));
}

// A channel that keeps three days: every session it opens, the first and
// one reopened after the archive ended the old, is told the restriction
// and the depth before its first write.
class DepthTest : public ChannelTest {
 protected:
  std::string WriterExtra() override { return R"(,"depth_restrict":{"_value":true},"depth":{"_value":3})"; }
  void ExpectSessionDepth() {
    int32_t handle = m_info->m_dw_write_handle;
    ASSERT_NE(INVALIDATE_WRITE_HANDLE, handle);
    int64_t restrict_v = -1, depth = -1;
    EXPECT_NE(0, L().last_set_session(handle, 70, &restrict_v));
    EXPECT_NE(0, L().last_set_session(handle, 71, &depth));
    EXPECT_EQ(1, restrict_v);
    EXPECT_EQ(3 * 864000000000LL, depth);
  }
};

TEST_F(DepthTest, ASessionEndedByTheArchiveIsReopenedAtTheNextFrameWithoutACloseAndKeepsTheDepth) {
  Send(true);
  Drain();
  EXPECT_EQ(1, Stats().sessions_opened);
  ExpectSessionDepth();
  L().fault(ARCHIVE_FAULT_END_SESSION, -1, 1);
  L().fault(ARCHIVE_FAULT_CLEAR_ALL, 0, 0);
  Calls();
  Send(false);
  Drain();
  int closes = 0;
  for (const ArchiveCall& c : Calls()) closes += c.kind == ARCHIVE_CALL_CLOSE;
  EXPECT_EQ(0, closes);
  EXPECT_EQ(2, Stats().sessions_opened);
  EXPECT_EQ(2, Stats().frames_written);
  ExpectSessionDepth();
}

TEST_F(ChannelTest, AFailedOpenPausesFiveSecondsInWhichFramesAreLost) {
  L().fault(ARCHIVE_FAULT_REFUSE_OPEN, -1, 1);
  Send(true);
  Drain();
  EXPECT_EQ(1, Stats().opens_refused);
  EXPECT_TRUE(Sets(65).empty());  // no write result to report
  L().fault(ARCHIVE_FAULT_REFUSE_OPEN, -1, 0);
  Advance(4);
  Send(true);
  Drain();
  EXPECT_EQ(0, Stats().sessions_opened);
  Advance(2);
  Send(true);
  Drain();
  EXPECT_EQ(1, Stats().sessions_opened);
  EXPECT_EQ(1, Stats().frames_written);
}

TEST_F(ChannelTest, AStorageChangeClosesAndReopensTheSessionInOneCheck) {
  Send(true);
  Drain();
  std::string doc = Document(R"(,"storage":{"_value":"other"})");
  ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
  WriterReconfigure(m_w, params);
  Calls();
  Send(false);
  Drain();
  std::vector<int32_t> kinds;
  for (const ArchiveCall& c : Calls())
    if (c.kind == ARCHIVE_CALL_OPEN || c.kind == ARCHIVE_CALL_CLOSE) kinds.push_back(c.kind);
  EXPECT_EQ((std::vector<int32_t>{ARCHIVE_CALL_CLOSE, ARCHIVE_CALL_OPEN}), kinds);
  EXPECT_EQ(2, Stats().frames_written);
}

TEST_F(ChannelTest, ACloseRequestOrAnErrorStateEndsTheSession) {
  Send(true);
  Drain();
  int32_t handle = m_info->m_dw_write_handle;
  L().fault(ARCHIVE_FAULT_CLOSE_REQUEST, handle, 1);
  Drain();  // nothing queued: the request alone closes
  EXPECT_EQ(INVALIDATE_WRITE_HANDLE, m_info->m_dw_write_handle);
  EXPECT_EQ(1, Stats().sessions_closed);
  Send(false);
  Drain();
  handle = m_info->m_dw_write_handle;
  ASSERT_NE(INVALIDATE_WRITE_HANDLE, handle);
  L().fault(ARCHIVE_FAULT_ERROR_STATE, handle, 3);
  Send(false);
  Drain();
  EXPECT_EQ(2, Stats().sessions_closed);
  EXPECT_EQ(3, Stats().sessions_opened);
  EXPECT_EQ(3, Stats().frames_written);
}

TEST_F(ChannelTest, TheNoWriteSwitchConsumesRecordsWithoutWriting) {
  L().fault(ARCHIVE_FAULT_NO_WRITE, m_info->m_i64_id3, 1);
  Send(true);
  Send(false);
  Drain();
  EXPECT_EQ(0, Stats().frames_written);
  EXPECT_EQ(0, m_buff->m_buffs[0].m_i_frame_num_b);
  EXPECT_EQ(0, Stats().sessions_opened);
}

// A damaged record is looked at again and again, and the frame before it
// written again each time, until the thread is stopped.
TEST_F(ChannelTest, ADamagedRecordRepeatsThePreviousFrameUntilTheStop) {
  Send(true, "first");
  int32_t second = m_buff->m_buffs[0].m_i_offs_b;
  Send(false, "second");
  m_buff->m_buffs[0].m_pb_data_b[second + 4] = 0x35;
  PlClockUseReal();
  std::thread drain([this] { Drain(); });
  for (int i = 0; i < 500 && Stats().frames_written < 4; i++) PlSleep(2);
  AtomicPut(&m_buff->m_b_exit_thread_write_buffering, 1);
  drain.join();
  EXPECT_GE(Stats().frames_written, 4);
  EXPECT_EQ(0, m_buff->m_buffs[0].m_b_filled_b);
  EXPECT_EQ(1, m_buff->m_buffs[0].m_i_frame_num_b);  // the damaged one stays counted
}


// What the trace tells of a channel, read back from the reference log.
class ChannelTraceTest : public ChannelTest {
 protected:
  void SetUp() override {
    ChannelTest::SetUp();
    m_log.Open(m_dir.m_s_path, "arc.trace = 5000\n");
  }
  void TearDown() override {
    m_log.Close();
    ChannelTest::TearDown();
  }
  std::string Cam() { return std::to_string(InfoCamId(m_info)); }
  writer_test::TestLog m_log;
};

// The text between `from` and `to` in the first line that has both.
std::string Between(const std::string& text, const std::string& from, const std::string& to) {
  size_t at = text.find(from);
  size_t end = at == std::string::npos ? at : text.find(to, at + from.size());
  return end == std::string::npos ? "?" : text.substr(at + from.size(), end - at - from.size());
}

TEST_F(ChannelTraceTest, AFrameNamesItsCodeTimeAndCutTypeAndAChannelWithoutCameraInfoNamesCameraZero) {
  Send(true);
  std::string trace = m_log.Read("arc.trace");
  EXPECT_EQ(1, Count(trace, "<" + Cam() + ">on frame fcc 875967048 H264 \n"));
  // A frame going forward keeps its time: both texts the same.
  std::string orig = Between(trace, " orig ", " corr ");
  EXPECT_EQ("2023.11.14 22:13:20:040", orig.substr(0, 23));
  EXPECT_EQ(orig, Between(trace, " corr ", " syst univ "));
  // A type longer than its field is cut to fit.
  std::string type(UI_FRAME_TYPE_TEXT + 8, 't');
  Send(true, "frame-data", 0, type.c_str());
  EXPECT_EQ(1, Count(m_log.Read("arc.trace"), ">on frame type " + type.substr(0, UI_FRAME_TYPE_TEXT - 1) + " \n"));
  { CWriteBuffering bare(nullptr); }
  EXPECT_EQ(1, Count(m_log.Read("arc"), "<alive0_0> bef unregister_alive wr handle -1 \n"));
}

// Once a minute the buffering thread tells how it spent its time, in the
// form operators' tools read. The thread runs here on its own: the clock
// moves while it waits, and the line is looked for a bounded while.
TEST_F(ChannelTraceTest, TheBufferingThreadPrintsItsWaitStatisticsEveryMinute) {
  std::string head = "<wd_" + Cam() + "_" + std::to_string(m_w->m_i64_type_id) + "_2> SCwaitPerc 0 ";
  ASSERT_EQ(RC_OK, StartThreadWriteBuffering(m_buff));
  bool seen = false;
  for (int i = 0; i < 100 && !seen; i++) {
    Advance(61);
    m_buff->m_h_event_activate_thread_write_buffering->Set();
    PlSleep(20);
    seen = Count(m_log.Read("arc.tracedecim"), head) > 0;
  }
  ExitThreadWriteBuffering(m_buff);
  EXPECT_TRUE(seen);
  // The stopped thread's events are given back: a restart makes new ones.
  EXPECT_EQ(nullptr, m_buff->m_h_event_activate_thread_write_buffering);
}

}  // namespace
