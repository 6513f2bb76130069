// writer-host: the reference server. Loads the bus, the log library, the
// archive and libwriter.so, feeds the configured cameras to the plug-in for
// the run's duration, and tells what was recorded.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "host/server/srv_config.h"
#include "host/server/srv_crash.h"
#include "host/server/srv_http.h"
#include "host/server/srv_plugin.h"
#include "host/server/srv_progress.h"
#include "host/server/srv_source.h"
#include "host/server/srv_tracks.h"
#include "host/server/srv_web.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"

namespace {

const int EXIT_BAD_CONFIG = 2;
const int EXIT_NO_PLUGIN = 3;
const int EXIT_NO_FOLDER = 4;

volatile std::sig_atomic_t g_i_stop_signal = 0;

void OnStopSignal(int i_sig_av) { g_i_stop_signal = i_sig_av; }

double SecondsSince(int64_t i64_perf_av) {
  return static_cast<double>(PlPerfCounter() - i64_perf_av) / static_cast<double>(PlPerfFrequency());
}

std::string ExeDir() {
  char s_lv[4096];
  size_t ui_len_lv = PlExePath(s_lv, sizeof(s_lv));
  std::string s_path_lv(s_lv, ui_len_lv);
  size_t ui_slash_lv = s_path_lv.rfind('/');
  return ui_slash_lv == std::string::npos ? "." : s_path_lv.substr(0, ui_slash_lv);
}

// Everything the run made, so that one function can take it down in order.
struct Run {
  SrvSettings* m_p_settings = nullptr;
  SrvPlugin m_plugin;
  SrvHostTracks m_tracks;
  SrvFlow m_flow;
  std::vector<std::unique_ptr<SrvSource>> m_sources;
  std::vector<void*> m_pairs;
  SrvMonitor m_monitor;
  SrvWebFront m_web;
  SrvRunView m_view;
  SrvHttp* m_p_http = nullptr;
};

// The web front, when asked for: it reads the run's parts and calls the
// plug-in, so it starts once they stand and stops before they go.
bool StartHttp(Run* p_av, std::string* p_error_av) {
  const SrvSettings& set_lv = *p_av->m_p_settings;
  if (!set_lv.m_b_http) return true;
  p_av->m_view.m_p_settings = p_av->m_p_settings;
  p_av->m_view.m_p_plugin = &p_av->m_plugin;
  p_av->m_view.m_p_web = &p_av->m_web;
  p_av->m_view.m_p_tracks = &p_av->m_tracks;
  p_av->m_view.m_p_monitor = &p_av->m_monitor;
  for (const auto& p_src_lv : p_av->m_sources) p_av->m_view.m_sources.push_back(p_src_lv.get());
  std::string s_bound_lv;
  p_av->m_p_http = SrvHttpStart(p_av->m_view, set_lv.m_s_http_host, set_lv.m_i_http_port, set_lv.m_s_http_token,
                                &s_bound_lv, p_error_av);
  if (p_av->m_p_http == nullptr) return false;
  printf("writer-host: web front at http://%s/ (write routes %s)\n", s_bound_lv.c_str(),
         set_lv.m_s_http_token.empty() ? "open to this machine" : "want the token");
  return true;
}

void StopHttp(Run* p_av) {
  SrvHttpStop(p_av->m_p_http);
  p_av->m_p_http = nullptr;
}

bool OpenSources(Run* p_av, std::string* p_error_av) {
  const std::vector<SrvCamera>& cams_lv = p_av->m_p_settings->m_cameras;
  for (size_t ui_lv = 0; ui_lv < cams_lv.size(); ui_lv++) {
    p_av->m_sources.emplace_back(new SrvSource());
    if (!SrvSourceOpen(p_av->m_sources.back().get(), &cams_lv[ui_lv], p_av->m_p_settings, &p_av->m_flow,
                       static_cast<uint32_t>(ui_lv + 1), p_error_av))
      return *p_error_av = "camera " + cams_lv[ui_lv].m_s_name + ": " + *p_error_av, false;
  }
  return true;
}

void OpenCameras(Run* p_av) {
  for (const SrvCamera& cam_lv : p_av->m_p_settings->m_cameras) {
    void* p_pair_lv = SrvPluginOpenCamera(&p_av->m_plugin, cam_lv);
    if (p_pair_lv == nullptr) printf("camera %s: the plug-in refused to open it\n", cam_lv.m_s_name.c_str());
    p_av->m_pairs.push_back(p_pair_lv);
  }
  for (void* p_pair_lv : p_av->m_pairs)
    if (p_pair_lv != nullptr) SrvPluginStartCamera(&p_av->m_plugin, p_pair_lv);
}

// Runs until the duration has passed, every source has ended, or a signal.
void WaitForEnd(Run* p_av, int64_t i64_start_av) {
  double d_duration_lv = p_av->m_p_settings->m_d_duration_s;
  while (g_i_stop_signal == 0) {
    if (d_duration_lv > 0 && SecondsSince(i64_start_av) >= d_duration_lv) return;
    bool b_all_done_lv = true;
    for (const auto& p_src_lv : p_av->m_sources) b_all_done_lv = b_all_done_lv && p_src_lv->m_counts.m_b_done;
    if (b_all_done_lv) return;
    PlSleep(50);
  }
  printf("writer-host: signal %d, stopping\n", static_cast<int>(g_i_stop_signal));
}

// Frames still in the plug-in's buffers are lost when a channel closes:
// give the writer time to take them out, until none is left or nothing
// moves any more.
void Drain(Run* p_av) {
  int64_t i64_start_lv = PlPerfCounter(), i64_moved_lv = PlPerfCounter(), i64_last_lv = -1;
  while (SecondsSince(i64_start_lv) < p_av->m_p_settings->m_d_drain_s && g_i_stop_signal == 0) {
    int64_t i64_buffered_lv = SrvMonitorBuffered(&p_av->m_monitor);
    if (i64_buffered_lv <= 0) return;
    if (i64_buffered_lv != i64_last_lv) {
      i64_last_lv = i64_buffered_lv;
      i64_moved_lv = PlPerfCounter();
    } else if (SecondsSince(i64_moved_lv) > 1.5) {
      return;
    }
    PlSleep(50);
  }
}

int Record(Run* p_av) {
  std::string s_error_lv;
  if (!SrvPluginInit(&p_av->m_plugin, &s_error_lv)) {
    fprintf(stderr, "writer-host: %s\n", s_error_lv.c_str());
    return EXIT_NO_PLUGIN;
  }
  SrvWebOpen(&p_av->m_web);
  if (!OpenSources(p_av, &s_error_lv)) {
    fprintf(stderr, "writer-host: %s\n", s_error_lv.c_str());
    return EXIT_BAD_CONFIG;
  }
  const SrvSettings& set_lv = *p_av->m_p_settings;
  printf("writer-host: plug-in up (template %zu bytes); %zu camera(s); archive %s; log %s\n",
         p_av->m_plugin.m_s_fish.size(), set_lv.m_cameras.size(), set_lv.m_s_archive_root.c_str(),
         set_lv.m_s_log_dir.c_str());
  OpenCameras(p_av);
  SrvPluginApplyFaults(&p_av->m_plugin, set_lv);
  p_av->m_monitor.m_p_settings = p_av->m_p_settings;
  p_av->m_monitor.m_p_plugin = &p_av->m_plugin;
  p_av->m_monitor.m_p_tracks = &p_av->m_tracks;
  p_av->m_monitor.m_p_flow = &p_av->m_flow;
  for (const auto& p_src_lv : p_av->m_sources) p_av->m_monitor.m_sources.push_back(p_src_lv.get());
  SrvMonitorStart(&p_av->m_monitor);
  if (!StartHttp(p_av, &s_error_lv)) {
    fprintf(stderr, "writer-host: %s\n", s_error_lv.c_str());
    SrvMonitorStop(&p_av->m_monitor);
    return EXIT_BAD_CONFIG;
  }
  int64_t i64_start_lv = PlPerfCounter();
  SrvHostTracksGo(&p_av->m_tracks);
  for (const auto& p_src_lv : p_av->m_sources) SrvSourceGo(p_src_lv.get());
  WaitForEnd(p_av, i64_start_lv);
  double d_run_lv = SecondsSince(i64_start_lv);
  for (const auto& p_src_lv : p_av->m_sources) SrvSourceStop(p_src_lv.get());
  for (const auto& p_src_lv : p_av->m_sources) SrvSourceClose(p_src_lv.get());
  Drain(p_av);
  SrvPrintWholeRun(&p_av->m_monitor, SecondsSince(i64_start_lv));
  SrvHostTracksStopScript(&p_av->m_tracks);
  StopHttp(p_av);
  SrvMonitorStop(&p_av->m_monitor);
  for (void* p_pair_lv : p_av->m_pairs)
    if (p_pair_lv != nullptr) SrvPluginCloseCamera(&p_av->m_plugin, p_pair_lv);
  p_av->m_pairs.clear();
  SrvWebClose(&p_av->m_web);
  SrvPluginFree(&p_av->m_plugin);
  return SrvPrintSummary(&p_av->m_monitor, d_run_lv);
}

int RunServer(SrvSettings* p_settings_av) {
  Run run_lv;
  run_lv.m_p_settings = p_settings_av;
  std::string s_error_lv;
  if (!SrvPluginLoad(&run_lv.m_plugin, *p_settings_av, &s_error_lv)) {
    fprintf(stderr, "writer-host: %s\n", s_error_lv.c_str());
    SrvPluginUnload(&run_lv.m_plugin);
    return EXIT_NO_PLUGIN;
  }
  run_lv.m_flow.m_p_stats = run_lv.m_plugin.m_p_archive_stats;
  run_lv.m_flow.m_probes.m_p_lines = run_lv.m_plugin.m_p_log_thread_counts;
  run_lv.m_flow.m_probes.m_p_ready = run_lv.m_plugin.m_p_archive_thread_counts;
  SrvCrashInstall(run_lv.m_plugin.m_p_exception_filter);
  signal(SIGINT, &OnStopSignal);
  signal(SIGTERM, &OnStopSignal);
  SrvHostTracksOpen(&run_lv.m_tracks, p_settings_av);
  int i_rc_lv = Record(&run_lv);
  // Whatever Record reached, the order down is the same.
  StopHttp(&run_lv);
  for (const auto& p_src_lv : run_lv.m_sources) SrvSourceClose(p_src_lv.get());
  for (void* p_pair_lv : run_lv.m_pairs)
    if (p_pair_lv != nullptr) SrvPluginCloseCamera(&run_lv.m_plugin, p_pair_lv);
  SrvPluginFree(&run_lv.m_plugin);
  SrvHostTracksClose(&run_lv.m_tracks);
  SrvPluginUnload(&run_lv.m_plugin);
  SrvCrashUninstall();
  return i_rc_lv;
}

// Makes a folder and those above it; false with the reason when it cannot
// be made or written into.
bool MakeFolder(const std::string& s_path_av, std::string* p_why_av) {
  for (size_t ui_lv = 1; ui_lv <= s_path_av.size(); ui_lv++) {
    if (ui_lv < s_path_av.size() && s_path_av[ui_lv] != '/') continue;
    std::string s_part_lv = s_path_av.substr(0, ui_lv);
    if (mkdir(s_part_lv.c_str(), 0755) != 0 && errno != EEXIST) return *p_why_av = strerror(errno), false;
  }
  struct stat st_lv {};
  if (stat(s_path_av.c_str(), &st_lv) != 0) return *p_why_av = strerror(errno), false;
  if (!S_ISDIR(st_lv.st_mode)) return *p_why_av = "not a folder", false;
  if (access(s_path_av.c_str(), W_OK | X_OK) != 0) return *p_why_av = strerror(errno), false;
  return true;
}

// The log, the archive root and the plug-in's saved settings must have a
// place before anything loads: a run without one would lose its lines, its
// frames or its settings without a word.
bool MakeFolders(const SrvSettings& settings_av) {
  const std::pair<const char*, std::string> folders_lv[] = {{"--log", settings_av.m_s_log_dir},
                                                            {"--archive", settings_av.m_s_archive_root},
                                                            {"--state", settings_av.m_s_state_dir},
                                                            {"--state", settings_av.m_s_state_dir + "/config"}};
  for (const auto& folder_lv : folders_lv) {
    std::string s_why_lv;
    if (MakeFolder(folder_lv.second, &s_why_lv)) continue;
    fprintf(stderr, "writer-host: cannot make the folder %s (%s): %s\n", folder_lv.second.c_str(), folder_lv.first,
            s_why_lv.c_str());
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  SrvSettings settings_lv;
  settings_lv.m_s_exe_dir = ExeDir();
  std::string s_error_lv;
  if (!SrvParseArgs(argc, argv, &settings_lv, &s_error_lv)) {
    fprintf(stderr, "writer-host: %s\n(writer-host --help lists the options)\n", s_error_lv.c_str());
    return EXIT_BAD_CONFIG;
  }
  if (settings_lv.m_b_help) {
    printf("%s", SRV_USAGE);
    return 0;
  }
  std::string s_archive_lv;
  if (!SrvLoadCameras(&settings_lv, &s_error_lv) || !SrvArchiveConfig(settings_lv, &s_archive_lv, &s_error_lv)) {
    fprintf(stderr, "writer-host: %s\n", s_error_lv.c_str());
    return EXIT_BAD_CONFIG;
  }
  if (!MakeFolders(settings_lv)) return EXIT_NO_FOLDER;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  return RunServer(&settings_lv);
}
