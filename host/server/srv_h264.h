// H.264 Annex-B byte streams cut into access units, the way a camera source
// hands them to the bus: one frame per picture, the parameter sets and
// other units in front of a picture travelling with it, so that a key frame
// (an IDR picture) carries what a decoder needs to start. Used by the file
// source and by the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// One access unit: a span of the stream, start codes included, so that the
// units laid end to end give back the stream byte for byte.
struct SrvAccessUnit {
  size_t m_ui_offset = 0;
  size_t m_ui_size = 0;
  bool m_b_key = false;     // holds an IDR slice
  bool m_b_has_sps = false;
};

// Cuts a whole stream. Bytes in front of the first start code belong to the
// first unit. A stream with no picture gives no unit.
std::vector<SrvAccessUnit> SrvSplitAccessUnits(const uint8_t* pb_av, size_t ui_size_av);

// The first access unit of a span that may continue beyond it (a file read
// in pieces). True when its end is known: another unit starts after it, or
// b_end_av says the span is all there is. The unit starts at 0.
bool SrvCutFirstUnit(const uint8_t* pb_av, size_t ui_size_av, bool b_end_av, SrvAccessUnit* p_out_av);

// What a sequence parameter set tells: picture size and, when its timing
// information is present, the frame rate.
struct SrvSpsInfo {
  int m_i_width = 0;
  int m_i_height = 0;
  double m_d_fps = 0;  // 0 when the stream does not say
};
// Reads the first SPS found in the span. False when there is none or it
// cannot be read.
bool SrvReadSps(const uint8_t* pb_av, size_t ui_size_av, SrvSpsInfo* p_out_av);
