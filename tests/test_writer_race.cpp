// A frame source racing the channel's own buffering thread and a host
// thread that reconfigures the channel: every frame is stored and
// answered. Run under ThreadSanitizer by scripts/tsan.sh.
#include <thread>

#include "tests/test_writer_channel.h"

namespace {

using writer_test::ChannelTest;

class RaceTest : public ChannelTest {
 protected:
  void SetUp() override {
    ChannelTest::SetUp();
    PlClockUseReal();
    ASSERT_EQ(RC_OK, StartThreadWriteBuffering(m_buff));
  }
  bool WaitWritten(int64_t n) {
    for (int i = 0; i < 2000 && Stats().frames_written < n; i++) PlSleep(5);
    return Stats().frames_written >= n;
  }
};

TEST_F(RaceTest, ASourceTheBufferingThreadAndReconfigurationRunTogether) {
  const int frames = 1500;
  std::thread source([this] {
    for (int i = 0; i < frames; i++) Send(i % 25 == 0, "race-frame", i + 1);
  });
  std::thread host([this] {
    for (int i = 0; i < 40; i++) {
      std::string doc = Document(i % 2 == 0 ? R"(,"storage":{"_value":"s2"},"view_prior":{"_value":2})"
                                            : R"(,"depth_restrict":{"_value":true})");
      ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
      WriterReconfigure(m_w, params);
      PlSleep(1);
    }
  });
  source.join();
  host.join();
  EXPECT_TRUE(WaitWritten(frames));
  EXPECT_EQ(frames, Stats().frames_written);
  EXPECT_EQ(0, Stats().writes_failed);
  EXPECT_EQ(frames, m_need);  // every frame answered
}

TEST_F(RaceTest, StopWhileFramesArriveEndsCleanly) {
  std::thread source([this] {
    for (int i = 0; i < 300; i++) Send(i % 25 == 0, "x", i + 1);
  });
  source.join();
  ExitThreadWriteBuffering(m_buff);
  EXPECT_LE(Stats().frames_written, 300);
  EXPECT_EQ(INVALIDATE_WRITE_HANDLE, m_info->m_dw_write_handle);
}

}  // namespace
