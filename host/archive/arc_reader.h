// Reading what the archive library stored: finding streams, reading their
// frames in order, summaries, checks, frame blocks and H.264 byte streams.
// Used by the writer-archive tool and by the tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/archive/arc_format.h"

namespace warc {

// One camera's video or audio in one storage.
struct StreamRef {
  std::string m_s_dir;     // the kind folder
  std::string m_s_camera;  // camera folder, relative to the searched root
  std::string m_s_kind;    // "video" or "audio"
  std::vector<uint32_t> m_segs;
};

// Every stream under root (a storage folder or a folder of storages), in
// name order.
std::vector<StreamRef> FindStreams(const std::string& s_root_av);

// Calls fn for each frame with from <= time <= to, in stored order. False
// (with a reason) when a segment cannot be opened; a damaged tail just ends
// that segment's frames.
typedef std::function<void(const IndexEntry&, uint32_t ui_seq_av, const uint8_t* pb_block_av)> StoredFrameFn;
bool ReadFrames(const StreamRef& stream_av, int64_t i64_from_av, int64_t i64_to_av, const StoredFrameFn& fn_av,
                std::string* s_error_av);

struct StreamSummary {
  size_t m_ui_segments = 0;
  uint64_t m_ui64_frames = 0;
  uint64_t m_ui64_key_frames = 0;
  uint64_t m_ui64_bytes = 0;
  int64_t m_i64_first = 0;
  int64_t m_i64_last = 0;
  std::vector<std::pair<int64_t, int64_t>> m_gaps;  // pauses longer than the gap bound
  size_t m_ui_damaged_segments = 0;
};
StreamSummary SummariseStream(const StreamRef& stream_av, int64_t i64_gap_ticks_av);

// Frames and key frames of a stream, from the indexes where they cover
// their segments, so that a count does not read and check every record.
struct StreamCount {
  uint64_t m_ui64_frames = 0;
  uint64_t m_ui64_key_frames = 0;
};
StreamCount CountStream(const StreamRef& stream_av);

struct VerifyReport {
  uint64_t m_ui64_frames = 0;
  int m_i_errors = 0;
  int m_i_warnings = 0;
  std::vector<std::string> m_lines;
};
// Checks every record, the index, times and frame numbers. With repair, cuts
// damaged tails and rebuilds indexes first (as the library does at open).
VerifyReport VerifyStream(const StreamRef& stream_av, bool b_repair_av);

// A frame block as the plug-in builds it: head, then sections.
struct BlockSection {
  uint32_t m_ui_type;
  const uint8_t* m_pb_data;
  uint32_t m_ui_len;
};
struct BlockInfo {
  uint32_t m_ui_head_len = 0;
  uint32_t m_ui_kind = 0;
  int64_t m_i64_time = 0;
  uint32_t m_ui_number = 0;
  uint16_t m_ui_codec = 0;
  uint16_t m_ui_height = 0;
  uint16_t m_ui_width = 0;
  char m_s_fcc[5] = {0, 0, 0, 0, 0};
  std::vector<BlockSection> m_sections;
  const BlockSection* Find(uint32_t ui_type_av) const;
};
bool ParseFrameBlock(const uint8_t* pb_av, uint32_t ui_size_av, BlockInfo* p_out_av, std::string* s_why_av);
bool BlockIsH264(const BlockInfo& info_av);

// Appends H.264 data as an Annex-B byte stream: start-code data is copied,
// 4-byte length-prefixed units are converted, and with b_config_av (the
// "extra" section of a key frame) an avcC record too.
void AppendAnnexB(const uint8_t* pb_av, uint32_t ui_len_av, std::string* p_out_av, bool b_config_av = false);

// "YYYY.MM.DD HH:MM:SS[:mmm]" (local) or a number of ticks. False when neither.
bool ParseTimeArg(const std::string& s_text_av, int64_t* p_out_av);

}  // namespace warc
