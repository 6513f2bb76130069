// The host's side of the plug-in's service tracks (see srv_tracks.h). The
// callbacks run on the plug-in's threads, inside its bus calls.
#include "host/server/srv_tracks.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host/server/srv_crash.h"
#include "host/server/srv_json.h"
#include "platform/pl_clock.h"

namespace {

double SecondsSince(int64_t i64_perf_av) {
  return static_cast<double>(PlPerfCounter() - i64_perf_av) / static_cast<double>(PlPerfFrequency());
}

const char* TextOf(const ProfileParam* p_av) {
  return p_av->type == PP_STRING && p_av->value != nullptr ? static_cast<const char*>(p_av->value) : nullptr;
}

bool Named(const ProfileParam* p_av, const char* s_name_av) {
  return p_av->name != nullptr && strcmp(p_av->name, s_name_av) == 0;
}

void AddLine(SrvHostTracks* p_av, const std::string& s_av) {
  PlCritLock lock_lv(&p_av->m_crit_sect);
  p_av->m_lines.push_back(s_av);
}

// "alive_track": register / unregister of a channel, named by its owner.
void OnAlive(void* p_user_av, ProfileParam* p_params_av) {
  SrvHostTracks* p_lv = static_cast<SrvHostTracks*>(p_user_av);
  const char *s_command_lv = nullptr, *s_caption_lv = "";
  const void* p_owner_lv = nullptr;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (Named(p_el_lv, "command") && TextOf(p_el_lv) != nullptr) s_command_lv = TextOf(p_el_lv);
    if (Named(p_el_lv, "caption") && TextOf(p_el_lv) != nullptr) s_caption_lv = TextOf(p_el_lv);
    if (Named(p_el_lv, "owner") && p_el_lv->type == PP_OBJECT) p_owner_lv = p_el_lv->value;
  }
  if (s_command_lv == nullptr || p_owner_lv == nullptr) return;
  PlCritLock lock_lv(&p_lv->m_crit_sect);
  if (strcmp(s_command_lv, "unregister") == 0) {
    p_lv->m_alive.erase(p_owner_lv);
  } else if (strcmp(s_command_lv, "register") == 0) {
    SrvAlive& alive_lv = p_lv->m_alive[p_owner_lv];
    if (alive_lv.m_b_silent) p_lv->m_lines.push_back("alive: '" + std::string(s_caption_lv) + "' confirms again");
    alive_lv.m_s_caption = s_caption_lv;
    alive_lv.m_i64_last_perf = PlPerfCounter();
    alive_lv.m_i64_count++;
    alive_lv.m_b_silent = false;
  }
}

// "track_schedule_in": the plug-in asks for the calendar with "get_list".
void OnScheduleIn(void* p_user_av, ProfileParam* p_params_av) {
  SrvHostTracks* p_lv = static_cast<SrvHostTracks*>(p_user_av);
  bool b_get_list_lv = false;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++)
    b_get_list_lv = b_get_list_lv || (Named(p_el_lv, "command") && TextOf(p_el_lv) != nullptr &&
                                      strcmp(TextOf(p_el_lv), "get_list") == 0);
  if (!b_get_list_lv) return;
  std::string s_text_lv = SrvCalendarText(*p_lv->m_p_settings);
  ProfileParam answer_lv[] = {{PP_STRING, "holidays_and_working_weekends", const_cast<char*>(s_text_lv.c_str())},
                              {PP_END, nullptr, nullptr}};
  profile_data(p_lv->m_h_schedule_out, answer_lv, 0);
  p_lv->m_i64_calendar_answers++;
}

// The command name and the "id" parameter of a service call's JSON.
void ReadServiceCall(const char* s_json_av, std::string* p_cmd_av, std::string* p_id_av) {
  char s_err_lv[256];
  yajl_val p_root_lv = yajl_tree_parse(s_json_av, s_err_lv, sizeof(s_err_lv));
  if (p_root_lv == nullptr) return;
  SrvJsonText(p_root_lv, "cmd", p_cmd_av, nullptr);
  SrvJsonText(SrvJsonMember(p_root_lv, "params"), "id", p_id_av, nullptr);
  yajl_tree_free(p_root_lv);
}

// "trackWsServerCmd": a call of another plug-in's method; the host answers
// "rtsp:list_cameras" from its camera list on "trackWsServerData", with the
// caller's owner and request number echoed.
void OnWsCmd(void* p_user_av, ProfileParam* p_params_av) {
  SrvHostTracks* p_lv = static_cast<SrvHostTracks*>(p_user_av);
  const char* s_cmd_json_lv = nullptr;
  void *p_owner_lv = nullptr, *p_owner_data_lv = nullptr;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (Named(p_el_lv, "cmd") && TextOf(p_el_lv) != nullptr) s_cmd_json_lv = TextOf(p_el_lv);
    if (Named(p_el_lv, "owner") && p_el_lv->type == PP_OBJECT) p_owner_lv = p_el_lv->value;
    if (Named(p_el_lv, "owner_data") && p_el_lv->type == PP_OBJECT) p_owner_data_lv = p_el_lv->value;
  }
  if (s_cmd_json_lv == nullptr) return;
  std::string s_cmd_lv, s_id_lv;
  ReadServiceCall(s_cmd_json_lv, &s_cmd_lv, &s_id_lv);
  if (s_cmd_lv != "rtsp:list_cameras") {
    AddLine(p_lv, "service call '" + s_cmd_lv + "' is not served by this host");
    return;
  }
  std::string s_answer_lv = SrvListCamerasText(*p_lv->m_p_settings, s_id_lv);
  ProfileParam answer_lv[] = {{PP_STRING, "json", const_cast<char*>(s_answer_lv.c_str())},
                              {PP_OBJECT, "owner", p_owner_lv},
                              {PP_OBJECT, "owner_data", p_owner_data_lv},
                              {PP_END, nullptr, nullptr}};
  profile_data(p_lv->m_h_ws_data, answer_lv, 0);
  p_lv->m_i64_camera_answers++;
}

// "track_event": system events of the plug-in (liveness, passes, storage).
void OnEvent(void* p_user_av, ProfileParam* p_params_av) {
  SrvHostTracks* p_lv = static_cast<SrvHostTracks*>(p_user_av);
  int32_t i_type_lv = 0;
  std::string s_comment_lv, s_key2_lv;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (Named(p_el_lv, "event_type") && p_el_lv->type == PP_INT32 && p_el_lv->value != nullptr)
      i_type_lv = *static_cast<int32_t*>(p_el_lv->value);
    if (Named(p_el_lv, "comment") && TextOf(p_el_lv) != nullptr) s_comment_lv = TextOf(p_el_lv);
    if (Named(p_el_lv, "key2") && TextOf(p_el_lv) != nullptr) s_key2_lv = TextOf(p_el_lv);
  }
  // A channel taking over the event state sends an empty message: the
  // host keeps no events of its own to replay, so there is nothing to show.
  if (i_type_lv == 0) return;
  p_lv->m_i64_plugin_events++;
  AddLine(p_lv, "event " + std::to_string(i_type_lv) + " from the plug-in, camera " + s_key2_lv + ": " + s_comment_lv);
}

// "track_vp-api": the plug-in's answer to a forced command, an XML text.
void OnApi(void* p_user_av, ProfileParam* p_params_av) {
  SrvHostTracks* p_lv = static_cast<SrvHostTracks*>(p_user_av);
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (!Named(p_el_lv, "result") || TextOf(p_el_lv) == nullptr) continue;
    std::string s_answer_lv = TextOf(p_el_lv);
    if (s_answer_lv.size() > 512) s_answer_lv.resize(512);
    p_lv->m_i64_forced_answers++;
    AddLine(p_lv, "api: answer " + s_answer_lv);
  }
}

const SrvCamera* FindCamera(const SrvSettings& settings_av, const std::string& s_name_av) {
  for (const SrvCamera& cam_lv : settings_av.m_cameras)
    if (cam_lv.m_s_name == s_name_av) return &cam_lv;
  return nullptr;
}

uint32_t ScriptThread(void* p_arg_av) {
  SrvHostTracks* p_lv = static_cast<SrvHostTracks*>(p_arg_av);
  SrvCrashThreadBegin();
  std::vector<SrvEventStep> steps_lv = p_lv->m_p_settings->m_events;
  std::stable_sort(steps_lv.begin(), steps_lv.end(),
                   [](const SrvEventStep& a_av, const SrvEventStep& b_av) { return a_av.m_d_at_s < b_av.m_d_at_s; });
  int64_t i64_start_lv = PlPerfCounter(), i64_serial_lv = 0;
  for (const SrvEventStep& step_lv : steps_lv) {
    double d_wait_ms_lv = (step_lv.m_d_at_s - SecondsSince(i64_start_lv)) * 1000.0;
    if (d_wait_ms_lv > 0 && p_lv->m_p_stop->Wait(static_cast<uint32_t>(d_wait_ms_lv)) == PL_WAIT_OBJECT_0) break;
    if (p_lv->m_p_stop->IsSet()) break;
    if (!step_lv.m_s_command.empty()) {
      // The answer comes back inside the send: the command's line first.
      AddLine(p_lv, "script: " + step_lv.m_s_command + " for camera id '" + step_lv.m_s_id + "'");
      SrvPostForced(p_lv->m_h_api, step_lv);
      p_lv->m_i64_script_posted++;
      continue;
    }
    const SrvCamera* p_cam_lv = FindCamera(*p_lv->m_p_settings, step_lv.m_s_camera);
    if (p_cam_lv == nullptr) continue;
    SrvPostEvent(p_lv->m_h_event, *p_cam_lv, step_lv, ++i64_serial_lv);
    p_lv->m_i64_script_posted++;
    AddLine(p_lv, "script: event " + std::to_string(step_lv.m_b_start ? step_lv.m_i_event : step_lv.m_i_stop_event) +
                      (step_lv.m_b_start ? " starts" : " stops") + " on " + step_lv.m_s_camera);
  }
  SrvCrashThreadEnd();
  return 0;
}

TrackHandle OpenWith(const char* s_track_av, ProfileTrackFn fn_av, void* p_user_av) {
  ProfileCallback cb_lv = {p_user_av, reinterpret_cast<void*>(fn_av)};
  return profile_open(s_track_av, fn_av != nullptr ? &cb_lv : nullptr, __FILE__, __LINE__);
}

}  // namespace

std::string SrvCalendarText(const SrvSettings& settings_av) {
  auto list_lv = [](const std::vector<std::string>& items_av) {
    std::string s_lv = "[";
    for (size_t ui_lv = 0; ui_lv < items_av.size(); ui_lv++) s_lv += (ui_lv > 0 ? "," : "") + SrvJsonQuote(items_av[ui_lv]);
    return s_lv + "]";
  };
  return "{\"holidays\":" + list_lv(settings_av.m_holidays) +
         ",\"working_weekends\":" + list_lv(settings_av.m_working_weekends) + "}";
}

std::string SrvListCamerasText(const SrvSettings& settings_av, const std::string& s_id_av) {
  std::string s_out_lv = "[";
  for (const SrvCamera& cam_lv : settings_av.m_cameras) {
    if (cam_lv.m_s_id != s_id_av) continue;
    s_out_lv += (s_out_lv.size() > 1 ? "," : "") + std::string("{\"id\":") + SrvJsonQuote(cam_lv.m_s_id) +
                ",\"name\":" + SrvJsonQuote(cam_lv.m_s_name) + ",\"key1\":" + SrvJsonQuote(cam_lv.m_s_arc_keys[0]) +
                ",\"key2\":" + SrvJsonQuote(cam_lv.m_s_arc_keys[1]) + ",\"key3\":" + SrvJsonQuote(cam_lv.m_s_arc_keys[2]) +
                "}";
  }
  return s_out_lv + "]";
}

void SrvPostEvent(TrackHandle h_av, const SrvCamera& camera_av, const SrvEventStep& step_av, int64_t i64_serial_av) {
  // A start names its stop partner, a stop names the start it ends; the
  // guid ties the two halves together.
  std::string s_guid_lv = step_av.m_s_guid.empty() ? "g" + std::to_string(step_av.m_i_event) + "_" + camera_av.m_s_name
                                                   : step_av.m_s_guid;
  if (s_guid_lv.size() > 31) s_guid_lv.resize(31);
  std::string s_sysinfo_lv = step_av.m_b_start
                                 ? ",event_stop_id=" + std::to_string(step_av.m_i_stop_event) + ",guid=" + s_guid_lv + ","
                                 : ",event_start_id=" + std::to_string(step_av.m_i_event) + ",guid=" + s_guid_lv + ",";
  std::string s_comment_lv = "script step " + std::to_string(i64_serial_av);
  int32_t i_type_lv = step_av.m_b_start ? step_av.m_i_event : step_av.m_i_stop_event, i_zero_lv = 0;
  int64_t i64_zero_lv = 0;
  ProfileParam msg_lv[] = {{PP_INT64, "time", nullptr},
                           {PP_INT32, "event_type", &i_type_lv},
                           {PP_STRING, "key1", const_cast<char*>(camera_av.m_s_arc_keys[0].c_str())},
                           {PP_STRING, "key2", const_cast<char*>(camera_av.m_s_arc_keys[1].c_str())},
                           {PP_STRING, "key3", const_cast<char*>(camera_av.m_s_arc_keys[2].c_str())},
                           {PP_STRING, "ip", const_cast<char*>("0.0.0.0")},
                           {PP_INT32, "port", nullptr},
                           {PP_STRING, "comment", const_cast<char*>(s_comment_lv.c_str())},
                           {PP_INT32, "user_id", &i_zero_lv},
                           {PP_STRING, "user_login", const_cast<char*>("system")},
                           {PP_INT64, "user_login_hash", &i64_zero_lv},
                           {PP_STRING, "sysjson", const_cast<char*>("{}")},
                           {PP_STRING, "sysinfo", const_cast<char*>(s_sysinfo_lv.c_str())},
                           {PP_LIST, "image", nullptr},
                           {PP_END, nullptr, nullptr}};
  profile_data(h_av, msg_lv, 0);
}

void SrvPostForced(TrackHandle h_av, const SrvEventStep& step_av) {
  std::string s_seconds_lv = std::to_string(step_av.m_i64_duration);
  ProfileParam args_lv[] = {{PP_STRING, "id", const_cast<char*>(step_av.m_s_id.c_str())},
                            {PP_STRING, s_seconds_lv.c_str(), nullptr},
                            {PP_END, nullptr, nullptr}};
  if (step_av.m_i64_duration < 0) args_lv[1] = args_lv[2];
  ProfileParam msg_lv[] = {{PP_STRING, "method", const_cast<char*>(step_av.m_s_command.c_str())},
                           {PP_LIST, "args", args_lv},
                           {PP_END, nullptr, nullptr}};
  profile_data(h_av, msg_lv, 0);
}

void SrvHostTracksOpen(SrvHostTracks* p_av, const SrvSettings* p_settings_av) {
  p_av->m_p_settings = p_settings_av;
  p_av->m_p_stop = new PlEvent(true, false);
  p_av->m_h_alive = OpenWith("alive_track", &OnAlive, p_av);
  p_av->m_h_schedule_out = OpenWith("track_schedule_out", nullptr, nullptr);
  p_av->m_h_schedule_in = OpenWith("track_schedule_in", &OnScheduleIn, p_av);
  p_av->m_h_ws_data = OpenWith("trackWsServerData", nullptr, nullptr);
  p_av->m_h_ws_cmd = OpenWith("trackWsServerCmd", &OnWsCmd, p_av);
  p_av->m_h_event = OpenWith("track_event", &OnEvent, p_av);
  p_av->m_h_api = OpenWith("track_vp-api", &OnApi, p_av);
}

void SrvHostTracksGo(SrvHostTracks* p_av) {
  if (!p_av->m_p_settings->m_events.empty() && p_av->m_p_script == nullptr)
    p_av->m_p_script = PlThread::Create(&ScriptThread, p_av, 0, false);
}

void SrvHostTracksCheckAlive(SrvHostTracks* p_av) {
  PlCritLock lock_lv(&p_av->m_crit_sect);
  for (auto& item_lv : p_av->m_alive) {
    SrvAlive& alive_lv = item_lv.second;
    double d_quiet_lv = SecondsSince(alive_lv.m_i64_last_perf);
    if (alive_lv.m_b_silent || d_quiet_lv < p_av->m_d_silence_s) continue;
    alive_lv.m_b_silent = true;
    p_av->m_i64_silences++;
    char s_lv[64];
    snprintf(s_lv, sizeof(s_lv), "%.0f", d_quiet_lv);
    p_av->m_lines.push_back("alive: '" + alive_lv.m_s_caption + "' has not confirmed for " + s_lv + " s");
  }
}

std::vector<std::string> SrvHostTracksTakeLines(SrvHostTracks* p_av) {
  PlCritLock lock_lv(&p_av->m_crit_sect);
  std::vector<std::string> lines_lv;
  lines_lv.swap(p_av->m_lines);
  return lines_lv;
}

void SrvHostTracksStopScript(SrvHostTracks* p_av) {
  if (p_av->m_p_stop != nullptr) p_av->m_p_stop->Set();
  if (p_av->m_p_script != nullptr) {
    p_av->m_p_script->Join(PL_INFINITE);
    PlThread::Close(p_av->m_p_script);
    p_av->m_p_script = nullptr;
  }
}

void SrvHostTracksClose(SrvHostTracks* p_av) {
  SrvHostTracksStopScript(p_av);
  for (TrackHandle* p_h_lv : {&p_av->m_h_api, &p_av->m_h_event, &p_av->m_h_ws_cmd, &p_av->m_h_ws_data,
                              &p_av->m_h_schedule_in, &p_av->m_h_schedule_out, &p_av->m_h_alive}) {
    if (*p_h_lv != 0) profile_close(*p_h_lv);
    *p_h_lv = 0;
  }
  delete p_av->m_p_stop;
  p_av->m_p_stop = nullptr;
}
