// Construction, open, start, reconfiguration and close of a recording
// channel, and the camera pair. The host's threads run all of it through
// plugin_open, plugin_exec and plugin_close.
#include "writer/writer_main.h"

#include <cstring>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "writer/writer_exchanger.h"
#include "writer/writer_global.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_parcer.h"

namespace {

const int32_t I_SIGN_WRITER = 4501;
const int32_t I_SIGN_TEXT = 4502;

int64_t HashOf(const SafeString* p_av) {
  const char* s_lv = SafeStringText(p_av);
  return static_cast<int64_t>(StrHash64(s_lv, static_cast<uint32_t>(strlen(s_lv))));
}

void TextSet(SafeString* p_dst_av, const SafeString* p_src_av) {
  SafeStringAssign(p_dst_av, SafeStringText(p_src_av), I_SIGN_TEXT);
}

bool TextEqual(const SafeString* p_a_av, const SafeString* p_b_av) {
  return strcmp(SafeStringText(p_a_av), SafeStringText(p_b_av)) == 0;
}

// Joins the first count keys with the separator; empty keys keep theirs.
void JoinKeys(const SafeString* p_keys_av, int32_t i_count_av, char c_sep_av, SafeString* p_out_av) {
  const char* texts_lv[5];
  for (int32_t i_lv = 0; i_lv < i_count_av; i_lv++) texts_lv[i_lv] = SafeStringText(&p_keys_av[i_lv]);
  SafeStringJoin(texts_lv, i_count_av, p_out_av, c_sep_av);
}

int32_t Code(const CWriter* p_av, int32_t i_video_av, int32_t i_audio_av) {
  return WriterIsAudio(p_av) ? i_audio_av : i_video_av;
}

void ArchiveSet(int32_t i_code_av, int64_t i64_id_av, int64_t i64_value_av) {
  if (g_archive.SetParamsByType != nullptr) g_archive.SetParamsByType(i_code_av, i64_id_av, i64_value_av);
}

// The camera ids from the arc keys, with their trace lines.
void ComputeIds(TCameraInfoW* p_info_av) {
  SafeString name_lv;
  JoinKeys(p_info_av->m_s_arc_keys, 4, '$', &name_lv);
  AtomicPut(&p_info_av->m_i64_id3, HashOf(&name_lv));
  TRACE44(TLOG_ARC, "<root><<<---CWriterExchanger::OpenTrack name3 %s id3 %lld \r\n", SafeStringText(&name_lv),
          static_cast<long long>(p_info_av->m_i64_id3));
  JoinKeys(p_info_av->m_s_arc_keys, 2, '$', &name_lv);
  p_info_av->m_i64_id2 = HashOf(&name_lv);
  TRACE44(TLOG_ARC, "<root><<<---CWriterExchanger::OpenTrack name2 %s id2 %lld \r\n", SafeStringText(&name_lv),
          static_cast<long long>(p_info_av->m_i64_id2));
  const SafeString* p_key2_lv = &p_info_av->m_s_arc_keys[1];
  if (SafeStringText(p_key2_lv)[0] == 0) return;
  p_info_av->m_i64_id1 = HashOf(p_key2_lv);
  TRACE44(TLOG_ARC, "<root><<<---CWriterExchanger::OpenTrack name1 %s id1 %lld \r\n", SafeStringText(p_key2_lv),
          static_cast<long long>(p_info_av->m_i64_id1));
}

void OpenEventTrack(CWriter* p_av) {
  ProfileCallback cb_lv = {&p_av->m_by_event, reinterpret_cast<void*>(&on_profile_events)};
  p_av->m_by_event.m_h_track_event = profile_open("track_event", &cb_lv, __FILE__, __LINE__);
}

// The settings that open and reconfiguration store alike.
void StoreSettings(CWriter* p_av, const TWriterConfig* p_cfg_av) {
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  // The frame path reads these without a lock while they change.
  AtomicPut(&p_av->m_by_event.prev_write, p_cfg_av->m_i64_prev_write);
  AtomicPut(&p_av->m_by_event.post_write, p_cfg_av->m_i64_post_write);
  p_info_lv->m_b_depth_restrict = p_cfg_av->m_b_depth_restrict != 0 ? 1 : 0;
  TextSet(&p_info_lv->m_s_in, &p_cfg_av->m_s_in);
  p_info_lv->m_i64_depth = p_cfg_av->m_i64_depth;
  AtomicPut(&p_av->m_b_only_key_frame, p_cfg_av->m_b_only_key_frame != 0 ? 1 : 0);
  p_info_lv->m_i_view_prior = p_cfg_av->m_i_view_prior;
}

void StoreStorage(TCameraInfoW* p_info_av, const SafeString* p_storage_av) {
  AtomicPut(&p_info_av->m_i64_storage_id, HashOf(p_storage_av));
  TextSet(&p_info_av->m_s_storage, p_storage_av);
}

void LogNotRecognized(const TWriterConfig* p_cfg_av) {
  SafeString name_lv;
  JoinKeys(p_cfg_av->m_s_common_keys, 4, '_', &name_lv);
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error>writer: %s error - json config not recognized", SafeStringText(&name_lv));
}

// WriterOpen's keys and ids of a recognised document.
void OpenIdentity(CWriter* p_av, const TWriterConfig* p_cfg_av) {
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  SafeString name_lv;
  JoinKeys(p_cfg_av->m_s_common_keys, 4, '_', &name_lv);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%s>writer: plugin open", SafeStringText(&name_lv));
  for (int i_lv = 0; i_lv < 5; i_lv++) {
    TextSet(&p_info_lv->m_s_common_keys[i_lv], &p_cfg_av->m_s_common_keys[i_lv]);
    TextSet(&p_info_lv->m_s_arc_keys[i_lv], &p_cfg_av->m_s_arc_keys[i_lv]);
  }
  ComputeIds(p_info_lv);
  p_info_lv->m_ui_id54 = p_cfg_av->m_ui_id54;
  p_info_lv->m_ui_id54_present = p_cfg_av->m_b_id54_present != 0 ? 1 : 0;
  StoreStorage(p_info_lv, &p_cfg_av->m_s_storage);
}

// WriterOpen from AddCameraInfo to the alive registration.
void OpenAnnounce(CWriter* p_av, ProfileParam* p_params_av, bool b_by_events_av) {
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  if (g_archive.AddCameraInfo != nullptr)
    g_archive.AddCameraInfo(reinterpret_cast<const ArchiveKey*>(p_info_lv->m_s_arc_keys), p_info_lv->m_i64_id3,
                            p_info_lv->m_i64_id2, p_info_lv->m_ui_id54, p_info_lv->m_i_view_prior,
                            static_cast<int32_t>(p_info_lv->m_ui_id54_present), p_av->m_i64_type_id);
  if (g_p_writer_global != nullptr) CListOurAdd(&g_p_writer_global->m_list_writers, p_av);
  ArchiveSet(Code(p_av, I_CODE_BY_EVENT_VIDEO, I_CODE_BY_EVENT_AUDIO), p_info_lv->m_i64_id3,
             p_info_lv->m_b_write_by_event);
  AtomicPut(&p_av->m_status.m_b_write_by_event, p_info_lv->m_b_write_by_event);
  p_av->m_p_schedule = SafeNew<WriterSchedule>(I_SIGN_WRITER, p_av);
  if (p_av->m_p_schedule != nullptr) LoadFromParams(p_av->m_p_schedule, p_params_av);
  if (b_by_events_av) OpenEventTrack(p_av);
  SafeString caption_lv;
  SafeStringAssign(&caption_lv, "writer ", I_SIGN_TEXT);
  SafeStringAppend(&caption_lv, SafeStringText(&p_info_lv->m_s_arc_keys[1]), I_SIGN_TEXT);
  RegisterAlive(p_av, SafeStringText(&caption_lv));
}

}  // namespace

TWriterConfig::TWriterConfig()
    : m_ui_id54(0),
      m_b_id54_present(0),
      m_b_by_events(0),
      m_i64_prev_write(0),
      m_i64_post_write(0),
      m_i_view_prior(0),
      m_b_depth_restrict(0),
      m_i64_depth(I64_DEPTH_DEFAULT),
      m_b_only_key_frame(0),
      m_b_profiles(0) {}

TWriterConfig::~TWriterConfig() {}

TCameraInfoW::TCameraInfoW(CWriter* p_writer_av)
    : m_p_writer(p_writer_av),
      m_i64_id1(0),
      m_i64_id2(0),
      m_i64_id3(0),
      m_ui_id54(0),
      m_ui_id54_present(0),
      m_i64_storage_id(0),
      m_b_write_off(0),
      m_i_view_prior(1),
      m_b_write_by_event(0),
      m_dw_write_handle(INVALIDATE_WRITE_HANDLE),
      m_p_write_buffering(nullptr),
      m_i64_last_handle_check(0),
      m_i64_last_pass_report(0),
      m_ui_pass_count(0),
      m_i64_pass_window_start(0),
      m_i64_pass_in_window(0),
      m_i64_pass_prev_window(0),
      m_i64_overload_check(0),
      m_i64_overload_passes(0),
      m_b_wait_key(0),
      m_s_pass_text(),
      m_b_depth_restrict(0),
      m_i64_depth(I64_DEPTH_DEFAULT) {
  m_p_write_buffering = SafeNew<CWriteBuffering>(I_SIGN_WRITER, this);
}

// The buffering object goes first, so that its thread is gone before any
// other member is taken apart.
TCameraInfoW::~TCameraInfoW() {
  SafeDelete(m_p_write_buffering);
  for (int i_lv = 0; i_lv < 5; i_lv++) {
    SafeStringDestroy(&m_s_arc_keys[i_lv]);
    SafeStringDestroy(&m_s_common_keys[i_lv]);
  }
  SafeStringDestroy(&m_s_storage);
  SafeStringDestroy(&m_s_in);
}

CWriter::CWriter()
    : m_p_frame_stat(nullptr),
      m_i64_last_stat_print(0),
      m_pb_frame_block(nullptr),
      m_ui_frame_block_size(0),
      m_ui_frame_number(0),
      m_h_track_frames(0),
      m_h_track_status(0),
      m_ui_fcc(0),
      m_p_data(nullptr),
      m_ui_data_size(0),
      m_p_extra(nullptr),
      m_ui_extra_size(0),
      m_i_width(0),
      m_i_height(0),
      m_i_key(0),
      m_i64_time(0),
      m_s_frame_type(),
      m_b_is_fierst_key_accepted(0),
      m_p_owner(this),
      m_i64_prev_index(0),
      m_i64_prev_audio_index(0),
      m_i64_prev_video_index(0),
      m_pb_params(nullptr),
      m_ui_params_capacity(0),
      m_ui_params_size(0),
      m_i64_prev_time(0),
      m_i64_last_forward_time(0),
      m_ui64_hash_sum_data(0),
      m_ui64_hash_sum_extra(0),
      m_i64_prev_local_time(0),
      m_camera_info_w(nullptr),
      m_b_need_prev(0),
      m_b_key_since_need(0),
      m_p_write_owner(this),
      m_i_write_zero(0),
      m_i_write_minus_one(-1),
      m_i_write_flag(0),
      m_i_stab_slot(-1),
      m_p_stab_owner(this),
      m_i64_stab_zero(0),
      m_i64_last_need_time(0),
      m_p_schedule(nullptr),
      m_ui_text_len(0),
      m_s_text(),
      m_status(),
      m_b_only_key_frame(0),
      m_i64_type_id(0),
      m_i64_block_local_time(0),
      m_fcc_facts(),
      m_param_layout() {
  m_by_event.m_p_writer = this;
  SAFE_MEM_ALLOCB5(m_p_frame_stat, static_cast<int32_t>(sizeof(TWaitStat)), I_SIGN_WRITER);
  if (m_p_frame_stat != nullptr) {
    memset(m_p_frame_stat, 0, sizeof(TWaitStat));
    WaitStatInit(m_p_frame_stat, -1);
  }
  m_camera_info_w = SafeNew<TCameraInfoW>(I_SIGN_WRITER, this);
  if (m_camera_info_w != nullptr && m_camera_info_w->m_p_write_buffering != nullptr)
    InitWriteBuffering(m_camera_info_w->m_p_write_buffering);
}

CWriter::~CWriter() {
  SafeDelete(m_p_schedule);
  TRACE44(TLOG_ARC_TRACE, "<buff>close start");
  // The pre-event ring lives on the buffering thread, which may still be
  // draining the last frames: that thread ends before the ring goes.
  if (m_camera_info_w != nullptr && m_camera_info_w->m_p_write_buffering != nullptr &&
      (AtomicGet(&m_by_event.prev_write) > 0 || m_by_event.m_p_prev_write != nullptr))
    ExitThreadWriteBuffering(m_camera_info_w->m_p_write_buffering);
  PrevWriteFree(&m_by_event);
  SafeDelete(m_camera_info_w);
  if (m_p_frame_stat != nullptr) WaitStatDestroy(m_p_frame_stat);
  SAFE_MEM_FREE(m_p_frame_stat);
  SafeStringDestroy(&m_s_type);
  SAFE_MEM_FREE(m_pb_params);
}

void CWriter::OnError() {
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error!: action present, but writearcaction not present");
}

CWriterPair::CWriterPair() {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  m_video.m_i64_type_id = p_global_lv != nullptr ? p_global_lv->m_i64_video_id : 0;
  SafeStringAssign(&m_video.m_s_type, "video", I_SIGN_TEXT);
  m_audio.m_i64_type_id = p_global_lv != nullptr ? p_global_lv->m_i64_audio_id : 0;
  SafeStringAssign(&m_audio.m_s_type, "audio", I_SIGN_TEXT);
}

CWriterPair::~CWriterPair() {}

int64_t InfoCamId(const TCameraInfoW* p_info_av) { return AtomicGet(&p_info_av->m_i64_id3); }

int32_t InfoWriteHandle(const TCameraInfoW* p_info_av) { return AtomicGet(&p_info_av->m_dw_write_handle); }

bool WriterIsAudio(const CWriter* p_av) {
  return g_p_writer_global != nullptr && p_av->m_i64_type_id == g_p_writer_global->m_i64_audio_id;
}

// Only a text can be a document: anything else under these names would be
// read past its end.
void WriterParseParams(CWriter* p_av, ProfileParam* p_params_av, TWriterConfig* p_cfg_av) {
  EventListClear(&p_av->m_by_event.m_list_events);
  if (p_params_av == nullptr) return;
  for (ProfileParam* p_lv = p_params_av; p_lv->name != nullptr && p_lv->value != nullptr; p_lv++) {
    if (strcmp(p_lv->name, "json") != 0 && strcmp(p_lv->name, "start") != 0) continue;
    int32_t b_profiles_lv = 0;
    int32_t b_id54_lv = 0;
    ParseWriterConfig(p_lv->type == PP_STRING ? static_cast<const char*>(p_lv->value) : nullptr,
                      p_cfg_av->m_s_arc_keys, p_cfg_av->m_s_common_keys, &p_cfg_av->m_s_in, &p_cfg_av->m_ui_id54,
                      &b_id54_lv, &p_cfg_av->m_s_storage, &p_cfg_av->m_b_by_events,
                      &p_av->m_by_event.m_list_events, &p_cfg_av->m_i64_prev_write, &p_cfg_av->m_i64_post_write,
                      &p_cfg_av->m_i_view_prior, &p_cfg_av->m_b_depth_restrict, &p_cfg_av->m_i64_depth,
                      &p_cfg_av->m_b_only_key_frame, &b_profiles_lv);
    if (!EventListHas(&p_av->m_by_event.m_list_events, I_EVENT_FORCED))
      EventListAdd(&p_av->m_by_event.m_list_events, I_EVENT_FORCED, 0);
    // Applied per element, so a second document multiplies the first
    // again; the products wrap as 64-bit numbers.
    p_cfg_av->m_i64_prev_write = static_cast<int64_t>(static_cast<uint64_t>(p_cfg_av->m_i64_prev_write) * 10000000ULL);
    p_cfg_av->m_i64_post_write = static_cast<int64_t>(static_cast<uint64_t>(p_cfg_av->m_i64_post_write) * 10000000ULL);
    p_cfg_av->m_i64_depth = static_cast<int64_t>(static_cast<uint64_t>(p_cfg_av->m_i64_depth) * 864000000000ULL);
    if (b_profiles_lv != 0) p_cfg_av->m_b_profiles = 1;
    if (b_id54_lv != 0) p_cfg_av->m_b_id54_present = 1;
  }
}

void WriterOpen(CWriter* p_av, ProfileParam* p_params_av) {
  TRACE45(TLOG_ARC_TRACEDECIM, TSEV_TRACE, "writer: plugin open start");
  TWriterConfig cfg_lv;
  WriterParseParams(p_av, p_params_av, &cfg_lv);
  if (cfg_lv.m_b_profiles != 0)
    OpenIdentity(p_av, &cfg_lv);
  else
    LogNotRecognized(&cfg_lv);
  SafeString name_lv;
  JoinKeys(cfg_lv.m_s_common_keys, 4, '_', &name_lv);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%s>writer: plugin open end", SafeStringText(&name_lv));
  StoreSettings(p_av, &cfg_lv);
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  if (cfg_lv.m_b_by_events != 0) {
    p_info_lv->m_b_write_by_event = 1;
    if (p_info_lv->m_i_view_prior == 0) p_info_lv->m_i_view_prior = 2;
  }
  if (p_info_lv->m_i_view_prior == 0) p_info_lv->m_i_view_prior = 1;
  OpenAnnounce(p_av, p_params_av, cfg_lv.m_b_by_events != 0);
  OpenTrack(p_av, cfg_lv.m_s_common_keys, &cfg_lv.m_s_in);
  TRACE45(TLOG_ARC_TRACEDECIM, TSEV_TRACE, "writer: plugin open end");
}

void WriterCloseTracks(CWriter* p_av) {
  BusTrackClose(&p_av->m_h_track_frames);
  BusTrackClose(&p_av->m_h_track_status);
  BusTrackClose(&p_av->m_by_event.m_h_track_event);
  int64_t i64_id3_lv = p_av->m_camera_info_w->m_i64_id3;
  ArchiveSet(Code(p_av, I_CODE_START_VIDEO, I_CODE_START_AUDIO), i64_id3_lv, -1);
  if (g_p_writer_global != nullptr) CListOurRemove(&g_p_writer_global->m_list_writers, p_av);
  ArchiveSet(Code(p_av, I_CODE_LEAVE_VIDEO, I_CODE_LEAVE_AUDIO), i64_id3_lv, -1);
}

// The "frame" request with its nested "get" marker: the source starts or
// goes on sending frames.
void WriterAskFrames(CWriter* p_av) {
  ProfileParam get_lv[] = {{PP_LIST, "get", nullptr}, {PP_END, nullptr, nullptr}};
  ProfileParam frame_lv[] = {{PP_LIST, "frame", get_lv}, {PP_END, nullptr, nullptr}};
  BusData(AtomicGet(&p_av->m_h_track_status), frame_lv);
}

void WriterStart(CWriter* p_av) {
  long long i64_id3_lv = static_cast<long long>(p_av->m_camera_info_w->m_i64_id3);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev>writer start vid", i64_id3_lv);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev>writer start aud", i64_id3_lv);
  InitEventStatus(&p_av->m_by_event);
  ArchiveSet(Code(p_av, I_CODE_START_VIDEO, I_CODE_START_AUDIO), i64_id3_lv, 1);
  // A camera with a plan is asked for frames by its schedule, when a plan
  // hour begins. A plan that was already open when the channel opened told
  // it before the status track existed, so that request was lost: ask here.
  const WriterSchedule* p_sched_lv = p_av->m_p_schedule;
  if (p_sched_lv != nullptr && AtomicGet(&p_sched_lv->m_b_is_shedule_present) != 0 &&
      AtomicGet(&p_sched_lv->m_b_state) == 0)
    return;
  TRACE44(TLOG_ARC_TRACE, "<%lld>writer: plugin exec start, get", i64_id3_lv);
  WriterAskFrames(p_av);
  // The start is the first control the channel gets: the status report
  // shows it until the events or the schedule say more.
  AtomicPut(&p_av->m_status.m_i64_sched_last_get, static_cast<int64_t>(FileTimeNowLocal()));
}

void WriterReconfigure(CWriter* p_av, ProfileParam* p_params_av) {
  TWriterConfig cfg_lv;
  WriterParseParams(p_av, p_params_av, &cfg_lv);
  if (p_params_av != nullptr && cfg_lv.m_b_profiles != 0) WriterApplyConfig(p_av, &cfg_lv, p_params_av);
  InitEventStatus(&p_av->m_by_event);
}

namespace {

bool KeysDiffer(const SafeString* p_a_av, const SafeString* p_b_av) {
  for (int i_lv = 0; i_lv < 5; i_lv++)
    if (!TextEqual(&p_a_av[i_lv], &p_b_av[i_lv])) return true;
  return false;
}

// New track names close and reopen both tracks; the same names keep them.
void ApplyTracks(CWriter* p_av, const TWriterConfig* p_cfg_av) {
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  if (!KeysDiffer(p_info_lv->m_s_common_keys, p_cfg_av->m_s_common_keys) &&
      TextEqual(&p_info_lv->m_s_in, &p_cfg_av->m_s_in))
    return;
  BusTrackClose(&p_av->m_h_track_frames);
  BusTrackClose(&p_av->m_h_track_status);
  OpenTrack(p_av, p_cfg_av->m_s_common_keys, &p_cfg_av->m_s_in);
  for (int i_lv = 0; i_lv < 5; i_lv++) TextSet(&p_info_lv->m_s_common_keys[i_lv], &p_cfg_av->m_s_common_keys[i_lv]);
}

void ApplyByEvents(CWriter* p_av, bool b_by_events_av) {
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  if (b_by_events_av) {
    AtomicPut(&p_info_lv->m_b_write_by_event, 1);
    if (p_info_lv->m_i_view_prior == 0) p_info_lv->m_i_view_prior = 2;
    if (p_av->m_by_event.m_h_track_event == 0) OpenEventTrack(p_av);
    return;
  }
  AtomicPut(&p_info_lv->m_b_write_by_event, 0);
  if (p_info_lv->m_i_view_prior == 0) p_info_lv->m_i_view_prior = 1;
  BusTrackClose(&p_av->m_by_event.m_h_track_event);
}

}  // namespace

void WriterApplyConfig(CWriter* p_av, const TWriterConfig* p_cfg_av, ProfileParam* p_params_av) {
  PlCritLock lock_lv(&p_av->m_crit_sect);
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  ApplyTracks(p_av, p_cfg_av);
  if (KeysDiffer(p_info_lv->m_s_arc_keys, p_cfg_av->m_s_arc_keys)) {
    for (int i_lv = 0; i_lv < 5; i_lv++) TextSet(&p_info_lv->m_s_arc_keys[i_lv], &p_cfg_av->m_s_arc_keys[i_lv]);
    ComputeIds(p_info_lv);
  }
  StoreStorage(p_info_lv, &p_cfg_av->m_s_storage);
  StoreSettings(p_av, p_cfg_av);
  ApplyByEvents(p_av, p_cfg_av->m_b_by_events != 0);
  ArchiveSet(Code(p_av, I_CODE_BY_EVENT_VIDEO, I_CODE_BY_EVENT_AUDIO), p_info_lv->m_i64_id3,
             p_info_lv->m_b_write_by_event);
  AtomicPut(&p_av->m_status.m_b_write_by_event, p_info_lv->m_b_write_by_event);
  if (p_av->m_p_schedule != nullptr) LoadFromParams(p_av->m_p_schedule, p_params_av);
  WriterPushSessionParams(p_av);
}

// The session is told its new settings between the two code 27 marks; an
// archive that is busy (0) is asked again, at most ten times.
void WriterPushSessionParams(CWriter* p_av) {
  TCameraInfoW* p_info_lv = p_av->m_camera_info_w;
  if (g_archive.SetParamsByTypeReqWrite == nullptr) return;
  for (int i_lv = 0; i_lv < 10; i_lv++) {
    int32_t i_handle_lv = InfoWriteHandle(p_info_lv);
    if (i_handle_lv == INVALIDATE_WRITE_HANDLE) return;
    if (g_archive.SetParamsByTypeReqWrite(i_handle_lv, 27, 1) == 0) continue;
    g_archive.SetParamsByTypeReqWrite(i_handle_lv, 70, p_info_lv->m_b_depth_restrict != 0 ? 1 : 0);
    g_archive.SetParamsByTypeReqWrite(i_handle_lv, 71, p_info_lv->m_i64_depth);
    g_archive.SetParamsByTypeReqWrite(i_handle_lv, 122, p_info_lv->m_b_write_by_event);
    g_archive.SetParamsByTypeReqWrite(i_handle_lv, 27, 0);
    return;
  }
}
