// Liveness and error status of a channel, judged on its buffering thread
// from three signals: the last frame from the source, the last write the
// archive knows of, and what the archive says of its own condition.
#include "writer/writer_inform.h"

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service5.h"
#include "linux/common_use/temp/tools.h"
#include "writer/writer_atomic.h"
#include "writer/writer_buffering.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"

namespace {

const int32_t I_SIGN_INFORM = 4801;

int64_t NowLocal() { return static_cast<int64_t>(FileTimeNowLocal()); }

// What the judges read of the channel's configuration, copied under the
// channel's lock because a reconfiguration may replace these texts.
struct TInformKeys {
  SafeString m_s_keys[3];
  SafeString m_s_caption;
  SafeString m_s_storage_text;
  int64_t m_i64_storage_id;
};

void CopyKeys(TCameraInfoW* p_info_av, TInformKeys* p_out_av) {
  PlCritLock lock_lv(&p_info_av->m_p_writer->m_crit_sect);
  for (int i_lv = 0; i_lv < 3; i_lv++)
    SafeStringAssign(&p_out_av->m_s_keys[i_lv],
                     p_info_av->m_s_arc_keys[i_lv].m_p_text != nullptr ? p_info_av->m_s_arc_keys[i_lv].m_p_text : "",
                     I_SIGN_INFORM);
  SafeStringAssign(&p_out_av->m_s_caption, "writer ", I_SIGN_INFORM);
  SafeStringAppend(&p_out_av->m_s_caption, p_info_av->m_s_arc_keys[1].m_p_text, I_SIGN_INFORM);
  SafeStringAssign(&p_out_av->m_s_storage_text, "storage id ", I_SIGN_INFORM);
  SafeStringAppend(&p_out_av->m_s_storage_text, p_info_av->m_s_storage.m_p_text, I_SIGN_INFORM);
  p_out_av->m_i64_storage_id = p_info_av->m_i64_storage_id;
}

void PostEvent(CWriteBuffering* p_av, const TInformKeys* p_keys_av, int32_t i_code_av, const char* s_text_av) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv == nullptr) return;
  PostSystemEvent(p_global_lv->m_h_track_event, i_code_av, p_keys_av->m_s_keys, p_av->m_p_writer->m_i64_type_id,
                  s_text_av, ",ERROR,");
}

int64_t GlobalStartTime() {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  return p_global_lv != nullptr ? p_global_lv->m_i64_start_time : 0;
}

// The judges' signals in one place.
struct TLiveSignals {
  int64_t m_i64_now;
  int32_t m_i_handle;
  int32_t b_restart_conf;
  int32_t b_no_sign;
  int32_t b_err_wr;
  int32_t b_path_ex;
  int64_t m_i64_last_write;
};

// The stall is held against the writer: no confirmation. Otherwise a
// missing storage path is told, at most every 600 s.
bool StallIsTheWritersFault(CWriteBuffering* p_av, const TInformKeys* p_keys_av, TLiveSignals* p_sig_av,
                            int32_t i_slot_av) {
  StableMark(i_slot_av, 22164);
  CWriter* p_writer_lv = p_av->m_p_writer;
  p_sig_av->b_path_ex = ArcGetParams(p_keys_av->m_i64_storage_id, 115) != 0 ? 1 : 0;
  if (p_sig_av->b_path_ex != 0) {
    if (!(GlobalStartTime() + I64_START_GRACE < p_sig_av->m_i64_now)) return false;
    char s_last_lv[FILE_TIME_TEXT_SIZE];
    FileTimeToText(static_cast<uint64_t>(p_sig_av->m_i64_last_write), s_last_lv);
    TRACE45(TLOG_ARC, TSEV_FAULT,
            "<error17>%lld_%lld wr handle %d 2 IAmLive b_is_live_lv is false, path ex %d, restart conf %d, no sign "
            "%d, err wr %d, last wr %s",
            static_cast<long long>(InfoCamId(p_av->m_p_camera_info)), static_cast<long long>(p_writer_lv->m_i64_type_id),
            p_sig_av->m_i_handle, p_sig_av->b_path_ex, p_sig_av->b_restart_conf, p_sig_av->b_no_sign,
            p_sig_av->b_err_wr, s_last_lv);
    return true;
  }
  if (p_av->m_i64_last_storage_event + I64_EVENT_DISTANCE < p_sig_av->m_i64_now) {
    StableMark(i_slot_av, 22165);
    PostEvent(p_av, p_keys_av, SYS_EVENT_STORAGE, p_keys_av->m_s_storage_text.m_p_text);
    p_av->m_i64_last_storage_event = p_sig_av->m_i64_now;
  }
  return false;
}

void Confirm(CWriteBuffering* p_av, const TInformKeys* p_keys_av, const TLiveSignals* p_sig_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  RegisterAlive(p_writer_lv, p_keys_av->m_s_caption.m_p_text != nullptr ? p_keys_av->m_s_caption.m_p_text : "");
  AtomicPut(&p_writer_lv->m_status.m_i64_last_alive_confirm, p_sig_av->m_i64_now);
  char s_last_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(p_sig_av->m_i64_last_write), s_last_lv);
  TRACE45(TLOG_ARC_TRACEDECIM, TSEV_TRACE,
          "<alive%lld_%lld> wr handle %d 2 IAmLive b_is_live_lv is true, path ex %d, restart conf %d, no sign %d, err "
          "wr %d, last wr %s",
          static_cast<long long>(InfoCamId(p_av->m_p_camera_info)), static_cast<long long>(p_writer_lv->m_i64_type_id),
          p_sig_av->m_i_handle, p_sig_av->b_path_ex, p_sig_av->b_restart_conf, p_sig_av->b_no_sign, p_sig_av->b_err_wr,
          s_last_lv);
}

void CheckExpiry(CWriteBuffering* p_av, const TInformKeys* p_keys_av, const TLiveSignals* p_sig_av,
                 int32_t i_slot_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  int64_t i64_confirm_lv = AtomicGet(&p_writer_lv->m_status.m_i64_last_alive_confirm);
  if (i64_confirm_lv == 0 || !(i64_confirm_lv + I64_CONFIRM_EXPIRY < p_sig_av->m_i64_now) ||
      !(p_av->m_i64_last_confirm_event + I64_EVENT_DISTANCE < p_sig_av->m_i64_now))
    return;
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error18>%lld_%lld wr handle %d IAmLive I am live confirm erpired",
          static_cast<long long>(InfoCamId(p_av->m_p_camera_info)), static_cast<long long>(p_writer_lv->m_i64_type_id),
          p_sig_av->m_i_handle);
  StableMark(i_slot_av, 22166);
  PostEvent(p_av, p_keys_av, SYS_EVENT_LIVE_EXPIRED, "I am live confirm erpired");
  p_av->m_i64_last_confirm_event = p_sig_av->m_i64_now;
}

}  // namespace

void IAmLive(CWriteBuffering* p_av, int32_t i_slot_av) {
  StableMark(i_slot_av, 22161);
  TCameraInfoW* p_info_lv = p_av->m_p_camera_info;
  CWriter* p_writer_lv = p_av->m_p_writer;
  TLiveSignals sig_lv = {NowLocal(), 0, 0, 0, 0, 0, 0};
  StableMark(i_slot_av, 22162);
  // A clock that went back brings the run forward.
  if (p_info_lv == nullptr || p_writer_lv == nullptr ||
      (!(p_av->m_i64_last_i_am_live + I64_JUDGE_PERIOD < sig_lv.m_i64_now) &&
       !(p_av->m_i64_last_i_am_live > sig_lv.m_i64_now))) {
    StableMark(i_slot_av, 22167);
    return;
  }
  StableMark(i_slot_av, 22163);
  sig_lv.b_restart_conf = ArcGetParams(-1, 116) != 0 ? 1 : 0;
  p_av->m_i64_last_i_am_live = sig_lv.m_i64_now;
  sig_lv.b_no_sign = AtomicGet(&p_writer_lv->m_status.m_i64_last_source_stat) + I64_JUDGE_PERIOD < NowLocal() ? 1 : 0;
  sig_lv.m_i_handle = InfoWriteHandle(p_info_lv);
  TRACE44(TLOG_ARC_TRACE, "<%lld_%lld> IAmLive bef GetParamsByTypeReqWrite wr handle %d",
          static_cast<long long>(InfoCamId(p_info_lv)), static_cast<long long>(p_writer_lv->m_i64_type_id),
          sig_lv.m_i_handle);
  StableMark(i_slot_av, 22164);
  if (sig_lv.m_i_handle != INVALIDATE_WRITE_HANDLE) sig_lv.m_i64_last_write = ArcGetReq(sig_lv.m_i_handle, 114);
  sig_lv.b_err_wr = sig_lv.m_i64_last_write + I64_WRITE_STALL < sig_lv.m_i64_now ? 1 : 0;
  TInformKeys keys_lv;
  CopyKeys(p_info_lv, &keys_lv);
  bool b_stalled_lv = sig_lv.b_restart_conf != 0 && sig_lv.b_no_sign == 0 && sig_lv.b_err_wr != 0;
  if (!b_stalled_lv || !StallIsTheWritersFault(p_av, &keys_lv, &sig_lv, i_slot_av)) Confirm(p_av, &keys_lv, &sig_lv);
  CheckExpiry(p_av, &keys_lv, &sig_lv, i_slot_av);
  StableMark(i_slot_av, 22167);
}

void WriteErrorStatusFormation_Vart2(CWriteBuffering* p_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  if (p_writer_lv == nullptr || p_av->m_p_camera_info == nullptr) return;
  int64_t i64_now_lv = NowLocal();
  AtomicPut(&p_writer_lv->m_status.m_i64_buff_thread_last_itter, i64_now_lv);
  if (!(p_av->m_i64_last_error_status + I64_JUDGE_PERIOD < i64_now_lv)) return;
  p_av->m_i64_last_error_status = i64_now_lv;
  int64_t i64_last_write_lv = ArcGetReq(InfoWriteHandle(p_av->m_p_camera_info), 114);
  int32_t b_no_signal_lv =
      AtomicGet(&p_writer_lv->m_status.m_i64_last_source_stat) + I64_JUDGE_PERIOD < NowLocal() ? 1 : 0;
  int32_t b_marking_process_lv = ArcGetParams(-1, 128) != 0 ? 1 : 0;
  int32_t b_marking_err_lv = ArcGetParams(-1, 129) != 0 ? 1 : 0;
  int32_t b_no_error_lv = FindOutNoError(p_av, i64_last_write_lv, b_no_signal_lv, b_marking_process_lv, b_marking_err_lv);
  int32_t b_error_lv = FindOutError(p_av);
  if (b_no_error_lv == 1)
    AtomicPut(&p_writer_lv->m_status.m_b_is_write_error, 0);
  else if (b_error_lv == 1)
    AtomicPut(&p_writer_lv->m_status.m_b_is_write_error, 1);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE,
          "<51029>WriteErrorStatusFormation_Vart2 &m_camera_info_w %pp, no signal %d,marking process %d, marking err "
          "%d, m_b_is_write_error %d, type %lld, b_find_out_no_error_lv %d, b_find_out_error_lv %d",
          static_cast<void*>(p_av->m_p_camera_info), b_no_signal_lv, b_marking_process_lv, b_marking_err_lv,
          AtomicGet(&p_writer_lv->m_status.m_b_is_write_error), static_cast<long long>(p_writer_lv->m_i64_type_id),
          b_no_error_lv, b_error_lv);
}

int32_t FindOutNoError(CWriteBuffering* p_av, int64_t i64_last_write_av, int32_t b_no_signal_av,
                       int32_t b_marking_process_av, int32_t b_marking_err_av) {
  int32_t b_error_write_lv = i64_last_write_av + I64_WRITE_STALL < NowLocal() ? 1 : 0;
  // A silent source is no writing error, and while the archive marks,
  // writes may pause.
  int32_t b_result_lv = 1;
  if (b_no_signal_av == 0 && (b_marking_process_av == 0 || b_marking_err_av != 0))
    b_result_lv = b_error_write_lv == 0 ? 1 : 0;
  char s_last_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(i64_last_write_av), s_last_lv);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE,
          "<51029>FindOutNoError &m_camera_info_w %pp, no signal %d,marking process %d, marking err %d, "
          "b_error_write_lv %d, type %lld, i64_last_wrile_av %s",
          static_cast<void*>(p_av->m_p_camera_info), b_no_signal_av, b_marking_process_av, b_marking_err_av,
          b_error_write_lv, static_cast<long long>(p_av->m_p_writer != nullptr ? p_av->m_p_writer->m_i64_type_id : 0),
          s_last_lv);
  if (b_result_lv == 1) {
    p_av->m_i64_error_since = 0;
    p_av->m_b_error_timer_armed = 0;
  }
  return b_result_lv;
}

int32_t FindOutError(CWriteBuffering* p_av) {
  int64_t i64_now_lv = NowLocal();
  if (p_av->m_b_error_timer_armed == 0) {
    p_av->m_b_error_timer_armed = 1;
    p_av->m_i64_error_since = i64_now_lv;
  }
  return p_av->m_i64_error_since + I64_JUDGE_PERIOD < i64_now_lv ? 1 : 0;
}
