// CListOur: the locked pointer list under the list of channels and the log
// site list. Growth goes 10, then half as much again each time, in checked
// memory with signature 21.
#include "linux/common_use/temp/clist.h"

#include <cstring>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"

namespace {

const int32_t I_LIST_SIGN = 21;
const int32_t I_LIST_FIRST_CAPACITY = 10;
const int32_t I_LIST_QUIET_BYTES = 100;
const int32_t I_LIST_ITEM_BYTES = static_cast<int32_t>(sizeof(void*));
// Beyond this the byte size of the block no longer fits its 32-bit size.
const int32_t I_LIST_MAX_CAPACITY = 0x7FFFFFC0 / I_LIST_ITEM_BYTES;

// Makes room for one more item. The capacity only rises with the block:
// a list whose block could not grow must not store behind its end.
bool CListOurGrow(CListOur* p_list_av) {
  if (p_list_av->m_i_count + 1 <= p_list_av->m_i_capacity) return true;
  int32_t i_cap_lv = p_list_av->m_i_capacity;
  int64_t i64_new_lv = i_cap_lv < 1 ? I_LIST_FIRST_CAPACITY : static_cast<int64_t>(i_cap_lv) + i_cap_lv / 2;
  if (i64_new_lv > I_LIST_MAX_CAPACITY) return false;
  int32_t i_bytes_lv = static_cast<int32_t>(i64_new_lv) * I_LIST_ITEM_BYTES;
  if (i_bytes_lv > I_LIST_QUIET_BYTES) TRACE44(TLOG_ARC_TRACEDECIM, "<mem2> bef listour SAFE_MEM_REALLOCB4 %d", i_bytes_lv);
  void** pp_before_lv = p_list_av->m_pp_items;
  SAFE_MEM_REALLOCB4(p_list_av->m_pp_items, i_bytes_lv, I_LIST_SIGN);
  if (p_list_av->m_pp_items == pp_before_lv) return false;
  p_list_av->m_i_capacity = static_cast<int32_t>(i64_new_lv);
  return true;
}

// Takes the lock again inside the removal: the lock is recursive.
void CListOurRemoveAt(CListOur* p_list_av, int32_t i_index_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  int32_t i_last_lv = p_list_av->m_i_count - 1;
  p_list_av->m_pp_items[i_index_av] = p_list_av->m_pp_items[i_last_lv];
  p_list_av->m_pp_items[i_last_lv] = nullptr;
  p_list_av->m_i_count = i_last_lv;
}

}  // namespace

CListOur::CListOur() : m_pp_items(nullptr), m_i_capacity(0), m_i_count(0) {}

CListOur::~CListOur() {
  if (m_pp_items != nullptr) SAFE_MEM_FREE(m_pp_items);
}

// -1 when the list could not grow.
int32_t CListOurAdd(CListOur* p_list_av, void* p_item_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  if (!CListOurGrow(p_list_av)) return -1;
  int32_t i_index_lv = p_list_av->m_i_count;
  p_list_av->m_pp_items[i_index_lv] = p_item_av;
  p_list_av->m_i_count = i_index_lv + 1;
  return i_index_lv;
}

void CListOurRemove(CListOur* p_list_av, void* p_item_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    if (p_list_av->m_pp_items[i_lv] != p_item_av) continue;
    CListOurRemoveAt(p_list_av, i_lv);
    return;
  }
}

void* CListOurGet(CListOur* p_list_av, int32_t i_index_av) {
  if (i_index_av < 0 || i_index_av >= p_list_av->m_i_count) return nullptr;
  return p_list_av->m_pp_items[i_index_av];
}

void CListOurClear(CListOur* p_list_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  if (p_list_av->m_pp_items != nullptr)
    memset(p_list_av->m_pp_items, 0, static_cast<size_t>(p_list_av->m_i_capacity) * sizeof(void*));
  p_list_av->m_i_count = 0;
}
