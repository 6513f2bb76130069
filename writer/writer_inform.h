// The two judges of a channel's buffering thread: whether the channel is
// alive (IAmLive, which re-registers on "alive_track" and withholds that
// when writing stalls by the writer's fault), and whether writing is in
// error (the status flag m_b_is_write_error). Each runs at most every 5 s,
// first in each round of the thread.
#pragma once

#include <cstdint>

class CWriteBuffering;

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
