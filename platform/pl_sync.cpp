// Critical sections and events on POSIX threads.
#include "platform/pl_sync.h"

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

// A thread parked in a wait on several events; a Set of any of them fires it.
struct PlWaiter {
  PlWaiter() : m_b_fired(false) {
    pthread_mutex_init(&m_mutex, nullptr);
    PlCondInit(&m_cond);
  }
  ~PlWaiter() {
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
  }
  pthread_mutex_t m_mutex;
  pthread_cond_t m_cond;
  bool m_b_fired;
};

// The place of one such waiter in one event's list.
struct PlWaitLink {
  PlWaiter* m_p_waiter;
  PlWaitLink* m_p_prev;
  PlWaitLink* m_p_next;
};

namespace {

// Every live event. Only construction, destruction and moves of the clock
// walk it; no wait does.
pthread_mutex_t g_all_mutex = PTHREAD_MUTEX_INITIALIZER;
PlEvent* g_p_all_head = nullptr;

// Lock order: the list of all events, then an event, then a waiter.
void WakeWaiter(PlWaiter* p_waiter_av, bool b_fire_av) {
  pthread_mutex_lock(&p_waiter_av->m_mutex);
  if (b_fire_av) p_waiter_av->m_b_fired = true;
  pthread_cond_signal(&p_waiter_av->m_cond);
  pthread_mutex_unlock(&p_waiter_av->m_mutex);
}

}  // namespace

PlEvent::PlEvent(bool b_manual_reset_av, bool b_initial_av)
    : m_b_manual(b_manual_reset_av),
      m_b_set(b_initial_av),
      m_i_parked(0),
      m_p_links(nullptr),
      m_p_prev_all(nullptr),
      m_p_next_all(nullptr) {
  pthread_mutex_init(&m_mutex, nullptr);
  PlCondInit(&m_cond);
  pthread_mutex_lock(&g_all_mutex);
  m_p_next_all = g_p_all_head;
  if (g_p_all_head != nullptr) g_p_all_head->m_p_prev_all = this;
  g_p_all_head = this;
  pthread_mutex_unlock(&g_all_mutex);
}

PlEvent::~PlEvent() {
  pthread_mutex_lock(&g_all_mutex);
  if (m_p_prev_all != nullptr) m_p_prev_all->m_p_next_all = m_p_next_all;
  else g_p_all_head = m_p_next_all;
  if (m_p_next_all != nullptr) m_p_next_all->m_p_prev_all = m_p_prev_all;
  pthread_mutex_unlock(&g_all_mutex);
  pthread_cond_destroy(&m_cond);
  pthread_mutex_destroy(&m_mutex);
}

void PlEvent::Set() {
  pthread_mutex_lock(&m_mutex);
  m_b_set = true;
  if (m_i_parked > 0) {
    // An automatic event releases one wait; the others would find it taken.
    if (m_b_manual) pthread_cond_broadcast(&m_cond);
    else pthread_cond_signal(&m_cond);
  }
  for (PlWaitLink* p_lv = m_p_links; p_lv != nullptr; p_lv = p_lv->m_p_next) WakeWaiter(p_lv->m_p_waiter, true);
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

// With m_mutex held: consumes the signal if there is one.
bool PlEvent::TakeLocked() {
  if (!m_b_set) return false;
  if (!m_b_manual) m_b_set = false;
  return true;
}

bool PlEvent::Take() {
  pthread_mutex_lock(&m_mutex);
  bool b_lv = TakeLocked();
  pthread_mutex_unlock(&m_mutex);
  return b_lv;
}

uint32_t PlEvent::Wait(uint32_t ui_ms_av) {
  pthread_mutex_lock(&m_mutex);
  bool b_taken_lv = TakeLocked();
  if (!b_taken_lv && ui_ms_av != 0) {
    PlTimedWait wait_lv(ui_ms_av);
    bool b_more_lv = true;
    while (!b_taken_lv && b_more_lv) {
      ++m_i_parked;
      b_more_lv = PlTimedWaitOnce(&wait_lv, &m_cond, &m_mutex);
      --m_i_parked;
      b_taken_lv = TakeLocked();
    }
  }
  pthread_mutex_unlock(&m_mutex);
  return b_taken_lv ? PL_WAIT_OBJECT_0 : PL_WAIT_TIMEOUT;
}

// With m_mutex held.
void PlEvent::Link(PlWaitLink* p_link_av) {
  p_link_av->m_p_prev = nullptr;
  p_link_av->m_p_next = m_p_links;
  if (m_p_links != nullptr) m_p_links->m_p_prev = p_link_av;
  m_p_links = p_link_av;
}

void PlEvent::Unlink(PlWaitLink* p_link_av) {
  pthread_mutex_lock(&m_mutex);
  if (p_link_av->m_p_prev != nullptr) p_link_av->m_p_prev->m_p_next = p_link_av->m_p_next;
  else m_p_links = p_link_av->m_p_next;
  if (p_link_av->m_p_next != nullptr) p_link_av->m_p_next->m_p_prev = p_link_av->m_p_prev;
  pthread_mutex_unlock(&m_mutex);
}

// With m_mutex held: every wait on this event looks at its deadline again.
void PlEvent::KickLocked() {
  if (m_i_parked > 0) pthread_cond_broadcast(&m_cond);
  for (PlWaitLink* p_lv = m_p_links; p_lv != nullptr; p_lv = p_lv->m_p_next) WakeWaiter(p_lv->m_p_waiter, false);
}

void PlEventsKickAll() {
  pthread_mutex_lock(&g_all_mutex);
  for (PlEvent* p_lv = g_p_all_head; p_lv != nullptr; p_lv = p_lv->m_p_next_all) {
    pthread_mutex_lock(&p_lv->m_mutex);
    p_lv->KickLocked();
    pthread_mutex_unlock(&p_lv->m_mutex);
  }
  pthread_mutex_unlock(&g_all_mutex);
}

namespace {

const int I_WAIT_ANY_MAX = 64;

// The lowest signalled event, consumed; -1 when none is.
int TakeAny(PlEvent* const* pp_events_av, int i_count_av, bool (*take_av)(PlEvent*)) {
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    if (take_av(pp_events_av[i_lv])) return i_lv;
  }
  return -1;
}

}  // namespace

uint32_t PlWaitAny(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av) {
  if (pp_events_av == nullptr || i_count_av < 1 || i_count_av > I_WAIT_ANY_MAX) return PL_WAIT_FAILED;
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    if (pp_events_av[i_lv] == nullptr) return PL_WAIT_FAILED;
  }
  if (i_count_av == 1) return pp_events_av[0]->Wait(ui_ms_av) == PL_WAIT_OBJECT_0 ? 0 : PL_WAIT_TIMEOUT;
  auto take_lv = [](PlEvent* p_ev_av) { return p_ev_av->Take(); };
  int i_found_lv = TakeAny(pp_events_av, i_count_av, take_lv);
  if (i_found_lv >= 0) return static_cast<uint32_t>(i_found_lv);
  if (ui_ms_av == 0) return PL_WAIT_TIMEOUT;

  PlWaiter waiter_lv;
  PlWaitLink links_lv[I_WAIT_ANY_MAX];
  int i_linked_lv = 0;
  for (; i_linked_lv < i_count_av && i_found_lv < 0; ++i_linked_lv) {
    PlEvent* p_ev_lv = pp_events_av[i_linked_lv];
    links_lv[i_linked_lv].m_p_waiter = &waiter_lv;
    pthread_mutex_lock(&p_ev_lv->m_mutex);
    p_ev_lv->Link(&links_lv[i_linked_lv]);
    if (p_ev_lv->TakeLocked()) i_found_lv = i_linked_lv;
    pthread_mutex_unlock(&p_ev_lv->m_mutex);
  }
  PlTimedWait wait_lv(ui_ms_av);
  while (i_found_lv < 0) {
    pthread_mutex_lock(&waiter_lv.m_mutex);
    bool b_more_lv = true;
    while (!waiter_lv.m_b_fired && b_more_lv) b_more_lv = PlTimedWaitOnce(&wait_lv, &waiter_lv.m_cond, &waiter_lv.m_mutex);
    waiter_lv.m_b_fired = false;
    pthread_mutex_unlock(&waiter_lv.m_mutex);
    i_found_lv = TakeAny(pp_events_av, i_count_av, take_lv);
    if (!b_more_lv) break;
  }
  for (int i_lv = 0; i_lv < i_linked_lv; ++i_lv) pp_events_av[i_lv]->Unlink(&links_lv[i_lv]);
  return i_found_lv >= 0 ? static_cast<uint32_t>(i_found_lv) : PL_WAIT_TIMEOUT;
}
