// The events registrator: one per process, inside CWriterGlobal. Posters'
// threads run its "track_event" callback; the channels' InitEventStatus
// copies from it, and the "events_register" query and the status report's
// by_events view print its elements and the channels' through
// EventElemToJson.
//
// Lock order: camera list, then a camera's event list, then an element's
// guids. A channel's list lock, when held, is outer to all of them.
#include "writer/writer_events_registrator.h"

#include <cstring>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "writer/writer_global.h"
#include "linux/common_use/service/entry_scope.h"

namespace {

const int32_t I_SIGN_REG_CAMERA = 4121;
const int32_t I_SIGN_REG_KEY = 4122;
const int32_t I_SIGN_REG_JSON = 4123;

// Room per element and the fixed part, as the texts are sized up front.
const int64_t I64_JSON_FIXED = 50;
const int64_t I64_JSON_PER_ELEM = 200;

TEventCamera* EventCameraCreate(const SafeString* p_key_av) {
  TEventCamera* p_lv = SafeNew<TEventCamera>(I_SIGN_REG_CAMERA);
  if (p_lv == nullptr) return nullptr;
  for (int i_lv = 0; i_lv < 5; i_lv++)
    SafeStringAssign(&p_lv->key[i_lv], SafeStringText(&p_key_av[i_lv]), I_SIGN_REG_KEY);
  return p_lv;
}

void EventCameraDestroy(TEventCamera* p_av) {
  if (p_av == nullptr) return;
  EventListClear(&p_av->m_list_events);
  SafeDelete(p_av);
}

// First element of the type; the caller holds the list's lock.
TEventElem* FindElem(CListOur* p_list_av, int32_t i_event_av) {
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    TEventElem* p_lv = static_cast<TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_lv != nullptr && p_lv->event == i_event_av) return p_lv;
  }
  return nullptr;
}

}  // namespace

// The registrator is made before any channel, so it hears every event of
// the run.
CEventsRegistrator::CEventsRegistrator() : m_h_track_event(0) {
  ProfileCallback cb_lv = {this, reinterpret_cast<void*>(&on_profile_events_g)};
  m_h_track_event = profile_open("track_event", &cb_lv, __FILE__, __LINE__);
}

// The track goes first: once it is closed no callback runs any more, and
// the entries can go.
CEventsRegistrator::~CEventsRegistrator() {
  if (m_h_track_event != 0) profile_close(m_h_track_event);
  m_h_track_event = 0;
  PlCritLock lock_lv(&m_list_cameras.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < m_list_cameras.m_i_count; i_lv++)
    EventCameraDestroy(static_cast<TEventCamera*>(CListOurGet(&m_list_cameras, i_lv)));
  CListOurClear(&m_list_cameras);
  for (int i_lv = 0; i_lv < 5; i_lv++) SafeStringDestroy(&key[i_lv]);
}

void on_profile_events_g(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_profile_events_g");
  ParseEventG(static_cast<CEventsRegistrator*>(p_user_av), p_params_av);
}

// Unlike a channel, the registrator keeps no half-read event: a message
// without its own key2, or with a value that does not close, is dropped
// whole. The camera list's lock also guards the keys, which posters'
// threads share.
void ParseEventG(CEventsRegistrator* p_av, ProfileParam* p_params_av) {
  if (p_av == nullptr || p_params_av == nullptr) return;
  PlCritLock lock_lv(&p_av->m_list_cameras.m_crit_sect);
  TEventMsg msg_lv;
  EventMsgRead(p_params_av, p_av->key, &msg_lv);
  if (msg_lv.b_key2_seen == 0 || msg_lv.b_read_ok == 0) return;
  if (msg_lv.b_stop_mark == 0 && msg_lv.b_start_mark == 0) return;
  StoreInfo(&p_av->m_list_cameras, p_av->key, msg_lv.b_stop_mark, msg_lv.i_event_type, msg_lv.i_stop_id, msg_lv.s_guid,
            msg_lv.i64_dur, msg_lv.b_dur_pres);
}

// Elements are made only by the start half of a pair, which names its
// stop partner; a stop that no start announced changes nothing here.
void StoreInfo(CListOur* p_cameras_av, const SafeString* p_key_av, int32_t b_stop_mark_av, int32_t i_event_av,
               int32_t i_stop_id_av, const char* s_guid_av, int64_t i64_dur_av, int32_t b_dur_pres_av) {
  PlCritLock lock_lv(&p_cameras_av->m_crit_sect);
  TEventCamera* p_cam_lv = GetCamera(p_cameras_av, p_key_av);
  TRACE44(TLOG_ARC_TRACEDECIM, "<by_ev>StoreInfo aft GetElem %d", p_cam_lv != nullptr ? 1 : 0);
  if (p_cam_lv == nullptr) {
    p_cam_lv = EventCameraCreate(p_key_av);
    if (p_cam_lv == nullptr) return;
    if (CListOurAdd(p_cameras_av, p_cam_lv) < 0) {
      EventCameraDestroy(p_cam_lv);
      return;
    }
  }
  CListOur* p_events_lv = &p_cam_lv->m_list_events;
  PlCritLock lock_events_lv(&p_events_lv->m_crit_sect);
  if (b_stop_mark_av != 0) {
    if (FindElem(p_events_lv, i_event_av) == nullptr) EventListAdd(p_events_lv, i_event_av, 0);
    EventListTeachStop(p_events_lv, i_event_av, i_stop_id_av);
  }
  TRACE44(TLOG_ARC_TRACEDECIM, "<by_ev>StoreInfo bef CorrectState");
  int32_t i_on_counter_lv = 0;
  CorrectState(-1, &i_on_counter_lv, p_events_lv, i_event_av, s_guid_av, i64_dur_av, b_dur_pres_av);
}

TEventCamera* GetCamera(CListOur* p_cameras_av, const SafeString* p_key_av) {
  const char* s_key2_lv = SafeStringText(&p_key_av[1]);
  for (int32_t i_lv = 0; i_lv < p_cameras_av->m_i_count; i_lv++) {
    TEventCamera* p_lv = static_cast<TEventCamera*>(CListOurGet(p_cameras_av, i_lv));
    if (p_lv != nullptr && strcmp(SafeStringText(&p_lv->key[1]), s_key2_lv) == 0) return p_lv;
  }
  return nullptr;
}

// The element's own guids go first; forced and incr_cntr stay the
// channel's.
void CopyElem(CListOur* p_cameras_av, const SafeString* p_key_av, TEventElem* p_elem_av) {
  PlCritLock lock_lv(&p_cameras_av->m_crit_sect);
  TEventCamera* p_cam_lv = GetCamera(p_cameras_av, p_key_av);
  if (p_cam_lv == nullptr) return;
  PlCritLock lock_events_lv(&p_cam_lv->m_list_events.m_crit_sect);
  TEventElem* p_src_lv = FindElem(&p_cam_lv->m_list_events, p_elem_av->event);
  if (p_src_lv == nullptr) return;
  EventElemClearGuids(p_elem_av);
  p_elem_av->event = p_src_lv->event;
  p_elem_av->stop_event = p_src_lv->stop_event;
  p_elem_av->m_i_counter = p_src_lv->m_i_counter;
  p_elem_av->dur_pres = p_src_lv->dur_pres;
  p_elem_av->dur_mark = p_src_lv->dur_mark;
  PlCritLock lock_guids_lv(&p_src_lv->guids->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_src_lv->guids->m_i_count; i_lv++) {
    const SafeString* p_guid_lv = static_cast<const SafeString*>(CListOurGet(p_src_lv->guids, i_lv));
    if (p_guid_lv != nullptr) EventElemAddGuid(p_elem_av, SafeStringText(p_guid_lv));
  }
}

int64_t GetIncrCounter(CListOur* p_cameras_av, const SafeString* p_key_av, const TEventElem* p_elem_av) {
  PlCritLock lock_lv(&p_cameras_av->m_crit_sect);
  TEventCamera* p_cam_lv = GetCamera(p_cameras_av, p_key_av);
  if (p_cam_lv == nullptr) return 0;
  PlCritLock lock_events_lv(&p_cam_lv->m_list_events.m_crit_sect);
  const TEventElem* p_src_lv = FindElem(&p_cam_lv->m_list_events, p_elem_av->event);
  return p_src_lv != nullptr ? p_src_lv->incr_cntr : 0;
}

// Guids are written as they came: one that is to be valid JSON brings its
// own quotes.
void EventElemToJson(TEventElem* p_elem_av, const char* s_view_av, int32_t* p_first_av, SafeString* p_out_av) {
  CListOur* p_guids_lv = p_elem_av->guids;
  PlCritLock lock_lv(&p_guids_lv->m_crit_sect);
  bool b_full_lv = s_view_av != nullptr && strcmp(s_view_av, "full") == 0;
  if (p_guids_lv->m_i_count == 0 && !b_full_lv) return;
  if (*p_first_av != 0) SafeStringAppend(p_out_av, ",\n", I_SIGN_REG_JSON);
  *p_first_av = 1;
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(p_elem_av->dur_mark), s_time_lv);
  char s_head_lv[1000];
  FormatStr(s_head_lv, sizeof(s_head_lv),
            "{\"event\":%d,\"cntr\":%d,\"incr_cntr\":%lld,\"dur_mark\":\"%s\",\"dur_pres\":%s,\"guids\":[",
            p_elem_av->event, p_elem_av->m_i_counter, static_cast<long long>(p_elem_av->incr_cntr), s_time_lv,
            p_elem_av->dur_pres != 0 ? "true" : "false");
  SafeStringAppend(p_out_av, s_head_lv, I_SIGN_REG_JSON);
  for (int32_t i_lv = 0; i_lv < p_guids_lv->m_i_count; i_lv++) {
    const SafeString* p_guid_lv = static_cast<const SafeString*>(CListOurGet(p_guids_lv, i_lv));
    if (i_lv > 0) SafeStringAppend(p_out_av, ",\n", I_SIGN_REG_JSON);
    if (p_guid_lv != nullptr) SafeStringAppend(p_out_av, SafeStringText(p_guid_lv), I_SIGN_REG_JSON);
  }
  SafeStringAppend(p_out_av, "]}", I_SIGN_REG_JSON);
}

int64_t EventListJsonSize(CListOur* p_list_av) {
  int64_t i64_size_lv = I64_JSON_FIXED;
  PlCritLock lock_lv(&p_list_av->m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_list_av->m_i_count; i_lv++) {
    TEventElem* p_elem_lv = static_cast<TEventElem*>(CListOurGet(p_list_av, i_lv));
    if (p_elem_lv == nullptr) continue;
    i64_size_lv += I64_JSON_PER_ELEM;
    PlCritLock lock_guids_lv(&p_elem_lv->guids->m_crit_sect);
    for (int32_t i_guid_lv = 0; i_guid_lv < p_elem_lv->guids->m_i_count; i_guid_lv++) {
      const SafeString* p_guid_lv = static_cast<const SafeString*>(CListOurGet(p_elem_lv->guids, i_guid_lv));
      if (p_guid_lv != nullptr) i64_size_lv += static_cast<int64_t>(strlen(SafeStringText(p_guid_lv))) + 1;
    }
  }
  return i64_size_lv;
}

// Appends then stay inside the block instead of replacing it each time. A
// size beyond what a text can hold is not reserved: appends then grow the
// text as they go.
void EventJsonReserve(SafeString* p_out_av, int64_t i64_extra_av) {
  const int64_t I64_TEXT_MAX = 0x3FFFFFFF;
  int64_t i64_len_lv = static_cast<int64_t>(strlen(SafeStringText(p_out_av)));
  if (i64_extra_av < 0 || i64_extra_av > I64_TEXT_MAX - i64_len_lv) return;
  int64_t i64_need_lv = i64_len_lv + i64_extra_av + 1;
  if (p_out_av->m_i_size >= i64_need_lv) return;
  char* p_new_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_new_lv, static_cast<int32_t>(i64_need_lv), I_SIGN_REG_JSON);
  if (p_new_lv == nullptr) return;
  memcpy(p_new_lv, SafeStringText(p_out_av), static_cast<size_t>(i64_len_lv) + 1);
  if (p_out_av->m_p_text != nullptr) SAFE_MEM_FREE(p_out_av->m_p_text);
  p_out_av->m_p_text = p_new_lv;
  p_out_av->m_i_size = static_cast<int32_t>(i64_need_lv);
}

namespace {

// One camera's line; the caller holds the camera list's lock.
void EventCameraLine(TEventCamera* p_cam_av, const char* s_view_av, SafeString* p_line_av) {
  std::string s_head_lv = std::string("{\"key1\":\"") + SafeStringText(&p_cam_av->key[0]) + "\",\"key2\":\"" +
                          SafeStringText(&p_cam_av->key[1]) + "\",\"key3\":\"" + SafeStringText(&p_cam_av->key[2]) +
                          "\",\"key4\":\"" + SafeStringText(&p_cam_av->key[3]) + "\",\n";
  CListOur* p_events_lv = &p_cam_av->m_list_events;
  PlCritLock lock_lv(&p_events_lv->m_crit_sect);
  EventJsonReserve(p_line_av, static_cast<int64_t>(s_head_lv.size()) + EventListJsonSize(p_events_lv));
  SafeStringAppend(p_line_av, s_head_lv.c_str(), I_SIGN_REG_JSON);
  SafeStringAppend(p_line_av, "\"events\":\n[", I_SIGN_REG_JSON);
  int32_t b_first_lv = 0;
  for (int32_t i_lv = 0; i_lv < p_events_lv->m_i_count; i_lv++) {
    TEventElem* p_elem_lv = static_cast<TEventElem*>(CListOurGet(p_events_lv, i_lv));
    if (p_elem_lv != nullptr) EventElemToJson(p_elem_lv, s_view_av, &b_first_lv, p_line_av);
  }
  SafeStringAppend(p_line_av, "]}", I_SIGN_REG_JSON);
}

}  // namespace

void EventsRegisterLines(CEventsRegistrator* p_av, const SafeString* p_filter_av, const char* s_view_av,
                         int64_t* p_i64_size_av, std::vector<std::string>* p_lines_av, int32_t i_slot_av) {
  (void)i_slot_av;
  if (p_av == nullptr || p_lines_av == nullptr) return;
  PlCritLock lock_lv(&p_av->m_list_cameras.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < p_av->m_list_cameras.m_i_count; i_lv++) {
    TEventCamera* p_cam_lv = static_cast<TEventCamera*>(CListOurGet(&p_av->m_list_cameras, i_lv));
    if (p_cam_lv == nullptr) continue;
    if (p_filter_av != nullptr && SafeStringTupleMatch(p_cam_lv->key, p_filter_av) == 0) continue;
    SafeString line_lv;
    EventCameraLine(p_cam_lv, s_view_av, &line_lv);
    p_lines_av->push_back(SafeStringText(&line_lv));
    if (p_i64_size_av != nullptr) *p_i64_size_av += static_cast<int64_t>(p_lines_av->back().size()) + 100;
  }
}
