// The query dispatch of the plug-in: reads the parameters of a query, picks
// the query by its exact name and writes the answer. Called by the query
// door of dll_exec (OnGetInfo_Causing1) and by the web-service methods,
// which are here too: their registration with the host's web front and
// their calls, answered on the caller's thread. Nothing here holds a lock
// of its own: each collector runs under the lock of the list it walks, and
// lines are sorted and joined after the lock is left, so the channels wait
// only for the building of the texts.
#include "writer/writer_web_service.h"

#include <cstring>
#include <string>
#include <vector>

#include "linux/common_use/common_parser.h"
#include "linux/common_use/config.h"
#include "linux/common_use/core_bus.h"
#include "linux/common_use/diagnostic.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/temp/tools.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffer.h"
#include "writer/writer_events_registrator.h"
#include "writer/writer_global.h"
#include "writer/writer_inform.h"
#include "linux/common_use/service/entry_scope.h"
#include "writer/writer_web_service_help.h"

namespace {

const int32_t I_SIGN_ANSWER = 5101;
const size_t UI_ANSWER_AREA = 2048;

const int32_t POINT_HEAD_READ = 21091;
const int32_t POINT_PARAMS_READ = 21092;
const int32_t POINT_NAME_CHOSEN = 21093;
const int32_t POINT_ANSWERED = 21095;

const char* const S_ACCEPTED = "[\"Команда принята.\"]";
const char* const S_UNKNOWN_QUERY = "{ \"error\":\"unknown query\" }";
const char* const S_ERROR_HEAD = "{\"camera_read_error\":[\n";
const char* const S_ERROR_TAIL = "\n]}";

typedef void (*TQueryFn)(const TQueryParams* p_params_av, SafeString* p_out_av, int32_t i_slot_av);

struct TQueryRow {
  const char* m_s_name;
  TQueryFn m_fn;
};

void Answer(SafeString* p_out_av, const char* s_text_av) { SafeStringAssign(p_out_av, s_text_av, I_SIGN_ANSWER); }

void QueryVersion(const TQueryParams*, SafeString* p_out_av, int32_t) {
  char s_lv[UI_ANSWER_AREA];
  FormatStr(s_lv, sizeof(s_lv), "{\"version\":\"%d.%d.%d.%d\"}", 15, 11, 26, 0);
  Answer(p_out_av, s_lv);
}

// A subscription to the empty text would keep nothing an operator could
// use: a query without "value" changes nothing.
bool HasValue(const TQueryParams* p_params_av, const char* s_query_av) {
  if (SafeStringText(&p_params_av->m_s_value)[0] != 0) return true;
  TRACE45(TLOG_ARC, TSEV_FAULT, "<query> %s without \"value\", nothing changed", s_query_av);
  return false;
}

void QueryLogStatusAdd(const TQueryParams* p_params_av, SafeString*, int32_t) {
  if (!HasValue(p_params_av, "query_log_status_add")) return;
  if (LogStatusAdd(g_p_log_status_list, &p_params_av->m_s_value) == RC_LOG_STATUS_FULL)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<query> query_log_status_add: the list is full (%d subscriptions), \"%.64s\" not added",
            static_cast<int>(I_LOG_STATUS_MAX), SafeStringText(&p_params_av->m_s_value));
}

void QueryLogStatusDelete(const TQueryParams* p_params_av, SafeString*, int32_t) {
  if (HasValue(p_params_av, "query_log_status_delete")) LogStatusDelete(g_p_log_status_list, &p_params_av->m_s_value);
}

void QueryLogStatusOff(const TQueryParams* p_params_av, SafeString*, int32_t) {
  if (HasValue(p_params_av, "query_log_status_off")) LogStatusOff(g_p_log_status_list, &p_params_av->m_s_value);
}

void QueryLogStatus(const TQueryParams*, SafeString* p_out_av, int32_t i_slot_av) {
  LogStatusReport(p_out_av, i_slot_av);
}

void QueryLogStatusList(const TQueryParams*, SafeString* p_out_av, int32_t i_slot_av) {
  LogStatusList(p_out_av, i_slot_av);
}

void QueryGetStatus(const TQueryParams* p_params_av, SafeString* p_out_av, int32_t i_slot_av) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv == nullptr) return;
  std::vector<std::string> lines_lv;
  int64_t i64_total_lv = 0;
  {
    PlCritLock lock_lv(&p_global_lv->m_list_writers.m_crit_sect);
    StatusFromInformCam(p_params_av->m_s_keys, SafeStringText(&p_params_av->m_s_view), &i64_total_lv, &lines_lv,
                        i_slot_av);
  }
  LinesJoin(&lines_lv, i64_total_lv, S_JOIN_HEAD, S_JOIN_TAIL, p_out_av);
}

void QueryGetError(const TQueryParams*, SafeString* p_out_av, int32_t i_slot_av) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv == nullptr) return;
  std::vector<std::string> lines_lv;
  int64_t i64_total_lv = 0;
  {
    PlCritLock lock_lv(&p_global_lv->m_list_writers.m_crit_sect);
    ErrorFromInformCam(&i64_total_lv, &lines_lv, i_slot_av);
  }
  LinesJoin(&lines_lv, i64_total_lv, S_ERROR_HEAD, S_ERROR_TAIL, p_out_av);
}

// The flag that a work mode's "value" names; null for any other value.
int32_t* WorkModeFlag(CWriterGlobal* p_global_av, const char* s_value_av) {
  if (strcmp(s_value_av, "150204") == 0) return &p_global_av->m_b_work_mode_150204;
  if (strcmp(s_value_av, "150602") == 0) return &p_global_av->m_b_work_mode_150602;
  if (strcmp(s_value_av, "150605") == 0) return &p_global_av->m_b_work_mode_150605;
  if (strcmp(s_value_av, "150607") == 0) return &p_global_av->m_b_work_mode_150607;
  return nullptr;
}

void WorkModeStore(const TQueryParams* p_params_av, SafeString* p_out_av, int32_t b_on_av) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  int32_t* p_flag_lv =
      p_global_lv != nullptr ? WorkModeFlag(p_global_lv, SafeStringText(&p_params_av->m_s_value)) : nullptr;
  if (p_flag_lv == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<query> work mode \"%s\" unknown, nothing changed",
            SafeStringText(&p_params_av->m_s_value));
    return;
  }
  AtomicPut(p_flag_lv, b_on_av);
  Answer(p_out_av, S_ACCEPTED);
}

void QueryWorkModeSet(const TQueryParams* p_params_av, SafeString* p_out_av, int32_t) {
  WorkModeStore(p_params_av, p_out_av, 1);
}

void QueryWorkModeReset(const TQueryParams* p_params_av, SafeString* p_out_av, int32_t) {
  WorkModeStore(p_params_av, p_out_av, 0);
}

void QueryCommonStatus(const TQueryParams*, SafeString* p_out_av, int32_t) {
  char s_lv[UI_ANSWER_AREA];
  FormatStr(s_lv, sizeof(s_lv), "{\"buffs_used_mem\":%lld}", static_cast<long long>(BuffsUsedMemRead()));
  Answer(p_out_av, s_lv);
}

void QueryTraffic(const TQueryParams*, SafeString* p_out_av, int32_t) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv != nullptr) SpeedTableQuery(&p_global_lv->m_speed_stat, p_out_av);
}

// Only the two scales the traffic table knows; any other text changes
// nothing.
void QueryTrafficParams(const TQueryParams* p_params_av, SafeString*, int32_t) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  const char* s_scale_lv = SafeStringText(&p_params_av->m_s_scale);
  if (p_global_lv == nullptr) return;
  if (strcmp(s_scale_lv, "10s") == 0)
    SpeedSetPeriod(&p_global_lv->m_speed_stat, SPEED_PERIOD_10S);
  else if (strcmp(s_scale_lv, "200ms") == 0)
    SpeedSetPeriod(&p_global_lv->m_speed_stat, SPEED_PERIOD_200MS);
  else
    TRACE45(TLOG_ARC, TSEV_FAULT, "<query> traffic_params scale \"%s\" unknown, nothing changed", s_scale_lv);
}

// The registrator's cameras, under its own list lock; nothing when no event
// ever came.
void QueryEventsRegister(const TQueryParams* p_params_av, SafeString* p_out_av, int32_t i_slot_av) {
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv == nullptr) return;
  std::vector<std::string> lines_lv;
  int64_t i64_total_lv = 0;
  EventsRegisterLines(&p_global_lv->m_events_registrator, p_params_av->m_s_keys, SafeStringText(&p_params_av->m_s_view),
                      &i64_total_lv, &lines_lv, i_slot_av);
  LinesJoin(&lines_lv, i64_total_lv, S_JOIN_HEAD, S_JOIN_TAIL, p_out_av);
}

// Matched before the help flag, so these answer even when it is set.
const TQueryRow QUERIES_BEFORE_HELP[] = {{"vers", QueryVersion},
                                         {"query_log_status_add", QueryLogStatusAdd},
                                         {"query_log_status_delete", QueryLogStatusDelete},
                                         {"query_log_status_off", QueryLogStatusOff},
                                         {"log_status", QueryLogStatus},
                                         {"query_log_status", QueryLogStatusList}};
const TQueryRow QUERIES_AFTER_HELP[] = {
    {"GetStatus", QueryGetStatus},          {"GetError", QueryGetError},
    {"work_mode_set", QueryWorkModeSet},    {"work_mode_reset", QueryWorkModeReset},
    {"common_status", QueryCommonStatus},   {"traffic", QueryTraffic},
    {"traffic_params", QueryTrafficParams}, {"events_register", QueryEventsRegister}};

// Runs the row of that name; false when the table has none.
template <size_t N>
bool RunRow(const TQueryRow (&rows_av)[N], const char* s_name_av, const TQueryParams* p_params_av, SafeString* p_out_av,
            int32_t i_slot_av) {
  for (const TQueryRow& row_lv : rows_av) {
    if (strcmp(row_lv.m_s_name, s_name_av) != 0) continue;
    row_lv.m_fn(p_params_av, p_out_av, i_slot_av);
    return true;
  }
  return false;
}

bool AsksForHelp(const TQueryParams* p_params_av, const char* s_name_av) {
  return strcmp(s_name_av, "help") == 0 || p_params_av->m_b_help != 0 || s_name_av[0] == 0;
}

}  // namespace

void QueryExec(const char* s_method_av, const char* s_json_av, SafeString* p_out_av, int32_t i_slot_av) {
  if (p_out_av == nullptr) return;
  TQueryParams params_lv;
  ParseQueryHead(s_json_av, &params_lv.m_s_query_id, &params_lv.m_s_view, &params_lv.m_b_help, &params_lv.m_b_hash,
                 &params_lv.m_s_hash, &params_lv.m_s_univ_cmd);
  StableMark(i_slot_av, POINT_HEAD_READ);
  ParseQueryParams(s_json_av, &params_lv);
  ParseQueryValues(s_json_av, &params_lv);
  StableMark(i_slot_av, POINT_PARAMS_READ);
  if (s_method_av != nullptr) SafeStringAssign(&params_lv.m_s_query_id, s_method_av, I_SIGN_ANSWER);
  StableMark(i_slot_av, POINT_NAME_CHOSEN);
  const char* s_name_lv = SafeStringText(&params_lv.m_s_query_id);
  if (!RunRow(QUERIES_BEFORE_HELP, s_name_lv, &params_lv, p_out_av, i_slot_av)) {
    if (AsksForHelp(&params_lv, s_name_lv))
      Answer(p_out_av, S_QUERY_HELP);
    else if (!RunRow(QUERIES_AFTER_HELP, s_name_lv, &params_lv, p_out_av, i_slot_av))
      Answer(p_out_av, S_UNKNOWN_QUERY);
  }
  StableMark(i_slot_av, POINT_ANSWERED);
}

namespace {

const char* const S_TRACK_METHODS = "plugin_methods_writer";
const char* const S_TRACK_LIST = "trackWsListMethods";

const int32_t POINT_CALL_IN = 20901;
const int32_t POINT_METHOD_BEFORE = 20902;
const int32_t POINT_METHOD_AFTER = 20903;
const int32_t POINT_UNKNOWN_BEFORE = 20904;
const int32_t POINT_UNKNOWN_AFTER = 20905;
const int32_t POINT_CALL_END = 20906;

const int32_t I_DEFAULT_TIMEOUT_SEC = 5;

// One method of the registration: its name, help and, for the two status
// methods, the parameters the front offers.
struct TMethodRow {
  const char* m_s_name;
  const char* m_s_help;
  const char* m_s_params;
};

const TMethodRow METHODS[] = {{"vers", S_METHOD_HELP_VERS, nullptr},
                              {"GetStatus", S_METHOD_HELP_GET_STATUS, S_METHOD_PARAMS},
                              {"events_register", S_METHOD_HELP_EVENTS_REGISTER, S_METHOD_PARAMS},
                              {"GetError", S_METHOD_HELP_GET_ERROR, nullptr}};

ProfileParam Text(const char* s_name_av, const char* s_value_av) {
  return {PP_STRING, s_name_av, const_cast<char*>(s_value_av)};
}

// One registration message. The front reads its elements in this order:
// "vers" and "GetError" have no parameters, and "vers" names its track
// before its help.
void SendRegistration(TrackHandle h_track_av, const TMethodRow& row_av) {
  ProfileParam params_lv[7];
  int i_lv = 0;
  params_lv[i_lv++] = Text("cmd", "register");
  params_lv[i_lv++] = Text("plugin_name", "writer");
  params_lv[i_lv++] = Text("method_name", row_av.m_s_name);
  if (strcmp(row_av.m_s_name, "vers") == 0) {
    params_lv[i_lv++] = Text("in_track", S_TRACK_METHODS);
    params_lv[i_lv++] = Text("method_help", row_av.m_s_help);
  } else {
    if (row_av.m_s_params != nullptr) params_lv[i_lv++] = Text("method_params", row_av.m_s_params);
    params_lv[i_lv++] = Text("method_help", row_av.m_s_help);
    params_lv[i_lv++] = Text("in_track", S_TRACK_METHODS);
  }
  params_lv[i_lv] = {PP_END, nullptr, nullptr};
  BusData(h_track_av, params_lv);
}

// What one call carries; elements of another type count as absent.
struct TMethodCall {
  const char* m_s_cmd = nullptr;
  const char* m_s_method = nullptr;
  const char* m_s_params = nullptr;
  void* m_p_owner_data = nullptr;
  int32_t* m_p_check_alive = nullptr;
  int32_t m_i_timeout_sec = I_DEFAULT_TIMEOUT_SEC;
};

void ReadCall(ProfileParam* p_params_av, TMethodCall* p_call_av) {
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv->type != PP_END; p_el_lv++) {
    if (p_el_lv->name == nullptr) continue;
    const char* s_name_lv = p_el_lv->name;
    if (p_el_lv->type == PP_STRING && strcmp(s_name_lv, "cmd") == 0)
      p_call_av->m_s_cmd = static_cast<const char*>(p_el_lv->value);
    else if (p_el_lv->type == PP_STRING && strcmp(s_name_lv, "method") == 0)
      p_call_av->m_s_method = static_cast<const char*>(p_el_lv->value);
    else if (p_el_lv->type == PP_STRING && strcmp(s_name_lv, "params") == 0)
      p_call_av->m_s_params = static_cast<const char*>(p_el_lv->value);
    else if (p_el_lv->type == PP_INT32 && p_el_lv->value != nullptr && strcmp(s_name_lv, "timeout") == 0)
      p_call_av->m_i_timeout_sec = *static_cast<const int32_t*>(p_el_lv->value);
    else if (p_el_lv->type == PP_OBJECT && strcmp(s_name_lv, "owner_data") == 0)
      p_call_av->m_p_owner_data = p_el_lv->value;
    else if (p_el_lv->type == PP_INT32 && strcmp(s_name_lv, "check_alive") == 0)
      p_call_av->m_p_check_alive = static_cast<int32_t*>(p_el_lv->value);
  }
}

bool IsRegisteredMethod(const char* s_method_av) {
  for (const TMethodRow& row_lv : METHODS)
    if (strcmp(row_lv.m_s_name, s_method_av) == 0) return true;
  return false;
}

// The answer to a method the plug-in does not provide.
void SendUnknownMethod(CWriterWebService* p_av, void* p_owner_data_av) {
  ProfileParam params_lv[] = {Text("cmd", "result"),
                              Text("error", "error message in text format"),
                              {PP_OBJECT, "owner_data", p_owner_data_av},
                              {PP_END, nullptr, nullptr}};
  BusData(p_av->m_h_track_methods, params_lv);
}

}  // namespace

CWriterWebService::CWriterWebService() : m_h_track_methods(0), m_h_track_list(0) {
  ProfileCallback list_cb_lv = {this, reinterpret_cast<void*>(&on_plugin_result)};
  m_h_track_list = profile_open(S_TRACK_LIST, &list_cb_lv, __FILE__, __LINE__);
  if (m_h_track_list == 0) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<errorws> create m_p_profile_in_methods failed");
    return;
  }
  ProfileCallback methods_cb_lv = {this, reinterpret_cast<void*>(&on_plugin_data2)};
  m_h_track_methods = profile_open(S_TRACK_METHODS, &methods_cb_lv, __FILE__, __LINE__);
  if (m_h_track_methods == 0) TRACE45(TLOG_ARC, TSEV_FAULT, "<errorws> create m_p_profile_out failed 2");
}

CWriterWebService::~CWriterWebService() {
  // Closed before the object goes: once profile_close returns, no call of
  // the front runs here any more.
  if (m_h_track_methods != 0) profile_close(m_h_track_methods);
  if (m_h_track_list != 0) profile_close(m_h_track_list);
  m_h_track_methods = 0;
  m_h_track_list = 0;
}

void on_plugin_result(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_plugin_result");
  CWriterWebService* p_lv = static_cast<CWriterWebService*>(p_user_av);
  if (p_lv == nullptr || p_params_av == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<errorws> on_plugin_result: error: udata=NULL || p == NULL\n");
    return;
  }
  const char* s_cmd_lv = nullptr;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv->type != PP_END; p_el_lv++)
    if (p_el_lv->type == PP_STRING && p_el_lv->name != nullptr && strcmp(p_el_lv->name, "cmd") == 0)
      s_cmd_lv = static_cast<const char*>(p_el_lv->value);
  // The provider registers only when the front asks: a front that starts
  // again asks again.
  if (s_cmd_lv == nullptr || strcmp(s_cmd_lv, "request") != 0) return;
  for (const TMethodRow& row_lv : METHODS) SendRegistration(p_lv->m_h_track_list, row_lv);
}

void on_plugin_data2(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_plugin_data2");
  int32_t i_slot_lv = scope_lv.Slot();
  StableMark(i_slot_lv, POINT_CALL_IN);
  CWriterWebService* p_lv = static_cast<CWriterWebService*>(p_user_av);
  TMethodCall call_lv;
  if (p_params_av != nullptr) ReadCall(p_params_av, &call_lv);
  if (call_lv.m_s_cmd == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<errorws> OnGetEvent: cmd == NULL");
  } else if (strcmp(call_lv.m_s_cmd, "call") == 0 && p_lv != nullptr) {
    // The timeout is the caller's: the answer goes out before the call
    // returns, so there is nothing to time here.
    if (call_lv.m_i_timeout_sec < 1)
      TRACE45(TLOG_ARC, TSEV_FAULT, "<errorws> OnGetEvent timeout_sec=%d < 1 set 5sec", call_lv.m_i_timeout_sec);
    if (call_lv.m_p_check_alive != nullptr && call_lv.m_s_method != nullptr) {
      // The caller sees from its own counter that a provider took the call.
      CounterRaise(call_lv.m_p_check_alive);
      std::string s_method_lv(call_lv.m_s_method);
      if (IsRegisteredMethod(s_method_lv.c_str())) {
        StableMark(i_slot_lv, POINT_METHOD_BEFORE);
        RequestExec(p_lv, s_method_lv.c_str(), call_lv.m_s_params, call_lv.m_p_owner_data, i_slot_lv);
        StableMark(i_slot_lv, POINT_METHOD_AFTER);
      } else {
        StableMark(i_slot_lv, POINT_UNKNOWN_BEFORE);
        SendUnknownMethod(p_lv, call_lv.m_p_owner_data);
        StableMark(i_slot_lv, POINT_UNKNOWN_AFTER);
      }
    }
  }
  StableMark(i_slot_lv, POINT_CALL_END);
}

void RequestExec(CWriterWebService* p_av, const char* s_method_av, const char* s_params_av, void* p_owner_data_av,
                 int32_t i_slot_av) {
  TRACE44(TLOG_ARC, "<request>Bef RequestExec 2 method %s", s_method_av);
  SafeString result_lv;
  QueryExec(s_method_av, s_params_av, &result_lv, i_slot_av);
  TRACE44(TLOG_ARC, "<request>Aft RequestExec 2");
  SendResult(p_av, p_owner_data_av, &result_lv);
}

void SendResult(CWriterWebService* p_av, void* p_owner_data_av, const SafeString* p_result_av) {
  if (p_av == nullptr) return;
  ProfileParam params_lv[] = {Text("cmd", "result"),
                              Text("json", SafeStringText(p_result_av)),
                              {PP_OBJECT, "owner_data", p_owner_data_av},
                              {PP_END, nullptr, nullptr}};
  BusData(p_av->m_h_track_methods, params_lv);
}
