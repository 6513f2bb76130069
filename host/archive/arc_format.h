// The archive's on-disk format (FORMAT.md): segment files of checksummed
// frame records, their index files, and the repair of a damaged tail. Shared
// by the library that writes (libwarchive.so) and the reading code of the
// writer-archive tool, so that both agree on every byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/archive/arc_crc.h"

namespace warc {

const char SEG_MAGIC[9] = "WARCSEG1";
// Version 1 checksums with CRC-32; version 2, the one written, with CRC-32C.
// Both are read.
const uint32_t FORMAT_VERSION_1 = 1;
const uint32_t FORMAT_VERSION = 2;
const uint32_t SEG_HEAD_SIZE = 32;
const uint32_t REC_MAGIC = 0x31524657u;  // "WFR1" read as little-endian
const uint32_t REC_HEAD_SIZE = 24;
const uint32_t IDX_ENTRY_SIZE = 32;
// A record longer than this is taken for damage, never for a frame.
const uint32_t MAX_RECORD_PAYLOAD = 256u * 1024u * 1024u;

const uint32_t KIND_VIDEO = 1;
const uint32_t KIND_AUDIO = 2;

// Frame type byte: key frame and audio marker.
const uint8_t TYPE_KEY = 2;
inline bool TypeIsAudio(uint32_t ui_type_av) { return (ui_type_av & 192u) == 64u; }
inline const char* KindName(uint32_t ui_kind_av) { return ui_kind_av == KIND_AUDIO ? "audio" : "video"; }

// The checksum of a file of the given version.
uint32_t FormatChecksum(uint32_t ui_version_av, const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av = 0);

void PutU32(uint8_t* pb_av, uint32_t ui_av);
void PutU64(uint8_t* pb_av, uint64_t ui64_av);
uint32_t GetU32(const uint8_t* pb_av);
uint64_t GetU64(const uint8_t* pb_av);
uint16_t GetU16(const uint8_t* pb_av);

struct SegHead {
  uint32_t m_ui_kind;
  int64_t m_i64_created;
  uint32_t m_ui_seq;
  uint32_t m_ui_version = FORMAT_VERSION;  // decides every checksum of the segment and its index
};
void EncodeSegHead(const SegHead& head_av, uint8_t* pb_out_av);
bool DecodeSegHead(const uint8_t* pb_av, SegHead* p_out_av);
// Reads and decodes the head of a segment file; false when it has none.
bool ReadSegHead(const std::string& s_path_av, SegHead* p_out_av);

// Head of one frame record; the checksum covers the head's first 20 bytes and
// the payload.
void EncodeRecHead(int64_t i64_time_av, uint8_t ui_type_av, const void* p_payload_av, uint32_t ui_size_av,
                   uint8_t* pb_out_av, uint32_t ui_version_av = FORMAT_VERSION);

// One frame as the index and the readers see it.
struct IndexEntry {
  int64_t m_i64_time;
  uint64_t m_ui64_offset;  // of the record head in its segment
  uint32_t m_ui_size;      // payload (frame block) bytes
  uint32_t m_ui_number;    // frame number of the block head, 0 if none
  uint8_t m_ui_type;
};
bool operator==(const IndexEntry& a_av, const IndexEntry& b_av);
void EncodeIndexEntry(const IndexEntry& entry_av, uint8_t* pb_out_av, uint32_t ui_version_av = FORMAT_VERSION);
bool DecodeIndexEntry(const uint8_t* pb_av, IndexEntry* p_out_av, uint32_t ui_version_av);

// Frame number at offset 20 of a frame block with a recognised head, else 0.
uint32_t BlockFrameNumber(const void* p_block_av, uint32_t ui_size_av);

// Result of reading a segment from its start.
struct SegScan {
  bool m_b_head_ok = false;
  SegHead m_head{};
  uint64_t m_ui64_file_size = 0;
  uint64_t m_ui64_valid_end = 0;  // end of the last good record
  std::string m_s_tail_reason;    // why reading stopped before the end
  std::vector<IndexEntry> m_entries;
};
// Reads every record; with p_frame_av, calls it for each good record with
// its payload. Returns false when the file cannot be opened.
typedef void (*FrameFn)(void* p_user_av, const IndexEntry& entry_av, const uint8_t* pb_payload_av);
bool ScanSegment(const std::string& s_path_av, SegScan* p_out_av, FrameFn p_frame_av = nullptr,
                 void* p_user_av = nullptr);

// Reads the good entries of an index file of a segment of the given
// version, stopping at the first bad one.
bool ReadIndex(const std::string& s_path_av, uint32_t ui_version_av, std::vector<IndexEntry>* p_out_av,
               uint64_t* p_file_size_av);

struct RepairReport {
  bool m_b_removed = false;       // nothing usable: the files were deleted
  uint64_t m_ui64_bytes_cut = 0;  // damaged tail cut from the segment
  bool m_b_index_rebuilt = false;
  size_t m_ui_frames = 0;
};
// Cuts a damaged tail from a segment and makes its index agree with it.
// Returns false on an I/O failure.
bool RepairSegment(const std::string& s_seg_av, const std::string& s_idx_av, RepairReport* p_out_av);

std::string SegmentFileName(uint32_t ui_seq_av);
std::string IndexFileName(uint32_t ui_seq_av);
// Sequence numbers of the segments in a folder, ascending.
std::vector<uint32_t> ListSegments(const std::string& s_dir_av);

// The folder name of a camera from its arc keys: safe characters only, and a
// short digest of the keys when anything had to be changed, so that two
// cameras never share a folder.
std::string CameraFolderName(const char* const* pp_keys_av, const int32_t* pi_sizes_av, int i_count_av);

// Local file time as "YYYY.MM.DD HH:MM:SS:mmm".
std::string TimeText(int64_t i64_ticks_av);

}  // namespace warc
