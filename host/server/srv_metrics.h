// What a Prometheus server scrapes from writer-host's /metrics: frames sent,
// taken and stored per camera and medium, frames passed over and dropped by
// each rule per camera and medium (srv_account.h), the plug-in's
// buffer memory, the archive's writes with their time as a histogram, its
// sessions, liveness silences and source reconnects. Read by the HTTP
// routes (srv_http) from the parts of the run that main made.
#pragma once

#include <string>
#include <vector>

#include "host/server/srv_config.h"
#include "host/server/srv_plugin.h"
#include "host/server/srv_progress.h"
#include "host/server/srv_source.h"
#include "host/server/srv_tracks.h"
#include "host/server/srv_web.h"

// The parts of a run the web front reads or drives. Any pointer may be
// null: what it would give is then left out.
struct SrvRunView {
  const SrvSettings* m_p_settings = nullptr;
  SrvPlugin* m_p_plugin = nullptr;
  SrvWebFront* m_p_web = nullptr;
  SrvHostTracks* m_p_tracks = nullptr;
  SrvMonitor* m_p_monitor = nullptr;
  std::vector<SrvSource*> m_sources;  // in the order of the settings' cameras
};

// The plug-in's buffer memory from its common_status answer; -1 when the
// answer does not tell it.
long long SrvBufferMemory(SrvPlugin* p_av);

// The exposition text, version 0.0.4.
std::string SrvMetricsText(const SrvRunView& view_av);

// The archive folder the reference archive keeps a camera's streams in.
std::string SrvCameraFolder(const SrvCamera& cam_av);

// A label value with backslash, double quote and line feed escaped.
std::string SrvMetricsLabel(const std::string& s_av);
