// Shared between the platform's own units: the timed wait that follows the
// process clock, and the wake-up of every parked wait when the clock moves.
// Not for use outside platform/.
#pragma once

#include <pthread.h>
#include <cstdint>

// The deadline of one timed wait, on the clock in force when it was taken.
struct PlTimedWait {
  explicit PlTimedWait(uint32_t ui_ms_av);
  uint32_t m_ui_ms;
  uint64_t m_ui64_epoch;  // clock switches seen; ~0 before the first look
  bool m_b_manual;
  uint64_t m_ui64_deadline;  // manual ticks or monotonic ns
};

// Makes a condition variable that PlTimedWaitOnce can wait on.
void PlCondInit(pthread_cond_t* p_cond_av);

// With p_mutex_av held: parks once on p_cond_av. True after a wake-up of any
// kind (the caller looks at its condition again), false when the deadline had
// passed. Under the manual clock the park has no time-out of its own: every
// move of the clock wakes it through PlEventsKickAll.
bool PlTimedWaitOnce(PlTimedWait* p_wait_av, pthread_cond_t* p_cond_av, pthread_mutex_t* p_mutex_av);

// Wakes every wait parked on any event, so that each looks at its deadline
// again. Called by the clock at every switch and every manual move; the
// waits themselves never touch a process-wide list.
void PlEventsKickAll();
