// The exported critical sections with a time-out: a lock that a caller can
// give up waiting for. Built on an auto-reset event of the platform layer,
// so a time-out follows the process clock. Not re-entrant: a second enter on
// the same thread waits like any other.
#include <cstring>
#include <new>

#include "compat/compat.h"
#include "platform/pl_sync.h"

namespace {

PlEvent* EventOf(CriticalSectionTimeout* p_cs_av) {
  return p_cs_av == nullptr ? nullptr : static_cast<PlEvent*>(p_cs_av->h_event);
}

}  // namespace

COMPAT_EXPORT void InitializeCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av) {
  if (p_cs_av == nullptr) return;
  memset(p_cs_av, 0, sizeof(*p_cs_av));
  // Signalled at start: the first enter passes at once.
  p_cs_av->h_event = new (std::nothrow) PlEvent(false, true);
}

COMPAT_EXPORT void DeleteCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av) {
  PlEvent* p_event_lv = EventOf(p_cs_av);
  if (p_event_lv == nullptr) return;
  // Waits for a holder to leave, so the event is not pulled from under it.
  p_event_lv->Wait(PL_INFINITE);
  delete p_event_lv;
  p_cs_av->h_event = nullptr;
}

COMPAT_EXPORT int32_t EnterCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av, uint32_t ui_ms_av) {
  PlEvent* p_event_lv = EventOf(p_cs_av);
  if (p_event_lv == nullptr) return 0;
  return p_event_lv->Wait(ui_ms_av) == PL_WAIT_OBJECT_0 ? 1 : 0;
}

COMPAT_EXPORT void LeaveCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av) {
  PlEvent* p_event_lv = EventOf(p_cs_av);
  if (p_event_lv != nullptr) p_event_lv->Set();
}
