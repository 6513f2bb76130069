// Locks and events of the operating system, thinly wrapped.
// Every unit of the plug-in and the reference host takes its critical
// sections and events from here, so that waits with a time-out follow the
// process clock (pl_clock.h): under the manual clock a time-out passes when a
// test moves the clock, not when real time goes by.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// Results of a wait, with the values the callers compare against.
const uint32_t PL_WAIT_OBJECT_0 = 0;
const uint32_t PL_WAIT_TIMEOUT = 258;
const uint32_t PL_WAIT_FAILED = 0xFFFFFFFFu;
const uint32_t PL_INFINITE = 0xFFFFFFFFu;

// A critical section that the same thread may enter twice (recursive).
// Critical sections here are short: a thread that finds one taken spins a
// little before it parks, since the holder is most often about to leave
// (a thread it has just woken must not go to sleep on the lock at once).
class PlCritSect {
 public:
  PlCritSect();
  ~PlCritSect();
  PlCritSect(const PlCritSect&) = delete;
  PlCritSect& operator=(const PlCritSect&) = delete;

  void Enter();
  void Leave();
  bool TryEnter();

 private:
  void EnterContended();

  std::atomic<uint32_t> m_ui_state;  // 0 free, 1 taken, 2 taken with threads parked
  std::atomic<const void*> m_p_owner;  // the holding thread's identity
  uint32_t m_ui_depth;                 // entries of the holder
};

// Enters a critical section for the lifetime of a scope.
class PlCritLock {
 public:
  explicit PlCritLock(PlCritSect* p_cs_av) : m_p_cs(p_cs_av) { m_p_cs->Enter(); }
  ~PlCritLock() { m_p_cs->Leave(); }
  PlCritLock(const PlCritLock&) = delete;
  PlCritLock& operator=(const PlCritLock&) = delete;

 private:
  PlCritSect* m_p_cs;
};

struct PlWaitLink;

// An event with manual or automatic reset. An automatic event is reset by
// the one wait that it releases.
//
// The state is one atomic word, so that a Set with nobody waiting and a wait
// that finds the event set cost no system call. A wait that has to park
// links itself into each event it waits on and sleeps on its thread's own
// futex word; a Set wakes the linked waits, one system call each. Every
// event is also known to the clock, which wakes all parked waits when it is
// switched or moved by hand.
class PlEvent {
 public:
  PlEvent(bool b_manual_reset_av, bool b_initial_av);
  ~PlEvent();
  PlEvent(const PlEvent&) = delete;
  PlEvent& operator=(const PlEvent&) = delete;

  void Set();
  void Reset();
  bool IsSet();
  // PL_WAIT_OBJECT_0 when signalled, PL_WAIT_TIMEOUT when ms passed first.
  uint32_t Wait(uint32_t ui_ms_av);

 private:
  friend uint32_t PlWaitAny(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av);
  friend void PlEventsKickAll();
  // The lowest signalled event, consumed; -1 when none is.
  static int TakeAny(PlEvent* const* pp_events_av, int i_count_av);
  // Parks until one is signalled or the time passes; the index or -1.
  static int WaitParked(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av);
  bool Take();
  void Link(PlWaitLink* p_link_av);
  void Unlink(PlWaitLink* p_link_av);
  void WakeLinked();

  std::atomic<uint32_t> m_ui_state;  // PL_EVENT_SET | PL_EVENT_LINKED
  bool m_b_manual;
  pthread_mutex_t m_mutex;  // guards the links
  PlWaitLink* m_p_links;    // parked waits that include this event
  // Every live event, for the clock's wake-ups.
  PlEvent* m_p_prev_all;
  PlEvent* m_p_next_all;
};

// Waits until one of i_count_av events is signalled. Returns the index of the
// signalled event (the lowest when several are), PL_WAIT_TIMEOUT when the
// time passed first, PL_WAIT_FAILED for a bad argument. At most 64 events.
uint32_t PlWaitAny(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av);

// Atomic helpers for counters shared between threads.
inline int64_t PlAtomicAdd64(volatile int64_t* p_av, int64_t i64_delta_av) {
  return __atomic_add_fetch(p_av, i64_delta_av, __ATOMIC_SEQ_CST);
}
inline int32_t PlAtomicAdd32(volatile int32_t* p_av, int32_t i_delta_av) {
  return __atomic_add_fetch(p_av, i_delta_av, __ATOMIC_SEQ_CST);
}
