// The double buffer of a channel: the put side that the frame path calls
// under the buffering lock, the drain round of the buffering thread, and
// the liveness messages of "alive_track".
#include "writer/writer_buffering.h"

#include <cstring>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/temp/tools.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "writer/writer_process.h"

namespace {

// Whole-word loads and stores: every frame's tag is written once and read
// at each drain, and the byte-by-byte form compiled into a shift per byte.
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
uint32_t Le(uint32_t ui_av) { return __builtin_bswap32(ui_av); }
uint64_t Le(uint64_t ui64_av) { return __builtin_bswap64(ui64_av); }
#else
uint32_t Le(uint32_t ui_av) { return ui_av; }
uint64_t Le(uint64_t ui64_av) { return ui64_av; }
#endif
void PutLe32(uint8_t* pb_av, uint32_t ui_av) {
  ui_av = Le(ui_av);
  memcpy(pb_av, &ui_av, 4);
}
void PutLe64(uint8_t* pb_av, uint64_t ui64_av) {
  ui64_av = Le(ui64_av);
  memcpy(pb_av, &ui64_av, 8);
}
uint32_t GetLe32(const uint8_t* pb_av) {
  uint32_t ui_lv = 0;
  memcpy(&ui_lv, pb_av, 4);
  return Le(ui_lv);
}
uint64_t GetLe64(const uint8_t* pb_av) {
  uint64_t ui64_lv = 0;
  memcpy(&ui64_lv, pb_av, 8);
  return Le(ui64_lv);
}

long long CameraId(const CWriteBuffering* p_av) {
  return p_av->m_p_camera_info != nullptr ? static_cast<long long>(InfoCamId(p_av->m_p_camera_info)) : 0;
}

void Mark(TWaitStat* p_wd_av, int32_t i_point_av, int32_t i_state_av) {
  WaitStateMark(p_wd_av, WAIT_GROUP_GET_AND_WR, i_state_av, i_point_av);
}

void SendAlive(CWriter* p_owner_av, const char* s_command_av, const char* s_caption_av) {
  TrackHandle h_lv = profile_open("alive_track", nullptr, __FILE__, __LINE__);
  if (h_lv == 0) return;
  ProfileParam params_lv[] = {{PP_STRING, "command", const_cast<char*>(s_command_av)},
                              {PP_STRING, "caption", const_cast<char*>(s_caption_av)},
                              {PP_OBJECT, "owner", p_owner_av},
                              {PP_END, nullptr, nullptr}};
  BusData(h_lv, params_lv);
  profile_close(h_lv);
}

// The record at the read position, if it is one this side wrote: its magic,
// and a length that stays inside the bytes appended.
bool RecordAt(const TWriteBuffer* p_buff_av, int32_t i_pos_av, const uint8_t** ppb_out_av) {
  if (p_buff_av->m_pb_data_b == nullptr) return false;
  int64_t i64_limit_lv = p_buff_av->m_i_offs_b < p_buff_av->m_i_storage_size_b ? p_buff_av->m_i_offs_b
                                                                               : p_buff_av->m_i_storage_size_b;
  if (i_pos_av < 0 || i_pos_av + static_cast<int64_t>(UI_FRAME_TAG_HEAD) > i64_limit_lv) return false;
  const uint8_t* pb_lv = p_buff_av->m_pb_data_b + i_pos_av;
  uint32_t ui_len_lv = GetLe32(pb_lv);
  if (GetLe32(pb_lv + 4) != UI_FRAME_TAG_MAGIC || ui_len_lv < UI_FRAME_TAG_HEAD ||
      GetLe32(pb_lv + 21) != ui_len_lv - UI_FRAME_TAG_HEAD || i_pos_av + static_cast<int64_t>(ui_len_lv) > i64_limit_lv)
    return false;
  *ppb_out_av = pb_lv;
  return true;
}

// What the drain holds of the last good record.
struct TDrainFrame {
  const uint8_t* m_pb_payload;
  uint32_t m_ui_size;
  uint8_t m_ui_type;
  int64_t m_i64_time;
};

// One record to the archive, with the two reports of a lost frame.
void WriteRecord(CWriteBuffering* p_av, const TDrainFrame* p_fr_av, int32_t* p_result_av, TWaitStat* p_wd_av) {
  TCameraInfoW* p_info_lv = p_av->m_p_camera_info;
  int64_t i64_cam_lv = InfoCamId(p_info_lv);
  Mark(p_wd_av, 20113, 3);
  int32_t b_do_write_lv = 1;
  int32_t i_error_lv = I_WR_STATUS_START;
  if (ArcGetParams(i64_cam_lv, MediaCode(p_info_lv, 85, 107)) == 0) {
    OpenWriteHandle(p_info_lv, &i_error_lv, &b_do_write_lv, p_wd_av);
    if (b_do_write_lv != 0) {
      Mark(p_wd_av, 20114, 5);
      *p_result_av = WriteFrame(p_info_lv, p_fr_av->m_pb_payload, p_fr_av->m_ui_size, p_fr_av->m_ui_type,
                                p_fr_av->m_i64_time, p_wd_av);
      if (*p_result_av < 0) {
        TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error write data, data lost cam %lld ",
                static_cast<long long>(i64_cam_lv));
        ArcSetParams(MediaCode(p_info_lv, 65, 106), i64_cam_lv, I_WR_STATUS_LOST);
        i_error_lv = I_WR_STATUS_LOST;
      }
    }
  }
  Mark(p_wd_av, 20115, 7);
  // The result of an earlier record of the round, or of the session close,
  // is reported again on a record that wrote nothing.
  if (*p_result_av < 0 || *p_result_av == 1) ArcSetParams(MediaCode(p_info_lv, 65, 106), i64_cam_lv, i_error_lv);
}

// Walks the read buffer from its start until all is read or the thread is
// asked to stop. A damaged record is looked at again and again, and the last
// good frame is written again each time, until the stop.
void Drain(CWriteBuffering* p_av, int32_t i_read_ind_av, int32_t* p_result_av, TWaitStat* p_wd_av) {
  TWriteBuffer* p_rd_lv = &p_av->m_buffs[i_read_ind_av];
  long long i64_cam_lv = CameraId(p_av);
  int32_t i_pos_lv = 0;
  TDrainFrame fr_lv = {nullptr, 0, 0, 0};
  while (AtomicGetAcquire(&p_av->m_b_exit_thread_write_buffering) == 0) {
    int32_t i_prev_lv = i_pos_lv;
    const uint8_t* pb_rec_lv = nullptr;
    if (RecordAt(p_rd_lv, i_pos_lv, &pb_rec_lv)) {
      fr_lv.m_ui_size = GetLe32(pb_rec_lv + 21);
      fr_lv.m_ui_type = pb_rec_lv[20];
      fr_lv.m_i64_time = static_cast<int64_t>(GetLe64(pb_rec_lv + 12));
      fr_lv.m_pb_payload = pb_rec_lv + UI_FRAME_TAG_HEAD;
      i_pos_lv += static_cast<int32_t>(GetLe32(pb_rec_lv));
      if (--p_rd_lv->m_i_frame_num_b < 0) TRACE45(TLOG_ARC, TSEV_FAULT, "<error3> m_i_frame_num_b < 0");
    } else if (p_rd_lv->m_pb_data_b != nullptr) {
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error> Writer Error bufferization");
    }
    if (LogTraceWanted(TLOG_ARC_TRACE)) {
      char s_time_lv[FILE_TIME_TEXT_SIZE];
      FileTimeToText(static_cast<uint64_t>(fr_lv.m_i64_time), s_time_lv);
      TRACE44(TLOG_ARC_TRACE, "<%lld> -buff- get b ind %d, prev offs %d, size %d, post offs %d, time %s ", i64_cam_lv,
              i_read_ind_av, i_prev_lv, static_cast<int>(fr_lv.m_ui_size), i_pos_lv, s_time_lv);
    }
    if (fr_lv.m_pb_payload != nullptr) WriteRecord(p_av, &fr_lv, p_result_av, p_wd_av);
    TRACE44(TLOG_ARC_TRACE, "<%lld> -buff- GetAndWr curr put acc ind %d offs %d curr get offs %d ", i64_cam_lv,
            p_av->m_i_curr_put_ind, p_rd_lv->m_i_offs_b, i_pos_lv);
    if (i_pos_lv == p_rd_lv->m_i_offs_b) break;
    if (i_pos_lv > p_rd_lv->m_i_offs_b) {
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error> Writer Error bufferization3");
      TRACE44(TLOG_ARC_TRACE, "<buff> Writer Error bufferization3");
      break;
    }
  }
}

}  // namespace

CWriteBuffering::CWriteBuffering(TCameraInfoW* p_camera_info_av)
    : m_i_curr_put_ind(0),
      m_p_crit_sect_write_buffering(nullptr),
      m_p_camera_info(p_camera_info_av),
      m_p_writer(p_camera_info_av != nullptr ? p_camera_info_av->m_p_writer : nullptr),
      m_h_thread_write_buffering(nullptr),
      m_h_event_exit_thread_write_buffering(nullptr),
      m_b_exit_thread_write_buffering(0),
      m_h_event_stop_thread_write_buffering(nullptr),
      m_h_event_activate_thread_write_buffering(nullptr),
      m_i64_last_wd_print(0),
      m_i64_last_i_am_live(0),
      m_i64_last_error_status(0),
      m_i64_error_since(0),
      m_b_error_timer_armed(0),
      m_i64_last_storage_event(0),
      m_i64_last_confirm_event(0) {}

CWriteBuffering::~CWriteBuffering() {
  TRACE45(TLOG_ARC, TSEV_TRACE, "<alive%lld_%lld> bef unregister_alive wr handle %d ", CameraId(this),
          static_cast<long long>(m_p_writer != nullptr ? m_p_writer->m_i64_type_id : 0),
          m_p_camera_info != nullptr ? static_cast<int>(InfoWriteHandle(m_p_camera_info)) : -1);
  ExitThreadWriteBuffering(this);
  UnregisterAlive(m_p_writer);
  delete m_p_crit_sect_write_buffering;
  m_p_crit_sect_write_buffering = nullptr;
}

uint8_t* GetDataBuff(CWriteBuffering* p_av) {
  int32_t i_ind_lv = p_av->m_i_curr_put_ind;
  TWriteBuffer* p_buff_lv = &p_av->m_buffs[i_ind_lv];
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE,
          "<%lld> -buff- GetDataBuff for put, ind %d, offs %d, buff siz %d, act siz %d", CameraId(p_av), i_ind_lv,
          p_buff_lv->m_i_offs_b, p_buff_lv->m_i_buff_size_b, p_buff_lv->m_i_act_size_b);
  return p_buff_lv->m_pb_data_b + p_buff_lv->m_i_offs_b + UI_FRAME_TAG_HEAD;
}

void PutToBuffers(CWriteBuffering* p_av, uint32_t ui_size_av, uint8_t ui_type_av, int64_t i64_time_av) {
  int32_t i_ind_lv = p_av->m_i_curr_put_ind;
  TWriteBuffer* p_buff_lv = &p_av->m_buffs[i_ind_lv];
  uint8_t* pb_lv = p_buff_lv->m_pb_data_b + p_buff_lv->m_i_offs_b;
  PutLe32(pb_lv, ui_size_av + UI_FRAME_TAG_HEAD);
  PutLe32(pb_lv + 4, UI_FRAME_TAG_MAGIC);
  PutLe64(pb_lv + 12, static_cast<uint64_t>(i64_time_av));
  pb_lv[20] = ui_type_av;
  PutLe32(pb_lv + 21, ui_size_av);
  long long i64_cam_lv = CameraId(p_av);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld> -buff- acc b ind %d, offs %d, size %d, buff siz %d, act siz %d",
          i64_cam_lv, i_ind_lv, p_buff_lv->m_i_offs_b, static_cast<int>(ui_size_av), p_buff_lv->m_i_buff_size_b,
          p_buff_lv->m_i_act_size_b);
  p_buff_lv->m_i_offs_b += static_cast<int32_t>(ui_size_av + UI_FRAME_TAG_HEAD);
  if (LogTraceWanted(TLOG_ARC_TRACE)) {
    char s_time_lv[FILE_TIME_TEXT_SIZE];
    FileTimeToText(static_cast<uint64_t>(i64_time_av), s_time_lv);
    TRACE44(TLOG_ARC_TRACE, "<%lld> -buff- PutToBuffers frame  time %s iskey %d ", i64_cam_lv, s_time_lv,
            ui_type_av & 2);
  }
  p_buff_lv->m_i_frame_num_b++;
  AtomicPut(&p_buff_lv->m_b_filled_b, 1);
  if (p_av->m_p_writer != nullptr) AtomicPut(&p_av->m_p_writer->m_status.m_i_buff_frames[i_ind_lv], p_buff_lv->m_i_frame_num_b);
  if (p_av->m_p_writer != nullptr)
    StatGen(i_ind_lv == 0 ? &p_av->m_p_writer->m_status.m_buff_fill1 : &p_av->m_p_writer->m_status.m_buff_fill2,
            i64_cam_lv, i_ind_lv, p_buff_lv->m_i_frame_num_b);
  if (p_av->m_h_event_activate_thread_write_buffering != nullptr) p_av->m_h_event_activate_thread_write_buffering->Set();
}

void GetAndWr(CWriteBuffering* p_av, TWaitStat* p_wd_av) {
  Mark(p_wd_av, 20111, 1);
  TCameraInfoW* p_info_lv = p_av->m_p_camera_info;
  int32_t i_result_lv = RC_OK;
  int32_t i_handle_lv = InfoWriteHandle(p_info_lv);
  if (i_handle_lv != INVALIDATE_WRITE_HANDLE && ArcGetReq(i_handle_lv, 46) != 0) {
    i_result_lv = CloseWriteHandle(p_info_lv);
    if (i_result_lv < 0) TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error close seanse 1");
  }
  if (AtomicGet(&p_av->m_buffs[p_av->m_i_curr_put_ind].m_b_filled_b) == 0 ||
      p_av->m_p_crit_sect_write_buffering == nullptr) {
    Mark(p_wd_av, 20117, 0);
    return;
  }
  int32_t i_read_ind_lv = p_av->m_i_curr_put_ind;
  {
    // The frame path waits at most for these two stores.
    PlCritLock lock_lv(p_av->m_p_crit_sect_write_buffering);
    p_av->m_i_curr_put_ind = 1 - i_read_ind_lv;
    p_av->m_buffs[p_av->m_i_curr_put_ind].m_i_offs_b = 0;
  }
  Mark(p_wd_av, 20112, 2);
  Drain(p_av, i_read_ind_lv, &i_result_lv, p_wd_av);
  AtomicPut(&p_av->m_buffs[i_read_ind_lv].m_b_filled_b, 0);
  Mark(p_wd_av, 20116, 8);
  ReduceBuff(&p_av->m_buffs[i_read_ind_lv]);
  Mark(p_wd_av, 20117, 0);
}

void RegisterAlive(CWriter* p_owner_av, const char* s_caption_av) { SendAlive(p_owner_av, "register", s_caption_av); }

void UnregisterAlive(CWriter* p_owner_av) { SendAlive(p_owner_av, "unregister", "unloading plugins writer"); }
