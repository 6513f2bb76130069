// One stored stream: the folder of one camera's video or audio in one
// storage, with its open segment. Sessions of arc_main append frames here;
// each stream has its own lock, so one camera's disk work never waits for
// another's.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "host/archive/arc_config.h"
#include "host/archive/arc_format.h"

namespace warc {

struct ArcStream {
  // Index entries go out in batches of this many, or when the segment
  // closes: an index that lacks its last batch after a crash is rebuilt from
  // the segment, so holding them back loses nothing, and saves a system
  // call on nearly every frame.
  static const uint32_t INDEX_BATCH = 64;

  std::mutex m_mutex;
  std::string m_s_dir;
  uint32_t m_ui_kind = 0;
  bool m_b_prepared = false;  // folder made, last segment repaired
  uint32_t m_ui_next_seq = 1;
  int m_h_seg = -1;  // open segment and its index, -1 when none
  int m_h_idx = -1;
  uint32_t m_ui_seq = 0;
  uint64_t m_ui64_seg_size = 0;
  int64_t m_i64_seg_first_time = 0;
  uint32_t m_ui_seg_frames = 0;
  uint8_t m_pb_index_batch[INDEX_BATCH * IDX_ENTRY_SIZE];
  uint32_t m_ui_index_batched = 0;
  int64_t m_i64_next_depth_check = 0;
  int m_i_users = 0;  // sessions holding the stream; guarded by the owner's table lock
  // What was stored through the stream, for the host's statistics.
  std::atomic<int64_t> m_i64_frames{0}, m_i64_bytes{0};
};

// Counters the store reports back to the caller's statistics.
struct StoreCounts {
  int64_t m_i64_segments_created = 0;
  int64_t m_i64_segments_deleted = 0;
};

// Makes a folder and its parents. 0 on success.
int MakeDirs(const std::string& s_path_av);

// All of these expect the stream's lock to be held by the caller.
// Appends one frame record; 0, or ARCHIVE_E_IO when nothing was stored.
int32_t StreamAppend(ArcStream* p_stream_av, const ArcConfig& config_av, int64_t i64_time_av, uint8_t ui_type_av,
                     const void* p_data_av, uint32_t ui_size_av, StoreCounts* p_counts_av);
void StreamCloseSegment(ArcStream* p_stream_av);
// Deletes the closed segments whose last frame is older than now - depth.
void StreamEnforceDepth(ArcStream* p_stream_av, int64_t i64_now_local_av, int64_t i64_depth_av,
                        StoreCounts* p_counts_av);

}  // namespace warc
