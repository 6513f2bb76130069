// Loading the log library, the archive and the plug-in, and the calls into
// the plug-in's exports (see srv_plugin.h). Runs on main's thread, apart
// from the query, which the progress report asks once a second.
#include "host/server/srv_plugin.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "host/server/srv_account.h"
#include "host/server/srv_metrics.h"

#include "platform/pl_os.h"

namespace {

template <typename T>
bool Sym(void* h_av, const char* s_name_av, T* p_out_av, std::string* p_error_av) {
  *p_out_av = reinterpret_cast<T>(dlsym(h_av, s_name_av));
  if (*p_out_av == nullptr) *p_error_av = std::string("missing function ") + s_name_av;
  return *p_out_av != nullptr;
}

void* Open(const std::string& s_path_av, std::string* p_error_av) {
  void* h_lv = dlopen(s_path_av.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (h_lv == nullptr) *p_error_av = "cannot load " + s_path_av + ": " + dlerror();
  return h_lv;
}

bool LoadLog(SrvPlugin* p_av, const SrvSettings& settings_av, std::string* p_error_av) {
  std::string s_path_lv = settings_av.m_s_lib_dir + "/liblog.so";
  LogConfigureFn p_configure_lv = nullptr;
  LogCountTextsFn p_count_lv = nullptr;
  if ((p_av->m_h_log = Open(s_path_lv, p_error_av)) == nullptr ||
      !Sym(p_av->m_h_log, "log_configure", &p_configure_lv, p_error_av) ||
      !Sym(p_av->m_h_log, "log_count_texts", &p_count_lv, p_error_av) ||
      !Sym(p_av->m_h_log, "log_thread_counts", &p_av->m_p_log_thread_counts, p_error_av) ||
      !Sym(p_av->m_h_log, "log_level_peak", &p_av->m_p_log_level_peak, p_error_av))
    return false;
  if (p_configure_lv(settings_av.m_s_log_dir.c_str(), nullptr) != 0)
    return *p_error_av = "cannot use the log folder " + settings_av.m_s_log_dir, false;
  p_count_lv(SRV_COUNTED_LINES, SRV_LINE_COUNT);
  core_set_path("log-1", s_path_lv.c_str());
  return true;
}

bool LoadArchive(SrvPlugin* p_av, const SrvSettings& settings_av, std::string* p_error_av) {
  std::string s_path_lv = settings_av.m_s_lib_dir + "/libwarchive.so", s_json_lv;
  if ((p_av->m_h_archive = Open(s_path_lv, p_error_av)) == nullptr ||
      !Sym(p_av->m_h_archive, "archive_configure", &p_av->m_p_archive_configure, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_last_error", &p_av->m_p_archive_last_error, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_fault", &p_av->m_p_archive_fault, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_get_stats", &p_av->m_p_archive_stats, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_get_stream_stats", &p_av->m_p_archive_stream_stats, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_get_write_latency", &p_av->m_p_archive_latency, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_thread_counts", &p_av->m_p_archive_thread_counts, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_get_channel_stats", &p_av->m_p_archive_channel_stats, p_error_av) ||
      !Sym(p_av->m_h_archive, "archive_camera_id", &p_av->m_p_archive_camera_id, p_error_av) ||
      !SrvArchiveConfig(settings_av, &s_json_lv, p_error_av))
    return false;
  if (p_av->m_p_archive_configure(s_json_lv.c_str()) != 0)
    return *p_error_av = std::string("archive settings refused: ") + p_av->m_p_archive_last_error(), false;
  if (settings_av.m_i_write_delay_ms > 0)
    p_av->m_p_archive_fault(ARCHIVE_FAULT_WRITE_DELAY_MS, -1, settings_av.m_i_write_delay_ms);
  // The plug-in loads the same file, and so gets this very instance.
  core_set_path("archive", s_path_lv.c_str());
  return true;
}

bool LoadWriter(SrvPlugin* p_av, const SrvSettings& settings_av, std::string* p_error_av) {
  std::string s_path_lv = settings_av.m_s_lib_dir + "/libwriter.so";
  // The plug-in keeps its saved settings two folders up from this path, in
  // DIR/config.
  std::string s_place_lv = settings_av.m_s_state_dir + "/plugins/writer.so";
  core_set_path("writer", s_place_lv.c_str());
  return (p_av->m_h_writer = Open(s_path_lv, p_error_av)) != nullptr &&
         Sym(p_av->m_h_writer, "dll_init", &p_av->m_p_dll_init, p_error_av) &&
         Sym(p_av->m_h_writer, "dll_free", &p_av->m_p_dll_free, p_error_av) &&
         Sym(p_av->m_h_writer, "plugin_open", &p_av->m_p_plugin_open, p_error_av) &&
         Sym(p_av->m_h_writer, "plugin_close", &p_av->m_p_plugin_close, p_error_av) &&
         Sym(p_av->m_h_writer, "dll_exec", &p_av->m_p_dll_exec, p_error_av) &&
         Sym(p_av->m_h_writer, "plugin_exec", &p_av->m_p_plugin_exec, p_error_av) &&
         Sym(p_av->m_h_writer, "exception_filter", &p_av->m_p_exception_filter, p_error_av);
}

// Reply callbacks of dll_exec: the template (three arguments) and a query's
// answer (two).
void OnFish(void* p_user_av, ProfileParam* p_params_av, int32_t) {
  SrvPlugin* p_lv = static_cast<SrvPlugin*>(p_user_av);
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++) {
    if (p_el_lv->type != PP_STRING || p_el_lv->name == nullptr || p_el_lv->value == nullptr) continue;
    if (strcmp(p_el_lv->name, "fish_types") == 0) p_lv->m_s_fish_types = static_cast<const char*>(p_el_lv->value);
    if (strcmp(p_el_lv->name, "fish") == 0) p_lv->m_s_fish = static_cast<const char*>(p_el_lv->value);
  }
}

void OnQueryAnswer(void* p_user_av, ProfileParam* p_params_av) {
  std::string* p_out_lv = static_cast<std::string*>(p_user_av);
  for (ProfileParam* p_el_lv = p_params_av; p_el_lv != nullptr && p_el_lv->type != PP_END; p_el_lv++)
    if (p_el_lv->type == PP_STRING && p_el_lv->name != nullptr && strcmp(p_el_lv->name, "json") == 0 &&
        p_el_lv->value != nullptr)
      *p_out_lv = static_cast<const char*>(p_el_lv->value);
}

}  // namespace

bool SrvPluginLoad(SrvPlugin* p_av, const SrvSettings& settings_av, std::string* p_error_av) {
  PlMkdir(settings_av.m_s_log_dir.c_str());
  PlMkdir(settings_av.m_s_archive_root.c_str());
  PlMkdir(settings_av.m_s_state_dir.c_str());
  return LoadLog(p_av, settings_av, p_error_av) && LoadArchive(p_av, settings_av, p_error_av) &&
         LoadWriter(p_av, settings_av, p_error_av);
}

void SrvPluginApplyFaults(SrvPlugin* p_av, const SrvSettings& settings_av) {
  if (p_av->m_p_archive_fault == nullptr) return;
  // "Not ready" counts from now: the plug-in waits for a ready archive at
  // open, so the switches come after the cameras are open.
  for (const SrvArchiveFault& f_lv : settings_av.m_archive_faults) p_av->m_p_archive_fault(f_lv.m_i_fault, -1, f_lv.m_i64_value);
  for (const SrvCamera& cam_lv : settings_av.m_cameras) {
    int64_t i64_id_lv = 0;
    if (cam_lv.m_archive_faults.empty()) continue;
    if (p_av->m_p_archive_camera_id(SrvCameraFolder(cam_lv).c_str(), &i64_id_lv) != 0) {
      printf("camera %s: the archive does not know it; its fault switches are not set\n", cam_lv.m_s_name.c_str());
      continue;
    }
    for (const SrvArchiveFault& f_lv : cam_lv.m_archive_faults) p_av->m_p_archive_fault(f_lv.m_i_fault, i64_id_lv, f_lv.m_i64_value);
  }
}

bool SrvPluginLinesCounted(SrvPlugin* p_av) {
  return p_av->m_p_log_level_peak != nullptr && p_av->m_p_log_level_peak("arc") <= SRV_COUNTED_LINES_LEVEL;
}

bool SrvPluginInit(SrvPlugin* p_av, std::string* p_error_av) {
  p_av->m_b_initialised = true;  // dll_free is due even after a failed dll_init
  if (p_av->m_p_dll_init() != 0) return *p_error_av = "the plug-in's dll_init failed (see the log folder)", false;
  ProfileCallback reply_lv = {p_av, reinterpret_cast<void*>(&OnFish)};
  ProfileParam ask_lv[] = {{PP_CALLBACK, "get_fish_types", &reply_lv},
                           {PP_CALLBACK, "get_fish", &reply_lv},
                           {PP_END, nullptr, nullptr}};
  if (p_av->m_p_dll_exec(ask_lv) != 0 || p_av->m_s_fish.empty())
    return *p_error_av = "the plug-in gave no configuration template", false;
  return true;
}

void* SrvPluginOpenCamera(SrvPlugin* p_av, const SrvCamera& camera_av) {
  ProfileParam params_lv[] = {{PP_STRING, "json", const_cast<char*>(camera_av.m_s_document.c_str())},
                              {PP_END, nullptr, nullptr}};
  return p_av->m_p_plugin_open(params_lv);
}

void SrvPluginStartCamera(SrvPlugin* p_av, void* p_pair_av) {
  int32_t i_one_lv = 1;
  ProfileParam params_lv[] = {{PP_INT32, "start", &i_one_lv}, {PP_END, nullptr, nullptr}};
  p_av->m_p_plugin_exec(p_pair_av, params_lv);
}

void SrvPluginCloseCamera(SrvPlugin* p_av, void* p_pair_av) { p_av->m_p_plugin_close(p_pair_av); }

std::string SrvPluginQuery(SrvPlugin* p_av, const std::string& s_json_av) {
  std::string s_answer_lv;
  ProfileCallback reply_lv = {&s_answer_lv, reinterpret_cast<void*>(&OnQueryAnswer)};
  ProfileParam params_lv[] = {{PP_CALLBACK, "exec", &reply_lv},
                              {PP_STRING, "json", const_cast<char*>(s_json_av.c_str())},
                              {PP_END, nullptr, nullptr}};
  p_av->m_p_dll_exec(params_lv);
  return s_answer_lv;
}

void SrvPluginFree(SrvPlugin* p_av) {
  if (p_av->m_b_initialised) p_av->m_p_dll_free();
  p_av->m_b_initialised = false;
}

void SrvPluginUnload(SrvPlugin* p_av) {
  SrvPluginFree(p_av);
  SrvCrashForgetFilter();
  if (p_av->m_h_writer != nullptr) dlclose(p_av->m_h_writer);
  core_set_path("writer", nullptr);
  core_set_path("archive", nullptr);
  core_set_path("log-1", nullptr);
  // The archive and the log library stay loaded until the process ends:
  // their process-wide state (sessions, loggers) is theirs to keep, and an
  // unload would only turn it into unreachable memory.
  *p_av = SrvPlugin();
}

ArchiveStats SrvPluginArchiveStats(SrvPlugin* p_av) {
  ArchiveStats stats_lv;
  memset(&stats_lv, 0, sizeof(stats_lv));
  if (p_av->m_p_archive_stats != nullptr) p_av->m_p_archive_stats(&stats_lv);
  return stats_lv;
}
