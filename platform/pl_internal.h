// Shared between the platform's own units: the timed wait that follows the
// process clock, and the wake-up of every parked wait when the clock moves.
// Not for use outside platform/.
#pragma once

#include <atomic>
#include <cstdint>

// The deadline of one timed wait, on the clock in force when it was taken.
struct PlTimedWait {
  explicit PlTimedWait(uint32_t ui_ms_av);
  uint32_t m_ui_ms;
  uint64_t m_ui64_epoch;  // clock switches seen; ~0 before the first look
  bool m_b_manual;
  uint64_t m_ui64_deadline;  // manual ticks or monotonic ns
};

// Parks the calling thread on p_word_av as long as it holds ui_seen_av. True
// after a wake-up of any kind (the caller looks at its condition again),
// false when the deadline had passed. Under the manual clock the park has no
// time-out of its own: every move of the clock changes the word and wakes it
// through PlEventsKickAll.
bool PlTimedWaitWord(PlTimedWait* p_wait_av, std::atomic<uint32_t>* p_word_av, uint32_t ui_seen_av);
// Wakes the one thread parked on p_word_av, if any.
void PlWakeWord(std::atomic<uint32_t>* p_word_av);
// Wakes the threads that Sets made inside the calling thread's critical
// sections still owe a wake-up; before any park, so that none waits on them.
void PlWakeDeferred();

// Wakes every wait parked on any event, so that each looks at its deadline
// again. Called by the clock at every switch and every manual move; the
// waits themselves never touch a process-wide list.
void PlEventsKickAll();
