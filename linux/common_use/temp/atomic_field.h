// Plain fields that one thread writes and another reads without a lock
// (flags, times, ids, the write handle). A stale value is accepted there;
// these accessors only make each read and write whole.
#pragma once

template <typename T>
inline T AtomicGet(const T* p_av) {
  return __atomic_load_n(p_av, __ATOMIC_RELAXED);
}
template <typename T>
inline void AtomicPut(T* p_av, T value_av) {
  __atomic_store_n(p_av, value_av, __ATOMIC_RELAXED);
}

// A stop flag: whatever the stopping thread wrote before raising it is seen
// by the thread that sees it raised.
template <typename T>
inline T AtomicGetAcquire(const T* p_av) {
  return __atomic_load_n(p_av, __ATOMIC_ACQUIRE);
}
template <typename T>
inline void AtomicPutRelease(T* p_av, T value_av) {
  __atomic_store_n(p_av, value_av, __ATOMIC_RELEASE);
}
