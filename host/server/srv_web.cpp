// The host's web-service front for writer-host (see srv_web.h). The bus
// delivers synchronously, so every answer has arrived when the sending
// profile_data returns; the call mutex only keeps two callers apart.
#include "host/server/srv_web.h"

#include <cstdio>
#include <cstring>

namespace {

const char* TextOf(const ProfileParam* p_el_av) {
  return p_el_av->type == PP_STRING && p_el_av->value != nullptr ? static_cast<const char*>(p_el_av->value) : nullptr;
}

const char* Find(ProfileParam* p_params_av, const char* s_name_av) {
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++)
    if (p_el_lv->name != nullptr && strcmp(p_el_lv->name, s_name_av) == 0 && TextOf(p_el_lv) != nullptr)
      return TextOf(p_el_lv);
  return nullptr;
}

void OnList(void* p_user_av, ProfileParam* p_params_av) {
  SrvWebFront* p_lv = static_cast<SrvWebFront*>(p_user_av);
  const char* s_cmd_lv = Find(p_params_av, "cmd");
  if (s_cmd_lv == nullptr || strcmp(s_cmd_lv, "register") != 0) return;
  auto text_lv = [&](const char* s_name_av, const char* s_default_av) {
    const char* s_lv = Find(p_params_av, s_name_av);
    return std::string(s_lv != nullptr ? s_lv : s_default_av);
  };
  SrvWebMethod method_lv;
  method_lv.m_s_plugin = text_lv("plugin_name", "?");
  method_lv.m_s_name = text_lv("method_name", "?");
  method_lv.m_s_in_track = text_lv("in_track", "?");
  method_lv.m_s_params = text_lv("method_params", "");
  method_lv.m_s_help = text_lv("method_help", "");
  if (p_lv->m_b_print)
    printf("writer-host: web method %s %s: %s\n", method_lv.m_s_plugin.c_str(), method_lv.m_s_name.c_str(),
           method_lv.m_s_in_track.c_str());
  std::lock_guard<std::mutex> lock_lv(p_lv->m_list_mutex);
  // A provider asked again registers again: keep one entry per method.
  for (SrvWebMethod& known_lv : p_lv->m_methods)
    if (known_lv.m_s_plugin == method_lv.m_s_plugin && known_lv.m_s_name == method_lv.m_s_name) {
      known_lv = method_lv;
      return;
    }
  p_lv->m_methods.push_back(method_lv);
}

// An answer is taken only for the call under way: its owner data is the
// front's record of that call.
void OnMethods(void* p_user_av, ProfileParam* p_params_av) {
  SrvWebFront* p_lv = static_cast<SrvWebFront*>(p_user_av);
  const void* p_owner_lv = nullptr;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++)
    if (p_el_lv->type == PP_OBJECT && p_el_lv->name != nullptr && strcmp(p_el_lv->name, "owner_data") == 0)
      p_owner_lv = p_el_lv->value;
  const char* s_cmd_lv = Find(p_params_av, "cmd");
  if (p_lv->m_p_pending == nullptr || p_owner_lv != p_lv->m_p_pending || s_cmd_lv == nullptr ||
      strcmp(s_cmd_lv, "result") != 0)
    return;
  const char* s_json_lv = Find(p_params_av, "json");
  const char* s_error_lv = Find(p_params_av, "error");
  p_lv->m_b_error = s_json_lv == nullptr;
  p_lv->m_s_answer = s_json_lv != nullptr ? s_json_lv : (s_error_lv != nullptr ? s_error_lv : "");
  p_lv->m_b_answered = true;
}

}  // namespace

void SrvWebOpen(SrvWebFront* p_av) {
  ProfileCallback list_cb_lv = {p_av, reinterpret_cast<void*>(&OnList)};
  ProfileCallback methods_cb_lv = {p_av, reinterpret_cast<void*>(&OnMethods)};
  p_av->m_h_list = profile_open("trackWsListMethods", &list_cb_lv, __FILE__, __LINE__);
  p_av->m_h_methods = profile_open("plugin_methods_writer", &methods_cb_lv, __FILE__, __LINE__);
  ProfileParam request_lv[] = {{PP_STRING, "cmd", const_cast<char*>("request")}, {PP_END, nullptr, nullptr}};
  profile_data(p_av->m_h_list, request_lv, 0);
}

void SrvWebClose(SrvWebFront* p_av) {
  if (p_av->m_h_methods != 0) profile_close(p_av->m_h_methods);
  if (p_av->m_h_list != 0) profile_close(p_av->m_h_list);
  p_av->m_h_methods = 0;
  p_av->m_h_list = 0;
}

std::vector<SrvWebMethod> SrvWebMethods(SrvWebFront* p_av) {
  std::lock_guard<std::mutex> lock_lv(p_av->m_list_mutex);
  return p_av->m_methods;
}

SrvWebCallResult SrvWebCall(SrvWebFront* p_av, const char* s_method_av, const char* s_params_av,
                            std::string* p_answer_av) {
  std::lock_guard<std::mutex> lock_lv(p_av->m_call_mutex);
  int32_t i_taken_lv = 0, i_timeout_lv = 5;
  int i_call_lv = 0;  // its address is the call's owner data
  p_av->m_p_pending = &i_call_lv;
  p_av->m_b_answered = false;
  p_av->m_b_error = false;
  p_av->m_s_answer.clear();
  ProfileParam call_lv[] = {{PP_STRING, "cmd", const_cast<char*>("call")},
                            {PP_STRING, "method", const_cast<char*>(s_method_av)},
                            {PP_STRING, "params", const_cast<char*>(s_params_av)},
                            {PP_INT32, "timeout", &i_timeout_lv},
                            {PP_OBJECT, "owner_data", &i_call_lv},
                            {PP_INT32, "check_alive", &i_taken_lv},
                            {PP_END, nullptr, nullptr}};
  if (p_av->m_h_methods != 0) profile_data(p_av->m_h_methods, call_lv, 0);
  p_av->m_p_pending = nullptr;
  if (p_answer_av != nullptr) *p_answer_av = p_av->m_s_answer;
  if (i_taken_lv <= 0 || !p_av->m_b_answered) return SRV_WEB_NO_ANSWER;
  return p_av->m_b_error ? SRV_WEB_REFUSED : SRV_WEB_ANSWERED;
}
