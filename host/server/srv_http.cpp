// The web front's HTTP routes (see srv_http.h). Handlers run on the pool's
// threads: they call the plug-in through dll_exec and the bus exactly as the
// host's other threads do, and take no lock of their own across those calls
// apart from the front's call mutex (srv_web), which orders nothing else.
#include "host/server/srv_http.h"

#include <httplib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yajl/yajl_tree.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "host/archive/arc_reader.h"
#include "host/server/srv_crash.h"
#include "host/server/srv_dashboard.h"
#include "host/server/srv_json.h"
#include "host/server/srv_media_lib.h"
#include "platform/pl_clock.h"

namespace {

const size_t POOL_THREADS = 4;
const size_t POOL_QUEUE = 16;         // connections waiting for a thread, at most
const time_t IO_TIMEOUT_S = 5;        // a client that sends or reads slower is dropped
const int64_t GAP_TICKS = 30000000;   // pauses over 3 s split a recording on the time line
const int64_t EXPORT_MAX_US = 900000000;  // one export: at most 15 minutes of recording
const int64_t LOGGED_MAX = 200;       // refused requests told one by one, then every 1000th

// A pool whose queue is bounded: when every thread is busy and the queue is
// full, the listener waits here instead of accepting, so that a flood of
// connections piles up in the kernel's backlog and not in memory.
class BoundedPool : public httplib::TaskQueue {
 public:
  BoundedPool() {
    for (size_t ui_lv = 0; ui_lv < POOL_THREADS; ui_lv++) m_threads.emplace_back([this] { Work(); });
  }
  void enqueue(std::function<void()> fn_av) override {
    std::unique_lock<std::mutex> lock_lv(m_mutex);
    m_cond_room.wait(lock_lv, [this] { return m_jobs.size() < POOL_QUEUE || m_b_down; });
    m_jobs.push_back(std::move(fn_av));
    m_cond_job.notify_one();
  }
  void shutdown() override {
    {
      std::lock_guard<std::mutex> lock_lv(m_mutex);
      m_b_down = true;
    }
    m_cond_job.notify_all();
    m_cond_room.notify_all();
    for (std::thread& t_lv : m_threads) t_lv.join();
  }

 private:
  void Work() {
    SrvCrashThreadBegin();
    for (;;) {
      std::function<void()> fn_lv;
      {
        std::unique_lock<std::mutex> lock_lv(m_mutex);
        m_cond_job.wait(lock_lv, [this] { return !m_jobs.empty() || m_b_down; });
        if (m_jobs.empty()) break;
        fn_lv = std::move(m_jobs.front());
        m_jobs.pop_front();
        m_cond_room.notify_one();
      }
      fn_lv();
    }
    SrvCrashThreadEnd();
  }
  std::mutex m_mutex;
  std::condition_variable m_cond_job, m_cond_room;
  std::deque<std::function<void()>> m_jobs;
  std::vector<std::thread> m_threads;
  bool m_b_down = false;
};

// The answer of a forced command arrives on the sending thread, inside the
// send: the thread's own slot catches it, so concurrent commands never mix.
thread_local std::string* t_p_forced_answer = nullptr;

void OnApiAnswer(void*, ProfileParam* p_params_av) {
  if (t_p_forced_answer == nullptr) return;
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++)
    if (p_el_lv->type == PP_STRING && p_el_lv->name != nullptr && strcmp(p_el_lv->name, "result") == 0 &&
        p_el_lv->value != nullptr)
      *t_p_forced_answer = static_cast<const char*>(p_el_lv->value);
}

void Reply(httplib::Response& res_av, int i_status_av, const std::string& s_json_av) {
  res_av.status = i_status_av;
  res_av.set_content(s_json_av, "application/json; charset=utf-8");
}

void Fail(httplib::Response& res_av, int i_status_av, const std::string& s_message_av) {
  Reply(res_av, i_status_av, "{\"error\":" + SrvJsonQuote(s_message_av) + "}");
}

// A JSON object from a body or a parameter; null with the parser's message.
yajl_val ParseObject(const std::string& s_text_av, std::string* p_error_av) {
  char s_err_lv[256] = {0};
  yajl_val p_lv = yajl_tree_parse(s_text_av.c_str(), s_err_lv, sizeof(s_err_lv));
  if (p_lv == nullptr) {
    *p_error_av = std::string("bad JSON: ") + s_err_lv;
    while (!p_error_av->empty() && (p_error_av->back() == '\n' || p_error_av->back() == ' ')) p_error_av->pop_back();
    return nullptr;
  }
  if (!YAJL_IS_OBJECT(p_lv)) {
    yajl_tree_free(p_lv);
    *p_error_av = "a JSON object is expected";
    return nullptr;
  }
  return p_lv;
}

// Owns a parsed tree for one handler.
struct Tree {
  yajl_val m_p = nullptr;
  ~Tree() {
    if (m_p != nullptr) yajl_tree_free(m_p);
  }
};

int64_t LocalTicksToUtcUs(int64_t i64_local_av) {
  if (i64_local_av <= 0) return 0;
  return static_cast<int64_t>(PlLocalToFileTime(static_cast<uint64_t>(i64_local_av))) / 10 - 0x295E9648864000LL;
}

std::string Num(int64_t i64_av) { return std::to_string(i64_av); }

}  // namespace

struct SrvHttp {
  SrvRunView m_view;
  std::string m_s_token;
  httplib::Server m_server;
  std::thread m_thread;
  TrackHandle m_h_api = 0;
  TrackHandle m_h_event = 0;
  std::atomic<int64_t> m_i64_refused{0};

  void Routes();
  bool WriteAllowed(const httplib::Request& req_av, httplib::Response& res_av);
  const SrvCamera* Camera(const std::string& s_name_av) const;
  void Methods(const httplib::Request& req_av, httplib::Response& res_av);
  void CallMethod(const httplib::Request& req_av, httplib::Response& res_av);
  void Query(const httplib::Request& req_av, httplib::Response& res_av);
  void Cameras(const httplib::Request& req_av, httplib::Response& res_av);
  void Recording(const httplib::Request& req_av, httplib::Response& res_av);
  void Event(const httplib::Request& req_av, httplib::Response& res_av);
  void Recordings(const httplib::Request& req_av, httplib::Response& res_av, const std::string& s_camera_av);
  void Export(const httplib::Request& req_av, httplib::Response& res_av);
  std::map<std::string, std::string> FolderNames() const;
  void Log(const httplib::Request& req_av, const httplib::Response& res_av);
};

bool SrvHttpTokenOk(const std::string& s_token_av, const std::string& s_authorization_av) {
  if (s_token_av.empty()) return true;
  static const char BEARER[] = "Bearer ";
  std::string s_given_lv =
      s_authorization_av.compare(0, sizeof(BEARER) - 1, BEARER) == 0 ? s_authorization_av.substr(sizeof(BEARER) - 1) : "";
  // Every byte of the longer text is looked at, whatever matches.
  size_t ui_len_lv = std::max(s_given_lv.size(), s_token_av.size());
  unsigned char c_diff_lv = s_given_lv.size() == s_token_av.size() ? 0 : 1;
  for (size_t ui_lv = 0; ui_lv < ui_len_lv; ui_lv++) {
    unsigned char c_a_lv = ui_lv < s_given_lv.size() ? static_cast<unsigned char>(s_given_lv[ui_lv]) : 0;
    unsigned char c_b_lv = ui_lv < s_token_av.size() ? static_cast<unsigned char>(s_token_av[ui_lv]) : 0;
    c_diff_lv |= static_cast<unsigned char>(c_a_lv ^ c_b_lv);
  }
  return c_diff_lv == 0;
}

bool SrvHttpQueryWrites(const std::string& s_query_id_av) {
  static const char* const WRITES[] = {"work_mode_set", "work_mode_reset", "query_log_status_add",
                                       "query_log_status_delete", "query_log_status_off", "traffic_params"};
  for (const char* s_lv : WRITES)
    if (s_query_id_av == s_lv) return true;
  return false;
}

bool SrvHttpSafeName(const std::string& s_name_av) {
  if (s_name_av.empty() || s_name_av.size() > 255 || s_name_av == "." || s_name_av.find("..") != std::string::npos)
    return false;
  for (unsigned char c_lv : s_name_av)
    if (c_lv == '/' || c_lv == '\\' || c_lv < 0x20 || c_lv == 0x7f) return false;
  return true;
}

bool SrvHttp::WriteAllowed(const httplib::Request& req_av, httplib::Response& res_av) {
  if (SrvHttpTokenOk(m_s_token, req_av.get_header_value("Authorization"))) return true;
  res_av.set_header("WWW-Authenticate", "Bearer");
  Fail(res_av, 401, "this route changes the recording: give \"Authorization: Bearer TOKEN\"");
  return false;
}

const SrvCamera* SrvHttp::Camera(const std::string& s_name_av) const {
  for (const SrvCamera& cam_lv : m_view.m_p_settings->m_cameras)
    if (cam_lv.m_s_id == s_name_av || cam_lv.m_s_name == s_name_av) return &cam_lv;
  return nullptr;
}

void SrvHttp::Methods(const httplib::Request&, httplib::Response& res_av) {
  std::string s_lv = "{\"methods\":[";
  std::vector<SrvWebMethod> methods_lv = SrvWebMethods(m_view.m_p_web);
  for (size_t ui_lv = 0; ui_lv < methods_lv.size(); ui_lv++) {
    const SrvWebMethod& m_lv = methods_lv[ui_lv];
    s_lv += std::string(ui_lv > 0 ? "," : "") + "{\"plugin\":" + SrvJsonQuote(m_lv.m_s_plugin) +
            ",\"name\":" + SrvJsonQuote(m_lv.m_s_name) + ",\"in_track\":" + SrvJsonQuote(m_lv.m_s_in_track) +
            ",\"params\":" + SrvJsonQuote(m_lv.m_s_params) + ",\"help\":" + SrvJsonQuote(m_lv.m_s_help) + "}";
  }
  Reply(res_av, 200, s_lv + "]}");
}

// Parameters come as a JSON body, or as a query string whose members become
// text members of one object ("params" as a whole JSON text also works).
void SrvHttp::CallMethod(const httplib::Request& req_av, httplib::Response& res_av) {
  std::string s_method_lv = req_av.matches[1];
  std::string s_params_lv, s_error_lv;
  if (!req_av.body.empty()) {
    s_params_lv = req_av.body;
  } else if (req_av.has_param("params")) {
    s_params_lv = req_av.get_param_value("params");
  } else if (!req_av.params.empty()) {
    s_params_lv = "{";
    for (const auto& item_lv : req_av.params)
      s_params_lv += (s_params_lv.size() > 1 ? "," : "") + SrvJsonQuote(item_lv.first) + ":" + SrvJsonQuote(item_lv.second);
    s_params_lv += "}";
  }
  if (!s_params_lv.empty()) {
    Tree tree_lv{ParseObject(s_params_lv, &s_error_lv)};
    if (tree_lv.m_p == nullptr) return Fail(res_av, 400, s_error_lv);
  }
  std::string s_answer_lv;
  switch (SrvWebCall(m_view.m_p_web, s_method_lv.c_str(), s_params_lv.empty() ? nullptr : s_params_lv.c_str(),
                     &s_answer_lv)) {
    case SRV_WEB_ANSWERED:
      return Reply(res_av, 200, s_answer_lv);
    case SRV_WEB_REFUSED:
      return Fail(res_av, 404, s_answer_lv);
    default:
      return Fail(res_av, 503, "no method provider answered");
  }
}

void SrvHttp::Query(const httplib::Request& req_av, httplib::Response& res_av) {
  std::string s_json_lv = req_av.method == "POST" ? req_av.body : req_av.get_param_value("json");
  std::string s_error_lv, s_query_id_lv;
  if (s_json_lv.empty()) return Fail(res_av, 400, "give the query as ?json=... or as a POST body");
  {
    Tree tree_lv{ParseObject(s_json_lv, &s_error_lv)};
    if (tree_lv.m_p == nullptr) return Fail(res_av, 400, s_error_lv);
    SrvJsonText(tree_lv.m_p, "query_id", &s_query_id_lv, nullptr);
  }
  if (SrvHttpQueryWrites(s_query_id_lv) && !WriteAllowed(req_av, res_av)) return;
  std::string s_answer_lv = SrvPluginQuery(m_view.m_p_plugin, s_json_lv);
  // Most answers are JSON; the help text is plain text.
  bool b_json_lv = s_answer_lv.empty() || s_answer_lv[0] == '{' || s_answer_lv[0] == '[';
  res_av.status = 200;
  res_av.set_content(s_answer_lv, b_json_lv ? "application/json; charset=utf-8" : "text/plain; charset=utf-8");
}

void SrvHttp::Cameras(const httplib::Request&, httplib::Response& res_av) {
  const std::vector<SrvCamera>& cams_lv = m_view.m_p_settings->m_cameras;
  std::string s_lv = "{\"cameras\":[";
  for (size_t ui_lv = 0; ui_lv < cams_lv.size(); ui_lv++) {
    const SrvCamera& cam_lv = cams_lv[ui_lv];
    s_lv += std::string(ui_lv > 0 ? "," : "") + "{\"name\":" + SrvJsonQuote(cam_lv.m_s_name) +
            ",\"id\":" + SrvJsonQuote(cam_lv.m_s_id) + ",\"key1\":" + SrvJsonQuote(cam_lv.m_s_arc_keys[0]) +
            ",\"key2\":" + SrvJsonQuote(cam_lv.m_s_arc_keys[1]) + ",\"key3\":" + SrvJsonQuote(cam_lv.m_s_arc_keys[2]) +
            ",\"by_events\":" + (cam_lv.m_b_by_events ? "true" : "false");
    if (ui_lv < m_view.m_sources.size()) {
      const SrvSourceCounts& c_lv = m_view.m_sources[ui_lv]->m_counts;
      s_lv += ",\"sent\":" + Num(c_lv.m_i64_sent) + ",\"wanted\":" + Num(c_lv.m_i64_wanted) +
              ",\"bytes\":" + Num(c_lv.m_i64_bytes) + ",\"reconnects\":" + Num(c_lv.m_i64_reconnects);
    }
    s_lv += "}";
  }
  Reply(res_av, 200, s_lv + "]}");
}

// {"action":"start","duration":N} or {"action":"stop"}, sent on
// "track_vp-api" as an API client sends it; the plug-in's XML comes back.
void SrvHttp::Recording(const httplib::Request& req_av, httplib::Response& res_av) {
  if (!WriteAllowed(req_av, res_av)) return;
  const SrvCamera* p_cam_lv = Camera(req_av.matches[1]);
  if (p_cam_lv == nullptr) return Fail(res_av, 404, "no camera '" + std::string(req_av.matches[1]) + "'");
  std::string s_error_lv, s_action_lv;
  Tree tree_lv{ParseObject(req_av.body, &s_error_lv)};
  if (tree_lv.m_p == nullptr) return Fail(res_av, 400, s_error_lv);
  SrvEventStep step_lv;
  bool b_ok_lv = true;
  SrvJsonText(tree_lv.m_p, "action", &s_action_lv, &b_ok_lv);
  SrvJsonInt(tree_lv.m_p, "duration", &step_lv.m_i64_duration, &b_ok_lv);
  if (!b_ok_lv || (s_action_lv != "start" && s_action_lv != "stop") || step_lv.m_i64_duration < -1)
    return Fail(res_av, 400, "the body is {\"action\":\"start\",\"duration\":SECONDS} or {\"action\":\"stop\"}");
  step_lv.m_s_command = s_action_lv + "_recording";
  step_lv.m_s_id = p_cam_lv->m_s_id;
  if (s_action_lv == "stop") step_lv.m_i64_duration = -1;
  std::string s_answer_lv;
  t_p_forced_answer = &s_answer_lv;
  SrvPostForced(m_h_api, step_lv);
  t_p_forced_answer = nullptr;
  if (s_answer_lv.empty()) return Fail(res_av, 503, "the plug-in did not answer the command");
  res_av.status = s_answer_lv.find("cause=\"0\"") != std::string::npos ? 200 : 409;
  res_av.set_content(s_answer_lv, "application/xml; charset=utf-8");
}

// {"camera":NAME,"event":N,"stop_event":M,"action":"start"|"stop","guid":G},
// posted on "track_event" as the host's event sources post it.
void SrvHttp::Event(const httplib::Request& req_av, httplib::Response& res_av) {
  if (!WriteAllowed(req_av, res_av)) return;
  std::string s_error_lv, s_action_lv, s_camera_lv;
  Tree tree_lv{ParseObject(req_av.body, &s_error_lv)};
  if (tree_lv.m_p == nullptr) return Fail(res_av, 400, s_error_lv);
  bool b_ok_lv = true;
  int64_t i64_event_lv = 0, i64_stop_lv = 0;
  SrvEventStep step_lv;
  if (!SrvJsonText(tree_lv.m_p, "camera", &s_camera_lv, &b_ok_lv) ||
      !SrvJsonInt(tree_lv.m_p, "event", &i64_event_lv, &b_ok_lv) ||
      !SrvJsonText(tree_lv.m_p, "action", &s_action_lv, &b_ok_lv))
    return Fail(res_av, 400, "the body needs \"camera\", \"event\" and \"action\"");
  i64_stop_lv = i64_event_lv + 1;
  SrvJsonInt(tree_lv.m_p, "stop_event", &i64_stop_lv, &b_ok_lv);
  SrvJsonText(tree_lv.m_p, "guid", &step_lv.m_s_guid, &b_ok_lv);
  if (!b_ok_lv || (s_action_lv != "start" && s_action_lv != "stop") || i64_event_lv <= 0 || i64_event_lv > INT32_MAX ||
      i64_stop_lv <= 0 || i64_stop_lv > INT32_MAX)
    return Fail(res_av, 400,
                "\"action\" is start or stop, \"event\" and \"stop_event\" positive 32-bit numbers, \"guid\" a text");
  const SrvCamera* p_cam_lv = Camera(s_camera_lv);
  if (p_cam_lv == nullptr) return Fail(res_av, 404, "no camera '" + s_camera_lv + "'");
  step_lv.m_s_camera = p_cam_lv->m_s_name;
  step_lv.m_i_event = static_cast<int32_t>(i64_event_lv);
  step_lv.m_i_stop_event = static_cast<int32_t>(i64_stop_lv);
  step_lv.m_b_start = s_action_lv == "start";
  static std::atomic<int64_t> s_serial_lv{1000000};
  SrvPostEvent(m_h_event, *p_cam_lv, step_lv, ++s_serial_lv);
  Reply(res_av, 200, "{\"posted\":" + Num(step_lv.m_b_start ? step_lv.m_i_event : step_lv.m_i_stop_event) + "}");
}

// What the archive holds, per camera folder: its streams with their span,
// counts and the pauses in them. Only folders the archive itself lists are
// named, so no path is ever made from what the client sent.
void SrvHttp::Recordings(const httplib::Request&, httplib::Response& res_av, const std::string& s_camera_av) {
  if (!s_camera_av.empty() && !SrvHttpSafeName(s_camera_av)) return Fail(res_av, 400, "bad camera name");
  // A configured camera's name stands for its archive folder.
  std::map<std::string, std::string> names_lv = FolderNames();  // folder -> camera name
  std::string s_folder_lv = s_camera_av;
  const SrvCamera* p_cam_lv = s_camera_av.empty() ? nullptr : Camera(s_camera_av);
  for (const auto& item_lv : names_lv)
    if (p_cam_lv != nullptr && item_lv.second == p_cam_lv->m_s_name) s_folder_lv = item_lv.first;
  std::map<std::string, std::string> bodies_lv;  // folder -> its streams' JSON
  for (const warc::StreamRef& stream_lv : warc::FindStreams(m_view.m_p_settings->m_s_archive_root)) {
    std::string s_last_lv = stream_lv.m_s_camera.substr(stream_lv.m_s_camera.rfind('/') + 1);
    if (!s_folder_lv.empty() && s_last_lv != s_folder_lv) continue;
    warc::StreamSummary sum_lv = warc::SummariseStream(stream_lv, GAP_TICKS);
    std::string s_gaps_lv;
    for (const auto& gap_lv : sum_lv.m_gaps)
      s_gaps_lv += std::string(s_gaps_lv.empty() ? "" : ",") + "[" + Num(LocalTicksToUtcUs(gap_lv.first)) + "," +
                   Num(LocalTicksToUtcUs(gap_lv.second)) + "]";
    std::string& s_body_lv = bodies_lv[s_last_lv];
    s_body_lv += std::string(s_body_lv.empty() ? "" : ",") + "{\"kind\":" + SrvJsonQuote(stream_lv.m_s_kind) +
                 ",\"frames\":" + Num(static_cast<int64_t>(sum_lv.m_ui64_frames)) +
                 ",\"key_frames\":" + Num(static_cast<int64_t>(sum_lv.m_ui64_key_frames)) +
                 ",\"bytes\":" + Num(static_cast<int64_t>(sum_lv.m_ui64_bytes)) +
                 ",\"segments\":" + Num(static_cast<int64_t>(sum_lv.m_ui_segments)) +
                 ",\"first_us\":" + Num(LocalTicksToUtcUs(sum_lv.m_i64_first)) +
                 ",\"last_us\":" + Num(LocalTicksToUtcUs(sum_lv.m_i64_last)) + ",\"gaps\":[" + s_gaps_lv + "]}";
  }
  if (!s_camera_av.empty() && bodies_lv.empty())
    return Fail(res_av, 404, "the archive holds nothing of camera '" + s_camera_av + "'");
  std::string s_lv = "{\"recordings\":[";
  for (const auto& item_lv : bodies_lv) {
    auto it_lv = names_lv.find(item_lv.first);
    s_lv += std::string(s_lv.size() > 15 ? "," : "") + "{\"folder\":" + SrvJsonQuote(item_lv.first) +
            ",\"camera\":" + SrvJsonQuote(it_lv == names_lv.end() ? "" : it_lv->second) + ",\"streams\":[" +
            item_lv.second + "]}";
  }
  Reply(res_av, 200, s_lv + "]}");
}

// The archive folder of every configured camera, with the camera's name.
std::map<std::string, std::string> SrvHttp::FolderNames() const {
  std::map<std::string, std::string> names_lv;
  for (const SrvCamera& cam_lv : m_view.m_p_settings->m_cameras) names_lv[SrvCameraFolder(cam_lv)] = cam_lv.m_s_name;
  return names_lv;
}

namespace {

// A frame time in microseconds since 1970 UTC, digits only.
bool ParseMicros(const std::string& s_av, int64_t* p_out_av) {
  if (s_av.empty() || s_av.size() > 18 || s_av.find_first_not_of("0123456789") != std::string::npos) return false;
  *p_out_av = std::stoll(s_av);
  return true;
}

// An export is written to a file of its own and streamed from there; the
// file goes when the response is done with it.
struct ExportFile {
  std::string m_s_path;
  FILE* m_p_file = nullptr;
  ~ExportFile() {
    if (m_p_file != nullptr) fclose(m_p_file);
    unlink(m_s_path.c_str());
  }
};

}  // namespace

// One camera's range as MP4. The range is bounded so that one request's
// work is bounded; a player asks again for the next range.
void SrvHttp::Export(const httplib::Request& req_av, httplib::Response& res_av) {
  const std::string s_camera_lv = req_av.matches[1];
  if (!SrvHttpSafeName(s_camera_lv)) return Fail(res_av, 400, "bad camera name");
  int64_t i64_from_lv = 0, i64_to_lv = 0;
  if (!ParseMicros(req_av.get_param_value("from"), &i64_from_lv) ||
      !ParseMicros(req_av.get_param_value("to"), &i64_to_lv) || i64_to_lv < i64_from_lv)
    return Fail(res_av, 400, "\"from\" and \"to\" are frame times in microseconds since 1970 UTC, from <= to");
  if (i64_to_lv - i64_from_lv > EXPORT_MAX_US)
    return Fail(res_av, 400, "a range of at most " + Num(EXPORT_MAX_US / 1000000) + " s");
  std::string s_folder_lv = s_camera_lv;
  const SrvCamera* p_cam_lv = Camera(s_camera_lv);
  for (const auto& item_lv : FolderNames())
    if (p_cam_lv != nullptr && item_lv.second == p_cam_lv->m_s_name) s_folder_lv = item_lv.first;
  auto file_lv = std::make_shared<ExportFile>();
  char s_tmp_lv[] = "/tmp/writer-export-XXXXXX";
  int i_fd_lv = mkstemp(s_tmp_lv);
  if (i_fd_lv < 0) return Fail(res_av, 500, "no room for the export");
  close(i_fd_lv);
  file_lv->m_s_path = s_tmp_lv;
  std::string s_error_lv;
  const SrvMediaLib* p_lib_lv = SrvMediaLibLoad(m_view.m_p_settings->m_s_lib_dir, &s_error_lv);
  if (p_lib_lv == nullptr) return Fail(res_av, 500, s_error_lv);
  if (!p_lib_lv->m_p_export(m_view.m_p_settings->m_s_archive_root, s_folder_lv, i64_from_lv, i64_to_lv, "mp4",
                            file_lv->m_s_path, &s_error_lv))
    return Fail(res_av, s_error_lv.find("no video of camera") == 0 ? 404 : 422, s_error_lv);
  file_lv->m_p_file = fopen(file_lv->m_s_path.c_str(), "rb");
  struct stat st_lv;
  if (file_lv->m_p_file == nullptr || fstat(fileno(file_lv->m_p_file), &st_lv) != 0)
    return Fail(res_av, 500, "the export could not be read back");
  res_av.set_content_provider(
      static_cast<size_t>(st_lv.st_size), "video/mp4",
      [file_lv](size_t ui_offset_av, size_t ui_length_av, httplib::DataSink& sink_av) {
        char buf_lv[64 * 1024];
        if (fseeko(file_lv->m_p_file, static_cast<off_t>(ui_offset_av), SEEK_SET) != 0) return false;
        size_t ui_n_lv = fread(buf_lv, 1, std::min(ui_length_av, sizeof(buf_lv)), file_lv->m_p_file);
        return ui_n_lv > 0 && sink_av.write(buf_lv, ui_n_lv);
      },
      [file_lv](bool) {});
}

// Refused requests get one line each, up to a bound, so that a client that
// sends garbage in a loop cannot fill the console.
void SrvHttp::Log(const httplib::Request& req_av, const httplib::Response& res_av) {
  if (res_av.status < 400) return;
  int64_t i64_n_lv = ++m_i64_refused;
  if (i64_n_lv > LOGGED_MAX && i64_n_lv % 1000 != 0) return;
  std::string s_path_lv = req_av.path.size() > 120 ? req_av.path.substr(0, 120) + "..." : req_av.path;
  for (char& c_lv : s_path_lv)
    if (static_cast<unsigned char>(c_lv) < 0x20) c_lv = '?';
  std::string s_why_lv = res_av.body.size() > 200 ? res_av.body.substr(0, 200) + "..." : res_av.body;
  printf("writer-host: http %s %s from %s: %d %s%s\n", req_av.method.c_str(), s_path_lv.c_str(),
         req_av.remote_addr.c_str(), res_av.status, s_why_lv.c_str(),
         i64_n_lv > LOGGED_MAX ? " (one line per 1000 refusals from now on)" : "");
}

void SrvHttp::Routes() {
  using Req = const httplib::Request&;
  using Res = httplib::Response&;
  m_server.Get("/api/methods", [this](Req q, Res r) { Methods(q, r); });
  m_server.Get(R"(/api/methods/([^/]+))", [this](Req q, Res r) { CallMethod(q, r); });
  m_server.Post(R"(/api/methods/([^/]+))", [this](Req q, Res r) { CallMethod(q, r); });
  m_server.Get("/api/query", [this](Req q, Res r) { Query(q, r); });
  m_server.Post("/api/query", [this](Req q, Res r) { Query(q, r); });
  m_server.Get("/api/cameras", [this](Req q, Res r) { Cameras(q, r); });
  m_server.Post(R"(/api/cameras/([^/]+)/recording)", [this](Req q, Res r) { Recording(q, r); });
  m_server.Post("/api/events", [this](Req q, Res r) { Event(q, r); });
  m_server.Get("/api/recordings", [this](Req q, Res r) { Recordings(q, r, ""); });
  m_server.Get(R"(/api/recordings/([^/]+))", [this](Req q, Res r) { Recordings(q, r, q.matches[1]); });
  m_server.Get(R"(/api/recordings/([^/]+)/export\.mp4)", [this](Req q, Res r) { Export(q, r); });
  m_server.Get("/api/info", [this](Req, Res r) {
    Reply(r, 200, std::string("{\"export\":true,\"token\":") + (m_s_token.empty() ? "false" : "true") + "}");
  });
  m_server.Get("/metrics", [this](Req, Res r) {
    r.set_content(SrvMetricsText(m_view), "text/plain; version=0.0.4; charset=utf-8");
  });
  m_server.Get(R"(/|/[a-z_]+\.(html|js|css|svg))", [](Req q, Res r) {
    const SrvDashboardFile* p_lv = SrvDashboardFind(q.path == "/" ? "/index.html" : q.path);
    if (p_lv == nullptr) return Fail(r, 404, "no such file");
    r.set_content(reinterpret_cast<const char*>(p_lv->m_pb_data), p_lv->m_ui_size, p_lv->m_s_type);
  });
  // Routes with a body but none given, and paths that match nothing, still
  // answer in JSON; 413 for a body over the bound comes from the library.
  m_server.set_error_handler(httplib::Server::HandlerWithResponse([](Req, Res r) {
    if (!r.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
    Fail(r, r.status,
         r.status == 413 ? "the request body is over " + Num(static_cast<int64_t>(SRV_HTTP_MAX_BODY)) + " bytes"
                         : "no such route");
    return httplib::Server::HandlerResponse::Handled;
  }));
  m_server.set_exception_handler([](Req, Res r, std::exception_ptr) { Fail(r, 500, "internal error"); });
  m_server.set_logger([this](Req q, const httplib::Response& r) { Log(q, r); });
}

SrvHttp* SrvHttpStart(const SrvRunView& view_av, const std::string& s_host_av, int i_port_av,
                      const std::string& s_token_av, std::string* p_bound_av, std::string* p_error_av) {
  SrvHttp* p_lv = new SrvHttp();
  p_lv->m_view = view_av;
  p_lv->m_s_token = s_token_av;
  p_lv->m_server.new_task_queue = [] { return new BoundedPool(); };
  p_lv->m_server.set_payload_max_length(SRV_HTTP_MAX_BODY);
  p_lv->m_server.set_read_timeout(IO_TIMEOUT_S, 0);
  p_lv->m_server.set_write_timeout(IO_TIMEOUT_S, 0);
  p_lv->m_server.set_keep_alive_timeout(IO_TIMEOUT_S);
  p_lv->m_server.set_keep_alive_max_count(100);
  p_lv->Routes();
  int i_bound_lv = i_port_av == 0 ? p_lv->m_server.bind_to_any_port(s_host_av)
                                  : (p_lv->m_server.bind_to_port(s_host_av, i_port_av) ? i_port_av : -1);
  if (i_bound_lv <= 0) {
    *p_error_av = "the web front cannot listen on " + s_host_av + ":" + std::to_string(i_port_av);
    delete p_lv;
    return nullptr;
  }
  ProfileCallback api_cb_lv = {p_lv, reinterpret_cast<void*>(&OnApiAnswer)};
  p_lv->m_h_api = profile_open("track_vp-api", &api_cb_lv, __FILE__, __LINE__);
  p_lv->m_h_event = profile_open("track_event", nullptr, __FILE__, __LINE__);
  std::string s_host_lv = s_host_av.find(':') != std::string::npos ? "[" + s_host_av + "]" : s_host_av;
  *p_bound_av = s_host_lv + ":" + std::to_string(i_bound_lv);
  p_lv->m_thread = std::thread([p_lv] {
    SrvCrashThreadBegin();
    p_lv->m_server.listen_after_bind();
    SrvCrashThreadEnd();
  });
  return p_lv;
}

void SrvHttpStop(SrvHttp* p_av) {
  if (p_av == nullptr) return;
  p_av->m_server.stop();
  if (p_av->m_thread.joinable()) p_av->m_thread.join();
  if (p_av->m_h_event != 0) profile_close(p_av->m_h_event);
  if (p_av->m_h_api != 0) profile_close(p_av->m_h_api);
  delete p_av;
}
