// A camera's source thread (see srv_source.h): waits for the plug-in to ask
// for frames, then sends the camera's media on the media track as fast as
// the writer takes it, or hands the camera to a pacer for real time.
#include "host/server/srv_source.h"

#include <cstdio>
#include <cstring>

#include "host/server/srv_crash.h"
#include "host/server/srv_media_lib.h"
#include "host/server/srv_source_pacer.h"
#include "platform/pl_clock.h"

namespace {

// How long a source waits for the channels' "get" before it sends anyway.
const uint32_t GET_WAIT_MS = 5000;
// Fast pacing gives up its bound when nothing is stored for this long.
const double STALL_S = 2.0;

double SecondsSince(int64_t i64_perf_av) {
  return static_cast<double>(PlPerfCounter() - i64_perf_av) / static_cast<double>(PlPerfFrequency());
}

// Status track: a channel asks for frames with {"frame": [{"get"}]}.
void OnStatus(void* p_user_av, ProfileParam* p_params_av) {
  SrvSource* p_lv = static_cast<SrvSource*>(p_user_av);
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (p_el_lv->type != PP_LIST || p_el_lv->name == nullptr || strcmp(p_el_lv->name, "frame") != 0) continue;
    for (ProfileParam* p_in_lv = static_cast<ProfileParam*>(p_el_lv->value); p_in_lv != nullptr && p_in_lv->type != PP_END;
         p_in_lv++) {
      if (p_in_lv->type == PP_LIST && p_in_lv->name != nullptr && strcmp(p_in_lv->name, "get") == 0) {
        p_lv->m_counts.m_i_gets++;
        p_lv->m_p_get->Set();
      }
    }
  }
}

bool SyntheticOpen(SrvSource* p_av, std::string*) {
  SrvSyntheticInit(&p_av->m_synthetic, p_av->m_p_camera->m_source, p_av->m_ui_seed);
  return true;
}
bool SyntheticNext(SrvSource* p_av, SrvMediaFrame* p_out_av) {
  SrvSyntheticNext(&p_av->m_synthetic, p_out_av);
  return true;
}
void SyntheticClose(SrvSource*) {}

bool H264Open(SrvSource* p_av, std::string* p_error_av) {
  return SrvH264FileOpen(&p_av->m_file, p_av->m_p_camera->m_source, p_av->m_p_settings->m_b_loop, p_error_av);
}
bool H264Next(SrvSource* p_av, SrvMediaFrame* p_out_av) {
  if (SrvH264FileNext(&p_av->m_file, p_out_av)) return true;
  if (!p_av->m_file.m_s_error.empty())
    printf("writer-host: camera %s: %s; its source ends\n", p_av->m_p_camera->m_s_name.c_str(),
           p_av->m_file.m_s_error.c_str());
  return false;
}
void H264Close(SrvSource* p_av) { SrvH264FileClose(&p_av->m_file); }

bool StreamOpen(SrvSource* p_av, std::string* p_error_av) {
  SrvStreamLink link_lv;
  link_lv.m_s_camera = p_av->m_p_camera->m_s_name;
  link_lv.m_p_stop = p_av->m_p_stop;
  link_lv.m_p_drops = &p_av->m_counts.m_i64_drops;
  link_lv.m_p_reconnects = &p_av->m_counts.m_i64_reconnects;
  const SrvMediaLib* p_lib_lv = SrvMediaLibLoad(p_av->m_p_settings->m_s_lib_dir, p_error_av);
  return p_lib_lv != nullptr &&
         p_lib_lv->m_p_stream_open(&p_av->m_stream, p_av->m_p_camera->m_source, link_lv, p_av->m_p_settings->m_b_loop,
                                   p_error_av);
}
// Only a source whose open found the module gets this far.
bool StreamNext(SrvSource* p_av, SrvMediaFrame* p_out_av) {
  return SrvMediaLibLoaded()->m_p_stream_next(&p_av->m_stream, p_out_av);
}
void StreamClose(SrvSource* p_av) {
  if (const SrvMediaLib* p_lib_lv = SrvMediaLibLoaded()) p_lib_lv->m_p_stream_close(&p_av->m_stream);
}

const SrvSourceKind KINDS[] = {{"synthetic", false, &SyntheticOpen, &SyntheticNext, &SyntheticClose},
                               {"h264", false, &H264Open, &H264Next, &H264Close},
                               {"stream", true, &StreamOpen, &StreamNext, &StreamClose}};

// Waits until every listening channel has asked for frames, or the time-out.
void WaitForGet(SrvSource* p_av) {
  int32_t i_listeners_lv = SrvSourceAskListeners(p_av);
  int32_t i_wanted_lv = i_listeners_lv > 0 ? i_listeners_lv : 1;
  int64_t i64_start_lv = PlPerfCounter();
  while (p_av->m_counts.m_i_gets < i_wanted_lv && !p_av->m_p_stop->IsSet()) {
    double d_left_ms_lv = GET_WAIT_MS - SecondsSince(i64_start_lv) * 1000.0;
    if (d_left_ms_lv <= 0) {
      p_av->m_p_note = "no channel asked for frames within 5 s; sending all the same";
      return;
    }
    p_av->m_p_get->Wait(static_cast<uint32_t>(d_left_ms_lv) + 1);
  }
}

// As fast as the writer takes them: no more than the bound in flight. When
// nothing is stored for a while the bound is dropped, so that a writer that
// stores nothing cannot hold the source up.
bool PaceWriter(SrvSource* p_av, bool* p_bound_av) {
  int64_t i64_bound_lv = p_av->m_p_settings->m_i_in_flight;
  // The monitor's figure is a floor of the fresh one: only when it says the
  // bound is reached is the archive asked.
  if (i64_bound_lv <= 0 || p_av->m_p_flow->m_i64_entered - p_av->m_p_flow->m_i64_taken <= i64_bound_lv)
    return !p_av->m_p_stop->IsSet();
  int64_t i64_seen_lv = SrvFlowTaken(p_av->m_p_flow), i64_since_lv = PlPerfCounter();
  while (*p_bound_av && p_av->m_p_flow->m_i64_entered - SrvFlowTaken(p_av->m_p_flow) > i64_bound_lv) {
    if (p_av->m_p_stop->Wait(1) == PL_WAIT_OBJECT_0) return false;
    int64_t i64_dealt_lv = SrvFlowTaken(p_av->m_p_flow);
    if (i64_dealt_lv != i64_seen_lv) {
      i64_seen_lv = i64_dealt_lv;
      i64_since_lv = PlPerfCounter();
    } else if (SecondsSince(i64_since_lv) > STALL_S) {
      *p_bound_av = false;
      p_av->m_p_note = "the writer stored nothing for 2 s; sending without bound";
    }
  }
  return !p_av->m_p_stop->IsSet();
}

SrvPacers* FlowPacers(SrvFlow* p_av) {
  PlCritLock lock_lv(&p_av->m_pacers_cs);
  if (p_av->m_p_pacers == nullptr) p_av->m_p_pacers = SrvPacersCreate(0);
  return p_av->m_p_pacers;
}

// Live streams, and files and synthetic cameras as fast as the writer takes
// them: the source's own thread sends.
void SendOwnFrames(SrvSource* p_av) {
  int64_t i64_start_us_lv = static_cast<int64_t>((PlFileTimeUtc() - PL_UNIX_EPOCH_TICKS) / 10);
  bool b_bound_lv = true;
  SrvMediaFrame frame_lv;
  int64_t i64_max_lv = p_av->m_p_settings->m_i64_max_frames;
  while (!p_av->m_p_stop->IsSet() && (i64_max_lv <= 0 || p_av->m_counts.m_i64_sent < i64_max_lv) &&
         p_av->m_p_kind->m_p_next(p_av, &frame_lv)) {
    // A live stream's frames come at their own pace and carry their time.
    bool b_live_lv = frame_lv.m_i64_time_us != 0;
    bool b_go_on_lv = b_live_lv ? !p_av->m_p_stop->IsSet() : PaceWriter(p_av, &b_bound_lv);
    if (!b_go_on_lv) break;
    SrvSourceSendFrame(p_av, frame_lv, b_live_lv ? frame_lv.m_i64_time_us : i64_start_us_lv + frame_lv.m_i64_offset_us);
  }
}

uint32_t SourceThread(void* p_arg_av) {
  SrvSource* p_lv = static_cast<SrvSource*>(p_arg_av);
  SrvCrashThreadBegin();
  bool b_handed_over_lv = false;
  PlEvent* events_lv[2] = {p_lv->m_p_stop, p_lv->m_p_go};
  if (PlWaitAny(events_lv, 2, PL_INFINITE) == 1) {
    WaitForGet(p_lv);
    if (!p_lv->m_p_settings->m_b_paced || p_lv->m_p_kind->m_b_live) {
      SendOwnFrames(p_lv);
    } else if (SrvPacers* p_pacers_lv = FlowPacers(p_lv->m_p_flow)) {
      // In real time a pacer sends the frames from here on, and ends them.
      SrvPacersAdd(p_pacers_lv, p_lv);
      b_handed_over_lv = true;
    } else {
      p_lv->m_p_note = "cannot start the pacing threads; nothing sent";
    }
  }
  if (!b_handed_over_lv) p_lv->m_counts.m_b_done = true;
  SrvCrashThreadEnd();
  return 0;
}

// Counts the frame under the rule its delivery shows.
void Account(SrvSource* p_av, const SrvMediaFrame& frame_av, const SrvProbeMark& before_av, const SrvProbeMark& after_av,
             int32_t i_need_av, int i_medium_av) {
  SrvDelivery d_lv;
  SrvProbeDiff(before_av, after_av, &d_lv);
  d_lv.m_i_need = i_need_av;
  d_lv.m_b_key = frame_av.m_i_key != 0;
  d_lv.m_b_empty = frame_av.m_pb_data == nullptr || frame_av.m_ui_size == 0;
  d_lv.m_b_key_wait_possible = p_av->m_p_camera->m_b_by_events || p_av->m_p_camera->m_b_only_key_frame;
  SrvPutCounts& put_lv = p_av->m_counts.m_put;
  put_lv.m_sent[i_medium_av]++;
  int i_rule_lv = SrvClassifyDelivery(d_lv);
  if (i_rule_lv < 0) return;  // shows in the summary as unaccounted
  put_lv.m_rules[i_medium_av][i_rule_lv]++;
  if (i_rule_lv == SRV_PUT_ENTERED) p_av->m_p_flow->m_i64_entered++;
}

}  // namespace

SrvFlow::~SrvFlow() { SrvPacersDestroy(m_p_pacers); }

const SrvSourceKind* SrvFindSourceKind(const std::string& s_type_av) {
  for (const SrvSourceKind& kind_lv : KINDS)
    if (s_type_av == kind_lv.m_s_type) return &kind_lv;
  return nullptr;
}

int64_t SrvFlowTaken(SrvFlow* p_av) {
  if (p_av->m_p_stats == nullptr) return p_av->m_i64_taken;
  ArchiveStats st_lv;
  memset(&st_lv, 0, sizeof(st_lv));
  p_av->m_p_stats(&st_lv);
  if (st_lv.frames_asked > p_av->m_i64_taken) p_av->m_i64_taken = st_lv.frames_asked;
  return st_lv.frames_asked;
}

bool SrvSourceOpen(SrvSource* p_av, const SrvCamera* p_camera_av, const SrvSettings* p_settings_av, SrvFlow* p_flow_av,
                   uint32_t ui_seed_av, std::string* p_error_av) {
  p_av->m_p_camera = p_camera_av;
  p_av->m_p_settings = p_settings_av;
  p_av->m_p_flow = p_flow_av;
  p_av->m_ui_seed = ui_seed_av;
  p_av->m_p_go = new PlEvent(true, false);
  p_av->m_p_get = new PlEvent(false, false);
  p_av->m_p_stop = new PlEvent(true, false);
  p_av->m_p_kind = SrvFindSourceKind(p_camera_av->m_source.m_s_type);
  if (p_av->m_p_kind == nullptr) return *p_error_av = "unknown source type " + p_camera_av->m_source.m_s_type, false;
  if (!p_av->m_p_kind->m_p_open(p_av, p_error_av)) {
    p_av->m_p_kind->m_p_close(p_av);
    p_av->m_p_kind = nullptr;
    return false;
  }
  p_av->m_h_media = profile_open(p_camera_av->MediaTrack().c_str(), nullptr, __FILE__, __LINE__);
  ProfileCallback cb_lv = {p_av, reinterpret_cast<void*>(&OnStatus)};
  p_av->m_h_status = profile_open(p_camera_av->StatusTrack().c_str(), &cb_lv, __FILE__, __LINE__);
  p_av->m_p_thread = PlThread::Create(&SourceThread, p_av, 0, false);
  if (p_av->m_p_thread == nullptr) return *p_error_av = "cannot start the source thread", false;
  return true;
}

void SrvSourceGo(SrvSource* p_av) {
  if (p_av->m_p_go != nullptr) p_av->m_p_go->Set();
}

void SrvSourceStop(SrvSource* p_av) {
  if (p_av->m_p_stop != nullptr) p_av->m_p_stop->Set();
}

void SrvSourceClose(SrvSource* p_av) {
  if (p_av->m_p_stop != nullptr) p_av->m_p_stop->Set();
  if (p_av->m_p_thread != nullptr) {
    p_av->m_p_thread->Join(PL_INFINITE);
    PlThread::Close(p_av->m_p_thread);
    p_av->m_p_thread = nullptr;
  }
  if (p_av->m_p_flow != nullptr) {
    PlCritLock lock_lv(&p_av->m_p_flow->m_pacers_cs);
    SrvPacersRemove(p_av->m_p_flow->m_p_pacers, p_av);
  }
  if (p_av->m_h_media != 0) profile_close(p_av->m_h_media);
  if (p_av->m_h_status != 0) profile_close(p_av->m_h_status);
  p_av->m_h_media = p_av->m_h_status = 0;
  if (p_av->m_p_kind != nullptr) p_av->m_p_kind->m_p_close(p_av);
  p_av->m_p_kind = nullptr;
  delete p_av->m_p_go;
  delete p_av->m_p_get;
  delete p_av->m_p_stop;
  p_av->m_p_go = p_av->m_p_get = p_av->m_p_stop = nullptr;
}

int32_t SrvSourceAskListeners(SrvSource* p_av) {
  int32_t i_listen_lv = 0;
  ProfileParam status_lv[] = {{PP_INT32, "listen", &i_listen_lv}, {PP_END, nullptr, nullptr}};
  ProfileParam msg_lv[] = {{PP_LIST, "status", status_lv}, {PP_END, nullptr, nullptr}};
  profile_data(p_av->m_h_status, msg_lv, 0);
  p_av->m_counts.m_i_listeners = i_listen_lv;
  return i_listen_lv;
}

int32_t SrvSourceSendFrame(SrvSource* p_av, const SrvMediaFrame& frame_av, int64_t i64_time_us_av) {
  int32_t i_need_lv = 0, i_width_lv = frame_av.m_i_width, i_height_lv = frame_av.m_i_height, i_key_lv = frame_av.m_i_key;
  uint32_t ui_fcc_lv = frame_av.m_ui_fcc;
  int64_t i64_index_lv = frame_av.m_i64_index, i64_time_lv = i64_time_us_av;
  ProfileBuffer data_lv = {const_cast<uint8_t*>(frame_av.m_pb_data), frame_av.m_ui_size};
  ProfileBuffer extra_lv = {const_cast<uint8_t*>(frame_av.m_pb_extra), frame_av.m_ui_extra_size};
  ProfileParam frame_lv[] = {{PP_INT32, "need", &i_need_lv},     {PP_BUFFER, "data", &data_lv},
                             {PP_BUFFER, "extra", &extra_lv},    {PP_INT32, "width", &i_width_lv},
                             {PP_INT32, "height", &i_height_lv}, {PP_INT32, "fcc", &ui_fcc_lv},
                             {PP_INT64, "index", &i64_index_lv}, {PP_INT32, "key", &i_key_lv},
                             {PP_INT64, "time", &i64_time_lv},   {PP_STRING, "type", const_cast<char*>(frame_av.m_s_type)},
                             {PP_END, nullptr, nullptr}};
  ProfileParam msg_lv[] = {{PP_LIST, "frame", frame_lv}, {PP_END, nullptr, nullptr}};
  SrvProbeMark before_lv = SrvProbeRead(p_av->m_p_flow->m_probes);
  profile_data(p_av->m_h_media, msg_lv, 0);
  SrvProbeMark after_lv = SrvProbeRead(p_av->m_p_flow->m_probes);
  SrvSourceCounts& c_lv = p_av->m_counts;
  bool b_audio_lv = strcmp(frame_av.m_s_type, "audio") == 0;
  Account(p_av, frame_av, before_lv, after_lv, i_need_lv, b_audio_lv ? 1 : 0);
  c_lv.m_i64_sent++;
  (b_audio_lv ? c_lv.m_i64_audio : c_lv.m_i64_video)++;
  c_lv.m_i64_keys += frame_av.m_i_key != 0 ? 1 : 0;
  c_lv.m_i64_bytes += frame_av.m_ui_size;
  c_lv.m_i64_need_answers += i_need_lv;
  if (i_need_lv > 0) {
    c_lv.m_i64_wanted++;
    (b_audio_lv ? c_lv.m_i64_wanted_audio : c_lv.m_i64_wanted_video)++;
    p_av->m_p_flow->m_i64_wanted++;
  }
  return i_need_lv;
}
