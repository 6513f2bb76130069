// Fenced buffers of the compatibility layer: allocation, release, growth,
// the counters and the leak report at exit. Called by the rest of compat/.
#include "compat/compat_memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/pl_os.h"

namespace {

const size_t UI_COMPAT_ALIGN = 32;
const size_t UI_REPORT_SIZE = 1024;

TCompatCounters g_counters = {0, 0, 0, 0, 0, 0, 0, 0, 0};

void CounterAdd(int32_t* p_counter_av, int32_t i_delta_av) {
  __atomic_add_fetch(p_counter_av, i_delta_av, __ATOMIC_SEQ_CST);
}

int32_t CounterGet(int32_t* p_counter_av) { return __atomic_load_n(p_counter_av, __ATOMIC_SEQ_CST); }

TCompatBlockHead* HeadOf(const void* p_data_av) {
  return reinterpret_cast<TCompatBlockHead*>(const_cast<char*>(static_cast<const char*>(p_data_av)) -
                                             sizeof(TCompatBlockHead));
}

// A damaged block is not reported at release: it shows in the error count of
// the exit report. The tail is only trusted when the head is intact, since its
// place comes from the size field.
void CheckFences(const TCompatBlockHead* p_head_av) {
  int32_t i_bad_lv = 0;
  if (p_head_av->ui64_fence_head != UI64_COMPAT_FENCE_HEAD) i_bad_lv++;
  if (p_head_av->ui64_fence_info != UI64_COMPAT_FENCE_INFO) i_bad_lv++;
  if (i_bad_lv == 0) {
    uint64_t ui64_tail_lv = 0;
    memcpy(&ui64_tail_lv, reinterpret_cast<const char*>(p_head_av + 1) + p_head_av->i_bytes, sizeof(ui64_tail_lv));
    if (ui64_tail_lv != UI64_COMPAT_FENCE_TAIL) i_bad_lv++;
  }
  if (i_bad_lv > 0) CounterAdd(&g_counters.i_errors, i_bad_lv);
}

void LeakReportAtExit() {
  TCompatCounters counters_lv;
  CompatCountersGet(&counters_lv);
  char s_text_lv[UI_REPORT_SIZE];
  size_t ui_len_lv = CompatLeakReportFormat(&counters_lv, s_text_lv, sizeof(s_text_lv));
  if (ui_len_lv > 0) PlStdoutWrite(s_text_lv, ui_len_lv);
}

// Runs once when the library is unloaded or the process ends, whichever
// comes first. A library finaliser rather than an exit handler: a handler
// registered from the library would be called after an unload, into code
// that is gone.
__attribute__((destructor)) void LeakReportAtUnload() { LeakReportAtExit(); }

size_t AppendLine(char* s_out_av, size_t ui_size_av, size_t ui_len_av, const char* s_format_av, int32_t i_value_av) {
  if (ui_len_av + 1 >= ui_size_av) return ui_len_av;
  int i_rc_lv = snprintf(s_out_av + ui_len_av, ui_size_av - ui_len_av, s_format_av, i_value_av);
  if (i_rc_lv < 0) return ui_len_av;
  size_t ui_new_lv = ui_len_av + static_cast<size_t>(i_rc_lv);
  return ui_new_lv < ui_size_av ? ui_new_lv : ui_size_av - 1;
}

}  // namespace

void* CompatAlloc(int32_t i_elements_av, int32_t i_element_size_av) {
  int64_t i64_bytes_lv = static_cast<int64_t>(i_elements_av) * i_element_size_av;
  if (i_elements_av < 1 || i64_bytes_lv < 1) return nullptr;
  // The size lives in a 32-bit field and counter: a wider request is refused.
  if (i64_bytes_lv > INT32_MAX - I_COMPAT_OVERHEAD) return nullptr;
  int32_t i_block_lv = static_cast<int32_t>(i64_bytes_lv) + I_COMPAT_OVERHEAD;
  char* p_block_lv = static_cast<char*>(PlAlignedAlloc(static_cast<size_t>(i_block_lv), UI_COMPAT_ALIGN));
  if (p_block_lv == nullptr) {
    CounterAdd(&g_counters.i_errors, 1);
    return nullptr;
  }
  memset(p_block_lv, 0, static_cast<size_t>(i_block_lv));
  TCompatBlockHead* p_head_lv = reinterpret_cast<TCompatBlockHead*>(p_block_lv);
  p_head_lv->ui64_fence_head = UI64_COMPAT_FENCE_HEAD;
  p_head_lv->i_bytes = static_cast<int32_t>(i64_bytes_lv);
  p_head_lv->i_elements = i_elements_av;
  p_head_lv->i_element_size = i_element_size_av;
  p_head_lv->ui64_fence_info = UI64_COMPAT_FENCE_INFO;
  memcpy(p_block_lv + sizeof(TCompatBlockHead) + i64_bytes_lv, &UI64_COMPAT_FENCE_TAIL, sizeof(uint64_t));
  CounterAdd(&g_counters.i_bytes, i_block_lv);
  CounterAdd(&g_counters.i_blocks, 1);
  return p_block_lv + sizeof(TCompatBlockHead);
}

void* CompatFree(void* p_data_av) {
  if (p_data_av == nullptr) return nullptr;
  TCompatBlockHead* p_head_lv = HeadOf(p_data_av);
  if (p_head_lv->i_exempt == 0) CheckFences(p_head_lv);
  CounterAdd(&g_counters.i_bytes, -(p_head_lv->i_bytes + I_COMPAT_OVERHEAD));
  CounterAdd(&g_counters.i_blocks, -1);
  PlAlignedFree(p_head_lv);
  return nullptr;
}

int32_t CompatSize(const void* p_data_av) { return p_data_av == nullptr ? 0 : HeadOf(p_data_av)->i_bytes; }

void* CompatResize(void** pp_data_av, int32_t i_elements_av, int32_t i_element_size_av) {
  if (pp_data_av == nullptr) return nullptr;
  if (i_elements_av < 1) {
    *pp_data_av = CompatFree(*pp_data_av);
    return nullptr;
  }
  if (*pp_data_av == nullptr) {
    *pp_data_av = CompatAlloc(i_elements_av, i_element_size_av);
    return *pp_data_av;
  }
  // Compared in bytes, so a narrow buffer asked to hold wide text grows too.
  int64_t i64_want_lv = static_cast<int64_t>(i_elements_av) * i_element_size_av;
  int32_t i_have_lv = CompatSize(*pp_data_av);
  if (i_have_lv >= i64_want_lv) return *pp_data_av;
  void* p_new_lv = CompatAlloc(i_elements_av, i_element_size_av);
  if (p_new_lv == nullptr) return nullptr;
  memcpy(p_new_lv, *pp_data_av, static_cast<size_t>(i_have_lv));
  CompatFree(*pp_data_av);
  *pp_data_av = p_new_lv;
  return p_new_lv;
}

void CompatCountersGet(TCompatCounters* p_out_av) {
  if (p_out_av == nullptr) return;
  p_out_av->i_errors = CounterGet(&g_counters.i_errors);
  p_out_av->i_bytes = CounterGet(&g_counters.i_bytes);
  p_out_av->i_blocks = CounterGet(&g_counters.i_blocks);
  p_out_av->i_handles_total = CounterGet(&g_counters.i_handles_total);
  p_out_av->i_handles_event = CounterGet(&g_counters.i_handles_event);
  p_out_av->i_handles_file = CounterGet(&g_counters.i_handles_file);
  p_out_av->i_handles_thread = CounterGet(&g_counters.i_handles_thread);
  p_out_av->i_handles_library = CounterGet(&g_counters.i_handles_library);
  p_out_av->i_handles_crit_sect = CounterGet(&g_counters.i_handles_crit_sect);
}

size_t CompatLeakReportFormat(const TCompatCounters* p_counters_av, char* s_out_av, size_t ui_size_av) {
  if (s_out_av == nullptr || ui_size_av == 0) return 0;
  s_out_av[0] = 0;
  if (p_counters_av == nullptr) return 0;
  const TCompatCounters& c_lv = *p_counters_av;
  size_t ui_len_lv = 0;
  if (c_lv.i_errors != 0 || c_lv.i_bytes != 0 || c_lv.i_blocks != 0) {
    int i_rc_lv = snprintf(s_out_av, ui_size_av, "Tessaline::Detect Memory Leak !!! (size=%u, count=%u, err=%u)\r\n",
                           static_cast<unsigned>(c_lv.i_bytes), static_cast<unsigned>(c_lv.i_blocks),
                           static_cast<unsigned>(c_lv.i_errors));
    ui_len_lv = i_rc_lv < 0 ? 0 : (static_cast<size_t>(i_rc_lv) < ui_size_av ? i_rc_lv : ui_size_av - 1);
  }
  if (c_lv.i_handles_total == 0) return ui_len_lv;
  ui_len_lv = AppendLine(s_out_av, ui_size_av, ui_len_lv, "Tessaline::Detect Handle Leak !!! (count=%d)\r\n",
                         c_lv.i_handles_total);
  const struct {
    int32_t i_count;
    const char* s_format;
  } lines_lv[] = {
      {c_lv.i_handles_event, "Tessaline::Event Handle Leak !!! (count=%d)\r\n"},
      {c_lv.i_handles_file, "Tessaline::File Handle Leak !!! (count=%d)\r\n"},
      {c_lv.i_handles_thread, "Tessaline::Thread Handle Leak !!! (count=%d)\r\n"},
      {c_lv.i_handles_library, "Tessaline::Library HandleLeak !!! (count=%d)\r\n"},
      {c_lv.i_handles_crit_sect, "Tessaline::CriticalSection Handle Leak !!! (count=%d)\r\n"},
  };
  for (const auto& line_lv : lines_lv) {
    if (line_lv.i_count != 0)
      ui_len_lv = AppendLine(s_out_av, ui_size_av, ui_len_lv, line_lv.s_format, line_lv.i_count);
  }
  return ui_len_lv;
}
