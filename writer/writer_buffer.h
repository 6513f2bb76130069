// One flat frame buffer of a channel's double buffer, and the process-wide
// count of the bytes that all frame buffers hold. The frame path reserves
// room in the accepting buffer (ReservePortion); the buffering thread gives
// memory back from the buffer it has drained (ReduceBuff).
#pragma once

#include <cstdint>

// Largest end offset of a frame record in one buffer (30 MiB).
const int64_t I64_BUFF_END_MAX = 0x1E00000;
// Least time between two reduce checks of a buffer: 240 s.
const int64_t I64_BUFF_REDUCE_PERIOD = 2400000000LL;

struct TWriteBuffer {
  TWriteBuffer();
  ~TWriteBuffer();
  TWriteBuffer(const TWriteBuffer&) = delete;
  TWriteBuffer& operator=(const TWriteBuffer&) = delete;

  uint8_t* m_pb_data_b;
  int32_t m_i_act_size_b;   // high-water mark since the last reduce check
  int32_t m_i_buff_size_b;  // nominal size
  int32_t m_i_offs_b;       // bytes appended; where the next record goes
  int64_t m_i64_last_reduce_time_b;
  int32_t m_b_filled_b;     // a record was completed here since the last drain
  int32_t m_i_frame_num_b;  // records not yet read
  // Bytes the storage block really has. It lags the nominal size when the
  // allocator could not give a block, and no record may pass it.
  int32_t m_i_storage_size_b;
};

// 1 when a portion fits at the present offset (after growth), 0 when it is
// refused. Frame path, under the channel's buffering lock.
int32_t ReservePortion(TWriteBuffer* p_av, uint32_t ui_portion_av);
// Shrinks a drained buffer that stayed well below its size for 240 s.
void ReduceBuff(TWriteBuffer* p_av);

// The process-wide sum of the nominal sizes of all frame buffers.
void BuffsUsedMemAdd(int64_t i64_delta_av);
int64_t BuffsUsedMemRead();
