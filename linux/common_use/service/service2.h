// Logging: the binding to the `log` library, the trace channels, the two
// trace functions every call site uses, and the per-site record of the last
// line that operators can subscribe to ("log_status").
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

#include "include/host/log_api.h"
#include "linux/common_use/service/log_sites.h"

// Trace channels; each picks a logger.
enum TLog2 {
  TLOG_ARC = 2,             // "arc": root events, errors
  TLOG_ARC_INTERF = 20,     // "arc.interf"
  TLOG_ARC_TRACE = 23,      // "arc.trace": per-frame and per-step trace
  TLOG_ARC_TRANSF = 26,     // "arc.transf": memory checks
  TLOG_ARC_LOAD = 35,       // "arc.load"
  TLOG_ARC_TRACEDECIM = 36  // "arc.tracedecim": state changes
};

// Severity codes of Trace45_Level1 used by call sites.
const int32_t TSEV_FAULT = 20;
const int32_t TSEV_TRACE = 60;

// One per logger, made with plain new. The handle comes first: log_init
// writes it through the binding's address.
struct TLogBinding {
  uint64_t m_ui64_handle;
  LogVWriteFn m_p_write;
  LogGetLevelFn m_p_level;
  LogFreeFn m_p_free;
  char m_s_name[32];
};

// The logger "common", written directly by the buffering thread.
extern TLogBinding* g_p_log_common;

void LogDllLoad();
void LogDllUnload();

void Trace44_Level1(TLog2 channel_av, CLastLogStatus* p_site_av, const char* s_file_av, int32_t i_line_av,
                    const char* s_format_av, ...) __attribute__((format(printf, 5, 6)));
void Trace45_Level1(TLog2 channel_av, int32_t i_severity_av, CLastLogStatus* p_site_av, const char* s_file_av,
                    int32_t i_line_av, const char* s_format_av, ...) __attribute__((format(printf, 6, 7)));
void LogWriteLevel(TLogBinding* p_binding_av, int64_t i64_level_av, int32_t i_zero_av, int64_t i64_random_av,
                   const char* s_file_av, const char* s_function_av, int32_t i_line_av, const char* s_text_av, ...);
void LogSiteUpdate(TLog2 channel_av, CLastLogStatus* p_site_av, const char* s_file_av, int32_t i_line_av,
                   const char* s_format_av, const char* s_text_av);
void LogRefreshLevels();
int LogChannelEnabled(TLog2 channel_av);
// The channel's flag as the last level check left it, without the 20-second
// check: for a caller that has just made a level check of its own.
bool LogChannelFlag(TLog2 channel_av);
// True when a trace call on the channel would format its text: the channel
// is on, or a subscription makes the sites keep their lines. A call site
// whose arguments cost work of their own (time texts) asks first.
bool LogTraceWanted(TLog2 channel_av);
void LogStatusReport(SafeString* p_out_av, int32_t i_slot_av);

// The frame of the joined query answers.
const char* const S_JOIN_HEAD = "[\n";
const char* const S_JOIN_TAIL = "\n]";
// Sorts the lines and makes out head, the lines with ",\n" between them, and
// tail, in a block of the total size (cut there). A total of 0 or less
// leaves out as it was.
void LinesJoin(std::vector<std::string>* p_items_av, int64_t i64_total_av, const char* s_head_av, const char* s_tail_av,
               SafeString* p_out_av);

// The call forms of every trace line: each expansion owns its site record.
#define TRACE44(channel, ...)                                                   \
  do {                                                                          \
    static CLastLogStatus s_site_lv;                                            \
    Trace44_Level1((channel), &s_site_lv, __FILE__, __LINE__, __VA_ARGS__);     \
  } while (0)
#define TRACE45(channel, severity, ...)                                                 \
  do {                                                                                  \
    static CLastLogStatus s_site_lv;                                                    \
    Trace45_Level1((channel), (severity), &s_site_lv, __FILE__, __LINE__, __VA_ARGS__); \
  } while (0)
