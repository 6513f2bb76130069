// Access units and the sequence parameter set of H.264 Annex-B streams (see
// srv_h264.h). Called by the file source when it loads its file.
#include "host/server/srv_h264.h"

#include <cstring>

namespace {

// NAL unit type of the unit whose header byte is at pb_av.
int NalType(uint8_t ui_header_av) { return ui_header_av & 0x1F; }

// Position of the next 00 00 01 at or after from, or size. The 01 is looked
// for with memchr, which goes through a picture a vector at a time: a byte
// loop over every byte of every frame was a tenth of writer-host's CPU when
// it records a file as fast as it goes.
size_t FindStartCode(const uint8_t* pb_av, size_t ui_size_av, size_t ui_from_av) {
  for (size_t ui_one_lv = ui_from_av + 2; ui_one_lv < ui_size_av; ui_one_lv++) {
    const void* p_lv = memchr(pb_av + ui_one_lv, 1, ui_size_av - ui_one_lv);
    if (p_lv == nullptr) break;
    ui_one_lv = static_cast<size_t>(static_cast<const uint8_t*>(p_lv) - pb_av);
    if (pb_av[ui_one_lv - 1] == 0 && pb_av[ui_one_lv - 2] == 0) return ui_one_lv - 2;
  }
  return ui_size_av;
}

struct Nal {
  size_t m_ui_begin;   // first byte of its start code (the zero byte of a 4-byte one included)
  size_t m_ui_header;  // its header byte
};

std::vector<Nal> FindNals(const uint8_t* pb_av, size_t ui_size_av) {
  std::vector<Nal> nals_lv;
  for (size_t ui_at_lv = FindStartCode(pb_av, ui_size_av, 0); ui_at_lv < ui_size_av;
       ui_at_lv = FindStartCode(pb_av, ui_size_av, ui_at_lv + 3)) {
    if (ui_at_lv + 3 >= ui_size_av) break;
    size_t ui_begin_lv = ui_at_lv > 0 && pb_av[ui_at_lv - 1] == 0 ? ui_at_lv - 1 : ui_at_lv;
    nals_lv.push_back(Nal{ui_begin_lv, ui_at_lv + 3});
  }
  return nals_lv;
}

// A unit that opens a new access unit when a picture has been seen already:
// delimiter, SEI, parameter sets, the reserved 14..18, or the first slice
// of a picture (first_mb_in_slice 0, whose ue(v) code is the single bit 1).
bool OpensUnit(const uint8_t* pb_av, size_t ui_size_av, const Nal& nal_av) {
  int i_type_lv = NalType(pb_av[nal_av.m_ui_header]);
  if (i_type_lv == 6 || i_type_lv == 7 || i_type_lv == 8 || i_type_lv == 9 || (i_type_lv >= 14 && i_type_lv <= 18))
    return true;
  if (i_type_lv == 1 || i_type_lv == 5)
    return nal_av.m_ui_header + 1 < ui_size_av && (pb_av[nal_av.m_ui_header + 1] & 0x80) != 0;
  return false;
}

bool IsPicture(int i_type_av) { return i_type_av >= 1 && i_type_av <= 5; }

}  // namespace

std::vector<SrvAccessUnit> SrvSplitAccessUnits(const uint8_t* pb_av, size_t ui_size_av) {
  std::vector<SrvAccessUnit> units_lv;
  std::vector<Nal> nals_lv = FindNals(pb_av, ui_size_av);
  SrvAccessUnit cur_lv;
  bool b_picture_lv = false;
  for (const Nal& nal_lv : nals_lv) {
    int i_type_lv = NalType(pb_av[nal_lv.m_ui_header]);
    if (b_picture_lv && OpensUnit(pb_av, ui_size_av, nal_lv)) {
      cur_lv.m_ui_size = nal_lv.m_ui_begin - cur_lv.m_ui_offset;
      units_lv.push_back(cur_lv);
      cur_lv = SrvAccessUnit();
      cur_lv.m_ui_offset = nal_lv.m_ui_begin;
      b_picture_lv = false;
    }
    b_picture_lv = b_picture_lv || IsPicture(i_type_lv);
    cur_lv.m_b_key = cur_lv.m_b_key || i_type_lv == 5;
    cur_lv.m_b_has_sps = cur_lv.m_b_has_sps || i_type_lv == 7;
  }
  if (b_picture_lv) {
    cur_lv.m_ui_size = ui_size_av - cur_lv.m_ui_offset;
    units_lv.push_back(cur_lv);
  } else if (!units_lv.empty()) {
    // Units after the last picture stay with it, so that nothing is lost.
    units_lv.back().m_ui_size = ui_size_av - units_lv.back().m_ui_offset;
  }
  return units_lv;
}

bool SrvCutFirstUnit(const uint8_t* pb_av, size_t ui_size_av, bool b_end_av, SrvAccessUnit* p_out_av) {
  // Without the end, a unit whose header lies this near the edge may not be
  // whole yet: its start code or first slice byte could be cut.
  const size_t EDGE = 8;
  *p_out_av = SrvAccessUnit();
  bool b_picture_lv = false;
  for (size_t ui_at_lv = FindStartCode(pb_av, ui_size_av, 0); ui_at_lv + 3 < ui_size_av;
       ui_at_lv = FindStartCode(pb_av, ui_size_av, ui_at_lv + 3)) {
    if (!b_end_av && ui_at_lv + EDGE >= ui_size_av) return false;
    Nal nal_lv{ui_at_lv > 0 && pb_av[ui_at_lv - 1] == 0 ? ui_at_lv - 1 : ui_at_lv, ui_at_lv + 3};
    int i_type_lv = NalType(pb_av[nal_lv.m_ui_header]);
    if (b_picture_lv && OpensUnit(pb_av, ui_size_av, nal_lv)) {
      p_out_av->m_ui_size = nal_lv.m_ui_begin;
      return true;
    }
    b_picture_lv = b_picture_lv || IsPicture(i_type_lv);
    p_out_av->m_b_key = p_out_av->m_b_key || i_type_lv == 5;
    p_out_av->m_b_has_sps = p_out_av->m_b_has_sps || i_type_lv == 7;
  }
  if (!b_end_av || !b_picture_lv) return false;
  p_out_av->m_ui_size = ui_size_av;
  return true;
}

namespace {

// Reads the bits of a NAL payload with the emulation prevention bytes
// (00 00 03) taken out. Reading past the end gives zeros and sets bad.
class BitReader {
 public:
  BitReader(const uint8_t* pb_av, size_t ui_size_av) {
    int i_zeros_lv = 0;
    for (size_t ui_lv = 0; ui_lv < ui_size_av; ui_lv++) {
      if (i_zeros_lv >= 2 && pb_av[ui_lv] == 3) {
        i_zeros_lv = 0;
        continue;
      }
      i_zeros_lv = pb_av[ui_lv] == 0 ? i_zeros_lv + 1 : 0;
      m_bytes.push_back(pb_av[ui_lv]);
    }
  }
  uint32_t Bits(int i_n_av) {
    uint32_t ui_lv = 0;
    for (int i_lv = 0; i_lv < i_n_av; i_lv++) ui_lv = ui_lv << 1 | Bit();
    return ui_lv;
  }
  uint32_t Ue() {
    int i_zeros_lv = 0;
    while (Bit() == 0 && !m_b_bad) {
      if (++i_zeros_lv > 31) return m_b_bad = true, 0;
    }
    return (1u << i_zeros_lv) - 1 + Bits(i_zeros_lv);
  }
  int32_t Se() {
    uint32_t ui_lv = Ue();
    return (ui_lv & 1) ? static_cast<int32_t>((ui_lv + 1) / 2) : -static_cast<int32_t>(ui_lv / 2);
  }
  bool m_b_bad = false;

 private:
  uint32_t Bit() {
    if (m_ui_pos >= m_bytes.size() * 8) return m_b_bad = true, 0;
    uint32_t ui_lv = (m_bytes[m_ui_pos / 8] >> (7 - m_ui_pos % 8)) & 1;
    m_ui_pos++;
    return ui_lv;
  }
  std::vector<uint8_t> m_bytes;
  size_t m_ui_pos = 0;
};

void SkipScalingLists(BitReader* p_av, int i_count_av) {
  for (int i_lv = 0; i_lv < i_count_av; i_lv++) {
    if (!p_av->Bits(1)) continue;
    int i_size_lv = i_lv < 6 ? 16 : 64, i_last_lv = 8, i_next_lv = 8;
    for (int i_j_lv = 0; i_j_lv < i_size_lv && i_next_lv != 0; i_j_lv++) {
      i_next_lv = (i_last_lv + p_av->Se() + 256) % 256;
      if (i_next_lv != 0) i_last_lv = i_next_lv;
    }
  }
}

// Profile part of the SPS up to the frame number size; gives chroma format.
uint32_t ReadProfilePart(BitReader* p_av) {
  uint32_t ui_profile_lv = p_av->Bits(8);
  p_av->Bits(16);  // constraint flags, level
  p_av->Ue();      // seq_parameter_set_id
  uint32_t ui_chroma_lv = 1;
  static const uint32_t HIGH[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
  for (uint32_t ui_lv : HIGH) {
    if (ui_lv != ui_profile_lv) continue;
    ui_chroma_lv = p_av->Ue();
    if (ui_chroma_lv == 3) p_av->Bits(1);
    p_av->Ue();
    p_av->Ue();
    p_av->Bits(1);
    if (p_av->Bits(1)) SkipScalingLists(p_av, ui_chroma_lv == 3 ? 12 : 8);
  }
  return ui_chroma_lv;
}

void SkipOrderPart(BitReader* p_av) {
  p_av->Ue();  // log2_max_frame_num
  uint32_t ui_poc_lv = p_av->Ue();
  if (ui_poc_lv == 0) {
    p_av->Ue();
  } else if (ui_poc_lv == 1) {
    p_av->Bits(1);
    p_av->Se();
    p_av->Se();
    uint32_t ui_n_lv = p_av->Ue();
    for (uint32_t ui_lv = 0; ui_lv < ui_n_lv && !p_av->m_b_bad; ui_lv++) p_av->Se();
  }
  p_av->Ue();      // max_num_ref_frames
  p_av->Bits(1);   // gaps allowed
}

// VUI up to its timing information.
double ReadVuiRate(BitReader* p_av) {
  if (p_av->Bits(1) && p_av->Bits(8) == 255) p_av->Bits(32);  // aspect ratio
  if (p_av->Bits(1)) p_av->Bits(1);                          // overscan
  if (p_av->Bits(1)) {                                        // video signal type
    p_av->Bits(4);
    if (p_av->Bits(1)) p_av->Bits(24);
  }
  if (p_av->Bits(1)) {  // chroma location
    p_av->Ue();
    p_av->Ue();
  }
  if (!p_av->Bits(1)) return 0;
  uint32_t ui_tick_lv = p_av->Bits(32), ui_scale_lv = p_av->Bits(32);
  return ui_tick_lv == 0 || p_av->m_b_bad ? 0 : static_cast<double>(ui_scale_lv) / (2.0 * ui_tick_lv);
}

}  // namespace

bool SrvReadSps(const uint8_t* pb_av, size_t ui_size_av, SrvSpsInfo* p_out_av) {
  for (const Nal& nal_lv : FindNals(pb_av, ui_size_av)) {
    if (NalType(pb_av[nal_lv.m_ui_header]) != 7) continue;
    size_t ui_end_lv = FindStartCode(pb_av, ui_size_av, nal_lv.m_ui_header);
    BitReader bits_lv(pb_av + nal_lv.m_ui_header + 1, ui_end_lv - nal_lv.m_ui_header - 1);
    uint32_t ui_chroma_lv = ReadProfilePart(&bits_lv);
    SkipOrderPart(&bits_lv);
    uint32_t ui_mbs_w_lv = bits_lv.Ue() + 1, ui_map_h_lv = bits_lv.Ue() + 1;
    uint32_t ui_frame_only_lv = bits_lv.Bits(1);
    if (!ui_frame_only_lv) bits_lv.Bits(1);
    bits_lv.Bits(1);  // direct_8x8_inference
    uint32_t ui_crop_lv[4] = {0, 0, 0, 0};
    if (bits_lv.Bits(1))
      for (uint32_t& ui_lv : ui_crop_lv) ui_lv = bits_lv.Ue();
    uint32_t ui_unit_x_lv = ui_chroma_lv == 0 || ui_chroma_lv == 3 ? 1 : 2;
    uint32_t ui_unit_y_lv = (ui_chroma_lv == 1 ? 2 : 1) * (2 - ui_frame_only_lv);
    if (ui_chroma_lv == 0) ui_unit_y_lv = 2 - ui_frame_only_lv;
    p_out_av->m_i_width = static_cast<int>(ui_mbs_w_lv * 16 - ui_unit_x_lv * (ui_crop_lv[0] + ui_crop_lv[1]));
    p_out_av->m_i_height =
        static_cast<int>((2 - ui_frame_only_lv) * ui_map_h_lv * 16 - ui_unit_y_lv * (ui_crop_lv[2] + ui_crop_lv[3]));
    bool b_size_ok_lv = !bits_lv.m_b_bad && p_out_av->m_i_width > 0 && p_out_av->m_i_height > 0;
    p_out_av->m_d_fps = bits_lv.Bits(1) ? ReadVuiRate(&bits_lv) : 0;
    if (bits_lv.m_b_bad) p_out_av->m_d_fps = 0;
    return b_size_ok_lv;
  }
  return false;
}
