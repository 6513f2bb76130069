// Logging of the plug-in: binds the `log` library at start, keeps one cached
// on/off flag per trace channel, and runs the two trace functions that every
// call site uses. Beside writing, a call site that an operator subscribed to
// keeps its last line and time for the "log_status" query; the join of the
// lines of that answer serves every joined query answer. Called from every
// unit; loaded and unloaded by the global start and stop.
#include "linux/common_use/service/service2.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "include/host/core_api.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"

TLogBinding* g_p_log_common = nullptr;

namespace {

// The channel loggers, in the order they are opened.
enum { LOG_I_ARC, LOG_I_LOAD, LOG_I_TRACE, LOG_I_TRACEDECIM, LOG_I_COMMON, LOG_I_TRANSF, LOG_I_INTERF, LOG_CHANNELS };
const char* const LOG_NAMES[LOG_CHANNELS] = {"arc",        "arc.load",   "arc.trace", "arc.tracedecim",
                                             "arc.common", "arc.transf", "arc.interf"};
const int LOG_FREE_ORDER[LOG_CHANNELS] = {LOG_I_ARC,        LOG_I_LOAD,   LOG_I_COMMON, LOG_I_TRACE,
                                          LOG_I_TRACEDECIM, LOG_I_TRANSF, LOG_I_INTERF};

// The library reports lines as coming from the trace functions themselves.
const char* const LOG_SOURCE = "common_use/service/service2";
const char* const TRACE44_FUNCTION =
    "void __cdecl Trace44_Level1(enum TLog2,class CLastLogStatus *,const char *,int,char *,...)";
const char* const TRACE45_FUNCTION =
    "void __cdecl Trace45_Level1(enum TLog2,int,class CLastLogStatus *,const char *,int,char *,...)";

struct TLogSeverity {
  int32_t m_i_code;
  int64_t m_i64_level;
  int32_t m_i_line;
};
const TLogSeverity LOG_SEVERITIES[] = {{10, 50000, 1057}, {20, 40000, 1062}, {30, 30000, 1067},
                                       {40, 20000, 1072}, {50, 10000, 1077}, {60, 5000, 1082}};
const TLogSeverity TRACE44_SEVERITY = {0, 5000, 1283};

const int TRACE_TEXT_SIZE = 1024;
// A logger counts as on while its threshold lets level-20000 lines through.
const int64_t LOG_ON_BELOW = 20001;
const uint64_t LOG_REFRESH_TICKS = 200000000ULL;
const int32_t SIGN_SITE_TEXT = 100;
const int32_t SIGN_REPORT = 17;
const size_t REPORT_ITEM_LIMIT = 1500;

const int32_t POINT_REPORT_START = 20583;
const int32_t POINT_ITEM_START = 21571;
const int32_t POINT_ITEM_END = 21572;
const int32_t POINT_REPORT_END = 20552;

void* g_h_log_lib = nullptr;
LogDllInitFn g_p_fn_dll_init = nullptr;
LogDllFreeFn g_p_fn_dll_free = nullptr;
LogInitFn g_p_fn_log_init = nullptr;
LogVWriteFn g_p_fn_log_vwrite = nullptr;
LogFreeFn g_p_fn_log_free = nullptr;
LogGetLevelFn g_p_fn_log_get_level = nullptr;

// Published with release and read with acquire: the monitor's print thread
// may write its first line while dll_init is still loading the logger.
TLogBinding* g_p_log_bindings[LOG_CHANNELS] = {};

TLogBinding* BindingOf(int i_index_av) { return __atomic_load_n(&g_p_log_bindings[i_index_av], __ATOMIC_ACQUIRE); }

// Read on every trace call from any thread: relaxed atomics cost no more
// than plain bytes and keep the unlocked refresh well defined.
std::atomic<uint8_t> g_b_log_on[LOG_CHANNELS];
std::atomic<uint64_t> g_ui64_log_last_refresh{0};

int LogChannelIndex(TLog2 channel_av) {
  switch (channel_av) {
    case TLOG_ARC:
      return LOG_I_ARC;
    case TLOG_ARC_INTERF:
      return LOG_I_INTERF;
    case TLOG_ARC_TRACE:
      return LOG_I_TRACE;
    case TLOG_ARC_TRANSF:
      return LOG_I_TRANSF;
    case TLOG_ARC_LOAD:
      return LOG_I_LOAD;
    case TLOG_ARC_TRACEDECIM:
      return LOG_I_TRACEDECIM;
  }
  return LOG_I_COMMON;
}

const TLogSeverity* LogSeverityOf(int32_t i_code_av) {
  for (const TLogSeverity& sev_lv : LOG_SEVERITIES)
    if (sev_lv.m_i_code == i_code_av) return &sev_lv;
  return nullptr;
}

uint64_t LogNowLocal() { return PlFileTimeToLocal(PlFileTimeUtc()); }

// Any cheap spread of numbers will do: the library only receives it.
int64_t LogRandom200() {
  static thread_local uint32_t t_ui_state_lv = 0x9E3779B9u;
  uint32_t ui_lv = t_ui_state_lv;
  ui_lv ^= ui_lv << 13;
  ui_lv ^= ui_lv >> 17;
  ui_lv ^= ui_lv << 5;
  t_ui_state_lv = ui_lv;
  return ui_lv % 200;
}

// The lines of a failed load go to standard output: there is no logger yet.
void LogStdoutLine(const char* s_format_av) {
  char s_line_lv[128];
  int i_len_lv = snprintf(s_line_lv, sizeof(s_line_lv), s_format_av, "");
  if (i_len_lv > 0) PlStdoutWrite(s_line_lv, std::min(static_cast<size_t>(i_len_lv), sizeof(s_line_lv) - 1));
}

// Looks up the six functions; a library without one of them ends the
// process, as a host with a broken logger is not to run.
void LogDllBind(void* h_lib_av) {
  static const char* const s_names_lv[6] = {"dll_init", "dll_free", "log_init", "log_vwrite", "log_free", "log_get_level"};
  static const char* const s_missing_lv[6] = {"Couldn't find dll_init: %s\n",   "Couldn't find dll_free: %s\n",
                                              "Couldn't find log_init: %s\n",   "Couldn't find log_vwrite: %s\n",
                                              "Couldn't find log_free: %s\n",   "Couldn't find log_get_level: %s\n"};
  void* p_syms_lv[6];
  for (int i_lv = 0; i_lv < 6; i_lv++) {
    p_syms_lv[i_lv] = PlLibSym(h_lib_av, s_names_lv[i_lv]);
    if (p_syms_lv[i_lv] != nullptr) continue;
    LogStdoutLine(s_missing_lv[i_lv]);
    PlExitProcess(1);
  }
  g_p_fn_dll_init = reinterpret_cast<LogDllInitFn>(p_syms_lv[0]);
  g_p_fn_dll_free = reinterpret_cast<LogDllFreeFn>(p_syms_lv[1]);
  g_p_fn_log_init = reinterpret_cast<LogInitFn>(p_syms_lv[2]);
  g_p_fn_log_vwrite = reinterpret_cast<LogVWriteFn>(p_syms_lv[3]);
  g_p_fn_log_free = reinterpret_cast<LogFreeFn>(p_syms_lv[4]);
  g_p_fn_log_get_level = reinterpret_cast<LogGetLevelFn>(p_syms_lv[5]);
}

// A binding keeps the library's functions only when it got a handle, so a
// logger the library refused stays silent.
TLogBinding* LogBindingOpen(const char* s_name_av) {
  TLogBinding* p_lv = new TLogBinding;
  memset(p_lv, 0, sizeof(*p_lv));
  if (s_name_av == nullptr) return p_lv;
  strncpy(p_lv->m_s_name, s_name_av, sizeof(p_lv->m_s_name) - 1);
  if (g_p_fn_log_init == nullptr || g_p_fn_log_vwrite == nullptr || g_p_fn_log_get_level == nullptr ||
      g_p_fn_log_free == nullptr)
    return p_lv;
  g_p_fn_log_init(p_lv, p_lv->m_s_name, 0);
  if (p_lv->m_ui64_handle == 0) return p_lv;
  p_lv->m_p_write = g_p_fn_log_vwrite;
  p_lv->m_p_level = g_p_fn_log_get_level;
  p_lv->m_p_free = g_p_fn_log_free;
  return p_lv;
}

void LogBindingClose(TLogBinding** pp_binding_av) {
  TLogBinding* p_lv = __atomic_exchange_n(pp_binding_av, nullptr, __ATOMIC_ACQ_REL);
  if (p_lv == nullptr) return;
  if (p_lv->m_ui64_handle != 0 && g_p_fn_log_free != nullptr) g_p_fn_log_free(p_lv->m_ui64_handle);
  p_lv->m_ui64_handle = 0;
  p_lv->m_p_write = nullptr;
  p_lv->m_p_level = nullptr;
  p_lv->m_p_free = nullptr;
  delete p_lv;
}

bool LogSitesActive() {
  CLogStatusList* p_list_lv = g_p_log_status_list;
  return p_list_lv != nullptr && __atomic_load_n(&g_p_log_site_version, __ATOMIC_ACQUIRE) != nullptr &&
         __atomic_load_n(&p_list_lv->m_b_all_off, __ATOMIC_RELAXED) == 0;
}

// Doubles each '%' of a finished line: the library reads its format with
// printf rules, and the line must come out as the call site formed it.
void LogEscapePercent(const char* s_text_av, char* s_out_av, size_t ui_size_av) {
  size_t ui_pos_lv = 0;
  for (const char* p_lv = s_text_av; *p_lv != 0; p_lv++) {
    size_t ui_need_lv = *p_lv == '%' ? 2 : 1;
    if (ui_pos_lv + ui_need_lv >= ui_size_av) break;
    s_out_av[ui_pos_lv++] = *p_lv;
    if (*p_lv == '%') s_out_av[ui_pos_lv++] = '%';
  }
  s_out_av[ui_pos_lv] = 0;
}

void LogWriteTraceLine(TLogBinding* p_binding_av, const TLogSeverity* p_sev_av, const char* s_function_av,
                       const char* s_text_av) {
  char s_escaped_lv[2 * TRACE_TEXT_SIZE];
  const char* s_line_lv = s_text_av;
  if (strchr(s_text_av, '%') != nullptr) {
    LogEscapePercent(s_text_av, s_escaped_lv, sizeof(s_escaped_lv));
    s_line_lv = s_escaped_lv;
  }
  LogWriteLevel(p_binding_av, p_sev_av->m_i64_level, 0, LogRandom200(), LOG_SOURCE, s_function_av,
                p_sev_av->m_i_line, s_line_lv);
}

// The part of a trace call past the cheap checks: kept out of line so that
// a call that returns early pays for no text buffer.
__attribute__((noinline)) void TraceFinish(TLog2 channel_av, TLogBinding* p_binding_av,
                                           const TLogSeverity* p_write_av, const char* s_function_av,
                                           CLastLogStatus* p_site_av, const char* s_file_av, int32_t i_line_av,
                                           const char* s_format_av, va_list args_av) {
  char s_text_lv[TRACE_TEXT_SIZE];
  s_text_lv[0] = 0;
  vsnprintf(s_text_lv, sizeof(s_text_lv), s_format_av, args_av);
  if (p_write_av != nullptr) LogWriteTraceLine(p_binding_av, p_write_av, s_function_av, s_text_lv);
  if (p_site_av != nullptr) LogSiteUpdate(channel_av, p_site_av, s_file_av, i_line_av, s_format_av, s_text_lv);
}

// The first element that waits for this site's format takes the site.
void LogSiteFind(CLogStatusList* p_list_av, CLastLogStatus* p_site_av, const char* s_file_av, int32_t i_line_av) {
  uint64_t ui64_hash_lv = __atomic_load_n(&p_site_av->m_ui64_hash, __ATOMIC_RELAXED);
  PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count; i_lv++) {
    TLogStatusElem* p_elem_lv = static_cast<TLogStatusElem*>(CListOurGet(&p_list_av->m_list, i_lv));
    if (p_elem_lv == nullptr || p_elem_lv->is_on == 0 || p_elem_lv->hash != ui64_hash_lv) continue;
    p_elem_lv->site = p_site_av;
    SafeStringAssign(&p_elem_lv->file, s_file_av, SIGN_SITE_TEXT);
    p_elem_lv->line = i_line_av;
    __atomic_store_n(&p_site_av->m_i_on, 1, __ATOMIC_RELAXED);
    return;
  }
}

// The new text is made before the list's lock and the old one released
// after it; under the lock only the block changes hands, so a report that
// reads the text never sees a released block.
void LogSiteKeepText(CLogStatusList* p_list_av, CLastLogStatus* p_site_av, const char* s_text_av) {
  int32_t i_size_lv = static_cast<int32_t>(strnlen(s_text_av, TRACE_TEXT_SIZE - 1)) + 1;
  char* pb_new_lv = nullptr;
  SAFE_MEM_ALLOCB5(pb_new_lv, i_size_lv, SIGN_SITE_TEXT);
  if (pb_new_lv == nullptr) return;
  memcpy(pb_new_lv, s_text_av, i_size_lv - 1);
  pb_new_lv[i_size_lv - 1] = 0;
  uint64_t ui64_now_lv = LogNowLocal();
  char* pb_old_lv = nullptr;
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    if (p_site_av->m_p_last_text == nullptr) p_site_av->m_p_last_text = new SafeString();
    pb_old_lv = p_site_av->m_p_last_text->m_p_text;
    p_site_av->m_p_last_text->m_p_text = pb_new_lv;
    p_site_av->m_p_last_text->m_i_size = i_size_lv;
    p_site_av->m_ui64_last_time = ui64_now_lv;
  }
  if (pb_old_lv != nullptr) SAFE_MEM_FREE(pb_old_lv);
}

// One JSON item of the "log_status" answer; empty for a too long pair of
// format and file text.
std::string LogStatusItem(const TLogStatusElem* p_elem_av) {
  const char* s_file_lv = p_elem_av->file.m_p_text != nullptr ? p_elem_av->file.m_p_text : "";
  const char* s_log_lv = p_elem_av->log.m_p_text != nullptr ? p_elem_av->log.m_p_text : "";
  if (strlen(s_file_lv) + strlen(s_log_lv) >= REPORT_ITEM_LIMIT) return std::string();
  const CLastLogStatus* p_site_lv = p_elem_av->site;
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  s_time_lv[0] = 0;
  FileTimeToText(p_site_lv->m_ui64_last_time, s_time_lv);
  s_time_lv[FILE_TIME_TEXT_SIZE - 1] = 0;
  const SafeString* p_text_lv = p_site_lv->m_p_last_text;
  const char* s_text_lv = p_text_lv != nullptr && p_text_lv->m_p_text != nullptr ? p_text_lv->m_p_text : "";
  std::string s_item_lv(strlen(s_file_lv) + strlen(s_time_lv) + strlen(s_text_lv) + 64, '\0');
  int i_len_lv = snprintf(&s_item_lv[0], s_item_lv.size(), "{\"fl\":\"%s\",\"ln\":%d,\"t\":\"%s\",\"lg\":\"%s\"}",
                          s_file_lv, p_elem_av->line, s_time_lv, s_text_lv);
  s_item_lv.resize(i_len_lv > 0 ? std::min(static_cast<size_t>(i_len_lv), s_item_lv.size() - 1) : 0);
  return s_item_lv;
}

}  // namespace

void LogDllLoad() {
  if (g_h_log_lib != nullptr) return;
  char* s_path_lv = core_get_path("log-1", "4172635", 89);
  if (s_path_lv == nullptr) return;
  void* h_lib_lv = PlLibOpen(s_path_lv);
  core_mfree(s_path_lv);
  if (h_lib_lv == nullptr) {
    LogStdoutLine("Couldn't open log.dll: %s\n");
    return;
  }
  g_h_log_lib = h_lib_lv;
  LogDllBind(h_lib_lv);
  if (g_p_fn_dll_init(0) != 0) LogStdoutLine("log_dll_init_fn failed\n");
  for (int i_lv = 0; i_lv < LOG_CHANNELS; i_lv++)
    __atomic_store_n(&g_p_log_bindings[i_lv], LogBindingOpen(LOG_NAMES[i_lv]), __ATOMIC_RELEASE);
  LogRefreshLevels();
  g_p_log_common = LogBindingOpen("common");
  // Published last: a thread that sees it sees the loggers made above.
  __atomic_store_n(&g_p_log_site_version, new int64_t(1), __ATOMIC_RELEASE);
}

void LogDllUnload() {
  for (int i_lv = 0; i_lv < LOG_CHANNELS; i_lv++) g_b_log_on[i_lv].store(0, std::memory_order_relaxed);
  g_ui64_log_last_refresh.store(0, std::memory_order_relaxed);
  int64_t* p_version_lv = __atomic_exchange_n(&g_p_log_site_version, nullptr, __ATOMIC_ACQ_REL);
  delete p_version_lv;
  for (int i_lv = 0; i_lv < LOG_CHANNELS; i_lv++) LogBindingClose(&g_p_log_bindings[LOG_FREE_ORDER[i_lv]]);
  LogBindingClose(&g_p_log_common);
  if (g_h_log_lib == nullptr) return;
  if (g_p_fn_dll_free != nullptr && g_p_fn_dll_free() != 0) LogStdoutLine("log_dll_free_fn failed\n");
  PlLibClose(g_h_log_lib);
  g_h_log_lib = nullptr;
  g_p_fn_dll_init = nullptr;
  g_p_fn_dll_free = nullptr;
  g_p_fn_log_init = nullptr;
  g_p_fn_log_vwrite = nullptr;
  g_p_fn_log_free = nullptr;
  g_p_fn_log_get_level = nullptr;
}

void LogRefreshLevels() {
  for (int i_lv = 0; i_lv < LOG_CHANNELS; i_lv++) {
    TLogBinding* p_lv = BindingOf(i_lv);
    if (p_lv == nullptr) continue;
    bool b_on_lv =
        p_lv->m_ui64_handle != 0 && p_lv->m_p_level != nullptr && p_lv->m_p_level(p_lv->m_ui64_handle) < LOG_ON_BELOW;
    g_b_log_on[i_lv].store(b_on_lv ? 1 : 0, std::memory_order_relaxed);
  }
}

// A level changed in the library reaches the flags within 20 s, without a
// call into the library per line.
int LogChannelEnabled(TLog2 channel_av) {
  // The refresh comes every 20 s: a clock good to a few milliseconds is
  // enough here, and every trace call of the frame path pays for this read.
  uint64_t ui64_now_lv = PlFileTimeToLocal(PlFileTimeUtcCoarse());
  if (ui64_now_lv > g_ui64_log_last_refresh.load(std::memory_order_relaxed) + LOG_REFRESH_TICKS) {
    g_ui64_log_last_refresh.store(ui64_now_lv, std::memory_order_relaxed);
    LogRefreshLevels();
  }
  return g_b_log_on[LogChannelIndex(channel_av)].load(std::memory_order_relaxed);
}

bool LogChannelFlag(TLog2 channel_av) {
  return g_b_log_on[LogChannelIndex(channel_av)].load(std::memory_order_relaxed) != 0;
}

// The same test as the trace functions make before they format, on the
// flags as the last trace call left them: the trace call that follows makes
// the 20-second level check, so this one spares the clock read.
bool LogTraceWanted(TLog2 channel_av) {
  bool b_enabled_lv = g_b_log_on[LogChannelIndex(channel_av)].load(std::memory_order_relaxed) != 0;
  if (!b_enabled_lv && !LogSitesActive()) return false;
  return BindingOf(LogChannelIndex(channel_av)) != nullptr;
}

void Trace44_Level1(TLog2 channel_av, CLastLogStatus* p_site_av, const char* s_file_av, int32_t i_line_av,
                    const char* s_format_av, ...) {
  bool b_enabled_lv = LogChannelEnabled(channel_av) != 0;
  bool b_sites_lv = LogSitesActive();
  if (!b_enabled_lv && !b_sites_lv) return;
  TLogBinding* p_binding_lv = BindingOf(LogChannelIndex(channel_av));
  if (p_binding_lv == nullptr || s_format_av == nullptr) return;
  va_list args_lv;
  va_start(args_lv, s_format_av);
  TraceFinish(channel_av, p_binding_lv, b_enabled_lv ? &TRACE44_SEVERITY : nullptr, TRACE44_FUNCTION,
              b_sites_lv ? p_site_av : nullptr, s_file_av, i_line_av, s_format_av, args_lv);
  va_end(args_lv);
}

// The enabled flag is the same for every severity: a logger turned above
// 20000 gets not even the fault lines until it is turned down again.
void Trace45_Level1(TLog2 channel_av, int32_t i_severity_av, CLastLogStatus* p_site_av, const char* s_file_av,
                    int32_t i_line_av, const char* s_format_av, ...) {
  bool b_enabled_lv = LogChannelEnabled(channel_av) != 0;
  bool b_sites_lv = LogSitesActive();
  if (!b_enabled_lv && !b_sites_lv) return;
  TLogBinding* p_binding_lv = BindingOf(LogChannelIndex(channel_av));
  if (p_binding_lv == nullptr || s_format_av == nullptr) return;
  const TLogSeverity* p_write_lv = b_enabled_lv ? LogSeverityOf(i_severity_av) : nullptr;
  CLastLogStatus* p_site_lv = b_sites_lv ? p_site_av : nullptr;
  if (p_write_lv == nullptr && p_site_lv == nullptr) return;
  va_list args_lv;
  va_start(args_lv, s_format_av);
  TraceFinish(channel_av, p_binding_lv, p_write_lv, TRACE45_FUNCTION, p_site_lv, s_file_av, i_line_av, s_format_av,
              args_lv);
  va_end(args_lv);
}

// A line below the logger's threshold still reaches the library, with a
// null text in place of the line; the library drops it.
void LogWriteLevel(TLogBinding* p_binding_av, int64_t i64_level_av, int32_t i_zero_av, int64_t i64_random_av,
                   const char* s_file_av, const char* s_function_av, int32_t i_line_av, const char* s_text_av, ...) {
  if (p_binding_av == nullptr || p_binding_av->m_ui64_handle == 0) return;
  if (p_binding_av->m_p_level == nullptr || p_binding_av->m_p_write == nullptr) return;
  int64_t i64_threshold_lv = p_binding_av->m_p_level(p_binding_av->m_ui64_handle);
  const char* s_line_lv = i64_threshold_lv > i64_level_av ? nullptr : s_text_av;
  va_list args_lv;
  va_start(args_lv, s_text_av);
  p_binding_av->m_p_write(p_binding_av->m_ui64_handle, i64_level_av, i_zero_av, i64_random_av, s_file_av,
                          s_function_av, i_line_av, s_line_lv, args_lv);
  va_end(args_lv);
}

void LogSiteUpdate(TLog2, CLastLogStatus* p_site_av, const char* s_file_av, int32_t i_line_av,
                   const char* s_format_av, const char* s_text_av) {
  CLogStatusList* p_list_lv = g_p_log_status_list;
  int64_t* p_version_lv = __atomic_load_n(&g_p_log_site_version, __ATOMIC_ACQUIRE);
  if (p_site_av == nullptr || s_format_av == nullptr || s_text_av == nullptr) return;
  if (p_list_lv == nullptr || p_version_lv == nullptr) return;
  if (__atomic_load_n(&p_site_av->m_ui64_hash, __ATOMIC_RELAXED) == 0)
    __atomic_store_n(&p_site_av->m_ui64_hash, LogStatusHash(s_format_av), __ATOMIC_RELAXED);
  // Read before the search: a subscription added during it raises the
  // version again, and the site looks once more at its next line. Unequal
  // rather than below, since sites outlive a restart of the logger, which
  // begins the version at 1 again.
  int64_t i64_version_lv = __atomic_load_n(p_version_lv, __ATOMIC_RELAXED);
  if (__atomic_load_n(&p_site_av->m_i64_version, __ATOMIC_RELAXED) != i64_version_lv) {
    LogSiteFind(p_list_lv, p_site_av, s_file_av, i_line_av);
    __atomic_store_n(&p_site_av->m_i64_version, i64_version_lv, __ATOMIC_RELAXED);
  }
  if (__atomic_load_n(&p_site_av->m_i_on, __ATOMIC_RELAXED) == 0) return;
  LogSiteKeepText(p_list_lv, p_site_av, s_text_av);
}

// One join for every query answer made of lines, so that they all sort and
// frame their lines alike.
void LinesJoin(std::vector<std::string>* p_items_av, int64_t i64_total_av, const char* s_head_av, const char* s_tail_av,
               SafeString* p_out_av) {
  if (i64_total_av <= 0 || i64_total_av > 0x7FFFFFFF) return;
  std::sort(p_items_av->begin(), p_items_av->end());
  char* pb_lv = nullptr;
  SAFE_MEM_ALLOCB5(pb_lv, static_cast<int32_t>(i64_total_av), SIGN_REPORT);
  if (pb_lv == nullptr) return;
  std::string s_lv = s_head_av;
  for (size_t i_lv = 0; i_lv < p_items_av->size(); i_lv++) {
    if (i_lv > 0) s_lv += ",\n";
    s_lv += (*p_items_av)[i_lv];
  }
  s_lv += s_tail_av;
  size_t ui_len_lv = std::min(s_lv.size(), static_cast<size_t>(i64_total_av - 1));
  memcpy(pb_lv, s_lv.data(), ui_len_lv);
  pb_lv[ui_len_lv] = 0;
  if (p_out_av->m_p_text != nullptr) SAFE_MEM_FREE(p_out_av->m_p_text);
  p_out_av->m_p_text = pb_lv;
  p_out_av->m_i_size = static_cast<int32_t>(i64_total_av);
}

void LogStatusReport(SafeString* p_out_av, int32_t i_slot_av) {
  CLogStatusList* p_list_lv = g_p_log_status_list;
  if (p_out_av == nullptr || p_list_lv == nullptr) return;
  std::vector<std::string> items_lv;
  int64_t i64_total_lv = 0;
  {
    PlCritLock lock_lv(&p_list_lv->m_list.m_crit_sect);
    StableMark(i_slot_av, POINT_REPORT_START);
    for (int32_t i_lv = 0; i_lv < p_list_lv->m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = static_cast<TLogStatusElem*>(CListOurGet(&p_list_lv->m_list, i_lv));
      if (p_elem_lv == nullptr || p_elem_lv->is_on == 0 || p_elem_lv->site == nullptr) continue;
      StableMark(i_slot_av, POINT_ITEM_START);
      items_lv.push_back(LogStatusItem(p_elem_lv));
      i64_total_lv += static_cast<int64_t>(items_lv.back().size()) + 100;
      StableMark(i_slot_av, POINT_ITEM_END);
    }
    StableMark(i_slot_av, POINT_REPORT_END);
  }
  LinesJoin(&items_lv, i64_total_lv, S_JOIN_HEAD, S_JOIN_TAIL, p_out_av);
}
