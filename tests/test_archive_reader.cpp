// Reading back the archive: repair of damaged tails, the checks of verify,
// frame block parsing, and the writer-archive tool's list, export and verify
// as a user runs them.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "host/archive/arc_reader.h"
#include "tests/test_archive_util.h"

using namespace archive_test;

namespace {

const int64_t TICKS_S = 10000000;

struct ToolRun {
  int m_i_status;
  std::string m_s_output;
};

// Runs writer-archive with the arguments; output and errors together.
ToolRun RunTool(const std::string& s_args_av) {
  std::string s_cmd_lv = std::string(WRITER_BIN_DIR "/writer-archive ") + s_args_av + " 2>&1";
  ToolRun run_lv{-1, ""};
  FILE* p_pipe_lv = popen(s_cmd_lv.c_str(), "r");
  if (p_pipe_lv == nullptr) return run_lv;
  char s_buf_lv[4096];
  size_t ui_n_lv;
  while ((ui_n_lv = fread(s_buf_lv, 1, sizeof(s_buf_lv), p_pipe_lv)) > 0) run_lv.m_s_output.append(s_buf_lv, ui_n_lv);
  int i_status_lv = pclose(p_pipe_lv);
  run_lv.m_i_status = WIFEXITED(i_status_lv) ? WEXITSTATUS(i_status_lv) : -1;
  return run_lv;
}

std::string ReadFile(const std::string& s_path_av) {
  std::ifstream in_lv(s_path_av, std::ios::binary);
  std::stringstream ss_lv;
  ss_lv << in_lv.rdbuf();
  return ss_lv.str();
}

class ArchiveReaderTest : public ::testing::Test {
 protected:
  static ArchiveLib s_lib;
  static void SetUpTestSuite() { s_lib.Load(); }
  ArchiveLib& L = s_lib;
  TempDir m_dir;
  Keys m_keys{"cam1"};
  int32_t m_i_handle = -1;
  int64_t m_i64_t0 = (NowLocal() / TICKS_S - 1000) * TICKS_S;

  void SetUp() override {
    if (L.m_h_lib == nullptr) GTEST_SKIP() << "library not loaded";
    L.reset();
    std::string s_json_lv = "{\"root\": \"" + m_dir.m_s_path + "\"}";
    ASSERT_EQ(0, L.configure(s_json_lv.c_str()));
    L.dll_init2(0);
    ASSERT_EQ(0, L.GetHandleForWrite(&m_i_handle, 0, 0, 1, m_keys.m_keys, 0, 0, 1, 0));
  }
  void TearDown() override {
    if (L.m_h_lib != nullptr) L.reset();
  }

  void Frame(bool b_key_av, uint32_t ui_number_av, int64_t i64_time_av, const std::string& s_data_av,
             const std::string& s_extra_av = "") {
    std::vector<uint8_t> block_lv = MakeBlock(b_key_av, ui_number_av, i64_time_av, s_data_av, s_extra_av);
    ASSERT_EQ(0, L.WriteDataForTime(m_i_handle, block_lv.data(), static_cast<int32_t>(block_lv.size()),
                                    b_key_av ? 35 : 33, i64_time_av));
  }

  // n frames a second apart in groups of five, then the session is closed.
  void Frames(int i_count_av) {
    uint32_t ui_number_lv = 0;
    for (int i_lv = 0; i_lv < i_count_av; i_lv++) {
      ui_number_lv = NextNumber(ui_number_lv, i_lv % 5 == 0);
      Frame(i_lv % 5 == 0, ui_number_lv, m_i64_t0 + i_lv * TICKS_S, std::string(50, 'a' + i_lv % 26));
    }
    L.CloseHandleWrite(m_i_handle);
  }

  warc::StreamRef Stream() {
    std::vector<warc::StreamRef> streams_lv = warc::FindStreams(m_dir.m_s_path);
    EXPECT_EQ(1u, streams_lv.size());
    return streams_lv.empty() ? warc::StreamRef() : streams_lv[0];
  }
  std::string Seg() { return Stream().m_s_dir + "/00000001.wseg"; }
  std::string Idx() { return Stream().m_s_dir + "/00000001.widx"; }
  off_t Size(const std::string& s_path_av) {
    struct stat st_lv{};
    stat(s_path_av.c_str(), &st_lv);
    return st_lv.st_size;
  }
  std::string Camera() { return "storage_1/" + m_keys.Folder(); }
};

ArchiveLib ArchiveReaderTest::s_lib;

// Bit by bit, the way the checksums are defined.
uint32_t BitwiseCrc(uint32_t ui_poly_av, const uint8_t* p, size_t n, uint32_t seed) {
  uint32_t c = seed ^ 0xFFFFFFFFu;
  for (size_t i = 0; i < n; i++) {
    c ^= p[i];
    for (int k = 0; k < 8; k++) c = (c & 1) ? ui_poly_av ^ (c >> 1) : c >> 1;
  }
  return c ^ 0xFFFFFFFFu;
}

// The fast checksums take eight bytes a step, and CRC-32C runs in three lanes
// joined at the end: each must still be its checksum at every length, start
// alignment and chained seed, or files written and read on different
// machines would disagree. CRC-32 stays for files of the first format and for
// folder names.
TEST(ArchiveChecksum, EveryWayGivesTheDefinedChecksumAtEveryLengthAlignmentAndSeed) {
  EXPECT_EQ(warc::Crc32("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(warc::Crc32c("123456789", 9), 0xE3069283u);
  std::vector<uint8_t> bytes(3 * 8192 + 3 * 256 + 100);
  for (size_t i = 0; i < bytes.size(); i++) bytes[i] = static_cast<uint8_t>(i * 37 + 11 + (i >> 9));
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 100; n++) lengths.push_back(n);
  for (size_t n : {767, 768, 775, 20000, 3 * 8192 - 1, 3 * 8192, 3 * 8192 + 3 * 256 + 17}) lengths.push_back(n);
  uint32_t hw_unused = 0;
  bool have_hw = warc::Crc32cHardware("", 0, 0, &hw_unused);
  for (size_t start = 0; start < 8; start++)
    for (size_t n : lengths) {
      const uint8_t* p = bytes.data() + start;
      ASSERT_EQ(warc::Crc32(p, n, 0x1234u), BitwiseCrc(0xEDB88320u, p, n, 0x1234u)) << start << " " << n;
      uint32_t want = BitwiseCrc(0x82F63B78u, p, n, 0x1234u);
      ASSERT_EQ(warc::Crc32cPortable(p, n, 0x1234u), want) << "start " << start << " length " << n;
      ASSERT_EQ(warc::Crc32c(p, n, 0x1234u), want) << "start " << start << " length " << n;
      uint32_t hw = want;
      if (have_hw) {
        ASSERT_TRUE(warc::Crc32cHardware(p, n, 0x1234u, &hw));
      }
      ASSERT_EQ(hw, want) << "start " << start << " length " << n;
    }
}

// A camera's folder keeps its keys when they are safe as they stand, so
// that an operator finds it by name; anything changed earns a digest.
TEST(ArchiveFolderName, SafeKeysStandAsTheyAreAndChangedOnesGetADigest) {
  const char* safe[] = {"srv-1", "cam.2", "main_x"};
  const int32_t safe_sizes[] = {6, 6, 7};
  EXPECT_EQ("srv-1_cam.2_main_x", warc::CameraFolderName(safe, safe_sizes, 3));
  const char* changed[] = {"srv 1", "cam/2", "main"};
  const int32_t changed_sizes[] = {6, 6, 5};
  std::string name = warc::CameraFolderName(changed, changed_sizes, 3);
  EXPECT_EQ(0u, name.find("srv_1_cam_2_main~")) << name;
  EXPECT_EQ(std::string("srv_1_cam_2_main~").size() + 8, name.size()) << name;
}

TEST_F(ArchiveReaderTest, RepairCutsATailCutShortAndRebuildsTheIndex) {
  Frames(10);
  off_t i_full_lv = Size(Seg());
  ASSERT_EQ(0, truncate(Seg().c_str(), i_full_lv - 20));  // inside the last record
  EXPECT_GT(warc::VerifyStream(Stream(), false).m_i_errors, 0);
  warc::RepairReport report_lv;
  ASSERT_TRUE(warc::RepairSegment(Seg(), Idx(), &report_lv));
  EXPECT_EQ(9u, report_lv.m_ui_frames);
  EXPECT_TRUE(report_lv.m_b_index_rebuilt);
  EXPECT_EQ(static_cast<uint64_t>(i_full_lv - 20 - Size(Seg())), report_lv.m_ui64_bytes_cut);
  EXPECT_EQ(static_cast<off_t>(9 * warc::IDX_ENTRY_SIZE), Size(Idx()));
  warc::VerifyReport verify_lv = warc::VerifyStream(Stream(), false);
  EXPECT_EQ(0, verify_lv.m_i_errors);
  EXPECT_EQ(9u, verify_lv.m_ui64_frames);
  // A second repair finds nothing to do.
  ASSERT_TRUE(warc::RepairSegment(Seg(), Idx(), &report_lv));
  EXPECT_EQ(0u, report_lv.m_ui64_bytes_cut);
  EXPECT_FALSE(report_lv.m_b_index_rebuilt);
}

// A count believes an index only where it ends with its segment: a lagging
// or lost index, or a segment cut after its index was written, is counted
// from the records.
TEST_F(ArchiveReaderTest, ACountTakesTheIndexOnlyWhereItCoversItsSegment) {
  Frames(10);
  auto count = [this](uint64_t frames, uint64_t keys) {
    warc::StreamCount c = warc::CountStream(Stream());
    EXPECT_EQ(frames, c.m_ui64_frames);
    EXPECT_EQ(keys, c.m_ui64_key_frames);
  };
  count(10, 2);
  ASSERT_EQ(0, truncate(Seg().c_str(), Size(Seg()) - 20));  // inside the last record
  count(9, 2);
  ASSERT_EQ(0, truncate(Idx().c_str(), 7 * warc::IDX_ENTRY_SIZE));
  count(9, 2);
  ASSERT_EQ(0, unlink(Idx().c_str()));
  count(9, 2);
}

TEST_F(ArchiveReaderTest, RepairDropsARecordWithAWrongChecksumAndALostIndexTail) {
  Frames(10);
  {
    FILE* p_file_lv = fopen(Seg().c_str(), "r+b");
    ASSERT_NE(nullptr, p_file_lv);
    fseek(p_file_lv, -5, SEEK_END);  // inside the last frame's data
    fputc('Z', p_file_lv);
    fclose(p_file_lv);
  }
  ASSERT_EQ(0, truncate(Idx().c_str(), 7 * warc::IDX_ENTRY_SIZE + 3));
  warc::VerifyReport before_lv = warc::VerifyStream(Stream(), false);
  EXPECT_EQ(2, before_lv.m_i_errors);  // damaged tail, index disagrees
  warc::VerifyReport repaired_lv = warc::VerifyStream(Stream(), true);
  EXPECT_EQ(0, repaired_lv.m_i_errors);
  EXPECT_EQ(9u, repaired_lv.m_ui64_frames);
  EXPECT_EQ(1, repaired_lv.m_i_warnings);  // the line telling of the repair
}

void WriteFile(const std::string& s_path_av, const std::vector<uint8_t>& bytes_av) {
  std::ofstream out_lv(s_path_av, std::ios::binary | std::ios::trunc);
  out_lv.write(reinterpret_cast<const char*>(bytes_av.data()), static_cast<std::streamsize>(bytes_av.size()));
}

// Rewrites a segment and its index the way the first format wrote them:
// version 1, and every checksum the common CRC-32, computed here bit by bit.
void MakeVersion1(const std::string& s_seg_av, const std::string& s_idx_av) {
  auto crc = [](const std::vector<uint8_t>& b, size_t at, size_t n, uint32_t seed) {
    return BitwiseCrc(0xEDB88320u, b.data() + at, n, seed);
  };
  std::string s_text_lv = ReadFile(s_seg_av);
  std::vector<uint8_t> seg_lv(s_text_lv.begin(), s_text_lv.end());
  ASSERT_GE(seg_lv.size(), 32u);
  Put32(&seg_lv, 8, 1);
  Put32(&seg_lv, 28, crc(seg_lv, 0, 28, 0));
  for (size_t pos = 32; pos + 24 <= seg_lv.size();) {
    uint32_t n = seg_lv[pos + 4] | seg_lv[pos + 5] << 8 | seg_lv[pos + 6] << 16 | static_cast<uint32_t>(seg_lv[pos + 7]) << 24;
    ASSERT_LE(pos + 24 + n, seg_lv.size());
    Put32(&seg_lv, pos + 20, crc(seg_lv, pos + 24, n, crc(seg_lv, pos, 20, 0)));
    pos += 24 + n;
  }
  WriteFile(s_seg_av, seg_lv);
  s_text_lv = ReadFile(s_idx_av);
  std::vector<uint8_t> idx_lv(s_text_lv.begin(), s_text_lv.end());
  for (size_t pos = 0; pos + 32 <= idx_lv.size(); pos += 32) Put32(&idx_lv, pos + 28, crc(idx_lv, pos, 28, 0));
  WriteFile(s_idx_av, idx_lv);
}

// Folders recorded before the checksum changed stay readable: listed,
// verified, repaired (with an index of their own version) and exported the
// same, and a new session adds current segments beside them.
TEST_F(ArchiveReaderTest, FirstFormatFoldersStillListVerifyRepairAndExport) {
  Frames(10);
  std::string s_csv_lv = m_dir.m_s_path + "/frames.csv";
  std::string s_export_lv = "export --root " + m_dir.m_s_path + " --camera " + Camera() + " --table csv --out " + s_csv_lv;
  ASSERT_EQ(0, RunTool(s_export_lv).m_i_status);
  std::string s_table_lv = ReadFile(s_csv_lv);
  MakeVersion1(Seg(), Idx());
  warc::SegHead head_lv;
  ASSERT_TRUE(warc::ReadSegHead(Seg(), &head_lv));
  EXPECT_EQ(1u, head_lv.m_ui_version);

  ToolRun run_lv = RunTool("list --root " + m_dir.m_s_path);
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("video: 1 segments, 10 frames, 2 key frames")) << run_lv.m_s_output;
  run_lv = RunTool("verify --root " + m_dir.m_s_path);
  EXPECT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  ASSERT_EQ(0, RunTool(s_export_lv).m_i_status);
  EXPECT_EQ(s_table_lv, ReadFile(s_csv_lv));

  ASSERT_EQ(0, truncate(Seg().c_str(), Size(Seg()) - 3));
  EXPECT_EQ(0, RunTool("verify --repair --root " + m_dir.m_s_path).m_i_status);
  run_lv = RunTool("verify --root " + m_dir.m_s_path);
  EXPECT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  EXPECT_EQ(static_cast<off_t>(9 * warc::IDX_ENTRY_SIZE), Size(Idx()));

  ASSERT_EQ(0, L.GetHandleForWrite(&m_i_handle, 0, 0, 1, m_keys.m_keys, 0, 0, 1, 0));
  Frame(true, 0x3000, m_i64_t0 + 20 * TICKS_S, "next");
  L.CloseHandleWrite(m_i_handle);
  run_lv = RunTool("verify --root " + m_dir.m_s_path);
  EXPECT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  ASSERT_TRUE(warc::ReadSegHead(Stream().m_s_dir + "/00000002.wseg", &head_lv));
  EXPECT_EQ(warc::FORMAT_VERSION, head_lv.m_ui_version);
  run_lv = RunTool("list --root " + m_dir.m_s_path);
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("video: 2 segments, 10 frames")) << run_lv.m_s_output;
}

TEST_F(ArchiveReaderTest, VerifyFlagsFallingTimesAndBrokenNumbering) {
  Frame(true, 0x1000, m_i64_t0, "k");
  Frame(false, 0x1001, m_i64_t0 + TICKS_S, "a");
  Frame(false, 0x1003, m_i64_t0 + 2 * TICKS_S, "lost one");  // frames missing: a warning
  Frame(false, 0x2004, m_i64_t0 + 3 * TICKS_S, "wrong group");
  Frame(true, 0x3001, m_i64_t0 + 4 * TICKS_S, "key not at a group start");
  Frame(true, 0x4000, m_i64_t0 + 2 * TICKS_S, "time falls");
  uint8_t pb_junk_lv[40] = {};
  L.WriteDataForTime(m_i_handle, pb_junk_lv, sizeof(pb_junk_lv), 33, m_i64_t0 + 5 * TICKS_S);
  L.CloseHandleWrite(m_i_handle);
  warc::VerifyReport report_lv = warc::VerifyStream(Stream(), false);
  EXPECT_EQ(7u, report_lv.m_ui64_frames);
  EXPECT_EQ(1, report_lv.m_i_warnings);
  ASSERT_EQ(4, report_lv.m_i_errors);
  std::string s_all_lv;
  for (const std::string& s_lv : report_lv.m_lines) s_all_lv += s_lv + "\n";
  EXPECT_NE(std::string::npos, s_all_lv.find("(frames missing)"));
  EXPECT_NE(std::string::npos, s_all_lv.find("(inconsistent)"));
  EXPECT_NE(std::string::npos, s_all_lv.find("does not start a group"));
  EXPECT_NE(std::string::npos, s_all_lv.find("time falls back"));
  EXPECT_NE(std::string::npos, s_all_lv.find("frame block unreadable"));
}

TEST_F(ArchiveReaderTest, TimesBeforeTheFirstTickAreRefusedAndTheLatestOnesReadBack) {
  std::vector<uint8_t> block_lv = MakeBlock(true, 0x1000, 0, "k");
  for (int64_t i64_bad_lv : {INT64_MIN, int64_t{-1}})
    EXPECT_EQ(ARCHIVE_E_BAD_ARG, L.WriteDataForTime(m_i_handle, block_lv.data(), static_cast<int32_t>(block_lv.size()),
                                                    35, i64_bad_lv));
  Frame(true, 0x1000, 0, "k");
  Frame(false, 0x1001, INT64_MAX, "far");
  L.CloseHandleWrite(m_i_handle);
  warc::StreamSummary sum_lv = warc::SummariseStream(Stream(), 5 * TICKS_S);
  EXPECT_EQ(2u, sum_lv.m_ui64_frames);
  ASSERT_EQ(1u, sum_lv.m_gaps.size());
  EXPECT_EQ(INT64_MAX, sum_lv.m_gaps[0].second);
  warc::VerifyReport report_lv = warc::VerifyStream(Stream(), false);
  EXPECT_EQ(0, report_lv.m_i_errors) << (report_lv.m_lines.empty() ? "" : report_lv.m_lines[0]);
  ToolRun run_lv = RunTool("list --root " + m_dir.m_s_path);
  EXPECT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("2 frames")) << run_lv.m_s_output;
  EXPECT_EQ(2, RunTool("list --gap 99999999999999 --root " + m_dir.m_s_path).m_i_status);
}

TEST_F(ArchiveReaderTest, FrameBlockParsingRejectsBadLayouts) {
  warc::BlockInfo info_lv;
  std::string s_why_lv;
  std::vector<uint8_t> good_lv = MakeBlock(true, 0x1000, 123, "data", "extra");
  ASSERT_TRUE(warc::ParseFrameBlock(good_lv.data(), static_cast<uint32_t>(good_lv.size()), &info_lv, &s_why_lv));
  EXPECT_EQ(0x1000u, info_lv.m_ui_number);
  EXPECT_EQ(123, info_lv.m_i64_time);
  EXPECT_EQ(640, info_lv.m_ui_width);
  EXPECT_EQ(480, info_lv.m_ui_height);
  EXPECT_TRUE(warc::BlockIsH264(info_lv));
  ASSERT_NE(nullptr, info_lv.Find(80));
  EXPECT_EQ("extra", std::string(reinterpret_cast<const char*>(info_lv.Find(80)->m_pb_data), 5));

  std::vector<uint8_t> bad_lv = good_lv;
  Put32(&bad_lv, 48, 1000);  // data section longer than the block
  EXPECT_FALSE(warc::ParseFrameBlock(bad_lv.data(), static_cast<uint32_t>(bad_lv.size()), &info_lv, &s_why_lv));
  bad_lv = good_lv;
  Put32(&bad_lv, 4, 7);  // long head with the short head's kind
  EXPECT_FALSE(warc::ParseFrameBlock(bad_lv.data(), static_cast<uint32_t>(bad_lv.size()), &info_lv, &s_why_lv));
  bad_lv = good_lv;
  Put32(&bad_lv, 52, 2);  // no data section
  EXPECT_FALSE(warc::ParseFrameBlock(bad_lv.data(), static_cast<uint32_t>(bad_lv.size()), &info_lv, &s_why_lv));
  EXPECT_FALSE(warc::ParseFrameBlock(good_lv.data(), 31, &info_lv, &s_why_lv));
  EXPECT_FALSE(warc::ParseFrameBlock(good_lv.data(), 50, &info_lv, &s_why_lv));  // section head cut
}

TEST_F(ArchiveReaderTest, ExportWritesAnAnnexBStreamFromTheFirstKeyFrame) {
  const std::string SPS("\x67\x42\x00\x1e", 4), PPS("\x68\xce\x3c\x80", 4);
  std::string s_avcc_lv = std::string("\x01\x42\x00\x1e\xff\xe1\x00\x04", 8) + SPS + std::string("\x01\x00\x04", 3) + PPS;
  std::string s_idr_lv = std::string("\x00\x00\x00\x05\x65\x88\x84\x00\x10", 9);  // one unit, length-prefixed
  std::string s_p_lv = std::string("\x00\x00\x01\x41\x9a\x02", 6);                 // already Annex-B
  std::string s_start_lv("\x00\x00\x00\x01", 4);
  Frame(false, 1, m_i64_t0, s_p_lv);  // before any key frame: not exportable
  Frame(true, 0x1000, m_i64_t0 + TICKS_S, s_idr_lv, s_avcc_lv);
  Frame(false, 0x1001, m_i64_t0 + 2 * TICKS_S, s_p_lv);
  Frame(false, 0x1002, m_i64_t0 + 3 * TICKS_S, s_p_lv);
  L.CloseHandleWrite(m_i_handle);

  std::string s_out_lv = m_dir.m_s_path + "/out.h264";
  std::string s_base_lv = "export --root " + m_dir.m_s_path + " --camera " + Camera() + " --out " + s_out_lv;
  ToolRun run_lv = RunTool(s_base_lv);
  ASSERT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  std::string s_want_lv = s_start_lv + SPS + s_start_lv + PPS + s_start_lv + s_idr_lv.substr(4) + s_p_lv + s_p_lv;
  EXPECT_TRUE(ReadFile(s_out_lv) == s_want_lv);
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("3 frames exported"));

  // A time range, as ticks, and the raw data sections.
  run_lv = RunTool(s_base_lv + " --raw --from " + std::to_string(m_i64_t0 + 2 * TICKS_S) + " --to " +
                   std::to_string(m_i64_t0 + 2 * TICKS_S));
  EXPECT_EQ(1, run_lv.m_i_status) << "no key frame in range, nothing to export";
  run_lv = RunTool(s_base_lv + " --raw --from " + std::to_string(m_i64_t0 + TICKS_S) + " --to " +
                   std::to_string(m_i64_t0 + 2 * TICKS_S));
  ASSERT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  EXPECT_TRUE(ReadFile(s_out_lv) == s_idr_lv + s_p_lv);

  run_lv = RunTool(s_base_lv + " --table csv");
  ASSERT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  std::string s_csv_lv = ReadFile(s_out_lv);
  EXPECT_EQ(0u, s_csv_lv.find("time,time_text,type,key,size,number\n" + std::to_string(m_i64_t0) + ","));
  EXPECT_NE(std::string::npos, s_csv_lv.find(",35,1,"));
  EXPECT_NE(std::string::npos, s_csv_lv.find(",4096\n"));
  EXPECT_EQ(5, std::count(s_csv_lv.begin(), s_csv_lv.end(), '\n'));

  run_lv = RunTool(s_base_lv + " --table json");
  ASSERT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  std::string s_json_lv = ReadFile(s_out_lv);
  EXPECT_EQ('[', s_json_lv[0]);
  EXPECT_NE(std::string::npos, s_json_lv.find("\"key\": true, \"size\": "));
  EXPECT_EQ(4, std::count(s_json_lv.begin(), s_json_lv.end(), '{'));
}

TEST_F(ArchiveReaderTest, ToolListsVerifiesAndExplainsItself) {
  Frames(10);
  // A second session 60 s later: a gap in the list.
  ASSERT_EQ(0, L.GetHandleForWrite(&m_i_handle, 0, 0, 1, m_keys.m_keys, 0, 0, 1, 0));
  Frame(true, 0x3000, m_i64_t0 + 70 * TICKS_S, "late");
  L.CloseHandleWrite(m_i_handle);

  ToolRun run_lv = RunTool("list --root " + m_dir.m_s_path);
  ASSERT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find(Camera() + " video: 2 segments, 11 frames, 3 key frames"))
      << run_lv.m_s_output;
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("from " + warc::TimeText(m_i64_t0)));
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("(61.0 s)")) << run_lv.m_s_output;

  run_lv = RunTool("verify --root " + m_dir.m_s_path);
  EXPECT_EQ(0, run_lv.m_i_status) << run_lv.m_s_output;
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("archive OK"));
  ASSERT_EQ(0, truncate(Seg().c_str(), Size(Seg()) - 3));
  run_lv = RunTool("verify --root " + m_dir.m_s_path);
  EXPECT_EQ(1, run_lv.m_i_status);
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("damaged tail")) << run_lv.m_s_output;
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("archive DAMAGED"));
  EXPECT_EQ(0, RunTool("verify --repair --root " + m_dir.m_s_path).m_i_status);
  EXPECT_EQ(0, RunTool("verify --root " + m_dir.m_s_path).m_i_status);

  for (const char* s_cmd_lv : {"--help", "list --help", "export --help", "verify --help"}) {
    run_lv = RunTool(s_cmd_lv);
    EXPECT_EQ(0, run_lv.m_i_status) << s_cmd_lv;
    EXPECT_NE(std::string::npos, run_lv.m_s_output.find("usage: writer-archive")) << s_cmd_lv;
  }
  run_lv = RunTool("list --root " + m_dir.m_s_path + "/none");
  EXPECT_EQ(3, run_lv.m_i_status);
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("no archive at"));
  run_lv = RunTool("export --root " + m_dir.m_s_path + " --camera nobody --out /dev/null");
  EXPECT_EQ(3, run_lv.m_i_status);
  EXPECT_NE(std::string::npos, run_lv.m_s_output.find("no video of camera nobody"));
  EXPECT_EQ(2, RunTool("frobnicate").m_i_status);
  EXPECT_EQ(2, RunTool("export --camera x").m_i_status);
  EXPECT_EQ(2, RunTool("list --gap").m_i_status);
}

}  // namespace
