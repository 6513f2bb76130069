// Forced recording: an outside client orders a camera to record now, for a
// time or until told to stop, with "start_recording" / "stop_recording" on
// the host's "track_vp-api", and gets a small XML answer there. The order
// becomes a pair of system events, 60030 and 60031, which reach the
// channels and the registrator like any other event, so it works where
// recording by events is on. CWriterGlobal opens and closes the track; the
// forced-duration check of the event state posts the stop of a timed span.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/profile_common.h"
#include "linux/common_use/temp/tools.h"

// The answers on "track_vp-api"; every failure gets the second.
extern const char* const S_FORCED_ANSWER_OK;
extern const char* const S_FORCED_ANSWER_NOT_AVAILABLE;

// The binding of "track_vp-api", owned by CWriterGlobal.
struct TForcedBinding {
  TrackHandle m_h_track;
};

// One command, on the stack of the API's thread.
class TForcedRequest {
 public:
  TForcedRequest();
  TForcedRequest(const TForcedRequest&) = delete;
  TForcedRequest& operator=(const TForcedRequest&) = delete;

  int32_t m_b_found;
  SafeString m_s_key2;
  SafeString m_s_id;
  ServiceClient* m_p_client;  // the global client that finds the camera
  int64_t m_i64_dur;
  int32_t m_b_dur_present;
};

// Opens "track_vp-api" with profile_writer_forced_f; null when out of memory.
TForcedBinding* ForcedBindingOpen();
// Closes the track (no command runs after it) and frees the record.
void ForcedBindingClose(TForcedBinding*& p_binding_av);

// Callback of "track_vp-api"; the user value is the binding.
void profile_writer_forced_f(void* p_user_av, TrackHandle h_track_av, int32_t i_kind_av, ProfileParam* p_params_av);
// Reads "args": the camera's "id", and the duration, which travels as a
// value-less element named by its digits.
void ParseForcedArgs(TForcedRequest* p_req_av, const ProfileParam* p_args_av);
// Asks "rtsp:list_cameras" for key2 of the id; waits up to five seconds.
void ForcedFindCamera(TForcedRequest* p_req_av);

// Posts the start (with its duration when one is given) or the stop for
// every channel of key2 that records by events. The result is the
// by-events flag of the last channel of key2, or 0 when there is none.
int32_t SendForcedEvent(const char* s_key2_av, int32_t b_start_av, int64_t i64_dur_av, int32_t b_dur_present_av,
                        int32_t i_slot_av);
