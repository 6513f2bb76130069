// The channel's event state: its list of event types, made by the
// configuration reader and the channel open, and the entry points that the
// event track and the channel start use.
#include "writer/writer_by_event.h"

#include "linux/common_use/service/service4.h"
#include "writer/writer_stability.h"

namespace {
const int32_t I_SIGN_EVENT_ELEM = 4101;
}

CWriterByEvent::CWriterByEvent()
    : prev_write(0),
      post_write(100000000),
      m_i64_last_reset(0),
      m_b_event_accepted(0),
      m_p_writer(nullptr),
      m_p_prev_write(nullptr),
      m_h_track_event(0),
      m_b_init_done(0),
      m_i_on_counter(0),
      m_b_event_seen(0),
      m_i64_last_dur_check(0) {}

CWriterByEvent::~CWriterByEvent() {
  EventListClear(&m_list_events);
  for (int i_lv = 0; i_lv < 5; i_lv++) SafeStringDestroy(&key[i_lv]);
}

TEventElem* EventElemCreate(int32_t i_event_av, int32_t i_stop_event_av) {
  TEventElem* p_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_lv, static_cast<int32_t>(sizeof(TEventElem)), I_SIGN_EVENT_ELEM);
  if (p_lv == nullptr) return nullptr;
  p_lv->event = i_event_av;
  p_lv->stop_event = i_stop_event_av;
  p_lv->guids = new CListOur();
  p_lv->m_i_counter = 0;
  p_lv->forced = i_event_av == I_EVENT_FORCED ? 1 : 0;
  p_lv->dur_pres = 0;
  p_lv->dur_mark = 0;
  p_lv->incr_cntr = 0;
  return p_lv;
}

void EventElemDestroy(TEventElem* p_elem_av) {
  if (p_elem_av == nullptr) return;
  CListOur* p_guids_lv = p_elem_av->guids;
  if (p_guids_lv != nullptr) {
    PlCritLock lock_lv(&p_guids_lv->m_crit_sect);
    for (int32_t i_lv = 0; i_lv < p_guids_lv->m_i_count; i_lv++) {
      SafeString* p_guid_lv = static_cast<SafeString*>(CListOurGet(p_guids_lv, i_lv));
      delete p_guid_lv;
    }
    CListOurClear(p_guids_lv);
  }
  delete p_guids_lv;
  SAFE_MEM_FREE(p_elem_av);
}

void EventListAdd(CListOur* p_list_av, int32_t i_event_av, int32_t i_stop_event_av) {
  TEventElem* p_lv = EventElemCreate(i_event_av, i_stop_event_av);
  if (p_lv != nullptr) CListOurAdd(p_list_av, p_lv);
}

void EventListClear(CListOur* p_list_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++)
    EventElemDestroy(static_cast<TEventElem*>(CListOurGet(p_list_av, i_lv)));
  CListOurClear(p_list_av);
}

bool EventListHas(CListOur* p_list_av, int32_t i_event_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    const TEventElem* p_lv = static_cast<const TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_lv != nullptr && p_lv->event == i_event_av) return true;
  }
  return false;
}

// Events are counted by the event handling that comes with the events
// registrator; until then the callback only runs its entry discipline.
void on_profile_events(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_profile_events");
  (void)p_user_av;
  (void)p_params_av;
}

// The state is taken over from the events registrator; a channel that does
// not record by events has nothing to take over.
void InitEventStatus(CWriterByEvent* p_av) {
  (void)p_av;
}
