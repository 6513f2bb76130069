// The libraries writer-host loads and the plug-in's six exports, called in
// the order the plug-in expects: dll_init; dll_exec "get_fish_types" and
// "get_fish"; plugin_open per camera; plugin_exec "start"; ... plugin_close
// per camera; dll_free. Also the archive's host-only functions (settings,
// fault switches, statistics) and the log library's folder. Used by main
// and the progress report.
#pragma once

#include <cstdint>
#include <string>

#include "include/host/archive_api.h"
#include "include/host/core_api.h"
#include "include/host/log_api.h"
#include "host/server/srv_config.h"
#include "host/server/srv_crash.h"

struct SrvPlugin {
  void* m_h_log = nullptr;
  void* m_h_archive = nullptr;
  void* m_h_writer = nullptr;
  // Archive, host side.
  decltype(&archive_configure) m_p_archive_configure = nullptr;
  decltype(&archive_last_error) m_p_archive_last_error = nullptr;
  decltype(&archive_fault) m_p_archive_fault = nullptr;
  decltype(&archive_get_stats) m_p_archive_stats = nullptr;
  decltype(&archive_get_stream_stats) m_p_archive_stream_stats = nullptr;
  decltype(&archive_get_write_latency) m_p_archive_latency = nullptr;
  // Frame accounting (srv_account.h): the archive's and the log library's.
  decltype(&archive_thread_counts) m_p_archive_thread_counts = nullptr;
  decltype(&archive_get_channel_stats) m_p_archive_channel_stats = nullptr;
  decltype(&archive_camera_id) m_p_archive_camera_id = nullptr;
  LogThreadCountsFn m_p_log_thread_counts = nullptr;
  LogLevelPeakFn m_p_log_level_peak = nullptr;
  // The plug-in.
  int32_t (*m_p_dll_init)() = nullptr;
  int32_t (*m_p_dll_free)() = nullptr;
  void* (*m_p_plugin_open)(ProfileParam*) = nullptr;
  int32_t (*m_p_plugin_close)(void*) = nullptr;
  int32_t (*m_p_dll_exec)(ProfileParam*) = nullptr;
  int32_t (*m_p_plugin_exec)(void*, ProfileParam*) = nullptr;
  SrvExceptionFilterFn m_p_exception_filter = nullptr;
  bool m_b_initialised = false;
  std::string m_s_fish_types;
  std::string m_s_fish;
};

// Loads the log library (its folder set), the archive (configured, the
// write delay switched on when asked) and the plug-in, and tells the bus
// their paths. False with a message.
bool SrvPluginLoad(SrvPlugin* p_av, const SrvSettings& settings_av, std::string* p_error_av);
// The archive's fault switches of the cameras file: the run's, and each
// open camera's by its id. Called once the cameras are open.
void SrvPluginApplyFaults(SrvPlugin* p_av, const SrvSettings& settings_av);
// Whether the plug-in's lines that the accounting counts all reached the
// log library so far.
bool SrvPluginLinesCounted(SrvPlugin* p_av);
// dll_init and the template. False with a message when dll_init fails.
bool SrvPluginInit(SrvPlugin* p_av, std::string* p_error_av);
// plugin_open with the camera's document; null when refused.
void* SrvPluginOpenCamera(SrvPlugin* p_av, const SrvCamera& camera_av);
void SrvPluginStartCamera(SrvPlugin* p_av, void* p_pair_av);
void SrvPluginCloseCamera(SrvPlugin* p_av, void* p_pair_av);
// The plug-in's answer to a query, {"query_id": ...}; empty when none.
std::string SrvPluginQuery(SrvPlugin* p_av, const std::string& s_json_av);
// dll_free, when dll_init ran; the libraries stay loaded.
void SrvPluginFree(SrvPlugin* p_av);
// dll_free if still due, and the plug-in unloaded.
void SrvPluginUnload(SrvPlugin* p_av);
// The archive's totals; zeros when it is not loaded.
ArchiveStats SrvPluginArchiveStats(SrvPlugin* p_av);
