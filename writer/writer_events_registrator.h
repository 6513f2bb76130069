// The process-wide memory of open events. It listens to "track_event" from
// the start of the library, for every camera and event type, and keeps per
// camera the same kind of event list that a channel keeps. A channel that
// starts or is reconfigured copies its state from here; the
// "events_register" query shows it. Lives inside CWriterGlobal.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "include/host/core_api.h"
#include "linux/common_use/temp/clist.h"
#include "linux/common_use/temp/tools.h"
#include "writer/writer_by_event.h"

// One camera that has had an event, known by key2; owned by the registrator.
struct TEventCamera {
  SafeString key[5];       // key1, key2, key3 of its first event; the last two empty
  CListOur m_list_events;  // TEventElem*
};

class CEventsRegistrator {
 public:
  CEventsRegistrator();
  ~CEventsRegistrator();
  CEventsRegistrator(const CEventsRegistrator&) = delete;
  CEventsRegistrator& operator=(const CEventsRegistrator&) = delete;

  CListOur m_list_cameras;  // TEventCamera*; entries live until the end
  TrackHandle m_h_track_event;
  SafeString key[5];  // keys of the last event message
};

// The "track_event" callback; the user value is the registrator.
void on_profile_events_g(void* p_user_av, ProfileParam* p_params_av);
// Reads one message and stores it when it is one half of a pair.
void ParseEventG(CEventsRegistrator* p_av, ProfileParam* p_params_av);
// Applies one event to the camera of key2, making camera and element as
// the start half of a pair announces them.
void StoreInfo(CListOur* p_cameras_av, const SafeString* p_key_av, int32_t b_stop_mark_av, int32_t i_event_av,
               int32_t i_stop_id_av, const char* s_guid_av, int64_t i64_dur_av, int32_t b_dur_pres_av);
// First camera with equal key2; the caller holds the camera list's lock.
TEventCamera* GetCamera(CListOur* p_cameras_av, const SafeString* p_key_av);
// Fills the element with the registrator's element of the same event type
// of the camera of key2; untouched when there is none.
void CopyElem(CListOur* p_cameras_av, const SafeString* p_key_av, TEventElem* p_elem_av);
// incr_cntr of the registrator's element of the same event type, else 0.
int64_t GetIncrCounter(CListOur* p_cameras_av, const SafeString* p_key_av, const TEventElem* p_elem_av);
// Appends one element as JSON. Without open guids the element is shown
// only with the view "full". The flag says whether an element came before.
void EventElemToJson(TEventElem* p_elem_av, const char* s_view_av, int32_t* p_first_av, SafeString* p_out_av);
// What the JSON of a list of elements needs, for sizing the text up front.
int64_t EventListJsonSize(CListOur* p_list_av);
// Grows the text's block so that that many more bytes append in place.
void EventJsonReserve(SafeString* p_out_av, int64_t i64_extra_av);
// The answer lines of "events_register": one per camera that passes the
// filter (five keys, empty ones match anything); each line's length plus
// 100 is added to the size.
void EventsRegisterLines(CEventsRegistrator* p_av, const SafeString* p_filter_av /* five keys */, const char* s_view_av,
                         int64_t* p_i64_size_av, std::vector<std::string>* p_lines_av, int32_t i_slot_av);
