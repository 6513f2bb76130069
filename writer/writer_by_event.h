// A channel's event state: the event types it reacts to and whether it is
// in an event. The configuration reader fills the event list, the channel
// open and reconfiguration own it, the "track_event" callback and the
// per-frame decision read it.
#pragma once

#include <cstdint>

#include "host/include/core_api.h"
#include "linux/common_use/temp/clist.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_sync.h"

class CWriter;

// The pseudo event of forced recording and its stop partner.
const int32_t I_EVENT_FORCED = 60030;
const int32_t I_EVENT_FORCED_STOP = 60031;

// One event type the channel reacts to; owned by the event list.
struct TEventElem {
  int32_t event;
  int32_t stop_event;
  CListOur* guids;  // SafeString* of started, unfinished events
  int32_t m_i_counter;
  int32_t forced;
  int32_t dur_pres;
  int64_t dur_mark;
  int64_t incr_cntr;
};

class CWriterByEvent {
 public:
  CWriterByEvent();
  ~CWriterByEvent();
  CWriterByEvent(const CWriterByEvent&) = delete;
  CWriterByEvent& operator=(const CWriterByEvent&) = delete;

  int64_t prev_write;  // ticks
  int64_t post_write;  // ticks
  int64_t m_i64_last_reset;
  int32_t m_b_event_accepted;
  CWriter* m_p_writer;
  void* m_p_prev_write;  // the pre-event ring, made on first need
  TrackHandle m_h_track_event;
  CListOur m_list_events;  // TEventElem*
  SafeString key[5];
  PlCritSect m_crit_sect_event;
  int32_t m_b_init_done;
  int32_t m_i_on_counter;
  int32_t m_b_event_seen;
  int64_t m_i64_last_dur_check;
};

// A new element for the pair; 60030 is marked forced. Null without memory.
TEventElem* EventElemCreate(int32_t i_event_av, int32_t i_stop_event_av);
void EventElemDestroy(TEventElem* p_elem_av);
// Appends a new element to the list.
void EventListAdd(CListOur* p_list_av, int32_t i_event_av, int32_t i_stop_event_av);
// Frees every element with its guids and empties the list.
void EventListClear(CListOur* p_list_av);
// True when an element for the event type is in the list.
bool EventListHas(CListOur* p_list_av, int32_t i_event_av);

// The "track_event" callback of a channel that records by events.
void on_profile_events(void* p_user_av, ProfileParam* p_params_av);
// Takes the present event state over; run by start and reconfiguration.
void InitEventStatus(CWriterByEvent* p_av);

// In an event, or within post_write after one.
int32_t DetectCondish_Vart2(CWriterByEvent* p_av);
// The condition common to every recording mode.
int32_t NeedWriteCommonCondish(CWriter* p_writer_av);
// Whether the camera records the frame that arrives now; frame path.
int32_t NeedWrite(CWriterByEvent* p_av, int32_t i_slot_av);
// Ends forced recording whose time ran out; run from NeedWrite.
void CheckForcedDuration(CWriterByEvent* p_av, int32_t i_slot_av);
