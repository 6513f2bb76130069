// The ten functions the plug-in loads from the archive library: sessions,
// frame writes and the numeric question and answer codes. Called from the
// plug-in's host threads, frame-source threads and buffering threads at once.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host/archive/arc_account.h"
#include "host/archive/arc_format.h"
#include "host/archive/arc_session.h"
#include "platform/pl_clock.h"

namespace warc {

ArcGlobal& Global() {
  static ArcGlobal* p_g_lv = [] {
    ArcGlobal* p_lv = new ArcGlobal();
    p_lv->m_calls.resize(ARCHIVE_CALL_LOG_SIZE);
    ApplyConfigLocked(p_lv, std::make_shared<const ArcConfig>(DefaultConfig()));
    return p_lv;
  }();
  return *p_g_lv;
}

void ApplyConfigLocked(ArcGlobal* p_g_av, std::shared_ptr<const ArcConfig> p_config_av) {
  p_g_av->m_b_increase_buffers = p_config_av->m_b_increase_write_buffers;
  p_g_av->m_i64_max_buffers = p_config_av->m_i64_max_buffers_bytes;
  p_g_av->m_i64_slot_ticks = p_config_av->m_i64_slot_ticks;
  p_g_av->m_i64_slot_count = p_config_av->m_i_slot_count;
  p_g_av->m_b_restart_stalled = p_config_av->m_b_restart_stalled;
  p_g_av->m_b_audio_not_key = p_config_av->m_b_audio_not_key;
  p_g_av->m_p_config = std::move(p_config_av);
}

void RecordCallLocked(ArcGlobal* p_g_av, int32_t i_kind_av, int32_t i_code_av, int32_t i_handle_av, int64_t i64_id_av,
                      int64_t i64_value_av) {
  int64_t i64_seq_lv = ++p_g_av->m_i64_call_seq;
  ArchiveCall& call_lv = p_g_av->m_calls[static_cast<size_t>((i64_seq_lv - 1) % ARCHIVE_CALL_LOG_SIZE)];
  call_lv = ArchiveCall{i64_seq_lv, i_kind_av, i_code_av, i_handle_av, 0, i64_id_av, i64_value_av};
}

std::shared_ptr<ArcSession> FindSession(int32_t i_handle_av) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  auto it_lv = g_lv.m_sessions.find(i_handle_av);
  return it_lv == g_lv.m_sessions.end() ? nullptr : it_lv->second;
}

void AddCounts(const StoreCounts& counts_av) {
  Global().m_i64_segments_created += counts_av.m_i64_segments_created;
  Global().m_i64_segments_deleted += counts_av.m_i64_segments_deleted;
}

void ReleaseStreams(ArcSession* p_session_av) {
  ArcGlobal& g_lv = Global();
  std::vector<std::shared_ptr<ArcStream>> idle_lv;
  {
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    if (p_session_av->m_b_streams_released) return;
    p_session_av->m_b_streams_released = true;
    for (auto& p_stream_lv : p_session_av->m_p_streams) {
      if (p_stream_lv && --p_stream_lv->m_i_users == 0) idle_lv.push_back(p_stream_lv);
      p_stream_lv.reset();
    }
  }
  // The next session of the camera starts a segment of its own.
  for (auto& p_stream_lv : idle_lv) {
    std::lock_guard<std::mutex> lock_lv(p_stream_lv->m_mutex);
    StreamCloseSegment(p_stream_lv.get());
  }
}

void CloseAllSessions() {
  ArcGlobal& g_lv = Global();
  std::vector<std::shared_ptr<ArcSession>> open_lv;
  {
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    for (auto& item_lv : g_lv.m_sessions)
      if (item_lv.second->m_b_open.exchange(0) != 0) {
        open_lv.push_back(item_lv.second);
        g_lv.m_i64_sessions_closed++;
      }
  }
  for (auto& p_session_lv : open_lv) ReleaseStreams(p_session_lv.get());
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  for (auto& item_lv : g_lv.m_streams) {
    std::lock_guard<std::mutex> stream_lock_lv(item_lv.second->m_mutex);
    StreamCloseSegment(item_lv.second.get());
  }
  g_lv.m_streams.clear();
}

namespace {

int64_t NowLocal() { return static_cast<int64_t>(PlFileTimeToLocal(PlFileTimeUtc())); }

// The stream a session writes frames of one kind to, made at first need.
std::shared_ptr<ArcStream> SessionStream(ArcSession* p_session_av, uint32_t ui_kind_av) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  if (p_session_av->m_b_streams_released) return nullptr;
  std::shared_ptr<ArcStream>& p_slot_lv = p_session_av->m_p_streams[ui_kind_av];
  if (p_slot_lv) return p_slot_lv;
  std::string s_dir_lv = p_session_av->m_s_camera_dir + "/" + KindName(ui_kind_av);
  std::shared_ptr<ArcStream>& p_stream_lv = g_lv.m_streams[s_dir_lv];
  if (!p_stream_lv) {
    p_stream_lv = std::make_shared<ArcStream>();
    p_stream_lv->m_s_dir = s_dir_lv;
    p_stream_lv->m_ui_kind = ui_kind_av;
  }
  p_stream_lv->m_i_users++;
  p_slot_lv = p_stream_lv;
  return p_slot_lv;
}

// Depth is looked at when it is set, and then at most once per check period
// from the write path.
void CheckDepth(ArcSession* p_session_av, ArcStream* p_stream_av, bool b_now_av) {
  if (p_session_av->m_b_depth_restrict == 0 || p_session_av->m_i64_depth <= 0) return;
  int64_t i64_now_lv = NowLocal();
  if (!b_now_av && i64_now_lv < p_stream_av->m_i64_next_depth_check) return;
  p_stream_av->m_i64_next_depth_check = i64_now_lv + p_session_av->m_p_config->m_i64_depth_check_ticks;
  StoreCounts counts_lv;
  StreamEnforceDepth(p_stream_av, i64_now_lv, p_session_av->m_i64_depth, &counts_lv);
  AddCounts(counts_lv);
}

void CheckDepthAllKinds(ArcSession* p_session_av) {
  for (uint32_t ui_kind_lv = KIND_VIDEO; ui_kind_lv <= KIND_AUDIO; ui_kind_lv++) {
    std::shared_ptr<ArcStream> p_stream_lv;
    {
      std::lock_guard<std::mutex> lock_lv(Global().m_mutex);
      p_stream_lv = p_session_av->m_p_streams[ui_kind_lv];
    }
    if (!p_stream_lv) continue;
    std::lock_guard<std::mutex> lock_lv(p_stream_lv->m_mutex);
    CheckDepth(p_session_av, p_stream_lv.get(), true);
  }
}

int32_t Refuse(ArcSession* p_session_av, int32_t i_result_av) {
  Global().m_i64_refused++;
  if (p_session_av != nullptr) p_session_av->m_i64_refused++;
  return i_result_av;
}

// Fault switches of the write path. 0 lets the write go on.
int32_t InjectedFault(ArcSession* p_session_av) {
  ArcGlobal& g_lv = Global();
  int64_t i64_delay_lv = std::max<int64_t>(p_session_av->m_i64_delay_ms, g_lv.m_i64_delay_ms_all);
  if (i64_delay_lv > 0) PlSleep(static_cast<uint32_t>(i64_delay_lv));
  int64_t i64_attempt_lv = ++p_session_av->m_i64_attempts;
  if (p_session_av->m_b_refuse != 0 || g_lv.m_b_refuse_all != 0) return Refuse(p_session_av, ARCHIVE_E_REFUSED);
  int64_t i64_n_lv = p_session_av->m_i64_fail_one_in != 0 ? p_session_av->m_i64_fail_one_in.load()
                                                           : g_lv.m_i64_fail_one_in_all.load();
  if (i64_n_lv > 0 && i64_attempt_lv % i64_n_lv == 0) {
    g_lv.m_i64_failed++;
    p_session_av->m_i64_failed++;
    return ARCHIVE_E_IO;
  }
  return 0;
}

bool PathIsDir(const std::string& s_path_av) {
  struct stat st_lv;
  return stat(s_path_av.c_str(), &st_lv) == 0 && S_ISDIR(st_lv.st_mode);
}

int64_t StorageExists(int64_t i64_storage_id_av) {
  ArcGlobal& g_lv = Global();
  std::string s_path_lv;
  {
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    if (g_lv.m_missing_storages.count(-1) > 0 || g_lv.m_missing_storages.count(i64_storage_id_av) > 0) return 0;
    const ArcConfig& config_lv = *g_lv.m_p_config;
    // A storage without a folder of its own lives in the root, made on demand.
    bool b_own_lv = config_lv.m_storages.count(i64_storage_id_av) > 0;
    s_path_lv = b_own_lv ? config_lv.StoragePath(i64_storage_id_av) : config_lv.m_s_root;
  }
  return PathIsDir(s_path_lv) ? 1 : 0;
}

int64_t NoWrite(int64_t i64_camera_av, int64_t i64_bit_av) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  auto it_lv = g_lv.m_no_write.find(i64_camera_av);
  return it_lv != g_lv.m_no_write.end() && (it_lv->second & i64_bit_av) != 0 ? 1 : 0;
}

void WriteCameraNote(const std::string& s_dir_av, const char* const* pp_keys_av, const int32_t* pi_sizes_av) {
  std::string s_path_lv = s_dir_av + "/camera.txt";
  if (access(s_path_lv.c_str(), F_OK) == 0) return;
  FILE* p_file_lv = fopen(s_path_lv.c_str(), "w");
  if (p_file_lv == nullptr) return;
  for (int i_lv = 0; i_lv < ARCHIVE_KEY_COUNT; i_lv++) {
    size_t ui_len_lv = pp_keys_av[i_lv] == nullptr || pi_sizes_av[i_lv] <= 0
                           ? 0
                           : strnlen(pp_keys_av[i_lv], static_cast<size_t>(pi_sizes_av[i_lv]));
    fprintf(p_file_lv, "key%d=%.*s\n", i_lv + 1, static_cast<int>(ui_len_lv), ui_len_lv ? pp_keys_av[i_lv] : "");
  }
  fclose(p_file_lv);
}

int32_t OpenSession(int32_t* p_out_av, int64_t i64_id1_av, int64_t i64_id2_av, int64_t i64_id3_av,
                    const ArchiveKey* p_keys_av, int64_t i64_storage_id_av, int64_t i64_type_id_av) {
  ArcGlobal& g_lv = Global();
  if (g_lv.m_b_refuse_open != 0) return ARCHIVE_E_REFUSED;
  const char* pp_keys_lv[ARCHIVE_KEY_COUNT] = {};
  int32_t pi_sizes_lv[ARCHIVE_KEY_COUNT] = {};
  for (int i_lv = 0; p_keys_av != nullptr && i_lv < ARCHIVE_KEY_COUNT; i_lv++) {
    pp_keys_lv[i_lv] = p_keys_av[i_lv].text;
    pi_sizes_lv[i_lv] = p_keys_av[i_lv].size;
  }
  auto p_session_lv = std::make_shared<ArcSession>();
  {
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    p_session_lv->m_p_config = g_lv.m_p_config;
  }
  p_session_lv->m_i64_id1 = i64_id1_av;
  p_session_lv->m_i64_id2 = i64_id2_av;
  p_session_lv->m_i64_id3 = i64_id3_av;
  p_session_lv->m_i64_storage_id = i64_storage_id_av;
  p_session_lv->m_i64_type_id = i64_type_id_av;
  p_session_lv->m_s_camera_dir = p_session_lv->m_p_config->StoragePath(i64_storage_id_av) + "/" +
                                 CameraFolderName(pp_keys_lv, pi_sizes_lv, ARCHIVE_KEY_COUNT);
  if (MakeDirs(p_session_lv->m_s_camera_dir) != 0) {
    fprintf(stderr, "warchive: cannot make camera folder %s\n", p_session_lv->m_s_camera_dir.c_str());
    return ARCHIVE_E_IO;
  }
  WriteCameraNote(p_session_lv->m_s_camera_dir, pp_keys_lv, pi_sizes_lv);
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  int32_t i_handle_lv = g_lv.m_i_next_handle;
  g_lv.m_i_next_handle = g_lv.m_i_next_handle >= 0x7FFFFFF0 ? 1 : g_lv.m_i_next_handle + 1;
  p_session_lv->m_i_handle = i_handle_lv;
  g_lv.m_sessions[i_handle_lv] = p_session_lv;
  g_lv.m_i64_sessions_opened++;
  *p_out_av = i_handle_lv;
  return 0;
}

void ForgetOldClosedLocked(ArcGlobal* p_g_av) {
  const size_t KEEP_CLOSED = 256;
  while (p_g_av->m_closed.size() > KEEP_CLOSED) {
    p_g_av->m_sessions.erase(p_g_av->m_closed.front());
    p_g_av->m_closed.pop_front();
  }
}

}  // namespace

}  // namespace warc

using namespace warc;

ARC_EXPORT int32_t dll_init2(int32_t) {
  ArcGlobal& g_lv = Global();
  std::string s_root_lv;
  {
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    RecordCallLocked(&g_lv, ARCHIVE_CALL_INIT, 0, -1, -1, 0);
    int64_t i64_delay_lv = g_lv.m_p_config->m_i64_ready_delay_ticks;
    if (i64_delay_lv > 0) g_lv.m_i64_not_ready_until = static_cast<int64_t>(PlFileTimeUtc()) + i64_delay_lv;
    s_root_lv = g_lv.m_p_config->m_s_root;
  }
  if (MakeDirs(s_root_lv) != 0) fprintf(stderr, "warchive: cannot make the root folder %s\n", s_root_lv.c_str());
  return 0;
}

ARC_EXPORT int32_t dll_free2(int32_t) {
  CloseAllSessions();
  std::lock_guard<std::mutex> lock_lv(Global().m_mutex);
  RecordCallLocked(&Global(), ARCHIVE_CALL_FREE, 0, -1, -1, 0);
  return 0;
}

namespace {

int32_t WriteFrame(int32_t handle, const void* data, int32_t size, int32_t type, int64_t time, int64_t* p_camera_av) {
  std::shared_ptr<ArcSession> p_session_lv = FindSession(handle);
  *p_camera_av = p_session_lv ? p_session_lv->m_i64_id3 : -1;
  if (!p_session_lv || p_session_lv->m_b_open == 0) return Refuse(p_session_lv.get(), ARCHIVE_E_BAD_HANDLE);
  if (p_session_lv->m_b_alive == 0) return Refuse(p_session_lv.get(), ARCHIVE_E_ENDED);
  // A time before 1601 is no file time: the reader could not order it.
  if (data == nullptr || size <= 0 || size > p_session_lv->m_p_config->m_i64_max_frame_bytes || time < 0)
    return Refuse(p_session_lv.get(), ARCHIVE_E_BAD_ARG);
  int32_t i_fault_lv = InjectedFault(p_session_lv.get());
  if (i_fault_lv != 0) return i_fault_lv;
  uint32_t ui_kind_lv = TypeIsAudio(static_cast<uint32_t>(type)) ? KIND_AUDIO : KIND_VIDEO;
  std::shared_ptr<ArcStream> p_stream_lv = SessionStream(p_session_lv.get(), ui_kind_lv);
  if (!p_stream_lv) return Refuse(p_session_lv.get(), ARCHIVE_E_ENDED);
  StoreCounts counts_lv;
  int32_t i_result_lv;
  {
    std::lock_guard<std::mutex> lock_lv(p_stream_lv->m_mutex);
    i_result_lv = StreamAppend(p_stream_lv.get(), *p_session_lv->m_p_config, time, static_cast<uint8_t>(type), data,
                               static_cast<uint32_t>(size), &counts_lv);
    if (i_result_lv == 0) {
      p_stream_lv->m_i64_frames++;
      p_stream_lv->m_i64_bytes += size;
      CheckDepth(p_session_lv.get(), p_stream_lv.get(), counts_lv.m_i64_segments_created > 0);
    }
  }
  AddCounts(counts_lv);
  if (i_result_lv != 0) {
    // A disk that fails is a session in error: the plug-in closes and reopens.
    p_session_lv->m_i64_error_state = 1;
    p_session_lv->m_i64_failed++;
    Global().m_i64_failed++;
    return i_result_lv;
  }
  p_session_lv->m_i64_frames++;
  p_session_lv->m_i64_bytes += size;
  p_session_lv->m_i64_last_write = NowLocal();
  Global().m_i64_frames++;
  Global().m_i64_bytes += size;
  return 0;
}

}  // namespace

// Every call is timed, refused ones too: a slow refusal holds up the
// writer's thread as much as a slow write.
ARC_EXPORT int32_t WriteDataForTime(int32_t handle, const void* data, int32_t size, int32_t type, int64_t time) {
  int64_t i64_start_lv = PlPerfCounter();
  int64_t i64_camera_lv = -1;
  int32_t i_result_lv = WriteFrame(handle, data, size, type, time, &i64_camera_lv);
  AddWriteLatency((PlPerfCounter() - i64_start_lv) * 1000000 / PlPerfFrequency());
  AccountWrite(i64_camera_lv, TypeIsAudio(static_cast<uint32_t>(type)) ? KIND_AUDIO : KIND_VIDEO, i_result_lv);
  return i_result_lv;
}

ARC_EXPORT int32_t GetHandleForWrite(int32_t* out_handle, int64_t id1, int64_t id2, int64_t id3,
                                     const ArchiveKey* keys, int32_t, uint32_t, int64_t storage_id, int64_t type_id) {
  if (out_handle != nullptr) *out_handle = ARCHIVE_INVALID_HANDLE;
  int32_t i_handle_lv = ARCHIVE_INVALID_HANDLE;
  int32_t i_result_lv =
      out_handle == nullptr ? ARCHIVE_E_BAD_ARG : OpenSession(&i_handle_lv, id1, id2, id3, keys, storage_id, type_id);
  if (i_result_lv == 0) *out_handle = i_handle_lv;
  AccountSession(i_result_lv == 0);
  ArcGlobal& g_lv = Global();
  if (i_result_lv != 0) g_lv.m_i64_opens_refused++;
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  RecordCallLocked(&g_lv, ARCHIVE_CALL_OPEN, 0, i_handle_lv, id3, i_result_lv);
  return i_result_lv;
}

ARC_EXPORT int32_t CloseHandleWrite(int32_t handle) {
  ArcGlobal& g_lv = Global();
  std::shared_ptr<ArcSession> p_session_lv = FindSession(handle);
  int32_t i_result_lv = ARCHIVE_E_BAD_HANDLE;
  if (p_session_lv && p_session_lv->m_b_open.exchange(0) != 0) {
    ReleaseStreams(p_session_lv.get());
    g_lv.m_i64_sessions_closed++;
    i_result_lv = 0;
  }
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  if (i_result_lv == 0) {
    g_lv.m_closed.push_back(handle);
    ForgetOldClosedLocked(&g_lv);
  }
  RecordCallLocked(&g_lv, ARCHIVE_CALL_CLOSE, 0, handle, -1, i_result_lv);
  return i_result_lv;
}

ARC_EXPORT int64_t GetParamsByType(int64_t id, int32_t, int32_t code) {
  ArcGlobal& g_lv = Global();
  switch (code) {
    case 34: {
      int64_t i64_ready_lv = static_cast<int64_t>(PlFileTimeUtc()) >= g_lv.m_i64_not_ready_until.load() ? 1 : 0;
      AccountReadyAnswer(i64_ready_lv);
      return i64_ready_lv;
    }
    case 84:
      return static_cast<int64_t>(PlFileTimeUtc()) >= g_lv.m_i64_not_ready_until.load() ? 1 : 0;
    case 85:
    case 107: {
      int64_t i64_no_lv = NoWrite(id, code == 85 ? 1 : 2);
      AccountQuestion(id, code == 85 ? KIND_VIDEO : KIND_AUDIO, i64_no_lv);
      return i64_no_lv;
    }
    case 110:
      return static_cast<int64_t>(PlFileTimeUtc() / static_cast<uint64_t>(g_lv.m_i64_slot_ticks.load()) %
                                  static_cast<uint64_t>(g_lv.m_i64_slot_count.load()));
    case 111:
      return g_lv.m_b_increase_buffers;
    case 112:
      return g_lv.m_i64_max_buffers;
    case 115:
      return StorageExists(id);
    case 116:
      return g_lv.m_b_restart_stalled;
    case 128:
      return g_lv.m_b_marking_running;
    case 129:
      return g_lv.m_b_marking_failed;
    default:
      return 0;
  }
}

ARC_EXPORT int32_t SetParamsByType(int32_t code, int64_t id, int64_t value) {
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  g_lv.m_set_values[std::make_pair(code, id)] = value;
  RecordCallLocked(&g_lv, ARCHIVE_CALL_SET, code, -1, id, value);
  return 0;
}

ARC_EXPORT int64_t GetParamsByTypeReqWrite(int32_t handle, int32_t code) {
  std::shared_ptr<ArcSession> p_session_lv = FindSession(handle);
  if (code == 29) AccountSession(p_session_lv && p_session_lv->m_b_open != 0 && p_session_lv->m_b_alive != 0);
  if (!p_session_lv) return 0;
  switch (code) {
    case 10:
      return p_session_lv->m_i64_id3;
    case 20:
      return Global().m_b_audio_not_key;
    case 29:
      return p_session_lv->m_b_open != 0 && p_session_lv->m_b_alive != 0 ? 1 : 0;
    case 36:
      return p_session_lv->m_i64_storage_id;
    case 46:
      return p_session_lv->m_i64_close_request;
    case 82:
      return p_session_lv->m_i64_error_state;
    case 114:
      return p_session_lv->m_i64_last_write;
    default:
      return 0;
  }
}

ARC_EXPORT int64_t SetParamsByTypeReqWrite(int32_t handle, int32_t code, int64_t value) {
  ArcGlobal& g_lv = Global();
  std::shared_ptr<ArcSession> p_session_lv = FindSession(handle);
  {
    std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
    g_lv.m_session_values[std::make_pair(handle, code)] = value;
    RecordCallLocked(&g_lv, ARCHIVE_CALL_SET_SESSION, code, handle, -1, value);
  }
  if (!p_session_lv || p_session_lv->m_b_open == 0) return 0;
  if (code == 70 || code == 71) {
    if (code == 70) p_session_lv->m_b_depth_restrict = value != 0 ? 1 : 0;
    if (code == 71) p_session_lv->m_i64_depth = value;
    CheckDepthAllKinds(p_session_lv.get());
  }
  return 1;
}

ARC_EXPORT int32_t AddCameraInfo(const ArchiveKey* keys, int64_t id3, int64_t, uint32_t, int32_t, int32_t,
                                 int64_t type_id) {
  AccountCamera(keys, id3);
  ArcGlobal& g_lv = Global();
  std::lock_guard<std::mutex> lock_lv(g_lv.m_mutex);
  RecordCallLocked(&g_lv, ARCHIVE_CALL_ADD_CAMERA, 0, -1, id3, type_id);
  return 0;
}
