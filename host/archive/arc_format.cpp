// Encoding, scanning and repair of the archive's segment and index files.
// Called by the storage side of libwarchive.so and by the reading library.
#include "host/archive/arc_format.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/pl_clock.h"

namespace warc {

namespace {

// Closes a stdio file at scope end.
struct FileCloser {
  FILE* m_p_file;
  ~FileCloser() {
    if (m_p_file != nullptr) fclose(m_p_file);
  }
};

}  // namespace

uint32_t FormatChecksum(uint32_t ui_version_av, const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av) {
  return ui_version_av == FORMAT_VERSION_1 ? Crc32(p_data_av, ui_len_av, ui_crc_av)
                                           : Crc32c(p_data_av, ui_len_av, ui_crc_av);
}

void PutU32(uint8_t* pb_av, uint32_t ui_av) {
  for (int i_lv = 0; i_lv < 4; i_lv++) pb_av[i_lv] = static_cast<uint8_t>(ui_av >> (8 * i_lv));
}
void PutU64(uint8_t* pb_av, uint64_t ui64_av) {
  for (int i_lv = 0; i_lv < 8; i_lv++) pb_av[i_lv] = static_cast<uint8_t>(ui64_av >> (8 * i_lv));
}
uint32_t GetU32(const uint8_t* pb_av) {
  uint32_t ui_lv = 0;
  for (int i_lv = 3; i_lv >= 0; i_lv--) ui_lv = (ui_lv << 8) | pb_av[i_lv];
  return ui_lv;
}
uint64_t GetU64(const uint8_t* pb_av) {
  uint64_t ui64_lv = 0;
  for (int i_lv = 7; i_lv >= 0; i_lv--) ui64_lv = (ui64_lv << 8) | pb_av[i_lv];
  return ui64_lv;
}
uint16_t GetU16(const uint8_t* pb_av) { return static_cast<uint16_t>(pb_av[0] | (pb_av[1] << 8)); }

void EncodeSegHead(const SegHead& head_av, uint8_t* pb_out_av) {
  memcpy(pb_out_av, SEG_MAGIC, 8);
  PutU32(pb_out_av + 8, head_av.m_ui_version);
  PutU32(pb_out_av + 12, head_av.m_ui_kind);
  PutU64(pb_out_av + 16, static_cast<uint64_t>(head_av.m_i64_created));
  PutU32(pb_out_av + 24, head_av.m_ui_seq);
  PutU32(pb_out_av + 28, FormatChecksum(head_av.m_ui_version, pb_out_av, 28));
}

bool DecodeSegHead(const uint8_t* pb_av, SegHead* p_out_av) {
  uint32_t ui_version_lv = GetU32(pb_av + 8);
  if (memcmp(pb_av, SEG_MAGIC, 8) != 0 || (ui_version_lv != FORMAT_VERSION_1 && ui_version_lv != FORMAT_VERSION))
    return false;
  if (GetU32(pb_av + 28) != FormatChecksum(ui_version_lv, pb_av, 28)) return false;
  p_out_av->m_ui_version = ui_version_lv;
  p_out_av->m_ui_kind = GetU32(pb_av + 12);
  p_out_av->m_i64_created = static_cast<int64_t>(GetU64(pb_av + 16));
  p_out_av->m_ui_seq = GetU32(pb_av + 24);
  return true;
}

void EncodeRecHead(int64_t i64_time_av, uint8_t ui_type_av, const void* p_payload_av, uint32_t ui_size_av,
                   uint8_t* pb_out_av, uint32_t ui_version_av) {
  PutU32(pb_out_av, REC_MAGIC);
  PutU32(pb_out_av + 4, ui_size_av);
  PutU64(pb_out_av + 8, static_cast<uint64_t>(i64_time_av));
  pb_out_av[16] = ui_type_av;
  pb_out_av[17] = pb_out_av[18] = pb_out_av[19] = 0;
  uint32_t ui_head_crc_lv = FormatChecksum(ui_version_av, pb_out_av, 20);
  PutU32(pb_out_av + 20, FormatChecksum(ui_version_av, p_payload_av, ui_size_av, ui_head_crc_lv));
}

bool operator==(const IndexEntry& a_av, const IndexEntry& b_av) {
  return a_av.m_i64_time == b_av.m_i64_time && a_av.m_ui64_offset == b_av.m_ui64_offset &&
         a_av.m_ui_size == b_av.m_ui_size && a_av.m_ui_number == b_av.m_ui_number && a_av.m_ui_type == b_av.m_ui_type;
}

void EncodeIndexEntry(const IndexEntry& entry_av, uint8_t* pb_out_av, uint32_t ui_version_av) {
  PutU64(pb_out_av, static_cast<uint64_t>(entry_av.m_i64_time));
  PutU64(pb_out_av + 8, entry_av.m_ui64_offset);
  PutU32(pb_out_av + 16, entry_av.m_ui_size);
  PutU32(pb_out_av + 20, entry_av.m_ui_number);
  pb_out_av[24] = entry_av.m_ui_type;
  pb_out_av[25] = pb_out_av[26] = pb_out_av[27] = 0;
  PutU32(pb_out_av + 28, FormatChecksum(ui_version_av, pb_out_av, 28));
}

bool DecodeIndexEntry(const uint8_t* pb_av, IndexEntry* p_out_av, uint32_t ui_version_av) {
  if (GetU32(pb_av + 28) != FormatChecksum(ui_version_av, pb_av, 28)) return false;
  p_out_av->m_i64_time = static_cast<int64_t>(GetU64(pb_av));
  p_out_av->m_ui64_offset = GetU64(pb_av + 8);
  p_out_av->m_ui_size = GetU32(pb_av + 16);
  p_out_av->m_ui_number = GetU32(pb_av + 20);
  p_out_av->m_ui_type = pb_av[24];
  return true;
}

uint32_t BlockFrameNumber(const void* p_block_av, uint32_t ui_size_av) {
  const uint8_t* pb_lv = static_cast<const uint8_t*>(p_block_av);
  if (ui_size_av < 32) return 0;
  uint32_t ui_head_lv = GetU32(pb_lv);
  uint32_t ui_kind_lv = GetU32(pb_lv + 4);
  bool b_known_lv = (ui_head_lv == 48 && ui_kind_lv == 6) || (ui_head_lv == 32 && ui_kind_lv == 7);
  if (!b_known_lv || ui_head_lv > ui_size_av) return 0;
  return GetU32(pb_lv + 20);
}

bool ScanSegment(const std::string& s_path_av, SegScan* p_out_av, FrameFn p_frame_av, void* p_user_av) {
  *p_out_av = SegScan();
  FileCloser file_lv{fopen(s_path_av.c_str(), "rb")};
  if (file_lv.m_p_file == nullptr) return false;
  fseeko(file_lv.m_p_file, 0, SEEK_END);
  p_out_av->m_ui64_file_size = static_cast<uint64_t>(ftello(file_lv.m_p_file));
  fseeko(file_lv.m_p_file, 0, SEEK_SET);
  uint8_t pb_head_lv[SEG_HEAD_SIZE];
  if (fread(pb_head_lv, 1, SEG_HEAD_SIZE, file_lv.m_p_file) != SEG_HEAD_SIZE) {
    p_out_av->m_s_tail_reason = "segment head cut short";
    return true;
  }
  if (!DecodeSegHead(pb_head_lv, &p_out_av->m_head)) {
    p_out_av->m_s_tail_reason = "segment head damaged";
    return true;
  }
  p_out_av->m_b_head_ok = true;
  uint64_t ui64_pos_lv = SEG_HEAD_SIZE;
  p_out_av->m_ui64_valid_end = ui64_pos_lv;
  std::vector<uint8_t> payload_lv;
  for (;;) {
    uint8_t pb_rec_lv[REC_HEAD_SIZE];
    size_t ui_got_lv = fread(pb_rec_lv, 1, REC_HEAD_SIZE, file_lv.m_p_file);
    if (ui_got_lv == 0) break;
    if (ui_got_lv != REC_HEAD_SIZE) {
      p_out_av->m_s_tail_reason = "record head cut short";
      break;
    }
    uint32_t ui_size_lv = GetU32(pb_rec_lv + 4);
    if (GetU32(pb_rec_lv) != REC_MAGIC || ui_size_lv > MAX_RECORD_PAYLOAD) {
      p_out_av->m_s_tail_reason = "record head damaged";
      break;
    }
    if (ui64_pos_lv + REC_HEAD_SIZE + ui_size_lv > p_out_av->m_ui64_file_size) {
      p_out_av->m_s_tail_reason = "record cut short";
      break;
    }
    payload_lv.resize(ui_size_lv);
    if (ui_size_lv > 0 && fread(payload_lv.data(), 1, ui_size_lv, file_lv.m_p_file) != ui_size_lv) {
      p_out_av->m_s_tail_reason = "record cut short";
      break;
    }
    uint32_t ui_version_lv = p_out_av->m_head.m_ui_version;
    uint32_t ui_head_crc_lv = FormatChecksum(ui_version_lv, pb_rec_lv, 20);
    if (GetU32(pb_rec_lv + 20) != FormatChecksum(ui_version_lv, payload_lv.data(), ui_size_lv, ui_head_crc_lv)) {
      p_out_av->m_s_tail_reason = "record checksum wrong";
      break;
    }
    IndexEntry entry_lv;
    entry_lv.m_i64_time = static_cast<int64_t>(GetU64(pb_rec_lv + 8));
    entry_lv.m_ui64_offset = ui64_pos_lv;
    entry_lv.m_ui_size = ui_size_lv;
    entry_lv.m_ui_number = BlockFrameNumber(payload_lv.data(), ui_size_lv);
    entry_lv.m_ui_type = pb_rec_lv[16];
    p_out_av->m_entries.push_back(entry_lv);
    if (p_frame_av != nullptr) p_frame_av(p_user_av, entry_lv, payload_lv.data());
    ui64_pos_lv += REC_HEAD_SIZE + ui_size_lv;
    p_out_av->m_ui64_valid_end = ui64_pos_lv;
  }
  return true;
}

bool ReadSegHead(const std::string& s_path_av, SegHead* p_out_av) {
  FileCloser file_lv{fopen(s_path_av.c_str(), "rb")};
  uint8_t pb_head_lv[SEG_HEAD_SIZE];
  return file_lv.m_p_file != nullptr && fread(pb_head_lv, 1, SEG_HEAD_SIZE, file_lv.m_p_file) == SEG_HEAD_SIZE &&
         DecodeSegHead(pb_head_lv, p_out_av);
}

bool ReadIndex(const std::string& s_path_av, uint32_t ui_version_av, std::vector<IndexEntry>* p_out_av,
               uint64_t* p_file_size_av) {
  p_out_av->clear();
  *p_file_size_av = 0;
  FileCloser file_lv{fopen(s_path_av.c_str(), "rb")};
  if (file_lv.m_p_file == nullptr) return false;
  uint8_t pb_lv[IDX_ENTRY_SIZE];
  size_t ui_got_lv;
  bool b_bad_lv = false;
  while ((ui_got_lv = fread(pb_lv, 1, IDX_ENTRY_SIZE, file_lv.m_p_file)) > 0) {
    *p_file_size_av += ui_got_lv;
    IndexEntry entry_lv;
    if (b_bad_lv || ui_got_lv != IDX_ENTRY_SIZE || !DecodeIndexEntry(pb_lv, &entry_lv, ui_version_av)) {
      b_bad_lv = true;
      continue;
    }
    p_out_av->push_back(entry_lv);
  }
  return true;
}

namespace {

bool WriteIndexFile(const std::string& s_path_av, uint32_t ui_version_av, const std::vector<IndexEntry>& entries_av) {
  std::string s_tmp_lv = s_path_av + ".tmp";
  FILE* p_file_lv = fopen(s_tmp_lv.c_str(), "wb");
  if (p_file_lv == nullptr) return false;
  bool b_ok_lv = true;
  for (const IndexEntry& entry_lv : entries_av) {
    uint8_t pb_lv[IDX_ENTRY_SIZE];
    EncodeIndexEntry(entry_lv, pb_lv, ui_version_av);
    if (fwrite(pb_lv, 1, IDX_ENTRY_SIZE, p_file_lv) != IDX_ENTRY_SIZE) b_ok_lv = false;
  }
  if (fclose(p_file_lv) != 0) b_ok_lv = false;
  // The rename makes the swap atomic: a crash leaves the old or the new index.
  return b_ok_lv && rename(s_tmp_lv.c_str(), s_path_av.c_str()) == 0;
}

}  // namespace

bool RepairSegment(const std::string& s_seg_av, const std::string& s_idx_av, RepairReport* p_out_av) {
  *p_out_av = RepairReport();
  SegScan scan_lv;
  if (!ScanSegment(s_seg_av, &scan_lv)) return false;
  if (!scan_lv.m_b_head_ok) {
    // A segment cut inside its head never held a frame.
    p_out_av->m_b_removed = true;
    p_out_av->m_ui64_bytes_cut = scan_lv.m_ui64_file_size;
    unlink(s_idx_av.c_str());
    return unlink(s_seg_av.c_str()) == 0;
  }
  if (scan_lv.m_ui64_valid_end < scan_lv.m_ui64_file_size) {
    p_out_av->m_ui64_bytes_cut = scan_lv.m_ui64_file_size - scan_lv.m_ui64_valid_end;
    if (truncate(s_seg_av.c_str(), static_cast<off_t>(scan_lv.m_ui64_valid_end)) != 0) return false;
  }
  p_out_av->m_ui_frames = scan_lv.m_entries.size();
  std::vector<IndexEntry> index_lv;
  uint64_t ui64_idx_size_lv = 0;
  uint32_t ui_version_lv = scan_lv.m_head.m_ui_version;
  bool b_have_lv = ReadIndex(s_idx_av, ui_version_lv, &index_lv, &ui64_idx_size_lv);
  bool b_same_lv = b_have_lv && index_lv == scan_lv.m_entries &&
                   ui64_idx_size_lv == index_lv.size() * static_cast<uint64_t>(IDX_ENTRY_SIZE);
  if (b_same_lv) return true;
  p_out_av->m_b_index_rebuilt = true;
  return WriteIndexFile(s_idx_av, ui_version_lv, scan_lv.m_entries);
}

std::string SegmentFileName(uint32_t ui_seq_av) {
  char s_lv[32];
  snprintf(s_lv, sizeof(s_lv), "%08u.wseg", ui_seq_av);
  return s_lv;
}

std::string IndexFileName(uint32_t ui_seq_av) {
  char s_lv[32];
  snprintf(s_lv, sizeof(s_lv), "%08u.widx", ui_seq_av);
  return s_lv;
}

std::vector<uint32_t> ListSegments(const std::string& s_dir_av) {
  std::vector<uint32_t> seqs_lv;
  DIR* p_dir_lv = opendir(s_dir_av.c_str());
  if (p_dir_lv == nullptr) return seqs_lv;
  while (dirent* p_ent_lv = readdir(p_dir_lv)) {
    const char* s_name_lv = p_ent_lv->d_name;
    size_t ui_len_lv = strlen(s_name_lv);
    if (ui_len_lv != 13 || strcmp(s_name_lv + 8, ".wseg") != 0) continue;
    if (strspn(s_name_lv, "0123456789") != 8) continue;
    seqs_lv.push_back(static_cast<uint32_t>(strtoul(s_name_lv, nullptr, 10)));
  }
  closedir(p_dir_lv);
  std::sort(seqs_lv.begin(), seqs_lv.end());
  return seqs_lv;
}

std::string CameraFolderName(const char* const* pp_keys_av, const int32_t* pi_sizes_av, int i_count_av) {
  const size_t MAX_NAME = 96;
  std::string s_raw_lv;
  std::string s_name_lv;
  bool b_changed_lv = false;
  for (int i_lv = 0; i_lv < i_count_av; i_lv++) {
    s_raw_lv += '$';
    const char* s_key_lv = pp_keys_av[i_lv];
    if (s_key_lv == nullptr || pi_sizes_av[i_lv] <= 0) continue;
    // The size counts the terminator; never read past it nor past a zero.
    size_t ui_len_lv = strnlen(s_key_lv, static_cast<size_t>(pi_sizes_av[i_lv]));
    if (ui_len_lv == 0) continue;
    s_raw_lv.append(s_key_lv, ui_len_lv);
    if (!s_name_lv.empty()) s_name_lv += '_';
    for (size_t ui_lv = 0; ui_lv < ui_len_lv; ui_lv++) {
      char c_lv = s_key_lv[ui_lv];
      bool b_safe_lv = (c_lv >= 'a' && c_lv <= 'z') || (c_lv >= 'A' && c_lv <= 'Z') || (c_lv >= '0' && c_lv <= '9') ||
                       c_lv == '-' || c_lv == '.' || c_lv == '_';
      if (!b_safe_lv) b_changed_lv = true;
      s_name_lv += b_safe_lv ? c_lv : '_';
    }
  }
  if (s_name_lv.empty()) {
    s_name_lv = "camera";
    b_changed_lv = true;
  }
  if (s_name_lv[0] == '.') {
    s_name_lv[0] = '_';
    b_changed_lv = true;
  }
  if (s_name_lv.size() > MAX_NAME) {
    s_name_lv.resize(MAX_NAME);
    b_changed_lv = true;
  }
  if (b_changed_lv) {
    char s_digest_lv[16];
    snprintf(s_digest_lv, sizeof(s_digest_lv), "~%08x", Crc32(s_raw_lv.data(), s_raw_lv.size()));
    s_name_lv += s_digest_lv;
  }
  return s_name_lv;
}

std::string TimeText(int64_t i64_ticks_av) {
  PlCalendar cal_lv;
  if (i64_ticks_av < 0 || !PlFileTimeToCalendar(static_cast<uint64_t>(i64_ticks_av), &cal_lv)) return "?";
  char s_lv[64];
  snprintf(s_lv, sizeof(s_lv), "%04d.%02d.%02d %02d:%02d:%02d:%03d", cal_lv.i_year, cal_lv.i_month, cal_lv.i_day,
           cal_lv.i_hour, cal_lv.i_minute, cal_lv.i_second, cal_lv.i_millisecond);
  return s_lv;
}

}  // namespace warc
