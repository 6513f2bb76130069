// Saved parameters: the list of log sites an operator has subscribed to.
// The trace functions look a site up here (by the hash of its format text)
// when the global site version has moved. The queries that change and show
// the list are here too; its file is added on top of this object.
#pragma once

#include <cstdint>

#include "linux/common_use/temp/clist.h"
#include "linux/common_use/temp/tools.h"

class CLastLogStatus;

// One subscription.
struct TLogStatusElem {
  TLogStatusElem();
  ~TLogStatusElem();

  int32_t is_on;
  SafeString log;
  uint64_t hash;
  CLastLogStatus* site;
  SafeString file;
  int32_t line;
};

class CLogStatusList {
 public:
  CLogStatusList();
  ~CLogStatusList();
  CLogStatusList(const CLogStatusList&) = delete;
  CLogStatusList& operator=(const CLogStatusList&) = delete;

  CListOur m_list;
  int64_t m_i64_last_save;
  PlCritSect m_crit_sect_save;
  int32_t m_b_all_off;
};

// The one list of the process; null before GlobalInit and after GlobalDeinit.
extern CLogStatusList* g_p_log_status_list;

// Query "query_log_status_add": subscribes to the format text, or turns its
// subscription on again, and makes every log site look again.
void LogStatusAdd(CLogStatusList* p_list_av, const SafeString* p_text_av);
// Query "query_log_status_delete": drops the first subscription of the text.
void LogStatusDelete(CLogStatusList* p_list_av, const SafeString* p_text_av);
// Query "query_log_status_off": turns every subscription of the text off.
void LogStatusOff(CLogStatusList* p_list_av, const SafeString* p_text_av);
// Query "query_log_status": every subscription with the site it is bound to,
// as a joined array in out; out stays as it was when the list is empty.
void LogStatusList(SafeString* p_out_av, int32_t i_slot_av);
// Sets m_b_all_off: 1 when no element is on.
void LogStatusRecomputeAllOff(CLogStatusList* p_list_av);
// The identity of a format text, for sites and elements alike.
uint64_t LogStatusHash(const char* s_text_av);
