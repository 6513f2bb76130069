// Fenced buffers of the compatibility layer and its process-wide counters.
// Every allocation of the layer (texts handed out, file images) comes from
// here, so that damage to a fence word or a buffer never given back shows in
// the leak report printed at process exit.
#pragma once

#include <cstddef>
#include <cstdint>

// Bytes a block carries besides its data: the 32-byte head and the tail fence.
const int32_t I_COMPAT_OVERHEAD = 40;
const uint64_t UI64_COMPAT_FENCE_HEAD = 0x1DABDABDABDAB00ULL;
const uint64_t UI64_COMPAT_FENCE_INFO = 0x2DABDABDABDAB00ULL;
const uint64_t UI64_COMPAT_FENCE_TAIL = 0x3DABDABDABDAB00ULL;

// The head in front of the caller's data.
struct TCompatBlockHead {
  uint64_t ui64_fence_head;
  int32_t i_bytes;
  int32_t i_exempt;  // non-zero: no fence check at release
  int32_t i_elements;
  int32_t i_element_size;
  uint64_t ui64_fence_info;
};
static_assert(sizeof(TCompatBlockHead) == 32, "the data starts 32 bytes into the block");

// A snapshot of the counters. The handle counters exist for the report; no
// part of this program raises them.
struct TCompatCounters {
  int32_t i_errors;
  int32_t i_bytes;
  int32_t i_blocks;
  int32_t i_handles_total;
  int32_t i_handles_event;
  int32_t i_handles_file;
  int32_t i_handles_thread;
  int32_t i_handles_library;
  int32_t i_handles_crit_sect;
};

// Zeroed data of i_elements_av × i_element_size_av bytes, or null for a size
// below 1, beyond 32 bits, or when memory is short (counted as an error).
void* CompatAlloc(int32_t i_elements_av, int32_t i_element_size_av);
// Checks the fences (unless exempt), gives the block back. Returns null.
void* CompatFree(void* p_data_av);
// Makes *pp_data_av hold at least i_elements_av elements of the size given,
// keeping its bytes; never shrinks. Below 1 element it releases. The buffer
// or null.
void* CompatResize(void** pp_data_av, int32_t i_elements_av, int32_t i_element_size_av);
// Data bytes of a block of this layer, 0 for null.
int32_t CompatSize(const void* p_data_av);

void CompatCountersGet(TCompatCounters* p_out_av);
// The exit report for the counters given, into out (always terminated).
// Returns the length; empty when nothing leaked.
size_t CompatLeakReportFormat(const TCompatCounters* p_counters_av, char* s_out_av, size_t ui_size_av);
