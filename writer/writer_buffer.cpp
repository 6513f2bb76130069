// Growth, refusal and reduction of one frame buffer. A buffer starts with no
// storage and sizes itself from the traffic it sees: it grows by twice the
// portion that did not fit and loses a quarter per 240 s once its use stays
// below two thirds of its size.
#include "writer/writer_buffer.h"

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_sync.h"
#include "writer/writer_global.h"

namespace {

const int32_t I_SIGN_BUFF_GROW = 30;
const int32_t I_SIGN_BUFF_REDUCE = 29;

// Used when no process-wide object exists (a channel built on its own).
volatile int64_t g_i64_buffs_used_mem_spare = 0;

volatile int64_t* UsedMemCounter() {
  CWriterGlobal* p_lv = g_p_writer_global;
  return p_lv != nullptr ? &p_lv->ui64_buffs_used_mem : &g_i64_buffs_used_mem_spare;
}

// Resizes the storage; a failed allocation keeps the old block and its size.
// The block is made of whole pages of the system: a buffer that shrank after
// a backlog gives those pages back at once, where the C heap would keep them
// for the rest of the process, and growth moves pages without copying bytes.
void ResizeStorage(TWriteBuffer* p_av, int32_t i_size_av, int32_t i_signat_av) {
  int32_t i_old_size_lv = p_av->m_pb_data_b != nullptr ? p_av->m_i_storage_size_b : 0;
  if (SAFE_MEM_PAGES_REALLOCB4(p_av->m_pb_data_b, i_old_size_lv, i_size_av, i_signat_av))
    p_av->m_i_storage_size_b = i_size_av;
}

// Makes the block hold at least the nominal size. The nominal size grows by
// twice a portion at a time, so a buffer that fills while the archive runs
// behind would resize its block at nearly every frame; the block itself
// grows by half at least, so that the system calls and registry updates stay
// few. It never grows past the largest end offset on that account.
void GrowStorage(TWriteBuffer* p_av) {
  int32_t i_nominal_lv = p_av->m_i_buff_size_b;
  if (p_av->m_pb_data_b != nullptr && p_av->m_i_storage_size_b >= i_nominal_lv) return;
  int64_t i64_size_lv = static_cast<int64_t>(p_av->m_i_storage_size_b) * 3 / 2;
  if (i64_size_lv > I64_BUFF_END_MAX) i64_size_lv = I64_BUFF_END_MAX;
  if (i64_size_lv < i_nominal_lv) i64_size_lv = i_nominal_lv;
  ResizeStorage(p_av, static_cast<int32_t>(i64_size_lv), I_SIGN_BUFF_GROW);
}

}  // namespace

TWriteBuffer::TWriteBuffer()
    : m_pb_data_b(nullptr),
      m_i_act_size_b(0),
      m_i_buff_size_b(0),
      m_i_offs_b(0),
      m_i64_last_reduce_time_b(0),
      m_b_filled_b(0),
      m_i_frame_num_b(0),
      m_i_storage_size_b(0) {}

TWriteBuffer::~TWriteBuffer() {
  SAFE_MEM_PAGES_FREE(m_pb_data_b, m_i_storage_size_b);
  BuffsUsedMemAdd(-static_cast<int64_t>(m_i_buff_size_b));
}

void BuffsUsedMemAdd(int64_t i64_delta_av) { PlAtomicAdd64(UsedMemCounter(), i64_delta_av); }

int64_t BuffsUsedMemRead() { return __atomic_load_n(UsedMemCounter(), __ATOMIC_SEQ_CST); }

int32_t ReservePortion(TWriteBuffer* p_av, uint32_t ui_portion_av) {
  int64_t i64_end_lv = static_cast<int64_t>(p_av->m_i_offs_b) + ui_portion_av;
  if (i64_end_lv > I64_BUFF_END_MAX) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error> Writer Error bufferization 2 offs %d portion %d all buff %d",
            p_av->m_i_offs_b, static_cast<int>(ui_portion_av), p_av->m_i_buff_size_b);
    return 0;
  }
  if (i64_end_lv > p_av->m_i_buff_size_b) {
    int32_t i_step_lv = static_cast<int32_t>(2 * ui_portion_av);
    TRACE44(TLOG_ARC_TRACEDECIM, "<buff> increase buff old %d, new %d this %lld ", p_av->m_i_buff_size_b,
            p_av->m_i_buff_size_b + i_step_lv, static_cast<long long>(reinterpret_cast<intptr_t>(p_av)));
    p_av->m_i_buff_size_b += i_step_lv;
    BuffsUsedMemAdd(i_step_lv);
    GrowStorage(p_av);
  }
  // The nominal size follows the traffic even when the allocator failed;
  // the record itself must still fit the block that exists.
  if (i64_end_lv > p_av->m_i_storage_size_b || p_av->m_pb_data_b == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error> Writer Error bufferization no storage offs %d portion %d storage %d",
            p_av->m_i_offs_b, static_cast<int>(ui_portion_av), p_av->m_i_storage_size_b);
    return 0;
  }
  if (i64_end_lv > p_av->m_i_act_size_b) p_av->m_i_act_size_b = static_cast<int32_t>(i64_end_lv);
  return 1;
}

void ReduceBuff(TWriteBuffer* p_av) {
  int64_t i64_now_lv = static_cast<int64_t>(FileTimeNowLocal());
  if (i64_now_lv <= p_av->m_i64_last_reduce_time_b + I64_BUFF_REDUCE_PERIOD) return;
  p_av->m_i64_last_reduce_time_b = i64_now_lv;
  int32_t i_high_lv = static_cast<int32_t>(static_cast<int64_t>(p_av->m_i_act_size_b) * 3 / 2);
  if (i_high_lv < p_av->m_i_buff_size_b) {
    int32_t i_new_lv = static_cast<int32_t>(static_cast<int64_t>(p_av->m_i_buff_size_b) * 3 / 4);
    BuffsUsedMemAdd(static_cast<int64_t>(i_new_lv) - p_av->m_i_buff_size_b);
    TRACE44(TLOG_ARC_TRACEDECIM, "<buff> reduce buff old %d, new %d, this %lld ", p_av->m_i_buff_size_b, i_new_lv,
            static_cast<long long>(reinterpret_cast<intptr_t>(p_av)));
    p_av->m_i_buff_size_b = i_new_lv;
    ResizeStorage(p_av, i_new_lv, I_SIGN_BUFF_REDUCE);
  }
  p_av->m_i_act_size_b = 0;
}
