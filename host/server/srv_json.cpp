// Small readers over YAJL trees for the server's configuration (see
// srv_json.h). Called while the cameras file is read and when the host
// answers a JSON request on a track.
#include "host/server/srv_json.h"

#include <cstdio>
#include <cstring>

yajl_val SrvJsonMember(yajl_val p_node_av, const char* s_key_av) {
  if (p_node_av == nullptr || !YAJL_IS_OBJECT(p_node_av)) return nullptr;
  for (size_t ui_lv = 0; ui_lv < p_node_av->u.object.len; ui_lv++)
    if (strcmp(p_node_av->u.object.keys[ui_lv], s_key_av) == 0) return p_node_av->u.object.values[ui_lv];
  return nullptr;
}

namespace {

// Present but of the wrong type: tell the caller through its flag.
bool WrongType(bool* p_ok_av) {
  if (p_ok_av != nullptr) *p_ok_av = false;
  return false;
}

}  // namespace

bool SrvJsonText(yajl_val p_node_av, const char* s_key_av, std::string* p_out_av, bool* p_ok_av) {
  yajl_val p_lv = SrvJsonMember(p_node_av, s_key_av);
  if (p_lv == nullptr) return false;
  if (!YAJL_IS_STRING(p_lv)) return WrongType(p_ok_av);
  *p_out_av = YAJL_GET_STRING(p_lv);
  return true;
}

bool SrvJsonInt(yajl_val p_node_av, const char* s_key_av, int64_t* p_out_av, bool* p_ok_av) {
  yajl_val p_lv = SrvJsonMember(p_node_av, s_key_av);
  if (p_lv == nullptr) return false;
  if (!YAJL_IS_INTEGER(p_lv)) return WrongType(p_ok_av);
  *p_out_av = YAJL_GET_INTEGER(p_lv);
  return true;
}

bool SrvJsonDouble(yajl_val p_node_av, const char* s_key_av, double* p_out_av, bool* p_ok_av) {
  yajl_val p_lv = SrvJsonMember(p_node_av, s_key_av);
  if (p_lv == nullptr) return false;
  if (!YAJL_IS_NUMBER(p_lv)) return WrongType(p_ok_av);
  *p_out_av = YAJL_IS_DOUBLE(p_lv) ? YAJL_GET_DOUBLE(p_lv) : static_cast<double>(YAJL_GET_INTEGER(p_lv));
  return true;
}

bool SrvJsonBool(yajl_val p_node_av, const char* s_key_av, bool* p_out_av, bool* p_ok_av) {
  yajl_val p_lv = SrvJsonMember(p_node_av, s_key_av);
  if (p_lv == nullptr) return false;
  if (!YAJL_IS_TRUE(p_lv) && !YAJL_IS_FALSE(p_lv)) return WrongType(p_ok_av);
  *p_out_av = YAJL_IS_TRUE(p_lv);
  return true;
}

std::string SrvJsonPathText(yajl_val p_root_av, const char* const* pp_path_av) {
  yajl_val p_lv = p_root_av;
  for (; *pp_path_av != nullptr && p_lv != nullptr; pp_path_av++) p_lv = SrvJsonMember(p_lv, *pp_path_av);
  return p_lv != nullptr && YAJL_IS_STRING(p_lv) ? YAJL_GET_STRING(p_lv) : "";
}

std::string SrvJsonQuote(const std::string& s_av) {
  std::string s_out_lv = "\"";
  for (unsigned char c_lv : s_av) {
    if (c_lv == '"' || c_lv == '\\') {
      s_out_lv += '\\';
      s_out_lv += static_cast<char>(c_lv);
    } else if (c_lv < 0x20) {
      char s_lv[8];
      snprintf(s_lv, sizeof(s_lv), "\\u%04x", c_lv);
      s_out_lv += s_lv;
    } else {
      s_out_lv += static_cast<char>(c_lv);
    }
  }
  return s_out_lv + "\"";
}

std::string SrvJsonWrite(yajl_val p_node_av) {
  if (p_node_av == nullptr || YAJL_IS_NULL(p_node_av)) return "null";
  if (YAJL_IS_TRUE(p_node_av)) return "true";
  if (YAJL_IS_FALSE(p_node_av)) return "false";
  if (YAJL_IS_STRING(p_node_av)) return SrvJsonQuote(YAJL_GET_STRING(p_node_av));
  if (YAJL_IS_NUMBER(p_node_av)) return YAJL_GET_NUMBER(p_node_av);
  std::string s_out_lv;
  if (YAJL_IS_ARRAY(p_node_av)) {
    s_out_lv = "[";
    for (size_t ui_lv = 0; ui_lv < p_node_av->u.array.len; ui_lv++)
      s_out_lv += (ui_lv > 0 ? "," : "") + SrvJsonWrite(p_node_av->u.array.values[ui_lv]);
    return s_out_lv + "]";
  }
  s_out_lv = "{";
  for (size_t ui_lv = 0; ui_lv < p_node_av->u.object.len; ui_lv++)
    s_out_lv += (ui_lv > 0 ? "," : "") + SrvJsonQuote(p_node_av->u.object.keys[ui_lv]) + ":" +
                SrvJsonWrite(p_node_av->u.object.values[ui_lv]);
  return s_out_lv + "}";
}
