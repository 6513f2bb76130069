// Forced recording: the commands of "track_vp-api", answered in XML, and
// the pair of system events they turn into. profile_writer_forced_f runs on
// the host thread of the API; SendForcedEvent is also called by the
// forced-duration check of a channel's event state, on its frame thread.
#include "writer/writer_forced.h"

#include <cstdlib>
#include <cstring>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service5.h"
#include "linux/common_use/temp/tools.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "writer/writer_parcer.h"
#include "linux/common_use/service/entry_scope.h"

const char* const S_FORCED_ANSWER_OK = "<result cause=\"0\"></result>";
const char* const S_FORCED_ANSWER_NOT_AVAILABLE =
    "<result cause=\"4\"><params><param name=\"descr\" value=\"not_available\"/></params></result>";

namespace {

const int32_t I_SIGN_FORCED_BINDING = 4141;
const int32_t I_SIGN_FORCED_ID = 4142;
// An id longer than this names no camera of ours: it is not sent.
const size_t UI_FORCED_ID_MAX = 1024;

bool Named(const ProfileParam* p_av, const char* s_name_av) {
  return p_av->name != nullptr && strcmp(p_av->name, s_name_av) == 0;
}

// The duration travels as the name of a value-less element: digits only,
// or empty for 0.
bool DigitsOnly(const char* s_av) {
  for (const char* p_lv = s_av; *p_lv != 0; p_lv++)
    if (*p_lv < '0' || *p_lv > '9') return false;
  return true;
}

// The id goes into a JSON text: quotes and backslashes are escaped and
// control characters dropped, so that any id makes a request the peer can
// read. False when the id does not fit.
bool IdParams(const char* s_id_av, char* s_out_av, size_t ui_size_av) {
  size_t ui_at_lv = 0;
  const char* s_head_lv = "\"id\":\"";
  if (strlen(s_id_av) > UI_FORCED_ID_MAX || ui_size_av < 2 * UI_FORCED_ID_MAX + 16) return false;
  memcpy(s_out_av, s_head_lv, strlen(s_head_lv));
  ui_at_lv = strlen(s_head_lv);
  for (const char* p_lv = s_id_av; *p_lv != 0; p_lv++) {
    if (static_cast<unsigned char>(*p_lv) < 0x20) continue;
    if (*p_lv == '"' || *p_lv == '\\') s_out_av[ui_at_lv++] = '\\';
    s_out_av[ui_at_lv++] = *p_lv;
  }
  s_out_av[ui_at_lv++] = '"';
  s_out_av[ui_at_lv] = 0;
  return true;
}

int32_t ForcedCommand(TForcedRequest* p_req_av, const char* s_method_av, int32_t i_slot_av) {
  int32_t b_start_lv = strcmp(s_method_av, "start_recording") == 0 ? 1 : 0;
  if (b_start_lv == 0 && strcmp(s_method_av, "stop_recording") != 0) return 0;
  if (SafeStringText(&p_req_av->m_s_id)[0] == 0) return 0;
  ForcedFindCamera(p_req_av);
  if (p_req_av->m_b_found == 0 || SafeStringText(&p_req_av->m_s_key2)[0] == 0) return 0;
  return SendForcedEvent(SafeStringText(&p_req_av->m_s_key2), b_start_lv, p_req_av->m_i64_dur,
                         p_req_av->m_b_dur_present, i_slot_av);
}

void ForcedAnswer(TForcedBinding* p_binding_av, int32_t i_result_av) {
  if (p_binding_av == nullptr) return;
  const char* s_answer_lv = i_result_av != 0 ? S_FORCED_ANSWER_OK : S_FORCED_ANSWER_NOT_AVAILABLE;
  ProfileParam answer_lv[] = {{PP_STRING, "result", const_cast<char*>(s_answer_lv)},
                              {PP_STRING, "self44", const_cast<char*>("self44")},
                              {PP_END, nullptr, nullptr}};
  BusCoreData(p_binding_av->m_h_track, answer_lv);
}

void profile_writer_forced_f_Level1(TForcedBinding* p_binding_av, ProfileParam* p_params_av, int32_t i_slot_av) {
  TForcedRequest req_lv;
  int32_t i_result_lv = 1, b_own_lv = 0;
  const char* s_method_lv = nullptr;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (p_el_lv->type == PP_STRING && Named(p_el_lv, "method")) s_method_lv = static_cast<const char*>(p_el_lv->value);
    if (p_el_lv->type == PP_STRING && Named(p_el_lv, "self44")) i_result_lv = 0, b_own_lv = 1;
    if (p_el_lv->type == PP_LIST && Named(p_el_lv, "args"))
      ParseForcedArgs(&req_lv, static_cast<const ProfileParam*>(p_el_lv->value));
  }
  // Our own answers come back on this track: they are neither commands
  // nor to be answered.
  if (b_own_lv != 0) return;
  if (p_params_av == nullptr || s_method_lv == nullptr) i_result_lv = 0;
  if (i_result_lv != 0) {
    CWriterGlobal* p_global_lv = g_p_writer_global;
    req_lv.m_p_client = p_global_lv != nullptr ? p_global_lv->m_p_service_client : nullptr;
    i_result_lv = ForcedCommand(&req_lv, s_method_lv, i_slot_av);
  }
  TRACE44(TLOG_ARC, "<forced>%s id '%s' key2 '%s' dur %lld: %s", s_method_lv != nullptr ? s_method_lv : "(no method)",
          SafeStringText(&req_lv.m_s_id), SafeStringText(&req_lv.m_s_key2),
          req_lv.m_b_dur_present != 0 ? static_cast<long long>(req_lv.m_i64_dur) : -1LL,
          i_result_lv != 0 ? "done" : "not_available");
  ForcedAnswer(p_binding_av, i_result_lv);
}

// The start names its stop partner and, with a limit, its seconds; the stop
// names the start it ends.
void PostForced(CWriterGlobal* p_global_av, CWriter* p_writer_av, int32_t b_start_av, int64_t i64_dur_av,
                int32_t b_dur_present_av) {
  char s_sysinfo_lv[80];
  if (b_start_av != 0) {
    if (b_dur_present_av != 0)
      FormatStr(s_sysinfo_lv, sizeof(s_sysinfo_lv), ",event_stop_id=60031,dur=%lld,",
                static_cast<long long>(i64_dur_av));
    else
      FormatStr(s_sysinfo_lv, sizeof(s_sysinfo_lv), ",event_stop_id=60031,");
  } else {
    FormatStr(s_sysinfo_lv, sizeof(s_sysinfo_lv), ",event_start_id=60030");
  }
  PostSystemEvent(p_global_av->m_h_track_event, b_start_av != 0 ? SYS_EVENT_FORCE_START : SYS_EVENT_FORCE_STOP,
                  p_writer_av->m_camera_info_w->m_s_arc_keys, p_writer_av->m_i64_type_id, "by http", s_sysinfo_lv);
}

}  // namespace

// The channel list is walked without its lock: the caller may be a frame
// thread inside the event path. A camera's video and audio channel both
// match, so one call posts two events.
int32_t SendForcedEvent(const char* s_key2_av, int32_t b_start_av, int64_t i64_dur_av, int32_t b_dur_present_av,
                        int32_t i_slot_av) {
  StableMark(i_slot_av, 22021);
  int32_t i_result_lv = 0;
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv != nullptr && s_key2_av != nullptr) {
    CListOur* p_list_lv = &p_global_lv->m_list_writers;
    for (int32_t i_lv = 0; i_lv < AtomicGet(&p_list_lv->m_i_count); i_lv++) {
      CWriter* p_writer_lv = static_cast<CWriter*>(CListOurGet(p_list_lv, i_lv));
      if (p_writer_lv == nullptr || p_writer_lv->m_camera_info_w == nullptr) continue;
      TCameraInfoW* p_info_lv = p_writer_lv->m_camera_info_w;
      if (strcmp(s_key2_av, SafeStringText(&p_info_lv->m_s_arc_keys[1])) != 0) continue;
      i_result_lv = AtomicGet(&p_info_lv->m_b_write_by_event);
      if (i_result_lv != 0) PostForced(p_global_lv, p_writer_lv, b_start_av, i64_dur_av, b_dur_present_av);
    }
  }
  if (i_slot_av != -1) StableMark(i_slot_av, 22022);
  return i_result_lv;
}

TForcedRequest::TForcedRequest() : m_b_found(0), m_p_client(nullptr), m_i64_dur(0), m_b_dur_present(0) {}

TForcedBinding* ForcedBindingOpen() {
  TForcedBinding* p_lv = SafeNew<TForcedBinding>(I_SIGN_FORCED_BINDING);
  if (p_lv == nullptr) return nullptr;
  p_lv->m_h_track = core_profile_open("track_vp-api", &profile_writer_forced_f, p_lv, __FILE__, __LINE__);
  return p_lv;
}

void ForcedBindingClose(TForcedBinding*& p_binding_av) {
  if (p_binding_av == nullptr) return;
  profile_close(p_binding_av->m_h_track);
  p_binding_av->m_h_track = 0;
  SafeDelete(p_binding_av);
}

void profile_writer_forced_f(void* p_user_av, TrackHandle, int32_t i_kind_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("profile_writer_forced_f");
  if (i_kind_av != 2) return;
  profile_writer_forced_f_Level1(static_cast<TForcedBinding*>(p_user_av), p_params_av, scope_lv.Slot());
}

void ParseForcedArgs(TForcedRequest* p_req_av, const ProfileParam* p_args_av) {
  p_req_av->m_b_dur_present = 0;
  const char* s_id_lv = nullptr;
  for (const ProfileParam* p_el_lv = p_args_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (p_el_lv->type != PP_STRING || p_el_lv->name == nullptr) continue;
    if (p_el_lv->value != nullptr) {
      if (strcmp(p_el_lv->name, "id") == 0) s_id_lv = static_cast<const char*>(p_el_lv->value);
    } else if (DigitsOnly(p_el_lv->name)) {
      // strtoll holds a name of too many digits at the largest value.
      p_req_av->m_i64_dur = static_cast<int64_t>(strtoll(p_el_lv->name, nullptr, 10));
      p_req_av->m_b_dur_present = 1;
    }
  }
  SafeStringAssign(&p_req_av->m_s_id, s_id_lv != nullptr ? s_id_lv : "", I_SIGN_FORCED_ID);
}

void ForcedFindCamera(TForcedRequest* p_req_av) {
  char s_params_lv[2 * UI_FORCED_ID_MAX + 16];
  if (p_req_av->m_p_client == nullptr) return;
  if (!IdParams(SafeStringText(&p_req_av->m_s_id), s_params_lv, sizeof(s_params_lv))) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error><forced> camera id of %d characters is not asked for",
            static_cast<int32_t>(strlen(SafeStringText(&p_req_av->m_s_id))));
    return;
  }
  SafeString reply_lv;
  if (ServiceClientCall(p_req_av->m_p_client, s_params_lv, &reply_lv) == 0) return;
  if (reply_lv.m_p_text != nullptr && strlen(reply_lv.m_p_text) >= 2) BlankOuterBrackets(reply_lv.m_p_text);
  ParseKey2(reply_lv.m_p_text, &p_req_av->m_s_key2);
  p_req_av->m_b_found = 1;
}
