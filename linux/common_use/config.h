// Saved parameters: the list of log sites an operator has subscribed to.
// The trace functions look a site up here (by the hash of its format text)
// when the global site version has moved. The queries that change and show
// the list are here too, and its file config/writer.js beside the folder of
// the plug-in's folder, loaded by dll_init, rewritten every 180 s by the
// buffering threads and once more by dll_free, so that a subscription
// survives a restart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

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

// The saved file's path from the host's path of the plug-in: its last two
// components replaced by "config/writer.js". With b_make_folder_av the
// config folder is made when missing. 0, or -1 (out empty) when the host
// gives no path, the folder cannot be had or the path does not fit.
int32_t BuildSavePath(char* s_out_av, size_t ui_size_av, int32_t b_make_folder_av);
// The start of the run: the saved subscriptions back into the list, every
// one of them on, their hashes computed and the all-off flag recomputed.
// A missing, empty or broken file leaves the list empty.
void LogStatusLoad(CLogStatusList* p_list_av);
// The file's text into the list: the elements of the array
// "query_log_status" that carry a "log" text. False when the text is not
// of that shape; the elements read before then stay.
bool ParseLogStatusFile(CLogStatusList* p_list_av, const char* s_text_av);
// The file's text for the list as it stands now (empty when the format
// texts together reach the size limit).
void LogStatusFileText(CLogStatusList* p_list_av, std::string* p_out_av);
// Rewrites the saved file with the list; nothing when there is no path.
void SaveLogStatus(CLogStatusList* p_list_av);
// Replaces the file at the path with the text (no temporary file).
void WriteSavedFile(const char* s_path_av, const std::string& s_text_av);
// A long text into the log in pieces of 90 bytes, "%" and line feeds
// masked, so that a file's content can be read from the log alone.
void LogJsonPieces(const char* s_text_av);
