// Configuration of the archive library: the root folder, the storages and the
// policies the plug-in asks about. Parsed from the JSON text the host gives
// to archive_configure; called by arc_main only.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace warc {

struct ArcConfig {
  std::string m_s_root;                          // folder of storages without a path of their own
  std::map<int64_t, std::string> m_storages;     // storage id -> folder
  int64_t m_i64_segment_max_bytes = 64ll << 20;  // a segment is closed past this size...
  int64_t m_i64_segment_max_ticks = 600ll * 10000000;  // ...or when its frames span this long
  int64_t m_i64_max_frame_bytes = 64ll << 20;
  int64_t m_b_increase_write_buffers = 1;  // code 111
  int64_t m_i64_max_buffers_bytes = 512ll << 20;  // code 112
  int64_t m_b_restart_stalled = 1;         // code 116
  int64_t m_b_audio_not_key = 1;           // code 20
  int64_t m_i64_slot_ticks = 10ll * 10000000;  // code 110: length of one slot...
  int64_t m_i_slot_count = 50;                 // ...and slots in the ring
  int64_t m_i64_depth_check_ticks = 60ll * 10000000;
  int64_t m_i64_ready_delay_ticks = 0;  // codes 84 and 34 answer 0 this long after dll_init2
  bool m_b_sync = false;                // fdatasync after each frame

  // Folder of a storage: its configured path, or "storage_<id>" in the root.
  std::string StoragePath(int64_t i64_storage_id_av) const;
};

// The defaults, with the root "archive_data" beside the running program.
ArcConfig DefaultConfig();

// Parses the text over the defaults. False with a message in s_error_av.
bool ParseConfig(const char* s_json_av, ArcConfig* p_out_av, std::string* s_error_av);

}  // namespace warc
