// The query dispatch: every question to the plug-in meets in QueryExec.
// dll_exec hands it the JSON text of an "exec" request, in which "query_id"
// names the query; the web-service methods hand it their method name and
// params text. Answers are JSON texts, except for the help text.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"

class SafeString;

// Runs the query that the method text (when not null) or else the JSON
// text's "query_id" names, on the asking thread, and writes its answer into
// out. A query with nothing to answer leaves out as it came in.
void QueryExec(const char* s_method_av, const char* s_json_av, SafeString* p_out_av, int32_t i_slot_av);

// The plug-in as a method provider of the host's web-service front: on
// "trackWsListMethods" it registers "vers", "GetStatus", "events_register"
// and "GetError" whenever the front asks ("request"); on
// "plugin_methods_writer" it takes the front's calls, runs them through
// QueryExec and answers on the same track before the call returns. Made by
// CWriterGlobal's constructor, destroyed by its destructor.
class CWriterWebService {
 public:
  CWriterWebService();
  ~CWriterWebService();
  CWriterWebService(const CWriterWebService&) = delete;
  CWriterWebService& operator=(const CWriterWebService&) = delete;

  TrackHandle m_h_track_methods;  // "plugin_methods_writer": calls in, answers out
  TrackHandle m_h_track_list;     // "trackWsListMethods": registration out
};

// Callback of "trackWsListMethods": a "request" is answered with the four
// registrations; anything else is ignored.
void on_plugin_result(void* p_user_av, ProfileParam* p_params_av);
// Callback of "plugin_methods_writer": one "call" of a method.
void on_plugin_data2(void* p_user_av, ProfileParam* p_params_av);
// Runs one registered method and sends its answer.
void RequestExec(CWriterWebService* p_av, const char* s_method_av, const char* s_params_av, void* p_owner_data_av,
                 int32_t i_slot_av);
// The good answer of a call: "cmd" "result", "json" and the caller's
// "owner_data".
void SendResult(CWriterWebService* p_av, void* p_owner_data_av, const SafeString* p_result_av);
