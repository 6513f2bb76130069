// The pre-event ring of a channel that records by events with a pre-event
// time: recent frames are kept in memory in a self-sizing table of large
// buffers, and when the event condition comes up they are fed to the
// archive from the oldest useful key frame on, two for every frame put,
// until the reader reaches the writer. The event state makes the ring on
// first need (CheckDirectWrite); WriteFrame hands it frames, always on the
// channel's buffering thread, so the ring has no lock.
#pragma once

#include <cstdint>

#include "linux/common_use/diagnostic.h"

class CWriter;

// Buffers the table can hold; ids are table indexes.
const int32_t I_PREV_BUFF_SLOTS = 500;
// Size of buffer 0 in KiB; each id after it is 3/2 of the one before.
const int32_t I_PREV_BUFF_BASE_KIB = 256;
// A rest of a buffer smaller than this is never used: a record's length
// and magic always lie whole in one buffer.
const int32_t I_PREV_REST_MIN = 8;
// Larger than any age counter: where searches for the smallest start.
const int64_t I64_PREV_COUNTER_BOUND = 0x38FB6BE3C975600LL;
// Frames taken out for every frame put while output runs: output catches
// up with live.
const int32_t I_PREV_GETS_PER_PUT = 2;

// One buffer of the ring; owned by the table.
struct TPrevBuff {
  int32_t m_i_buff_id;        // its table index; fixes its size
  int64_t m_i64_buff_countr;  // position in the order of filling
  int32_t m_i_key_offs;       // record of its first usable key frame
  int64_t m_i64_key_time;
  int32_t m_b_key_present;
  int32_t m_i_buff_size;
  uint8_t* m_pb_buff_p;
};

class CPrevWrite {
 public:
  CPrevWrite(CWriter* p_owner_av, int64_t i64_camera_id_av);
  ~CPrevWrite();
  CPrevWrite(const CPrevWrite&) = delete;
  CPrevWrite& operator=(const CPrevWrite&) = delete;

  TPrevBuff* m_p_curr_put_buff;
  TPrevBuff* m_p_lagerst_put_buff;  // highest id: the last made, the largest
  uint8_t* m_pb_serv_buff;          // assembly of a record that spans buffers
  int32_t m_i_serv_buff_size;
  TPrevBuff* m_p_buffs[I_PREV_BUFF_SLOTS];  // contiguous from 0; the first null ends it
  uint8_t* m_pb_tag_head;                   // where a record's head is composed
  TPrevBuff* m_p_curr_get_buff;
  int64_t m_i64_get_mem_counter;  // age counter of the read buffer when reached
  int32_t m_i_curr_put_offset;
  int32_t m_b_get_started;
  int32_t m_i_curr_get_offset;
  int32_t m_b_clear_request;  // output is over (done or failed): clear the ring
  int32_t m_i_largest_skip_count;
  int64_t m_i64_buff_counter;
  int64_t m_i64_camera_id;
  int32_t m_b_first_key_seen;
  CWriter* m_p_owner;  // not owned
};

// Size in bytes of the buffer with this id, or -1 when it does not fit
// in 32 bits (id 23 on) or the id is outside the table.
int64_t PrevBuffSizeForId(int32_t i_id_av);
// A buffer with its storage, counter 0 and no key; null when the id has no
// size or there is no memory.
TPrevBuff* PrevBuffCreate(int32_t i_id_av);
void PrevBuffDestroy(TPrevBuff*& p_av);

// A frame type counts as a key frame to start from: the key bit, and not
// an audio frame when the session says that audio frames do not count.
int32_t PrevIsUsableKey(CPrevWrite* p_av, uint8_t ui_type_av);

// The ring's entry for one frame: stores it, and while output runs takes
// two frames out to the archive. wd is the thread's statistic or null.
void WritePrevFrame(CPrevWrite* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                    int64_t i64_time_av, TWaitStat* p_wd_av);
// Put side.
void PutToBuffers(CPrevWrite* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                  int64_t i64_time_av);
void WritePortion(CPrevWrite* p_av, const uint8_t* pb_source_av, int32_t i_size_av, TPrevBuff** pp_first_av,
                  int32_t* p_first_offs_av);
void FindNextBuffForPut(CPrevWrite* p_av);
TPrevBuff* FindErlyKeyBuffExcl(CPrevWrite* p_av, const TPrevBuff* p_excl1_av, const TPrevBuff* p_excl2_av);
int32_t IsPrevBuffInBound(CPrevWrite* p_av, const TPrevBuff* p_buff_av);
void CreateNewBuff(CPrevWrite* p_av);
void CheckBuffArray(CPrevWrite* p_av);
void LargestCase(CPrevWrite* p_av, TPrevBuff* p_early_av, TPrevBuff* p_next_key_av);
// Empties the ring; the scratch head, the camera id and the owner stay.
void ClearPW(CPrevWrite* p_av);

// Get side. Out data is null when there is no frame; otherwise it points
// into a ring buffer or into the assembly area, valid until the next put.
void GetFromBuffers(CPrevWrite* p_av, const uint8_t** pp_data_av, uint32_t* p_size_av, uint8_t* p_type_av,
                    int64_t* p_time_av);
const uint8_t* ConvertToArcFrameTag(CPrevWrite* p_av);
// 1 when the reader moved to the next buffer in filling order, 0 when it
// stayed where it was.
int32_t FindNextBuffForGet(CPrevWrite* p_av);
TPrevBuff* FindFirstBuffForGet(CPrevWrite* p_av);
