// What writer-host tells while it runs and at the end: a progress line a
// second (cameras, frames sent, frames written, passes, buffer memory), the
// host tracks' news, and a summary per camera with the fate of every frame
// (srv_account.h) and the archive's totals. Driven by main; the monitor
// thread also feeds the sources' fast pacing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/server/srv_config.h"
#include "host/server/srv_plugin.h"
#include "host/server/srv_source.h"
#include "host/server/srv_tracks.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

// What the archive holds of one camera.
struct SrvStored {
  std::string m_s_folder;
  uint64_t m_ui64_video = 0;
  uint64_t m_ui64_audio = 0;
  uint64_t m_ui64_keys = 0;
};
struct SrvMonitor {
  const SrvSettings* m_p_settings = nullptr;
  SrvPlugin* m_p_plugin = nullptr;
  SrvHostTracks* m_p_tracks = nullptr;
  std::vector<SrvSource*> m_sources;
  SrvFlow* m_p_flow = nullptr;
  bool m_b_ask_memory = true;
  int64_t m_i64_start_perf = 0;
  PlEvent* m_p_stop = nullptr;
  PlThread* m_p_thread = nullptr;
  std::vector<SrvStored> m_stored_before;  // per source: what earlier runs left in the archive
};

void SrvMonitorStart(SrvMonitor* p_av);
void SrvMonitorStop(SrvMonitor* p_av);
// Frames written, and passed over by all sources; also refreshes the flow.
void SrvMonitorRefresh(SrvMonitor* p_av, int64_t* p_written_av, int64_t* p_passes_av);
// Frames that entered the plug-in's buffers and are not taken out yet.
int64_t SrvMonitorBuffered(SrvMonitor* p_av);

// What the archive holds of each source's camera, in the sources' order.
std::vector<SrvStored> SrvStoredOfAll(const std::string& s_root_av, const std::vector<SrvSource*>& sources_av);

// The whole run in one line: frames stored over the time from the sources'
// start to the last stored frame, and the process's CPU time and memory.
void SrvPrintWholeRun(SrvMonitor* p_av, double d_stored_s_av);

// Prints the summary; gives the exit status (1 when a camera that should
// record stored nothing).
int SrvPrintSummary(SrvMonitor* p_av, double d_run_s_av);
