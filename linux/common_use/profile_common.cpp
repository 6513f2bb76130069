// The service client: one request out on "trackWsServerCmd", its answer
// taken from "trackWsServerData". Made and closed by CWriterGlobal; called
// by forced recording on the host thread of the API, and its callback runs
// on whichever thread the answering plug-in sends from, possibly inside the
// request's own bus call.
#include "linux/common_use/profile_common.h"

#include <cstring>
#include <new>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"

namespace {

const int32_t I_SIGN_REPLY_EMPTY = 34;
const int32_t I_SIGN_REPLY_CLEAR = 329;
const int32_t I_SIGN_REPLY_ANSWER = 330;
const int32_t I_SIGN_REPLY_COPY = 331;
const int32_t I_SERVICE_TIMEOUT = 5;

const char* const S_CMD_FORMAT = "{\n\"cmd\": \"%s\",\n\"ip\": \"%s\",\n\"params\": \n  {\n%s  }\n}\n";

bool Named(const ProfileParam* p_av, const char* s_name_av) {
  return p_av->name != nullptr && strcmp(p_av->name, s_name_av) == 0;
}

// What an answer carries for us; everything else in it is passed over.
struct TServiceAnswer {
  const char* s_json;
  void* p_owner;
  void* p_owner_data;
};

void ReadAnswer(const ProfileParam* p_params_av, TServiceAnswer* p_out_av) {
  for (const ProfileParam* p_el_lv = p_params_av; p_el_lv->type != PP_END; p_el_lv++) {
    if (p_el_lv->name == nullptr) continue;
    if (p_el_lv->type == PP_STRING && Named(p_el_lv, "json"))
      p_out_av->s_json = static_cast<const char*>(p_el_lv->value);
    if (p_el_lv->type == PP_OBJECT && Named(p_el_lv, "owner")) p_out_av->p_owner = p_el_lv->value;
    if (p_el_lv->type == PP_OBJECT && Named(p_el_lv, "owner_data")) p_out_av->p_owner_data = p_el_lv->value;
  }
}

void OnPluginDataServiceExchI_Level1(void* p_udata_av, ProfileParam* p_params_av) {
  TRACE44(TLOG_ARC_TRACEDECIM, "<arcinform> OnPluginDataServiceExchI 1");
  if (p_udata_av == nullptr || p_params_av == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error> transf: on_plugin_result: error: udata=NULL || p == NULL 2 \n");
    return;
  }
  TRACE44(TLOG_ARC_TRACEDECIM, "<indic> OnPluginDataServiceExchI 2");
  ServiceClient* p_client_lv = static_cast<ServiceClient*>(p_udata_av);
  TServiceAnswer answer_lv = {nullptr, nullptr, nullptr};
  ReadAnswer(p_params_av, &answer_lv);
  TRACE44(TLOG_ARC_TRACEDECIM, "33333 owner %pp, owner_data %pp, udata %pp ", answer_lv.p_owner, answer_lv.p_owner_data,
          p_udata_av);
  // The number is compared under the reply lock: a request that starts now
  // either sees this answer stored before it clears, or makes it stale.
  PlCritLock lock_lv(&p_client_lv->m_crit_sect_reply);
  uint32_t ui_number_lv = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(answer_lv.p_owner_data));
  if (answer_lv.p_owner != p_udata_av || ui_number_lv != static_cast<uint32_t>(p_client_lv->m_i_request_num)) return;
  if (answer_lv.s_json == nullptr) {
    TRACE44(TLOG_ARC, "<indic> NULL == json");
    return;
  }
  TRACE44(TLOG_ARC, "<indic> OnPluginDataServiceExchI 4");
  SafeStringAssign(&p_client_lv->m_s_reply, answer_lv.s_json, I_SIGN_REPLY_ANSWER);
  if (p_client_lv->m_h_event_ws_data_accept != nullptr) p_client_lv->m_h_event_ws_data_accept->Set();
}

}  // namespace

ServiceClient::ServiceClient()
    : m_h_track_cmd(0), m_h_track_data(0), m_b_accepted(0), m_i_request_num(0), m_h_event_ws_data_accept(nullptr) {
  SafeStringAssign(&m_s_reply, "", I_SIGN_REPLY_EMPTY);
  m_h_event_ws_data_accept = new (std::nothrow) PlEvent(false, false);
  if (m_h_event_ws_data_accept == nullptr) TRACE44(TLOG_ARC, "<root>m_h_event_ws_data_accept Error create event");
  m_h_track_cmd = profile_open("trackWsServerCmd", nullptr, __FILE__, __LINE__);
  ProfileCallback cb_lv = {this, reinterpret_cast<void*>(&OnPluginDataServiceExchI)};
  m_h_track_data = profile_open("trackWsServerData", &cb_lv, __FILE__, __LINE__);
}

ServiceClient::~ServiceClient() {
  profile_close(m_h_track_cmd);
  m_h_track_cmd = 0;
  // After this close no answer can reach the client any more.
  profile_close(m_h_track_data);
  m_h_track_data = 0;
  delete m_h_event_ws_data_accept;
  m_h_event_ws_data_accept = nullptr;
  SafeStringDestroy(&m_s_reply);
}

void ServiceClientRequest(ServiceClient* p_client_av, const char* s_params_av) {
  char s_cmd_lv[I_SERVICE_CMD_SIZE];
  if (FormatStr(s_cmd_lv, sizeof(s_cmd_lv), S_CMD_FORMAT, "rtsp:list_cameras", "127.0.0.1",
                s_params_av != nullptr ? s_params_av : "") != RC_OK)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>ServiceClientRequest: parameters cut to fit %d bytes", I_SERVICE_CMD_SIZE);
  int32_t i_number_lv = 0;
  {
    PlCritLock lock_lv(&p_client_av->m_crit_sect_reply);
    SafeStringAssign(&p_client_av->m_s_reply, "", I_SIGN_REPLY_CLEAR);
    p_client_av->m_b_accepted = 0;
    i_number_lv = PlAtomicAdd32(&p_client_av->m_i_request_num, 1);
    // An answer that came after an earlier caller gave up must not release
    // this wait with an empty reply.
    if (p_client_av->m_h_event_ws_data_accept != nullptr) p_client_av->m_h_event_ws_data_accept->Reset();
  }
  int32_t i_timeout_lv = I_SERVICE_TIMEOUT;
  void* p_number_lv = reinterpret_cast<void*>(static_cast<uintptr_t>(static_cast<uint32_t>(i_number_lv)));
  ProfileParam params_lv[] = {{PP_STRING, "cmd", s_cmd_lv},
                              {PP_INT32, "timeout", &i_timeout_lv},
                              {PP_OBJECT, "owner", p_client_av},
                              {PP_OBJECT, "owner_data", p_number_lv},
                              {PP_END, nullptr, nullptr}};
  TRACE44(TLOG_ARC_TRACEDECIM, "11111111");
  BusData(p_client_av->m_h_track_cmd, params_lv);
  TRACE44(TLOG_ARC_TRACEDECIM, "2222222");
}

int32_t ServiceClientWait(ServiceClient* p_client_av) {
  uint32_t ui_rv_lv = p_client_av->m_h_event_ws_data_accept != nullptr
                          ? p_client_av->m_h_event_ws_data_accept->Wait(UI_SERVICE_WAIT_MS)
                          : PL_WAIT_FAILED;
  if (ui_rv_lv == PL_WAIT_OBJECT_0)
    p_client_av->m_b_accepted = 1;
  else if (ui_rv_lv != PL_WAIT_TIMEOUT)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: exit ThreadInformObtainMethod");
  return p_client_av->m_b_accepted;
}

int32_t ServiceClientCall(ServiceClient* p_client_av, const char* s_params_av, SafeString* p_reply_av) {
  PlCritLock lock_lv(&p_client_av->m_crit_sect_call);
  ServiceClientRequest(p_client_av, s_params_av);
  if (ServiceClientWait(p_client_av) == 0) return 0;
  PlCritLock reply_lock_lv(&p_client_av->m_crit_sect_reply);
  SafeStringAssign(p_reply_av, SafeStringText(&p_client_av->m_s_reply), I_SIGN_REPLY_COPY);
  return 1;
}

void OnPluginDataServiceExchI(void* p_udata_av, ProfileParam* p_params_av) {
  TStableScope scope_lv;
  scope_lv.m_ui_saved_hook = HookGet();
  HookSet(HOOK_IN_PLUGIN);
  scope_lv.m_i_slot = StableEnter("OnPluginDataServiceExchI");
  OnPluginDataServiceExchI_Level1(p_udata_av, p_params_av);
  StableScopeEnd(&scope_lv);
}

void BlankOuterBrackets(char* s_text_av) {
  if (s_text_av == nullptr) return;
  char* p_first_lv = strchr(s_text_av, '[');
  if (p_first_lv != nullptr) *p_first_lv = ' ';
  char* p_last_lv = strrchr(s_text_av, ']');
  if (p_last_lv != nullptr) *p_last_lv = ' ';
}
