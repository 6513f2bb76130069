// writer-host's HTTP server: the web front's routes over the plug-in's
// methods and queries, forced recording and events, what the archive holds,
// /metrics and the dashboard. Built on cpp-httplib; each request runs on one
// of a few pool threads, with a bounded body and read/write time-outs, and
// calls into the plug-in and the bus the way the host's own threads do.
#pragma once

#include <string>

#include "host/server/srv_metrics.h"

struct SrvHttp;

// Largest request body taken; a longer one is answered 413.
const size_t SRV_HTTP_MAX_BODY = 64 * 1024;

// Binds host:port (0: any free port) and serves on a thread of its own. The
// bound address ("127.0.0.1:PORT") goes to bound. Null with a message when
// the address cannot be bound. The view must outlive the server.
SrvHttp* SrvHttpStart(const SrvRunView& view_av, const std::string& s_host_av, int i_port_av,
                      const std::string& s_token_av, std::string* p_bound_av, std::string* p_error_av);
// Stops listening, lets the requests under way end, and frees the server.
void SrvHttpStop(SrvHttp* p_av);

// The token check of write routes: "Bearer TOKEN" against the token, in a
// time that does not depend on where they differ. An empty token lets all in.
bool SrvHttpTokenOk(const std::string& s_token_av, const std::string& s_authorization_av);
// Query names that change the plug-in's state; they want the token.
bool SrvHttpQueryWrites(const std::string& s_query_id_av);
// A camera or folder name taken from a path: false for anything that could
// name another folder (separators, "..", control characters).
bool SrvHttpSafeName(const std::string& s_name_av);
