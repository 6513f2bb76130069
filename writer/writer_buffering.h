// A channel's double buffer and its thread. The thread runs from the
// channel's construction to its destruction, waking for each finished
// frame, for the exit event, or every 5 s. The channel object (TCameraInfoW)
// owns it; the liveness messages of "alive_track" are sent from here.
#pragma once

#include <cstdint>

#include "host/include/core_api.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

class CWriter;

const uint32_t UI_BUFF_WAIT_MS = 5000;
const size_t UI_BUFF_THREAD_STACK = 200000;

class CWriteBuffering {
 public:
  CWriteBuffering();
  ~CWriteBuffering();
  CWriteBuffering(const CWriteBuffering&) = delete;
  CWriteBuffering& operator=(const CWriteBuffering&) = delete;

  CWriter* m_p_writer;
  PlCritSect* m_p_crit_sect_write_buffering;
  PlEvent* m_h_event_activate_thread_write_buffering;
  PlEvent* m_h_event_exit_thread_write_buffering;
  PlEvent* m_h_event_stop_thread_write_buffering;
  PlThread* m_h_thread_write_buffering;
  volatile int32_t m_b_exit_thread_write_buffering;
  int64_t m_i64_last_wd_print;
};

// Makes the lock and starts the thread; 0 or RC_E_FAIL.
int32_t InitWriteBuffering(CWriteBuffering* p_av);
int32_t StartThreadWriteBuffering(CWriteBuffering* p_av);
void ThreadWriteBufferingMethod(CWriteBuffering* p_av);
// Stops the thread and closes every handle; blocks until the thread ends.
void ExitThreadWriteBuffering(CWriteBuffering* p_av);

// One "register" or "unregister" message on "alive_track".
void RegisterAlive(CWriter* p_owner_av, const char* s_caption_av);
void UnregisterAlive(CWriter* p_owner_av);
