// The sites of trace lines and the list of those an operator has
// subscribed to. It sits below the trace functions: they bind a site to its
// subscription through this list, and the queries and the saved file
// (config) change it; nothing here writes a log line, so the logging and the
// saved parameters both build on it without reaching back.
#pragma once

#include <cstdint>

#include "linux/common_use/temp/clist.h"
#include "linux/common_use/temp/tools.h"

// One per call site, a function-level static, zero until first use.
class CLastLogStatus {
 public:
  constexpr CLastLogStatus()
      : m_i_on(0), m_ui64_hash(0), m_i64_version(0), m_p_last_text(nullptr), m_ui64_last_time(0) {}
  ~CLastLogStatus();

  int32_t m_i_on;
  uint64_t m_ui64_hash;
  int64_t m_i64_version;
  SafeString* m_p_last_text;
  uint64_t m_ui64_last_time;
};

// Global site version: raised whenever a subscription is added.
extern int64_t* g_p_log_site_version;

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

// Most subscriptions the list holds: each one is looked up by every add and
// by every site that binds, and an operator follows a few dozen at most.
const int32_t I_LOG_STATUS_MAX = 1024;
// A full list takes no new text.
const int32_t RC_LOG_STATUS_FULL = static_cast<int32_t>(0x80070008u);

// Query "query_log_status_add": subscribes to the format text, or turns its
// subscription on again, and makes every log site look again. RC_OK, or
// RC_LOG_STATUS_FULL for a new text when the list holds I_LOG_STATUS_MAX.
int32_t LogStatusAdd(CLogStatusList* p_list_av, const SafeString* p_text_av);
// Query "query_log_status_delete": drops the first subscription of the text.
void LogStatusDelete(CLogStatusList* p_list_av, const SafeString* p_text_av);
// Query "query_log_status_off": turns every subscription of the text off.
void LogStatusOff(CLogStatusList* p_list_av, const SafeString* p_text_av);
// Sets m_b_all_off: 1 when no element is on.
void LogStatusRecomputeAllOff(CLogStatusList* p_list_av);
// The identity of a format text, for sites and elements alike.
uint64_t LogStatusHash(const char* s_text_av);
// The element at the index, or null; the caller holds the list's lock.
TLogStatusElem* LogStatusElemAt(CLogStatusList* p_list_av, int32_t i_index_av);
// Makes every site look its subscription up again at its next line.
void LogSitesLookAgain();
