// The host's web-service front, as far as writer-host needs it: it asks the
// plug-in for its methods on "trackWsListMethods" ("request"), prints one
// line per method registered, and calls a method on the plug-in's track
// "plugin_methods_writer" the way the front would, returning the answer.
// Opened by main after dll_init, closed before dll_free.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "include/host/core_api.h"

struct SrvWebFront {
  TrackHandle m_h_list = 0;
  TrackHandle m_h_methods = 0;
  std::mutex m_mutex;
  // "plugin method: in_track" of every registration heard, in order.
  std::vector<std::string> m_registered;
  bool m_b_print = true;
  // The answer of the call under way: its "json" or its "error".
  const void* m_p_pending = nullptr;
  std::string m_s_answer;
  bool m_b_answered = false;
};

// Joins both tracks and sends "request": the plug-in registers at once.
void SrvWebOpen(SrvWebFront* p_av);
void SrvWebClose(SrvWebFront* p_av);
// Calls one method with its params text (may be null). True when a
// provider took the call and answered; answer is then its "json" or, for a
// method the provider does not know, "error: " and its text.
bool SrvWebCall(SrvWebFront* p_av, const char* s_method_av, const char* s_params_av, std::string* p_answer_av);
