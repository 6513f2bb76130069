// Critical sections and events on futex words: no system call unless a
// thread has to park or to be woken.
#include "platform/pl_sync.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/pl_internal.h"

const int I_DEFER_MAX = 8;

// A thread parked in a wait. Each thread has one, in static TLS, so that a
// Set may wake it after leaving the event's lock: a late wake-up reaches a
// word that still exists, and costs at most one look at the events.
//
// A Set made inside a critical section wakes the parked threads when the
// section is left, not at once: a thread woken at once would most often run
// straight into the section still held (and, on a busy machine, take the
// processor from its holder). The signal itself is seen at once; only the
// wake-up waits, and never past the setter's next park of any kind.
struct PlWaiter {
  std::atomic<uint32_t> m_ui_word;  // raised by every wake-up
  int32_t m_i_held;                 // critical sections this thread holds
  int32_t m_i_deferred;
  PlWaiter* m_p_deferred[I_DEFER_MAX];  // to wake when a section is left
};

// The place of one waiter in one event's list.
struct PlWaitLink {
  PlWaiter* m_p_waiter;
  PlWaitLink* m_p_prev;
  PlWaitLink* m_p_next;
};

namespace {

const uint32_t PL_EVENT_SET = 1;
const uint32_t PL_EVENT_LINKED = 2;  // some wait is linked: a Set must wake it
const int I_WAIT_ANY_MAX = 64;
// Waiters a Set wakes after leaving the lock; more are woken under it.
const int I_WAKE_BATCH = 8;

__attribute__((tls_model("initial-exec"))) thread_local PlWaiter t_waiter = {};

// Every live event. Only construction, destruction and moves of the clock
// walk it; no wait and no Set does.
pthread_mutex_t g_all_mutex = PTHREAD_MUTEX_INITIALIZER;
PlEvent* g_p_all_head = nullptr;

// How often a thread looks at a taken critical section before it parks.
const int I_SPIN_LOOKS = 64;

// The calling thread's identity for the critical sections.
const void* Self() { return &t_waiter; }

long FutexLock(std::atomic<uint32_t>* p_word_av, int i_op_av, uint32_t ui_val_av) {
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(p_word_av), i_op_av | FUTEX_PRIVATE_FLAG, ui_val_av, nullptr,
                 nullptr, 0);
}

}  // namespace

PlCritSect::PlCritSect() : m_ui_state(0), m_p_owner(nullptr), m_ui_depth(0) {}

PlCritSect::~PlCritSect() {}

void PlCritSect::Enter() {
  const void* p_self_lv = Self();
  if (m_p_owner.load(std::memory_order_relaxed) == p_self_lv) {
    ++m_ui_depth;
    return;
  }
  uint32_t ui_free_lv = 0;
  if (!m_ui_state.compare_exchange_strong(ui_free_lv, 1, std::memory_order_acquire)) EnterContended();
  m_p_owner.store(p_self_lv, std::memory_order_relaxed);
  m_ui_depth = 1;
  ++t_waiter.m_i_held;
}

void PlCritSect::EnterContended() {
  for (int i_lv = 0; i_lv < I_SPIN_LOOKS; ++i_lv) {
    __builtin_ia32_pause();
    uint32_t ui_lv = m_ui_state.load(std::memory_order_relaxed);
    if (ui_lv == 0 && m_ui_state.compare_exchange_weak(ui_lv, 1, std::memory_order_acquire)) return;
  }
  // Parked: the state says so, and the holder's Leave wakes one.
  PlWakeDeferred();
  while (m_ui_state.exchange(2, std::memory_order_acquire) != 0) FutexLock(&m_ui_state, FUTEX_WAIT, 2);
}

void PlCritSect::Leave() {
  if (--m_ui_depth > 0) return;
  m_p_owner.store(nullptr, std::memory_order_relaxed);
  if (m_ui_state.exchange(0, std::memory_order_release) == 2) FutexLock(&m_ui_state, FUTEX_WAKE, 1);
  --t_waiter.m_i_held;
  PlWakeDeferred();
}

bool PlCritSect::TryEnter() {
  const void* p_self_lv = Self();
  if (m_p_owner.load(std::memory_order_relaxed) == p_self_lv) {
    ++m_ui_depth;
    return true;
  }
  uint32_t ui_free_lv = 0;
  if (!m_ui_state.compare_exchange_strong(ui_free_lv, 1, std::memory_order_acquire)) return false;
  m_p_owner.store(p_self_lv, std::memory_order_relaxed);
  m_ui_depth = 1;
  ++t_waiter.m_i_held;
  return true;
}

// Lock order: the list of all events, then an event.
PlEvent::PlEvent(bool b_manual_reset_av, bool b_initial_av)
    : m_ui_state(b_initial_av ? PL_EVENT_SET : 0),
      m_b_manual(b_manual_reset_av),
      m_p_links(nullptr),
      m_p_prev_all(nullptr),
      m_p_next_all(nullptr) {
  pthread_mutex_init(&m_mutex, nullptr);
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
  pthread_mutex_destroy(&m_mutex);
}

void PlEvent::Set() {
  // The same word carries the signal and the mark of linked waits: either
  // this Set sees the mark, or the wait that set it sees the signal.
  if ((m_ui_state.fetch_or(PL_EVENT_SET) & PL_EVENT_LINKED) != 0) WakeLinked();
}

void PlEvent::Reset() { m_ui_state.fetch_and(~PL_EVENT_SET); }

bool PlEvent::IsSet() { return (m_ui_state.load() & PL_EVENT_SET) != 0; }

// Consumes the signal if there is one.
bool PlEvent::Take() {
  uint32_t ui_lv = m_ui_state.load();
  if (m_b_manual) return (ui_lv & PL_EVENT_SET) != 0;
  while ((ui_lv & PL_EVENT_SET) != 0) {
    if (m_ui_state.compare_exchange_weak(ui_lv, ui_lv & ~PL_EVENT_SET)) return true;
  }
  return false;
}

// Every linked wait looks at its events again. An automatic event wakes them
// all as well: only one finds the signal, the others park again.
void PlEvent::WakeLinked() {
  PlWaiter* later_lv[I_WAKE_BATCH];
  int i_later_lv = 0;
  PlWaiter& self_lv = t_waiter;
  pthread_mutex_lock(&m_mutex);
  for (PlWaitLink* p_lv = m_p_links; p_lv != nullptr; p_lv = p_lv->m_p_next) {
    p_lv->m_p_waiter->m_ui_word.fetch_add(1);
    if (self_lv.m_i_held > 0 && self_lv.m_i_deferred < I_DEFER_MAX)
      self_lv.m_p_deferred[self_lv.m_i_deferred++] = p_lv->m_p_waiter;
    else if (i_later_lv < I_WAKE_BATCH) later_lv[i_later_lv++] = p_lv->m_p_waiter;
    else PlWakeWord(&p_lv->m_p_waiter->m_ui_word);
  }
  pthread_mutex_unlock(&m_mutex);
  for (int i_lv = 0; i_lv < i_later_lv; ++i_lv) PlWakeWord(&later_lv[i_lv]->m_ui_word);
}

void PlEvent::Link(PlWaitLink* p_link_av) {
  pthread_mutex_lock(&m_mutex);
  p_link_av->m_p_prev = nullptr;
  p_link_av->m_p_next = m_p_links;
  if (m_p_links != nullptr) m_p_links->m_p_prev = p_link_av;
  m_p_links = p_link_av;
  m_ui_state.fetch_or(PL_EVENT_LINKED);
  pthread_mutex_unlock(&m_mutex);
}

void PlEvent::Unlink(PlWaitLink* p_link_av) {
  pthread_mutex_lock(&m_mutex);
  if (p_link_av->m_p_prev != nullptr) p_link_av->m_p_prev->m_p_next = p_link_av->m_p_next;
  else m_p_links = p_link_av->m_p_next;
  if (p_link_av->m_p_next != nullptr) p_link_av->m_p_next->m_p_prev = p_link_av->m_p_prev;
  if (m_p_links == nullptr) m_ui_state.fetch_and(~PL_EVENT_LINKED);
  pthread_mutex_unlock(&m_mutex);
}

void PlEventsKickAll() {
  pthread_mutex_lock(&g_all_mutex);
  for (PlEvent* p_lv = g_p_all_head; p_lv != nullptr; p_lv = p_lv->m_p_next_all) p_lv->WakeLinked();
  pthread_mutex_unlock(&g_all_mutex);
}

int PlEvent::TakeAny(PlEvent* const* pp_events_av, int i_count_av) {
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    if (pp_events_av[i_lv]->Take()) return i_lv;
  }
  return -1;
}

void PlWakeDeferred() {
  PlWaiter& self_lv = t_waiter;
  for (int i_lv = 0; i_lv < self_lv.m_i_deferred; ++i_lv) PlWakeWord(&self_lv.m_p_deferred[i_lv]->m_ui_word);
  self_lv.m_i_deferred = 0;
}

int PlEvent::WaitParked(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av) {
  PlWakeDeferred();
  PlWaiter* p_waiter_lv = &t_waiter;
  PlWaitLink links_lv[I_WAIT_ANY_MAX];
  // Read before the events are looked at: a wake-up from then on changes it,
  // and the park below returns at once.
  uint32_t ui_seen_lv = p_waiter_lv->m_ui_word.load();
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    links_lv[i_lv].m_p_waiter = p_waiter_lv;
    pp_events_av[i_lv]->Link(&links_lv[i_lv]);
  }
  PlTimedWait wait_lv(ui_ms_av);
  int i_found_lv = TakeAny(pp_events_av, i_count_av);
  while (i_found_lv < 0) {
    bool b_more_lv = PlTimedWaitWord(&wait_lv, &p_waiter_lv->m_ui_word, ui_seen_lv);
    ui_seen_lv = p_waiter_lv->m_ui_word.load();
    i_found_lv = TakeAny(pp_events_av, i_count_av);
    if (!b_more_lv) break;
  }
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) pp_events_av[i_lv]->Unlink(&links_lv[i_lv]);
  return i_found_lv;
}

uint32_t PlEvent::Wait(uint32_t ui_ms_av) {
  PlEvent* p_this_lv = this;
  if (Take()) return PL_WAIT_OBJECT_0;
  if (ui_ms_av == 0) return PL_WAIT_TIMEOUT;
  return WaitParked(&p_this_lv, 1, ui_ms_av) == 0 ? PL_WAIT_OBJECT_0 : PL_WAIT_TIMEOUT;
}

uint32_t PlWaitAny(PlEvent* const* pp_events_av, int i_count_av, uint32_t ui_ms_av) {
  if (pp_events_av == nullptr || i_count_av < 1 || i_count_av > I_WAIT_ANY_MAX) return PL_WAIT_FAILED;
  for (int i_lv = 0; i_lv < i_count_av; ++i_lv) {
    if (pp_events_av[i_lv] == nullptr) return PL_WAIT_FAILED;
  }
  int i_found_lv = PlEvent::TakeAny(pp_events_av, i_count_av);
  if (i_found_lv < 0 && ui_ms_av != 0) i_found_lv = PlEvent::WaitParked(pp_events_av, i_count_av, ui_ms_av);
  return i_found_lv >= 0 ? static_cast<uint32_t>(i_found_lv) : PL_WAIT_TIMEOUT;
}
