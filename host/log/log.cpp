// The reference logging library `log` (liblog.so): named loggers, each
// writing whole lines to its own file in the folder the host program gives,
// with thresholds from defaults, a configuration file and run-time changes.
// Plug-ins call it through the ABI of include/host/log_api.h.
#include "include/host/log_api.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/log/log_config.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"

#define LOG_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

const uint32_t LOGGER_MAGIC = 0x4C4F4721u;
// Room for the time and level in front of the text.
const size_t LINE_HEAD_SIZE = 64;
const size_t LINE_STACK_SIZE = 4096;

struct TLogger {
  uint32_t m_ui_magic;
  std::string m_s_name;
  std::atomic<int64_t> m_i64_threshold;
  std::mutex m_lock;    // guards the two below and orders the writes
  std::string m_s_path;  // empty: no folder configured
  int m_fd;              // -1 until the first line
};

// Registry and configuration; taken before any logger's own lock.
std::mutex g_lock;
std::vector<TLogger*> g_loggers;
LogThresholds g_thresholds;
bool g_b_thresholds_ready = false;
std::string g_s_folder;
std::atomic<bool> g_b_told_no_folder{false};
// The highest threshold each logger name has had since the last
// log_configure, beside the one in force; taken with g_lock.
std::map<std::string, int64_t> g_peaks;

// Leading texts whose lines are counted per thread (log_count_texts). A
// table is never changed once published, so writers read it without a lock.
struct CountTable {
  int32_t m_i_count;
  std::string m_texts[LOG_COUNT_TEXTS_MAX];
};
std::atomic<const CountTable*> g_p_count_table{nullptr};
// Every table made, kept until the library goes: a writer may still read an
// earlier one. Taken with g_lock.
std::vector<std::unique_ptr<CountTable>> g_count_tables;
// In the static TLS block (64 bytes of the reserve glibc keeps for loaded
// libraries): a loaded library's lazily made TLS is what the leak checker's
// thread scan trips over, and a count read on every frame needs no lazy
// set-up either.
__attribute__((tls_model("initial-exec"))) thread_local int64_t t_counts[LOG_COUNT_TEXTS_MAX] = {};

// Counts a line handed over with its text, written or not: the counts tell
// what the caller reported, whatever the thresholds keep.
void CountLine(const char* s_text_av) {
  const CountTable* p_table_lv = g_p_count_table.load(std::memory_order_acquire);
  if (p_table_lv == nullptr) return;
  for (int32_t i_lv = 0; i_lv < p_table_lv->m_i_count; i_lv++) {
    const std::string& s_lead_lv = p_table_lv->m_texts[i_lv];
    if (strncmp(s_text_av, s_lead_lv.c_str(), s_lead_lv.size()) == 0) t_counts[i_lv]++;
  }
}

void EnsureThresholdsLocked() {
  if (g_b_thresholds_ready) return;
  LogThresholdsDefaults(&g_thresholds);
  g_b_thresholds_ready = true;
}

std::string FileNameOf(const std::string& s_name_av) {
  std::string s_lv = s_name_av;
  for (char& c_lv : s_lv) {
    bool b_plain_lv = (c_lv >= 'a' && c_lv <= 'z') || (c_lv >= 'A' && c_lv <= 'Z') || (c_lv >= '0' && c_lv <= '9') ||
                      c_lv == '.' || c_lv == '-' || c_lv == '_';
    if (!b_plain_lv) c_lv = '_';
  }
  return s_lv + ".log";
}

std::string PathOfLocked(const std::string& s_name_av) {
  if (g_s_folder.empty()) return std::string();
  return g_s_folder + "/" + FileNameOf(s_name_av);
}

// A handle is the logger's address; the magic word rejects stray values.
TLogger* LoggerOf(uint64_t ui64_handle_av) {
  TLogger* p_lv = reinterpret_cast<TLogger*>(static_cast<uintptr_t>(ui64_handle_av));
  if (p_lv == nullptr || p_lv->m_ui_magic != LOGGER_MAGIC) return nullptr;
  return p_lv;
}

// Points a logger at a new file; the old one is closed.
void RetargetLocked(TLogger* p_logger_av, const std::string& s_path_av) {
  std::lock_guard<std::mutex> guard_lv(p_logger_av->m_lock);
  if (p_logger_av->m_fd >= 0) PlFileClose(p_logger_av->m_fd);
  p_logger_av->m_fd = -1;
  p_logger_av->m_s_path = s_path_av;
}

// "YYYY.MM.DD hh:mm:ss:mmm <level> " in local time.
int FormatHead(char* s_out_av, size_t ui_size_av, int64_t i64_level_av) {
  PlCalendar cal_lv;
  memset(&cal_lv, 0, sizeof(cal_lv));
  PlFileTimeToCalendar(PlFileTimeToLocal(PlFileTimeUtc()), &cal_lv);
  return snprintf(s_out_av, ui_size_av, "%04d.%02d.%02d %02d:%02d:%02d:%03d %lld ", cal_lv.i_year, cal_lv.i_month,
                  cal_lv.i_day, cal_lv.i_hour, cal_lv.i_minute, cal_lv.i_second, cal_lv.i_millisecond,
                  static_cast<long long>(i64_level_av));
}

// Forms the whole line, on the stack when it fits, else on the heap.
void FormatLine(std::vector<char>* p_heap_av, char* s_stack_av, const char** pp_line_av, size_t* p_len_av,
                int64_t i64_level_av, const char* s_format_av, va_list args_av) {
  int i_head_lv = FormatHead(s_stack_av, LINE_HEAD_SIZE, i64_level_av);
  if (i_head_lv < 0 || static_cast<size_t>(i_head_lv) >= LINE_HEAD_SIZE) i_head_lv = 0;
  va_list copy_lv;
  va_copy(copy_lv, args_av);
  int i_text_lv = vsnprintf(s_stack_av + i_head_lv, LINE_STACK_SIZE - i_head_lv - 1, s_format_av, copy_lv);
  va_end(copy_lv);
  if (i_text_lv < 0) i_text_lv = 0;
  char* s_line_lv = s_stack_av;
  if (static_cast<size_t>(i_head_lv + i_text_lv) >= LINE_STACK_SIZE - 1) {
    p_heap_av->resize(i_head_lv + i_text_lv + 2);
    memcpy(p_heap_av->data(), s_stack_av, i_head_lv);
    vsnprintf(p_heap_av->data() + i_head_lv, i_text_lv + 1, s_format_av, args_av);
    s_line_lv = p_heap_av->data();
  }
  size_t ui_len_lv = i_head_lv + i_text_lv;
  if (ui_len_lv == 0 || s_line_lv[ui_len_lv - 1] != '\n') s_line_lv[ui_len_lv++] = '\n';
  *pp_line_av = s_line_lv;
  *p_len_av = ui_len_lv;
}

void WriteLine(TLogger* p_logger_av, const char* s_line_av, size_t ui_len_av) {
  std::lock_guard<std::mutex> guard_lv(p_logger_av->m_lock);
  if (p_logger_av->m_s_path.empty()) {
    if (!g_b_told_no_folder.exchange(true))
      fprintf(stderr, "log: no folder configured, lines are not written\n");
    return;
  }
  if (p_logger_av->m_fd < 0) p_logger_av->m_fd = PlFileOpen(p_logger_av->m_s_path.c_str(), PL_FILE_APPEND);
  if (p_logger_av->m_fd < 0) return;
  PlFileWrite(p_logger_av->m_fd, s_line_av, ui_len_av);
}

}  // namespace

LOG_EXPORT int32_t dll_init(int32_t) {
  std::lock_guard<std::mutex> guard_lv(g_lock);
  EnsureThresholdsLocked();
  return 0;
}

LOG_EXPORT int32_t dll_free() { return 0; }

LOG_EXPORT int32_t log_init(void* p_binding_av, const char* s_name_av, int32_t) {
  if (p_binding_av == nullptr) return -1;
  uint64_t ui64_handle_lv = 0;
  memcpy(p_binding_av, &ui64_handle_lv, sizeof(ui64_handle_lv));
  if (s_name_av == nullptr || s_name_av[0] == 0) return -1;
  TLogger* p_logger_lv = new TLogger();
  p_logger_lv->m_ui_magic = LOGGER_MAGIC;
  p_logger_lv->m_s_name = s_name_av;
  p_logger_lv->m_fd = -1;
  {
    std::lock_guard<std::mutex> guard_lv(g_lock);
    EnsureThresholdsLocked();
    p_logger_lv->m_i64_threshold = LogThresholdOf(&g_thresholds, p_logger_lv->m_s_name);
    p_logger_lv->m_s_path = PathOfLocked(p_logger_lv->m_s_name);
    g_loggers.push_back(p_logger_lv);
  }
  ui64_handle_lv = reinterpret_cast<uintptr_t>(p_logger_lv);
  memcpy(p_binding_av, &ui64_handle_lv, sizeof(ui64_handle_lv));
  return 0;
}

LOG_EXPORT void log_vwrite(uint64_t ui64_handle_av, int64_t i64_level_av, int32_t, int64_t, const char*, const char*,
                           int32_t, const char* s_format_av, va_list args_av) {
  TLogger* p_logger_lv = LoggerOf(ui64_handle_av);
  if (p_logger_lv == nullptr || s_format_av == nullptr) return;
  CountLine(s_format_av);
  if (i64_level_av < p_logger_lv->m_i64_threshold.load(std::memory_order_relaxed)) return;
  std::vector<char> heap_lv;
  char s_stack_lv[LINE_STACK_SIZE];
  const char* s_line_lv = nullptr;
  size_t ui_len_lv = 0;
  FormatLine(&heap_lv, s_stack_lv, &s_line_lv, &ui_len_lv, i64_level_av, s_format_av, args_av);
  WriteLine(p_logger_lv, s_line_lv, ui_len_lv);
}

LOG_EXPORT int64_t log_get_level(uint64_t ui64_handle_av) {
  TLogger* p_logger_lv = LoggerOf(ui64_handle_av);
  if (p_logger_lv == nullptr) return INT64_MAX;
  return p_logger_lv->m_i64_threshold.load(std::memory_order_relaxed);
}

LOG_EXPORT int32_t log_free(uint64_t ui64_handle_av) {
  TLogger* p_logger_lv = reinterpret_cast<TLogger*>(static_cast<uintptr_t>(ui64_handle_av));
  {
    std::lock_guard<std::mutex> guard_lv(g_lock);
    auto it_lv = std::find(g_loggers.begin(), g_loggers.end(), p_logger_lv);
    if (p_logger_lv == nullptr || it_lv == g_loggers.end()) return -1;
    g_loggers.erase(it_lv);
  }
  RetargetLocked(p_logger_lv, std::string());
  p_logger_lv->m_ui_magic = 0;
  delete p_logger_lv;
  return 0;
}

LOG_EXPORT int32_t log_configure(const char* s_folder_av, const char* s_config_path_av) {
  int32_t i_result_lv = 0;
  std::lock_guard<std::mutex> guard_lv(g_lock);
  g_s_folder = s_folder_av != nullptr ? s_folder_av : "";
  if (!g_s_folder.empty() && PlMkdir(g_s_folder.c_str()) != 0) {
    fprintf(stderr, "log: cannot make folder %s\n", g_s_folder.c_str());
    i_result_lv = -1;
  }
  if (g_s_folder.empty()) g_b_told_no_folder = false;
  LogThresholdsDefaults(&g_thresholds);
  g_b_thresholds_ready = true;
  g_peaks.clear();
  if (s_config_path_av != nullptr && !LogThresholdsReadFile(&g_thresholds, s_config_path_av)) i_result_lv = -1;
  for (TLogger* p_logger_lv : g_loggers) {
    p_logger_lv->m_i64_threshold = LogThresholdOf(&g_thresholds, p_logger_lv->m_s_name);
    RetargetLocked(p_logger_lv, PathOfLocked(p_logger_lv->m_s_name));
  }
  return i_result_lv;
}

LOG_EXPORT int32_t log_set_level(const char* s_name_av, int64_t i64_threshold_av) {
  if (s_name_av == nullptr) return 0;
  std::lock_guard<std::mutex> guard_lv(g_lock);
  EnsureThresholdsLocked();
  int64_t i64_before_lv = LogThresholdOf(&g_thresholds, s_name_av);
  auto it_peak_lv = g_peaks.find(s_name_av);
  if (it_peak_lv == g_peaks.end() || it_peak_lv->second < i64_before_lv) g_peaks[s_name_av] = i64_before_lv;
  g_thresholds.m_named[s_name_av] = i64_threshold_av;
  int32_t i_changed_lv = 0;
  for (TLogger* p_logger_lv : g_loggers) {
    if (p_logger_lv->m_s_name != s_name_av) continue;
    p_logger_lv->m_i64_threshold = i64_threshold_av;
    i_changed_lv++;
  }
  return i_changed_lv;
}

LOG_EXPORT int64_t log_level_peak(const char* s_name_av) {
  if (s_name_av == nullptr) return INT64_MAX;
  std::lock_guard<std::mutex> guard_lv(g_lock);
  EnsureThresholdsLocked();
  int64_t i64_peak_lv = LogThresholdOf(&g_thresholds, s_name_av);
  auto it_lv = g_peaks.find(s_name_av);
  return it_lv != g_peaks.end() && it_lv->second > i64_peak_lv ? it_lv->second : i64_peak_lv;
}

LOG_EXPORT int32_t log_count_texts(const char* const* texts_av, int32_t i_count_av) {
  if (i_count_av < 0 || i_count_av > LOG_COUNT_TEXTS_MAX || (i_count_av > 0 && texts_av == nullptr)) return -1;
  CountTable* p_table_lv = new CountTable();
  p_table_lv->m_i_count = 0;
  for (int32_t i_lv = 0; i_lv < i_count_av; i_lv++)
    if (texts_av[i_lv] != nullptr && texts_av[i_lv][0] != 0) p_table_lv->m_texts[p_table_lv->m_i_count++] = texts_av[i_lv];
  std::lock_guard<std::mutex> guard_lv(g_lock);
  g_count_tables.emplace_back(p_table_lv);
  g_p_count_table.store(p_table_lv, std::memory_order_release);
  return p_table_lv->m_i_count;
}

LOG_EXPORT int32_t log_thread_counts(int64_t* out_av, int32_t i_count_av) {
  if (out_av == nullptr || i_count_av < 0) return 0;
  int32_t i_n_lv = i_count_av < LOG_COUNT_TEXTS_MAX ? i_count_av : LOG_COUNT_TEXTS_MAX;
  for (int32_t i_lv = 0; i_lv < i_n_lv; i_lv++) out_av[i_lv] = t_counts[i_lv];
  return i_n_lv;
}
