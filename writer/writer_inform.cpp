// Liveness and error status of a channel, judged on its buffering thread
// from three signals: the last frame from the source, the last write the
// archive knows of, and what the archive says of its own condition. The
// status report, further down, shows what these judges and the frame path
// leave in the channel's status block.
#include "writer/writer_inform.h"

#include <cstring>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service5.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"

namespace {

const int32_t I_SIGN_INFORM = 4801;

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
  TLiveSignals sig_lv = {FileTimeNowLocalI64(), 0, 0, 0, 0, 0, 0};
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
  sig_lv.b_no_sign = AtomicGet(&p_writer_lv->m_status.m_i64_last_source_stat) + I64_JUDGE_PERIOD < FileTimeNowLocalI64() ? 1 : 0;
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
  int64_t i64_now_lv = FileTimeNowLocalI64();
  AtomicPut(&p_writer_lv->m_status.m_i64_buff_thread_last_itter, i64_now_lv);
  if (!(p_av->m_i64_last_error_status + I64_JUDGE_PERIOD < i64_now_lv)) return;
  p_av->m_i64_last_error_status = i64_now_lv;
  int64_t i64_last_write_lv = ArcGetReq(InfoWriteHandle(p_av->m_p_camera_info), 114);
  int32_t b_no_signal_lv =
      AtomicGet(&p_writer_lv->m_status.m_i64_last_source_stat) + I64_JUDGE_PERIOD < FileTimeNowLocalI64() ? 1 : 0;
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
  int32_t b_error_write_lv = i64_last_write_av + I64_WRITE_STALL < FileTimeNowLocalI64() ? 1 : 0;
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
  int64_t i64_now_lv = FileTimeNowLocalI64();
  if (p_av->m_b_error_timer_armed == 0) {
    p_av->m_b_error_timer_armed = 1;
    p_av->m_i64_error_since = i64_now_lv;
  }
  return p_av->m_i64_error_since + I64_JUDGE_PERIOD < i64_now_lv ? 1 : 0;
}

// ===========================================================================
// Status report: one line per channel for the queries GetStatus and
// GetError, run by the query dispatch on the asking thread under the lock of
// m_list_writers; and the fill statistic of the write buffers, fed by
// PutToBuffers on the frame path. The plain fields of the status block are
// read without a lock: a status a moment old is good enough for an operator.

namespace {

const int32_t I_SIGN_REPORT = 4802;
// Each formatted piece of a line is composed in an area of this size; keys
// too long for it are cut rather than written past it.
const size_t UI_LINE_AREA = 2032;
const int64_t I64_LINE_SPARE = 99;
const int64_t I64_NO_SIGNAL_AFTER = 50000000LL;  // 5 s
const int64_t I64_THREAD_STALL = 100000000LL;    // 10 s
const int64_t I64_PASS_WINDOW = 100000000LL;     // 10 s, the frame path's window of refused frames
const size_t UI_CLOCK_TEXT_SIZE = 16;

const int32_t POINT_STATUS_START = 20581;
const int32_t POINT_REPORT_END = 20555;
const int32_t POINT_EVENTS_START = 21551;
const int32_t POINT_EVENTS_END = 21552;
const int32_t POINT_FILL_START = 21553;
const int32_t POINT_FILL_END = 21554;

const char* const S_VIEW_BY_EVENTS = "by_events";
const char* const S_VIEW_FILL = "buffer_fill";
const char* const S_VIEW_FILL_BRIEF = "buffer_fill_breif";
const char* const S_VIEW_FILL_OVER_0 = "buffer_fill_over_0";
const char* const S_VIEW_FILL_OVER_1 = "buffer_fill_over_1";
const char* const S_VIEW_FILL_OVER_30 = "buffer_fill_over_30";

// What one report asks once for all its channels.
struct TReportNow {
  int64_t m_i64_now;
  char m_s_curr[UI_CLOCK_TEXT_SIZE];
  int32_t m_b_marking_process;
  int32_t m_b_marking_err;
};

const char* Flag(bool b_av) { return b_av ? "true" : "false"; }
bool ViewIs(const char* s_view_av, const char* s_name_av) { return strcmp(s_view_av, s_name_av) == 0; }

bool IsFillView(const char* s_view_av) {
  return ViewIs(s_view_av, S_VIEW_FILL) || ViewIs(s_view_av, S_VIEW_FILL_BRIEF) ||
         ViewIs(s_view_av, S_VIEW_FILL_OVER_0) || ViewIs(s_view_av, S_VIEW_FILL_OVER_1) ||
         ViewIs(s_view_av, S_VIEW_FILL_OVER_30);
}

// The time of day of the statistic, "%02d:%02d:%02d:%03d".
void ClockText(int64_t i64_ticks_av, char* s_buf_av) {
  PlCalendar cal_lv = {};
  if (!PlFileTimeToCalendar(static_cast<uint64_t>(i64_ticks_av), &cal_lv)) cal_lv = PlCalendar();
  FormatStr(s_buf_av, UI_CLOCK_TEXT_SIZE, "%02d:%02d:%02d:%03d", cal_lv.i_hour, cal_lv.i_minute, cal_lv.i_second,
            cal_lv.i_millisecond);
}

std::string TimeText(int64_t i64_ticks_av) {
  char s_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(i64_ticks_av), s_lv);
  return s_lv;
}

void AddLine(const char* s_line_av, int64_t* p_total_av, std::vector<std::string>* p_lines_av) {
  p_lines_av->push_back(s_line_av);
  *p_total_av += static_cast<int64_t>(p_lines_av->back().size()) + I64_LINE_SPARE;
}

// A reconfiguration may replace the key texts meanwhile: they are copied
// under the channel's lock, which is held only for the copy.
void CopyArcKeys(CWriter* p_writer_av, SafeString* p_keys5_av) {
  PlCritLock lock_lv(&p_writer_av->m_crit_sect);
  SafeStringTupleCopy(p_keys5_av, p_writer_av->m_camera_info_w->m_s_arc_keys, I_SIGN_REPORT);
}

// Closes the slot of the period that ended; the frame that ends it counts.
void StatClose(TBuffFillStat* p_ring_av, int64_t i64_cam_id_av, int32_t i_ind_av, int64_t i64_now_av) {
  if (static_cast<uint32_t>(p_ring_av->m_i_index) >= static_cast<uint32_t>(I_BUFF_FILL_SLOTS)) p_ring_av->m_i_index = 0;
  TBuffFillSlot* p_slot_lv = &p_ring_av->m_slots[p_ring_av->m_i_index];
  p_slot_lv->m_i64_value = p_ring_av->m_i_max;
  p_slot_lv->m_i64_time = i64_now_av;
  p_ring_av->m_i_max = 0;
  if (LogTraceWanted(TLOG_ARC_TRACE)) {
    char s_curr_lv[UI_CLOCK_TEXT_SIZE];
    ClockText(i64_now_av, s_curr_lv);
    TRACE44(TLOG_ARC_TRACE, "<stat_gen%lld_%d> curr t %s array index %d ", static_cast<long long>(i64_cam_id_av),
            i_ind_av, s_curr_lv, p_ring_av->m_i_index);
  }
  p_ring_av->m_i_index = (p_ring_av->m_i_index + 1) % I_BUFF_FILL_SLOTS;
  p_ring_av->m_i64_last_time = i64_now_av;
}

// The lines before and after the step; each keeps its own format, as an
// operator subscribes to a line by its format text.
void StatTrace(bool b_after_av, int64_t i64_cam_id_av, int32_t i_ind_av, int64_t i64_prev_av, int64_t i64_now_av,
               int32_t b_changed_av) {
  char s_prev_lv[UI_CLOCK_TEXT_SIZE];
  char s_curr_lv[UI_CLOCK_TEXT_SIZE];
  ClockText(i64_prev_av, s_prev_lv);
  ClockText(i64_now_av, s_curr_lv);
  long long i64_cam_lv = static_cast<long long>(i64_cam_id_av);
  if (b_after_av)
    TRACE44(TLOG_ARC_TRACE, "<stat_gen%lld_%d> 2 prev t %s curr t %s condish %d", i64_cam_lv, i_ind_av, s_prev_lv,
            s_curr_lv, b_changed_av);
  else
    TRACE44(TLOG_ARC_TRACE, "<stat_gen%lld_%d> prev t %s curr t %s condish %d", i64_cam_lv, i_ind_av, s_prev_lv,
            s_curr_lv, b_changed_av);
}

// The marking run is asked once per report: it excuses a standing thread.
void ReportNowTake(TReportNow* p_av) {
  p_av->m_i64_now = FileTimeNowLocalI64();
  ClockText(p_av->m_i64_now, p_av->m_s_curr);
  p_av->m_b_marking_process = ArcGetParams(-1, 128) != 0 ? 1 : 0;
  p_av->m_b_marking_err = ArcGetParams(-1, 129) != 0 ? 1 : 0;
}

bool ThreadStalled(const TWriterStatus* p_status_av, int64_t i64_now_av) {
  return AtomicGet(&p_status_av->m_i64_buff_thread_last_itter) + I64_THREAD_STALL < i64_now_av;
}

// A thread that stands while the archive marks without fault is waiting on
// the marking, not failing.
bool ChannelError(const TWriterStatus* p_status_av, const TReportNow* p_now_av) {
  if (AtomicGet(&p_status_av->m_b_is_write_error) != 0) return true;
  if (!ThreadStalled(p_status_av, p_now_av->m_i64_now)) return false;
  return !(p_now_av->m_b_marking_process != 0 && p_now_av->m_b_marking_err == 0);
}

// The head ends on the thread's round time with no quotes around it: the
// readers of this line take it so.
std::string ChannelHead(CWriter* p_writer_av, const SafeString* p_keys5_av, const TReportNow* p_now_av) {
  TWriterStatus* p_status_lv = &p_writer_av->m_status;
  char s_lv[UI_LINE_AREA];
  FormatStr(s_lv, sizeof(s_lv),
            "{\"key1\":\"%s\",\"key2\":\"%s\",\"key3\":\"%s\",\"key4\":\"%s\",\"type\":\"%s\",\"by_event_prop\":%s,"
            "\"forced_recording\":%s,\"error\":%s,\"buff_thread_last_itter\":%s",
            SafeStringText(&p_keys5_av[0]), SafeStringText(&p_keys5_av[1]), SafeStringText(&p_keys5_av[2]),
            SafeStringText(&p_keys5_av[3]), SafeStringText(&p_writer_av->m_s_type),
            Flag(AtomicGet(&p_status_lv->m_b_write_by_event) != 0),
            Flag(ForcedEventCounter(&p_writer_av->m_by_event) != 0), Flag(ChannelError(p_status_lv, p_now_av)),
            TimeText(AtomicGet(&p_status_lv->m_i64_buff_thread_last_itter)).c_str());
  return s_lv;
}

// "storage" and "by_event_condit" are constants of the line: its readers
// expect the fields, and nothing here has a value for them.
std::string ChannelBody(CWriter* p_writer_av, const TReportNow* p_now_av) {
  TWriterStatus* p_status_lv = &p_writer_av->m_status;
  TCameraInfoW* p_info_lv = p_writer_av->m_camera_info_w;
  int64_t i64_source_lv = AtomicGet(&p_status_lv->m_i64_last_source_stat);
  double d_refused_lv = static_cast<double>(AtomicGet(&p_info_lv->m_i64_pass_prev_window)) *
                        static_cast<double>(I64_TICKS_PER_SECOND) / static_cast<double>(I64_PASS_WINDOW);
  char s_lv[UI_LINE_AREA];
  FormatStr(s_lv, sizeof(s_lv),
            ",\"buff1_size\":%d,\"buff2_size\":%d,\"storage\":%lld,\"last_source\":\"%s\",\"no_signal\":%s,"
            "\"need_write\":%d,\"sched\":%d,\"by_event_condit\":%d,\"sched_last_get\":\"%s\",\"last_refused\":\"%s\","
            "\"last_detect\":\"%s\",\"last_iamlive\":\"%s\",\"no_write_in_sec\":%10.4f,\"wait_key_frame_mode\":%d",
            AtomicGet(&p_status_lv->m_i_buff_frames[0]), AtomicGet(&p_status_lv->m_i_buff_frames[1]), 0LL,
            TimeText(i64_source_lv).c_str(), Flag(i64_source_lv + I64_NO_SIGNAL_AFTER < p_now_av->m_i64_now),
            AtomicGet(&p_status_lv->m_b_last_need), AtomicGet(&p_status_lv->m_b_sched), 1,
            TimeText(AtomicGet(&p_status_lv->m_i64_sched_last_get)).c_str(),
            TimeText(AtomicGet(&p_status_lv->m_i64_last_unneeded)).c_str(),
            TimeText(AtomicGet(&p_status_lv->m_i64_last_detect)).c_str(),
            TimeText(AtomicGet(&p_status_lv->m_i64_last_alive_confirm)).c_str(), d_refused_lv,
            AtomicGet(&p_info_lv->m_b_wait_key));
  return s_lv;
}

// The by_events fragment follows the head with no comma: its readers take
// the line as it is.
std::string ChannelEvents(CWriter* p_writer_av, int32_t i_slot_av) {
  StableMark(i_slot_av, POINT_EVENTS_START);
  SafeString events_lv;
  EventsToJson(&p_writer_av->m_by_event, &events_lv);
  StableMark(i_slot_av, POINT_EVENTS_END);
  return SafeStringText(&events_lv);
}

// The fill form; false when neither ring has what the view shows.
bool FillLine(CWriter* p_writer_av, const SafeString* p_keys5_av, const char* s_view_av, const TReportNow* p_now_av,
              int32_t i_slot_av, std::string* p_out_av) {
  TWriterStatus* p_status_lv = &p_writer_av->m_status;
  if (BuffFillNotEmpty(&p_status_lv->m_buff_fill1, s_view_av) == 0 &&
      BuffFillNotEmpty(&p_status_lv->m_buff_fill2, s_view_av) == 0)
    return false;
  char s_lv[UI_LINE_AREA];
  FormatStr(s_lv, sizeof(s_lv), "{\"key2\":\"%s\",\"type\":\"%s\"", SafeStringText(&p_keys5_av[1]),
            SafeStringText(&p_writer_av->m_s_type));
  *p_out_av = s_lv;
  if (!ViewIs(s_view_av, S_VIEW_FILL)) {
    FormatStr(s_lv, sizeof(s_lv), ",\"curr\":\"%s\"", p_now_av->m_s_curr);
    *p_out_av += s_lv;
  }
  StableMark(i_slot_av, POINT_FILL_START);
  *p_out_av += ",\"buff1\":";
  BuffFillToJson(&p_status_lv->m_buff_fill1, p_out_av, s_view_av);
  *p_out_av += ",\"buff2\":";
  BuffFillToJson(&p_status_lv->m_buff_fill2, p_out_av, s_view_av);
  StableMark(i_slot_av, POINT_FILL_END);
  *p_out_av += "}";
  return true;
}

// The line of one channel of the list; false when the channel is not shown.
bool StatusLine(CWriter* p_writer_av, const SafeString* p_filter5_av, const char* s_view_av, const TReportNow* p_now_av,
                int32_t i_slot_av, std::string* p_out_av) {
  TCameraInfoW* p_info_lv = p_writer_av->m_camera_info_w;
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<51029>StatusronInformCam &m_camera_info_w %pp", static_cast<void*>(p_info_lv));
  if (p_info_lv == nullptr) return false;
  SafeString keys_lv[5];
  CopyArcKeys(p_writer_av, keys_lv);
  if (SafeStringTupleMatch(keys_lv, p_filter5_av) == 0) return false;
  bool b_by_events_lv = ViewIs(s_view_av, S_VIEW_BY_EVENTS);
  if (b_by_events_lv && AtomicGet(&p_writer_av->m_status.m_b_write_by_event) == 0) return false;
  if (IsFillView(s_view_av)) return FillLine(p_writer_av, keys_lv, s_view_av, p_now_av, i_slot_av, p_out_av);
  *p_out_av = ChannelHead(p_writer_av, keys_lv, p_now_av);
  *p_out_av += b_by_events_lv ? ChannelEvents(p_writer_av, i_slot_av) : ChannelBody(p_writer_av, p_now_av);
  *p_out_av += "}";
  return true;
}

// "name" is the first four keys joined by "_"; an empty key keeps its "_".
std::string ErrorLine(CWriter* p_writer_av) {
  SafeString keys_lv[5];
  CopyArcKeys(p_writer_av, keys_lv);
  const char* texts_lv[4] = {SafeStringText(&keys_lv[0]), SafeStringText(&keys_lv[1]), SafeStringText(&keys_lv[2]),
                             SafeStringText(&keys_lv[3])};
  SafeString name_lv;
  SafeStringJoin(texts_lv, 4, &name_lv, '_');
  char s_lv[UI_LINE_AREA];
  FormatStr(s_lv, sizeof(s_lv), "{\"name\":\"%s\",\"text\":\"Для типа %s ошибка записи\",\"id\":0}",
            SafeStringText(&name_lv), SafeStringText(&p_writer_av->m_s_type));
  return s_lv;
}

}  // namespace

TBuffFillStat::TBuffFillStat() : m_i_index(0), m_i64_last_time(0), m_i_max(0) { memset(m_slots, 0, sizeof(m_slots)); }

TBuffFillStat::~TBuffFillStat() {}

// A period is a second of the clock that had frames: seconds without frames
// leave no slot, so the ring holds the last 60 periods with traffic.
void StatGen(TBuffFillStat* p_ring_av, int64_t i64_cam_id_av, int32_t i_ind_av, int32_t i_count_av) {
  if (p_ring_av == nullptr) return;
  PlCritLock lock_lv(&p_ring_av->m_crit_sect);
  int64_t i64_now_lv = FileTimeNowLocalI64();
  if (p_ring_av->m_i_max < i_count_av) p_ring_av->m_i_max = i_count_av;
  int32_t b_changed_lv = i64_now_lv / I64_TICKS_PER_SECOND != p_ring_av->m_i64_last_time / I64_TICKS_PER_SECOND ? 1 : 0;
  bool b_trace_lv = LogTraceWanted(TLOG_ARC_TRACE);
  if (b_trace_lv) StatTrace(false, i64_cam_id_av, i_ind_av, p_ring_av->m_i64_last_time, i64_now_lv, b_changed_lv);
  if (b_changed_lv != 0) StatClose(p_ring_av, i64_cam_id_av, i_ind_av, i64_now_lv);
  if (b_trace_lv) StatTrace(true, i64_cam_id_av, i_ind_av, p_ring_av->m_i64_last_time, i64_now_lv, b_changed_lv);
}

void StatusFromInformCam(const SafeString* p_filter5_av, const char* s_view_av, int64_t* p_total_av,
                         std::vector<std::string>* p_lines_av, int32_t i_slot_av) {
  StableMark(i_slot_av, POINT_STATUS_START);
  if (s_view_av == nullptr) s_view_av = "";
  TReportNow now_lv;
  ReportNowTake(&now_lv);
  CWriterGlobal* p_global_lv = g_p_writer_global;
  for (int32_t i_lv = 0; p_global_lv != nullptr && i_lv < p_global_lv->m_list_writers.m_i_count; i_lv++) {
    CWriter* p_writer_lv = static_cast<CWriter*>(CListOurGet(&p_global_lv->m_list_writers, i_lv));
    std::string s_line_lv;
    if (p_writer_lv != nullptr && StatusLine(p_writer_lv, p_filter5_av, s_view_av, &now_lv, i_slot_av, &s_line_lv))
      AddLine(s_line_lv.c_str(), p_total_av, p_lines_av);
  }
  StableMark(i_slot_av, POINT_REPORT_END);
}

// Work mode 150204 lists every channel, so that an operator can see what
// the error list looks like without an error.
void ErrorFromInformCam(int64_t* p_total_av, std::vector<std::string>* p_lines_av, int32_t i_slot_av) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  int64_t i64_now_lv = FileTimeNowLocalI64();
  bool b_all_lv = p_global_lv != nullptr && AtomicGet(&p_global_lv->m_b_work_mode_150204) != 0;
  for (int32_t i_lv = 0; p_global_lv != nullptr && i_lv < p_global_lv->m_list_writers.m_i_count; i_lv++) {
    CWriter* p_writer_lv = static_cast<CWriter*>(CListOurGet(&p_global_lv->m_list_writers, i_lv));
    if (p_writer_lv == nullptr || p_writer_lv->m_camera_info_w == nullptr) continue;
    TWriterStatus* p_status_lv = &p_writer_lv->m_status;
    if (!b_all_lv && AtomicGet(&p_status_lv->m_b_is_write_error) == 0 && !ThreadStalled(p_status_lv, i64_now_lv))
      continue;
    AddLine(ErrorLine(p_writer_lv).c_str(), p_total_av, p_lines_av);
  }
  StableMark(i_slot_av, POINT_REPORT_END);
}

void BuffFillToJson(TBuffFillStat* p_ring_av, std::string* p_out_av, const char* s_view_av) {
  bool b_pairs_lv = s_view_av != nullptr && ViewIs(s_view_av, S_VIEW_FILL);
  PlCritLock lock_lv(&p_ring_av->m_crit_sect);
  int32_t i_start_lv =
      static_cast<uint32_t>(p_ring_av->m_i_index) < static_cast<uint32_t>(I_BUFF_FILL_SLOTS) ? p_ring_av->m_i_index : 0;
  p_out_av->push_back('[');
  for (int32_t i_lv = 0; i_lv < I_BUFF_FILL_SLOTS; i_lv++) {
    const TBuffFillSlot* p_slot_lv = &p_ring_av->m_slots[(i_start_lv + i_lv) % I_BUFF_FILL_SLOTS];
    char s_entry_lv[64];
    if (b_pairs_lv) {
      char s_time_lv[UI_CLOCK_TEXT_SIZE];
      ClockText(p_slot_lv->m_i64_time, s_time_lv);
      FormatStr(s_entry_lv, sizeof(s_entry_lv), "[\"%s\",%lld]", s_time_lv,
                static_cast<long long>(p_slot_lv->m_i64_value));
    } else {
      FormatStr(s_entry_lv, sizeof(s_entry_lv), "%lld", static_cast<long long>(p_slot_lv->m_i64_value));
    }
    if (i_lv > 0) p_out_av->push_back(',');
    p_out_av->append(s_entry_lv);
  }
  p_out_av->push_back(']');
}

int32_t BuffFillNotEmpty(TBuffFillStat* p_ring_av, const char* s_view_av) {
  if (s_view_av == nullptr) s_view_av = "";
  if (ViewIs(s_view_av, S_VIEW_FILL) || ViewIs(s_view_av, S_VIEW_FILL_BRIEF)) return 1;
  int64_t i64_threshold_lv = 0;
  if (ViewIs(s_view_av, S_VIEW_FILL_OVER_30)) i64_threshold_lv = 30;
  if (ViewIs(s_view_av, S_VIEW_FILL_OVER_1)) i64_threshold_lv = 1;
  PlCritLock lock_lv(&p_ring_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < I_BUFF_FILL_SLOTS; i_lv++)
    if (p_ring_av->m_slots[i_lv].m_i64_value > i64_threshold_lv) return 1;
  return 0;
}
