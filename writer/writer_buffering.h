// A channel's double buffer and its thread. The frame path appends frame
// records to the accepting buffer (GetDataBuff, PutToBuffers); the thread,
// woken by each finished frame, for the exit event, or every 5 s, swaps the
// two and writes the other one's records to the archive (GetAndWr). The
// channel's identity object (TCameraInfoW) owns it; the liveness messages
// of "alive_track" are sent from here.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/diagnostic.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"
#include "writer/writer_buffer.h"

class CWriter;
class TCameraInfoW;

const uint32_t UI_BUFF_WAIT_MS = 5000;
const size_t UI_BUFF_THREAD_STACK = 200000;

// The stored frame record: a 25-byte head and the frame block.
const uint32_t UI_FRAME_TAG_HEAD = 25;
const uint32_t UI_FRAME_TAG_MAGIC = 0x34;

class CWriteBuffering {
 public:
  explicit CWriteBuffering(TCameraInfoW* p_camera_info_av);
  ~CWriteBuffering();
  CWriteBuffering(const CWriteBuffering&) = delete;
  CWriteBuffering& operator=(const CWriteBuffering&) = delete;

  int32_t m_i_curr_put_ind;  // the buffer that accepts frames
  TWriteBuffer m_buffs[2];
  PlCritSect* m_p_crit_sect_write_buffering;
  TCameraInfoW* m_p_camera_info;
  CWriter* m_p_writer;
  PlThread* m_h_thread_write_buffering;
  PlEvent* m_h_event_exit_thread_write_buffering;
  int32_t m_b_exit_thread_write_buffering;
  PlEvent* m_h_event_stop_thread_write_buffering;
  PlEvent* m_h_event_activate_thread_write_buffering;
  int64_t m_i64_last_wd_print;
  int64_t m_i64_last_i_am_live;
  int64_t m_i64_last_error_status;
  int64_t m_i64_error_since;
  int32_t m_b_error_timer_armed;
  int64_t m_i64_last_storage_event;
  int64_t m_i64_last_confirm_event;
};

// Makes the lock and starts the thread; 0 or RC_E_FAIL.
int32_t InitWriteBuffering(CWriteBuffering* p_av);
int32_t StartThreadWriteBuffering(CWriteBuffering* p_av);
void ThreadWriteBufferingMethod(CWriteBuffering* p_av);
// Stops the thread and closes every handle; blocks until the thread ends.
void ExitThreadWriteBuffering(CWriteBuffering* p_av);

// Where the next frame block is to be built in the accepting buffer; room
// for it was reserved before (ReservePortion).
uint8_t* GetDataBuff(CWriteBuffering* p_av);
// Completes the block built at GetDataBuff as a record and wakes the thread.
void PutToBuffers(CWriteBuffering* p_av, uint32_t ui_size_av, uint8_t ui_type_av, int64_t i64_time_av);
// One drain round of the buffering thread.
void GetAndWr(CWriteBuffering* p_av, TWaitStat* p_wd_av);

// One "register" or "unregister" message on "alive_track".
void RegisterAlive(CWriter* p_owner_av, const char* s_caption_av);
void UnregisterAlive(CWriter* p_owner_av);
