// Frame intake: the road of a frame from the media track's message to the
// accepting buffer. on_frame (writer_exchanger.h) runs it on the frame
// source's thread; the write process calls FillBuff to build the block.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/diagnostic.h"

class CWriter;

// Size of the channel's frame type text, terminator included.
const uint32_t UI_FRAME_TYPE_TEXT = 256;

const int32_t I_PARAM_LAYOUT_MAX = 16;
const int32_t I_PARAM_LAYOUT_ELEMENTS = 32;
// Where the records of the channel's last parameter section lie in its
// parameter buffer. A stream sends the same elements in the same order
// frame after frame; while it does, and all of them have records of a fixed
// form, the section is the last one with the new values put in place.
struct TParamLayout {
  int32_t m_i_count = -1;  // the frame's records; -1: nothing kept
  int32_t m_i_elements = 0;                          // the frame's elements,
  uint8_t m_ui_fields[I_PARAM_LAYOUT_ELEMENTS] = {};  // and the kind of each, as the walk found them
  uint8_t m_ui_pos[I_PARAM_LAYOUT_MAX] = {};         // the element of each record
  uint8_t m_ui_payload[I_PARAM_LAYOUT_MAX] = {};     // 4 or 8 bytes of a number; 0 for the type text
  uint32_t m_ui_value_at[I_PARAM_LAYOUT_MAX] = {};   // offset of each record's value (of the text for the type)
  uint32_t m_ui_type_len = 0;                        // the type text's length
  uint32_t m_ui_size = 0;                            // the whole section, the local records included
};

// One nested "frame" list; wd is the channel's frame statistic or null.
void on_frame_level1(CWriter* p_av, ProfileParam* p_frame_av, TWaitStat* p_wd_av);
// "video", "audio" or "" for a four-character code; out holds
// UI_FRAME_TYPE_TEXT bytes.
void FCCToDataType(uint32_t ui_fcc_av, char* s_out_av);
// Builds the current frame's block in the accepting buffer; 0 when the
// buffer refuses the portion. Caller holds the buffering lock.
int32_t FillBuff(CWriter* p_av, int32_t i_slot_av);
void FrameHashLog(CWriter* p_av);
