// The H.264 file source (see srv_media.h): the file read a piece at a time
// and cut into access units as they are sent.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "host/server/srv_media.h"

namespace {

// A unit larger than this is damage, not a picture: the source stops
// rather than read the rest of the file into memory.
const size_t MAX_UNIT_BYTES = 64u << 20;

// Appends one piece; false at the end of the file or on an error. What was
// given already goes first: only the unit being cut (less than a piece, as
// a rule) moves to the front.
bool ReadPiece(SrvH264File* p_av) {
  size_t ui_left_lv = p_av->m_ui_size - p_av->m_ui_pos;
  if (p_av->m_ui_pos > 0) {
    memmove(p_av->m_p_buf.get(), p_av->m_p_buf.get() + p_av->m_ui_pos, ui_left_lv);
    p_av->m_ui_size = ui_left_lv;
    p_av->m_ui_pos = 0;
  }
  if (p_av->m_ui_cap < ui_left_lv + p_av->m_ui_chunk) {
    size_t ui_cap_lv = std::max(2 * p_av->m_ui_cap, ui_left_lv + p_av->m_ui_chunk);
    std::unique_ptr<uint8_t[]> p_new_lv(new uint8_t[ui_cap_lv]);
    if (ui_left_lv > 0) memcpy(p_new_lv.get(), p_av->m_p_buf.get(), ui_left_lv);
    p_av->m_p_buf = std::move(p_new_lv);
    p_av->m_ui_cap = ui_cap_lv;
  }
  size_t ui_got_lv = fread(p_av->m_p_buf.get() + p_av->m_ui_size, 1, p_av->m_ui_chunk, p_av->m_p_file);
  p_av->m_ui_size += ui_got_lv;
  if (ui_got_lv == 0 && ferror(p_av->m_p_file)) p_av->m_s_error = p_av->m_s_path + ": read error";
  return ui_got_lv > 0;
}

bool Rewind(SrvH264File* p_av) {
  p_av->m_ui_size = 0;
  p_av->m_ui_pos = 0;
  p_av->m_b_eof = false;
  return fseek(p_av->m_p_file, 0, SEEK_SET) == 0;
}

// The next unit's place in the buffer; false at the end of the file.
bool CutNext(SrvH264File* p_av, SrvAccessUnit* p_unit_av) {
  for (;;) {
    const uint8_t* pb_lv = p_av->m_p_buf.get() + p_av->m_ui_pos;
    size_t ui_left_lv = p_av->m_ui_size - p_av->m_ui_pos;
    if (SrvCutFirstUnit(pb_lv, ui_left_lv, p_av->m_b_eof, p_unit_av)) return true;
    if (p_av->m_b_eof) return false;
    if (ui_left_lv > MAX_UNIT_BYTES) {
      p_av->m_s_error = p_av->m_s_path + ": no picture boundary in 64 MiB (damaged file?)";
      return false;
    }
    if (!ReadPiece(p_av)) {
      if (!p_av->m_s_error.empty()) return false;
      p_av->m_b_eof = true;
    }
  }
}

}  // namespace

bool SrvH264FileOpen(SrvH264File* p_av, const SrvSourceConfig& cfg_av, bool b_loop_av, std::string* p_error_av) {
  p_av->m_s_path = cfg_av.m_s_file;
  p_av->m_p_file = fopen(cfg_av.m_s_file.c_str(), "rb");
  if (p_av->m_p_file == nullptr) return *p_error_av = cfg_av.m_s_file + ": cannot be read", false;
  p_av->m_b_loop = b_loop_av;
  // The set-up (the first SPS, a picture) is read from the file's head.
  const size_t HEAD_BYTES = 64 << 10;
  while (p_av->m_ui_size < HEAD_BYTES && !p_av->m_b_eof) p_av->m_b_eof = !ReadPiece(p_av);
  if (!p_av->m_s_error.empty()) return *p_error_av = p_av->m_s_error, false;
  if (SrvSplitAccessUnits(p_av->m_p_buf.get(), p_av->m_ui_size).empty())
    return *p_error_av = cfg_av.m_s_file + ": no H.264 picture in it", false;
  if (!SrvReadSps(p_av->m_p_buf.get(), p_av->m_ui_size, &p_av->m_sps)) {
    p_av->m_sps.m_i_width = cfg_av.m_i_width;
    p_av->m_sps.m_i_height = cfg_av.m_i_height;
  }
  p_av->m_d_fps = cfg_av.m_d_fps > 0 ? cfg_av.m_d_fps : p_av->m_sps.m_d_fps > 0 ? p_av->m_sps.m_d_fps : 25;
  return true;
}

bool SrvH264FileNext(SrvH264File* p_av, SrvMediaFrame* p_out_av) {
  if (p_av->m_p_file == nullptr) return false;
  SrvAccessUnit unit_lv;
  if (!CutNext(p_av, &unit_lv)) {
    // A loop starts over only from a clean end, and only once per frame
    // given, so that a file with no picture cannot spin.
    if (!p_av->m_b_loop || !p_av->m_s_error.empty() || p_av->m_i64_n == 0 || !Rewind(p_av) || !CutNext(p_av, &unit_lv))
      return false;
  }
  *p_out_av = SrvMediaFrame();
  p_out_av->m_pb_data = p_av->m_p_buf.get() + p_av->m_ui_pos;
  p_out_av->m_ui_size = static_cast<uint32_t>(unit_lv.m_ui_size);
  p_av->m_ui_pos += unit_lv.m_ui_size;
  p_out_av->m_i_key = unit_lv.m_b_key ? 1 : 0;
  p_out_av->m_i_width = p_av->m_sps.m_i_width;
  p_out_av->m_i_height = p_av->m_sps.m_i_height;
  p_out_av->m_ui_fcc = SrvFcc("H264");
  p_out_av->m_i64_index = p_av->m_i64_n;
  p_out_av->m_i64_offset_us = std::llround(static_cast<double>(p_av->m_i64_n) * 1e6 / p_av->m_d_fps);
  p_av->m_i64_n++;
  return true;
}

void SrvH264FileClose(SrvH264File* p_av) {
  if (p_av->m_p_file != nullptr) fclose(p_av->m_p_file);
  p_av->m_p_file = nullptr;
  p_av->m_p_buf.reset();
  p_av->m_ui_cap = p_av->m_ui_size = p_av->m_ui_pos = 0;
}
