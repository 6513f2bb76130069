// The pre-event ring of a by-events channel with a pre-event time of 2 s,
// on the channel's units with the reference archive and the manual clock:
// how the ring sizes itself, where output starts when an event comes, what
// reaches the archive in which order, and what damaged or outsized input
// does. All on the test's thread, as on the buffering one.
#include <algorithm>

#include "linux/common_use/service/service4.h"
#include "tests/test_writer_channel.h"
#include "writer/writer_prev_write.h"
#include "writer/writer_process.h"

namespace {

using writer_test::kSecond;

const int64_t kFrame = kSecond / 25;
const uint8_t kKey = UI_FRAME_TYPE_ANY | UI_FRAME_TYPE_KEY, kDelta = UI_FRAME_TYPE_ANY;
const uint8_t kAudioKey = kKey | UI_FRAME_TYPE_AUDIO;
const int32_t kBuff0 = 256 * 1024;

// What the archive was handed; the frames go on to it.
std::vector<std::string> g_stored;
std::vector<int32_t> g_types;
ArchiveWriteDataForTimeFn g_archive_write = nullptr;
int32_t Recording(int32_t handle, const void* data, int32_t size, int32_t type, int64_t time) {
  g_stored.emplace_back(static_cast<const char*>(data), size);
  g_types.push_back(type);
  return g_archive_write(handle, data, size, type, time);
}

// A frame's payload: its number, then bytes that follow from it.
std::string Payload(uint32_t n, uint32_t size) {
  std::string s(size, 0);
  for (uint32_t i = 0; i < size; i++) s[i] = static_cast<char>(i < 4 ? n >> (8 * i) : n * 7 + i);
  return s;
}
std::vector<uint32_t> Numbers() {
  std::vector<uint32_t> out;
  for (const std::string& s : g_stored) out.push_back(s.size() < 4 ? 0 : *reinterpret_cast<const uint32_t*>(s.data()));
  return out;
}
std::vector<uint32_t> Range(uint32_t from, uint32_t to) {
  std::vector<uint32_t> out;
  for (uint32_t n = from; n <= to; n++) out.push_back(n);
  return out;
}
int32_t Used(const CPrevWrite* r) {
  int32_t n = 0;
  while (n < I_PREV_BUFF_SLOTS && r->m_p_buffs[n] != nullptr) n++;
  return n;
}

class PrevWriteTest : public writer_test::ChannelTest {
 protected:
  std::string WriterExtra() override {
    return R"(,"by_events":{"_value":true},"events":{"_value":"20001"},"prev_write":{"_value":2})";
  }
  void SetUp() override {
    ChannelTest::SetUp();
    m_e = &m_w->m_by_event;
    int32_t error = 0, do_write = 0;
    OpenWriteHandle(m_info, &error, &do_write, nullptr);
    ASSERT_EQ(1, do_write);
    g_stored.clear();
    g_types.clear();
    g_archive_write = g_archive.WriteDataForTime;
    g_archive.WriteDataForTime = Recording;
  }

  int64_t Now() { return static_cast<int64_t>(FileTimeNowLocal()); }
  // One frame of a 25 fps stream, through the write step as the buffering
  // thread gives it (or straight into a ring), 40 ms after the one before.
  void Frame(uint32_t n, uint8_t type, uint32_t size, CPrevWrite* ring = nullptr) {
    PlClockAdvance(kFrame);
    std::string data = Payload(n, size);
    const uint8_t* pb = reinterpret_cast<const uint8_t*>(data.data());
    if (ring != nullptr)
      WritePrevFrame(ring, pb, size, type, Now(), nullptr);
    else
      EXPECT_EQ(RC_OK, WriteFrame(m_info, pb, size, type, Now(), nullptr));
  }
  void Stream(uint32_t first, uint32_t last, uint32_t key_every, uint32_t size, CPrevWrite* ring = nullptr) {
    for (uint32_t n = first; n <= last; n++) Frame(n, n % key_every == 0 ? kKey : kDelta, size, ring);
  }
  CPrevWrite* Ring() { return m_e->m_p_prev_write; }
  int64_t Capacity(const CPrevWrite* r) {
    int64_t c = 0;
    for (int32_t i = 0; i < Used(r); i++) c += r->m_p_buffs[i]->m_i_buff_size;
    return c;
  }
  // How far back output would start now.
  int64_t StartAge(CPrevWrite* r) { return Now() - FindFirstBuffForGet(r)->m_i64_key_time; }
  // The head the next frame put will get.
  uint8_t* NextHead(CPrevWrite* r) { return r->m_p_curr_put_buff->m_pb_buff_p + r->m_i_curr_put_offset; }

  CWriterByEvent* m_e = nullptr;
};

TEST(PrevBuffSize, GrowsByHalfPerIdUntilItNoLongerFitsThirtyTwoBits) {
  const int64_t kib[] = {256, 384, 576, 864, 1296, 1944};
  for (int32_t id = 0; id < 6; id++) EXPECT_EQ(kib[id] * 1024, PrevBuffSizeForId(id)) << id;
  EXPECT_EQ(112086 * 1024, PrevBuffSizeForId(15));
  EXPECT_EQ(1915084LL * 1024, PrevBuffSizeForId(22));
  for (int32_t id : {23, 500, -1}) EXPECT_EQ(-1, PrevBuffSizeForId(id)) << id;
  EXPECT_EQ(nullptr, PrevBuffCreate(23));
}

TEST_F(PrevWriteTest, FramesGoDirectUntilAKeyFrameStartsTheRingAndWhileAnEventFindsItEmpty) {
  Frame(1, kAudioKey, 100);  // the session says audio frames are no key frames
  Frame(2, kDelta, 100);
  Frame(3, kKey, 100);
  Frame(4, kDelta, 100);
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), Numbers());
  ASSERT_EQ(1, Used(Ring()));
  EXPECT_EQ(kBuff0, Ring()->m_p_buffs[0]->m_i_buff_size);
  // The event feeds the ring out from its key frame, two frames for every
  // one put, until it has caught up; then the ring empties, and while the
  // event is on the empty ring is bypassed even by a key frame.
  OnEvent_Vart2(m_e);
  Stream(5, 6, 6, 100);
  EXPECT_EQ(Range(1, 6), Numbers());
  Frame(7, kDelta, 100);
  EXPECT_EQ(0, Used(Ring()));
  Frame(8, kKey, 100);
  EXPECT_EQ(Range(1, 8), Numbers());
  // After the event, frames still go direct until the next key frame.
  OnResetEvent(m_e);
  Stream(9, 10, 10, 100);
  EXPECT_EQ(Range(1, 9), Numbers());
  EXPECT_EQ(1, Used(Ring()));
}

TEST_F(PrevWriteTest, EventFeedsTheArchiveFromTheOldestKeyFrameAtLeastTwoSecondsBackInOrder) {
  // 20 kB frames, a key frame a second: the ring holds two seconds, a key
  // interval and the granularity of its largest buffer.
  Stream(0, 249, 25, 20000);
  int64_t age = StartAge(Ring());
  EXPECT_GE(age, 2 * kSecond);
  EXPECT_LE(age, 7 * kSecond);
  EXPECT_EQ(FindErlyKeyBuffExcl(Ring(), nullptr, nullptr), FindFirstBuffForGet(Ring()));
  uint32_t start = 249 - static_cast<uint32_t>(age / kFrame);
  OnEvent_Vart2(m_e);
  Stream(250, 400, 25, 20000);  // two out for each one in: caught up well before
  EXPECT_EQ(Range(start, 400), Numbers());
  EXPECT_EQ(kKey, g_types[0]);
  EXPECT_EQ(Payload(start, 20000), g_stored[0]);
  EXPECT_EQ(0, Used(Ring()));
}

TEST_F(PrevWriteTest, RingSettlesOnASteadyStreamAndShrinksWhenTheStreamThins) {
  // 1 MB/s, a key frame a second, looked at every ten seconds: once grown,
  // the ring neither grows nor ever lacks two seconds of history.
  int32_t grown = 0, most = 0;
  for (uint32_t ten = 0; ten < 9; ten++) {
    Stream(ten * 250, ten * 250 + 249, 25, 40000);
    if (ten == 2) grown = Used(Ring());
    most = std::max(most, Used(Ring()));
    EXPECT_GE(StartAge(Ring()), 2 * kSecond) << ten;
  }
  EXPECT_EQ(grown, most);
  EXPECT_LE(Capacity(Ring()), 8000000);
  // A tenth of the rate: the largest buffers prove superfluous and go, at
  // the pace of whole turns of the ring; the first within 20 s.
  Stream(25 * 90, 25 * 110 - 1, 25, 4000);
  EXPECT_LT(Used(Ring()), grown);
  Stream(25 * 110, 25 * 240 - 1, 25, 4000);
  EXPECT_LT(Used(Ring()), grown - 2);
  EXPECT_GE(StartAge(Ring()), 2 * kSecond);
  EXPECT_TRUE(g_stored.empty());
}

TEST_F(PrevWriteTest, KeyFramesFurtherApartThanTheSpanKeepEverythingSinceTheLastOne) {
  Stream(0, 249, 250, 20000);  // one key frame in ten seconds
  EXPECT_GE(Capacity(Ring()), 250 * 20025);
  EXPECT_EQ(249 * kFrame, StartAge(Ring()));
  OnEvent_Vart2(m_e);
  Stream(250, 520, 250, 20000);
  EXPECT_EQ(Range(0, 520), Numbers());
}

// Fewer than 8 bytes left are never used: the record goes whole to the
// next buffer. With 8 the head begins there and runs on. The reader
// follows either way.
TEST_F(PrevWriteTest, ARestOfSevenBytesMovesTheNextRecordToTheNextBufferAndARestOfEightDoesNot) {
  for (int32_t rest : {7, 8}) {
    CPrevWrite ring(m_w, 7);
    g_stored.clear();
    Frame(1, kKey, kBuff0 - 25 - rest, &ring);
    Frame(2, kDelta, 100, &ring);
    EXPECT_EQ(1, ring.m_p_curr_put_buff->m_i_buff_id) << rest;
    EXPECT_EQ(rest == 7 ? 125 : 125 - 8, ring.m_i_curr_put_offset) << rest;
    OnEvent_Vart2(m_e);
    Stream(3, 4, 25, 100, &ring);
    EXPECT_EQ(Range(1, 4), Numbers()) << rest;
    OnResetEvent(m_e);
  }
}

// A head that ends 3 bytes before the end of its buffer leaves a hole the
// reader does not know of: the frame comes out shifted, and output ends at
// the next record. Kept as it stands.
TEST_F(PrevWriteTest, AHoleBehindAHeadCostsOneDamagedFrameAndTheRestOfTheOutput) {
  CPrevWrite ring(m_w, 7);
  Frame(1, kKey, kBuff0 - 25 - 28, &ring);
  Stream(2, 3, 25, 1000, &ring);
  OnEvent_Vart2(m_e);
  Stream(4, 5, 25, 100, &ring);
  ASSERT_EQ(2u, g_stored.size());
  EXPECT_EQ(Payload(1, kBuff0 - 53), g_stored[0]);
  ASSERT_EQ(1000u, g_stored[1].size());
  EXPECT_EQ(Payload(2, 1000).substr(0, 997), g_stored[1].substr(3));
  EXPECT_EQ(0, Used(&ring));
}

// The last record of the newest buffer leaves fewer than 8 bytes: the
// reader stays on it, and it is written again until the writer moves on.
TEST_F(PrevWriteTest, ARecordEndingTheNewestBufferIsWrittenAgainUntilTheWriterMovesOn) {
  CPrevWrite ring(m_w, 7);
  OnEvent_Vart2(m_e);
  Frame(1, kKey, kBuff0 - 25 - 5, &ring);
  Frame(2, kDelta, 100, &ring);
  EXPECT_EQ((std::vector<uint32_t>{1, 1, 1, 2}), Numbers());
}

TEST_F(PrevWriteTest, DamagedRecordsEndTheOutputWithoutAReadPastTheRing) {
  // A length below the head, beyond the ring, at odds with the size; a
  // size beyond the ring.
  const std::pair<int, uint32_t> damage[] = {{0, 24}, {0, 0x7FFFFFF0}, {0, 125 + 8}, {21, 0x7FFFFFF0}};
  for (const auto& d : damage) {
    CPrevWrite ring(m_w, 7);
    g_stored.clear();
    Frame(1, kKey, 100, &ring);
    uint8_t* head = NextHead(&ring);
    Frame(2, kDelta, 100, &ring);
    for (int i = 0; i < 4; i++) head[d.first + i] = static_cast<uint8_t>(d.second >> (8 * i));
    OnEvent_Vart2(m_e);
    Frame(3, kDelta, 100, &ring);
    EXPECT_EQ((std::vector<uint32_t>{1}), Numbers()) << d.first << " " << d.second;
    EXPECT_EQ(0, Used(&ring));
    OnResetEvent(m_e);
  }
  // A size no record can carry is not taken at all.
  CPrevWrite ring(m_w, 7);
  uint8_t small[8] = {};
  WritePrevFrame(&ring, small, 0xFFFFFFFFu, kKey, Now(), nullptr);
  WritePrevFrame(&ring, small, INT32_MAX - 24, kKey, Now(), nullptr);
  EXPECT_EQ(0, Used(&ring));
}

// A table of 500 buffers, or one whose next size would not fit 32 bits,
// goes on as a fixed circle: its oldest buffer is written next.
TEST_F(PrevWriteTest, AtItsLargestTheRingReusesItsOldestBuffer) {
  for (int32_t count : {500, 23}) {
    CPrevWrite ring(m_w, 7);
    uint8_t* tag_head = ring.m_pb_tag_head;
    for (int32_t id = 0; id < count; id++) {
      TPrevBuff*& b = ring.m_p_buffs[id];
      SAFE_MEM_ALLOCB5(b, static_cast<int32_t>(sizeof(TPrevBuff)), 1);
      SAFE_MEM_ALLOCB5(b->m_pb_buff_p, 64, 1);
      b->m_i_buff_id = id, b->m_i_buff_size = 64, b->m_i64_buff_countr = id;
    }
    ring.m_p_curr_put_buff = ring.m_p_lagerst_put_buff = ring.m_p_buffs[count - 1];
    ring.m_i64_buff_counter = count - 1;
    ring.m_i_curr_put_offset = 60;
    Frame(1, kDelta, 10, &ring);
    EXPECT_EQ(count, Used(&ring));
    EXPECT_EQ(ring.m_p_buffs[0], ring.m_p_curr_put_buff);
    EXPECT_EQ(count, ring.m_p_buffs[0]->m_i64_buff_countr);
    EXPECT_EQ(35, ring.m_i_curr_put_offset);
    EXPECT_EQ(tag_head, ring.m_pb_tag_head);
  }
}

// The lines an operator reads when output ends, from the reference log.
class PrevWriteLogTest : public PrevWriteTest {
 protected:
  void SetUp() override {
    PrevWriteTest::SetUp();
    m_log.Open(m_dir.m_s_path, "arc.trace = 5000\n");
  }
  void TearDown() override {
    m_log.Close();
    PrevWriteTest::TearDown();
  }
  std::string Log(const char* name) { return m_log.Read(name); }
  writer_test::TestLog m_log;
};

// The trace names the time of a record put together from its parts.
TEST_F(PrevWriteLogTest, AFrameLargerThanSeveralBuffersIsSplitAndComesBackWhole) {
  CPrevWrite ring(m_w, 7);
  Frame(1, kKey, 3000000, &ring);  // 256 + 384 + 576 + 864 + 1296 KiB
  char time[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(Now()), time);
  EXPECT_EQ(5, Used(&ring));
  OnEvent_Vart2(m_e);
  Stream(2, 3, 25, 100, &ring);
  ASSERT_EQ(Range(1, 3), Numbers());
  EXPECT_TRUE(Payload(1, 3000000) == g_stored[0]);
  EXPECT_EQ(1, Count(Log("arc.trace"), std::string(" fr tim ") + time + " \n"));
  EXPECT_EQ(0, Count(Log("arc"), "twice alloc"));
}

TEST_F(PrevWriteLogTest, NoKeyFrameABadMagicAndTheReaderCatchingUpAreLogged) {
  CPrevWrite ring(m_w, 7);
  OnEvent_Vart2(m_e);
  Frame(1, kDelta, 100, &ring);  // only the channel's own check starts at a key
  OnResetEvent(m_e);
  Frame(2, kKey, 100, &ring);
  uint8_t* head = NextHead(&ring);
  Frame(3, kDelta, 100, &ring);
  head[4] = 0x35;
  OnEvent_Vart2(m_e);
  Frame(4, kDelta, 100, &ring);
  Frame(5, kKey, 100, &ring);  // the newest record at once: output ends behind it
  std::string arc = Log("arc"), trace = Log("arc.trace");
  EXPECT_EQ(1, Count(arc, "<error>Error: PrepareFrame - buffer not present!\n")) << arc;
  EXPECT_EQ(1, Count(arc, "<prevWrG7> Error bad tag \n")) << arc;
  EXPECT_EQ(1, Count(trace, "<prevWrG7> Reached put position \n"));
  EXPECT_EQ(2, Count(trace, "<prevWrG7> not found tag \n"));
  EXPECT_EQ((std::vector<uint32_t>{2, 5}), Numbers());
}

}  // namespace
