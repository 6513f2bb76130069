// What writer-host runs: its own settings from the command line, and the
// cameras with their sources, calendar and event script from a cameras file
// or from the embedded default. Read once by main before anything loads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Where a camera's frames come from.
struct SrvSourceConfig {
  std::string m_s_type = "synthetic";  // "synthetic", "h264" or "stream"
  std::string m_s_file;                // H.264 Annex-B file, for "h264"
  // "stream": a camera's URL (rtsp://...) or a media file FFmpeg opens.
  std::string m_s_url;
  bool m_b_udp = false;                // RTSP over UDP instead of TCP
  int m_i_connect_timeout_ms = 5000;   // to open the stream
  int m_i_read_timeout_ms = 5000;      // with no packet this long, the stream has dropped
  int m_i_retry_max_ms = 10000;        // reconnection back-off grows to this
  double m_d_fps = 0;                  // 0: the file's own rate, else 25
  int m_i_key_interval_ms = 2000;      // synthetic: a key frame this often
  int m_i_width = 640;                 // synthetic picture size
  int m_i_height = 480;
  int m_i_frame_bytes = 4000;          // synthetic: size of a frame between key frames
  bool m_b_video = true;
  bool m_b_audio = true;               // synthetic: PCMA audio beside the video
  int m_i_audio_frame_ms = 20;
};

// A fault switch of the archive set for the run (archive_api.h numbers).
struct SrvArchiveFault {
  int32_t m_i_fault;
  int64_t m_i64_value;
};

struct SrvCamera {
  std::string m_s_name;                // for people and the event script
  std::string m_s_id;                  // answered to "rtsp:list_cameras"
  std::string m_s_document;            // the plug-in's configuration document
  std::string m_s_keys[3];             // common keys: the camera's track names
  std::string m_s_in;                  // last part of the media track name
  std::string m_s_arc_keys[5];         // what the archive files the camera under
  bool m_b_by_events = false;
  bool m_b_must_record = true;         // the run fails when this camera stored nothing
  bool m_b_only_key_frame = false;     // the plug-in keeps its key frames only
  std::vector<SrvArchiveFault> m_archive_faults;  // set for this camera's id once it is open
  SrvSourceConfig m_source;

  std::string MediaTrack() const;
  std::string StatusTrack() const;
};

// One line of the event script: at a time after start, an event type of a
// camera starts or stops; or, as an outside API client would, a command
// "start_recording" / "stop_recording" goes to the plug-in on "track_vp-api".
struct SrvEventStep {
  double m_d_at_s = 0;
  std::string m_s_camera;
  int32_t m_i_event = 0;
  int32_t m_i_stop_event = 0;
  bool m_b_start = true;
  std::string m_s_guid;
  std::string m_s_command;      // forced command, empty for an event
  std::string m_s_id;           // the camera id the command names
  int64_t m_i64_duration = -1;  // seconds of a timed start; -1 none
};

struct SrvSettings {
  std::string m_s_exe_dir;        // folder of writer-host
  std::string m_s_lib_dir;        // folder of the libraries it loads
  std::string m_s_archive_root;
  std::string m_s_log_dir;
  std::string m_s_state_dir;      // the plug-in's saved settings go under it
  std::string m_s_cameras_file;   // empty: the embedded default
  double m_d_duration_s = 10;     // 0: until the sources end or a signal
  bool m_b_paced = true;          // real time, or as fast as the writer takes them
  int m_i_in_flight = 100;        // fast pacing: frames sent and not stored, at most
  int64_t m_i64_max_frames = 0;   // a source ends after this many frames; 0: no end
  bool m_b_loop = false;
  int m_i_write_delay_ms = -1;    // archive fault switch; -1 none
  double m_d_drain_s = 15;
  bool m_b_quiet = false;
  bool m_b_help = false;
  std::string m_s_archive_extra;  // JSON object from the command line
  // The web front: off unless --http is given.
  bool m_b_http = false;
  std::string m_s_http_host = "127.0.0.1";
  int m_i_http_port = 8080;       // 0: any free port
  std::string m_s_http_token;     // write routes want it when set

  // From the cameras file (or the default).
  std::vector<SrvCamera> m_cameras;
  std::vector<std::string> m_holidays;          // "january_1" forms
  std::vector<std::string> m_working_weekends;
  std::vector<SrvEventStep> m_events;
  std::string m_s_file_archive;                 // the file's "archive" object, as JSON
  std::vector<SrvArchiveFault> m_archive_faults;  // the file's "archive_faults", for the whole run
};

extern const char* const SRV_USAGE;

// Reads the command line. False with a message for people on bad options.
bool SrvParseArgs(int argc, char** argv, SrvSettings* p_out_av, std::string* p_error_av);
// "ADDR:PORT", ":PORT" or "PORT" of --http; false with a message. Only a
// loopback address may leave the write routes without a token.
bool SrvParseHttpAddress(const std::string& s_text_av, const std::string& s_token_av, SrvSettings* p_out_av,
                         std::string* p_error_av);
bool SrvIsLoopback(const std::string& s_host_av);
// Reads the cameras file (or takes the default). False with a message.
bool SrvLoadCameras(SrvSettings* p_settings_av, std::string* p_error_av);
// Reads a cameras document from text; the name only goes into messages.
bool SrvParseCamerasText(const std::string& s_text_av, const std::string& s_name_av, SrvSettings* p_out_av,
                         std::string* p_error_av);
// The archive's configuration: root, the file's keys, the command line's.
bool SrvArchiveConfig(const SrvSettings& settings_av, std::string* p_json_av, std::string* p_error_av);
// The default camera: synthetic video at 25 fps, a key frame every 2 s, and
// 20 ms PCMA audio, recording always.
std::string SrvDefaultCamerasText();
