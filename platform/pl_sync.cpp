// Critical sections and events on POSIX threads.
#include "platform/pl_sync.h"

#include <algorithm>

#include "platform/pl_internal.h"

PlCritSect::PlCritSect() {
  pthread_mutexattr_t attr_lv;
  pthread_mutexattr_init(&attr_lv);
  pthread_mutexattr_settype(&attr_lv, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attr_lv);
  pthread_mutexattr_destroy(&attr_lv);
}

PlCritSect::~PlCritSect() { pthread_mutex_destroy(&m_mutex); }
void PlCritSect::Enter() { pthread_mutex_lock(&m_mutex); }
void PlCritSect::Leave() { pthread_mutex_unlock(&m_mutex); }
bool PlCritSect::TryEnter() { return pthread_mutex_trylock(&m_mutex) == 0; }

PlEvent::PlEvent(bool b_manual_reset_av, bool b_initial_av) : m_b_manual(b_manual_reset_av), m_b_set(b_initial_av) {
  pthread_mutex_init(&m_mutex, nullptr);
}

PlEvent::~PlEvent() { pthread_mutex_destroy(&m_mutex); }

void PlEvent::Set() {
  pthread_mutex_lock(&m_mutex);
  m_b_set = true;
  for (PlWaiter* p_waiter_lv : m_waiters) PlWaiterFire(p_waiter_lv);
  pthread_mutex_unlock(&m_mutex);
}

void PlEvent::Reset() {
  pthread_mutex_lock(&m_mutex);
  m_b_set = false;
  pthread_mutex_unlock(&m_mutex);
}

bool PlEvent::IsSet() {
  pthread_mutex_lock(&m_mutex);
  bool b_set_lv = m_b_set;
  pthread_mutex_unlock(&m_mutex);
  return b_set_lv;
}

uint32_t PlEvent::Wait(uint32_t ui_ms_av) {
  PlEvent* p_self_lv = this;
  return PlWaitAny(&p_self_lv, 1, ui_ms_av);
}

// With m_mutex held: consumes the signal if there is one.
bool PlEvent::TakeLocked() {
  if (!m_b_set) return false;
  if (!m_b_manual) m_b_set = false;
  return true;
}

void PlEvent::AddWaiter(PlWaiter* p_waiter_av) { m_waiters.push_back(p_waiter_av); }

void PlEvent::RemoveWaiter(PlWaiter* p_waiter_av) {
  pthread_mutex_lock(&m_mutex);
  auto it_lv = std::find(m_waiters.begin(), m_waiters.end(), p_waiter_av);
  if (it_lv != m_waiters.end()) m_waiters.erase(it_lv);
  pthread_mutex_unlock(&m_mutex);
}

namespace {

// The lowest signalled event, consumed; -1 when none is.
int TakeAny(PlEvent* const* pp_events_av, int i_count_av, bool (*take_av)(PlEvent*)) {
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    if (take_av(pp_events_av[i_lv])) return i_lv;
  }
  return -1;
}

}  // namespace

uint32_t PlWaitAny(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av) {
  if (pp_events_av == nullptr || i_count_av < 1 || i_count_av > 64) return PL_WAIT_FAILED;
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    if (pp_events_av[i_lv] == nullptr) return PL_WAIT_FAILED;
  }
  auto take_lv = [](PlEvent* p_ev_av) {
    pthread_mutex_lock(&p_ev_av->m_mutex);
    bool b_lv = p_ev_av->TakeLocked();
    pthread_mutex_unlock(&p_ev_av->m_mutex);
    return b_lv;
  };
  int i_found_lv = TakeAny(pp_events_av, i_count_av, take_lv);
  if (i_found_lv >= 0) return static_cast<uint32_t>(i_found_lv);
  if (ui_ms_av == 0) return PL_WAIT_TIMEOUT;

  PlWaiter waiter_lv;
  PlWaiterBegin(&waiter_lv, ui_ms_av);
  int i_registered_lv = 0;
  for (; i_registered_lv < i_count_av && i_found_lv < 0; ++i_registered_lv) {
    PlEvent* p_ev_lv = pp_events_av[i_registered_lv];
    pthread_mutex_lock(&p_ev_lv->m_mutex);
    if (p_ev_lv->TakeLocked()) {
      i_found_lv = i_registered_lv;
    } else {
      p_ev_lv->AddWaiter(&waiter_lv);
    }
    pthread_mutex_unlock(&p_ev_lv->m_mutex);
  }
  while (i_found_lv < 0) {
    pthread_mutex_lock(&waiter_lv.m_mutex);
    bool b_fired_lv = PlWaiterWaitLocked(&waiter_lv);
    pthread_mutex_unlock(&waiter_lv.m_mutex);
    i_found_lv = TakeAny(pp_events_av, i_count_av, take_lv);
    if (!b_fired_lv) break;
  }
  for (int i_lv = 0; i_lv < i_registered_lv; ++i_lv) pp_events_av[i_lv]->RemoveWaiter(&waiter_lv);
  PlWaiterEnd(&waiter_lv);
  return i_found_lv >= 0 ? static_cast<uint32_t>(i_found_lv) : PL_WAIT_TIMEOUT;
}
