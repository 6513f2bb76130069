// The list of log sites an operator has subscribed to, the three queries
// that change it and the one that shows it. The trace functions (service2)
// bind sites to its elements; the query dispatch calls LogStatusAdd,
// LogStatusDelete, LogStatusOff and LogStatusList.
#include "linux/common_use/config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "platform/pl_sync.h"

CLogStatusList* g_p_log_status_list = nullptr;

namespace {

// Sign of the format texts the list keeps.
const int32_t SIGN_LOG_TEXT = 100;
// A subscription whose format and file texts together reach this length is
// shown as an empty item.
const size_t UI_LIST_ITEM_LIMIT = 1500;
// What each item adds to the size of the joined answer beyond its length.
const int64_t I64_LIST_ITEM_SPARE = 100;

const int32_t POINT_LIST_START = 20583;
const int32_t POINT_LIST_ITEM_START = 21571;
const int32_t POINT_LIST_ITEM_END = 21572;
const int32_t POINT_LIST_END = 20552;

const char* TextOf(const SafeString* p_text_av) {
  return p_text_av != nullptr && p_text_av->m_p_text != nullptr ? p_text_av->m_p_text : "";
}

TLogStatusElem* ElemAt(CLogStatusList* p_list_av, int32_t i_index_av) {
  return static_cast<TLogStatusElem*>(CListOurGet(&p_list_av->m_list, i_index_av));
}

// A site whose element goes away or off stops keeping its text at once.
void SiteOff(TLogStatusElem* p_elem_av) {
  if (p_elem_av->site != nullptr) __atomic_store_n(&p_elem_av->site->m_i_on, 0, __ATOMIC_RELAXED);
}

// One item of the "query_log_status" answer. The texts are written as they
// stand, unescaped, as the saved file has them too.
std::string LogStatusListItem(const TLogStatusElem* p_elem_av) {
  const char* s_file_lv = TextOf(&p_elem_av->file);
  const char* s_log_lv = TextOf(&p_elem_av->log);
  size_t ui_texts_lv = strlen(s_file_lv) + strlen(s_log_lv);
  if (ui_texts_lv >= UI_LIST_ITEM_LIMIT) return std::string();
  std::string s_item_lv(ui_texts_lv + 64, '\0');
  int i_len_lv = snprintf(&s_item_lv[0], s_item_lv.size(), "{\"file\":\"%s\",\"line\":%d,\"log\":\"%s\",\"is_on\":%s}",
                          s_file_lv, p_elem_av->line, s_log_lv, p_elem_av->is_on != 0 ? "true" : "false");
  s_item_lv.resize(i_len_lv > 0 ? std::min(static_cast<size_t>(i_len_lv), s_item_lv.size() - 1) : 0);
  return s_item_lv;
}

}  // namespace

TLogStatusElem::TLogStatusElem() : is_on(1), hash(0), site(nullptr), line(0) {}
TLogStatusElem::~TLogStatusElem() {}

CLogStatusList::CLogStatusList() : m_i64_last_save(0), m_b_all_off(0) {}

CLogStatusList::~CLogStatusList() {
  std::vector<TLogStatusElem*> elems_lv;
  {
    PlCritLock lock_lv(&m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = ElemAt(this, i_lv);
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

void LogStatusAdd(CLogStatusList* p_list_av, const SafeString* p_text_av) {
  if (p_list_av == nullptr) return;
  // Made before the lock, which then covers the look-up alone.
  TLogStatusElem* p_new_lv = new TLogStatusElem();
  SafeStringAssign(&p_new_lv->log, TextOf(p_text_av), SIGN_LOG_TEXT);
  p_new_lv->hash = LogStatusHash(TextOf(p_text_av));
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    TLogStatusElem* p_found_lv = nullptr;
    for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count && p_found_lv == nullptr; i_lv++) {
      TLogStatusElem* p_elem_lv = ElemAt(p_list_av, i_lv);
      if (p_elem_lv != nullptr && p_elem_lv->hash == p_new_lv->hash) p_found_lv = p_elem_lv;
    }
    if (p_found_lv == nullptr) {
      if (CListOurAdd(&p_list_av->m_list, p_new_lv) >= 0) p_new_lv = nullptr;
    } else {
      p_found_lv->is_on = 1;
    }
  }
  delete p_new_lv;
  int64_t* p_version_lv = __atomic_load_n(&g_p_log_site_version, __ATOMIC_ACQUIRE);
  if (p_version_lv != nullptr) PlAtomicAdd64(p_version_lv, 1);
  LogStatusRecomputeAllOff(p_list_av);
}

void LogStatusDelete(CLogStatusList* p_list_av, const SafeString* p_text_av) {
  if (p_list_av == nullptr) return;
  uint64_t ui64_hash_lv = LogStatusHash(TextOf(p_text_av));
  TLogStatusElem* p_gone_lv = nullptr;
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count && p_gone_lv == nullptr; i_lv++) {
      TLogStatusElem* p_elem_lv = ElemAt(p_list_av, i_lv);
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
      TLogStatusElem* p_elem_lv = ElemAt(p_list_av, i_lv);
      if (p_elem_lv == nullptr || p_elem_lv->hash != ui64_hash_lv) continue;
      SiteOff(p_elem_lv);
      p_elem_lv->is_on = 0;
    }
  }
  LogStatusRecomputeAllOff(p_list_av);
}

void LogStatusList(SafeString* p_out_av, int32_t i_slot_av) {
  CLogStatusList* p_list_lv = g_p_log_status_list;
  if (p_out_av == nullptr || p_list_lv == nullptr) return;
  std::vector<std::string> items_lv;
  int64_t i64_total_lv = 0;
  {
    PlCritLock lock_lv(&p_list_lv->m_list.m_crit_sect);
    StableMark(i_slot_av, POINT_LIST_START);
    for (int32_t i_lv = 0; i_lv < p_list_lv->m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = ElemAt(p_list_lv, i_lv);
      if (p_elem_lv == nullptr) continue;
      StableMark(i_slot_av, POINT_LIST_ITEM_START);
      items_lv.push_back(LogStatusListItem(p_elem_lv));
      i64_total_lv += static_cast<int64_t>(items_lv.back().size()) + I64_LIST_ITEM_SPARE;
      StableMark(i_slot_av, POINT_LIST_ITEM_END);
    }
    StableMark(i_slot_av, POINT_LIST_END);
  }
  LinesJoin(&items_lv, i64_total_lv, S_JOIN_HEAD, S_JOIN_TAIL, p_out_av);
}

void LogStatusRecomputeAllOff(CLogStatusList* p_list_av) {
  if (p_list_av == nullptr) return;
  PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
  int32_t b_all_off_lv = 1;
  for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count && b_all_off_lv != 0; i_lv++) {
    TLogStatusElem* p_elem_lv = ElemAt(p_list_av, i_lv);
    if (p_elem_lv != nullptr && p_elem_lv->is_on != 0) b_all_off_lv = 0;
  }
  __atomic_store_n(&p_list_av->m_b_all_off, b_all_off_lv, __ATOMIC_RELAXED);
}
