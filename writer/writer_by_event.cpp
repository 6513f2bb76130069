// The channel's event state: its list of event types, made by the
// configuration reader and the channel open; the "track_event" callback
// that counts events; the take-over of open events from the registrator at
// start and reconfiguration; and NeedWrite, which the frame path asks for
// every frame.
#include "writer/writer_by_event.h"

#include <cstdlib>
#include <cstring>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_events_registrator.h"
#include "writer/writer_forced.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "writer/writer_prev_write.h"
#include "linux/common_use/service/entry_scope.h"

namespace {
const int32_t I_SIGN_EVENT_GUID = 4102;
const int32_t I_SIGN_EVENT_JSON = 4104;
const int32_t I_SIGN_EVENT_KEY = 4105;
const int32_t I_SIGN_PREV_WRITE = 4106;

// Counters may be driven by any number of events: they wrap, never trap.
void Add32(int32_t* p_av, int32_t i_delta_av) {
  *p_av = static_cast<int32_t>(static_cast<uint32_t>(*p_av) + static_cast<uint32_t>(i_delta_av));
}

// The end of a limit: a duration that would run past the clock's range
// ends at its far end instead of wrapping into the past.
int64_t MarkAfter(int64_t i64_now_av, int64_t i64_dur_av) {
  if (i64_dur_av > 0 && i64_now_av > INT64_MAX - i64_dur_av) return INT64_MAX;
  return i64_now_av + i64_dur_av;
}

}  // namespace

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
  // The channel's teardown frees the ring earlier; this only keeps a
  // stray one from outliving its state.
  PrevWriteFree(this);
  EventListClear(&m_list_events);
  for (int i_lv = 0; i_lv < 5; i_lv++) SafeStringDestroy(&key[i_lv]);
}

TEventElem* EventElemCreate(int32_t i_event_av, int32_t i_stop_event_av) {
  TEventElem* p_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_lv, static_cast<int32_t>(sizeof(TEventElem)), I_SIGN_EVENT_ELEM);
  if (p_lv == nullptr) return nullptr;
  p_lv->guids = SafeNew<CListOur>(I_SIGN_EVENT_LIST);
  if (p_lv->guids == nullptr) {
    SAFE_MEM_FREE(p_lv);
    return nullptr;
  }
  p_lv->event = i_event_av;
  p_lv->stop_event = i_stop_event_av;
  p_lv->m_i_counter = 0;
  p_lv->forced = i_event_av == I_EVENT_FORCED ? 1 : 0;
  p_lv->dur_pres = 0;
  p_lv->dur_mark = 0;
  p_lv->incr_cntr = 0;
  return p_lv;
}

void EventElemClearGuids(TEventElem* p_elem_av) {
  CListOur* p_guids_lv = p_elem_av->guids;
  if (p_guids_lv == nullptr) return;
  PlCritLock lock_lv(&p_guids_lv->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_guids_lv->m_i_count; i_lv++) {
    SafeString* p_guid_lv = static_cast<SafeString*>(CListOurGet(p_guids_lv, i_lv));
    SafeDelete(p_guid_lv);
  }
  CListOurClear(p_guids_lv);
}

void EventElemAddGuid(TEventElem* p_elem_av, const char* s_guid_av) {
  SafeString* p_guid_lv = SafeNew<SafeString>(I_SIGN_EVENT_GUID);
  if (p_guid_lv == nullptr) return;
  SafeStringAssign(p_guid_lv, s_guid_av, I_SIGN_EVENT_GUID);
  if (CListOurAdd(p_elem_av->guids, p_guid_lv) < 0) SafeDelete(p_guid_lv);
}

void EventElemDestroy(TEventElem* p_elem_av) {
  if (p_elem_av == nullptr) return;
  EventElemClearGuids(p_elem_av);
  SafeDelete(p_elem_av->guids);
  SAFE_MEM_FREE(p_elem_av);
}

void EventListAdd(CListOur* p_list_av, int32_t i_event_av, int32_t i_stop_event_av) {
  TEventElem* p_lv = EventElemCreate(i_event_av, i_stop_event_av);
  if (p_lv != nullptr && CListOurAdd(p_list_av, p_lv) < 0) EventElemDestroy(p_lv);
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

namespace {

// True when the type starts or ends some element of the list.
bool EventListKnows(CListOur* p_list_av, int32_t i_event_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    const TEventElem* p_lv = static_cast<const TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_lv != nullptr && (p_lv->event == i_event_av || p_lv->stop_event == i_event_av)) return true;
  }
  return false;
}

}  // namespace

void EventListTeachStop(CListOur* p_list_av, int32_t i_event_av, int32_t i_stop_id_av) {
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    TEventElem* p_lv = static_cast<TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_lv == nullptr || p_lv->event != i_event_av) continue;
    p_lv->stop_event = i_stop_id_av;
    return;
  }
}

// ---------------------------------------------------------------------------
// Reading of an event message

namespace {

// Each piece of "sysinfo" is read from a copy of at most this many bytes
// counted from its leading comma; a value must close inside it.
const size_t UI_SYSINFO_SCRATCH = 38;

enum { PIECE_ABSENT = -1, PIECE_OPEN = 0, PIECE_READ = 1 };

// Finds the piece anywhere in the text and gives its value: what lies
// between the piece and the next comma inside the scratch copy.
int32_t SysInfoPiece(const char* s_text_av, const char* s_piece_av, char* s_value_av /* scratch + 1 */) {
  const char* p_at_lv = strstr(s_text_av, s_piece_av);
  if (p_at_lv == nullptr) return PIECE_ABSENT;
  char s_scratch_lv[UI_SYSINFO_SCRATCH + 1];
  size_t ui_len_lv = strnlen(p_at_lv, UI_SYSINFO_SCRATCH);
  memcpy(s_scratch_lv, p_at_lv, ui_len_lv);
  s_scratch_lv[ui_len_lv] = 0;
  const char* s_from_lv = s_scratch_lv + strlen(s_piece_av);
  const char* p_comma_lv = strchr(s_from_lv, ',');
  if (p_comma_lv == nullptr) return PIECE_OPEN;
  size_t ui_value_lv = static_cast<size_t>(p_comma_lv - s_from_lv);
  memcpy(s_value_av, s_from_lv, ui_value_lv);
  s_value_av[ui_value_lv] = 0;
  return PIECE_READ;
}

// A plain decimal conversion: text that is no number gives 0; a number
// beyond the range stops at its end.
int64_t Decimal(const char* s_av) { return static_cast<int64_t>(strtoll(s_av, nullptr, 10)); }

int32_t Decimal32(const char* s_av) {
  int64_t i64_lv = Decimal(s_av);
  if (i64_lv > INT32_MAX) return INT32_MAX;
  if (i64_lv < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(i64_lv);
}

// Seconds to ticks, held at the range's ends.
int64_t SecondsToTicks(int64_t i64_seconds_av) {
  const int64_t I64_LIMIT = INT64_MAX / 10000000LL;
  if (i64_seconds_av > I64_LIMIT) return I64_LIMIT * 10000000LL;
  if (i64_seconds_av < -I64_LIMIT) return -I64_LIMIT * 10000000LL;
  return i64_seconds_av * 10000000LL;
}

bool Named(const ProfileParam* p_av, const char* s_name_av) { return strcmp(p_av->name, s_name_av) == 0; }

}  // namespace

int32_t SysInfoRead(const char* s_text_av, TEventMsg* p_out_av) {
  char s_value_lv[UI_SYSINFO_SCRATCH + 1];
  int32_t i_piece_lv = SysInfoPiece(s_text_av, ",event_stop_id=", s_value_lv);
  if (i_piece_lv != PIECE_ABSENT) {
    p_out_av->b_stop_mark = 1;
    p_out_av->i_stop_id = i_piece_lv == PIECE_READ ? Decimal32(s_value_lv) : 0;
    // An id that does not close leaves the rest of the text unread.
    if (i_piece_lv == PIECE_OPEN) return 0;
  }
  if (strstr(s_text_av, ",event_start_id=") != nullptr) p_out_av->b_start_mark = 1;
  int32_t b_ok_lv = 1;
  i_piece_lv = SysInfoPiece(s_text_av, ",guid=", s_value_lv);
  if (i_piece_lv == PIECE_READ) {
    // The scratch copy holds at most I_EVENT_GUID_MAX characters of value.
    size_t ui_len_lv = strnlen(s_value_lv, I_EVENT_GUID_MAX);
    memcpy(p_out_av->s_guid, s_value_lv, ui_len_lv);
    p_out_av->s_guid[ui_len_lv] = 0;
  } else if (i_piece_lv == PIECE_OPEN) {
    b_ok_lv = 0;
  }
  i_piece_lv = SysInfoPiece(s_text_av, ",dur=", s_value_lv);
  if (i_piece_lv == PIECE_READ) {
    p_out_av->i64_dur = SecondsToTicks(Decimal(s_value_lv));
    p_out_av->b_dur_pres = 1;
  } else if (i_piece_lv == PIECE_OPEN) {
    b_ok_lv = 0;
  }
  return b_ok_lv;
}

void EventMsgRead(ProfileParam* p_params_av, SafeString* p_key_av, TEventMsg* p_out_av) {
  memset(p_out_av, 0, sizeof(*p_out_av));
  p_out_av->b_read_ok = 1;
  if (p_params_av == nullptr) return;
  for (ProfileParam* p_lv = p_params_av; p_lv->type != PP_END; p_lv++) {
    if (p_lv->name == nullptr) continue;
    if (Named(p_lv, "event_type")) {
      if (p_lv->type == PP_INT32 && p_lv->value != nullptr)
        p_out_av->i_event_type = *static_cast<int32_t*>(p_lv->value);
    } else if (Named(p_lv, "key1") || Named(p_lv, "key2") || Named(p_lv, "key3")) {
      if (p_lv->type != PP_STRING || p_lv->value == nullptr) continue;
      int32_t i_slot_lv = p_lv->name[3] - '1';
      SafeStringAssign(&p_key_av[i_slot_lv], static_cast<const char*>(p_lv->value), I_SIGN_EVENT_KEY);
      if (i_slot_lv == 1) p_out_av->b_key2_seen = 1;
    } else if (Named(p_lv, "sysinfo") && p_lv->type == PP_STRING) {
      p_out_av->b_read_ok = p_lv->value != nullptr ? SysInfoRead(static_cast<const char*>(p_lv->value), p_out_av) : 0;
    }
  }
}

// ---------------------------------------------------------------------------
// Counting

namespace {

void RemoveGuid(TEventElem* p_elem_av, const char* s_guid_av) {
  CListOur* p_guids_lv = p_elem_av->guids;
  PlCritLock lock_lv(&p_guids_lv->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_guids_lv->m_i_count; i_lv++) {
    SafeString* p_guid_lv = static_cast<SafeString*>(CListOurGet(p_guids_lv, i_lv));
    if (p_guid_lv == nullptr || strcmp(SafeStringText(p_guid_lv), s_guid_av) != 0) continue;
    CListOurRemove(p_guids_lv, p_guid_lv);
    SafeDelete(p_guid_lv);
    return;
  }
}

// A forced element is a flag: the video and the audio channel of a camera
// both post the start, and two starts must give one.
void CorrectStart(long long i64_cam_av, int32_t i_index_av, TEventElem* p_elem_av, int32_t* p_on_av,
                  const char* s_guid_av, int64_t i64_dur_av, int32_t b_dur_pres_av) {
  TRACE44(TLOG_ARC_TRACEDECIM,
          "<%lld_by_ev>writer CorrectState bef incr list ind %d event %d guid %s m_i_counter %d i_on_counter_av %d",
          i64_cam_av, i_index_av, p_elem_av->event, s_guid_av, p_elem_av->m_i_counter, *p_on_av);
  if (p_elem_av->forced != 0) {
    if (p_elem_av->m_i_counter == 0) {
      p_elem_av->m_i_counter = 1;
      Add32(p_on_av, 1);
    }
    p_elem_av->dur_pres = b_dur_pres_av != 0 ? 1 : 0;
    p_elem_av->dur_mark = b_dur_pres_av != 0 ? MarkAfter(FileTimeNowLocalI64(), i64_dur_av) : 0;
  } else {
    Add32(p_on_av, 1);
    Add32(&p_elem_av->m_i_counter, 1);
  }
  if (p_elem_av->forced == 0 && s_guid_av[0] != 0) EventElemAddGuid(p_elem_av, s_guid_av);
  TRACE44(TLOG_ARC_TRACEDECIM,
          "<%lld_by_ev>writer CorrectState aft incr event %d guid %s m_i_counter %d i_on_counter_av %d", i64_cam_av,
          p_elem_av->event, s_guid_av, p_elem_av->m_i_counter, *p_on_av);
  p_elem_av->incr_cntr++;
}

// A stop without its start drives an ordinary counter below 0; it is left
// there, so that the next start only brings it back towards 0.
void CorrectStop(long long i64_cam_av, int32_t i_index_av, TEventElem* p_elem_av, int32_t* p_on_av,
                 const char* s_guid_av) {
  TRACE44(TLOG_ARC_TRACEDECIM,
          "<%lld_by_ev>writer CorrectState bef decr list ind %d event %d guid %s  m_i_counter %d i_on_counter_av %d",
          i64_cam_av, i_index_av, p_elem_av->event, s_guid_av, p_elem_av->m_i_counter, *p_on_av);
  if (p_elem_av->forced != 0) {
    if (p_elem_av->m_i_counter == 1) {
      p_elem_av->m_i_counter = 0;
      Add32(p_on_av, -1);
    }
    p_elem_av->dur_pres = 0;
    p_elem_av->dur_mark = 0;
  } else {
    Add32(p_on_av, -1);
    Add32(&p_elem_av->m_i_counter, -1);
    if (p_elem_av->m_i_counter < 0) {
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error13> event info CorrectState : p_elem_lv->m_i_counter < 0");
      TRACE44(TLOG_ARC_TRACEDECIM, "CorrectState : on p_elem_lv->m_i_counter < 0 m_i_counter %d ",
              p_elem_av->m_i_counter);
    }
    TRACE44(TLOG_ARC_TRACEDECIM, "CorrectState : p_elem_lv->m_i_counter < 0 m_i_counter %d ", p_elem_av->m_i_counter);
  }
  if (s_guid_av[0] != 0) RemoveGuid(p_elem_av, s_guid_av);
  TRACE44(TLOG_ARC_TRACEDECIM,
          "<%lld_by_ev>writer CorrectState aft decr event %d guid %s  m_i_counter %d i_on_counter_av %d", i64_cam_av,
          p_elem_av->event, s_guid_av, p_elem_av->m_i_counter, *p_on_av);
  p_elem_av->incr_cntr++;
}

}  // namespace

void CorrectState(int64_t i64_cam_id_av, int32_t* p_on_counter_av, CListOur* p_list_av, int32_t i_event_av,
                  const char* s_guid_av, int64_t i64_dur_av, int32_t b_dur_pres_av) {
  const char* s_guid_lv = s_guid_av != nullptr ? s_guid_av : "";
  long long i64_cam_lv = static_cast<long long>(i64_cam_id_av);
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    TEventElem* p_elem_lv = static_cast<TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_elem_lv == nullptr) continue;
    // Both sides are tried: an element whose start and stop are one type
    // gets both.
    if (i_event_av == p_elem_lv->event)
      CorrectStart(i64_cam_lv, i_lv, p_elem_lv, p_on_counter_av, s_guid_lv, i64_dur_av, b_dur_pres_av);
    if (i_event_av == p_elem_lv->stop_event) CorrectStop(i64_cam_lv, i_lv, p_elem_lv, p_on_counter_av, s_guid_lv);
    TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev>writer CorrectState aft change m_i_counter %d i_on_counter_av %d",
            i64_cam_lv, p_elem_lv->m_i_counter, *p_on_counter_av);
    if (*p_on_counter_av >= 0) continue;
    TRACE44(TLOG_ARC_TRACEDECIM,
            "<%lld_by_ev>writer CorrectState i_on_counter_av < 0  m_i_counter %d i_on_counter_av %d", i64_cam_lv,
            p_elem_lv->m_i_counter, *p_on_counter_av);
    if (i64_cam_id_av != -1)
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error> CorrectState : i_on_counter_av < 0 i_on_counter_av %d", *p_on_counter_av);
  }
}

// ---------------------------------------------------------------------------
// Entering and leaving the event state

namespace {

TCameraInfoW* Info(CWriterByEvent* p_av) {
  return p_av->m_p_writer != nullptr ? p_av->m_p_writer->m_camera_info_w : nullptr;
}

bool ByEvents(CWriterByEvent* p_av) {
  TCameraInfoW* p_info_lv = Info(p_av);
  return p_info_lv != nullptr && AtomicGet(&p_info_lv->m_b_write_by_event) != 0;
}

long long CamId(CWriterByEvent* p_av) {
  TCameraInfoW* p_info_lv = Info(p_av);
  return p_info_lv != nullptr ? static_cast<long long>(InfoCamId(p_info_lv)) : 0;
}

// One event message for this channel, under the event lock.
void OnEventMessage(CWriterByEvent* p_av, ProfileParam* p_params_av) {
  TCameraInfoW* p_info_lv = Info(p_av);
  TEventMsg msg_lv;
  EventMsgRead(p_params_av, p_av->key, &msg_lv);
  if (msg_lv.b_stop_mark == 0 && msg_lv.b_start_mark == 0) return;
  if (!EventListKnows(&p_av->m_list_events, msg_lv.i_event_type)) return;
  // A message without "key2" is judged by the key2 of the one before it.
  if (strcmp(SafeStringText(&p_av->key[1]), SafeStringText(&p_info_lv->m_s_arc_keys[1])) != 0) return;
  if (msg_lv.b_stop_mark != 0) EventListTeachStop(&p_av->m_list_events, msg_lv.i_event_type, msg_lv.i_stop_id);
  AtomicPut(&p_av->m_b_event_seen, 1);
  CorrectState(CamId(p_av), &p_av->m_i_on_counter, &p_av->m_list_events, msg_lv.i_event_type, msg_lv.s_guid,
               msg_lv.i64_dur, msg_lv.b_dur_pres);
  if (AtomicGet(&p_av->m_b_init_done) == 0) return;
  TRACE44(TLOG_ARC_TRACEDECIM,
          "<%lld_by_ev>writer on_profile_events bef RefreshStateByCounter m_i_on_counter %d guid %s", CamId(p_av),
          AtomicGet(&p_av->m_i_on_counter), msg_lv.s_guid);
  RefreshStateByCounter(p_av);
}

}  // namespace

void on_profile_events(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_profile_events");
  CWriterByEvent* p_lv = static_cast<CWriterByEvent*>(p_user_av);
  if (p_lv == nullptr) return;
  PlCritLock lock_lv(&p_lv->m_crit_sect_event);
  if (!ByEvents(p_lv) || p_params_av == nullptr) return;
  OnEventMessage(p_lv, p_params_av);
}

// A start inside the post-event span finds the channel still recording:
// the source is asked for frames only when it had stopped.
void OnEvent_Vart2(CWriterByEvent* p_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  int64_t i64_now_lv = FileTimeNowLocalI64();
  AtomicPut(&p_av->m_b_event_accepted, 1);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev> OnEvent_Vart2", CamId(p_av));
  if (AtomicGet(&p_av->post_write) >= i64_now_lv - AtomicGet(&p_av->m_i64_last_reset)) return;
  AtomicPut(&p_writer_lv->m_status.m_i64_last_detect, i64_now_lv);
  int32_t i_task_lv = p_writer_lv->m_p_schedule != nullptr ? p_writer_lv->m_p_schedule->m_i_task_id : -1;
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev> task id %d writer: OnEvent, get", CamId(p_av), i_task_lv);
  WriterAskFrames(p_writer_lv);
  AtomicPut(&p_writer_lv->m_status.m_i64_sched_last_get, i64_now_lv);
}

void OnResetEvent(CWriterByEvent* p_av) {
  AtomicPut(&p_av->m_b_event_accepted, 0);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev> OnResetEvent", CamId(p_av));
  AtomicPut(&p_av->m_i64_last_reset, FileTimeNowLocalI64());
}

void RefreshStateByCounter(CWriterByEvent* p_av) {
  if (AtomicGet(&p_av->m_i_on_counter) < 1)
    OnResetEvent(p_av);
  else
    OnEvent_Vart2(p_av);
}

// ---------------------------------------------------------------------------
// Take-over from the registrator

namespace {

CEventsRegistrator* Registrator() {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  return p_global_lv != nullptr ? &p_global_lv->m_events_registrator : nullptr;
}

// How many changes the registrator has applied to this channel's event
// types; a 32-bit sum.
int32_t RegistratorChanges(CWriterByEvent* p_av) {
  CEventsRegistrator* p_reg_lv = Registrator();
  TCameraInfoW* p_info_lv = Info(p_av);
  if (p_reg_lv == nullptr || p_info_lv == nullptr) return 0;
  uint32_t ui_sum_lv = 0;
  PlCritLock lock_lv(&p_av->m_list_events.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_av->m_list_events.m_i_count; i_lv++) {
    const TEventElem* p_elem_lv = static_cast<const TEventElem*>(CListOurGet(&p_av->m_list_events, i_lv));
    if (p_elem_lv != nullptr)
      ui_sum_lv += static_cast<uint32_t>(GetIncrCounter(&p_reg_lv->m_list_cameras, p_info_lv->m_s_arc_keys, p_elem_lv));
  }
  return static_cast<int32_t>(ui_sum_lv);
}

}  // namespace

// The channel's list lock is outer to every lock of the registrator.
int32_t LoadFromRegistrator(CWriterByEvent* p_av) {
  CEventsRegistrator* p_reg_lv = Registrator();
  TCameraInfoW* p_info_lv = Info(p_av);
  int32_t i_sum_lv = 0;
  PlCritLock lock_lv(&p_av->m_list_events.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_av->m_list_events.m_i_count; i_lv++) {
    TEventElem* p_elem_lv = static_cast<TEventElem*>(CListOurGet(&p_av->m_list_events, i_lv));
    if (p_elem_lv == nullptr) continue;
    if (p_reg_lv != nullptr && p_info_lv != nullptr)
      CopyElem(&p_reg_lv->m_list_cameras, p_info_lv->m_s_arc_keys, p_elem_lv);
    Add32(&i_sum_lv, p_elem_lv->m_i_counter);
  }
  AtomicPut(&p_av->m_i_on_counter, i_sum_lv);
  return i_sum_lv;
}

// The host answers the empty message by replaying the events it holds.
// Events may reach the registrator and this channel in either order, so
// the copy is taken again until a pass sees no change.
void InitEventStatus(CWriterByEvent* p_av) {
  if (!ByEvents(p_av)) return;
  AtomicPut(&p_av->m_b_init_done, 0);
  for (;;) {
    AtomicPut(&p_av->m_b_event_seen, 0);
    int32_t i_before_lv = RegistratorChanges(p_av);
    ProfileParam empty_lv[] = {{PP_END, nullptr, nullptr}};
    BusData(p_av->m_h_track_event, empty_lv);
    LoadFromRegistrator(p_av);
    int32_t i_after_lv = RegistratorChanges(p_av);
    if (AtomicGet(&p_av->m_b_event_seen) == 0 && i_before_lv == i_after_lv) break;
    PlSleep(10);
  }
  AtomicPut(&p_av->m_b_init_done, 1);
  PlCritLock lock_lv(&p_av->m_crit_sect_event);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_by_ev>writer InitEventStatus bef RefreshStateByCounter m_i_on_counter %d",
          CamId(p_av), AtomicGet(&p_av->m_i_on_counter));
  RefreshStateByCounter(p_av);
}

// ---------------------------------------------------------------------------
// The decision for one frame

namespace {

const int64_t I64_LATCH_PAUSE = 6000000000LL;         // 10 minutes
const int64_t I64_FORCED_CHECK_PERIOD = 100000000LL;  // 10 s

// The schedule lets the frame in: inside its plan, or no plan at all.
int32_t ScheduleGate(const CWriter* p_writer_av, int32_t* p_state_av, int32_t* p_present_av) {
  const WriterSchedule* p_sched_lv = p_writer_av->m_p_schedule;
  *p_state_av = p_sched_lv != nullptr ? AtomicGet(&p_sched_lv->m_b_state) : 0;
  *p_present_av = p_sched_lv != nullptr ? AtomicGet(&p_sched_lv->m_b_is_shedule_present) : 0;
  return *p_state_av != 0 || *p_present_av == 0 ? 1 : 0;
}

// Forced spans whose limit ran out lose their limit; their number.
int32_t TakeExpiredForced(CListOur* p_list_av, int64_t i64_now_av) {
  int32_t i_count_lv = 0;
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    TEventElem* p_elem_lv = static_cast<TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_elem_lv == nullptr || p_elem_lv->forced == 0 || p_elem_lv->event != I_EVENT_FORCED) continue;
    if (p_elem_lv->dur_pres == 0 || p_elem_lv->dur_mark >= i64_now_av) continue;
    p_elem_lv->dur_pres = 0;
    p_elem_lv->dur_mark = 0;
    i_count_lv++;
  }
  return i_count_lv;
}

}  // namespace

int32_t DetectCondish_Vart2(CWriterByEvent* p_av) {
  if (AtomicGet(&p_av->m_b_event_accepted) != 0) return 1;
  int64_t i64_since_lv = FileTimeNowLocalI64() - AtomicGet(&p_av->m_i64_last_reset);
  return i64_since_lv < AtomicGet(&p_av->post_write) ? 1 : 0;
}

// The pause of recording would attach here: the write-off flag and the
// write-failure latch, which nothing in this program sets.
namespace {

// The common conditions at the local time i64_now_av.
int32_t CommonCondishAt(CWriter* p_writer_av, int64_t i64_now_av) {
  if (p_writer_av->m_camera_info_w != nullptr && AtomicGet(&p_writer_av->m_camera_info_w->m_b_write_off) != 0) return 0;
  if (AtomicGet(&p_writer_av->m_i_write_flag) == 0) return 1;
  return i64_now_av > AtomicGet(&p_writer_av->m_i64_last_need_time) + I64_LATCH_PAUSE ? 1 : 0;
}

}  // namespace

int32_t NeedWriteCommonCondish(CWriter* p_writer_av) {
  return CommonCondishAt(p_writer_av, FileTimeNowLocalI64());
}

// A limit can overrun by the 10 s pace of the check, and only frames run
// it. The stop goes out as after a command and comes back through the bus
// to every channel of the camera. It is posted after the list's lock is
// left: the delivery takes the event lock of each channel, which is outer
// to the list's lock.
void CheckForcedDuration(CWriterByEvent* p_av, int32_t i_slot_av, int64_t i64_now_lv) {
  if (!ByEvents(p_av)) return;
  if (p_av->m_i64_last_dur_check + I64_FORCED_CHECK_PERIOD >= i64_now_lv) return;
  p_av->m_i64_last_dur_check = i64_now_lv;
  int32_t i_expired_lv = TakeExpiredForced(&p_av->m_list_events, i64_now_lv);
  if (i_expired_lv == 0) return;
  SafeString key2_lv;
  SafeStringAssign(&key2_lv, SafeStringText(&Info(p_av)->m_s_arc_keys[1]), I_SIGN_EVENT_KEY);
  for (int32_t i_lv = 0; i_lv < i_expired_lv; i_lv++) SendForcedEvent(SafeStringText(&key2_lv), 0, 0, 0, i_slot_av);
}

int32_t NeedWrite(CWriterByEvent* p_av, int32_t i_slot_av) {
  // One reading of the local time serves the whole decision.
  return NeedWriteAt(p_av, i_slot_av, FileTimeNowLocalI64());
}

int32_t NeedWriteAt(CWriterByEvent* p_av, int32_t i_slot_av, int64_t i64_now_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  CheckForcedDuration(p_av, i_slot_av, i64_now_av);
  int32_t b_common_lv = CommonCondishAt(p_writer_lv, i64_now_av);
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
    AtomicPut(&p_writer_lv->m_i64_last_need_time, i64_now_av);
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

int32_t PrevWriteCondish(CWriterByEvent* p_av) {
  CWriter* p_writer_lv = p_av->m_p_writer;
  if (p_writer_lv == nullptr || NeedWriteCommonCondish(p_writer_lv) != 1 || !ByEvents(p_av)) return 0;
  return DetectCondish_Vart2(p_av) == 1 ? 1 : 0;
}

// While an event is on with the ring empty, frames bypass the ring; and
// the ring only ever starts at a key frame a player can begin with, so
// frames before the first one go direct.
int32_t CheckDirectWrite(CWriterByEvent* p_av, uint8_t ui_type_av) {
  if (p_av->m_p_prev_write == nullptr)
    p_av->m_p_prev_write = SafeNew<CPrevWrite>(I_SIGN_PREV_WRITE, p_av->m_p_writer, static_cast<int64_t>(CamId(p_av)));
  CPrevWrite* p_ring_lv = p_av->m_p_prev_write;
  // Without memory for the ring nothing is held back.
  if (p_ring_lv == nullptr) return 1;
  if (PrevWriteCondish(p_av) == 1 && p_ring_lv->m_p_buffs[0] == nullptr) return 1;
  if (p_ring_lv->m_b_first_key_seen == 0) p_ring_lv->m_b_first_key_seen = PrevIsUsableKey(p_ring_lv, ui_type_av);
  return p_ring_lv->m_b_first_key_seen == 0 ? 1 : 0;
}

void PrevWriteFree(CWriterByEvent* p_av) { SafeDelete(p_av->m_p_prev_write); }

// ---------------------------------------------------------------------------
// For the status report

int32_t ForcedEventCounter(CWriterByEvent* p_av) {
  PlCritLock lock_lv(&p_av->m_list_events.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_av->m_list_events.m_i_count; i_lv++) {
    const TEventElem* p_elem_lv = static_cast<const TEventElem*>(CListOurGet(&p_av->m_list_events, i_lv));
    if (p_elem_lv != nullptr && p_elem_lv->event == I_EVENT_FORCED) return p_elem_lv->m_i_counter;
  }
  return 0;
}

void EventsToJson(CWriterByEvent* p_av, SafeString* p_out_av) {
  if (p_av == nullptr || p_out_av == nullptr) return;
  CListOur* p_list_lv = &p_av->m_list_events;
  PlCritLock lock_lv(&p_list_lv->m_crit_sect);
  EventJsonReserve(p_out_av, EventListJsonSize(p_list_lv));
  char s_head_lv[48];
  FormatStr(s_head_lv, sizeof(s_head_lv), "\"cntr\":%d,", AtomicGet(&p_av->m_i_on_counter));
  SafeStringAppend(p_out_av, s_head_lv, I_SIGN_EVENT_JSON);
  SafeStringAppend(p_out_av, "\"events\":\n[", I_SIGN_EVENT_JSON);
  int32_t b_first_lv = 0;
  for (int32_t i_lv = 0; i_lv < p_list_lv->m_i_count; i_lv++) {
    TEventElem* p_elem_lv = static_cast<TEventElem*>(CListOurGet(p_list_lv, i_lv));
    if (p_elem_lv != nullptr) EventElemToJson(p_elem_lv, "", &b_first_lv, p_out_av);
  }
  SafeStringAppend(p_out_av, "]", I_SIGN_EVENT_JSON);
}
