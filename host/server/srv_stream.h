// The stream source: a camera's RTSP URL, or any media file or URL that
// FFmpeg's libavformat opens (.mp4, .mkv, .ts), read packet by packet and
// sent as frames. A network stream is live: its frames go out as they come,
// timed by the stream's own clock anchored to the wall clock at the first
// packet, and a drop is met with reconnection after a growing pause. A
// file is paced like the other file sources. Used by srv_source, one per
// source thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "host/server/srv_config.h"
#include "host/server/srv_media.h"
#include "platform/pl_sync.h"

// Turns a stream's timestamps into offsets that never fall: a timestamp
// that goes back (a wrap of a 33-bit clock, a camera restarted, a file
// joined from pieces) or leaps forward by more than the jump bound makes a
// seam, and the stream goes on one step after the last offset given.
struct SrvStreamClock {
  static const int64_t JUMP_US = 30000000;
  bool m_b_started = false;                 // this session has mapped a packet
  int64_t m_i64_restart_us = 0;             // where the session's first packet lands
  int64_t m_i64_shift_us = 0;               // the latest seam's: offset = timestamp + shift
  int64_t m_i64_medium_shift_us[2] = {0, 0};  // each medium's own
  int m_i_epoch = 0;                        // seams so far in the session
  int m_i_medium_epoch[2] = {0, 0};         // the seam each medium's shift comes from
  int64_t m_i64_last_us = INT64_MIN;        // last offset given, either medium
  int64_t m_i64_last_medium_us[2] = {INT64_MIN, INT64_MIN};
  int64_t m_i64_seams = 0;
};
// A new session (reconnection, a file started over): its first packet
// lands at i64_at_us, or one step after the last offset when that is later.
void SrvStreamClockRestart(SrvStreamClock* p_av, int64_t i64_at_us_av);
// The offset of a packet of medium 0 (video) or 1 (audio) with timestamp
// ts and duration (0 when unknown), both in microseconds.
int64_t SrvStreamClockMap(SrvStreamClock* p_av, int i_medium_av, int64_t i64_ts_us_av, int64_t i64_dur_us_av);

struct SrvStreamState;

// What the stream source reports to its camera's counters and lines.
struct SrvStreamLink {
  std::string m_s_camera;
  PlEvent* m_p_stop = nullptr;                   // ends any wait, connect or read
  std::atomic<int64_t>* m_p_drops = nullptr;
  std::atomic<int64_t>* m_p_reconnects = nullptr;
};

struct SrvStream {
  SrvSourceConfig m_cfg;
  SrvStreamLink m_link;
  bool m_b_live = false;    // a network URL: reconnects, frames timed by arrival
  bool m_b_loop = false;
  SrvStreamState* m_p_state = nullptr;
};

// Checks the settings; the stream itself is opened by the first Next, on
// the source's thread, so that a camera that is not there holds up nobody.
bool SrvStreamOpen(SrvStream* p_av, const SrvSourceConfig& cfg_av, const SrvStreamLink& link_av, bool b_loop_av,
                   std::string* p_error_av);
// The next frame; false when the source ends: told to stop, the end of a
// file, or a fault that another try cannot mend (a line says which).
bool SrvStreamNext(SrvStream* p_av, SrvMediaFrame* p_out_av);
void SrvStreamClose(SrvStream* p_av);
// True for a URL read over the network (anything with "://" but file:).
bool SrvStreamIsLive(const std::string& s_url_av);
