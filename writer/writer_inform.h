// The two judges of a channel's buffering thread: whether the channel is
// alive (IAmLive, which re-registers on "alive_track" and withholds that
// when writing stalls by the writer's fault), and whether writing is in
// error (the status flag m_b_is_write_error). Each runs at most every 5 s,
// first in each round of the thread.
//
// Its other half is the status report: the lines that answer the queries
// GetStatus and GetError, and the fill statistic of the write buffers that
// PutToBuffers feeds and the "buffer_fill" views show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pl_sync.h"

class CWriteBuffering;
class SafeString;

const int64_t I64_JUDGE_PERIOD = 50000000LL;          // 5 s
const int64_t I64_WRITE_STALL = 100000000LL;          // 10 s
const int64_t I64_CONFIRM_EXPIRY = 180000000LL;       // 18 s
const int64_t I64_EVENT_DISTANCE = 6000000000LL;      // 600 s
const int64_t I64_START_GRACE = 18000000000LL;        // 1800 s

void IAmLive(CWriteBuffering* p_av, int32_t i_slot_av);
void WriteErrorStatusFormation_Vart2(CWriteBuffering* p_av);
// 1 when the channel is free of errors (and then the error timer is
// disarmed), 0 when not.
int32_t FindOutNoError(CWriteBuffering* p_av, int64_t i64_last_write_av, int32_t b_no_signal_av,
                       int32_t b_marking_process_av, int32_t b_marking_err_av);
// 1 once the error interval has run past 5 s; arms the timer.
int32_t FindOutError(CWriteBuffering* p_av);

// ---------------------------------------------------------------------------
// Status report. The query dispatch calls StatusFromInformCam and
// ErrorFromInformCam under the lock of m_list_writers, so that no channel
// goes away meanwhile; each adds one line per channel to lines and the
// line's length + 99 to total, and the dispatch sorts and joins them.

const int32_t I_BUFF_FILL_SLOTS = 60;

struct TBuffFillSlot {
  int64_t m_i64_time;   // when the slot was closed
  int64_t m_i64_value;  // largest frame count of its period
};

// The largest frame count of a write buffer in each of the last 60 seconds
// that had frames. Its lock is taken inside m_crit_sect_write_buffering on
// the frame path and inside the list lock by the report, never the other way.
struct TBuffFillStat {
  TBuffFillStat();
  ~TBuffFillStat();
  TBuffFillStat(const TBuffFillStat&) = delete;
  TBuffFillStat& operator=(const TBuffFillStat&) = delete;

  TBuffFillSlot m_slots[I_BUFF_FILL_SLOTS];
  int32_t m_i_index;        // next slot to write, so the oldest
  int64_t m_i64_last_time;  // start of the current period
  int32_t m_i_max;          // largest count of the current period
  PlCritSect m_crit_sect;
};

// Feeds the ring of buffer index ind with the buffer's new frame count;
// PutToBuffers, for every frame.
void StatGen(TBuffFillStat* p_ring_av, int64_t i64_cam_id_av, int32_t i_ind_av, int32_t i_count_av);
// The GetStatus lines of the channels whose arc keys match filter (five
// keys, an empty one matches anything), in the form view asks for.
void StatusFromInformCam(const SafeString* p_filter5_av, const char* s_view_av, int64_t* p_total_av,
                         std::vector<std::string>* p_lines_av, int32_t i_slot_av);
// The GetError lines: channels in write error or with a stalled thread,
// every channel while work mode 150204 is set.
void ErrorFromInformCam(int64_t* p_total_av, std::vector<std::string>* p_lines_av, int32_t i_slot_av);
// Appends the 60 slots of the ring, oldest first, as a JSON array.
void BuffFillToJson(TBuffFillStat* p_ring_av, std::string* p_out_av, const char* s_view_av);
// 1 when the ring has a value that the view shows.
int32_t BuffFillNotEmpty(TBuffFillStat* p_ring_av, const char* s_view_av);
