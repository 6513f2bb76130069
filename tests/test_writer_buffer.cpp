// One frame buffer on its own: how it grows, what it refuses, when it
// gives memory back, and the process-wide count of buffer bytes.
#include "writer/writer_buffer.h"

#include <gtest/gtest.h>

#include "platform/pl_clock.h"

namespace {

const int64_t kSecond = 10000000LL;

class WriterBufferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PlClockUseManual(133444915000000000ULL);
    m_base = BuffsUsedMemRead();
  }
  void TearDown() override { PlClockUseReal(); }
  int64_t m_base = 0;
};

TEST_F(WriterBufferTest, GrowsByTwiceThePortionThatDoesNotFitAndCountsTheNominalSize) {
  {
    TWriteBuffer b;
    ASSERT_EQ(1, ReservePortion(&b, 100));
    EXPECT_EQ(200, b.m_i_buff_size_b);
    EXPECT_EQ(100, b.m_i_act_size_b);
    EXPECT_EQ(m_base + 200, BuffsUsedMemRead());
    b.m_i_offs_b = 100;
    ASSERT_EQ(1, ReservePortion(&b, 100));  // ends exactly at the size: no growth
    EXPECT_EQ(200, b.m_i_buff_size_b);
    b.m_i_offs_b = 150;
    ASSERT_EQ(1, ReservePortion(&b, 100));
    EXPECT_EQ(400, b.m_i_buff_size_b);
    EXPECT_EQ(250, b.m_i_act_size_b);
    // Contents survive growth.
    b.m_pb_data_b[10] = 0x5A;
    b.m_i_offs_b = 390;
    ASSERT_EQ(1, ReservePortion(&b, 20));
    EXPECT_EQ(0x5A, b.m_pb_data_b[10]);
  }
  EXPECT_EQ(m_base, BuffsUsedMemRead());
}

// A buffer that fills frame after frame (the archive behind) grows its
// nominal size at nearly every frame; its block must not be replaced, and
// copied whole, each time.
TEST_F(WriterBufferTest, FillingFrameAfterFrameKeepsTheNominalSizeExactButReplacesTheBlockRarely) {
  TWriteBuffer b;
  int32_t i_nominal = 0, i_blocks = 0, i_storage = -1;
  for (int i = 0; i < 2000; i++) {
    uint32_t ui_portion = 1000 + 37 * (i % 7);
    int64_t i64_end = static_cast<int64_t>(b.m_i_offs_b) + ui_portion;
    if (i64_end > i_nominal) i_nominal += static_cast<int32_t>(2 * ui_portion);
    ASSERT_EQ(1, ReservePortion(&b, ui_portion));
    ASSERT_EQ(i_nominal, b.m_i_buff_size_b);
    ASSERT_GE(b.m_i_storage_size_b, i64_end);
    if (b.m_i_storage_size_b != i_storage) i_blocks++;
    i_storage = b.m_i_storage_size_b;
    b.m_pb_data_b[b.m_i_offs_b] = static_cast<uint8_t>(i);
    b.m_i_offs_b += static_cast<int32_t>(ui_portion);
  }
  EXPECT_EQ(m_base + i_nominal, BuffsUsedMemRead());
  EXPECT_LT(i_blocks, 40);
  EXPECT_EQ(static_cast<uint8_t>(0), b.m_pb_data_b[0]);  // the first record survived every growth
}

TEST_F(WriterBufferTest, AnEndOffsetAboveThirtyMebibytesIsRefusedAndChangesNothing) {
  TWriteBuffer b;
  b.m_i_offs_b = 0x1E00000 - 1000;
  EXPECT_EQ(0, ReservePortion(&b, 1001));
  EXPECT_EQ(0, b.m_i_buff_size_b);
  EXPECT_EQ(0, b.m_i_act_size_b);
  b.m_i_offs_b = 0;
  EXPECT_EQ(0, ReservePortion(&b, 0xFFFFFFFFu));
  EXPECT_EQ(1, ReservePortion(&b, 0x1E00000));
}

TEST_F(WriterBufferTest, ReducesAQuarterOncePer240sWhenUseStaysBelowTwoThirds) {
  TWriteBuffer b;
  ASSERT_EQ(1, ReservePortion(&b, 500));  // size 1000, high-water 500
  b.m_i_act_size_b = 667;
  ReduceBuff(&b);  // the first check always runs: 1000 is not above 1000
  EXPECT_EQ(1000, b.m_i_buff_size_b);
  EXPECT_EQ(0, b.m_i_act_size_b);
  b.m_i_act_size_b = 666;
  PlClockAdvance(239 * kSecond);
  ReduceBuff(&b);  // too soon: the mark stays
  EXPECT_EQ(666, b.m_i_act_size_b);
  EXPECT_EQ(1000, b.m_i_buff_size_b);
  PlClockAdvance(2 * kSecond);
  ReduceBuff(&b);
  EXPECT_EQ(750, b.m_i_buff_size_b);
  EXPECT_EQ(m_base + 750, BuffsUsedMemRead());
  // Reduced storage still takes what fits in it.
  b.m_i_offs_b = 0;
  EXPECT_EQ(1, ReservePortion(&b, 750));
  EXPECT_EQ(750, b.m_i_buff_size_b);
}

}  // namespace
