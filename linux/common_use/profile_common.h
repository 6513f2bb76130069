// The plug-in's caller of another plug-in's web method: a command packed
// into JSON goes out on "trackWsServerCmd", and the answer comes back through
// a callback on "trackWsServerData". The caller waits on its own thread, at
// most five seconds. CWriterGlobal owns the one client; forced recording
// uses it to ask "rtsp:list_cameras" which camera an outside id names.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_sync.h"

// Size of the formatted request text; longer parameters are cut.
const int32_t I_SERVICE_CMD_SIZE = 4096;
// How long a caller waits for the answer.
const uint32_t UI_SERVICE_WAIT_MS = 5000;

class ServiceClient {
 public:
  ServiceClient();
  ~ServiceClient();
  ServiceClient(const ServiceClient&) = delete;
  ServiceClient& operator=(const ServiceClient&) = delete;

  TrackHandle m_h_track_cmd;
  TrackHandle m_h_track_data;
  int32_t m_b_accepted;
  volatile int32_t m_i_request_num;
  SafeString m_s_reply;
  PlEvent* m_h_event_ws_data_accept;
  // Host threads of the API may ask at the same time: one request at a time
  // goes out, and the reply, the request number and the event change
  // together, so that an answer to an old request cannot slip in between.
  PlCritSect m_crit_sect_call;
  PlCritSect m_crit_sect_reply;
};

// Sends one "rtsp:list_cameras" request with the parameters, a ready JSON
// fragment such as "id":"door-1". The reply is cleared first.
void ServiceClientRequest(ServiceClient* p_client_av, const char* s_params_av);
// Waits up to five seconds for the answer; returns the accepted flag.
int32_t ServiceClientWait(ServiceClient* p_client_av);
// Request, wait and a copy of the reply, while no other caller may use the
// client. Returns 1 when an answer arrived, the reply then in p_reply_av.
int32_t ServiceClientCall(ServiceClient* p_client_av, const char* s_params_av, SafeString* p_reply_av);
// Callback of "trackWsServerData"; the user value is the client.
void OnPluginDataServiceExchI(void* p_udata_av, ProfileParam* p_params_av);
// Blanks the first "[" and the last "]": an array of one object becomes
// that object. A null text, or one without either bracket, is left alone.
void BlankOuterBrackets(char* s_text_av);
