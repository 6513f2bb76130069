// The sites of trace lines and the subscriptions that bind them. The three
// queries that change the list run here; the trace functions (service2)
// bind sites to its elements, the saved parameters (config) fill and show
// it. A site whose element goes away or off stops keeping its text at once.
#include "linux/common_use/service/log_sites.h"

#include <cstring>
#include <vector>

#include "platform/pl_sync.h"

CLogStatusList* g_p_log_status_list = nullptr;
int64_t* g_p_log_site_version = nullptr;

namespace {

// Sign of the format texts the list keeps.
const int32_t SIGN_LOG_TEXT = 100;

const char* TextOf(const SafeString* p_text_av) {
  return p_text_av != nullptr && p_text_av->m_p_text != nullptr ? p_text_av->m_p_text : "";
}


// A site whose element goes away or off stops keeping its text at once.
void SiteOff(TLogStatusElem* p_elem_av) {
  if (p_elem_av->site != nullptr) __atomic_store_n(&p_elem_av->site->m_i_on, 0, __ATOMIC_RELAXED);
}

}  // namespace

// Runs at process exit too, when the memory checker may be gone already:
// the block is then checked and released without the registry.
CLastLogStatus::~CLastLogStatus() {
  CLogStatusList* p_list_lv = g_p_log_status_list;
  if (p_list_lv != nullptr) {
    PlCritLock lock_lv(&p_list_lv->m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < p_list_lv->m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = static_cast<TLogStatusElem*>(CListOurGet(&p_list_lv->m_list, i_lv));
      if (p_elem_lv != nullptr && p_elem_lv->site == this) p_elem_lv->site = nullptr;
    }
  }
  SafeString* p_text_lv = m_p_last_text;
  m_p_last_text = nullptr;
  m_i_on = 0;
  delete p_text_lv;
}

TLogStatusElem* LogStatusElemAt(CLogStatusList* p_list_av, int32_t i_index_av) {
  return static_cast<TLogStatusElem*>(CListOurGet(&p_list_av->m_list, i_index_av));
}

void LogSitesLookAgain() {
  int64_t* p_version_lv = __atomic_load_n(&g_p_log_site_version, __ATOMIC_ACQUIRE);
  if (p_version_lv != nullptr) PlAtomicAdd64(p_version_lv, 1);
}

TLogStatusElem::TLogStatusElem() : is_on(1), hash(0), site(nullptr), line(0) {}
TLogStatusElem::~TLogStatusElem() {}

CLogStatusList::CLogStatusList() : m_i64_last_save(0), m_b_all_off(0) {}

CLogStatusList::~CLogStatusList() {
  std::vector<TLogStatusElem*> elems_lv;
  {
    PlCritLock lock_lv(&m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = LogStatusElemAt(this, i_lv);
      if (p_elem_lv == nullptr) continue;
      SiteOff(p_elem_lv);
      elems_lv.push_back(p_elem_lv);
    }
    CListOurClear(&m_list);
  }
  for (TLogStatusElem* p_elem_lv : elems_lv) delete p_elem_lv;
}

uint64_t LogStatusHash(const char* s_text_av) {
  if (s_text_av == nullptr) s_text_av = "";
  return StrHash64(s_text_av, static_cast<uint32_t>(strlen(s_text_av)));
}

int32_t LogStatusAdd(CLogStatusList* p_list_av, const SafeString* p_text_av) {
  if (p_list_av == nullptr) return RC_OK;
  int32_t i_result_lv = RC_OK;
  // Made before the lock, which then covers the look-up alone.
  TLogStatusElem* p_new_lv = new TLogStatusElem();
  SafeStringAssign(&p_new_lv->log, TextOf(p_text_av), SIGN_LOG_TEXT);
  p_new_lv->hash = LogStatusHash(TextOf(p_text_av));
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    TLogStatusElem* p_found_lv = nullptr;
    for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count && p_found_lv == nullptr; i_lv++) {
      TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
      if (p_elem_lv != nullptr && p_elem_lv->hash == p_new_lv->hash) p_found_lv = p_elem_lv;
    }
    if (p_found_lv == nullptr && p_list_av->m_list.m_i_count >= I_LOG_STATUS_MAX) {
      i_result_lv = RC_LOG_STATUS_FULL;
    } else if (p_found_lv == nullptr) {
      if (CListOurAdd(&p_list_av->m_list, p_new_lv) >= 0) p_new_lv = nullptr;
    } else {
      p_found_lv->is_on = 1;
    }
  }
  delete p_new_lv;
  if (i_result_lv != RC_OK) return i_result_lv;
  LogSitesLookAgain();
  LogStatusRecomputeAllOff(p_list_av);
  return RC_OK;
}

void LogStatusDelete(CLogStatusList* p_list_av, const SafeString* p_text_av) {
  if (p_list_av == nullptr) return;
  uint64_t ui64_hash_lv = LogStatusHash(TextOf(p_text_av));
  TLogStatusElem* p_gone_lv = nullptr;
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count && p_gone_lv == nullptr; i_lv++) {
      TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
      if (p_elem_lv != nullptr && p_elem_lv->hash == ui64_hash_lv) p_gone_lv = p_elem_lv;
    }
    if (p_gone_lv != nullptr) {
      SiteOff(p_gone_lv);
      CListOurRemove(&p_list_av->m_list, p_gone_lv);
    }
  }
  delete p_gone_lv;
  LogStatusRecomputeAllOff(p_list_av);
}

void LogStatusOff(CLogStatusList* p_list_av, const SafeString* p_text_av) {
  if (p_list_av == nullptr) return;
  uint64_t ui64_hash_lv = LogStatusHash(TextOf(p_text_av));
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
      if (p_elem_lv == nullptr || p_elem_lv->hash != ui64_hash_lv) continue;
      SiteOff(p_elem_lv);
      p_elem_lv->is_on = 0;
    }
  }
  LogStatusRecomputeAllOff(p_list_av);
}

void LogStatusRecomputeAllOff(CLogStatusList* p_list_av) {
  if (p_list_av == nullptr) return;
  PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
  int32_t b_all_off_lv = 1;
  for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count && b_all_off_lv != 0; i_lv++) {
    TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
    if (p_elem_lv != nullptr && p_elem_lv->is_on != 0) b_all_off_lv = 0;
  }
  __atomic_store_n(&p_list_av->m_b_all_off, b_all_off_lv, __ATOMIC_RELAXED);
}

