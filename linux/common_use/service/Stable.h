// The stability monitor: which activity stands at which numbered point, and
// where the time of the last minute went. Entry points and threads claim a
// slot with StableEnter, pass points with StableMark and give the slot back
// with StableLeave; a print thread writes the slots, the time per point and
// the checked memory once a minute, and exception_filter writes the live
// slots at a crash with plain descriptor writes.
#pragma once

#include <cstdint>

#include "platform/pl_clock.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

const int32_t STABLE_SLOT_NUM = 1200;
const int32_t STABLE_POINT_NUM = 100000;
const int32_t STABLE_NAME_SIZE = 24;
const int32_t STABLE_NAME_MAX = 20;
const int32_t STABLE_PATH_SIZE = 300;

struct StableSlot {
  uint32_t m_ui_thread_id;
  int32_t m_i_point;
  int32_t m_i_index;
  int32_t m_i_timing_point;
  int64_t m_i64_start_ticks;
  StableSlot* m_p_next;
  uint32_t m_ui_counter;
  uint32_t m_ui_prev_counter;
  char m_s_name[STABLE_NAME_SIZE];
};

struct StableObject {
  PlCritSect* m_p_lock;
  PlEvent* m_h_stop;
  PlEvent* m_h_done;
  int32_t m_i_day;
  int32_t m_i_hour;
  int32_t m_i_minute;
  StableSlot m_slots[STABLE_SLOT_NUM];
  int64_t m_i64_time[STABLE_POINT_NUM];
  int32_t m_i_count[STABLE_POINT_NUM];
  int64_t m_i64_total_count[STABLE_POINT_NUM];
  StableSlot* m_p_head;
  StableSlot* m_p_tail;
  StableSlot* m_p_end;
  PlThread* m_h_thread;
  char m_s_stable_path[STABLE_PATH_SIZE];
  char m_s_cpu_path[STABLE_PATH_SIZE];
  char m_s_memory_path[STABLE_PATH_SIZE];
  int32_t m_b_echo;
  int64_t m_i64_memcounter;
};

// The monitor, allocated and zeroed by dll_init.
extern StableObject* g_p_stable;
// "/" and the plug-in's name, stored by dll_init; names the three files.
extern char g_s_plugin_path[64];

// Saved hook value and slot of an entry, undone by StableScopeEnd.
struct TStableScope {
  uint8_t m_ui_saved_hook;
  int32_t m_i_slot;
};

// Builds the free list, events, files and the print thread of g_p_stable.
// dll_init calls it once, after allocating the object zeroed.
void StableStart();
// Ends the print thread and frees what StableStart made; the caller frees
// the object.
void StableStop();
// Claims a slot for the calling thread's activity and sets the hook to 40.
// Returns the slot; 0 when the table is full (the activity goes unshown), -1
// when there is no monitor.
int32_t StableEnter(const char* s_name_av);
// Gives the slot back, books its last point's time and sets the hook to 49.
void StableLeave(int32_t i_slot_av);
// The way out of an entry: StableLeave, then the saved hook value back.
void StableScopeEnd(const TStableScope* p_scope_av);

// True for an index inside the slot table. The free value -1 and anything a
// caller got wrong fall outside, so one unsigned compare covers both.
inline bool StableSlotValid(int32_t i_slot_av) {
  return static_cast<uint32_t>(i_slot_av) < static_cast<uint32_t>(STABLE_SLOT_NUM);
}

// Slot fields and the tables are shared with the print thread, the crash
// print and other threads adding to the same point, all without a lock.
// Relaxed loads and stores are plain moves here, so the frame path pays
// nothing, and an addition lost to a concurrent one is accepted.
template <typename T>
inline T StableLoad(const T* p_av) {
  return __atomic_load_n(p_av, __ATOMIC_RELAXED);
}
template <typename T>
inline void StableStore(T* p_av, T v_av) {
  __atomic_store_n(p_av, v_av, __ATOMIC_RELAXED);
}
template <typename T>
inline void StableAdd(T* p_av, T v_av) {
  StableStore(p_av, static_cast<T>(StableLoad(p_av) + v_av));
}

// Books the time up to i64_now_av to the slot's previous point and moves it
// on to this one.
inline void StableMarkSlotAt(StableObject* p_av, int32_t i_slot_av, int32_t i_point_av, int64_t i64_now_av) {
  StableSlot* p_slot_lv = &p_av->m_slots[i_slot_av];
  StableStore(&p_slot_lv->m_ui_counter, StableLoad(&p_slot_lv->m_ui_counter) + 1);
  StableStore(&p_slot_lv->m_i_point, i_point_av);
  int32_t i_prev_lv = StableLoad(&p_slot_lv->m_i_timing_point);
  StableAdd(&p_av->m_i64_time[i_prev_lv], i64_now_av - StableLoad(&p_slot_lv->m_i64_start_ticks));
  StableAdd(&p_av->m_i_count[i_prev_lv], 1);
  StableAdd(&p_av->m_i64_total_count[i_prev_lv], static_cast<int64_t>(1));
  StableStore(&p_slot_lv->m_i64_start_ticks, i64_now_av);
  StableStore(&p_slot_lv->m_i_timing_point, i_point_av);
}

// The object a mark of this slot and point goes to; null where the mark
// must not be made: a slot of -1 (none), a slot or a point outside the
// tables (which would write past them), or no monitor.
inline StableObject* StableMarkTarget(int32_t i_slot_av, int32_t i_point_av) {
  if (!StableSlotValid(i_slot_av) ||
      static_cast<uint32_t>(i_point_av) >= static_cast<uint32_t>(STABLE_POINT_NUM)) {
    return nullptr;
  }
  return g_p_stable;
}

// Books the time since the last mark to the previous point and moves on to
// this one. On the frame path: no lock, no allocation.
inline void StableMark(int32_t i_slot_av, int32_t i_point_av) {
  StableObject* p_lv = StableMarkTarget(i_slot_av, i_point_av);
  if (p_lv == nullptr) return;
  StableMarkSlotAt(p_lv, i_slot_av, i_point_av, PlPerfCounter());
}

// The same at a counter reading the caller has just taken for another
// book of the same moment.
inline void StableMarkAt(int32_t i_slot_av, int32_t i_point_av, int64_t i64_now_av) {
  StableObject* p_lv = StableMarkTarget(i_slot_av, i_point_av);
  if (p_lv == nullptr) return;
  StableMarkSlotAt(p_lv, i_slot_av, i_point_av, i64_now_av);
}

// Called by the host at a crash with the id of the thread that crashed.
extern "C" __attribute__((visibility("default"))) void exception_filter(int32_t i_thread_id_av);
