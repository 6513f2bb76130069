// The channel's event state: its list of event types, made by the
// configuration reader and the channel open, and the entry points that the
// event track and the channel start use.
#include "writer/writer_by_event.h"

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "writer/writer_atomic.h"
#include "writer/writer_main.h"
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

namespace {

const int64_t I64_LATCH_PAUSE = 6000000000LL;      // 10 minutes
const int64_t I64_FORCED_CHECK_PERIOD = 100000000LL;  // 10 s

int64_t NowLocal() { return static_cast<int64_t>(FileTimeNowLocal()); }

// The schedule lets the frame in: inside its plan, or no plan at all.
int32_t ScheduleGate(const CWriter* p_writer_av, int32_t* p_state_av, int32_t* p_present_av) {
  const WriterSchedule* p_sched_lv = p_writer_av->m_p_schedule;
  *p_state_av = p_sched_lv != nullptr ? AtomicGet(&p_sched_lv->m_b_state) : 0;
  *p_present_av = p_sched_lv != nullptr ? AtomicGet(&p_sched_lv->m_b_is_shedule_present) : 0;
  return *p_state_av != 0 || *p_present_av == 0 ? 1 : 0;
}

}  // namespace

int32_t DetectCondish_Vart2(CWriterByEvent* p_av) {
  if (AtomicGet(&p_av->m_b_event_accepted) != 0) return 1;
  int64_t i64_since_lv = NowLocal() - AtomicGet(&p_av->m_i64_last_reset);
  return i64_since_lv < AtomicGet(&p_av->post_write) ? 1 : 0;
}

// The pause of recording would attach here: the write-off flag and the
// write-failure latch, which nothing in this program sets.
int32_t NeedWriteCommonCondish(CWriter* p_writer_av) {
  if (p_writer_av->m_camera_info_w != nullptr && AtomicGet(&p_writer_av->m_camera_info_w->m_b_write_off) != 0)
    return 0;
  if (AtomicGet(&p_writer_av->m_i_write_flag) == 0) return 1;
  return NowLocal() > AtomicGet(&p_writer_av->m_i64_last_need_time) + I64_LATCH_PAUSE ? 1 : 0;
}

// Forced recording is ended by the forced-recording command's stop event;
// until that is built, only the pace of the check is kept.
void CheckForcedDuration(CWriterByEvent* p_av, int32_t i_slot_av) {
  (void)i_slot_av;
  CWriter* p_writer_lv = p_av->m_p_writer;
  if (p_writer_lv == nullptr || p_writer_lv->m_camera_info_w == nullptr ||
      AtomicGet(&p_writer_lv->m_camera_info_w->m_b_write_by_event) == 0)
    return;
  int64_t i64_now_lv = NowLocal();
  if (p_av->m_i64_last_dur_check + I64_FORCED_CHECK_PERIOD >= i64_now_lv) return;
  p_av->m_i64_last_dur_check = i64_now_lv;
}

int32_t NeedWrite(CWriterByEvent* p_av, int32_t i_slot_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  CheckForcedDuration(p_av, i_slot_av);
  int32_t b_common_lv = NeedWriteCommonCondish(p_writer_lv);
  int32_t b_by_event_lv = AtomicGet(&p_writer_lv->m_camera_info_w->m_b_write_by_event) != 0 ? 1 : 0;
  int32_t b_prev_lv = AtomicGet(&p_av->prev_write) > 0 ? 1 : 0;
  int32_t b_detect_lv = b_by_event_lv != 0 && b_prev_lv == 0 ? DetectCondish_Vart2(p_av) : 0;
  int32_t b_state_lv = 0;
  int32_t b_present_lv = 0;
  int32_t b_gate_lv = ScheduleGate(p_writer_lv, &b_state_lv, &b_present_lv);
  int32_t b_result_lv = 0;
  if (b_common_lv != 0 && b_gate_lv != 0) b_result_lv = b_by_event_lv == 0 || b_prev_lv != 0 || b_detect_lv != 0;
  long long i64_cam_lv = static_cast<long long>(InfoCamId(p_writer_lv->m_camera_info_w));
  if (b_result_lv != 0) {
    AtomicPut(&p_writer_lv->m_i64_last_need_time, NowLocal());
  } else {
    TRACE45(TLOG_ARC_TRACE, TSEV_TRACE,
            "<sched2%lld> !NeedWriteCommonCondish %dwrite_by_event %dIsPrevWrite %dDetectCondish_Vart2 %dm_b_state "
            "%dm_b_is_shedule_present %d",
            i64_cam_lv, b_common_lv, b_by_event_lv, b_prev_lv, b_detect_lv, b_state_lv, b_present_lv);
  }
  StableMark(i_slot_av, 21031);
  AtomicPut(&p_writer_lv->m_status.m_b_sched, b_gate_lv);
  StableMark(i_slot_av, 21032);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE,
          "<by_event%lld>CWriter::NeedWrite %d, write_by_event() %d, m_b_event_accepted %d  shed state %d shed pres "
          "%d ",
          i64_cam_lv, b_result_lv, b_by_event_lv, AtomicGet(&p_av->m_b_event_accepted), b_state_lv, b_present_lv);
  return b_result_lv;
}
