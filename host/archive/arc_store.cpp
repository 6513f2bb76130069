// Appending frames to segment files, closing segments at their bounds, the
// repair of a stream folder at its first use, and deletion past the depth.
// Called by the session code of arc_main under the stream's lock.
#include "host/archive/arc_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "host/archive/arc_format.h"
#include "include/host/archive_api.h"
#include "platform/pl_clock.h"

namespace warc {

int MakeDirs(const std::string& s_path_av) {
  if (s_path_av.empty()) return -1;
  for (size_t ui_pos_lv = 1; ui_pos_lv <= s_path_av.size(); ui_pos_lv++) {
    if (ui_pos_lv < s_path_av.size() && s_path_av[ui_pos_lv] != '/') continue;
    std::string s_part_lv = s_path_av.substr(0, ui_pos_lv);
    if (mkdir(s_part_lv.c_str(), 0755) != 0 && errno != EEXIST) return -1;
  }
  struct stat st_lv;
  return stat(s_path_av.c_str(), &st_lv) == 0 && S_ISDIR(st_lv.st_mode) ? 0 : -1;
}

namespace {

// First use of a folder in this process: a crash may have left a damaged
// tail in the newest segment, which is cut before anything is appended.
int32_t StreamPrepare(ArcStream* p_stream_av) {
  if (MakeDirs(p_stream_av->m_s_dir) != 0) {
    fprintf(stderr, "warchive: cannot make folder %s\n", p_stream_av->m_s_dir.c_str());
    return ARCHIVE_E_IO;
  }
  std::vector<uint32_t> seqs_lv = ListSegments(p_stream_av->m_s_dir);
  if (!seqs_lv.empty()) {
    uint32_t ui_last_lv = seqs_lv.back();
    RepairReport report_lv;
    std::string s_seg_lv = p_stream_av->m_s_dir + "/" + SegmentFileName(ui_last_lv);
    if (!RepairSegment(s_seg_lv, p_stream_av->m_s_dir + "/" + IndexFileName(ui_last_lv), &report_lv))
      fprintf(stderr, "warchive: cannot repair %s\n", s_seg_lv.c_str());
    else if (report_lv.m_ui64_bytes_cut > 0 || report_lv.m_b_index_rebuilt)
      fprintf(stderr, "warchive: repaired %s: %llu damaged bytes cut, index %s\n", s_seg_lv.c_str(),
              static_cast<unsigned long long>(report_lv.m_ui64_bytes_cut),
              report_lv.m_b_index_rebuilt ? "rebuilt" : "kept");
    p_stream_av->m_ui_next_seq = ui_last_lv + 1;
  }
  p_stream_av->m_b_prepared = true;
  return 0;
}

int32_t StreamOpenSegment(ArcStream* p_stream_av, StoreCounts* p_counts_av) {
  uint32_t ui_seq_lv = p_stream_av->m_ui_next_seq++;
  std::string s_seg_lv = p_stream_av->m_s_dir + "/" + SegmentFileName(ui_seq_lv);
  std::string s_idx_lv = p_stream_av->m_s_dir + "/" + IndexFileName(ui_seq_lv);
  int h_seg_lv = open(s_seg_lv.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
  if (h_seg_lv < 0) {
    fprintf(stderr, "warchive: cannot create %s\n", s_seg_lv.c_str());
    return ARCHIVE_E_IO;
  }
  int h_idx_lv = open(s_idx_lv.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  SegHead head_lv{p_stream_av->m_ui_kind, static_cast<int64_t>(PlFileTimeToLocal(PlFileTimeUtc())), ui_seq_lv};
  uint8_t pb_head_lv[SEG_HEAD_SIZE];
  EncodeSegHead(head_lv, pb_head_lv);
  if (h_idx_lv < 0 || write(h_seg_lv, pb_head_lv, SEG_HEAD_SIZE) != static_cast<ssize_t>(SEG_HEAD_SIZE)) {
    fprintf(stderr, "warchive: cannot start segment %s\n", s_seg_lv.c_str());
    close(h_seg_lv);
    if (h_idx_lv >= 0) close(h_idx_lv);
    unlink(s_seg_lv.c_str());
    unlink(s_idx_lv.c_str());
    return ARCHIVE_E_IO;
  }
  p_stream_av->m_h_seg = h_seg_lv;
  p_stream_av->m_h_idx = h_idx_lv;
  p_stream_av->m_ui_seq = ui_seq_lv;
  p_stream_av->m_ui64_seg_size = SEG_HEAD_SIZE;
  p_stream_av->m_ui_seg_frames = 0;
  p_counts_av->m_i64_segments_created++;
  return 0;
}

bool SegmentIsFull(const ArcStream* p_stream_av, const ArcConfig& config_av, int64_t i64_time_av,
                   uint32_t ui_size_av) {
  if (p_stream_av->m_ui_seg_frames == 0) return false;
  uint64_t ui64_after_lv = p_stream_av->m_ui64_seg_size + REC_HEAD_SIZE + ui_size_av;
  if (ui64_after_lv > static_cast<uint64_t>(config_av.m_i64_segment_max_bytes)) return true;
  // Times are never negative here, so the difference cannot overflow; one
  // that falls back does not end the segment.
  return i64_time_av >= p_stream_av->m_i64_seg_first_time &&
         i64_time_av - p_stream_av->m_i64_seg_first_time >= config_av.m_i64_segment_max_ticks;
}

void FlushIndex(ArcStream* p_stream_av) {
  if (p_stream_av->m_ui_index_batched == 0) return;
  ssize_t i_want_lv = static_cast<ssize_t>(p_stream_av->m_ui_index_batched * IDX_ENTRY_SIZE);
  p_stream_av->m_ui_index_batched = 0;
  // A lost index entry is rebuilt from the segment at the next open.
  if (p_stream_av->m_h_idx < 0 || write(p_stream_av->m_h_idx, p_stream_av->m_pb_index_batch, i_want_lv) != i_want_lv)
    fprintf(stderr, "warchive: index write failed in %s\n", p_stream_av->m_s_dir.c_str());
}

// Queues the index entry of the record just written.
void BatchIndexEntry(ArcStream* p_stream_av, const IndexEntry& entry_av, bool b_sync_av) {
  EncodeIndexEntry(entry_av, p_stream_av->m_pb_index_batch + p_stream_av->m_ui_index_batched * IDX_ENTRY_SIZE);
  p_stream_av->m_ui_index_batched++;
  if (b_sync_av || p_stream_av->m_ui_index_batched == ArcStream::INDEX_BATCH) FlushIndex(p_stream_av);
}

}  // namespace

void StreamCloseSegment(ArcStream* p_stream_av) {
  FlushIndex(p_stream_av);
  if (p_stream_av->m_h_seg >= 0) close(p_stream_av->m_h_seg);
  if (p_stream_av->m_h_idx >= 0) close(p_stream_av->m_h_idx);
  p_stream_av->m_h_seg = p_stream_av->m_h_idx = -1;
}

int32_t StreamAppend(ArcStream* p_stream_av, const ArcConfig& config_av, int64_t i64_time_av, uint8_t ui_type_av,
                     const void* p_data_av, uint32_t ui_size_av, StoreCounts* p_counts_av) {
  if (!p_stream_av->m_b_prepared && StreamPrepare(p_stream_av) != 0) return ARCHIVE_E_IO;
  if (p_stream_av->m_h_seg >= 0 && SegmentIsFull(p_stream_av, config_av, i64_time_av, ui_size_av))
    StreamCloseSegment(p_stream_av);
  if (p_stream_av->m_h_seg < 0 && StreamOpenSegment(p_stream_av, p_counts_av) != 0) return ARCHIVE_E_IO;
  uint8_t pb_head_lv[REC_HEAD_SIZE];
  EncodeRecHead(i64_time_av, ui_type_av, p_data_av, ui_size_av, pb_head_lv);
  // One system call for head and payload: a kill leaves the record whole or
  // cut, never interleaved with another.
  iovec iov_lv[2] = {{pb_head_lv, REC_HEAD_SIZE}, {const_cast<void*>(p_data_av), ui_size_av}};
  ssize_t i_want_lv = static_cast<ssize_t>(REC_HEAD_SIZE + ui_size_av);
  ssize_t i_done_lv = writev(p_stream_av->m_h_seg, iov_lv, 2);
  if (i_done_lv != i_want_lv) {
    // Leave no half record behind for the next frame to follow.
    if (ftruncate(p_stream_av->m_h_seg, static_cast<off_t>(p_stream_av->m_ui64_seg_size)) != 0)
      fprintf(stderr, "warchive: cannot cut a failed write in %s\n", p_stream_av->m_s_dir.c_str());
    StreamCloseSegment(p_stream_av);
    return ARCHIVE_E_IO;
  }
  IndexEntry entry_lv{i64_time_av, p_stream_av->m_ui64_seg_size, ui_size_av, BlockFrameNumber(p_data_av, ui_size_av),
                      ui_type_av};
  BatchIndexEntry(p_stream_av, entry_lv, config_av.m_b_sync);
  if (config_av.m_b_sync) fdatasync(p_stream_av->m_h_seg);
  if (p_stream_av->m_ui_seg_frames == 0) p_stream_av->m_i64_seg_first_time = i64_time_av;
  p_stream_av->m_ui_seg_frames++;
  p_stream_av->m_ui64_seg_size += static_cast<uint64_t>(i_want_lv);
  return 0;
}

namespace {

// Time of the last frame of a closed segment: the index's last entry, or a
// scan when the index cannot tell. False for a segment without frames.
bool SegmentLastTime(const std::string& s_dir_av, uint32_t ui_seq_av, int64_t* p_time_av) {
  std::vector<IndexEntry> index_lv;
  uint64_t ui64_size_lv = 0;
  SegHead head_lv;
  if (ReadSegHead(s_dir_av + "/" + SegmentFileName(ui_seq_av), &head_lv) &&
      ReadIndex(s_dir_av + "/" + IndexFileName(ui_seq_av), head_lv.m_ui_version, &index_lv, &ui64_size_lv) &&
      !index_lv.empty()) {
    *p_time_av = index_lv.back().m_i64_time;
    return true;
  }
  SegScan scan_lv;
  if (!ScanSegment(s_dir_av + "/" + SegmentFileName(ui_seq_av), &scan_lv) || scan_lv.m_entries.empty())
    return false;
  *p_time_av = scan_lv.m_entries.back().m_i64_time;
  return true;
}

}  // namespace

void StreamEnforceDepth(ArcStream* p_stream_av, int64_t i64_now_local_av, int64_t i64_depth_av,
                        StoreCounts* p_counts_av) {
  if (i64_depth_av <= 0 || !p_stream_av->m_b_prepared) return;
  int64_t i64_limit_lv = i64_now_local_av - i64_depth_av;
  for (uint32_t ui_seq_lv : ListSegments(p_stream_av->m_s_dir)) {
    if (p_stream_av->m_h_seg >= 0 && ui_seq_lv == p_stream_av->m_ui_seq) continue;
    int64_t i64_last_lv = 0;
    if (!SegmentLastTime(p_stream_av->m_s_dir, ui_seq_lv, &i64_last_lv) || i64_last_lv >= i64_limit_lv) continue;
    std::string s_seg_lv = p_stream_av->m_s_dir + "/" + SegmentFileName(ui_seq_lv);
    if (unlink(s_seg_lv.c_str()) == 0) p_counts_av->m_i64_segments_deleted++;
    unlink((p_stream_av->m_s_dir + "/" + IndexFileName(ui_seq_lv)).c_str());
  }
}

}  // namespace warc
