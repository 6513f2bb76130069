// Small readers over YAJL trees for the server's configuration: typed
// look-ups by one key, and the text form of a subtree, so that a camera's
// plug-in document can be written inline in the cameras file. Used by
// srv_config and srv_tracks.
#pragma once

#include <cstdint>
#include <string>

#include <yajl/yajl_tree.h>

// The member of an object by key, or null (also when node is no object).
yajl_val SrvJsonMember(yajl_val p_node_av, const char* s_key_av);
// Member as text / integer / flag. False when it is absent; *p_ok_av (when
// given) turns false when it is present with another type.
bool SrvJsonText(yajl_val p_node_av, const char* s_key_av, std::string* p_out_av, bool* p_ok_av);
bool SrvJsonInt(yajl_val p_node_av, const char* s_key_av, int64_t* p_out_av, bool* p_ok_av);
bool SrvJsonDouble(yajl_val p_node_av, const char* s_key_av, double* p_out_av, bool* p_ok_av);
bool SrvJsonBool(yajl_val p_node_av, const char* s_key_av, bool* p_out_av, bool* p_ok_av);
// Follows a path of object keys (null-terminated list) to a string.
std::string SrvJsonPathText(yajl_val p_root_av, const char* const* pp_path_av);

// The subtree as compact JSON text; numbers keep their original text.
std::string SrvJsonWrite(yajl_val p_node_av);
// A text as a JSON string literal, quotes included.
std::string SrvJsonQuote(const std::string& s_av);
