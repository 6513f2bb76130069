// One camera's source, as a source plug-in of the host would run it: its own
// thread (or, in real time, a pacer shared with other cameras, see
// srv_source_pacer.h) sends frame messages on the camera's media track, counts the
// `need` answers, asks on the status track how many listen, and starts when
// the recording channels ask for frames ("frame" with a "get" marker).
// Made and driven by main; read by the progress report.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "include/host/archive_api.h"
#include "include/host/core_api.h"
#include "host/server/srv_account.h"
#include "host/server/srv_config.h"
#include "host/server/srv_media.h"
#include "host/server/srv_stream.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

// Shared by all sources: frames someone wanted, frames that entered the
// plug-in's buffers and how many of those the channels have taken out
// (asked the archive about), for pacing as fast as the writer takes them.
// With the archive's statistics at hand a source reads the taken frames
// itself at each look, so that its pace does not follow the monitor's tenth
// of a second. The probes tell each delivery's fate (srv_account.h).
struct SrvPacers;
struct SrvFlow {
  SrvFlow() = default;
  ~SrvFlow();
  SrvFlow(const SrvFlow&) = delete;
  SrvFlow& operator=(const SrvFlow&) = delete;
  std::atomic<int64_t> m_i64_wanted{0};
  std::atomic<int64_t> m_i64_entered{0};
  std::atomic<int64_t> m_i64_taken{0};
  int32_t (*m_p_stats)(ArchiveStats*) = nullptr;
  SrvProbes m_probes;
  // The real-time pacers of the file and synthetic sources, made when the
  // first of them starts (srv_source_pacer.h).
  PlCritSect m_pacers_cs;
  SrvPacers* m_p_pacers = nullptr;
};
// Frames the channels have taken out of their buffers, as fresh as the flow
// can tell.
int64_t SrvFlowTaken(SrvFlow* p_av);

struct SrvSourceCounts {
  std::atomic<int64_t> m_i64_sent{0};
  std::atomic<int64_t> m_i64_video{0};
  std::atomic<int64_t> m_i64_audio{0};
  std::atomic<int64_t> m_i64_keys{0};
  std::atomic<int64_t> m_i64_wanted{0};        // frames with at least one `need` answer
  std::atomic<int64_t> m_i64_wanted_video{0};
  std::atomic<int64_t> m_i64_wanted_audio{0};
  std::atomic<int64_t> m_i64_need_answers{0};  // sum of all answers
  std::atomic<int64_t> m_i64_bytes{0};
  std::atomic<int32_t> m_i_listeners{0};       // last `listen` answer
  std::atomic<int32_t> m_i_gets{0};            // "get" requests seen
  std::atomic<bool> m_b_done{false};
  std::atomic<int64_t> m_i64_max_late_us{0};   // real-time pacing: the latest a frame went out
  std::atomic<int64_t> m_i64_reconnects{0};    // a live stream opened again after a drop
  std::atomic<int64_t> m_i64_drops{0};         // a live stream lost
  SrvPutCounts m_put;                          // each frame's fate in the plug-in, by medium
};

struct SrvSource;
// One kind of source behind its entry points: open (checks and loads what
// can be before the run), next (the next frame in send order; false at the
// end), close. A live kind's frames come at their own pace and carry their
// time; the others are paced by the host.
struct SrvSourceKind {
  const char* m_s_type;
  bool m_b_live;
  bool (*m_p_open)(SrvSource* p_av, std::string* p_error_av);
  bool (*m_p_next)(SrvSource* p_av, SrvMediaFrame* p_out_av);
  void (*m_p_close)(SrvSource* p_av);
};
// The kind for a source type of the cameras file; null when there is none.
const SrvSourceKind* SrvFindSourceKind(const std::string& s_type_av);

struct SrvSource {
  const SrvCamera* m_p_camera = nullptr;
  const SrvSettings* m_p_settings = nullptr;
  SrvFlow* m_p_flow = nullptr;
  uint32_t m_ui_seed = 0;
  const SrvSourceKind* m_p_kind = nullptr;
  SrvSynthetic m_synthetic;
  SrvH264File m_file;
  SrvStream m_stream;
  TrackHandle m_h_media = 0;
  TrackHandle m_h_status = 0;
  PlEvent* m_p_go = nullptr;    // main says the plug-in is started
  PlEvent* m_p_get = nullptr;   // a channel asked for frames
  PlEvent* m_p_stop = nullptr;
  PlThread* m_p_thread = nullptr;
  SrvSourceCounts m_counts;
  std::atomic<const char*> m_p_note{nullptr};  // a line for people, from the thread
};

// Loads the media and joins the tracks; the thread waits for SrvSourceGo.
bool SrvSourceOpen(SrvSource* p_av, const SrvCamera* p_camera_av, const SrvSettings* p_settings_av, SrvFlow* p_flow_av,
                   uint32_t ui_seed_av, std::string* p_error_av);
void SrvSourceGo(SrvSource* p_av);
// Tells the thread to stop, without waiting for it; many sources stop at
// one moment when each is told before any is joined.
void SrvSourceStop(SrvSource* p_av);
// Stops the thread, leaves the tracks and frees what Open made.
void SrvSourceClose(SrvSource* p_av);
// Sends one "status" message with a `listen` counter; gives the count.
int32_t SrvSourceAskListeners(SrvSource* p_av);
// Sends one frame message and counts the answers; gives the `need` count.
int32_t SrvSourceSendFrame(SrvSource* p_av, const SrvMediaFrame& frame_av, int64_t i64_time_us_av);
