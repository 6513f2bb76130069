// The archive's byte forms: parameter records of every element type,
// nested lists, and the frame block head and sections, each against bytes
// built by hand.
#include "linux/common_use/service/service4.h"
#include "writer/writer_exchanger.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

typedef std::vector<uint8_t> Bytes;

void Le32(Bytes* b, uint32_t v) {
  for (int i = 0; i < 4; i++) b->push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void Le64(Bytes* b, uint64_t v) {
  for (int i = 0; i < 8; i++) b->push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void Raw(Bytes* b, const void* p, size_t n) {
  const uint8_t* s = static_cast<const uint8_t*>(p);
  b->insert(b->end(), s, s + n);
}
// Type, name length and name of a record whose payload is payload_len long.
void Head(Bytes* b, uint32_t type, const char* name, uint32_t payload_len) {
  uint32_t n = static_cast<uint32_t>(strlen(name));
  Le32(b, type);
  Le32(b, n + 5);
  Raw(b, name, n + 1);
  Le32(b, n + 13 + payload_len);
}

Bytes Encode(const std::vector<ProfileParam>& params) {
  uint8_t* buf = nullptr;
  uint32_t cap = 0, size = 0;
  for (const ProfileParam& p : params) EXPECT_EQ(RC_OK, EncodeParam(&p, &buf, &cap, &size));
  Bytes out(buf, buf + size);
  EXPECT_LE(size, cap);
  SAFE_MEM_FREE(buf);
  return out;
}

TEST(WriterExchanger, EveryElementTypeEncodesToItsRecord) {
  int32_t i32 = -2;
  int64_t i64 = 0x0102030405060708LL;
  ProfileCallback cb = {reinterpret_cast<void*>(0x1122334455667788ULL), nullptr};
  uint8_t data[3] = {9, 8, 7};
  ProfileBuffer buf = {data, 3};
  ProfileBuffer empty_buf = {nullptr, 5};
  int marker = 0;
  std::vector<ProfileParam> params = {
      {PP_STRING, "s", const_cast<char*>("ab")}, {PP_STRING, "e", const_cast<char*>("")},
      {PP_INT32, "i", &i32},                     {PP_INT32B, "j", &i32},
      {PP_INT64, "l", &i64},                     {PP_INT64B, "m", &i64},
      {PP_CALLBACK, "c", &cb},                   {PP_BUFFER, "b", &buf},
      {PP_BUFFER, "z", &empty_buf},              {PP_OBJECT, "o", &marker},
      {6, "six", &marker},                       {PP_INT64, "null", nullptr},
  };
  Bytes want;
  Head(&want, 2, "s", 7), Le32(&want, 7), Raw(&want, "ab", 3);
  Head(&want, 2, "e", 5), Le32(&want, 5), want.push_back(0);
  Head(&want, 4, "i", 4), Le32(&want, 0xFFFFFFFEu);
  Head(&want, 9, "j", 4), Le32(&want, 0xFFFFFFFEu);
  Head(&want, 5, "l", 8), Le64(&want, 0x0102030405060708ULL);
  Head(&want, 10, "m", 8), Le64(&want, 0x0102030405060708ULL);
  Head(&want, 7, "c", 8), Le64(&want, 0x1122334455667788ULL);
  Head(&want, 8, "b", 3), Raw(&want, data, 3);
  Head(&want, 8, "z", 0);
  Head(&want, 3, "o", 0);
  Head(&want, 6, "six", 0);
  Head(&want, 5, "null", 0);
  EXPECT_EQ(want, Encode(params));
}

// Records built once and filled per frame are the same bytes as the
// element's own encoding; only number types get a fixed payload.
TEST(WriterExchanger, FixedRecordsMatchTheElementsEncoding) {
  // The write reads as many bytes as the record's payload: a 4-byte value
  // sits first in an 8-byte holder so the compiler sees no overread.
  int32_t i32[2] = {-2, 0};
  int64_t i64 = 0x0102030405060708LL;
  TParamFixed wide, narrow, text, refused;
  ASSERT_TRUE(ParamFixedMake(PP_INT64, "arc_prev_write", 8, &wide));
  ASSERT_TRUE(ParamFixedMake(PP_INT32B, "w", 4, &narrow));
  ASSERT_TRUE(ParamTextMake("type", &text));
  EXPECT_FALSE(ParamFixedMake(PP_STRING, "s", 4, &refused));
  EXPECT_FALSE(ParamFixedMake(PP_INT32, "w", 8, &refused));
  EXPECT_FALSE(ParamFixedMake(PP_INT64, "a_name_too_long_for_the_fixed_record_xx", 8, &refused));
  EXPECT_FALSE(ParamTextMake("a_name_far_too_long_for_the_fixed_record_head", &refused));
  uint8_t out[128];
  uint32_t n = ParamFixedWrite(&wide, &i64, out);
  n += ParamFixedWrite(&narrow, i32, out + n);
  n += ParamTextWrite(&text, "video", 5, out + n);
  n += ParamTextWrite(&text, "", 0, out + n);
  EXPECT_EQ(Encode({{PP_INT64, "arc_prev_write", &i64}, {PP_INT32B, "w", i32},
                    {PP_STRING, "type", const_cast<char*>("video")}, {PP_STRING, "type", const_cast<char*>("")}}),
            Bytes(out, out + n));
}

TEST(WriterExchanger, NestedListsEncodeWholeToTheirTerminator) {
  int32_t v = 5;
  ProfileParam inner[] = {{PP_INT32, "v", &v}, {PP_END, "after", &v}, {PP_INT32, "never", &v}};
  ProfileParam middle[] = {{PP_LIST, "in", inner}, {PP_LIST, "get", nullptr}, {PP_END, nullptr, nullptr}};
  ProfileParam outer = {PP_LIST, "out", middle};
  Bytes v_rec;
  Head(&v_rec, 4, "v", 4), Le32(&v_rec, 5);
  Bytes get_rec;
  Head(&get_rec, 1, "get", 0);
  Bytes in_rec;
  Head(&in_rec, 1, "in", static_cast<uint32_t>(v_rec.size()));
  Raw(&in_rec, v_rec.data(), v_rec.size());
  Bytes want;
  Head(&want, 1, "out", static_cast<uint32_t>(in_rec.size() + get_rec.size()));
  Raw(&want, in_rec.data(), in_rec.size());
  Raw(&want, get_rec.data(), get_rec.size());
  EXPECT_EQ(want, Encode({outer}));
  EXPECT_EQ(want.size(), ParamRecordLength(&outer));
}

TEST(WriterExchanger, SelfNestedListStopsAtTheDepthLimitAndBuffersGrow) {
  ProfileParam loop[2] = {{PP_LIST, "x", nullptr}, {PP_END, nullptr, nullptr}};
  loop[0].value = loop;  // a list that contains itself
  // 17 records of "x" (14 bytes each), the innermost one empty.
  EXPECT_EQ(14u * (I_PARAM_DEPTH_MAX + 1), ParamRecordLength(&loop[0]));
  std::vector<ProfileParam> many(200, loop[0]);
  EXPECT_EQ(200u * 14u * (I_PARAM_DEPTH_MAX + 1), Encode(many).size());
}

TEST(WriterExchanger, OversizedRecordIsRefusedAndLeavesTheBufferAlone) {
  uint8_t byte = 0;
  ProfileBuffer huge = {&byte, 0xFFFFFFF0u};
  ProfileParam p = {PP_BUFFER, "huge", &huge};
  uint8_t* buf = nullptr;
  uint32_t cap = 0, size = 0;
  EXPECT_EQ(0u, ParamRecordLength(&p));
  EXPECT_NE(RC_OK, EncodeParam(&p, &buf, &cap, &size));
  EXPECT_EQ(nullptr, buf);
  EXPECT_EQ(0u, size);
}

uint32_t Fcc(const char* s) {
  uint32_t v = 0;
  memcpy(&v, s, 4);
  return v;
}

TEST(WriterExchanger, KeyFrameHasTheLongHead) {
  uint8_t head[UI_FRAME_HEAD_LONG];
  memset(head, 0xAA, sizeof(head));
  FrameBlockWriteHead(head, 1, 0x0102030405060708ULL, 77, 1920, 1080, Fcc("H264"));
  Bytes want;
  Le32(&want, 48), Le32(&want, 6), Le64(&want, 0x0102030405060708ULL), Le32(&want, 0), Le32(&want, 77);
  Le64(&want, 0);
  Le32(&want, 1920 * 1080 * 12 / 8);
  want.push_back(7), want.push_back(0);
  want.push_back(1080 & 0xFF), want.push_back(1080 >> 8);
  want.push_back(1920 & 0xFF), want.push_back(1920 >> 8);
  want.push_back(12), want.push_back(0);
  Raw(&want, "H264", 4);
  EXPECT_EQ(want, Bytes(head, head + 48));
}

TEST(WriterExchanger, OtherFramesHaveTheShortHeadAndSectionsFollowIt) {
  uint8_t block[64];
  memset(block, 0xAA, sizeof(block));
  FrameBlockWriteHead(block, 0, 5, 3, 640, 480, Fcc("XVID"));
  uint32_t pos = FrameBlockHeadSize(0);
  pos += FrameBlockPutSection(block + pos, UI_SECTION_DATA, "abc", 3);
  pos += FrameBlockPutSection(block + pos, UI_SECTION_EXTRA, "Z", 1);
  Bytes want;
  Le32(&want, 32), Le32(&want, 7), Le64(&want, 5), Le32(&want, 0), Le32(&want, 3), Le64(&want, 0);
  Le32(&want, 11), Le32(&want, 1), Raw(&want, "abc", 3);
  Le32(&want, 9), Le32(&want, 80), Raw(&want, "Z", 1);
  EXPECT_EQ(want, Bytes(block, block + pos));
  EXPECT_EQ(0xAA, block[pos]);
  EXPECT_EQ(pos, FrameBlockSize(0, 3, 1, 0));
  EXPECT_EQ(48u + 8 + 10 + 8 + 20, FrameBlockSize(1, 10, 0, 20));
}

TEST(WriterExchanger, CodecNumbersAndTheMpeg4CodeRewrite) {
  struct Row {
    const char* fcc;
    uint16_t codec;
    const char* stored;
  } rows[] = {{"XVID", 10, "xvid"}, {"DIVX", 10, "xvid"}, {"divx", 10, "xvid"}, {"mp4v", 10, "xvid"},
              {"DX50", 10, "xvid"}, {"xvid", 10, "xvid"}, {"KMM2", 2, "KMM2"}, {"H264", 7, "H264"},
              {"h264", 7, "h264"},  {"MJPG", 0, "MJPG"},  {"Xvid", 0, "Xvid"}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.fcc);
    EXPECT_EQ(r.codec, CodecNumberOfFcc(Fcc(r.fcc)));
    uint8_t head[UI_FRAME_HEAD_LONG];
    FrameBlockWriteHead(head, 1, 0, 0, 2, 2, Fcc(r.fcc));
    EXPECT_EQ(r.codec, head[36] | head[37] << 8);
    EXPECT_EQ(0, memcmp(head + 44, r.stored, 4));
  }
}

TEST(WriterExchanger, ImageSizeUsesSixteenBitHeightAndWrapsIn32Bits) {
  uint8_t head[UI_FRAME_HEAD_LONG];
  auto image = [&](int32_t w, int32_t h) {
    FrameBlockWriteHead(head, 1, 0, 0, w, h, 0);
    int32_t v;
    memcpy(&v, head + 32, 4);
    return v;
  };
  EXPECT_EQ(12, image(4, 2));
  EXPECT_EQ(-12, image(4, 0xFFFE));  // height -2 as 16 bits
  EXPECT_EQ(image(100, 3), image(100, 0x10003));
  // 70000 x 30000 x 12 wraps: 25200000000 mod 2^32 = 3725163520, negative.
  EXPECT_EQ(static_cast<int32_t>(3725163520u) / 8, image(70000, 30000));
}

}  // namespace
