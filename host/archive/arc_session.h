// The process-wide state of the archive library: configuration, write
// sessions, streams, fault switches, statistics and the record of what the
// plug-in told it. Shared by the exported functions (arc_main.cpp) and the
// host-only functions (arc_host.cpp).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/archive/arc_config.h"
#include "host/archive/arc_store.h"
#include "include/host/archive_api.h"

#define ARC_EXPORT extern "C" __attribute__((visibility("default")))

namespace warc {

struct ArcSession {
  int32_t m_i_handle = -1;
  int64_t m_i64_id1 = 0, m_i64_id2 = 0, m_i64_id3 = 0;
  int64_t m_i64_storage_id = 0, m_i64_type_id = 0;
  std::string m_s_camera_dir;
  std::shared_ptr<const ArcConfig> m_p_config;
  // Streams by kind (1 video, 2 audio), made at the first frame of the kind.
  // Guarded by the table lock.
  std::shared_ptr<ArcStream> m_p_streams[3];
  bool m_b_streams_released = false;
  std::atomic<int32_t> m_b_open{1};
  std::atomic<int32_t> m_b_alive{1};
  std::atomic<int64_t> m_i64_error_state{0};
  std::atomic<int64_t> m_i64_close_request{0};
  std::atomic<int64_t> m_i64_last_write{0};
  std::atomic<int64_t> m_i64_frames{0}, m_i64_bytes{0}, m_i64_refused{0}, m_i64_failed{0};
  std::atomic<int64_t> m_i64_attempts{0};
  std::atomic<int64_t> m_b_depth_restrict{0}, m_i64_depth{0};
  // Fault switches of this session alone.
  std::atomic<int64_t> m_b_refuse{0}, m_i64_fail_one_in{0}, m_i64_delay_ms{0};
};

struct ArcGlobal {
  // Guards the tables below; never held across disk work.
  std::mutex m_mutex;
  std::shared_ptr<const ArcConfig> m_p_config;
  std::string m_s_last_error;
  std::map<int32_t, std::shared_ptr<ArcSession>> m_sessions;
  std::deque<int32_t> m_closed;  // closed handles kept for their statistics, oldest first
  std::map<std::string, std::shared_ptr<ArcStream>> m_streams;
  int32_t m_i_next_handle = 1;
  std::map<std::pair<int32_t, int64_t>, int64_t> m_set_values;
  std::map<std::pair<int32_t, int32_t>, int64_t> m_session_values;
  std::vector<ArchiveCall> m_calls;
  int64_t m_i64_call_seq = 0;
  std::map<int64_t, int64_t> m_no_write;  // camera id -> bit 1 video, bit 2 audio
  std::set<int64_t> m_missing_storages;   // -1 stands for all

  // Answers of the per-frame questions, read without the lock.
  std::atomic<int64_t> m_i64_not_ready_until{0};  // UTC ticks
  std::atomic<int64_t> m_b_increase_buffers{1}, m_i64_max_buffers{0};
  std::atomic<int64_t> m_i64_slot_ticks{1}, m_i64_slot_count{1};
  std::atomic<int64_t> m_b_restart_stalled{1}, m_b_audio_not_key{1};
  std::atomic<int64_t> m_b_marking_running{0}, m_b_marking_failed{0};
  // Fault switches for all sessions.
  std::atomic<int64_t> m_b_refuse_all{0}, m_i64_fail_one_in_all{0}, m_i64_delay_ms_all{0};
  std::atomic<int64_t> m_b_refuse_open{0};

  std::atomic<int64_t> m_i64_sessions_opened{0}, m_i64_sessions_closed{0}, m_i64_opens_refused{0};
  std::atomic<int64_t> m_i64_frames{0}, m_i64_bytes{0}, m_i64_refused{0}, m_i64_failed{0};
  std::atomic<int64_t> m_i64_segments_created{0}, m_i64_segments_deleted{0};
  // Time of each WriteDataForTime call, by ARCHIVE_LATENCY_BUCKETS bounds
  // (not cumulative here), with their sum.
  std::atomic<int64_t> m_latency[ARCHIVE_LATENCY_BUCKETS] = {};
  std::atomic<int64_t> m_i64_latency_sum_us{0};
};

extern const int64_t ARC_LATENCY_BOUNDS_US[ARCHIVE_LATENCY_BUCKETS];
// Counts one write call that took the given microseconds.
void AddWriteLatency(int64_t i64_us_av);

ArcGlobal& Global();

// The configuration in force; applies its answers to the lock-free copies.
// Call with the table lock held.
void ApplyConfigLocked(ArcGlobal* p_g_av, std::shared_ptr<const ArcConfig> p_config_av);
void RecordCallLocked(ArcGlobal* p_g_av, int32_t i_kind_av, int32_t i_code_av, int32_t i_handle_av, int64_t i64_id_av,
                      int64_t i64_value_av);
std::shared_ptr<ArcSession> FindSession(int32_t i_handle_av);
// Lets go of a session's streams; the segment of a stream nobody holds is
// closed. Idempotent.
void ReleaseStreams(ArcSession* p_session_av);
// Closes every session (as CloseHandleWrite would) and forgets the streams.
void CloseAllSessions();
void AddCounts(const StoreCounts& counts_av);

}  // namespace warc
