// Language keys, template documents and the query door of dll_exec.
#include "writer/dllmain2.h"

#include <cstring>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service2.h"
#include "writer/writer_parcer.h"
#include "linux/common_use/service/entry_scope.h"
#include "writer/writer_web_service.h"

ProfileParam g_fish_types[2] = {{PP_STRING, "fish_types", const_cast<char*>(S_FISH_TYPES)}, {PP_END, nullptr, nullptr}};
ProfileParam g_fish[2] = {{PP_STRING, "fish", const_cast<char*>(S_FISH)}, {PP_END, nullptr, nullptr}};
FishReplyFn g_p_fish_callback = nullptr;
ExecReplyFn g_p_exec_callback = nullptr;
int32_t g_b_init_failed = 0;

namespace {

const int32_t I_SIGN_EXEC = 4601;

TrackHandle g_h_track_language0 = 0;
TrackHandle g_h_track_language1 = 0;

void SendKeys() {
  ProfileParam params_lv[] = {{PP_STRING, "method", const_cast<char*>("AddKeys")},
                              {PP_STRING, "params", const_cast<char*>(S_LANGUAGE_KEYS)},
                              {PP_END, nullptr, nullptr}};
  BusData(g_h_track_language1, params_lv);
}

bool IsText(const ProfileParam* p_av, uint32_t ui_type_av, const char* s_name_av) {
  return p_av->type == ui_type_av && strcmp(p_av->name, s_name_av) == 0;
}

}  // namespace

// The keys are published once at start, without waiting to be asked.
void LanguageInit() {
  ProfileCallback cb_lv = {nullptr, reinterpret_cast<void*>(&on_language)};
  g_h_track_language0 = profile_open("track_language0", &cb_lv, __FILE__, __LINE__);
  g_h_track_language1 = profile_open("track_language1", nullptr, __FILE__, __LINE__);
  ProfileParam ask_lv[] = {{PP_STRING, "method", const_cast<char*>("GetKeys")}, {PP_END, nullptr, nullptr}};
  on_language(nullptr, ask_lv);
}

void LanguageDeinit() {
  if (g_h_track_language0 != 0) profile_close(g_h_track_language0);
  if (g_h_track_language1 != 0) profile_close(g_h_track_language1);
  g_h_track_language0 = 0;
  g_h_track_language1 = 0;
}

void on_language(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_language");
  (void)p_user_av;
  if (p_params_av == nullptr) return;
  const char* s_method_lv = nullptr;
  for (const ProfileParam* p_lv = p_params_av; p_lv->type != PP_END; p_lv++) {
    if (p_lv->type != PP_STRING || p_lv->name == nullptr) continue;
    if (strcmp(p_lv->name, "json") == 0) continue;
    if (strcmp(p_lv->name, "method") == 0) s_method_lv = static_cast<const char*>(p_lv->value);
  }
  if (s_method_lv != nullptr && strcmp(s_method_lv, "GetKeys") == 0) SendKeys();
}

int32_t DllExecWalk(ProfileParam* p_params_av) {
  TRACE44(TLOG_ARC, "writer dll_exec 1");
  SafeString json_lv;
  SafeString reply_lv;
  if (g_b_init_failed != 0 || p_params_av == nullptr) return -1;
  ProfileCallback* p_exec_lv = nullptr;
  bool b_exec_lv = false;
  bool b_json_lv = false;
  for (ProfileParam* p_lv = p_params_av; p_lv->name != nullptr && p_lv->value != nullptr; p_lv++) {
    ProfileCallback* p_cb_lv = static_cast<ProfileCallback*>(p_lv->value);
    if (IsText(p_lv, PP_CALLBACK, "get_fish_types") || IsText(p_lv, PP_CALLBACK, "get_fish")) {
      g_p_fish_callback = reinterpret_cast<FishReplyFn>(p_cb_lv->fn);
      ProfileParam* p_doc_lv = strcmp(p_lv->name, "get_fish") == 0 ? g_fish : g_fish_types;
      if (g_p_fish_callback != nullptr) g_p_fish_callback(p_cb_lv->user, p_doc_lv, 0);
    } else if (IsText(p_lv, PP_CALLBACK, "exec")) {
      TRACE44(TLOG_ARC, "writer dll_exec 3");
      g_p_exec_callback = reinterpret_cast<ExecReplyFn>(p_cb_lv->fn);
      p_exec_lv = p_cb_lv;
      b_exec_lv = true;
    } else if (IsText(p_lv, PP_STRING, "json")) {
      TRACE44(TLOG_ARC, "<indics> dll_exec 4");
      SafeStringAssign(&json_lv, static_cast<const char*>(p_lv->value), I_SIGN_EXEC);
      b_json_lv = true;
    }
  }
  TRACE44(TLOG_ARC, "writer dll_exec 5");
  if (b_exec_lv && b_json_lv && p_exec_lv != nullptr) {
    TRACE44(TLOG_ARC, "writer dll_exec 6");
    OnGetInfo_Causing1(p_exec_lv, &json_lv, &reply_lv);
  }
  return 0;
}

// The query dispatch fills the reply from the json text; the reply goes back
// synchronously and is only valid during the callback.
void OnGetInfo_Causing1(ProfileCallback* p_record_av, SafeString* p_json_av, SafeString* p_reply_av) {
  CEntryScope scope_lv("OnGetInfo_Causing1");
  StableMark(scope_lv.Slot(), 21081);
  TRACE44(TLOG_ARC, "<request>Bef RequestExec 2");
  StableMark(scope_lv.Slot(), 21082);
  QueryExec(nullptr, p_json_av->m_p_text, p_reply_av, scope_lv.Slot());
  TRACE44(TLOG_ARC, "<request>Aft RequestExec 2");
  ProfileParam reply_lv[] = {
      {PP_STRING, "json", p_reply_av->m_p_text != nullptr ? p_reply_av->m_p_text : const_cast<char*>("")},
      {PP_END, nullptr, nullptr}};
  if (g_p_exec_callback != nullptr) g_p_exec_callback(p_record_av->user, reply_lv);
}
