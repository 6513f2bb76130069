// The host's web-service front on the bus: it asks the plug-ins for their
// methods on "trackWsListMethods" ("request"), keeps every registration with
// its parameters and help text, and calls a method on its provider's track
// ("plugin_methods_writer") the way the front would, returning the answer.
// Opened by main after dll_init, closed before dll_free; the HTTP routes
// (srv_http) call it from their threads.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "include/host/core_api.h"

// One method as a provider registered it.
struct SrvWebMethod {
  std::string m_s_plugin;
  std::string m_s_name;
  std::string m_s_in_track;
  std::string m_s_params;  // the provider's parameter list, a JSON text or empty
  std::string m_s_help;    // its help text, as sent (not always JSON)
};

// How a call ended.
enum SrvWebCallResult {
  SRV_WEB_ANSWERED = 0,   // the provider's "json" answer
  SRV_WEB_REFUSED = 1,    // the provider's "error" answer: it does not know the method
  SRV_WEB_NO_ANSWER = 2   // nobody took the call, or no answer came back
};

struct SrvWebFront {
  TrackHandle m_h_list = 0;
  TrackHandle m_h_methods = 0;
  std::mutex m_call_mutex;  // one call at a time: the answer is matched to the call under way
  std::mutex m_list_mutex;  // guards m_methods
  std::vector<SrvWebMethod> m_methods;
  bool m_b_print = true;
  // The answer of the call under way: its "json" or its "error".
  const void* m_p_pending = nullptr;
  std::string m_s_answer;
  bool m_b_answered = false;
  bool m_b_error = false;
};

// Joins both tracks and sends "request": the plug-in registers at once.
void SrvWebOpen(SrvWebFront* p_av);
void SrvWebClose(SrvWebFront* p_av);
// The registrations heard so far, in order.
std::vector<SrvWebMethod> SrvWebMethods(SrvWebFront* p_av);
// Calls one method with its params text (may be null); answer is the
// provider's "json" or "error" text.
SrvWebCallResult SrvWebCall(SrvWebFront* p_av, const char* s_method_av, const char* s_params_av,
                            std::string* p_answer_av);
