// Host-only functions of the archive library: configuration, reset, fault
// switches, statistics and the record of what the plug-in told the archive.
// Called by the reference host program and by the tests.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host/archive/arc_account.h"
#include "host/archive/arc_session.h"
#include "platform/pl_clock.h"

using namespace warc;

namespace {

// Sets a switch for one session, or for all when the id is -1.
void SetSessionSwitch(int64_t i64_handle_av, int64_t i64_value_av, std::atomic<int64_t> ArcSession::*p_field_av,
                      std::atomic<int64_t>* p_all_av) {
  if (i64_handle_av == -1 && p_all_av != nullptr) {
    *p_all_av = i64_value_av;
    return;
  }
  std::shared_ptr<ArcSession> p_session_lv = FindSession(static_cast<int32_t>(i64_handle_av));
  if (p_session_lv) (*p_session_lv).*p_field_av = i64_value_av;
}

void EndSessions(int64_t i64_handle_av, int64_t i64_value_av) {
  std::vector<std::shared_ptr<ArcSession>> ended_lv;
  {
    ArcGlobal& g_lv = Global();
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    for (auto& item_lv : g_lv.m_sessions)
      if (i64_handle_av == -1 || item_lv.first == i64_handle_av) ended_lv.push_back(item_lv.second);
  }
  for (auto& p_session_lv : ended_lv) {
    p_session_lv->m_b_alive = i64_value_av != 0 ? 0 : 1;
    // An ended session is forgotten by the plug-in without a close.
    if (i64_value_av != 0) ReleaseStreams(p_session_lv.get());
  }
}

void ClearFaultsLocked(ArcGlobal* p_g_av) {
  p_g_av->m_i64_not_ready_until = 0;
  p_g_av->m_b_marking_running = 0;
  p_g_av->m_b_marking_failed = 0;
  p_g_av->m_b_refuse_all = 0;
  p_g_av->m_i64_fail_one_in_all = 0;
  p_g_av->m_i64_delay_ms_all = 0;
  p_g_av->m_b_refuse_open = 0;
  p_g_av->m_no_write.clear();
  p_g_av->m_missing_storages.clear();
  for (auto& item_lv : p_g_av->m_sessions) {
    item_lv.second->m_b_refuse = 0;
    item_lv.second->m_i64_fail_one_in = 0;
    item_lv.second->m_i64_delay_ms = 0;
  }
}

int32_t FaultLocked(ArcGlobal* p_g_av, int32_t fault, int64_t id, int64_t value) {
  switch (fault) {
    case ARCHIVE_FAULT_CLEAR_ALL:
      ClearFaultsLocked(p_g_av);
      return 0;
    case ARCHIVE_FAULT_NOT_READY_MS:
      p_g_av->m_i64_not_ready_until =
          value < 0 ? INT64_MAX
                    : static_cast<int64_t>(PlFileTimeUtc()) + value * static_cast<int64_t>(PL_TICKS_PER_MS);
      return 0;
    case ARCHIVE_FAULT_STORAGE_MISSING:
      if (value != 0)
        p_g_av->m_missing_storages.insert(id);
      else
        p_g_av->m_missing_storages.erase(id);
      return 0;
    case ARCHIVE_FAULT_MARKING_RUNNING:
      p_g_av->m_b_marking_running = value;
      return 0;
    case ARCHIVE_FAULT_MARKING_FAILED:
      p_g_av->m_b_marking_failed = value;
      return 0;
    case ARCHIVE_FAULT_NO_WRITE:
      p_g_av->m_no_write[id] = value;
      return 0;
    case ARCHIVE_FAULT_REFUSE_OPEN:
      p_g_av->m_b_refuse_open = value;
      return 0;
    default:
      return ARCHIVE_E_BAD_ARG;
  }
}

}  // namespace

ARC_EXPORT int32_t archive_configure(const char* json) {
  ArcGlobal& g_lv = Global();
  ArcConfig config_lv = DefaultConfig();
  std::string s_error_lv;
  if (json != nullptr && !ParseConfig(json, &config_lv, &s_error_lv)) {
    fprintf(stderr, "warchive: bad configuration: %s\n", s_error_lv.c_str());
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    g_lv.m_s_last_error = s_error_lv;
    return ARCHIVE_E_CONFIG;
  }
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  for (auto& item_lv : g_lv.m_sessions)
    if (item_lv.second->m_b_open != 0 && item_lv.second->m_b_alive != 0) {
      g_lv.m_s_last_error = "sessions are open";
      fprintf(stderr, "warchive: configuration refused: sessions are open\n");
      return ARCHIVE_E_BUSY;
    }
  // Streams of the old root must not be reused under the new one.
  for (auto& item_lv : g_lv.m_streams)
    if (item_lv.second->m_i_users == 0) {
      std::lock_guard<std::mutex> stream_lock_lv(item_lv.second->m_mutex);
      StreamCloseSegment(item_lv.second.get());
    }
  g_lv.m_streams.clear();
  g_lv.m_s_last_error.clear();
  ApplyConfigLocked(&g_lv, std::make_shared<const ArcConfig>(config_lv));
  return 0;
}

ARC_EXPORT const char* archive_last_error(void) {
  // The text lives until the next configuration call.
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  return g_lv.m_s_last_error.c_str();
}

ARC_EXPORT void archive_reset(void) {
  CloseAllSessions();
  AccountReset();
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  ClearFaultsLocked(&g_lv);
  g_lv.m_sessions.clear();
  g_lv.m_closed.clear();
  g_lv.m_set_values.clear();
  g_lv.m_session_values.clear();
  g_lv.m_i64_call_seq = 0;
  for (std::atomic<int64_t>* p_lv :
       {&g_lv.m_i64_sessions_opened, &g_lv.m_i64_sessions_closed, &g_lv.m_i64_opens_refused, &g_lv.m_i64_frames,
        &g_lv.m_i64_bytes, &g_lv.m_i64_refused, &g_lv.m_i64_failed, &g_lv.m_i64_segments_created,
        &g_lv.m_i64_segments_deleted})
    *p_lv = 0;
}

ARC_EXPORT int32_t archive_fault(int32_t fault, int64_t id, int64_t value) {
  ArcGlobal& g_lv = Global();
  switch (fault) {
    case ARCHIVE_FAULT_REFUSE_WRITES:
      SetSessionSwitch(id, value, &ArcSession::m_b_refuse, &g_lv.m_b_refuse_all);
      return 0;
    case ARCHIVE_FAULT_FAIL_ONE_IN:
      SetSessionSwitch(id, value, &ArcSession::m_i64_fail_one_in, &g_lv.m_i64_fail_one_in_all);
      return 0;
    case ARCHIVE_FAULT_WRITE_DELAY_MS:
      SetSessionSwitch(id, value, &ArcSession::m_i64_delay_ms, &g_lv.m_i64_delay_ms_all);
      return 0;
    case ARCHIVE_FAULT_ERROR_STATE:
      SetSessionSwitch(id, value, &ArcSession::m_i64_error_state, nullptr);
      return 0;
    case ARCHIVE_FAULT_CLOSE_REQUEST:
      SetSessionSwitch(id, value, &ArcSession::m_i64_close_request, nullptr);
      return 0;
    case ARCHIVE_FAULT_END_SESSION:
      EndSessions(id, value);
      return 0;
    default:
      break;
  }
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  return FaultLocked(&g_lv, fault, id, value);
}

ARC_EXPORT int32_t archive_get_stats(ArchiveStats* out) {
  if (out == nullptr) return ARCHIVE_E_BAD_ARG;
  ArcGlobal& g_lv = Global();
  *out = ArchiveStats{g_lv.m_i64_sessions_opened, g_lv.m_i64_sessions_closed, g_lv.m_i64_opens_refused,
                      g_lv.m_i64_frames,          g_lv.m_i64_bytes,           g_lv.m_i64_refused,
                      g_lv.m_i64_failed,          g_lv.m_i64_segments_created, g_lv.m_i64_segments_deleted,
                      AccountAskedTotal()};
  return 0;
}

ARC_EXPORT int32_t archive_get_session_stats(int32_t handle, ArchiveSessionStats* out) {
  std::shared_ptr<ArcSession> p_lv = FindSession(handle);
  if (!p_lv || out == nullptr) return -1;
  *out = ArchiveSessionStats{p_lv->m_i64_id3,      p_lv->m_i64_storage_id, p_lv->m_i64_type_id,
                             p_lv->m_i64_frames,   p_lv->m_i64_bytes,      p_lv->m_i64_refused,
                             p_lv->m_i64_failed,   p_lv->m_i64_last_write, p_lv->m_b_open,
                             p_lv->m_b_alive};
  return 0;
}

ARC_EXPORT int32_t archive_last_set(int32_t code, int64_t id, int64_t* out) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  auto it_lv = g_lv.m_set_values.find(std::make_pair(code, id));
  if (it_lv == g_lv.m_set_values.end()) return 0;
  if (out != nullptr) *out = it_lv->second;
  return 1;
}

ARC_EXPORT int32_t archive_last_set_session(int32_t handle, int32_t code, int64_t* out) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  auto it_lv = g_lv.m_session_values.find(std::make_pair(handle, code));
  if (it_lv == g_lv.m_session_values.end()) return 0;
  if (out != nullptr) *out = it_lv->second;
  return 1;
}

ARC_EXPORT int32_t archive_call_log(ArchiveCall* out, int32_t max, int64_t after_seq) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  int64_t i64_first_lv = std::max<int64_t>(after_seq + 1, g_lv.m_i64_call_seq - ARCHIVE_CALL_LOG_SIZE + 1);
  i64_first_lv = std::max<int64_t>(i64_first_lv, 1);
  int32_t i_count_lv = 0;
  for (int64_t i64_seq_lv = i64_first_lv; i64_seq_lv <= g_lv.m_i64_call_seq && i_count_lv < max; i64_seq_lv++)
    out[i_count_lv++] = g_lv.m_calls[static_cast<size_t>((i64_seq_lv - 1) % ARCHIVE_CALL_LOG_SIZE)];
  return i_count_lv;
}

namespace warc {

const int64_t ARC_LATENCY_BOUNDS_US[ARCHIVE_LATENCY_BUCKETS] = {50,     100,     250,     500,     1000,    2500,
                                                                5000,   10000,   50000,   250000,  1000000, INT64_MAX};

void AddWriteLatency(int64_t i64_us_av) {
  ArcGlobal& g_lv = Global();
  int i_lv = 0;
  while (i_lv < ARCHIVE_LATENCY_BUCKETS - 1 && i64_us_av > ARC_LATENCY_BOUNDS_US[i_lv]) i_lv++;
  g_lv.m_latency[i_lv].fetch_add(1, std::memory_order_relaxed);
  g_lv.m_i64_latency_sum_us.fetch_add(i64_us_av, std::memory_order_relaxed);
}

}  // namespace warc

ARC_EXPORT int32_t archive_get_stream_stats(int32_t index, ArchiveStreamStats* out) {
  if (out == nullptr || index < 0) return -1;
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  if (static_cast<size_t>(index) >= g_lv.m_streams.size()) return -1;
  auto it_lv = std::next(g_lv.m_streams.begin(), index);
  const ArcStream& stream_lv = *it_lv->second;
  // The stream's folder is ".../<camera folder>/<kind>".
  std::string s_dir_lv = stream_lv.m_s_dir.substr(0, stream_lv.m_s_dir.rfind('/'));
  std::string s_camera_lv = s_dir_lv.substr(s_dir_lv.rfind('/') + 1);
  memset(out, 0, sizeof(*out));
  snprintf(out->camera_folder, sizeof(out->camera_folder), "%s", s_camera_lv.c_str());
  out->kind = static_cast<int32_t>(stream_lv.m_ui_kind);
  out->frames_written = stream_lv.m_i64_frames;
  out->bytes_written = stream_lv.m_i64_bytes;
  return 0;
}

ARC_EXPORT int32_t archive_get_write_latency(ArchiveWriteLatency* out) {
  if (out == nullptr) return ARCHIVE_E_BAD_ARG;
  ArcGlobal& g_lv = Global();
  int64_t i64_total_lv = 0;
  for (int i_lv = 0; i_lv < ARCHIVE_LATENCY_BUCKETS; i_lv++) {
    i64_total_lv += g_lv.m_latency[i_lv].load(std::memory_order_relaxed);
    out->bound_us[i_lv] = ARC_LATENCY_BOUNDS_US[i_lv];
    out->count_le[i_lv] = i64_total_lv;
  }
  out->count = i64_total_lv;
  out->sum_us = g_lv.m_i64_latency_sum_us.load(std::memory_order_relaxed);
  return 0;
}
