// The frame-exchange side of a channel: its two bus tracks, their
// callbacks, and the byte forms that go to the archive (the frame block
// and the encoded frame parameters). The channel open and reconfiguration
// open the tracks; frame intake builds blocks with these helpers.
#pragma once

#include <cstdint>
#include <cstring>

#include "include/host/core_api.h"
#include "linux/common_use/temp/tools.h"

class CWriter;

// Frame block head: 48 bytes before a key frame's sections, 32 otherwise.
const uint32_t UI_FRAME_HEAD_LONG = 48;
const uint32_t UI_FRAME_HEAD_SHORT = 32;
const uint32_t UI_FRAME_KIND_LONG = 6;
const uint32_t UI_FRAME_KIND_SHORT = 7;
const uint32_t UI_SECTION_HEAD = 8;
const uint32_t UI_SECTION_DATA = 1;
const uint32_t UI_SECTION_EXTRA = 80;
const uint32_t UI_SECTION_PARAMS = 513;
// Nesting deeper than this is not followed: the inner list encodes empty.
const int32_t I_PARAM_DEPTH_MAX = 16;

// The codec number the archive knows for a four-character code.
uint16_t CodecNumberOfFcc(uint32_t ui_fcc_av);
// True for the codes the archive marks as MPEG-4 in the frame type byte.
bool FccIsMpeg4(uint32_t ui_fcc_av);
// What a code stands for, worked out once per change of a channel's code:
// a stream keeps its code frame after frame.
struct TFccFacts {
  uint32_t m_ui_fcc = 0;
  uint16_t m_ui_codec = 0;
  bool m_b_mpeg4 = false;
  bool m_b_known = false;
};
inline const TFccFacts& FccFactsOf(TFccFacts* p_av, uint32_t ui_fcc_av) {
  if (!p_av->m_b_known || p_av->m_ui_fcc != ui_fcc_av) {
    p_av->m_ui_fcc = ui_fcc_av;
    p_av->m_ui_codec = CodecNumberOfFcc(ui_fcc_av);
    p_av->m_b_mpeg4 = FccIsMpeg4(ui_fcc_av);
    p_av->m_b_known = true;
  }
  return *p_av;
}
uint32_t FrameBlockHeadSize(int32_t i_key_av);
// Whole block size for the given payload sizes (sections included).
uint64_t FrameBlockSize(int32_t i_key_av, uint32_t ui_data_av, uint32_t ui_extra_av, uint32_t ui_params_av);
// Zero-fills and writes the head; pb_av must hold FrameBlockHeadSize bytes.
void FrameBlockWriteHead(uint8_t* pb_av, int32_t i_key_av, uint64_t ui64_local_time_av, uint32_t ui_frame_number_av,
                         int32_t i_width_av, int32_t i_height_av, uint32_t ui_fcc_av);
// The same with the code's codec number already known.
void FrameBlockWriteHeadCodec(uint8_t* pb_av, int32_t i_key_av, uint64_t ui64_local_time_av,
                              uint32_t ui_frame_number_av, int32_t i_width_av, int32_t i_height_av, uint32_t ui_fcc_av,
                              uint16_t ui_codec_av);
// Writes one section (head and data); returns the bytes written.
uint32_t FrameBlockPutSection(uint8_t* pb_av, uint32_t ui_type_av, const void* p_data_av, uint32_t ui_size_av);

// Length of the encoded record of one element; 0 for a record that cannot
// be encoded (its length would not fit 31 bits).
uint64_t ParamRecordLength(const ProfileParam* p_param_av);
// Writes the record of one element whose length ParamRecordLength gave
// (non-zero) into a buffer known to hold it; returns that length. A frame's
// size pass measures each element once, and its write pass uses this.
uint32_t WriteParamRecord(const ProfileParam* p_param_av, uint32_t ui_len_av, uint8_t* pb_av);

// The whole record of an element whose type, name and payload length are
// known before the element is seen, its payload zero: built once, so that
// each frame's record is one copy and the value put in its place.
const uint32_t UI_PARAM_FIXED_MAX = 48;
struct TParamFixed {
  uint8_t m_pb_record[UI_PARAM_FIXED_MAX];
  uint32_t m_ui_length;   // the record's bytes: the name's length + 13 + the payload
  uint32_t m_ui_payload;  // 4 or 8
};
// False when the payload is not 4 or 8 bytes or the record does not fit.
bool ParamFixedMake(uint32_t ui_type_av, const char* s_name_av, uint32_t ui_payload_av, TParamFixed* p_out_av);
// Writes the record with the value's payload bytes; returns its length.
inline uint32_t ParamFixedWrite(const TParamFixed* p_av, const void* p_value_av, uint8_t* pb_av) {
  uint32_t ui_head_lv = p_av->m_ui_length - p_av->m_ui_payload;
  memcpy(pb_av, p_av->m_pb_record, ui_head_lv);
  if (p_av->m_ui_payload == 8)
    memcpy(pb_av + ui_head_lv, p_value_av, 8);
  else
    memcpy(pb_av + ui_head_lv, p_value_av, 4);
  return p_av->m_ui_length;
}
// The head of a text element's record whose name is fixed: m_ui_length is
// the head's bytes and m_ui_payload 0; the text's length comes with each
// frame. False when the name does not fit.
bool ParamTextMake(const char* s_name_av, TParamFixed* p_out_av);
inline uint32_t ParamTextLength(const TParamFixed* p_av, uint32_t ui_text_av) {
  return p_av->m_ui_length + ui_text_av + 5;
}
// Writes the record of a text of ui_text_av characters; returns its length.
uint32_t ParamTextWrite(const TParamFixed* p_av, const char* s_text_av, uint32_t ui_text_av, uint8_t* pb_av);
// Appends the record of one element to a growing buffer. RC 0 on success,
// negative when the record is too long or there is no memory.
int32_t EncodeParam(const ProfileParam* p_param_av, uint8_t** ppb_buf_av, uint32_t* p_capacity_av,
                    uint32_t* p_size_av);

// Joins the media and status tracks of the channel.
void OpenTrack(CWriter* p_writer_av, const SafeString* p_common_keys_av, const SafeString* p_in_av);
// Track callbacks of the media and the status track.
void on_frame(void* p_user_av, ProfileParam* p_params_av);
void on_data2(void* p_user_av, ProfileParam* p_params_av);
