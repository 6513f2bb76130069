// The pre-event ring. The put side decides, each time a buffer is full,
// whether the oldest buffer may be overwritten, a larger one must be made,
// or the largest is superfluous and goes: the ring settles at prev_write
// worth of stream plus one key-frame interval, whatever the bit rate. The
// get side finds the oldest key frame at least prev_write back and reads
// the records from there in filling order, putting together those that
// span buffers. WriteFrame calls WritePrevFrame on the buffering thread;
// the event state makes the ring and the channel's teardown frees it.
#include "writer/writer_prev_write.h"

#include <cstring>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_by_event.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "writer/writer_process.h"

namespace {

const int32_t I_SIGN_PREV_TAG_HEAD = 18;
const int32_t I_SIGN_PREV_RECORD = 31;
const int32_t I_SIGN_PREV_STORAGE = 32;
const int32_t I_SIGN_PREV_SERV = 33;
// Session code: audio frames do not count as key frames.
const int32_t I_REQ_AUDIO_NOT_KEY = 20;
const int32_t I_TAG_HEAD = static_cast<int32_t>(UI_FRAME_TAG_HEAD);

uint32_t Read32(const uint8_t* pb_av) {
  return static_cast<uint32_t>(pb_av[0]) | static_cast<uint32_t>(pb_av[1]) << 8 |
         static_cast<uint32_t>(pb_av[2]) << 16 | static_cast<uint32_t>(pb_av[3]) << 24;
}

int64_t Read64(const uint8_t* pb_av) {
  return static_cast<int64_t>(static_cast<uint64_t>(Read32(pb_av)) | static_cast<uint64_t>(Read32(pb_av + 4)) << 32);
}

void Write32(uint8_t* pb_av, uint32_t ui_av) {
  for (int i_lv = 0; i_lv < 4; i_lv++) pb_av[i_lv] = static_cast<uint8_t>(ui_av >> (8 * i_lv));
}

void Write64(uint8_t* pb_av, int64_t i64_av) {
  Write32(pb_av, static_cast<uint32_t>(static_cast<uint64_t>(i64_av)));
  Write32(pb_av + 4, static_cast<uint32_t>(static_cast<uint64_t>(i64_av) >> 32));
}

long long Cam(const CPrevWrite* p_av) { return static_cast<long long>(p_av->m_i64_camera_id); }

int64_t PrevSpan(const CPrevWrite* p_av) {
  return p_av->m_p_owner != nullptr ? AtomicGet(&p_av->m_p_owner->m_by_event.prev_write) : 0;
}

// now - prev_write: a key frame older than this is outside the pre-event
// span. Held at the range's end for any configured span.
int64_t SpanBound(const CPrevWrite* p_av) {
  int64_t i64_bound_lv = 0;
  if (__builtin_sub_overflow(FileTimeNowLocalI64(), PrevSpan(p_av), &i64_bound_lv)) i64_bound_lv = INT64_MIN;
  return i64_bound_lv;
}

void TimeText(int64_t i64_ticks_av, char* s_out_av) {
  if (LogTraceWanted(TLOG_ARC_TRACE))
    FileTimeToText(static_cast<uint64_t>(i64_ticks_av), s_out_av);
  else
    s_out_av[0] = 0;
}

// Every ring walk stops at the first null slot: the table has no holes.
int32_t UsedSlots(const CPrevWrite* p_av) {
  int32_t i_lv = 0;
  while (i_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_lv] != nullptr) i_lv++;
  return i_lv;
}

// The buffer with the smallest age counter other than the excluded one;
// on equal counters the earlier in the table.
TPrevBuff* FindEarlyExcl(CPrevWrite* p_av, const TPrevBuff* p_excl_av) {
  TPrevBuff* p_best_lv = nullptr;
  int64_t i64_best_lv = I64_PREV_COUNTER_BOUND;
  for (int32_t i_lv = 0; i_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_lv] != nullptr; i_lv++) {
    TPrevBuff* p_lv = p_av->m_p_buffs[i_lv];
    if (p_lv == p_excl_av || p_lv->m_i64_buff_countr >= i64_best_lv) continue;
    p_best_lv = p_lv;
    i64_best_lv = p_lv->m_i64_buff_countr;
  }
  return p_best_lv;
}

// Bytes the ring holds in all: no record can be longer.
int64_t RingCapacity(const CPrevWrite* p_av) {
  int64_t i64_lv = 0;
  for (int32_t i_lv = 0; i_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_lv] != nullptr; i_lv++)
    i64_lv += p_av->m_p_buffs[i_lv]->m_i_buff_size;
  return i64_lv;
}

}  // namespace

// ---------------------------------------------------------------------------
// Buffers

int64_t PrevBuffSizeForId(int32_t i_id_av) {
  if (i_id_av < 0 || i_id_av >= I_PREV_BUFF_SLOTS) return -1;
  int64_t i64_kib_lv = I_PREV_BUFF_BASE_KIB;
  for (int32_t i_lv = 0; i_lv < i_id_av; i_lv++) {
    i64_kib_lv = i64_kib_lv * 3 / 2;
    if (i64_kib_lv * 1024 > INT32_MAX) return -1;
  }
  return i64_kib_lv * 1024;
}

TPrevBuff* PrevBuffCreate(int32_t i_id_av) {
  int64_t i64_size_lv = PrevBuffSizeForId(i_id_av);
  if (i64_size_lv < I_PREV_REST_MIN) return nullptr;
  TPrevBuff* p_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_lv, static_cast<int32_t>(sizeof(TPrevBuff)), I_SIGN_PREV_RECORD);
  if (p_lv == nullptr) return nullptr;
  SAFE_MEM_ALLOCB5(p_lv->m_pb_buff_p, static_cast<int32_t>(i64_size_lv), I_SIGN_PREV_STORAGE);
  if (p_lv->m_pb_buff_p == nullptr) {
    SAFE_MEM_FREE(p_lv);
    return nullptr;
  }
  p_lv->m_i_buff_id = i_id_av;
  p_lv->m_i_buff_size = static_cast<int32_t>(i64_size_lv);
  return p_lv;
}

void PrevBuffDestroy(TPrevBuff*& p_av) {
  if (p_av == nullptr) return;
  SAFE_MEM_FREE(p_av->m_pb_buff_p);
  SAFE_MEM_FREE(p_av);
}

CPrevWrite::CPrevWrite(CWriter* p_owner_av, int64_t i64_camera_id_av)
    : m_p_curr_put_buff(nullptr),
      m_p_lagerst_put_buff(nullptr),
      m_pb_serv_buff(nullptr),
      m_i_serv_buff_size(0),
      m_p_buffs(),
      m_pb_tag_head(nullptr),
      m_p_curr_get_buff(nullptr),
      m_i64_get_mem_counter(0),
      m_i_curr_put_offset(0),
      m_b_get_started(0),
      m_i_curr_get_offset(0),
      m_b_clear_request(0),
      m_i_largest_skip_count(0),
      m_i64_buff_counter(0),
      m_i64_camera_id(i64_camera_id_av),
      m_b_first_key_seen(0),
      m_p_owner(p_owner_av) {
  // Zeroed by the allocator: the reserved word of every head stays 0.
  SAFE_MEM_ALLOCB5(m_pb_tag_head, I_TAG_HEAD, I_SIGN_PREV_TAG_HEAD);
}

CPrevWrite::~CPrevWrite() {
  ClearPW(this);
  SAFE_MEM_FREE(m_pb_tag_head);
}

int32_t PrevIsUsableKey(CPrevWrite* p_av, uint8_t ui_type_av) {
  if ((ui_type_av & UI_FRAME_TYPE_KEY) == 0) return 0;
  if ((ui_type_av & 192) != UI_FRAME_TYPE_AUDIO) return 1;
  CWriter* p_owner_lv = p_av->m_p_owner;
  if (p_owner_lv == nullptr || p_owner_lv->m_camera_info_w == nullptr) return 1;
  return ArcGetReq(InfoWriteHandle(p_owner_lv->m_camera_info_w), I_REQ_AUDIO_NOT_KEY) != 0 ? 0 : 1;
}

// ---------------------------------------------------------------------------
// The entry

namespace {

// One frame out of the ring to the archive. Nobody above sees the result
// of the write: a loss is told here.
void GetAndWriteOne(CPrevWrite* p_av, TWaitStat* p_wd_av) {
  TRACE44(TLOG_ARC_TRACE, "<prevWr%d> bef GetFromBuffers ", static_cast<int>(p_av->m_i64_camera_id));
  const uint8_t* pb_frame_lv = nullptr;
  uint32_t ui_size_lv = 0;
  uint8_t ui_type_lv = 0;
  int64_t i64_time_lv = 0;
  GetFromBuffers(p_av, &pb_frame_lv, &ui_size_lv, &ui_type_lv, &i64_time_lv);
  if (pb_frame_lv == nullptr) return;
  int32_t i_status_lv =
      WriteDataDirect(p_av->m_p_owner->m_camera_info_w, pb_frame_lv, ui_size_lv, ui_type_lv, i64_time_lv, p_wd_av);
  if (i_status_lv < 0)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<prevWrG%lld> Error write prev frame, data lost status %d", Cam(p_av),
            static_cast<int>(i_status_lv));
}

}  // namespace

void WritePrevFrame(CPrevWrite* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                    int64_t i64_time_av, TWaitStat* p_wd_av) {
  TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> bef PutToBuffers size %d ", Cam(p_av), static_cast<int>(ui_size_av));
  PutToBuffers(p_av, pb_data_av, ui_size_av, ui_type_av, i64_time_av);
  CWriter* p_owner_lv = p_av->m_p_owner;
  // Once output has begun it runs to its end, event or not.
  if (p_av->m_p_buffs[0] != nullptr && p_owner_lv != nullptr &&
      (PrevWriteCondish(&p_owner_lv->m_by_event) != 0 || p_av->m_b_get_started != 0)) {
    p_av->m_b_get_started = 1;
    for (int32_t i_lv = 0; i_lv < I_PREV_GETS_PER_PUT; i_lv++) {
      if (p_av->m_b_clear_request == 0) GetAndWriteOne(p_av, p_wd_av);
      if (p_av->m_pb_serv_buff != nullptr) SAFE_MEM_FREE(p_av->m_pb_serv_buff);
      p_av->m_i_serv_buff_size = 0;
    }
  }
  if (p_av->m_b_clear_request != 0) ClearPW(p_av);
}

// ---------------------------------------------------------------------------
// Put side

void PutToBuffers(CPrevWrite* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                  int64_t i64_time_av) {
  // The record length is a 32-bit field; the frame block of the write
  // buffers is far below this, so only a damaged call gets here.
  if (ui_size_av > static_cast<uint32_t>(INT32_MAX - I_TAG_HEAD) || (pb_data_av == nullptr && ui_size_av != 0) ||
      p_av->m_pb_tag_head == nullptr) {
    TRACE44(TLOG_ARC, "<Error> Error: prev write frame not taken, size %u", static_cast<unsigned>(ui_size_av));
    return;
  }
  if (p_av->m_p_buffs[0] == nullptr) {
    TPrevBuff* p_first_lv = PrevBuffCreate(0);
    if (p_first_lv != nullptr) {
      p_av->m_p_buffs[0] = p_first_lv;
      p_av->m_p_curr_put_buff = p_first_lv;
      p_av->m_p_lagerst_put_buff = p_first_lv;
    }
  }
  if (p_av->m_p_curr_put_buff == nullptr) {
    TRACE44(TLOG_ARC, "<Error> Error: NULL == m_p_curr_put_buff");
    return;
  }
  uint8_t* pb_head_lv = p_av->m_pb_tag_head;
  Write32(pb_head_lv, ui_size_av + UI_FRAME_TAG_HEAD);
  Write32(pb_head_lv + 4, UI_FRAME_TAG_MAGIC);
  Write64(pb_head_lv + 12, i64_time_av);
  pb_head_lv[20] = ui_type_av;
  Write32(pb_head_lv + 21, ui_size_av);
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  TimeText(i64_time_av, s_time_lv);
  TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld>PutToBuffers frame  time %s iskey %d ", Cam(p_av), s_time_lv,
          ui_type_av & UI_FRAME_TYPE_KEY);
  TPrevBuff* p_first_lv = nullptr;
  int32_t i_first_offs_lv = 0;
  WritePortion(p_av, pb_head_lv, I_TAG_HEAD, &p_first_lv, &i_first_offs_lv);
  // Only the first key frame of a buffer is a place to start from.
  if (p_first_lv != nullptr && p_first_lv->m_b_key_present == 0 && PrevIsUsableKey(p_av, ui_type_av) != 0) {
    p_first_lv->m_i64_key_time = i64_time_av;
    p_first_lv->m_i_key_offs = i_first_offs_lv;
    p_first_lv->m_b_key_present = 1;
    TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> key frame  buffId %d, buffCountr %lld  time %s ", Cam(p_av),
            p_first_lv->m_i_buff_id, static_cast<long long>(p_first_lv->m_i64_buff_countr), s_time_lv);
  }
  WritePortion(p_av, pb_data_av, static_cast<int32_t>(ui_size_av), &p_first_lv, &i_first_offs_lv);
}

// The rest rule applies to every call, also between the head and the
// payload of one record: a head that ends fewer than 8 bytes before the end
// of a buffer leaves those bytes as a hole, and its payload starts the next
// buffer. The reader does not know of the hole; that costs one damaged
// frame and the rest of that output, and the pair is kept as it is.
void WritePortion(CPrevWrite* p_av, const uint8_t* pb_source_av, int32_t i_size_av, TPrevBuff** pp_first_av,
                  int32_t* p_first_offs_av) {
  *pp_first_av = nullptr;
  *p_first_offs_av = 0;
  TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> writeportion bef while ", Cam(p_av));
  for (;;) {
    TPrevBuff* p_buff_lv = p_av->m_p_curr_put_buff;
    if (p_buff_lv == nullptr) {
      TRACE44(TLOG_ARC, "<Error> prev write not founded buff for put ");
      return;
    }
    int32_t i_rest_lv = p_buff_lv->m_i_buff_size - p_av->m_i_curr_put_offset;
    TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> writeportion start itter i_rest_destin_size_lv %d i_to_write_size_lv %d ",
            Cam(p_av), i_rest_lv, i_size_av);
    if (i_rest_lv < I_PREV_REST_MIN) {
      TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> to next buff", Cam(p_av));
      p_av->m_i_curr_put_offset = 0;
      FindNextBuffForPut(p_av);
      continue;
    }
    int32_t i_part_lv = i_rest_lv < i_size_av ? i_rest_lv : i_size_av;
    if (*pp_first_av == nullptr) {
      *pp_first_av = p_buff_lv;
      *p_first_offs_av = p_av->m_i_curr_put_offset;
    }
    TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> writeportion itter  buffId %d, putoffs %d, buffCountr %lld, size %d ",
            Cam(p_av), p_buff_lv->m_i_buff_id, p_av->m_i_curr_put_offset,
            static_cast<long long>(p_buff_lv->m_i64_buff_countr), i_part_lv);
    if (p_buff_lv->m_pb_buff_p == nullptr)
      TRACE44(TLOG_ARC,
              "<Error> Error: IsBadWritePtr( m_p_curr_put_buff->m_pb_buff_p + m_i_curr_put_offset, i_size_lv )");
    else if (i_part_lv > 0)
      memcpy(p_buff_lv->m_pb_buff_p + p_av->m_i_curr_put_offset, pb_source_av, static_cast<size_t>(i_part_lv));
    if (i_part_lv >= i_size_av) {
      TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> bef m_i_curr_put_offset += i_size_lv", Cam(p_av));
      p_av->m_i_curr_put_offset += i_part_lv;
      return;
    }
    TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> i_size_lv < i_to_write_size_lv ", Cam(p_av));
    p_av->m_i_curr_put_offset = 0;
    FindNextBuffForPut(p_av);
    i_size_av -= i_part_lv;
    pb_source_av += i_part_lv;
  }
}

// A full buffer: the next one is the oldest when what it holds is no
// longer needed, else a new, larger one. No later key frame in the ring
// means that everything there may still be needed.
void FindNextBuffForPut(CPrevWrite* p_av) {
  CheckBuffArray(p_av);
  TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> FindNextBuffForPut ", Cam(p_av));
  if (p_av->m_p_curr_put_buff == nullptr) {
    CreateNewBuff(p_av);
  } else {
    TPrevBuff* p_early_lv = FindEarlyExcl(p_av, nullptr);
    TPrevBuff* p_next_key_lv = FindErlyKeyBuffExcl(p_av, p_early_lv, nullptr);
    if (p_next_key_lv == nullptr) {
      CreateNewBuff(p_av);
    } else if (p_av->m_p_lagerst_put_buff != p_av->m_p_curr_get_buff && p_av->m_p_lagerst_put_buff == p_early_lv) {
      LargestCase(p_av, p_early_lv, p_next_key_lv);
    } else if (IsPrevBuffInBound(p_av, p_next_key_lv) == 0) {
      // The next key frame is itself older than the span: the oldest can go.
      TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> != largest, brem p_early_lv", Cam(p_av));
      p_av->m_p_curr_put_buff = p_early_lv;
    } else {
      CreateNewBuff(p_av);
    }
  }
  TPrevBuff* p_lv = p_av->m_p_curr_put_buff;
  if (p_lv != nullptr) {
    p_lv->m_i64_buff_countr = ++p_av->m_i64_buff_counter;
    p_lv->m_i_key_offs = 0;
    p_lv->m_i64_key_time = 0;
    p_lv->m_b_key_present = 0;
    TRACE44(TLOG_ARC_TRACE, "<prevWr%lld> in result  buffId %d, buffCountr %lld ", Cam(p_av), p_lv->m_i_buff_id,
            static_cast<long long>(p_lv->m_i64_buff_countr));
  } else {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: FindNextBuffForPut can't find!");
  }
  CheckBuffArray(p_av);
}

TPrevBuff* FindErlyKeyBuffExcl(CPrevWrite* p_av, const TPrevBuff* p_excl1_av, const TPrevBuff* p_excl2_av) {
  TPrevBuff* p_best_lv = nullptr;
  int64_t i64_best_lv = I64_PREV_COUNTER_BOUND;
  for (int32_t i_lv = 0; i_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_lv] != nullptr; i_lv++) {
    TPrevBuff* p_lv = p_av->m_p_buffs[i_lv];
    TRACE44(TLOG_ARC_TRACE, "<prevWr1 %lld> FindErlyKeyBuffExcl  buffId %d, buffCountr %lld, keypr %d ", Cam(p_av),
            p_lv->m_i_buff_id, static_cast<long long>(p_lv->m_i64_buff_countr), p_lv->m_b_key_present);
    if (p_lv == p_excl1_av || p_lv == p_excl2_av || p_lv->m_b_key_present == 0) continue;
    if (p_lv->m_i64_buff_countr >= i64_best_lv) continue;
    p_best_lv = p_lv;
    i64_best_lv = p_lv->m_i64_buff_countr;
  }
  return p_best_lv;
}

// A buffer without a key frame counts as needed. While output runs, a
// buffer with a higher id than the one being read is held; the comparison
// is on ids, not on the order of filling, and stays so.
int32_t IsPrevBuffInBound(CPrevWrite* p_av, const TPrevBuff* p_buff_av) {
  if (p_buff_av == nullptr) return 1;
  const TPrevBuff* p_get_lv = p_av->m_p_curr_get_buff;
  int32_t b_hold_lv =
      p_get_lv != nullptr && p_av->m_b_get_started != 0 && p_get_lv->m_i_buff_id < p_buff_av->m_i_buff_id;
  int64_t i64_bound_lv = SpanBound(p_av);
  int32_t b_in_lv = 1;
  if (p_buff_av->m_b_key_present == 1 && p_buff_av->m_i64_key_time < i64_bound_lv && b_hold_lv == 0) b_in_lv = 0;
  if (LogTraceWanted(TLOG_ARC_TRACE)) {
    char s_key_lv[FILE_TIME_TEXT_SIZE];
    char s_bound_lv[FILE_TIME_TEXT_SIZE];
    TimeText(p_buff_av->m_i64_key_time, s_key_lv);
    TimeText(i64_bound_lv, s_bound_lv);
    TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> IsPrevBuffInBound  buffId %d, buffCountr %lld  key %s bound %s ", Cam(p_av),
            p_buff_av->m_i_buff_id, static_cast<long long>(p_buff_av->m_i64_buff_countr), s_key_lv, s_bound_lv);
  }
  return b_in_lv;
}

// At its largest (the table full, a size beyond 32 bits, or no memory) the
// ring goes on as a fixed circle: the oldest buffer is overwritten.
void CreateNewBuff(CPrevWrite* p_av) {
  TPrevBuff* p_largest_lv = p_av->m_p_lagerst_put_buff;
  if (p_largest_lv == nullptr) {
    TRACE44(TLOG_ARC, "<Error> Error: when create new buf NULL == m_p_lagerst_put_buff");
    return;
  }
  int32_t i_id_lv = p_largest_lv->m_i_buff_id + 1;
  TPrevBuff* p_new_lv = nullptr;
  if (i_id_lv >= 0 && i_id_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_id_lv] == nullptr)
    p_new_lv = PrevBuffCreate(i_id_lv);
  if (p_new_lv == nullptr) {
    TRACE44(TLOG_ARC, "<Error> Error: prev write can't create buf  buffId %d, the oldest is reused", i_id_lv);
    TPrevBuff* p_oldest_lv = FindEarlyExcl(p_av, nullptr);
    if (p_oldest_lv != nullptr) p_av->m_p_curr_put_buff = p_oldest_lv;
    return;
  }
  p_av->m_p_buffs[i_id_lv] = p_new_lv;
  p_av->m_p_lagerst_put_buff = p_new_lv;
  p_av->m_p_curr_put_buff = p_new_lv;
  TRACE44(TLOG_ARC_TRACE, "<prevWr%lld> create new buf  buffId %d, buffCountr %lld, buff size %d ", Cam(p_av),
          p_new_lv->m_i_buff_id, static_cast<long long>(p_new_lv->m_i64_buff_countr), p_new_lv->m_i_buff_size);
}

void CheckBuffArray(CPrevWrite* p_av) {
  int32_t i_used_lv = UsedSlots(p_av);
  if (i_used_lv + 1 < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_used_lv + 1] != nullptr)
    TRACE44(TLOG_ARC, "<Error> Error: CheckBuffArray ");
}

// The buffer to be reused would be the largest of all: find out whether
// the ring could do without it. It goes on the second consecutive time it
// proves superfluous; a single such case only reuses it.
void LargestCase(CPrevWrite* p_av, TPrevBuff* p_early_av, TPrevBuff* p_next_key_av) {
  TRACE44(TLOG_ARC_TRACE, "<prevWr%lld> largest case ", Cam(p_av));
  if (p_early_av == nullptr || p_next_key_av == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: !( NULL != p_early_lv && NULL != p_early_next_key_lv ) ");
    return;
  }
  TPrevBuff* p_first_lv = nullptr;
  TPrevBuff* p_second_lv = nullptr;
  if (p_early_av->m_i64_buff_countr + 1 >= p_next_key_av->m_i64_buff_countr) {
    p_second_lv = p_next_key_av;
    p_first_lv = FindErlyKeyBuffExcl(p_av, p_early_av, p_next_key_av);
  } else {
    p_first_lv = p_next_key_av;
    p_second_lv = FindEarlyExcl(p_av, p_early_av);
  }
  TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> lar cas aft fi ", Cam(p_av));
  if (IsPrevBuffInBound(p_av, p_first_lv) == 1) {
    p_av->m_i_largest_skip_count = 0;
    if (IsPrevBuffInBound(p_av, p_second_lv) == 0) {
      TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> == largest, ego i brem ", Cam(p_av));
      p_av->m_p_curr_put_buff = p_early_av;
    } else {
      CreateNewBuff(p_av);
    }
  } else if (++p_av->m_i_largest_skip_count > 1) {
    TRACE44(TLOG_ARC_TRACE, "<prevWr%lld> delete largest  buffId %d, buffCountr %lld", Cam(p_av),
            p_early_av->m_i_buff_id, static_cast<long long>(p_early_av->m_i64_buff_countr));
    p_av->m_i_largest_skip_count = 0;
    p_av->m_p_curr_put_buff = p_second_lv;
    int32_t i_slot_lv = p_early_av->m_i_buff_id;
    if (i_slot_lv >= 0 && i_slot_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_slot_lv] == p_early_av)
      p_av->m_p_buffs[i_slot_lv] = nullptr;
    PrevBuffDestroy(p_early_av);
    int32_t i_used_lv = UsedSlots(p_av);
    if (i_used_lv > 0) p_av->m_p_lagerst_put_buff = p_av->m_p_buffs[i_used_lv - 1];
  } else {
    p_av->m_p_curr_put_buff = p_early_av;
    TRACE44(TLOG_ARC_TRACE, "<prevWr%lld> select  p_early_lv, increm ", Cam(p_av));
  }
  TRACE44(TLOG_ARC_TRACE, "<prevWr2 %lld> end largest case ", Cam(p_av));
}

void ClearPW(CPrevWrite* p_av) {
  if (p_av->m_pb_serv_buff != nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: ClearPW -    NULL != m_pb_serv_buff!");
    SAFE_MEM_FREE(p_av->m_pb_serv_buff);
  }
  p_av->m_i_serv_buff_size = 0;
  // Every slot, not only up to the first null: a table that ever got a
  // hole still gives all its memory back.
  for (int32_t i_lv = 0; i_lv < I_PREV_BUFF_SLOTS; i_lv++) PrevBuffDestroy(p_av->m_p_buffs[i_lv]);
  p_av->m_p_curr_put_buff = nullptr;
  p_av->m_p_lagerst_put_buff = nullptr;
  p_av->m_p_curr_get_buff = nullptr;
  p_av->m_i64_get_mem_counter = 0;
  p_av->m_i_curr_put_offset = 0;
  p_av->m_b_get_started = 0;
  p_av->m_i_curr_get_offset = 0;
  p_av->m_b_clear_request = 0;
  p_av->m_i_largest_skip_count = 0;
  p_av->m_i64_buff_counter = 0;
  p_av->m_b_first_key_seen = 0;
}

// ---------------------------------------------------------------------------
// Get side

// Output begins at the oldest stored key frame that lies at least
// prev_write back; a stream that has not run that long, at its earliest.
TPrevBuff* FindFirstBuffForGet(CPrevWrite* p_av) {
  TPrevBuff* p_any_lv = nullptr;
  TPrevBuff* p_old_lv = nullptr;
  int64_t i64_any_lv = I64_PREV_COUNTER_BOUND;
  int64_t i64_old_lv = I64_PREV_COUNTER_BOUND;
  for (int32_t i_lv = 0; i_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_lv] != nullptr; i_lv++) {
    TPrevBuff* p_lv = p_av->m_p_buffs[i_lv];
    if (p_lv->m_b_key_present != 1) continue;
    if (p_lv->m_i64_buff_countr < i64_any_lv) {
      p_any_lv = p_lv;
      i64_any_lv = p_lv->m_i64_buff_countr;
    }
    if (p_lv->m_i64_key_time < SpanBound(p_av) && p_lv->m_i64_buff_countr < i64_old_lv) {
      p_old_lv = p_lv;
      i64_old_lv = p_lv->m_i64_buff_countr;
    }
  }
  return p_old_lv != nullptr ? p_old_lv : p_any_lv;
}

// A record is taken only when it can be one: the magic, a length that
// holds its head and fits the ring, and, with the head here, a payload
// size that agrees with the length. Anything else is a bad tag and ends
// output, never a read past a buffer.
const uint8_t* ConvertToArcFrameTag(CPrevWrite* p_av) {
  TRACE44(TLOG_ARC, "<prevWrG%lld> ConvertToArcFrameTag beg ", Cam(p_av));
  const TPrevBuff* p_get_lv = p_av->m_p_curr_get_buff;
  const uint8_t* pb_tag_lv = nullptr;
  if (p_get_lv == nullptr) return nullptr;
  int32_t i_rest_lv = p_get_lv->m_i_buff_size - p_av->m_i_curr_get_offset;
  if (i_rest_lv < I_PREV_REST_MIN || p_av->m_i_curr_get_offset < 0) {
    TRACE44(TLOG_ARC, "<prevWrG%lld> Error size i_rest_buff_size_lv ", Cam(p_av));
  } else {
    TRACE44(TLOG_ARC, "<prevWrG%lld> ConvertToArcFrameTag 1 ", Cam(p_av));
    const TPrevBuff* p_put_lv = p_av->m_p_curr_put_buff;
    if (p_put_lv != nullptr && p_put_lv->m_i_buff_id == p_get_lv->m_i_buff_id &&
        p_av->m_i_curr_put_offset == p_av->m_i_curr_get_offset) {
      TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> Reached put position ", Cam(p_av));
    } else {
      TRACE44(TLOG_ARC, "<prevWrG%lld> ConvertToArcFrameTag 2 ", Cam(p_av));
      const uint8_t* pb_lv = p_get_lv->m_pb_buff_p + p_av->m_i_curr_get_offset;
      int64_t i64_len_lv = Read32(pb_lv);
      bool b_good_lv =
          Read32(pb_lv + 4) == UI_FRAME_TAG_MAGIC && i64_len_lv >= I_TAG_HEAD && i64_len_lv <= RingCapacity(p_av);
      if (b_good_lv && i_rest_lv >= I_TAG_HEAD) b_good_lv = Read32(pb_lv + 21) == i64_len_lv - I_TAG_HEAD;
      if (b_good_lv)
        pb_tag_lv = pb_lv;
      else
        TRACE44(TLOG_ARC, "<prevWrG%lld> Error bad tag ", Cam(p_av));
    }
  }
  TRACE44(TLOG_ARC, "<prevWrG%lld> ConvertToArcFrameTag end ", Cam(p_av));
  return pb_tag_lv;
}

namespace {

void Deliver(const uint8_t* pb_record_av, const uint8_t** pp_data_av, uint32_t* p_size_av, uint8_t* p_type_av,
             int64_t* p_time_av) {
  *pp_data_av = pb_record_av + I_TAG_HEAD;
  *p_size_av = Read32(pb_record_av + 21);
  *p_type_av = pb_record_av[20];
  *p_time_av = Read64(pb_record_av + 12);
}

// The reader moves on to the next buffer when fewer than 8 bytes would
// remain behind the record, as the writer does.
void StepPast(CPrevWrite* p_av, int32_t i_end_av) {
  if (p_av->m_p_curr_get_buff->m_i_buff_size >= i_end_av + I_PREV_REST_MIN)
    p_av->m_i_curr_get_offset = i_end_av;
  else
    FindNextBuffForGet(p_av);
}

// A record that runs on past its buffer, put together in the assembly
// area from as many buffers as it needs.
void GetSpanning(CPrevWrite* p_av, const uint8_t* pb_tag_av, int32_t i_rest_av, const uint8_t** pp_data_av,
                 uint32_t* p_size_av, uint8_t* p_type_av, int64_t* p_time_av) {
  const TPrevBuff* p_get_lv = p_av->m_p_curr_get_buff;
  int32_t i_len_lv = static_cast<int32_t>(Read32(pb_tag_av));
  TRACE44(TLOG_ARC_TRACE,
          "<prevWrG%lld> get not full tag, part bef buff %d, counter %lld, memCounter %lld, size %d, offs %d tag size "
          "%d copyed %d",
          Cam(p_av), p_get_lv->m_i_buff_id, static_cast<long long>(p_get_lv->m_i64_buff_countr),
          static_cast<long long>(p_av->m_i64_get_mem_counter), p_get_lv->m_i_buff_size, p_av->m_i_curr_get_offset,
          i_len_lv, 0);
  p_av->m_i_serv_buff_size = i_len_lv;
  if (p_av->m_pb_serv_buff != nullptr) TRACE44(TLOG_ARC, "<Error> Error: twice alloc m_pb_serv_buff");
  SAFE_MEM_REALLOCB4(p_av->m_pb_serv_buff, i_len_lv, I_SIGN_PREV_SERV);
  if (p_av->m_pb_serv_buff == nullptr) {
    TRACE44(TLOG_ARC, "<Error> Error: no memory for m_pb_serv_buff size %d", i_len_lv);
    p_av->m_b_clear_request = 1;
    return;
  }
  memcpy(p_av->m_pb_serv_buff, pb_tag_av, static_cast<size_t>(i_rest_av));
  int32_t i_missing_lv = i_len_lv - i_rest_av;
  // Each buffer the record runs on into follows in filling order; one
  // that is not there was reused, and the record is lost.
  bool b_found_lv = FindNextBuffForGet(p_av) != 0;
  while (b_found_lv) {
    p_get_lv = p_av->m_p_curr_get_buff;
    int32_t i_part_lv = p_get_lv->m_i_buff_size < i_missing_lv ? p_get_lv->m_i_buff_size : i_missing_lv;
    TRACE44(TLOG_ARC_TRACE,
            "<prevWrG%lld> get not full tag, part bef cycle buff %d, counter %lld, memCounter %lld, size %d, offs %d "
            "copyed %d",
            Cam(p_av), p_get_lv->m_i_buff_id, static_cast<long long>(p_get_lv->m_i64_buff_countr),
            static_cast<long long>(p_av->m_i64_get_mem_counter), p_get_lv->m_i_buff_size, p_av->m_i_curr_get_offset,
            p_av->m_i_serv_buff_size - i_missing_lv);
    if (p_av->m_i_serv_buff_size - i_missing_lv < 0 || i_missing_lv < i_part_lv)
      TRACE44(TLOG_ARC, "<Error> Error: bad copy to m_pb_serv_buff ");
    else
      memcpy(p_av->m_pb_serv_buff + p_av->m_i_serv_buff_size - i_missing_lv, p_get_lv->m_pb_buff_p,
             static_cast<size_t>(i_part_lv));
    if (i_missing_lv <= p_get_lv->m_i_buff_size) {
      TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> cycle succ end ", Cam(p_av));
      break;
    }
    i_missing_lv -= p_get_lv->m_i_buff_size;
    b_found_lv = FindNextBuffForGet(p_av) != 0;
  }
  if (!b_found_lv) {
    TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> cycle buff not found ", Cam(p_av));
    p_av->m_b_clear_request = 1;
    return;
  }
  StepPast(p_av, i_missing_lv);
  const uint8_t* pb_rec_lv = p_av->m_pb_serv_buff;
  p_get_lv = p_av->m_p_curr_get_buff;
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  TimeText(Read64(pb_rec_lv + 12), s_time_lv);
  TRACE44(TLOG_ARC_TRACE,
          "<prevWrG%lld> get full tag aft cycle buff %d, counter %lld, memCounter %lld, size %d, offs %d fr tim %s ",
          Cam(p_av), p_get_lv->m_i_buff_id, static_cast<long long>(p_get_lv->m_i64_buff_countr),
          static_cast<long long>(p_av->m_i64_get_mem_counter), p_get_lv->m_i_buff_size, p_av->m_i_curr_get_offset,
          s_time_lv);
  // The head could only be read whole now.
  if (Read32(pb_rec_lv + 21) != static_cast<uint32_t>(i_len_lv - I_TAG_HEAD)) {
    TRACE44(TLOG_ARC, "<prevWrG%lld> Error bad tag ", Cam(p_av));
    p_av->m_b_clear_request = 1;
    return;
  }
  Deliver(pb_rec_lv, pp_data_av, p_size_av, p_type_av, p_time_av);
}

}  // namespace

// When the last record of the newest buffer leaves fewer than 8 bytes
// behind it, the reader has nowhere to go and stays on it: that record is
// delivered again until the writer starts the next buffer. The repeat is
// accepted as it stands.
void GetFromBuffers(CPrevWrite* p_av, const uint8_t** pp_data_av, uint32_t* p_size_av, uint8_t* p_type_av,
                    int64_t* p_time_av) {
  *pp_data_av = nullptr;
  if (p_av->m_p_curr_get_buff == nullptr) {
    TPrevBuff* p_first_lv = FindFirstBuffForGet(p_av);
    p_av->m_p_curr_get_buff = p_first_lv;
    p_av->m_i_curr_get_offset = p_first_lv != nullptr ? p_first_lv->m_i_key_offs : 0;
    p_av->m_i64_get_mem_counter = p_first_lv != nullptr ? p_first_lv->m_i64_buff_countr : 0;
  }
  const TPrevBuff* p_get_lv = p_av->m_p_curr_get_buff;
  if (p_get_lv == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: PrepareFrame - buffer not present!");
    p_av->m_b_clear_request = 1;
    return;
  }
  int32_t i_rest_lv = p_get_lv->m_i_buff_size - p_av->m_i_curr_get_offset;
  TRACE44(TLOG_ARC_TRACE,
          "<prevWrG%lld> GetFromBuffers try find ext tag buff %d, counter %lld, memCounter %lld, size %d, offs %d "
          "copyed %d",
          Cam(p_av), p_get_lv->m_i_buff_id, static_cast<long long>(p_get_lv->m_i64_buff_countr),
          static_cast<long long>(p_av->m_i64_get_mem_counter), p_get_lv->m_i_buff_size, p_av->m_i_curr_get_offset, 0);
  const uint8_t* pb_tag_lv = ConvertToArcFrameTag(p_av);
  if (pb_tag_lv == nullptr) {
    // The normal end of output: the reader has reached the writer.
    TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> not found tag ", Cam(p_av));
    p_av->m_b_clear_request = 1;
    return;
  }
  int32_t i_len_lv = static_cast<int32_t>(Read32(pb_tag_lv));
  if (i_len_lv > i_rest_lv) {
    GetSpanning(p_av, pb_tag_lv, i_rest_lv, pp_data_av, p_size_av, p_type_av, p_time_av);
    return;
  }
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  TimeText(Read64(pb_tag_lv + 12), s_time_lv);
  TRACE44(TLOG_ARC_TRACE,
          "<prevWrG%lld> get full tag bef buff %d, counter %lld, memCounter %lld, size %d, offs %d fr time %s ",
          Cam(p_av), p_get_lv->m_i_buff_id, static_cast<long long>(p_get_lv->m_i64_buff_countr),
          static_cast<long long>(p_av->m_i64_get_mem_counter), p_get_lv->m_i_buff_size, p_av->m_i_curr_get_offset,
          s_time_lv);
  StepPast(p_av, p_av->m_i_curr_get_offset + i_len_lv);
  p_get_lv = p_av->m_p_curr_get_buff;
  TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> get full tag aft buff %d, counter %lld, memCounter %lld, size %d, offs %d ",
          Cam(p_av), p_get_lv->m_i_buff_id, static_cast<long long>(p_get_lv->m_i64_buff_countr),
          static_cast<long long>(p_av->m_i64_get_mem_counter), p_get_lv->m_i_buff_size, p_av->m_i_curr_get_offset);
  Deliver(pb_tag_lv, pp_data_av, p_size_av, p_type_av, p_time_av);
}

int32_t FindNextBuffForGet(CPrevWrite* p_av) {
  if (p_av->m_p_curr_get_buff == nullptr) {
    TRACE44(TLOG_ARC, "<Error> FindNextBuffForGet, NULL == m_p_curr_get_buff");
    return 0;
  }
  for (int32_t i_lv = 0; i_lv < I_PREV_BUFF_SLOTS && p_av->m_p_buffs[i_lv] != nullptr; i_lv++) {
    TPrevBuff* p_lv = p_av->m_p_buffs[i_lv];
    if (p_lv->m_i64_buff_countr != p_av->m_i64_get_mem_counter + 1) continue;
    p_av->m_p_curr_get_buff = p_lv;
    p_av->m_i_curr_get_offset = 0;
    p_av->m_i64_get_mem_counter = p_lv->m_i64_buff_countr;
    TRACE44(TLOG_ARC_TRACE, "<prevWrG%lld> finded new buff id %d, counter %lld, size %d, offs %d ", Cam(p_av),
            p_lv->m_i_buff_id, static_cast<long long>(p_lv->m_i64_buff_countr), p_lv->m_i_buff_size,
            p_av->m_i_curr_get_offset);
    return 1;
  }
  return 0;
}
