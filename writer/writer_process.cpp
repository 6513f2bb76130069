// The write process. TryWriteData and WriteData run on the frame source's
// thread (frame intake calls them) under the channel's buffering lock; the
// session functions and the writes run on the channel's buffering thread
// (GetAndWr calls them) and hold no lock over an archive call.
#include "writer/writer_process.h"

#include <cstring>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service5.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_global.h"
#include "writer/writer_intake.h"
#include "writer/writer_main.h"
#include "writer/writer_prev_write.h"

namespace {

// Microseconds from the file-time epoch to 1970.
const uint64_t UI64_EPOCH_MICROS = 0x295E9648864000ULL;

CWriterGlobal* Global() { return g_p_writer_global; }

// Overload report down after a quiet spell; checked only by good frames.
void ClearOverload(TCameraInfoW* p_av, int64_t i64_now_av) {
  if (i64_now_av <= p_av->m_i64_overload_check + I64_OVERLOAD_QUIET) return;
  if (p_av->m_i64_overload_passes == 0) ArcSetParams(126, -1, 0);
  p_av->m_i64_overload_check = i64_now_av;
  p_av->m_i64_overload_passes = 0;
  AtomicPut(&p_av->m_i64_pass_prev_window, static_cast<int64_t>(0));
}

// A frame passed over: counted, reported, and the stream waits for a key.
void CountPass(TCameraInfoW* p_av, int64_t i64_now_av, int32_t i_slot_av) {
  p_av->m_ui_pass_count++;
  p_av->m_i64_pass_in_window++;
  p_av->m_i64_overload_passes++;
  StableMark(i_slot_av, 21859);
  if (i64_now_av > p_av->m_i64_last_pass_report + I64_PASS_EVENT_PERIOD) {
    p_av->m_i64_last_pass_report = i64_now_av;
    FormatStr(p_av->m_s_pass_text, sizeof(p_av->m_s_pass_text), "number of pass event %d",
              static_cast<int>(p_av->m_ui_pass_count));
    CWriterGlobal* p_global_lv = Global();
    if (p_global_lv != nullptr)
      PostSystemEvent(p_global_lv->m_h_track_event, SYS_EVENT_PASS, p_av->m_s_arc_keys, p_av->m_p_writer->m_i64_type_id,
                      p_av->m_s_pass_text, ",ERROR,");
    p_av->m_ui_pass_count = 0;
  }
  if (p_av->m_i64_pass_in_window > I64_PASS_REPORT_LIMIT) ArcSetParams(126, -1, 1);
  if (i64_now_av > p_av->m_i64_pass_window_start + I64_PASS_WINDOW) {
    p_av->m_i64_pass_window_start = i64_now_av;
    AtomicPut(&p_av->m_i64_pass_prev_window, p_av->m_i64_pass_in_window);
    p_av->m_i64_pass_in_window = 0;
  }
  AtomicPut(&p_av->m_b_wait_key, 1);
}

// The admission rule and the build, under the buffering lock.
int32_t AdmitLocked(TCameraInfoW* p_av, int32_t i_slot_av, int64_t i64_counter_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  CWriteBuffering* p_buff_lv = p_av->m_p_write_buffering;
  int64_t i64_now_lv = static_cast<int64_t>(FileTimeNowLocal());
  StableMark(i_slot_av, 21853);
  int32_t i_key_lv = p_writer_lv->m_i_key;
  uint64_t ui64_total_lv = static_cast<uint64_t>(p_writer_lv->m_ui_data_size) + p_writer_lv->m_ui_params_size +
                           p_writer_lv->m_ui_extra_size + (i_key_lv != 0 ? 48 : 32) + 49;
  StableMark(i_slot_av, 21854);
  int64_t i64_curr_slot_lv = ArcGetParams(-1, 110);
  int64_t b_increase_lv = ArcGetParams(-1, 111);
  int64_t i64_max_size_lv = ArcGetParams(-1, 112);
  StableMark(i_slot_av, 21855);
  CWriterGlobal* p_global_lv = Global();
  if (p_global_lv != nullptr) {
    SpeedSetCurrSlot(&p_global_lv->m_speed_stat, static_cast<int32_t>(i64_curr_slot_lv));
    SpeedAdd(&p_global_lv->m_speed_stat, i64_counter_av, static_cast<uint32_t>(ui64_total_lv),
             p_writer_lv->m_ui_data_size, nullptr);
  }
  int64_t i64_used_lv = BuffsUsedMemRead();
  int32_t i_frames_lv = p_buff_lv->m_buffs[p_buff_lv->m_i_curr_put_ind].m_i_frame_num_b;
  bool b_may_enter_lv = i_frames_lv < I_BUFF_FRAMES_MAX || (b_increase_lv != 0 && i64_used_lv < i64_max_size_lv);
  if (b_may_enter_lv && (p_av->m_b_wait_key == 0 || i_key_lv != 0)) {
    StableMark(i_slot_av, 21856);
    if (FillBuff(p_writer_lv, i_slot_av) != 0) {
      StableMark(i_slot_av, 21857);
      if (i_key_lv != 0) AtomicPut(&p_av->m_b_wait_key, 0);
      int32_t i_status_lv = RC_OK;
      if (p_global_lv == nullptr || AtomicGet(&p_global_lv->m_b_work_mode_150607) == 0)
        i_status_lv = WriteData(p_av, i_slot_av);
      StableMark(i_slot_av, 21858);
      ClearOverload(p_av, i64_now_lv);
      return i_status_lv;
    }
  }
  TRACE45(TLOG_ARC, TSEV_FAULT,
          "<error3> narusheno usl m_i_frame_num_b(%d)<max num(%d)||b_increase_write_buffers_Lv(%d)&&ui64_buffs_used_"
          "mem_lv(%lld)<i64_max_buffers_size_lv(%lld))",
          i_frames_lv, I_BUFF_FRAMES_MAX, static_cast<int>(b_increase_lv), static_cast<long long>(i64_used_lv),
          static_cast<long long>(i64_max_size_lv));
  CountPass(p_av, i64_now_lv, i_slot_av);
  return RC_OK;
}

}  // namespace

int32_t MediaCode(const TCameraInfoW* p_av, int32_t i_video_av, int32_t i_audio_av) {
  return WriterIsAudio(p_av->m_p_writer) ? i_audio_av : i_video_av;
}

uint8_t FrameTypeByte(int32_t i_key_av, bool b_mpeg4_av, const char* s_frame_type_av) {
  uint8_t ui_lv = UI_FRAME_TYPE_ANY;
  if (i_key_av != 0) ui_lv |= UI_FRAME_TYPE_KEY;
  if (b_mpeg4_av) ui_lv |= UI_FRAME_TYPE_MPEG4;
  if (s_frame_type_av[0] == 'a' && strcmp(s_frame_type_av, "audio") == 0) ui_lv |= UI_FRAME_TYPE_AUDIO;
  return ui_lv;
}

int64_t FrameLocalTicks(int64_t i64_micros_av) {
  // Unsigned arithmetic: a source may send any time at all.
  uint64_t ui64_utc_lv = (static_cast<uint64_t>(i64_micros_av) + UI64_EPOCH_MICROS) * 10ULL;
  return static_cast<int64_t>(PlFileTimeToLocal(ui64_utc_lv) / 10 * 10);
}

int32_t TryWriteData(TCameraInfoW* p_av, int32_t i_slot_av) {
  CWriteBuffering* p_buff_lv = p_av->m_p_write_buffering;
  if (p_buff_lv == nullptr || p_buff_lv->m_p_crit_sect_write_buffering == nullptr) return RC_E_FAIL;
  int64_t i64_counter_lv = PlPerfCounter();
  StableMark(i_slot_av, 21851);
  int32_t i_status_lv = RC_OK;
  {
    PlCritLock lock_lv(p_buff_lv->m_p_crit_sect_write_buffering);
    StableMark(i_slot_av, 21852);
    i_status_lv = AdmitLocked(p_av, i_slot_av, i64_counter_lv);
  }
  StableMark(i_slot_av, 21860);
  return i_status_lv;
}

int32_t WriteData(TCameraInfoW* p_av, int32_t i_slot_av) {
  StableMark(i_slot_av, 21890);
  CWriter* p_writer_lv = p_av->m_p_writer;
  // The local time FillBuff worked out for this frame's block.
  int64_t i64_time_lv = p_writer_lv->m_i64_block_local_time;
  if (LogTraceWanted(TLOG_ARC_TRACE)) {
    char s_time_lv[FILE_TIME_TEXT_SIZE];
    FileTimeToText(static_cast<uint64_t>(i64_time_lv), s_time_lv);
    TRACE44(TLOG_ARC_TRACE, "<%lld>WriteData beg time %s ", static_cast<long long>(InfoCamId(p_av)), s_time_lv);
  }
  // The write-failure latch and the write-off flag are read by the
  // buffering thread's pre-event check without a lock.
  AtomicPut(&p_writer_lv->m_i_write_flag, 0);
  if (AtomicGet(&p_av->m_b_write_off) != 0) return RC_OK;
  int32_t i_status_lv = RC_OK;
  int32_t i_error_lv = I_WR_STATUS_START;
  if (p_writer_lv->m_pb_frame_block == nullptr || p_writer_lv->m_ui_frame_block_size < 1) {
    i_status_lv = RC_E_FAIL;
    i_error_lv = I_WR_STATUS_BAD_PARAM;
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error: bad write param");
  } else {
    const TFccFacts& facts_lv = FccFactsOf(&p_writer_lv->m_fcc_facts, p_writer_lv->m_ui_fcc);
    uint8_t ui_type_lv = FrameTypeByte(p_writer_lv->m_i_key, facts_lv.m_b_mpeg4, p_writer_lv->m_s_frame_type);
    StableMark(i_slot_av, 21891);
    PutToBuffers(p_av->m_p_write_buffering, p_writer_lv->m_ui_frame_block_size, ui_type_lv, i64_time_lv);
  }
  if (i_status_lv < 0 || i_status_lv == 1) ArcSetParams(MediaCode(p_av, 65, 106), InfoCamId(p_av), i_error_lv);
  StableMark(i_slot_av, 21892);
  return i_status_lv;
}

namespace {

void Mark(TWaitStat* p_wd_av, int32_t i_group_av, int32_t i_point_av, int32_t i_state_av) {
  WaitStateMark(p_wd_av, i_group_av, i_state_av, i_point_av);
}

// A new session under m_crit_sect, so that its keys are never half changed
// by a reconfiguration; the session settings are read under it too.
int32_t OpenSession(TCameraInfoW* p_av) {
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld> bef GetHandleForWrite", static_cast<long long>(InfoCamId(p_av)));
  CWriter* p_writer_lv = p_av->m_p_writer;
  int32_t i_handle_lv = INVALIDATE_WRITE_HANDLE;
  int32_t i_status_lv = RC_E_FAIL;
  int32_t b_depth_restrict_lv = 0;
  int64_t i64_depth_lv = 0;
  int32_t b_by_event_lv = 0;
  {
    PlCritLock lock_lv(&p_writer_lv->m_crit_sect);
    if (g_archive.GetHandleForWrite != nullptr)
      i_status_lv = g_archive.GetHandleForWrite(&i_handle_lv, p_av->m_i64_id1, p_av->m_i64_id2, p_av->m_i64_id3,
                                                reinterpret_cast<const ArchiveKey*>(p_av->m_s_arc_keys),
                                                p_av->m_i_view_prior, p_av->m_ui_id54, p_av->m_i64_storage_id,
                                                p_writer_lv->m_i64_type_id);
    b_depth_restrict_lv = p_av->m_b_depth_restrict != 0 ? 1 : 0;
    i64_depth_lv = p_av->m_i64_depth;
    b_by_event_lv = p_av->m_b_write_by_event;
  }
  if (i_status_lv >= 0) {
    AtomicPut(&p_av->m_dw_write_handle, i_handle_lv);
    ArcSetReq(i_handle_lv, 70, b_depth_restrict_lv);
    ArcSetReq(i_handle_lv, 71, i64_depth_lv);
    ArcSetReq(i_handle_lv, 122, b_by_event_lv);
    ArcSetReq(i_handle_lv, 47,
              static_cast<int64_t>(reinterpret_cast<intptr_t>(
                  p_av->m_p_write_buffering->m_h_event_activate_thread_write_buffering)));
  }
  return i_status_lv;
}

}  // namespace

int32_t OpenWriteHandle(TCameraInfoW* p_av, int32_t* p_error_av, int32_t* p_do_write_av, TWaitStat* p_wd_av) {
  Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20151, 1);
  *p_do_write_av = 0;
  int32_t i_status_lv = RC_OK;
  int64_t i64_now_lv = static_cast<int64_t>(FileTimeNowLocal());
  bool b_pause_lv = i64_now_lv <= p_av->m_i64_last_handle_check + I64_OPEN_RETRY_PAUSE;
  if (!b_pause_lv) {
    if (ArcGetReq(InfoWriteHandle(p_av), 29) == 0) AtomicPut(&p_av->m_dw_write_handle, INVALIDATE_WRITE_HANDLE);
    Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20152, 2);
    CheckWriteSession(p_av, p_wd_av);
    if (InfoWriteHandle(p_av) != INVALIDATE_WRITE_HANDLE) {
      *p_do_write_av = 1;
      Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20155, 0);
      return RC_OK;
    }
    Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20153, 3);
    i_status_lv = OpenSession(p_av);
    if (i_status_lv < 0) {
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error21>Writer Error reciving handle for write data");
      *p_error_av = I_WR_STATUS_NO_HANDLE;
    }
    Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20154, 4);
    int32_t i_handle_lv = InfoWriteHandle(p_av);
    TRACE44(TLOG_ARC_TRACEDECIM, "<handle> get writer cam %lld handl %d ", static_cast<long long>(InfoCamId(p_av)),
            static_cast<int>(i_handle_lv));
    if (i_status_lv >= 0) {
      if (i_handle_lv != INVALIDATE_WRITE_HANDLE) {
        *p_do_write_av = 1;
        Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20155, 0);
        return i_status_lv;
      }
      i_status_lv = RC_E_FAIL;
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error m_dw_write_handle == INVALIDATE_WRITE_HANDLE");
      *p_error_av = I_WR_STATUS_NO_HANDLE;
    }
  }
  if (i64_now_lv > p_av->m_i64_last_handle_check + I64_OPEN_RETRY_PAUSE) p_av->m_i64_last_handle_check = i64_now_lv;
  Mark(p_wd_av, WAIT_GROUP_OPEN_HANDLE, 20155, 0);
  return i_status_lv;
}

void CheckWriteSession(TCameraInfoW* p_av, TWaitStat* p_wd_av) {
  int32_t i_handle_lv = InfoWriteHandle(p_av);
  if (i_handle_lv == INVALIDATE_WRITE_HANDLE) return;
  int64_t i64_camera_lv = ArcGetReq(i_handle_lv, 10);
  int64_t i64_storage_lv = ArcGetReq(i_handle_lv, 36);
  Mark(p_wd_av, WAIT_GROUP_SESSION, 20161, 2);
  int64_t i64_error_state_lv = 0;
  // A session made for other keys or another storage belongs to the
  // channel as it was before a reconfiguration.
  bool b_bad_lv = i64_camera_lv != InfoCamId(p_av) || i64_storage_lv != AtomicGet(&p_av->m_i64_storage_id);
  if (!b_bad_lv) {
    i64_error_state_lv = ArcGetReq(i_handle_lv, 82);
    b_bad_lv = i64_error_state_lv != 0;
  }
  Mark(p_wd_av, WAIT_GROUP_SESSION, 20162, 4);
  if (b_bad_lv && CloseWriteHandle(p_av) < 0)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error close seanse 1 i_error_state_lv %d",
            static_cast<int>(i64_error_state_lv));
  Mark(p_wd_av, WAIT_GROUP_SESSION, 20163, 0);
}

// A channel that records by events with a pre-event time keeps its frames
// in the pre-event ring, which writes them itself when an event comes; the
// ring's write results do not come back here.
int32_t WriteFrame(TCameraInfoW* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                   int64_t i64_time_av, TWaitStat* p_wd_av) {
  CWriterByEvent* p_event_lv = &p_av->m_p_writer->m_by_event;
  if (AtomicGet(&p_event_lv->prev_write) > 0 && AtomicGet(&p_av->m_b_write_by_event) != 0 &&
      CheckDirectWrite(p_event_lv, ui_type_av) == 0) {
    WritePrevFrame(p_event_lv->m_p_prev_write, pb_data_av, ui_size_av, ui_type_av, i64_time_av, p_wd_av);
    return RC_OK;
  }
  TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> direct write ", static_cast<long long>(InfoCamId(p_av)));
  return WriteDataDirect(p_av, pb_data_av, ui_size_av, ui_type_av, i64_time_av, p_wd_av);
}

int32_t WriteDataDirect(TCameraInfoW* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                        int64_t i64_time_av, TWaitStat* p_wd_av) {
  int32_t i_slot_lv = p_wd_av != nullptr ? p_wd_av->m_i_stable_slot : -1;
  StableMark(i_slot_lv, 2);
  int32_t i_status_lv = RC_E_FAIL;
  if (g_archive.WriteDataForTime != nullptr)
    i_status_lv = g_archive.WriteDataForTime(InfoWriteHandle(p_av), pb_data_av, static_cast<int32_t>(ui_size_av),
                                             ui_type_av, i64_time_av);
  StableMark(i_slot_lv, 20142);
  return i_status_lv;
}

int32_t CloseWriteHandle(TCameraInfoW* p_av) {
  int32_t i_handle_lv = InfoWriteHandle(p_av);
  if (i_handle_lv == INVALIDATE_WRITE_HANDLE) return RC_OK;
  TRACE44(TLOG_ARC_TRACEDECIM, "<handle> close writer cam %lld, handl %d", static_cast<long long>(InfoCamId(p_av)),
          static_cast<int>(i_handle_lv));
  int32_t i_status_lv = g_archive.CloseHandleWrite != nullptr ? g_archive.CloseHandleWrite(i_handle_lv) : RC_OK;
  AtomicPut(&p_av->m_dw_write_handle, INVALIDATE_WRITE_HANDLE);
  return i_status_lv;
}
