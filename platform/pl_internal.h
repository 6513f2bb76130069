// Shared between the platform's own units: a parked thread, and the timed
// wait that follows the process clock. Not for use outside platform/.
#pragma once

#include <pthread.h>
#include <cstdint>

struct PlWaiter {
  PlWaiter();
  ~PlWaiter();
  pthread_mutex_t m_mutex;
  pthread_cond_t m_cond;  // on CLOCK_MONOTONIC
  bool m_b_fired;         // an event it waits on was set
  bool m_b_kicked;        // the clock was moved or switched
  PlWaiter* m_p_next_watch;
  // The deadline, on the clock in force when it was taken.
  uint32_t m_ui_ms;
  uint64_t m_ui64_epoch;
  bool m_b_manual;
  uint64_t m_ui64_deadline;  // manual ticks or monotonic ns
};

// Fires the waiter: an event it waits on was set.
void PlWaiterFire(PlWaiter* p_waiter_av);

// A timed wait: Begin takes the deadline and, for a finite time, lets moves
// of the clock reach the waiter; End undoes that. Call both without holding
// the waiter's mutex.
void PlWaiterBegin(PlWaiter* p_waiter_av, uint32_t ui_ms_av);
void PlWaiterEnd(PlWaiter* p_waiter_av);
// With the waiter's mutex held: waits until it fires (true, and the flag is
// cleared) or the deadline passes (false).
bool PlWaiterWaitLocked(PlWaiter* p_waiter_av);
