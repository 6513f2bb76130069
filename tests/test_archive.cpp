// The archive library as the plug-in uses it: loaded by name, frames written
// through its functions and read back with the tool's reading code; the
// question codes, the fault switches, statistics, configuration and depth.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "host/archive/arc_reader.h"
#include "tests/test_archive_util.h"

using namespace archive_test;

namespace {

const int64_t TICKS_S = 10000000;

struct Stored {
  int64_t m_i64_time;
  uint8_t m_ui_type;
  std::vector<uint8_t> m_block;
};

class ArchiveTest : public ::testing::Test {
 protected:
  static ArchiveLib s_lib;
  static void SetUpTestSuite() { s_lib.Load(); }

  ArchiveLib& L = s_lib;
  TempDir m_dir;

  void SetUp() override {
    if (L.m_h_lib == nullptr) GTEST_SKIP() << "library not loaded";
    L.reset();
    ASSERT_EQ(0, Configure(""));
    L.dll_init2(0);
  }
  void TearDown() override {
    if (L.m_h_lib != nullptr) {
      L.dll_free2(0);
      L.reset();
    }
    PlClockUseReal();
  }

  int32_t Configure(const std::string& s_more_av) {
    std::string s_json_lv = "{\"root\": \"" + m_dir.m_s_path + "\"" + s_more_av + "}";
    return L.configure(s_json_lv.c_str());
  }

  int32_t Open(const Keys& keys_av, int64_t i64_id3_av, int64_t i64_storage_av = 1) {
    int32_t i_handle_lv = -1;
    EXPECT_EQ(0, L.GetHandleForWrite(&i_handle_lv, 11, 22, i64_id3_av, keys_av.m_keys, 1, 54, i64_storage_av, 100));
    return i_handle_lv;
  }

  // Writes n frames, a key frame every tenth, one per step from t0.
  std::vector<Stored> Write(int32_t i_handle_av, int i_count_av, int64_t i64_t0_av, int64_t i64_step_av,
                            uint8_t ui_type_extra_av = 0) {
    std::vector<Stored> frames_lv;
    uint32_t ui_number_lv = 0;
    for (int i_lv = 0; i_lv < i_count_av; i_lv++) {
      bool b_key_lv = i_lv % 10 == 0;
      ui_number_lv = NextNumber(ui_number_lv, b_key_lv);
      int64_t i64_time_lv = i64_t0_av + i_lv * i64_step_av;
      std::string s_data_lv(100 + (i_lv * 37) % 500, static_cast<char>('a' + i_lv % 26));
      Stored frame_lv{i64_time_lv, static_cast<uint8_t>((b_key_lv ? 35 : 33) | ui_type_extra_av),
                      MakeBlock(b_key_lv, ui_number_lv, i64_time_lv, s_data_lv)};
      EXPECT_EQ(0, L.WriteDataForTime(i_handle_av, frame_lv.m_block.data(), static_cast<int32_t>(frame_lv.m_block.size()),
                                      frame_lv.m_ui_type, i64_time_lv));
      frames_lv.push_back(std::move(frame_lv));
    }
    return frames_lv;
  }

  warc::StreamRef Stream(const Keys& keys_av, const char* s_kind_av = "video", int64_t i64_storage_av = 1) {
    std::string s_camera_lv = "storage_" + std::to_string(i64_storage_av) + "/" + keys_av.Folder();
    for (const warc::StreamRef& stream_lv : warc::FindStreams(m_dir.m_s_path))
      if (stream_lv.m_s_camera == s_camera_lv && stream_lv.m_s_kind == s_kind_av) return stream_lv;
    ADD_FAILURE() << "no stream " << s_camera_lv << " " << s_kind_av;
    return warc::StreamRef();
  }

  std::vector<Stored> ReadBack(const warc::StreamRef& stream_av) {
    std::vector<Stored> frames_lv;
    std::string s_error_lv;
    EXPECT_TRUE(warc::ReadFrames(
        stream_av, 0, INT64_MAX,
        [&frames_lv](const warc::IndexEntry& entry_av, uint32_t, const uint8_t* pb_av) {
          frames_lv.push_back(Stored{entry_av.m_i64_time, entry_av.m_ui_type,
                                     std::vector<uint8_t>(pb_av, pb_av + entry_av.m_ui_size)});
        },
        &s_error_lv));
    return frames_lv;
  }

  void ExpectSame(const std::vector<Stored>& want_av, const std::vector<Stored>& got_av) {
    ASSERT_EQ(want_av.size(), got_av.size());
    for (size_t ui_lv = 0; ui_lv < want_av.size(); ui_lv++) {
      EXPECT_EQ(want_av[ui_lv].m_i64_time, got_av[ui_lv].m_i64_time) << ui_lv;
      EXPECT_EQ(want_av[ui_lv].m_ui_type, got_av[ui_lv].m_ui_type) << ui_lv;
      EXPECT_TRUE(want_av[ui_lv].m_block == got_av[ui_lv].m_block) << ui_lv;
    }
  }

  ArchiveStats Stats() {
    ArchiveStats stats_lv{};
    L.get_stats(&stats_lv);
    return stats_lv;
  }
};

ArchiveLib ArchiveTest::s_lib;

TEST_F(ArchiveTest, FramesComeBackByteForByteAndVerify) {
  Keys keys_lv("cam1");
  int32_t i_handle_lv = Open(keys_lv, 501);
  ASSERT_NE(-1, i_handle_lv);
  int64_t i64_t0_lv = NowLocal() / 10 * 10;
  std::vector<Stored> video_lv = Write(i_handle_lv, 50, i64_t0_lv, TICKS_S / 25);
  std::vector<Stored> audio_lv = Write(i_handle_lv, 20, i64_t0_lv, TICKS_S / 10, 64);
  EXPECT_EQ(0, L.CloseHandleWrite(i_handle_lv));

  ExpectSame(video_lv, ReadBack(Stream(keys_lv, "video")));
  ExpectSame(audio_lv, ReadBack(Stream(keys_lv, "audio")));
  warc::VerifyReport report_lv = warc::VerifyStream(Stream(keys_lv), false);
  EXPECT_EQ(0, report_lv.m_i_errors) << (report_lv.m_lines.empty() ? "" : report_lv.m_lines[0]);
  EXPECT_EQ(50u, report_lv.m_ui64_frames);
  struct stat st_lv;
  EXPECT_EQ(0, stat((m_dir.m_s_path + "/storage_1/" + keys_lv.Folder() + "/camera.txt").c_str(), &st_lv));
}

TEST_F(ArchiveTest, ManyThreadsWriteTheirOwnCamerasAtOnce) {
  const int THREADS = 4, FRAMES = 120;
  std::vector<std::unique_ptr<Keys>> keys_lv;
  for (int i_lv = 0; i_lv < THREADS; i_lv++) keys_lv.emplace_back(new Keys("cam" + std::to_string(i_lv)));
  std::vector<std::vector<Stored>> written_lv(THREADS);
  std::atomic<bool> b_done_lv{false};
  // A frame source's thread keeps asking the per-frame questions meanwhile.
  std::thread asker_lv([&] {
    while (!b_done_lv) {
      L.GetParamsByType(-1, -1, 34);
      L.GetParamsByType(-1, -1, 110);
      L.GetParamsByType(-1, -1, 112);
    }
  });
  std::vector<std::thread> threads_lv;
  for (int i_lv = 0; i_lv < THREADS; i_lv++)
    threads_lv.emplace_back([&, i_lv] {
      int32_t i_handle_lv = Open(*keys_lv[i_lv], 600 + i_lv);
      written_lv[i_lv] = Write(i_handle_lv, FRAMES, NowLocal() / 10 * 10, TICKS_S / 25);
      L.CloseHandleWrite(i_handle_lv);
    });
  for (auto& thread_lv : threads_lv) thread_lv.join();
  b_done_lv = true;
  asker_lv.join();
  for (int i_lv = 0; i_lv < THREADS; i_lv++) ExpectSame(written_lv[i_lv], ReadBack(Stream(*keys_lv[i_lv])));
  ArchiveStats stats_lv = Stats();
  EXPECT_EQ(THREADS * FRAMES, stats_lv.frames_written);
  EXPECT_EQ(THREADS, stats_lv.sessions_opened);
  EXPECT_EQ(THREADS, stats_lv.sessions_closed);
}

TEST_F(ArchiveTest, SegmentsCloseAtTheirSizeAndTimeBoundsAndPerSession) {
  ASSERT_EQ(0, Configure(", \"segment_max_bytes\": 4096, \"segment_max_seconds\": 2"));
  Keys keys_lv("cam1");
  int64_t i64_t0_lv = NowLocal() / 10 * 10;
  // 40 frames within 40 ms: only the size bound applies.
  int32_t i_handle_lv = Open(keys_lv, 1);
  std::vector<Stored> frames_lv = Write(i_handle_lv, 40, i64_t0_lv, 10000);
  L.CloseHandleWrite(i_handle_lv);
  warc::StreamRef stream_lv = Stream(keys_lv);
  ASSERT_GE(stream_lv.m_segs.size(), 3u);
  for (uint32_t ui_seq_lv : stream_lv.m_segs) {
    struct stat st_lv;
    ASSERT_EQ(0, stat((stream_lv.m_s_dir + "/" + warc::SegmentFileName(ui_seq_lv)).c_str(), &st_lv));
    EXPECT_LE(st_lv.st_size, 4096);
    if (ui_seq_lv != stream_lv.m_segs.back()) {
      EXPECT_GT(st_lv.st_size, 4096 - 700);  // full but for a frame
    }
  }
  // A new session starts a segment of its own, and frames a second apart
  // fill a two-second segment with two.
  size_t ui_first_lv = stream_lv.m_segs.size();
  i_handle_lv = Open(keys_lv, 1);
  std::vector<Stored> more_lv = Write(i_handle_lv, 6, i64_t0_lv + 50 * TICKS_S, TICKS_S);
  L.CloseHandleWrite(i_handle_lv);
  EXPECT_EQ(ui_first_lv + 3, Stream(keys_lv).m_segs.size());
  for (Stored& frame_lv : more_lv) frames_lv.push_back(std::move(frame_lv));
  ExpectSame(frames_lv, ReadBack(Stream(keys_lv)));
  EXPECT_EQ(static_cast<int64_t>(ui_first_lv + 3), Stats().segments_created);
}

TEST_F(ArchiveTest, SessionAnswersItsCodes) {
  PlClockUseManual(PL_UNIX_EPOCH_TICKS + 1700000000ull * TICKS_S);
  Keys keys_lv("cam1");
  int32_t i_handle_lv = Open(keys_lv, 777, 3);
  EXPECT_EQ(777, L.GetParamsByTypeReqWrite(i_handle_lv, 10));
  EXPECT_EQ(3, L.GetParamsByTypeReqWrite(i_handle_lv, 36));
  EXPECT_EQ(1, L.GetParamsByTypeReqWrite(i_handle_lv, 29));
  EXPECT_EQ(1, L.GetParamsByTypeReqWrite(i_handle_lv, 20));
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_handle_lv, 46));
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_handle_lv, 82));
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_handle_lv, 114));
  int64_t i64_before_lv = NowLocal();
  PlClockAdvance(3 * TICKS_S);
  Write(i_handle_lv, 1, i64_before_lv, 1);
  EXPECT_EQ(i64_before_lv + 3 * TICKS_S, L.GetParamsByTypeReqWrite(i_handle_lv, 114));

  // The plug-in asks code 29 even of the invalid handle, and must hear 0.
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(-1, 29));
  EXPECT_EQ(0, L.CloseHandleWrite(i_handle_lv));
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_handle_lv, 29));
  EXPECT_EQ(ARCHIVE_E_BAD_HANDLE, L.CloseHandleWrite(i_handle_lv));
  uint8_t pb_lv[40] = {};
  EXPECT_EQ(ARCHIVE_E_BAD_HANDLE, L.WriteDataForTime(i_handle_lv, pb_lv, 40, 35, 0));
  int32_t i_out_lv = 5;
  EXPECT_EQ(ARCHIVE_E_BAD_ARG, L.GetHandleForWrite(nullptr, 0, 0, 0, keys_lv.m_keys, 0, 0, 1, 0));
  EXPECT_EQ(0, L.GetHandleForWrite(&i_out_lv, 0, 0, 0, nullptr, 0, 0, 1, 0));  // keys may be missing
  EXPECT_EQ(ARCHIVE_E_BAD_ARG, L.WriteDataForTime(i_out_lv, nullptr, 10, 35, 0));
  EXPECT_EQ(ARCHIVE_E_BAD_ARG, L.WriteDataForTime(i_out_lv, pb_lv, 0, 35, 0));
}

TEST_F(ArchiveTest, LibraryAnswersItsCodesFromConfigurationAndClock) {
  PlClockUseManual(PL_UNIX_EPOCH_TICKS + 1700000000ull * TICKS_S);
  ASSERT_EQ(0, Configure(", \"increase_write_buffers\": 0, \"max_buffers_bytes\": 12345, \"restart_stalled\": 0,"
                         " \"slot_ms\": 1000, \"slot_count\": 50, \"ready_delay_ms\": 5000,"
                         " \"storages\": [{\"id\": 7, \"path\": \"" + m_dir.m_s_path + "/s7\"}]"));
  L.dll_init2(0);
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 111));
  EXPECT_EQ(12345, L.GetParamsByType(-1, -1, 112));
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 116));
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 84));
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 34));
  PlClockAdvance(5 * TICKS_S);
  EXPECT_EQ(1, L.GetParamsByType(-1, -1, 84));
  EXPECT_EQ(1, L.GetParamsByType(-1, -1, 34));

  int64_t i64_slot_lv = L.GetParamsByType(-1, -1, 110);
  PlClockAdvance(TICKS_S);
  EXPECT_EQ((i64_slot_lv + 1) % 50, L.GetParamsByType(-1, -1, 110));
  PlClockAdvance(50 * TICKS_S);
  EXPECT_EQ((i64_slot_lv + 1) % 50, L.GetParamsByType(-1, -1, 110));

  // Storage 7 has its own folder, not made yet; others live in the root.
  EXPECT_EQ(0, L.GetParamsByType(7, -1, 115));
  EXPECT_EQ(1, L.GetParamsByType(8, -1, 115));
  Keys keys_lv("cam1");
  int32_t i_handle_lv = Open(keys_lv, 1, 7);
  EXPECT_EQ(1, L.GetParamsByType(7, -1, 115));
  L.CloseHandleWrite(i_handle_lv);
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 999));
}

TEST_F(ArchiveTest, RecordsWhatThePluginTellsIt) {
  Keys keys_lv("cam1");
  EXPECT_EQ(0, L.AddCameraInfo(keys_lv.m_keys, 42, 22, 54, 1, 1, 100));
  L.SetParamsByType(64, 42, 1);
  L.SetParamsByType(65, 42, -60);
  L.SetParamsByType(65, 42, -61);
  int32_t i_handle_lv = Open(keys_lv, 42);
  EXPECT_EQ(1, L.SetParamsByTypeReqWrite(i_handle_lv, 122, 1));
  EXPECT_EQ(0, L.SetParamsByTypeReqWrite(i_handle_lv + 1000, 122, 1));  // no such session
  L.CloseHandleWrite(i_handle_lv);

  int64_t i64_lv = 0;
  EXPECT_EQ(1, L.last_set(65, 42, &i64_lv));
  EXPECT_EQ(-61, i64_lv);
  EXPECT_EQ(0, L.last_set(65, 43, &i64_lv));
  EXPECT_EQ(1, L.last_set_session(i_handle_lv, 122, &i64_lv));
  EXPECT_EQ(1, i64_lv);

  ArchiveCall calls_lv[16];
  int32_t i_n_lv = L.call_log(calls_lv, 16, 0);
  // dll_init2 of SetUp, then the calls in order.
  ASSERT_EQ(9, i_n_lv);
  const int32_t pi_kinds_lv[] = {ARCHIVE_CALL_INIT, ARCHIVE_CALL_ADD_CAMERA, ARCHIVE_CALL_SET, ARCHIVE_CALL_SET,
                                 ARCHIVE_CALL_SET,  ARCHIVE_CALL_OPEN,       ARCHIVE_CALL_SET_SESSION,
                                 ARCHIVE_CALL_SET_SESSION, ARCHIVE_CALL_CLOSE};
  for (int i_lv = 0; i_lv < i_n_lv; i_lv++) {
    EXPECT_EQ(pi_kinds_lv[i_lv], calls_lv[i_lv].kind) << i_lv;
    EXPECT_EQ(i_lv + 1, calls_lv[i_lv].seq);
  }
  EXPECT_EQ(65, calls_lv[3].code);
  EXPECT_EQ(-60, calls_lv[3].value);
  EXPECT_EQ(i_handle_lv, calls_lv[5].handle);
  EXPECT_EQ(2, L.call_log(calls_lv, 16, 7));
  // The log keeps the latest calls only.
  for (int i_lv = 0; i_lv < ARCHIVE_CALL_LOG_SIZE + 10; i_lv++) L.SetParamsByType(126, -1, i_lv & 1);
  EXPECT_EQ(16, L.call_log(calls_lv, 16, 0));
  EXPECT_EQ(ARCHIVE_CALL_LOG_SIZE + 10 + 9 - ARCHIVE_CALL_LOG_SIZE + 1, calls_lv[0].seq);
}

TEST_F(ArchiveTest, RefusedAndFailedWritesLoseTheFrameAndCount) {
  Keys keys_lv("cam1");
  ArchiveWriteLatency before_lv{};
  ASSERT_EQ(0, L.get_write_latency(&before_lv));
  int32_t i_handle_lv = Open(keys_lv, 1);
  std::vector<uint8_t> block_lv = MakeBlock(true, 0x1000, 0, "x");
  auto write_lv = [&] { return L.WriteDataForTime(i_handle_lv, block_lv.data(), static_cast<int32_t>(block_lv.size()), 35, 0); };
  EXPECT_EQ(0, L.fault(ARCHIVE_FAULT_REFUSE_WRITES, -1, 1));
  EXPECT_EQ(ARCHIVE_E_REFUSED, write_lv());
  EXPECT_EQ(0, L.fault(ARCHIVE_FAULT_REFUSE_WRITES, -1, 0));
  EXPECT_EQ(0, L.fault(ARCHIVE_FAULT_REFUSE_WRITES, i_handle_lv, 1));
  EXPECT_EQ(ARCHIVE_E_REFUSED, write_lv());
  EXPECT_EQ(0, L.fault(ARCHIVE_FAULT_REFUSE_WRITES, i_handle_lv, 0));
  EXPECT_EQ(0, L.fault(ARCHIVE_FAULT_FAIL_ONE_IN, -1, 3));
  int i_failed_lv = 0;
  for (int i_lv = 0; i_lv < 9; i_lv++) i_failed_lv += write_lv() == ARCHIVE_E_IO ? 1 : 0;
  EXPECT_EQ(3, i_failed_lv);
  // An injected failure is a lost frame, not a session in error.
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_handle_lv, 82));
  L.fault(ARCHIVE_FAULT_CLEAR_ALL, -1, 0);
  EXPECT_EQ(0, write_lv());

  ArchiveSessionStats session_lv{};
  ASSERT_EQ(0, L.get_session_stats(i_handle_lv, &session_lv));
  EXPECT_EQ(7, session_lv.frames_written);
  EXPECT_EQ(7 * static_cast<int64_t>(block_lv.size()), session_lv.bytes_written);
  EXPECT_EQ(2, session_lv.writes_refused);
  EXPECT_EQ(3, session_lv.writes_failed);
  EXPECT_EQ(1, session_lv.open);
  ArchiveStats stats_lv = Stats();
  EXPECT_EQ(7, stats_lv.frames_written);
  EXPECT_EQ(2, stats_lv.writes_refused);
  EXPECT_EQ(3, stats_lv.writes_failed);
  EXPECT_EQ(7u, ReadBack(Stream(keys_lv)).size());
  // Per stream only what was stored; every call, refused or not, is timed.
  ArchiveStreamStats stream_lv{};
  ASSERT_EQ(0, L.get_stream_stats(0, &stream_lv));
  EXPECT_EQ(-1, L.get_stream_stats(1, &stream_lv));
  ASSERT_EQ(0, L.get_stream_stats(0, &stream_lv));
  EXPECT_EQ(Stream(keys_lv).m_s_camera.substr(Stream(keys_lv).m_s_camera.rfind('/') + 1), stream_lv.camera_folder);
  EXPECT_EQ(1, stream_lv.kind);
  EXPECT_EQ(7, stream_lv.frames_written);
  EXPECT_EQ(7 * static_cast<int64_t>(block_lv.size()), stream_lv.bytes_written);
  ArchiveWriteLatency after_lv{};
  ASSERT_EQ(0, L.get_write_latency(&after_lv));
  EXPECT_EQ(12, after_lv.count - before_lv.count);
  EXPECT_EQ(after_lv.count, after_lv.count_le[ARCHIVE_LATENCY_BUCKETS - 1]);
  for (int i_lv = 1; i_lv < ARCHIVE_LATENCY_BUCKETS; i_lv++) {
    EXPECT_LE(after_lv.count_le[i_lv - 1], after_lv.count_le[i_lv]);
    EXPECT_LT(after_lv.bound_us[i_lv - 1], after_lv.bound_us[i_lv]);
  }
  L.CloseHandleWrite(i_handle_lv);
  ASSERT_EQ(0, L.get_session_stats(i_handle_lv, &session_lv));  // still readable after the close
  EXPECT_EQ(0, session_lv.open);
}

TEST_F(ArchiveTest, SlowWritesTakeTheirDelay) {
  Keys keys_lv("cam1");
  int32_t i_handle_lv = Open(keys_lv, 1);
  std::vector<uint8_t> block_lv = MakeBlock(true, 0x1000, 0, "x");
  L.fault(ARCHIVE_FAULT_WRITE_DELAY_MS, i_handle_lv, 30);
  auto start_lv = std::chrono::steady_clock::now();
  EXPECT_EQ(0, L.WriteDataForTime(i_handle_lv, block_lv.data(), static_cast<int32_t>(block_lv.size()), 35, 0));
  EXPECT_GE(std::chrono::steady_clock::now() - start_lv, std::chrono::milliseconds(30));
}

TEST_F(ArchiveTest, SessionSwitchesEndErrorAndCloseRequest) {
  Keys keys_lv("cam1"), other_lv("cam2");
  int32_t i_handle_lv = Open(keys_lv, 1);
  int32_t i_other_lv = Open(other_lv, 2);
  L.fault(ARCHIVE_FAULT_ERROR_STATE, i_handle_lv, 5);
  L.fault(ARCHIVE_FAULT_CLOSE_REQUEST, i_handle_lv, 1);
  EXPECT_EQ(5, L.GetParamsByTypeReqWrite(i_handle_lv, 82));
  EXPECT_EQ(1, L.GetParamsByTypeReqWrite(i_handle_lv, 46));
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_other_lv, 82));

  L.fault(ARCHIVE_FAULT_END_SESSION, i_handle_lv, 1);
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_handle_lv, 29));
  EXPECT_EQ(1, L.GetParamsByTypeReqWrite(i_other_lv, 29));
  std::vector<uint8_t> block_lv = MakeBlock(true, 0x1000, 0, "x");
  EXPECT_EQ(ARCHIVE_E_ENDED, L.WriteDataForTime(i_handle_lv, block_lv.data(), static_cast<int32_t>(block_lv.size()), 35, 0));
  // The plug-in forgets an ended session without closing it, and opens anew.
  int32_t i_new_lv = Open(keys_lv, 1);
  EXPECT_NE(i_handle_lv, i_new_lv);
  EXPECT_EQ(1, L.GetParamsByTypeReqWrite(i_new_lv, 29));
  L.fault(ARCHIVE_FAULT_END_SESSION, -1, 1);
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_new_lv, 29));
  EXPECT_EQ(0, L.GetParamsByTypeReqWrite(i_other_lv, 29));
}

TEST_F(ArchiveTest, LibrarySwitchesReadinessStorageMarkingNoWriteAndOpen) {
  PlClockUseManual(PL_UNIX_EPOCH_TICKS + 1700000000ull * TICKS_S);
  L.fault(ARCHIVE_FAULT_NOT_READY_MS, -1, 2000);
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 84));
  PlClockAdvance(2 * TICKS_S);
  EXPECT_EQ(1, L.GetParamsByType(-1, -1, 84));
  L.fault(ARCHIVE_FAULT_NOT_READY_MS, -1, -1);
  PlClockAdvance(1000000 * TICKS_S);
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 34));
  L.fault(ARCHIVE_FAULT_NOT_READY_MS, -1, 0);
  EXPECT_EQ(1, L.GetParamsByType(-1, -1, 34));

  EXPECT_EQ(1, L.GetParamsByType(4, -1, 115));
  L.fault(ARCHIVE_FAULT_STORAGE_MISSING, 4, 1);
  EXPECT_EQ(0, L.GetParamsByType(4, -1, 115));
  EXPECT_EQ(1, L.GetParamsByType(5, -1, 115));
  L.fault(ARCHIVE_FAULT_STORAGE_MISSING, -1, 1);
  EXPECT_EQ(0, L.GetParamsByType(5, -1, 115));

  L.fault(ARCHIVE_FAULT_MARKING_RUNNING, -1, 1);
  L.fault(ARCHIVE_FAULT_MARKING_FAILED, -1, 1);
  EXPECT_EQ(1, L.GetParamsByType(-1, -1, 128));
  EXPECT_EQ(1, L.GetParamsByType(-1, -1, 129));

  L.fault(ARCHIVE_FAULT_NO_WRITE, 42, 2);
  EXPECT_EQ(0, L.GetParamsByType(42, -1, 85));
  EXPECT_EQ(1, L.GetParamsByType(42, -1, 107));
  EXPECT_EQ(0, L.GetParamsByType(43, -1, 107));

  L.fault(ARCHIVE_FAULT_REFUSE_OPEN, -1, 1);
  Keys keys_lv("cam1");
  int32_t i_handle_lv = 9;
  EXPECT_EQ(ARCHIVE_E_REFUSED, L.GetHandleForWrite(&i_handle_lv, 0, 0, 1, keys_lv.m_keys, 0, 0, 1, 0));
  EXPECT_EQ(-1, i_handle_lv);
  EXPECT_EQ(1, Stats().opens_refused);

  L.fault(ARCHIVE_FAULT_CLEAR_ALL, -1, 0);
  EXPECT_EQ(0, L.GetParamsByType(-1, -1, 128));
  EXPECT_EQ(0, L.GetParamsByType(42, -1, 107));
  EXPECT_EQ(1, L.GetParamsByType(5, -1, 115));
  EXPECT_NE(-1, Open(keys_lv, 1));
  EXPECT_EQ(ARCHIVE_E_BAD_ARG, L.fault(99, -1, 1));
}

// A channel asks its question and then, on its own thread, makes sure of
// its session and writes: so each question is settled by what that thread
// did before the channel's next one, and a write with no question of its
// own is the pre-event ring's, handing on an older frame.
TEST_F(ArchiveTest, EachFrameAskedAboutIsSettledByWhatItsChannelDidNext) {
  Keys keys_lv("door");
  L.AddCameraInfo(keys_lv.m_keys, 77, 2, 54, 1, 1, 100);
  int64_t i64_id_lv = 0;
  ASSERT_EQ(0, L.camera_id(keys_lv.Folder().c_str(), &i64_id_lv));
  EXPECT_EQ(77, i64_id_lv);
  EXPECT_EQ(-1, L.camera_id("srv_nobody_main", &i64_id_lv));
  std::vector<uint8_t> block_lv = MakeBlock(true, 0x1000, 10, "frame");
  auto write = [&](int32_t i_handle_av) {
    return L.WriteDataForTime(i_handle_av, block_lv.data(), static_cast<int32_t>(block_lv.size()), 35, 10);
  };
  EXPECT_EQ(0, L.GetParamsByType(77, -1, 85));
  int32_t i_handle_lv = Open(keys_lv, 77);
  EXPECT_EQ(0, write(i_handle_lv));  // stored after its question
  L.fault(ARCHIVE_FAULT_REFUSE_OPEN, -1, 1);
  L.GetParamsByType(77, -1, 85);
  int32_t i_refused_lv = -1;
  L.GetHandleForWrite(&i_refused_lv, 11, 22, 77, keys_lv.m_keys, 1, 54, 1, 100);  // no session
  L.fault(ARCHIVE_FAULT_REFUSE_OPEN, -1, 0);
  L.GetParamsByType(77, -1, 85);  // nothing at all, as in the pause after a refused open: no session
  L.GetParamsByType(77, -1, 85);
  L.GetParamsByTypeReqWrite(-1, 29);
  EXPECT_EQ(1, L.GetParamsByTypeReqWrite(i_handle_lv, 29));  // a session and no write: the ring took it
  L.GetParamsByType(77, -1, 85);
  L.GetParamsByTypeReqWrite(i_handle_lv, 29);
  L.fault(ARCHIVE_FAULT_FAIL_ONE_IN, -1, 3);  // the session's third write fails
  EXPECT_EQ(0, write(i_handle_lv));          // its own write
  EXPECT_EQ(ARCHIVE_E_IO, write(i_handle_lv));  // the ring's
  L.fault(ARCHIVE_FAULT_CLEAR_ALL, -1, 0);
  L.fault(ARCHIVE_FAULT_NO_WRITE, 77, 1);
  EXPECT_EQ(1, L.GetParamsByType(77, -1, 85));
  EXPECT_EQ(0, L.GetParamsByType(77, -1, 107));  // the audio channel on this thread now
  L.fault(ARCHIVE_FAULT_REFUSE_WRITES, -1, 1);
  EXPECT_EQ(ARCHIVE_E_REFUSED,
            L.WriteDataForTime(i_handle_lv, block_lv.data(), static_cast<int32_t>(block_lv.size()), 65, 10));
  L.GetParamsByType(77, -1, 107);
  L.GetParamsByTypeReqWrite(i_handle_lv, 29);  // the last question: with a session, not settled yet

  // Channels stay listed, so that others of earlier tests come first.
  auto channel = [&](int32_t i_kind_av) {
    ArchiveChannelStats st_lv;
    for (int32_t i_lv = 0; L.channel_stats(i_lv, &st_lv) == 0; i_lv++)
      if (st_lv.camera_id == 77 && st_lv.kind == i_kind_av) return st_lv;
    ADD_FAILURE() << "no channel of kind " << i_kind_av;
    return st_lv;
  };
  ArchiveChannelStats video_lv = channel(1), audio_lv = channel(2);
  EXPECT_EQ(keys_lv.Folder(), video_lv.camera_folder);
  EXPECT_EQ(1, video_lv.kind);
  EXPECT_EQ(6, video_lv.asked);
  EXPECT_EQ(1, video_lv.no_write);
  EXPECT_EQ(2, video_lv.no_session);
  EXPECT_EQ(1, video_lv.held);
  EXPECT_EQ(2, video_lv.stored);
  EXPECT_EQ(1, video_lv.later_failed);
  EXPECT_EQ(0, video_lv.pending);
  EXPECT_EQ(2, audio_lv.kind);
  EXPECT_EQ(2, audio_lv.asked);
  EXPECT_EQ(1, audio_lv.refused);
  EXPECT_EQ(2, audio_lv.pending);
  EXPECT_EQ(8, Stats().frames_asked);

  // The readiness answers count for the thread that asks.
  ArchiveThreadCounts before_lv, after_lv;
  L.thread_counts(&before_lv);
  L.GetParamsByType(-1, -1, 34);
  L.fault(ARCHIVE_FAULT_NOT_READY_MS, -1, -1);
  L.GetParamsByType(-1, -1, 34);
  L.GetParamsByType(-1, -1, 84);
  std::thread([&] { L.GetParamsByType(-1, -1, 34); }).join();
  L.thread_counts(&after_lv);
  EXPECT_EQ(1, after_lv.ready_answers - before_lv.ready_answers);
  EXPECT_EQ(1, after_lv.not_ready_answers - before_lv.not_ready_answers);
  L.reset();
  video_lv = channel(1);
  EXPECT_EQ(0, video_lv.asked + video_lv.stored);
}

TEST_F(ArchiveTest, BadConfigurationIsRefusedAndTheOldOneStays) {
  ASSERT_EQ(0, Configure(", \"max_buffers_bytes\": 777"));
  const char* pp_bad_lv[] = {"{\"root\": ", "[1, 2]", "{\"segment_max_bytes\": \"big\"}", "{\"no_such_key\": 1}",
                             "{\"storages\": [{\"id\": 1}]}", "{\"slot_count\": 0}", "{\"sync\": 1}", ""};
  for (const char* s_bad_lv : pp_bad_lv) {
    EXPECT_EQ(ARCHIVE_E_CONFIG, L.configure(s_bad_lv)) << s_bad_lv;
    EXPECT_STRNE("", L.last_error()) << s_bad_lv;
  }
  EXPECT_EQ(777, L.GetParamsByType(-1, -1, 112));
  Keys keys_lv("cam1");
  int32_t i_handle_lv = Open(keys_lv, 1);
  EXPECT_EQ(ARCHIVE_E_BUSY, Configure(""));
  L.CloseHandleWrite(i_handle_lv);
  EXPECT_EQ(0, Configure(""));
  EXPECT_STREQ("", L.last_error());
}

TEST_F(ArchiveTest, CameraFoldersAreSafeAndDistinct) {
  Keys plain_lv("cam1"), slash_lv("../cam/1"), colon_lv("..:cam:1");
  for (Keys* p_keys_lv : {&plain_lv, &slash_lv, &colon_lv}) {
    int32_t i_handle_lv = Open(*p_keys_lv, 1);
    Write(i_handle_lv, 1, 0, 1);
    L.CloseHandleWrite(i_handle_lv);
  }
  std::vector<warc::StreamRef> streams_lv = warc::FindStreams(m_dir.m_s_path);
  ASSERT_EQ(3u, streams_lv.size());
  for (const warc::StreamRef& stream_lv : streams_lv) {
    EXPECT_EQ(0u, stream_lv.m_s_camera.find("storage_1/srv_")) << stream_lv.m_s_camera;
    // One folder level below the storage, whatever the keys held.
    EXPECT_EQ(std::string::npos, stream_lv.m_s_camera.find('/', 10)) << stream_lv.m_s_camera;
  }
  EXPECT_NE(streams_lv[1].m_s_camera, streams_lv[2].m_s_camera);
}

TEST_F(ArchiveTest, DepthRemovesOnlyWholeClosedSegmentsPastIt) {
  PlClockUseManual(PL_UNIX_EPOCH_TICKS + 1700000000ull * TICKS_S);
  ASSERT_EQ(0, Configure(", \"segment_max_seconds\": 10"));
  Keys keys_lv("cam1");
  int32_t i_handle_lv = Open(keys_lv, 1);
  int64_t i64_now_lv = NowLocal();
  // Frames from 100 s ago to 41 s ago, one a second: six segments of ten.
  std::vector<Stored> frames_lv = Write(i_handle_lv, 60, i64_now_lv - 100 * TICKS_S, TICKS_S);
  ASSERT_EQ(6u, Stream(keys_lv).m_segs.size());
  // Depth without the restriction deletes nothing.
  L.SetParamsByTypeReqWrite(i_handle_lv, 71, 60 * TICKS_S);
  EXPECT_EQ(6u, Stream(keys_lv).m_segs.size());
  L.SetParamsByTypeReqWrite(i_handle_lv, 70, 1);
  std::vector<Stored> kept_lv = ReadBack(Stream(keys_lv));
  ASSERT_EQ(20u, kept_lv.size());
  EXPECT_EQ(i64_now_lv - 60 * TICKS_S, kept_lv.front().m_i64_time);
  EXPECT_EQ(4, Stats().segments_deleted);

  // Later, the open segment is past the depth too, but stays while open.
  PlClockAdvance(30 * TICKS_S);
  L.SetParamsByTypeReqWrite(i_handle_lv, 71, 60 * TICKS_S);
  kept_lv = ReadBack(Stream(keys_lv));
  ASSERT_EQ(10u, kept_lv.size());
  EXPECT_EQ(i64_now_lv - 50 * TICKS_S, kept_lv.front().m_i64_time);
  // The next frame closes it, and it goes.
  Write(i_handle_lv, 1, NowLocal(), 1);
  EXPECT_EQ(1u, ReadBack(Stream(keys_lv)).size());
  EXPECT_EQ(6, Stats().segments_deleted);
}

// Writes frames until killed; run in a forked child.
[[noreturn]] void WriteForever(ArchiveLib& lib_av, const Keys& keys_av) {
  int32_t i_handle_lv = -1;
  lib_av.GetHandleForWrite(&i_handle_lv, 0, 0, 1, keys_av.m_keys, 0, 0, 1, 0);
  uint32_t ui_number_lv = 0;
  for (int i_lv = 0;; i_lv++) {
    bool b_key_lv = i_lv % 25 == 0;
    ui_number_lv = NextNumber(ui_number_lv, b_key_lv);
    int64_t i64_time_lv = NowLocal() / 10 * 10;
    std::vector<uint8_t> block_lv = MakeBlock(b_key_lv, ui_number_lv, i64_time_lv, std::string(20000 + i_lv % 777, 'k'));
    lib_av.WriteDataForTime(i_handle_lv, block_lv.data(), static_cast<int32_t>(block_lv.size()), b_key_lv ? 35 : 33,
                            i64_time_lv);
  }
}

// A record cut in the middle, as a write interrupted by a power cut leaves.
void AppendHalfRecord(const std::string& s_seg_av) {
  FILE* p_file_lv = fopen(s_seg_av.c_str(), "ab");
  ASSERT_NE(nullptr, p_file_lv);
  const uint8_t pb_half_lv[] = {0x57, 0x46, 0x52, 0x31, 0x00, 0x10, 0x00, 0x00, 1, 2, 3};
  fwrite(pb_half_lv, 1, sizeof(pb_half_lv), p_file_lv);
  fclose(p_file_lv);
}

TEST_F(ArchiveTest, KilledWriterLeavesAnArchiveThatVerifiesAfterItsTailIsCut) {
  Keys keys_lv("cam1");
  std::string s_seg_lv = m_dir.m_s_path + "/storage_1/" + keys_lv.Folder() + "/video/00000001.wseg";
  pid_t pid_lv = fork();
  ASSERT_GE(pid_lv, 0);
  if (pid_lv == 0) WriteForever(L, keys_lv);
  struct stat st_lv{};
  for (int i_lv = 0; i_lv < 1000 && (stat(s_seg_lv.c_str(), &st_lv) != 0 || st_lv.st_size < 400000); i_lv++)
    PlSleep(5);
  kill(pid_lv, SIGKILL);
  int i_status_lv = 0;
  waitpid(pid_lv, &i_status_lv, 0);
  ASSERT_GE(st_lv.st_size, 400000) << "the child wrote too little";

  // Whatever the kill hit, add a record cut in the middle.
  AppendHalfRecord(s_seg_lv);
  warc::StreamRef stream_lv = Stream(keys_lv);
  size_t ui_frames_lv = ReadBack(stream_lv).size();
  EXPECT_GT(ui_frames_lv, 10u);
  // The damaged tail is the one error: an index that only lags is not.
  EXPECT_EQ(1, warc::VerifyStream(stream_lv, false).m_i_errors);

  // The index goes out in batches, so the kill may have taken some of its
  // entries: a repair puts every one back, and no frame is lost.
  std::string s_idx_lv = s_seg_lv.substr(0, s_seg_lv.size() - 4) + "widx";
  ASSERT_EQ(0, stat(s_idx_lv.c_str(), &st_lv));
  EXPECT_LE(static_cast<size_t>(st_lv.st_size), ui_frames_lv * warc::IDX_ENTRY_SIZE);
  EXPECT_EQ(0, warc::VerifyStream(stream_lv, true).m_i_errors);
  warc::VerifyReport repaired_lv = warc::VerifyStream(stream_lv, false);
  EXPECT_EQ(0, repaired_lv.m_i_errors) << (repaired_lv.m_lines.empty() ? "" : repaired_lv.m_lines[0]);
  EXPECT_EQ(ui_frames_lv, repaired_lv.m_ui64_frames);
  ASSERT_EQ(0, stat(s_idx_lv.c_str(), &st_lv));
  EXPECT_EQ(static_cast<off_t>(ui_frames_lv * warc::IDX_ENTRY_SIZE), st_lv.st_size);
  AppendHalfRecord(s_seg_lv);

  // The next session of the camera cuts the tail before it appends.
  int32_t i_handle_lv = Open(keys_lv, 1);
  std::vector<uint8_t> block_lv = MakeBlock(true, 0x7000000, NowLocal() / 10 * 10, "after");
  EXPECT_EQ(0, L.WriteDataForTime(i_handle_lv, block_lv.data(), static_cast<int32_t>(block_lv.size()), 35,
                                  NowLocal() / 10 * 10));
  L.CloseHandleWrite(i_handle_lv);
  stream_lv = Stream(keys_lv);
  warc::VerifyReport report_lv = warc::VerifyStream(stream_lv, false);
  EXPECT_EQ(0, report_lv.m_i_errors) << (report_lv.m_lines.empty() ? "" : report_lv.m_lines[0]);
  EXPECT_EQ(ui_frames_lv + 1, report_lv.m_ui64_frames);
}

}  // namespace
