// The query dispatch: every question to the plug-in meets in QueryExec.
// dll_exec hands it the JSON text of an "exec" request, in which "query_id"
// names the query; the web-service methods hand it their method name and
// params text. Answers are JSON texts, except for the help text.
#pragma once

#include <cstdint>

class SafeString;

// Runs the query that the method text (when not null) or else the JSON
// text's "query_id" names, on the asking thread, and writes its answer into
// out. A query with nothing to answer leaves out as it came in.
void QueryExec(const char* s_method_av, const char* s_json_av, SafeString* p_out_av, int32_t i_slot_av);
