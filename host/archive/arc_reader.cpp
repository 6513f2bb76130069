// Reading side of the archive format: stream discovery, ordered frame reads,
// summaries for "list", the checks of "verify", frame block parsing and the
// H.264 byte stream of "export". Used by writer-archive and the tests.
#include "host/archive/arc_reader.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/pl_clock.h"

namespace warc {

namespace {

bool IsDir(const std::string& s_path_av) {
  struct stat st_lv;
  return stat(s_path_av.c_str(), &st_lv) == 0 && S_ISDIR(st_lv.st_mode);
}

std::vector<std::string> SubDirs(const std::string& s_dir_av) {
  std::vector<std::string> names_lv;
  DIR* p_dir_lv = opendir(s_dir_av.c_str());
  if (p_dir_lv == nullptr) return names_lv;
  while (dirent* p_ent_lv = readdir(p_dir_lv)) {
    std::string s_name_lv = p_ent_lv->d_name;
    if (s_name_lv == "." || s_name_lv == ".." || !IsDir(s_dir_av + "/" + s_name_lv)) continue;
    names_lv.push_back(s_name_lv);
  }
  closedir(p_dir_lv);
  std::sort(names_lv.begin(), names_lv.end());
  return names_lv;
}

// A kind folder is "video" or "audio" holding at least one segment.
void Walk(const std::string& s_dir_av, const std::string& s_rel_av, int i_depth_av, std::vector<StreamRef>* p_out_av) {
  const int MAX_DEPTH = 4;
  for (const std::string& s_name_lv : SubDirs(s_dir_av)) {
    std::string s_path_lv = s_dir_av + "/" + s_name_lv;
    if (s_name_lv == "video" || s_name_lv == "audio") {
      std::vector<uint32_t> segs_lv = ListSegments(s_path_lv);
      if (!segs_lv.empty()) {
        p_out_av->push_back(StreamRef{s_path_lv, s_rel_av.empty() ? std::string(".") : s_rel_av, s_name_lv, segs_lv});
        continue;
      }
    }
    if (i_depth_av < MAX_DEPTH) Walk(s_path_lv, s_rel_av.empty() ? s_name_lv : s_rel_av + "/" + s_name_lv, i_depth_av + 1, p_out_av);
  }
}

std::string SegPath(const StreamRef& stream_av, uint32_t ui_seq_av) {
  return stream_av.m_s_dir + "/" + SegmentFileName(ui_seq_av);
}

std::string IdxPath(const StreamRef& stream_av, uint32_t ui_seq_av) {
  return stream_av.m_s_dir + "/" + IndexFileName(ui_seq_av);
}

}  // namespace

std::vector<StreamRef> FindStreams(const std::string& s_root_av) {
  std::vector<StreamRef> streams_lv;
  Walk(s_root_av, "", 0, &streams_lv);
  return streams_lv;
}

bool ReadFrames(const StreamRef& stream_av, int64_t i64_from_av, int64_t i64_to_av, const StoredFrameFn& fn_av,
                std::string* s_error_av) {
  struct Ctx {
    const StoredFrameFn* m_p_fn;
    uint32_t m_ui_seq;
    int64_t m_i64_from, m_i64_to;
  };
  for (uint32_t ui_seq_lv : stream_av.m_segs) {
    Ctx ctx_lv{&fn_av, ui_seq_lv, i64_from_av, i64_to_av};
    SegScan scan_lv;
    bool b_ok_lv = ScanSegment(
        SegPath(stream_av, ui_seq_lv), &scan_lv,
        [](void* p_user_av, const IndexEntry& entry_av, const uint8_t* pb_av) {
          Ctx* p_ctx_lv = static_cast<Ctx*>(p_user_av);
          if (entry_av.m_i64_time < p_ctx_lv->m_i64_from || entry_av.m_i64_time > p_ctx_lv->m_i64_to) return;
          (*p_ctx_lv->m_p_fn)(entry_av, p_ctx_lv->m_ui_seq, pb_av);
        },
        &ctx_lv);
    if (!b_ok_lv) {
      *s_error_av = "cannot open " + SegPath(stream_av, ui_seq_lv);
      return false;
    }
  }
  return true;
}

StreamSummary SummariseStream(const StreamRef& stream_av, int64_t i64_gap_ticks_av) {
  StreamSummary sum_lv;
  sum_lv.m_ui_segments = stream_av.m_segs.size();
  bool b_first_lv = true;
  int64_t i64_prev_lv = 0;
  for (uint32_t ui_seq_lv : stream_av.m_segs) {
    SegScan scan_lv;
    if (!ScanSegment(SegPath(stream_av, ui_seq_lv), &scan_lv) || scan_lv.m_ui64_valid_end != scan_lv.m_ui64_file_size)
      sum_lv.m_ui_damaged_segments++;
    for (const IndexEntry& entry_lv : scan_lv.m_entries) {
      if (b_first_lv) sum_lv.m_i64_first = entry_lv.m_i64_time;
      // Files may hold any time at all: the difference is taken unsigned.
      if (!b_first_lv && entry_lv.m_i64_time > i64_prev_lv &&
          static_cast<uint64_t>(entry_lv.m_i64_time) - static_cast<uint64_t>(i64_prev_lv) >
              static_cast<uint64_t>(i64_gap_ticks_av))
        sum_lv.m_gaps.emplace_back(i64_prev_lv, entry_lv.m_i64_time);
      b_first_lv = false;
      i64_prev_lv = entry_lv.m_i64_time;
      sum_lv.m_i64_last = entry_lv.m_i64_time;
      sum_lv.m_ui64_frames++;
      sum_lv.m_ui64_bytes += entry_lv.m_ui_size;
      if (entry_lv.m_ui_type & TYPE_KEY) sum_lv.m_ui64_key_frames++;
    }
  }
  return sum_lv;
}

namespace {

// The entries of a segment whose index ends exactly where the segment
// does; false where only a read of the records can tell (index lagging,
// damaged or missing, segment cut).
bool IndexCovers(const StreamRef& stream_av, uint32_t ui_seq_av, std::vector<IndexEntry>* p_out_av) {
  SegHead head_lv;
  struct stat st_lv {};
  std::string s_seg_lv = SegPath(stream_av, ui_seq_av);
  if (!ReadSegHead(s_seg_lv, &head_lv) || stat(s_seg_lv.c_str(), &st_lv) != 0) return false;
  uint64_t ui64_idx_size_lv = 0;
  if (!ReadIndex(IdxPath(stream_av, ui_seq_av), head_lv.m_ui_version, p_out_av, &ui64_idx_size_lv)) return false;
  if (p_out_av->empty() || ui64_idx_size_lv != p_out_av->size() * IDX_ENTRY_SIZE) return false;
  const IndexEntry& last_lv = p_out_av->back();
  return last_lv.m_ui64_offset + REC_HEAD_SIZE + last_lv.m_ui_size == static_cast<uint64_t>(st_lv.st_size);
}

}  // namespace

StreamCount CountStream(const StreamRef& stream_av) {
  StreamCount count_lv;
  for (uint32_t ui_seq_lv : stream_av.m_segs) {
    std::vector<IndexEntry> entries_lv;
    if (!IndexCovers(stream_av, ui_seq_lv, &entries_lv)) {
      SegScan scan_lv;
      ScanSegment(SegPath(stream_av, ui_seq_lv), &scan_lv);
      entries_lv.swap(scan_lv.m_entries);
    }
    count_lv.m_ui64_frames += entries_lv.size();
    for (const IndexEntry& entry_lv : entries_lv)
      if (entry_lv.m_ui_type & TYPE_KEY) count_lv.m_ui64_key_frames++;
  }
  return count_lv;
}

namespace {

// State of the checks carried across the frames of a stream.
struct VerifyState {
  VerifyReport* m_p_report;
  std::string m_s_where;
  bool m_b_have_prev = false;
  int64_t m_i64_prev_time = 0;
  uint32_t m_ui_prev_number = 0;

  void Line(bool b_error_av, const std::string& s_text_av) {
    (b_error_av ? m_p_report->m_i_errors : m_p_report->m_i_warnings)++;
    const size_t MAX_LINES = 200;
    if (m_p_report->m_lines.size() < MAX_LINES)
      m_p_report->m_lines.push_back(std::string(b_error_av ? "error: " : "warning: ") + m_s_where + s_text_av);
  }
};

// An index of whole entries that agrees with the segment as far as it goes
// but stops short: the entries of the last records were still held back in
// the writer when it died. Nothing is lost; the index is rebuilt from the
// segment.
bool IndexLags(const std::vector<IndexEntry>& index_av, uint64_t ui64_idx_size_av,
               const std::vector<IndexEntry>& records_av) {
  return index_av.size() < records_av.size() && ui64_idx_size_av == index_av.size() * IDX_ENTRY_SIZE &&
         std::equal(index_av.begin(), index_av.end(), records_av.begin());
}

void VerifyFrame(VerifyState* p_state_av, const IndexEntry& entry_av, const uint8_t* pb_block_av) {
  p_state_av->m_p_report->m_ui64_frames++;
  char s_at_lv[96];
  snprintf(s_at_lv, sizeof(s_at_lv), "frame at offset %llu (%s): ",
           static_cast<unsigned long long>(entry_av.m_ui64_offset), TimeText(entry_av.m_i64_time).c_str());
  if (p_state_av->m_b_have_prev && entry_av.m_i64_time < p_state_av->m_i64_prev_time)
    p_state_av->Line(true, std::string(s_at_lv) + "time falls back from " + TimeText(p_state_av->m_i64_prev_time));
  BlockInfo info_lv;
  std::string s_why_lv;
  if (!ParseFrameBlock(pb_block_av, entry_av.m_ui_size, &info_lv, &s_why_lv)) {
    p_state_av->Line(true, std::string(s_at_lv) + "frame block unreadable: " + s_why_lv);
  } else {
    uint32_t ui_num_lv = info_lv.m_ui_number;
    uint32_t ui_prev_lv = p_state_av->m_ui_prev_number;
    bool b_key_lv = (entry_av.m_ui_type & TYPE_KEY) != 0;
    bool b_follows_lv = p_state_av->m_b_have_prev && ui_num_lv == ui_prev_lv + 1;
    if (b_key_lv && (ui_num_lv & 0xFFF) != 0) {
      p_state_av->Line(true, std::string(s_at_lv) + "key frame number " + std::to_string(ui_num_lv) +
                                 " does not start a group");
    } else if (!b_key_lv && p_state_av->m_b_have_prev && !b_follows_lv) {
      // Within one group a lost frame shows as a gap; anything else breaks
      // the counting the plug-in does.
      bool b_same_group_lv = (ui_num_lv & ~0xFFFu) == (ui_prev_lv & ~0xFFFu) && ui_num_lv > ui_prev_lv;
      p_state_av->Line(!b_same_group_lv, std::string(s_at_lv) + "frame number " + std::to_string(ui_num_lv) +
                                             " after " + std::to_string(ui_prev_lv) +
                                             (b_same_group_lv ? " (frames missing)" : " (inconsistent)"));
    }
    p_state_av->m_ui_prev_number = ui_num_lv;
  }
  p_state_av->m_b_have_prev = true;
  p_state_av->m_i64_prev_time = entry_av.m_i64_time;
}

void VerifySegment(const StreamRef& stream_av, uint32_t ui_seq_av, bool b_repair_av, VerifyState* p_state_av) {
  p_state_av->m_s_where = stream_av.m_s_camera + "/" + stream_av.m_s_kind + "/" + SegmentFileName(ui_seq_av) + ": ";
  if (b_repair_av) {
    RepairReport report_lv;
    if (!RepairSegment(SegPath(stream_av, ui_seq_av), IdxPath(stream_av, ui_seq_av), &report_lv))
      p_state_av->Line(true, "repair failed");
    else if (report_lv.m_b_removed)
      p_state_av->Line(false, "removed: no usable head");
    else if (report_lv.m_ui64_bytes_cut > 0 || report_lv.m_b_index_rebuilt)
      p_state_av->Line(false, "repaired: " + std::to_string(report_lv.m_ui64_bytes_cut) + " damaged bytes cut" +
                                  (report_lv.m_b_index_rebuilt ? ", index rebuilt" : ""));
    if (report_lv.m_b_removed) return;
  }
  SegScan scan_lv;
  if (!ScanSegment(SegPath(stream_av, ui_seq_av), &scan_lv, [](void* p_user_av, const IndexEntry& entry_av,
                                                               const uint8_t* pb_av) {
        VerifyFrame(static_cast<VerifyState*>(p_user_av), entry_av, pb_av);
      }, p_state_av)) {
    p_state_av->Line(true, "cannot open");
    return;
  }
  if (!scan_lv.m_b_head_ok) {
    p_state_av->Line(true, scan_lv.m_s_tail_reason);
    return;
  }
  if (KindName(scan_lv.m_head.m_ui_kind) != stream_av.m_s_kind)
    p_state_av->Line(true, "segment head says " + std::string(KindName(scan_lv.m_head.m_ui_kind)));
  if (scan_lv.m_ui64_valid_end != scan_lv.m_ui64_file_size)
    p_state_av->Line(true, "damaged tail at offset " + std::to_string(scan_lv.m_ui64_valid_end) + " (" +
                               scan_lv.m_s_tail_reason + "), " +
                               std::to_string(scan_lv.m_ui64_file_size - scan_lv.m_ui64_valid_end) + " bytes");
  std::vector<IndexEntry> index_lv;
  uint64_t ui64_idx_size_lv = 0;
  if (!ReadIndex(IdxPath(stream_av, ui_seq_av), scan_lv.m_head.m_ui_version, &index_lv, &ui64_idx_size_lv))
    p_state_av->Line(true, "index missing");
  else if (IndexLags(index_lv, ui64_idx_size_lv, scan_lv.m_entries))
    p_state_av->Line(false, "index lacks its last " + std::to_string(scan_lv.m_entries.size() - index_lv.size()) +
                                " entries (written in batches; put back by --repair or the next session)");
  else if (index_lv != scan_lv.m_entries || ui64_idx_size_lv != index_lv.size() * IDX_ENTRY_SIZE)
    p_state_av->Line(true, "index disagrees with the segment (" + std::to_string(index_lv.size()) + " entries, " +
                               std::to_string(scan_lv.m_entries.size()) + " records)");
}

}  // namespace

VerifyReport VerifyStream(const StreamRef& stream_av, bool b_repair_av) {
  VerifyReport report_lv;
  VerifyState state_lv{&report_lv, ""};
  for (uint32_t ui_seq_lv : stream_av.m_segs) VerifySegment(stream_av, ui_seq_lv, b_repair_av, &state_lv);
  return report_lv;
}

const BlockSection* BlockInfo::Find(uint32_t ui_type_av) const {
  for (const BlockSection& section_lv : m_sections)
    if (section_lv.m_ui_type == ui_type_av) return &section_lv;
  return nullptr;
}

bool ParseFrameBlock(const uint8_t* pb_av, uint32_t ui_size_av, BlockInfo* p_out_av, std::string* s_why_av) {
  *p_out_av = BlockInfo();
  if (ui_size_av < 32) {
    *s_why_av = "shorter than a head";
    return false;
  }
  p_out_av->m_ui_head_len = GetU32(pb_av);
  p_out_av->m_ui_kind = GetU32(pb_av + 4);
  bool b_long_lv = p_out_av->m_ui_head_len == 48 && p_out_av->m_ui_kind == 6;
  bool b_short_lv = p_out_av->m_ui_head_len == 32 && p_out_av->m_ui_kind == 7;
  if ((!b_long_lv && !b_short_lv) || p_out_av->m_ui_head_len > ui_size_av) {
    *s_why_av = "head length " + std::to_string(p_out_av->m_ui_head_len) + " kind " +
                std::to_string(p_out_av->m_ui_kind) + " not recognised";
    return false;
  }
  p_out_av->m_i64_time = static_cast<int64_t>(GetU64(pb_av + 8));
  p_out_av->m_ui_number = GetU32(pb_av + 20);
  if (b_long_lv) {
    p_out_av->m_ui_codec = GetU16(pb_av + 36);
    p_out_av->m_ui_height = GetU16(pb_av + 38);
    p_out_av->m_ui_width = GetU16(pb_av + 40);
    memcpy(p_out_av->m_s_fcc, pb_av + 44, 4);
  }
  uint32_t ui_pos_lv = p_out_av->m_ui_head_len;
  while (ui_pos_lv < ui_size_av) {
    if (ui_size_av - ui_pos_lv < 8) {
      *s_why_av = "section head cut at " + std::to_string(ui_pos_lv);
      return false;
    }
    uint32_t ui_len_lv = GetU32(pb_av + ui_pos_lv);
    if (ui_len_lv < 8 || ui_len_lv > ui_size_av - ui_pos_lv) {
      *s_why_av = "section at " + std::to_string(ui_pos_lv) + " has length " + std::to_string(ui_len_lv);
      return false;
    }
    p_out_av->m_sections.push_back(BlockSection{GetU32(pb_av + ui_pos_lv + 4), pb_av + ui_pos_lv + 8, ui_len_lv - 8});
    ui_pos_lv += ui_len_lv;
  }
  if (p_out_av->Find(1) == nullptr) {
    *s_why_av = "no data section";
    return false;
  }
  return true;
}

bool BlockIsH264(const BlockInfo& info_av) {
  return info_av.m_ui_codec == 7 || strcmp(info_av.m_s_fcc, "H264") == 0 || strcmp(info_av.m_s_fcc, "h264") == 0;
}

namespace {

void AppendUnit(const uint8_t* pb_av, uint32_t ui_len_av, std::string* p_out_av) {
  static const char START[4] = {0, 0, 0, 1};
  p_out_av->append(START, 4);
  p_out_av->append(reinterpret_cast<const char*>(pb_av), ui_len_av);
}

// avcC record: version 1, profile, compatibility, level, length size, then
// the parameter sets, each with a 16-bit length.
bool AppendAvcC(const uint8_t* pb_av, uint32_t ui_len_av, std::string* p_out_av) {
  if (ui_len_av < 7 || pb_av[0] != 1) return false;
  std::string s_lv;
  uint32_t ui_pos_lv = 5;
  for (int i_list_lv = 0; i_list_lv < 2; i_list_lv++) {
    if (ui_pos_lv >= ui_len_av) return false;
    uint32_t ui_count_lv = i_list_lv == 0 ? (pb_av[ui_pos_lv] & 0x1F) : pb_av[ui_pos_lv];
    ui_pos_lv++;
    for (uint32_t ui_lv = 0; ui_lv < ui_count_lv; ui_lv++) {
      if (ui_len_av - ui_pos_lv < 2) return false;
      uint32_t ui_unit_lv = static_cast<uint32_t>(pb_av[ui_pos_lv] << 8 | pb_av[ui_pos_lv + 1]);
      ui_pos_lv += 2;
      if (ui_unit_lv > ui_len_av - ui_pos_lv) return false;
      AppendUnit(pb_av + ui_pos_lv, ui_unit_lv, &s_lv);
      ui_pos_lv += ui_unit_lv;
    }
  }
  p_out_av->append(s_lv);
  return true;
}

bool AppendLengthPrefixed(const uint8_t* pb_av, uint32_t ui_len_av, std::string* p_out_av) {
  std::string s_lv;
  uint32_t ui_pos_lv = 0;
  while (ui_pos_lv < ui_len_av) {
    if (ui_len_av - ui_pos_lv < 4) return false;
    uint32_t ui_unit_lv = static_cast<uint32_t>(pb_av[ui_pos_lv]) << 24 | pb_av[ui_pos_lv + 1] << 16 |
                          pb_av[ui_pos_lv + 2] << 8 | pb_av[ui_pos_lv + 3];
    ui_pos_lv += 4;
    if (ui_unit_lv == 0 || ui_unit_lv > ui_len_av - ui_pos_lv) return false;
    AppendUnit(pb_av + ui_pos_lv, ui_unit_lv, &s_lv);
    ui_pos_lv += ui_unit_lv;
  }
  p_out_av->append(s_lv);
  return true;
}

}  // namespace

void AppendAnnexB(const uint8_t* pb_av, uint32_t ui_len_av, std::string* p_out_av, bool b_config_av) {
  bool b_start3_lv = ui_len_av >= 3 && pb_av[0] == 0 && pb_av[1] == 0 && pb_av[2] == 1;
  bool b_start4_lv = ui_len_av >= 4 && pb_av[0] == 0 && pb_av[1] == 0 && pb_av[2] == 0 && pb_av[3] == 1;
  if (b_start3_lv || b_start4_lv) {
    p_out_av->append(reinterpret_cast<const char*>(pb_av), ui_len_av);
    return;
  }
  if ((b_config_av && AppendAvcC(pb_av, ui_len_av, p_out_av)) || AppendLengthPrefixed(pb_av, ui_len_av, p_out_av)) return;
  // Unknown packing: one unit, so that the stream at least stays framed.
  AppendUnit(pb_av, ui_len_av, p_out_av);
}

bool ParseTimeArg(const std::string& s_text_av, int64_t* p_out_av) {
  PlCalendar cal_lv{};
  int i_n_lv = sscanf(s_text_av.c_str(), "%d.%d.%d %d:%d:%d:%d", &cal_lv.i_year, &cal_lv.i_month, &cal_lv.i_day,
                      &cal_lv.i_hour, &cal_lv.i_minute, &cal_lv.i_second, &cal_lv.i_millisecond);
  if (i_n_lv >= 6) {
    uint64_t ui64_lv = 0;
    if (!PlCalendarToFileTime(&cal_lv, &ui64_lv)) return false;
    *p_out_av = static_cast<int64_t>(ui64_lv);
    return true;
  }
  char* s_end_lv = nullptr;
  long long i64_lv = strtoll(s_text_av.c_str(), &s_end_lv, 10);
  if (s_text_av.empty() || *s_end_lv != 0 || i64_lv < 0) return false;
  *p_out_av = i64_lv;
  return true;
}

}  // namespace warc
