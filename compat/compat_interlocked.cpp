// The exported 64-bit interlocked operations, for modules that share
// counters with the plug-in's process. Every one is a full barrier.
#include "compat/compat.h"

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#endif

int32_t IsCMPXCHG8BSupport = -1;

namespace {

// The processor's word on a 64-bit compare-and-exchange (feature bit 8 of
// identification function 1). It changes nothing in the operations below; two
// threads probing at once store the same value.
void ProbeCompareExchange() {
  if (__atomic_load_n(&IsCMPXCHG8BSupport, __ATOMIC_SEQ_CST) >= 0) return;
  int32_t i_bit_lv = 1;
#if defined(__i386__) || defined(__x86_64__)
  unsigned int ui_a_lv = 0, ui_b_lv = 0, ui_c_lv = 0, ui_d_lv = 0;
  if (__get_cpuid(1, &ui_a_lv, &ui_b_lv, &ui_c_lv, &ui_d_lv) != 0) i_bit_lv = static_cast<int32_t>((ui_d_lv >> 8) & 1);
#endif
  __atomic_store_n(&IsCMPXCHG8BSupport, i_bit_lv, __ATOMIC_SEQ_CST);
}

int64_t CompareExchange(int64_t* p_addr_av, int64_t i64_new_av, int64_t i64_comparand_av) {
  ProbeCompareExchange();
  __atomic_compare_exchange_n(p_addr_av, &i64_comparand_av, i64_new_av, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return i64_comparand_av;  // the value found in memory
}

int64_t OpAnd(int64_t* p_value_av, int64_t* p_arg_av) { return *p_value_av & *p_arg_av; }
int64_t OpOr(int64_t* p_value_av, int64_t* p_arg_av) { return *p_value_av | *p_arg_av; }
int64_t OpXor(int64_t* p_value_av, int64_t* p_arg_av) { return *p_value_av ^ *p_arg_av; }

}  // namespace

// The function gets copies, and the loop ends only when memory held what the
// function's copy holds after the call: a function that changes its copy of
// the value makes the operation repeat.
COMPAT_EXPORT int64_t mInterlockedUniv64(int64_t* p_addr_av, int64_t i64_arg_av, TInterlockedFunc p_func_av) {
  if (p_addr_av == nullptr) return 0;
  if (p_func_av == nullptr) return mInterlockedGet64(p_addr_av);
  for (;;) {
    int64_t i64_read_lv = __atomic_load_n(p_addr_av, __ATOMIC_SEQ_CST);
    int64_t i64_copy_lv = i64_read_lv;
    int64_t i64_arg_copy_lv = i64_arg_av;
    int64_t i64_new_lv = p_func_av(&i64_copy_lv, &i64_arg_copy_lv);
    int64_t i64_found_lv = CompareExchange(p_addr_av, i64_new_lv, i64_read_lv);
    if (i64_found_lv == i64_copy_lv) return i64_found_lv;
  }
}

COMPAT_EXPORT int64_t mInterlockedGet64(int64_t* p_addr_av) {
  if (p_addr_av == nullptr) return 0;
  for (;;) {
    int64_t i64_first_lv = __atomic_load_n(p_addr_av, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(p_addr_av, __ATOMIC_SEQ_CST) == i64_first_lv) return i64_first_lv;
  }
}

COMPAT_EXPORT int64_t mInterlockedExchange64(int64_t* p_addr_av, int64_t i64_value_av) {
  if (p_addr_av == nullptr) return 0;
  return __atomic_exchange_n(p_addr_av, i64_value_av, __ATOMIC_SEQ_CST);
}

COMPAT_EXPORT int64_t mInterlockedCompareExchange64(int64_t* p_addr_av, int64_t i64_new_av, int64_t i64_comparand_av) {
  if (p_addr_av == nullptr) return 0;
  return CompareExchange(p_addr_av, i64_new_av, i64_comparand_av);
}

COMPAT_EXPORT int64_t mInterlockedIncrement64(int64_t* p_addr_av) {
  if (p_addr_av == nullptr) return 0;
  return __atomic_add_fetch(p_addr_av, 1, __ATOMIC_SEQ_CST);
}

COMPAT_EXPORT int64_t mInterlockedDecrement64(int64_t* p_addr_av) {
  if (p_addr_av == nullptr) return 0;
  return __atomic_sub_fetch(p_addr_av, 1, __ATOMIC_SEQ_CST);
}

COMPAT_EXPORT int64_t mInterlockedExchangeAdd64(int64_t* p_addr_av, int64_t i64_value_av) {
  if (p_addr_av == nullptr) return 0;
  return __atomic_fetch_add(p_addr_av, i64_value_av, __ATOMIC_SEQ_CST);
}

COMPAT_EXPORT int64_t mInterlockedAnd64(int64_t* p_addr_av, int64_t i64_value_av) {
  return mInterlockedUniv64(p_addr_av, i64_value_av, OpAnd);
}

COMPAT_EXPORT int64_t mInterlockedOr64(int64_t* p_addr_av, int64_t i64_value_av) {
  return mInterlockedUniv64(p_addr_av, i64_value_av, OpOr);
}

COMPAT_EXPORT int64_t mInterlockedXor64(int64_t* p_addr_av, int64_t i64_value_av) {
  return mInterlockedUniv64(p_addr_av, i64_value_av, OpXor);
}
