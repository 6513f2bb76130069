// Threads on POSIX: detached pthreads whose end is an event, so that a
// join can have a time-out and can follow the process clock.
#include "platform/pl_thread.h"

#include <limits.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

struct PlThreadState {
  PlThreadState(PlThreadFn fn_av, void* p_arg_av, bool b_suspended_av)
      : m_fn(fn_av), m_p_arg(p_arg_av), m_start(true, !b_suspended_av), m_id_ready(true, false), m_done(true, false),
        m_ui_exit_code(PL_STILL_ACTIVE), m_ui_id(0), m_b_suspended(b_suspended_av), m_i_refs(2) {}

  PlThreadFn m_fn;
  void* m_p_arg;
  PlEvent m_start;
  PlEvent m_id_ready;
  PlEvent m_done;
  std::atomic<uint32_t> m_ui_exit_code;
  std::atomic<uint32_t> m_ui_id;
  std::atomic<bool> m_b_suspended;
  std::atomic<int> m_i_refs;  // the thread and the handle
};

namespace {

void Release(PlThreadState* p_state_av) {
  if (p_state_av->m_i_refs.fetch_sub(1) == 1) delete p_state_av;
}

void* Trampoline(void* p_arg_av) {
  PlThreadState* p_state_lv = static_cast<PlThreadState*>(p_arg_av);
  p_state_lv->m_ui_id.store(PlThreadCurrentId());
  p_state_lv->m_id_ready.Set();
  p_state_lv->m_start.Wait(PL_INFINITE);
  uint32_t ui_code_lv = p_state_lv->m_fn(p_state_lv->m_p_arg);
  p_state_lv->m_ui_exit_code.store(ui_code_lv);
  p_state_lv->m_done.Set();
  Release(p_state_lv);
  return nullptr;
}

}  // namespace

PlThread* PlThread::Create(PlThreadFn fn_av, void* p_arg_av, size_t ui_stack_av, bool b_suspended_av) {
  if (fn_av == nullptr) return nullptr;
  PlThreadState* p_state_lv = new PlThreadState(fn_av, p_arg_av, b_suspended_av);
  pthread_attr_t attr_lv;
  pthread_attr_init(&attr_lv);
  pthread_attr_setdetachstate(&attr_lv, PTHREAD_CREATE_DETACHED);
  if (ui_stack_av != 0) {
    // The system wants whole pages and a floor of its own.
    size_t ui_page_lv = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t ui_size_lv = (ui_stack_av + ui_page_lv - 1) / ui_page_lv * ui_page_lv;
    if (ui_size_lv < static_cast<size_t>(PTHREAD_STACK_MIN)) ui_size_lv = PTHREAD_STACK_MIN;
    pthread_attr_setstacksize(&attr_lv, ui_size_lv);
  }
  pthread_t tid_lv;
  int i_rc_lv = pthread_create(&tid_lv, &attr_lv, Trampoline, p_state_lv);
  pthread_attr_destroy(&attr_lv);
  if (i_rc_lv != 0) {
    delete p_state_lv;
    return nullptr;
  }
  PlThread* p_thread_lv = new PlThread();
  p_thread_lv->m_p_state = p_state_lv;
  return p_thread_lv;
}

int PlThread::Resume() {
  bool b_was_lv = m_p_state->m_b_suspended.exchange(false);
  m_p_state->m_start.Set();
  return b_was_lv ? 1 : 0;
}

uint32_t PlThread::Join(uint32_t ui_ms_av) { return m_p_state->m_done.Wait(ui_ms_av); }

uint32_t PlThread::ExitCode() { return m_p_state->m_ui_exit_code.load(); }

uint32_t PlThread::Id() {
  m_p_state->m_id_ready.Wait(PL_INFINITE);
  return m_p_state->m_ui_id.load();
}

PlEvent* PlThread::DoneEvent() { return &m_p_state->m_done; }

void PlThread::Close(PlThread* p_thread_av) {
  if (p_thread_av == nullptr) return;
  Release(p_thread_av->m_p_state);
  delete p_thread_av;
}

uint32_t PlThreadCurrentId() {
  static thread_local uint32_t s_ui_id_lv = 0;
  if (s_ui_id_lv == 0) s_ui_id_lv = static_cast<uint32_t>(syscall(SYS_gettid));
  return s_ui_id_lv;
}
