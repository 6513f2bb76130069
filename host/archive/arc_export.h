// One camera's recording as a container file (MP4 or Matroska) that any
// player opens: video stream-copied with the recorded frame times as its
// timestamps, and the audio beside it when the container holds its codec.
// Used by the writer-archive tool and by writer-host's web front.
#pragma once

#include <cstdint>
#include <string>

// Writes one camera's video (and its audio, when recorded) between two
// frame times into a container file; format is "mp4" or "mkv". The range
// starts at the key frame at or before from_us. False with a message.
bool ArcExportContainer(const std::string& root, const std::string& camera,
                        int64_t i64_from_us, int64_t i64_to_us,
                        const std::string& format, const std::string& out_path,
                        std::string* p_error);

// What an export wrote, for people.
struct ArcExportReport {
  uint64_t m_ui64_video = 0;
  uint64_t m_ui64_audio = 0;
  std::string m_s_note;  // e.g. audio the container cannot hold, left out
};
// As above, with a report of what was written.
bool ArcExportContainerReport(const std::string& root, const std::string& camera, int64_t i64_from_us,
                              int64_t i64_to_us, const std::string& format, const std::string& out_path,
                              ArcExportReport* p_report, std::string* p_error);
