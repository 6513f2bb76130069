// A channel's event state: the event types it reacts to and whether it is
// in an event. The configuration reader fills the event list, the channel
// open and reconfiguration own it, the "track_event" callback and the
// per-frame decision read it. The reading of an event message and the
// counting of one event are shared with the events registrator.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/temp/clist.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_sync.h"

class CPrevWrite;
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
  CPrevWrite* m_p_prev_write;  // the pre-event ring, made on first need; buffering thread only
  TrackHandle m_h_track_event;
  CListOur m_list_events;  // TEventElem*
  SafeString key[5];
  PlCritSect m_crit_sect_event;
  int32_t m_b_init_done;
  int32_t m_i_on_counter;
  int32_t m_b_event_seen;
  int64_t m_i64_last_dur_check;
};

// The longest guid an event message can carry: the value has to close
// inside 38 bytes counted from ",guid=".
const int32_t I_EVENT_GUID_MAX = 31;

// What one event message says. The channel and the registrator read the
// same message; each applies its own rule to what was found.
struct TEventMsg {
  int32_t i_event_type;
  int32_t b_key2_seen;  // the message carried a "key2" of its own
  int32_t b_read_ok;    // the last "sysinfo" closed every value it began
  int32_t b_stop_mark;  // ",event_stop_id=": the start half of a pair
  int32_t i_stop_id;
  int32_t b_start_mark;  // ",event_start_id=": the stop half of a pair
  char s_guid[I_EVENT_GUID_MAX + 1];
  int64_t i64_dur;  // ticks
  int32_t b_dur_pres;
};

// Checked-memory signatures of an element and of its guid list.
const int32_t I_SIGN_EVENT_ELEM = 4101;
const int32_t I_SIGN_EVENT_LIST = 4103;

// A new element for the pair; 60030 is marked forced. Null without memory,
// and then nothing of it stays allocated.
TEventElem* EventElemCreate(int32_t i_event_av, int32_t i_stop_event_av);
void EventElemDestroy(TEventElem* p_elem_av);
// Frees every guid of the element and empties its guid list.
void EventElemClearGuids(TEventElem* p_elem_av);
// Adds a copy of the text to the element's guids.
void EventElemAddGuid(TEventElem* p_elem_av, const char* s_guid_av);
// Appends a new element to the list.
void EventListAdd(CListOur* p_list_av, int32_t i_event_av, int32_t i_stop_event_av);
// Frees every element with its guids and empties the list.
void EventListClear(CListOur* p_list_av);
// True when an element for the event type is in the list.
bool EventListHas(CListOur* p_list_av, int32_t i_event_av);
// The first element whose start event is the type learns its stop partner.
void EventListTeachStop(CListOur* p_list_av, int32_t i_event_av, int32_t i_stop_id_av);

// Reads "event_type", "key1".."key3" (into p_key_av, which keeps what a
// message leaves out) and every "sysinfo" of the message.
void EventMsgRead(ProfileParam* p_params_av, SafeString* p_key_av, TEventMsg* p_out_av);
// Reads the marks, the guid and the duration of one "sysinfo" text into
// the message. 1 when every value that was begun also closed, else 0.
int32_t SysInfoRead(const char* s_text_av, TEventMsg* p_out_av);
// Applies one event to a list: the start side counts up, the stop side
// down, the on-counter follows. Camera id -1 for the registrator.
void CorrectState(int64_t i64_cam_id_av, int32_t* p_on_counter_av, CListOur* p_list_av, int32_t i_event_av,
                  const char* s_guid_av, int64_t i64_dur_av, int32_t b_dur_pres_av);

// The "track_event" callback of a channel that records by events.
void on_profile_events(void* p_user_av, ProfileParam* p_params_av);
// Enters the event state and, if the channel had stopped, asks the source
// for frames.
void OnEvent_Vart2(CWriterByEvent* p_av);
// Leaves the event state; the post-event span starts now.
void OnResetEvent(CWriterByEvent* p_av);
// In or out of the event state by the on-counter.
void RefreshStateByCounter(CWriterByEvent* p_av);
// Copies the registrator's elements of this camera into the channel's
// list; the sum of the counters.
int32_t LoadFromRegistrator(CWriterByEvent* p_av);
// Takes the present event state over; run by start and reconfiguration.
void InitEventStatus(CWriterByEvent* p_av);

// In an event, or within post_write after one.
int32_t DetectCondish_Vart2(CWriterByEvent* p_av);
// The condition common to every recording mode.
int32_t NeedWriteCommonCondish(CWriter* p_writer_av);
// Whether the camera records the frame that arrives now; frame path.
int32_t NeedWrite(CWriterByEvent* p_av, int32_t i_slot_av);
// The same decision at a local time the caller has just read for the same
// step, so that the frame's intake reads the clock once for both.
int32_t NeedWriteAt(CWriterByEvent* p_av, int32_t i_slot_av, int64_t i64_now_av);
// The event condition of the pre-event ring: the common condition holds,
// the channel records by events, and an event or its post time runs.
int32_t PrevWriteCondish(CWriterByEvent* p_av);
// 1 when the frame of this type goes direct to the archive, 0 when it goes
// to the pre-event ring, which is made here on first need. Buffering thread.
int32_t CheckDirectWrite(CWriterByEvent* p_av, uint8_t ui_type_av);
// Frees the pre-event ring with all it holds; the channel's teardown, once
// the buffering thread has ended.
void PrevWriteFree(CWriterByEvent* p_av);
// Ends forced recording whose time ran out, at the local time i64_now_av;
// run from NeedWrite.
void CheckForcedDuration(CWriterByEvent* p_av, int32_t i_slot_av, int64_t i64_now_av);
// m_i_counter of the first forced element, else 0; for the status report.
int32_t ForcedEventCounter(CWriterByEvent* p_av);
// The "cntr" and "events" fragment of the status report's by_events view.
void EventsToJson(CWriterByEvent* p_av, SafeString* p_out_av);
