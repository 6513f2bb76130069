// Threads of the operating system, thinly wrapped: a given stack size, start
// suspended or running, join with a time-out, exit code, thread id.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pl_sync.h"

// Exit code of a thread that has not ended yet.
const uint32_t PL_STILL_ACTIVE = 259;

typedef uint32_t (*PlThreadFn)(void* p_arg_av);

struct PlThreadState;

class PlThread {
 public:
  // Creates a thread on fn(arg) with the given stack size (0 for the
  // system's default). Suspended threads run once Resume is called.
  // Null on failure.
  static PlThread* Create(PlThreadFn fn_av, void* p_arg_av, size_t ui_stack_av, bool b_suspended_av);

  // Lets a suspended thread run. Returns the previous suspend count: 1 when
  // it was suspended, 0 when it already ran.
  int Resume();
  // PL_WAIT_OBJECT_0 once the thread has ended, PL_WAIT_TIMEOUT otherwise.
  uint32_t Join(uint32_t ui_ms_av);
  // The exit code, or PL_STILL_ACTIVE while the thread runs.
  uint32_t ExitCode();
  uint32_t Id();
  // The event that is set when the thread ends, for PlWaitAny.
  PlEvent* DoneEvent();
  // Releases the handle. A running thread goes on and cleans up after itself.
  static void Close(PlThread* p_thread_av);

 private:
  PlThread() : m_p_state(nullptr) {}
  ~PlThread() {}
  PlThreadState* m_p_state;
};

// Id of the calling thread (the kernel's thread id).
uint32_t PlThreadCurrentId();
