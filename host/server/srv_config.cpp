// writer-host's settings and cameras (see srv_config.h). main calls the
// readers once; everything else only reads the result.
#include "host/server/srv_config.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "host/server/srv_account.h"
#include "host/server/srv_json.h"

const char* const SRV_USAGE =
    "usage: writer-host [options]\n"
    "\n"
    "Loads libwriter.so with the reference bus, log and archive, and records\n"
    "cameras until the duration has passed (or Ctrl-C).\n"
    "\n"
    "  --cameras FILE       cameras file (JSON); without it one synthetic camera\n"
    "                       records always (25 fps video, a key frame every 2 s,\n"
    "                       20 ms PCMA audio)\n"
    "  --archive DIR        archive root (default: archive_data beside writer-host)\n"
    "  --log DIR            log folder (default: log beside writer-host)\n"
    "  --state DIR          the plug-in's saved settings go to DIR/config\n"
    "                       (default: beside writer-host)\n"
    "  --lib-dir DIR        folder of libwriter.so, libwarchive.so and liblog.so\n"
    "                       (default: beside writer-host)\n"
    "  --duration SECONDS   run time; 0 runs until every source has ended (default 10)\n"
    "  --pacing real|fast   frames in real time, or as fast as the writer takes them\n"
    "                       (default real)\n"
    "  --in-flight N        fast pacing: frames sent and not yet stored, at most\n"
    "                       (default 100; 0: no bound)\n"
    "  --loop               start files over at their end\n"
  "  --frames N           each source ends after N frames (video and audio\n"
  "                       together); with --duration 0 the run then ends\n"
    "  --write-delay MS     slow the archive down: every write waits MS first\n"
    "  --archive-config J   more archive settings, a JSON object such as\n"
    "                       '{\"increase_write_buffers\":0}'\n"
    "  --drain SECONDS      at the end, wait at most this long for buffered frames\n"
    "                       to be stored (default 15)\n"
    "  --quiet              no progress lines\n"
    "  --http ADDR:PORT     serve the web front (API, /metrics, dashboard) there;\n"
    "                       loopback only unless a token is given; port 0 takes\n"
    "                       any free port (the line \"web front at\" tells which)\n"
    "  --http-token TOKEN   write routes (recording, events, work modes, log\n"
    "                       subscriptions) want \"Authorization: Bearer TOKEN\"\n"
    "  --help               this text\n"
    "\n"
    "Exit status: 0 when every camera that should record stored frames, 1 when\n"
    "one did not, 2 for bad options or a bad cameras file, 3 when the plug-in or\n"
    "a library could not be loaded, 4 when the log, archive or state folder\n"
    "cannot be made.\n";

std::string SrvCamera::MediaTrack() const { return StatusTrack() + "_" + m_s_in; }
std::string SrvCamera::StatusTrack() const { return m_s_keys[0] + "_" + m_s_keys[1] + "_" + m_s_keys[2]; }

namespace {

bool ParseNumber(const char* s_av, double* p_out_av) {
  char* s_end_lv = nullptr;
  *p_out_av = strtod(s_av, &s_end_lv);
  return *s_av != 0 && *s_end_lv == 0 && *p_out_av >= 0;
}

// The range of each numeric option: a value beyond it would never end a
// run, or wrap when it is made an integer.
struct NumberRange {
  const char* m_s_option;
  double m_d_min;
  double m_d_max;
  bool m_b_whole;
};
const NumberRange OPTION_RANGES[] = {
    {"--duration", 0, 31536000, false},  // a year
    {"--drain", 0, 86400, false},
    {"--in-flight", 0, 1000000, true},  // 0: no bound
    {"--frames", 0, 1e15, true},
    {"--write-delay", 0, 600000, true},
};

// False with a message naming the range when the value is outside it.
bool NumberInRange(const std::string& s_opt_av, double d_av, std::string* p_error_av) {
  for (const NumberRange& r_lv : OPTION_RANGES) {
    if (s_opt_av != r_lv.m_s_option) continue;
    if (d_av >= r_lv.m_d_min && d_av <= r_lv.m_d_max && (!r_lv.m_b_whole || d_av == static_cast<double>(static_cast<int64_t>(d_av))))
      return true;
    char s_lv[160];
    snprintf(s_lv, sizeof(s_lv), ": out of range, %s %.0f to %.0f", r_lv.m_b_whole ? "a whole number from" : "from",
             r_lv.m_d_min, r_lv.m_d_max);
    return *p_error_av = s_opt_av + s_lv, false;
  }
  return true;
}

// One option with a value; false with a message when it is bad.
bool TakeValued(const std::string& s_opt_av, const char* s_val_av, SrvSettings* p_av, std::string* p_error_av) {
  double d_lv = 0;
  if (s_opt_av == "--cameras") p_av->m_s_cameras_file = s_val_av;
  else if (s_opt_av == "--archive") p_av->m_s_archive_root = s_val_av;
  else if (s_opt_av == "--log") p_av->m_s_log_dir = s_val_av;
  else if (s_opt_av == "--state") p_av->m_s_state_dir = s_val_av;
  else if (s_opt_av == "--lib-dir") p_av->m_s_lib_dir = s_val_av;
  else if (s_opt_av == "--archive-config") p_av->m_s_archive_extra = s_val_av;
  else if (s_opt_av == "--pacing" && (strcmp(s_val_av, "real") == 0 || strcmp(s_val_av, "fast") == 0))
    p_av->m_b_paced = strcmp(s_val_av, "real") == 0;
  else if (!ParseNumber(s_val_av, &d_lv))
    return *p_error_av = s_opt_av + ": bad value '" + s_val_av + "'", false;
  else if (!NumberInRange(s_opt_av, d_lv, p_error_av))
    return false;
  else if (s_opt_av == "--duration") p_av->m_d_duration_s = d_lv;
  else if (s_opt_av == "--drain") p_av->m_d_drain_s = d_lv;
  else if (s_opt_av == "--in-flight") p_av->m_i_in_flight = static_cast<int>(d_lv);
  else if (s_opt_av == "--frames") p_av->m_i64_max_frames = static_cast<int64_t>(d_lv);
  else if (s_opt_av == "--write-delay") p_av->m_i_write_delay_ms = static_cast<int>(d_lv);
  else return *p_error_av = s_opt_av + ": bad value '" + s_val_av + "'", false;
  return true;
}

std::string DirOf(const std::string& s_path_av) {
  size_t ui_lv = s_path_av.rfind('/');
  return ui_lv == std::string::npos ? "." : s_path_av.substr(0, ui_lv);
}

}  // namespace

bool SrvParseArgs(int argc, char** argv, SrvSettings* p_out_av, std::string* p_error_av) {
  static const char* const VALUED[] = {"--cameras", "--archive", "--log", "--state", "--lib-dir",
                                       "--duration", "--pacing", "--in-flight", "--write-delay",
                                       "--archive-config", "--drain", "--frames", "--http", "--http-token"};
  std::string s_http_lv;
  for (int i_lv = 1; i_lv < argc; i_lv++) {
    std::string s_opt_lv = argv[i_lv];
    if (s_opt_lv == "--help" || s_opt_lv == "-h") p_out_av->m_b_help = true;
    else if (s_opt_lv == "--loop") p_out_av->m_b_loop = true;
    else if (s_opt_lv == "--quiet") p_out_av->m_b_quiet = true;
    else {
      bool b_valued_lv = false;
      for (const char* s_lv : VALUED) b_valued_lv = b_valued_lv || s_opt_lv == s_lv;
      if (!b_valued_lv) return *p_error_av = "unknown option " + s_opt_lv, false;
      if (i_lv + 1 >= argc) return *p_error_av = s_opt_lv + " needs a value", false;
      if (s_opt_lv == "--http") {
        s_http_lv = argv[++i_lv];
        p_out_av->m_b_http = true;
        continue;
      }
      if (s_opt_lv == "--http-token") {
        p_out_av->m_s_http_token = argv[++i_lv];
        continue;
      }
      if (!TakeValued(s_opt_lv, argv[++i_lv], p_out_av, p_error_av)) return false;
    }
  }
  if (p_out_av->m_b_http && !SrvParseHttpAddress(s_http_lv, p_out_av->m_s_http_token, p_out_av, p_error_av))
    return false;
  const std::string& s_base_lv = p_out_av->m_s_exe_dir;
  if (p_out_av->m_s_lib_dir.empty()) p_out_av->m_s_lib_dir = s_base_lv;
  if (p_out_av->m_s_archive_root.empty()) p_out_av->m_s_archive_root = s_base_lv + "/archive_data";
  if (p_out_av->m_s_log_dir.empty()) p_out_av->m_s_log_dir = s_base_lv + "/log";
  if (p_out_av->m_s_state_dir.empty()) p_out_av->m_s_state_dir = s_base_lv;
  return true;
}

bool SrvIsLoopback(const std::string& s_host_av) {
  return s_host_av == "localhost" || s_host_av == "::1" || s_host_av.compare(0, 4, "127.") == 0;
}

bool SrvParseHttpAddress(const std::string& s_text_av, const std::string& s_token_av, SrvSettings* p_out_av,
                         std::string* p_error_av) {
  size_t ui_colon_lv = s_text_av.rfind(':');
  std::string s_host_lv = ui_colon_lv == std::string::npos ? "" : s_text_av.substr(0, ui_colon_lv);
  std::string s_port_lv = ui_colon_lv == std::string::npos ? s_text_av : s_text_av.substr(ui_colon_lv + 1);
  if (s_host_lv.size() >= 2 && s_host_lv.front() == '[' && s_host_lv.back() == ']')
    s_host_lv = s_host_lv.substr(1, s_host_lv.size() - 2);
  double d_port_lv = 0;
  if (!ParseNumber(s_port_lv.c_str(), &d_port_lv) || d_port_lv > 65535 || d_port_lv != static_cast<int>(d_port_lv))
    return *p_error_av = "--http: bad port in '" + s_text_av + "'", false;
  if (s_host_lv.empty()) s_host_lv = "127.0.0.1";
  // Recording and event routes act on the cameras: whoever can reach a
  // listener on another address could drive them without a token.
  if (!SrvIsLoopback(s_host_lv) && s_token_av.empty())
    return *p_error_av = "--http: " + s_host_lv + " is not a loopback address; give --http-token as well", false;
  p_out_av->m_s_http_host = s_host_lv;
  p_out_av->m_i_http_port = static_cast<int>(d_port_lv);
  return true;
}

namespace {

// A member that must be a string array: the calendar lists.
bool ReadTextList(yajl_val p_root_av, const char* s_key_av, std::vector<std::string>* p_out_av,
                  std::string* p_error_av) {
  yajl_val p_lv = SrvJsonMember(p_root_av, s_key_av);
  if (p_lv == nullptr) return true;
  if (!YAJL_IS_ARRAY(p_lv)) return *p_error_av = std::string("\"") + s_key_av + "\" is not a list", false;
  for (size_t ui_lv = 0; ui_lv < p_lv->u.array.len; ui_lv++) {
    yajl_val p_item_lv = p_lv->u.array.values[ui_lv];
    if (!YAJL_IS_STRING(p_item_lv))
      return *p_error_av = std::string("\"") + s_key_av + "\" holds something that is not a text", false;
    p_out_av->push_back(YAJL_GET_STRING(p_item_lv));
  }
  return true;
}

// The stream source's own texts; false when one has the wrong type. Its
// time-outs are whole numbers checked with the others.
bool ReadStreamSettings(yajl_val p_src_av, SrvSourceConfig* p_out_av) {
  bool b_ok_lv = true;
  std::string s_transport_lv = "tcp";
  SrvJsonText(p_src_av, "url", &p_out_av->m_s_url, &b_ok_lv);
  SrvJsonText(p_src_av, "transport", &s_transport_lv, &b_ok_lv);
  if (s_transport_lv != "tcp" && s_transport_lv != "udp") b_ok_lv = false;
  p_out_av->m_b_udp = s_transport_lv == "udp";
  return b_ok_lv;
}

// Whole numbers of a source, each checked before it is made an int.
bool ReadSourceInts(yajl_val p_src_av, const std::string& s_where_av, SrvSourceConfig* p_out_av,
                    std::string* p_error_av) {
  struct IntField {
    const char* m_s_key;
    int64_t m_i64_min;
    int64_t m_i64_max;
    int* p_out;
  };
  const IntField fields_lv[] = {{"key_interval_ms", 1, 3600000, &p_out_av->m_i_key_interval_ms},
                                {"width", 1, 16384, &p_out_av->m_i_width},
                                {"height", 1, 16384, &p_out_av->m_i_height},
                                {"frame_bytes", 32, 64 << 20, &p_out_av->m_i_frame_bytes},
                                {"audio_frame_ms", 1, 10000, &p_out_av->m_i_audio_frame_ms},
                                {"connect_timeout_ms", 1, 3600000, &p_out_av->m_i_connect_timeout_ms},
                                {"read_timeout_ms", 1, 3600000, &p_out_av->m_i_read_timeout_ms},
                                {"retry_max_ms", 1, 3600000, &p_out_av->m_i_retry_max_ms}};
  for (const IntField& f_lv : fields_lv) {
    bool b_ok_lv = true;
    int64_t i64_lv = 0;
    bool b_given_lv = SrvJsonInt(p_src_av, f_lv.m_s_key, &i64_lv, &b_ok_lv);
    if (!b_ok_lv) return *p_error_av = s_where_av + ": a setting of \"source\" has the wrong type", false;
    if (!b_given_lv) continue;
    if (i64_lv < f_lv.m_i64_min || i64_lv > f_lv.m_i64_max)
      return *p_error_av = s_where_av + ": \"" + f_lv.m_s_key + "\" is out of range, from " +
                           std::to_string(f_lv.m_i64_min) + " to " + std::to_string(f_lv.m_i64_max), false;
    *f_lv.p_out = static_cast<int>(i64_lv);
  }
  return true;
}

bool ReadSource(yajl_val p_src_av, const std::string& s_where_av, const std::string& s_base_dir_av,
                SrvSourceConfig* p_out_av, std::string* p_error_av) {
  if (p_src_av == nullptr) return true;  // the synthetic default
  if (!YAJL_IS_OBJECT(p_src_av)) return *p_error_av = s_where_av + ": \"source\" is not an object", false;
  if (!ReadSourceInts(p_src_av, s_where_av, p_out_av, p_error_av)) return false;
  bool b_ok_lv = true;
  SrvJsonText(p_src_av, "type", &p_out_av->m_s_type, &b_ok_lv);
  SrvJsonText(p_src_av, "file", &p_out_av->m_s_file, &b_ok_lv);
  SrvJsonDouble(p_src_av, "fps", &p_out_av->m_d_fps, &b_ok_lv);
  SrvJsonBool(p_src_av, "video", &p_out_av->m_b_video, &b_ok_lv);
  SrvJsonBool(p_src_av, "audio", &p_out_av->m_b_audio, &b_ok_lv);
  if (!ReadStreamSettings(p_src_av, p_out_av)) b_ok_lv = false;
  if (!b_ok_lv) return *p_error_av = s_where_av + ": a setting of \"source\" has the wrong type", false;
  if (p_out_av->m_s_type == "h264") {
    if (p_out_av->m_s_file.empty()) return *p_error_av = s_where_av + ": an h264 source needs \"file\"", false;
    if (p_out_av->m_s_file[0] != '/') p_out_av->m_s_file = s_base_dir_av + "/" + p_out_av->m_s_file;
    p_out_av->m_b_audio = false;
  } else if (p_out_av->m_s_type == "stream") {
    if (p_out_av->m_s_url.empty()) return *p_error_av = s_where_av + ": a stream source needs \"url\"", false;
    if (p_out_av->m_s_url.find("://") == std::string::npos && p_out_av->m_s_url[0] != '/')
      p_out_av->m_s_url = s_base_dir_av + "/" + p_out_av->m_s_url;
  } else if (p_out_av->m_s_type != "synthetic") {
    return *p_error_av = s_where_av + ": unknown source type '" + p_out_av->m_s_type + "'", false;
  }
  if (!(p_out_av->m_d_fps >= 0 && p_out_av->m_d_fps <= 1000))
    return *p_error_av = s_where_av + ": \"fps\" is out of range, from 0 to 1000", false;
  return true;
}


// The parts of the plug-in's document that the host needs: track names,
// the archive's keys, the recording mode.
bool ReadDocument(yajl_val p_doc_av, const std::string& s_where_av, SrvCamera* p_cam_av, std::string* p_error_av) {
  if (p_doc_av == nullptr) return *p_error_av = s_where_av + ": missing \"config\" (the plug-in's document)", false;
  if (!YAJL_IS_OBJECT(p_doc_av)) return *p_error_av = s_where_av + ": \"config\" is not an object", false;
  p_cam_av->m_s_document = SrvJsonWrite(p_doc_av);
  static const char* const KEYS[] = {"key1", "key2", "key3"};
  for (int i_lv = 0; i_lv < 3; i_lv++) {
    const char* path_lv[] = {"common", KEYS[i_lv], nullptr};
    p_cam_av->m_s_keys[i_lv] = SrvJsonPathText(p_doc_av, path_lv);
    if (p_cam_av->m_s_keys[i_lv].empty())
      return *p_error_av = s_where_av + ": \"config\" lacks common/" + KEYS[i_lv], false;
  }
  const char* in_lv[] = {"archive", "writer", "in", "_value", nullptr};
  p_cam_av->m_s_in = SrvJsonPathText(p_doc_av, in_lv);
  if (p_cam_av->m_s_in.empty()) return *p_error_av = s_where_av + ": \"config\" lacks archive/writer/in/_value", false;
  bool b_all_arc_lv = true;
  for (int i_lv = 0; i_lv < 3; i_lv++) {
    std::string s_key_lv = "arc_key" + std::to_string(i_lv + 1);
    const char* path_lv[] = {"archive", "writer", s_key_lv.c_str(), "_value", nullptr};
    p_cam_av->m_s_arc_keys[i_lv] = SrvJsonPathText(p_doc_av, path_lv);
    b_all_arc_lv = b_all_arc_lv && !p_cam_av->m_s_arc_keys[i_lv].empty();
  }
  // The plug-in takes all three arc keys or none: then the common keys.
  if (!b_all_arc_lv) {
    const char* key4_lv[] = {"common", "key4", nullptr};
    for (int i_lv = 0; i_lv < 3; i_lv++) p_cam_av->m_s_arc_keys[i_lv] = p_cam_av->m_s_keys[i_lv];
    p_cam_av->m_s_arc_keys[3] = SrvJsonPathText(p_doc_av, key4_lv);
  }
  const char* by_events_lv[] = {"archive", "writer", "by_events", nullptr};
  yajl_val p_by_lv = yajl_tree_get(p_doc_av, by_events_lv, yajl_t_object);
  p_cam_av->m_b_by_events = p_by_lv != nullptr && YAJL_IS_TRUE(SrvJsonMember(p_by_lv, "_value"));
  const char* only_key_lv[] = {"archive", "writer", "only_key_frame", nullptr};
  yajl_val p_only_key_lv = yajl_tree_get(p_doc_av, only_key_lv, yajl_t_object);
  p_cam_av->m_b_only_key_frame = p_only_key_lv != nullptr && YAJL_IS_TRUE(SrvJsonMember(p_only_key_lv, "_value"));
  return true;
}

bool ReadCamera(yajl_val p_cam_av, size_t ui_index_av, const std::string& s_base_dir_av, SrvCamera* p_out_av,
                std::string* p_error_av) {
  std::string s_where_lv = "camera " + std::to_string(ui_index_av + 1);
  if (!YAJL_IS_OBJECT(p_cam_av)) return *p_error_av = s_where_lv + ": not an object", false;
  bool b_ok_lv = true;
  p_out_av->m_s_name = "cam" + std::to_string(ui_index_av + 1);
  SrvJsonText(p_cam_av, "name", &p_out_av->m_s_name, &b_ok_lv);
  p_out_av->m_s_id = p_out_av->m_s_name;
  SrvJsonText(p_cam_av, "id", &p_out_av->m_s_id, &b_ok_lv);
  if (!b_ok_lv) return *p_error_av = s_where_lv + ": \"name\" and \"id\" are texts", false;
  s_where_lv += " (" + p_out_av->m_s_name + ")";
  if (!ReadDocument(SrvJsonMember(p_cam_av, "config"), s_where_lv, p_out_av, p_error_av)) return false;
  p_out_av->m_b_must_record = !p_out_av->m_b_by_events;
  SrvJsonBool(p_cam_av, "must_record", &p_out_av->m_b_must_record, &b_ok_lv);
  if (!b_ok_lv) return *p_error_av = s_where_lv + ": \"must_record\" is true or false", false;
  if (!SrvReadArchiveFaults(p_cam_av, true, &p_out_av->m_archive_faults, p_error_av))
    return *p_error_av = s_where_lv + ": " + *p_error_av, false;
  return ReadSource(SrvJsonMember(p_cam_av, "source"), s_where_lv, s_base_dir_av, &p_out_av->m_source, p_error_av);
}

const SrvCamera* CameraNamed(const SrvSettings& settings_av, const std::string& s_name_av) {
  for (const SrvCamera& cam_lv : settings_av.m_cameras)
    if (cam_lv.m_s_name == s_name_av) return &cam_lv;
  return nullptr;
}

// A forced command names a camera of the file (its id is sent) or an id
// as it is, which may name no camera at all.
bool ReadForcedStep(yajl_val p_step_av, const std::string& s_where_av, const SrvSettings& settings_av,
                    SrvEventStep* p_out_av, std::string* p_error_av) {
  bool b_ok_lv = true;
  bool b_camera_lv = SrvJsonText(p_step_av, "camera", &p_out_av->m_s_camera, &b_ok_lv);
  bool b_id_lv = SrvJsonText(p_step_av, "id", &p_out_av->m_s_id, &b_ok_lv);
  SrvJsonInt(p_step_av, "duration", &p_out_av->m_i64_duration, &b_ok_lv);
  if (!b_ok_lv || (!b_camera_lv && !b_id_lv) ||
      (SrvJsonMember(p_step_av, "duration") != nullptr &&
       (p_out_av->m_i64_duration < 0 || p_out_av->m_i64_duration > INT32_MAX)))
    return *p_error_av = s_where_av +
                         ": a forced command needs \"camera\" or \"id\" (texts), and \"duration\" "
                         "is whole seconds, 0 to 2147483647",
           false;
  if (b_camera_lv && !b_id_lv) {
    const SrvCamera* p_cam_lv = CameraNamed(settings_av, p_out_av->m_s_camera);
    if (p_cam_lv == nullptr)
      return *p_error_av = s_where_av + ": no camera named '" + p_out_av->m_s_camera + "'", false;
    p_out_av->m_s_id = p_cam_lv->m_s_id;
  }
  return true;
}

// A step's time: seconds from the start, within the longest run.
bool AtInRange(const SrvEventStep& step_av, const std::string& s_where_av, std::string* p_error_av) {
  if (step_av.m_d_at_s >= 0 && step_av.m_d_at_s <= 31536000) return true;
  return *p_error_av = s_where_av + ": \"at\" is out of range, from 0 to 31536000 seconds", false;
}

bool ReadEventStep(yajl_val p_step_av, size_t ui_index_av, const SrvSettings& settings_av, SrvEventStep* p_out_av,
                   std::string* p_error_av) {
  std::string s_where_lv = "event " + std::to_string(ui_index_av + 1);
  bool b_ok_lv = true;
  std::string s_command_lv;
  if (SrvJsonText(p_step_av, "action", &s_command_lv, &b_ok_lv) &&
      (s_command_lv == "start_recording" || s_command_lv == "stop_recording")) {
    if (!SrvJsonDouble(p_step_av, "at", &p_out_av->m_d_at_s, &b_ok_lv))
      return *p_error_av = s_where_lv + ": needs \"at\" (seconds)", false;
    p_out_av->m_s_command = s_command_lv;
    if (!AtInRange(*p_out_av, s_where_lv, p_error_av)) return false;
    return ReadForcedStep(p_step_av, s_where_lv, settings_av, p_out_av, p_error_av);
  }
  b_ok_lv = true;
  int64_t i64_event_lv = 0, i64_stop_lv = 0;
  std::string s_action_lv;
  if (!SrvJsonDouble(p_step_av, "at", &p_out_av->m_d_at_s, &b_ok_lv) ||
      !SrvJsonText(p_step_av, "camera", &p_out_av->m_s_camera, &b_ok_lv) ||
      !SrvJsonInt(p_step_av, "event", &i64_event_lv, &b_ok_lv) || !SrvJsonText(p_step_av, "action", &s_action_lv, &b_ok_lv))
    return *p_error_av = s_where_lv + ": needs \"at\" (seconds), \"camera\", \"event\" and \"action\"", false;
  i64_stop_lv = i64_event_lv < INT64_MAX ? i64_event_lv + 1 : i64_event_lv;
  SrvJsonInt(p_step_av, "stop_event", &i64_stop_lv, &b_ok_lv);
  SrvJsonText(p_step_av, "guid", &p_out_av->m_s_guid, &b_ok_lv);
  if (!b_ok_lv || (s_action_lv != "start" && s_action_lv != "stop"))
    return *p_error_av = s_where_lv +
                         ": \"action\" is start, stop, start_recording or stop_recording, \"stop_event\" "
                         "a number, \"guid\" a text",
           false;
  if (!AtInRange(*p_out_av, s_where_lv, p_error_av)) return false;
  if (i64_event_lv < INT32_MIN || i64_event_lv > INT32_MAX || i64_stop_lv < INT32_MIN || i64_stop_lv > INT32_MAX)
    return *p_error_av = s_where_lv + ": \"event\" and \"stop_event\" are 32-bit numbers", false;
  if (CameraNamed(settings_av, p_out_av->m_s_camera) == nullptr)
    return *p_error_av = s_where_lv + ": no camera named '" + p_out_av->m_s_camera + "'", false;
  p_out_av->m_i_event = static_cast<int32_t>(i64_event_lv);
  p_out_av->m_i_stop_event = static_cast<int32_t>(i64_stop_lv);
  p_out_av->m_b_start = s_action_lv == "start";
  return true;
}

bool ReadCameraList(yajl_val p_root_av, const std::string& s_base_dir_av, SrvSettings* p_out_av, std::string* p_error_av) {
  yajl_val p_list_lv = SrvJsonMember(p_root_av, "cameras");
  if (p_list_lv == nullptr || !YAJL_IS_ARRAY(p_list_lv) || p_list_lv->u.array.len == 0)
    return *p_error_av = "missing \"cameras\": a list of at least one camera", false;
  for (size_t ui_lv = 0; ui_lv < p_list_lv->u.array.len; ui_lv++) {
    SrvCamera cam_lv;
    if (!ReadCamera(p_list_lv->u.array.values[ui_lv], ui_lv, s_base_dir_av, &cam_lv, p_error_av)) return false;
    for (const SrvCamera& other_lv : p_out_av->m_cameras)
      if (other_lv.m_s_name == cam_lv.m_s_name || other_lv.MediaTrack() == cam_lv.MediaTrack())
        return *p_error_av = "camera " + std::to_string(ui_lv + 1) + ": name or tracks of '" + other_lv.m_s_name +
                             "' again", false;
    p_out_av->m_cameras.push_back(cam_lv);
  }
  return true;
}

bool ReadEventList(yajl_val p_root_av, SrvSettings* p_out_av, std::string* p_error_av) {
  yajl_val p_list_lv = SrvJsonMember(p_root_av, "events");
  if (p_list_lv == nullptr) return true;
  if (!YAJL_IS_ARRAY(p_list_lv)) return *p_error_av = "\"events\" is not a list", false;
  for (size_t ui_lv = 0; ui_lv < p_list_lv->u.array.len; ui_lv++) {
    SrvEventStep step_lv;
    if (!ReadEventStep(p_list_lv->u.array.values[ui_lv], ui_lv, *p_out_av, &step_lv, p_error_av)) return false;
    p_out_av->m_events.push_back(step_lv);
  }
  return true;
}

bool ReadFileSettings(yajl_val p_root_av, SrvSettings* p_out_av, std::string* p_error_av) {
  yajl_val p_arc_lv = SrvJsonMember(p_root_av, "archive");
  if (p_arc_lv != nullptr && !YAJL_IS_OBJECT(p_arc_lv)) return *p_error_av = "\"archive\" is not an object", false;
  if (p_arc_lv != nullptr) p_out_av->m_s_file_archive = SrvJsonWrite(p_arc_lv);
  bool b_ok_lv = true;
  int64_t i64_lv = 0;
  bool b_given_lv = SrvJsonInt(p_root_av, "write_delay_ms", &i64_lv, &b_ok_lv);
  if (!b_ok_lv || (b_given_lv && (i64_lv < 0 || i64_lv > 600000)))
    return *p_error_av = "\"write_delay_ms\" is a whole number from 0 to 600000", false;
  if (b_given_lv && p_out_av->m_i_write_delay_ms < 0) p_out_av->m_i_write_delay_ms = static_cast<int>(i64_lv);
  p_out_av->m_archive_faults.clear();
  if (!SrvReadArchiveFaults(p_root_av, false, &p_out_av->m_archive_faults, p_error_av)) return false;
  return ReadTextList(p_root_av, "holidays", &p_out_av->m_holidays, p_error_av) &&
         ReadTextList(p_root_av, "working_weekends", &p_out_av->m_working_weekends, p_error_av);
}

}  // namespace

bool SrvParseCamerasText(const std::string& s_text_av, const std::string& s_name_av, SrvSettings* p_out_av,
                         std::string* p_error_av) {
  char s_err_lv[1024] = {0};
  yajl_val p_root_lv = yajl_tree_parse(s_text_av.c_str(), s_err_lv, sizeof(s_err_lv));
  std::string s_why_lv;
  bool b_ok_lv = false;
  if (p_root_lv == nullptr) {
    for (char* p_lv = s_err_lv; *p_lv != 0; p_lv++)
      if (*p_lv == '\n') *p_lv = ' ';
    s_why_lv = std::string("not JSON: ") + s_err_lv;
  } else if (!YAJL_IS_OBJECT(p_root_lv)) {
    s_why_lv = "not a JSON object";
  } else {
    p_out_av->m_cameras.clear();
    p_out_av->m_events.clear();
    b_ok_lv = ReadFileSettings(p_root_lv, p_out_av, &s_why_lv) &&
              ReadCameraList(p_root_lv, DirOf(s_name_av), p_out_av, &s_why_lv) &&
              ReadEventList(p_root_lv, p_out_av, &s_why_lv);
  }
  if (p_root_lv != nullptr) yajl_tree_free(p_root_lv);
  if (!b_ok_lv) *p_error_av = s_name_av + ": " + s_why_lv;
  return b_ok_lv;
}

bool SrvLoadCameras(SrvSettings* p_settings_av, std::string* p_error_av) {
  if (p_settings_av->m_s_cameras_file.empty())
    return SrvParseCamerasText(SrvDefaultCamerasText(), "(embedded default)", p_settings_av, p_error_av);
  std::ifstream in_lv(p_settings_av->m_s_cameras_file, std::ios::binary);
  if (!in_lv) return *p_error_av = p_settings_av->m_s_cameras_file + ": cannot be read", false;
  std::ostringstream text_lv;
  text_lv << in_lv.rdbuf();
  return SrvParseCamerasText(text_lv.str(), p_settings_av->m_s_cameras_file, p_settings_av, p_error_av);
}

namespace {

// Adds the members of a JSON object text to the map; later ones win.
bool MergeObject(const std::string& s_text_av, const char* s_what_av, std::map<std::string, std::string>* p_out_av,
                 std::string* p_error_av) {
  if (s_text_av.empty()) return true;
  char s_err_lv[256] = {0};
  yajl_val p_lv = yajl_tree_parse(s_text_av.c_str(), s_err_lv, sizeof(s_err_lv));
  bool b_ok_lv = p_lv != nullptr && YAJL_IS_OBJECT(p_lv);
  for (size_t ui_lv = 0; b_ok_lv && ui_lv < p_lv->u.object.len; ui_lv++)
    (*p_out_av)[p_lv->u.object.keys[ui_lv]] = SrvJsonWrite(p_lv->u.object.values[ui_lv]);
  if (p_lv != nullptr) yajl_tree_free(p_lv);
  if (!b_ok_lv) *p_error_av = std::string(s_what_av) + ": not a JSON object";
  return b_ok_lv;
}

}  // namespace

bool SrvArchiveConfig(const SrvSettings& settings_av, std::string* p_json_av, std::string* p_error_av) {
  std::map<std::string, std::string> members_lv;
  members_lv["root"] = SrvJsonQuote(settings_av.m_s_archive_root);
  if (!MergeObject(settings_av.m_s_file_archive, "\"archive\" of the cameras file", &members_lv, p_error_av) ||
      !MergeObject(settings_av.m_s_archive_extra, "--archive-config", &members_lv, p_error_av))
    return false;
  std::string s_out_lv = "{";
  for (const auto& item_lv : members_lv)
    s_out_lv += (s_out_lv.size() > 1 ? "," : "") + SrvJsonQuote(item_lv.first) + ":" + item_lv.second;
  *p_json_av = s_out_lv + "}";
  return true;
}

std::string SrvDefaultCamerasText() {
  return R"({"cameras":[{"name":"cam1","source":{"type":"synthetic","fps":25,"key_interval_ms":2000,)"
         R"("audio":true,"audio_frame_ms":20},"config":)"
         R"({"common":{"key1":"host","key2":"4201","key3":"cam1","enable":"1","_typeJS":"profiles"},)"
         R"("archive":{"_name":{"_level":0,"_value":"archive"},"_type":{"_level":0,"_value":"writer"},"writer":{)"
         R"("in":{"_level":0,"_value":"trackSource"},"by_events":{"_level":0,"_value":false},)"
         R"("events":{"_level":1,"_value":"20001,20008"},"prev_write":{"_level":1,"_value":0},)"
         R"("post_write":{"_level":1,"_value":0},"storage":{"_level":1,"_value":""},)"
         R"("depth_restrict":{"_level":1,"_value":false},"depth":{"_level":1,"_value":0},)"
         R"("view_prior":{"_level":1,"_value":0},"only_key_frame":{"_level":1,"_value":false},)"
         R"("arc_key1":{"_level":3,"_value":"demo"},"arc_key2":{"_level":3,"_value":"cam1"},)"
         R"("arc_key3":{"_level":3,"_value":"main"}}}}}]})";
}
