// The server's H.264 Annex-B splitter and parameter-set reader: the unit a
// file source cuts its frames with, checked on hand-made streams and on the
// clip in tests/data.
#include "host/server/srv_h264.h"

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/server/srv_media.h"

namespace {

typedef std::vector<uint8_t> Bytes;

// A NAL unit with a 4- or 3-byte start code; the first payload byte follows
// the header.
void Nal(Bytes* p_av, uint8_t ui_header_av, std::vector<uint8_t> payload_av, bool b_long_av = true) {
  if (b_long_av) p_av->push_back(0);
  p_av->insert(p_av->end(), {0, 0, 1, ui_header_av});
  p_av->insert(p_av->end(), payload_av.begin(), payload_av.end());
}

// Slices: 0x80 as first payload byte is first_mb_in_slice 0 (a new picture);
// 0x40 is first_mb_in_slice 1 (a later slice of the same picture).
const uint8_t IDR = 0x65, SLICE = 0x41, SPS = 0x67, PPS = 0x68, SEI = 0x06, AUD = 0x09;

Bytes ReadClip() {
  std::ifstream in(WRITER_SOURCE_DIR "/tests/data/clip.h264", std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  std::string s = text.str();
  return Bytes(s.begin(), s.end());
}

TEST(ServerH264, UnitsCoverTheStreamAndKeyUnitsCarryTheirParameterSets) {
  Bytes s;
  s.insert(s.end(), {0xAA, 0xBB});  // junk in front belongs to the first unit
  Nal(&s, SPS, {0x42, 0x00});
  Nal(&s, PPS, {0xCE});
  Nal(&s, SEI, {0x05, 0x01});
  Nal(&s, IDR, {0x80, 1, 2});
  Nal(&s, IDR, {0x40, 3}, false);  // second slice, same picture
  Nal(&s, SLICE, {0x80, 4});
  Nal(&s, AUD, {0x10});
  Nal(&s, SLICE, {0x80, 5}, false);
  Nal(&s, SLICE, {0x80, 6});
  std::vector<SrvAccessUnit> units = SrvSplitAccessUnits(s.data(), s.size());
  ASSERT_EQ(4u, units.size());
  EXPECT_TRUE(units[0].m_b_key);
  EXPECT_TRUE(units[0].m_b_has_sps);
  EXPECT_FALSE(units[1].m_b_key);
  EXPECT_FALSE(units[2].m_b_key);
  // The units lie end to end over the whole stream.
  size_t at = 0;
  for (const SrvAccessUnit& u : units) {
    EXPECT_EQ(at, u.m_ui_offset);
    at += u.m_ui_size;
  }
  EXPECT_EQ(s.size(), at);
  // A 4-byte start code's zero byte opens the unit, not the end of the one before.
  EXPECT_EQ(0, s[units[1].m_ui_offset]);
  EXPECT_EQ(1, s[units[1].m_ui_offset + 3]);
  // The delimiter opens the third unit, with the slice behind it.
  EXPECT_EQ(AUD, s[units[2].m_ui_offset + 4]);
  EXPECT_EQ(units[2].m_ui_offset + 6 + 6, units[3].m_ui_offset);
}

TEST(ServerH264, StreamsWithoutPicturesGiveNoUnits) {
  Bytes s;
  EXPECT_TRUE(SrvSplitAccessUnits(s.data(), 0).empty());
  Nal(&s, SPS, {0x42});
  Nal(&s, PPS, {0xCE});
  EXPECT_TRUE(SrvSplitAccessUnits(s.data(), s.size()).empty());
  Bytes junk = {1, 2, 3, 0, 0};
  EXPECT_TRUE(SrvSplitAccessUnits(junk.data(), junk.size()).empty());
  // Parameter sets after the last picture stay with it.
  Nal(&s, IDR, {0x80});
  Nal(&s, SPS, {0x42});
  std::vector<SrvAccessUnit> units = SrvSplitAccessUnits(s.data(), s.size());
  ASSERT_EQ(1u, units.size());
  EXPECT_EQ(s.size(), units[0].m_ui_size);
}

TEST(ServerH264, ClipSplitsIntoItsPicturesWithAKeyFrameEveryTwoSeconds) {
  Bytes clip = ReadClip();
  ASSERT_GT(clip.size(), 100000u);
  std::vector<SrvAccessUnit> units = SrvSplitAccessUnits(clip.data(), clip.size());
  ASSERT_EQ(150u, units.size());
  std::vector<size_t> keys;
  for (size_t i = 0; i < units.size(); i++)
    if (units[i].m_b_key) keys.push_back(i);
  EXPECT_EQ((std::vector<size_t>{0, 50, 100}), keys);
  for (size_t key : keys) EXPECT_TRUE(units[key].m_b_has_sps);
  EXPECT_EQ(clip.size(), units.back().m_ui_offset + units.back().m_ui_size);

  SrvSpsInfo sps;
  ASSERT_TRUE(SrvReadSps(clip.data(), clip.size(), &sps));
  EXPECT_EQ(320, sps.m_i_width);
  EXPECT_EQ(240, sps.m_i_height);
  EXPECT_DOUBLE_EQ(25.0, sps.m_d_fps);
}

TEST(ServerH264, SpsReaderHandlesCroppingEmulationBytesAndTruncation) {
  // Baseline SPS, 1920x1080 (120x68 macroblocks, 8 lines cropped), no VUI.
  // Flags and level are 0, so that an emulation prevention byte (03) has to
  // stand behind them and must be dropped. Bits: profile 66, then ue: id 0, log2 frame 0, poc
  // type 2, refs 1, gaps 0, w-1 = 119, h-1 = 67, frame_mbs_only 1,
  // direct 1, cropping 1, crop 0 0 0 4, vui 0.
  Bytes s = {0, 0, 0, 1, SPS, 66, 0, 0, 3};
  const char* bits = "1" "1" "011" "010" "0" "0000001111000" "0000001000100" "1" "1" "1" "1" "1" "1" "00101" "0" "1";
  std::vector<uint8_t> packed;
  int n = 0;
  uint8_t cur = 0;
  for (const char* p = bits; *p != 0; p++) {
    cur = static_cast<uint8_t>(cur << 1 | (*p == '1'));
    if (++n % 8 == 0) packed.push_back(cur), cur = 0;
  }
  if (n % 8 != 0) packed.push_back(static_cast<uint8_t>(cur << (8 - n % 8)));
  s.insert(s.end(), packed.begin(), packed.end());
  SrvSpsInfo sps;
  ASSERT_TRUE(SrvReadSps(s.data(), s.size(), &sps));
  EXPECT_EQ(1920, sps.m_i_width);
  EXPECT_EQ(1080, sps.m_i_height);
  EXPECT_EQ(0.0, sps.m_d_fps);

  Bytes cut(s.begin(), s.begin() + 11);
  EXPECT_FALSE(SrvReadSps(cut.data(), cut.size(), &sps));
  Bytes none = {0, 0, 1, PPS, 0xCE};
  EXPECT_FALSE(SrvReadSps(none.data(), none.size(), &sps));
}

// The file source reads in pieces: whatever the piece size, it gives the
// units the whole-file cut gives, again after a loop, and stops with a
// reason on a file that is one endless unit.
TEST(ServerH264, FileReadInPiecesGivesTheUnitsOfTheWholeFile) {
  Bytes clip = ReadClip();
  std::vector<SrvAccessUnit> units = SrvSplitAccessUnits(clip.data(), clip.size());
  ASSERT_GT(units.size(), 100u);
  SrvSourceConfig cfg;
  cfg.m_s_file = WRITER_SOURCE_DIR "/tests/data/clip.h264";
  for (size_t chunk : {size_t(7), size_t(1000), size_t(1) << 20}) {
    SrvH264File file;
    file.m_ui_chunk = chunk;
    std::string error;
    ASSERT_TRUE(SrvH264FileOpen(&file, cfg, true, &error)) << error;
    EXPECT_EQ(320, file.m_sps.m_i_width);
    SrvMediaFrame frame;
    for (size_t i = 0; i < units.size() + 3; i++) {
      ASSERT_TRUE(SrvH264FileNext(&file, &frame)) << "chunk " << chunk << " unit " << i;
      const SrvAccessUnit& u = units[i % units.size()];
      ASSERT_EQ(u.m_ui_size, frame.m_ui_size) << "chunk " << chunk << " unit " << i;
      EXPECT_EQ(0, memcmp(clip.data() + u.m_ui_offset, frame.m_pb_data, u.m_ui_size));
      EXPECT_EQ(u.m_b_key ? 1 : 0, frame.m_i_key);
      EXPECT_EQ(static_cast<int64_t>(i), frame.m_i64_index);
    }
    EXPECT_LE(file.m_ui_cap, 3 * chunk + 200000) << "memory holds pieces, not the file";
    SrvH264FileClose(&file);
  }
}

}  // namespace
