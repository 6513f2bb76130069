// The host's side of the tracks the plug-in talks to besides the media and
// status tracks: liveness registrations on "alive_track" (a channel whose
// confirmations stop is reported), the calendar on "track_schedule_in" /
// "track_schedule_out", "rtsp:list_cameras" on "trackWsServerCmd" /
// "trackWsServerData", system events on "track_event", the event script
// posted there, and the script's forced commands on "track_vp-api" with the
// plug-in's answers. Opened by main before dll_init, closed after dll_free.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "include/host/core_api.h"
#include "host/server/srv_config.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

// One channel that has registered on "alive_track".
struct SrvAlive {
  std::string m_s_caption;
  int64_t m_i64_last_perf = 0;  // performance counter at its last register
  int64_t m_i64_count = 0;
  bool m_b_silent = false;      // reported as silent, not confirmed since
};

struct SrvHostTracks {
  const SrvSettings* m_p_settings = nullptr;
  TrackHandle m_h_alive = 0;
  TrackHandle m_h_schedule_in = 0;
  TrackHandle m_h_schedule_out = 0;
  TrackHandle m_h_ws_cmd = 0;
  TrackHandle m_h_ws_data = 0;
  TrackHandle m_h_event = 0;
  TrackHandle m_h_api = 0;
  PlCritSect m_crit_sect;              // guards m_alive and m_lines
  std::map<const void*, SrvAlive> m_alive;
  std::vector<std::string> m_lines;    // what happened, for the progress output
  std::atomic<int64_t> m_i64_calendar_answers{0};
  std::atomic<int64_t> m_i64_camera_answers{0};
  std::atomic<int64_t> m_i64_plugin_events{0};
  std::atomic<int64_t> m_i64_script_posted{0};
  std::atomic<int64_t> m_i64_forced_answers{0};
  std::atomic<int64_t> m_i64_silences{0};
  double m_d_silence_s = 20;           // no confirmation for this long: silent
  PlEvent* m_p_stop = nullptr;
  PlThread* m_p_script = nullptr;
};

void SrvHostTracksOpen(SrvHostTracks* p_av, const SrvSettings* p_settings_av);
// Starts the event script; its times count from now.
void SrvHostTracksGo(SrvHostTracks* p_av);
// Ends the event script (steps not yet posted are dropped).
void SrvHostTracksStopScript(SrvHostTracks* p_av);
// Reports channels whose confirmations have stopped; called once a second.
void SrvHostTracksCheckAlive(SrvHostTracks* p_av);
// Takes the lines gathered since the last call.
std::vector<std::string> SrvHostTracksTakeLines(SrvHostTracks* p_av);
void SrvHostTracksClose(SrvHostTracks* p_av);

// The answer to "get_list": holidays and working weekends as the calendar
// document, {"holidays":[...],"working_weekends":[...]}.
std::string SrvCalendarText(const SrvSettings& settings_av);
// The answer to "rtsp:list_cameras" for an id: an array of the matching camera.
std::string SrvListCamerasText(const SrvSettings& settings_av, const std::string& s_id_av);
// Posts one event of the script on "track_event" through the handle.
void SrvPostEvent(TrackHandle h_av, const SrvCamera& camera_av, const SrvEventStep& step_av, int64_t i64_serial_av);
// Sends a forced command of the script on "track_vp-api" as an API client
// does: "method", and "args" with "id" and, for a timed start, a value-less
// element named by the seconds.
void SrvPostForced(TrackHandle h_av, const SrvEventStep& step_av);
