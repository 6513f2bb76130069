// Frame block layout, parameter encoding and the channel's two tracks.
// All numbers in the archive's bytes are little-endian.
#include "writer/writer_exchanger.h"

#include <cstring>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_main.h"
#include "linux/common_use/service/entry_scope.h"

namespace {

const int32_t I_SIGN_PARAMS = 4301;
const uint64_t UI64_RECORD_MAX = 0x7FFFFFFFu;

// One store of the whole value: the byte-by-byte form compiled into a
// shuffle of shifts that cost more than the record's payload.
template <typename T>
void PutLe(uint8_t* pb_av, T v_av) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  T swapped_lv = 0;
  for (size_t i_lv = 0; i_lv < sizeof(T); i_lv++) swapped_lv = static_cast<T>(swapped_lv << 8 | ((v_av >> (8 * i_lv)) & 0xFF));
  v_av = swapped_lv;
#endif
  memcpy(pb_av, &v_av, sizeof(T));
}
void PutLe16(uint8_t* pb_av, uint16_t ui_av) { PutLe(pb_av, ui_av); }
void PutLe32(uint8_t* pb_av, uint32_t ui_av) { PutLe(pb_av, ui_av); }
void PutLe64(uint8_t* pb_av, uint64_t ui64_av) { PutLe(pb_av, ui64_av); }

uint32_t Fcc(const char* s_av) {
  return static_cast<uint32_t>(static_cast<uint8_t>(s_av[0])) | static_cast<uint32_t>(static_cast<uint8_t>(s_av[1])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(s_av[2])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(s_av[3])) << 24;
}

size_t NameLength(const ProfileParam* p_av) { return p_av->name != nullptr ? strlen(p_av->name) : 0; }

uint64_t PayloadLength(const ProfileParam* p_av, int32_t i_depth_av);

uint64_t RecordLength(const ProfileParam* p_av, int32_t i_depth_av) {
  return NameLength(p_av) + 13 + PayloadLength(p_av, i_depth_av);
}

uint64_t PayloadLength(const ProfileParam* p_av, int32_t i_depth_av) {
  if (p_av->value == nullptr) return 0;
  switch (p_av->type) {
    case PP_LIST: {
      if (i_depth_av >= I_PARAM_DEPTH_MAX) return 0;
      uint64_t ui64_sum_lv = 0;
      const ProfileParam* p_lv = static_cast<const ProfileParam*>(p_av->value);
      for (; p_lv->type != PP_END && ui64_sum_lv <= UI64_RECORD_MAX; p_lv++)
        ui64_sum_lv += RecordLength(p_lv, i_depth_av + 1);
      return ui64_sum_lv;
    }
    case PP_STRING:
      return strlen(static_cast<const char*>(p_av->value)) + 5;
    case PP_INT32:
    case PP_INT32B:
      return 4;
    case PP_INT64:
    case PP_CALLBACK:
    case PP_INT64B:
      return 8;
    case PP_BUFFER: {
      const ProfileBuffer* p_buf_lv = static_cast<const ProfileBuffer*>(p_av->value);
      return p_buf_lv->data != nullptr ? p_buf_lv->length : 0;
    }
    default:
      return 0;
  }
}

// The first 8 bytes of a long buffer, for the trace line.
void TraceBufferStart(const char* s_name_av, const ProfileBuffer* p_buf_av) {
  char s_start_lv[96];
  size_t ui_pos_lv = 0;
  const uint8_t* pb_lv = static_cast<const uint8_t*>(p_buf_av->data);
  for (int i_lv = 0; i_lv < 8; i_lv++) {
    FormatStr(s_start_lv + ui_pos_lv, sizeof(s_start_lv) - ui_pos_lv, "Ox%X ", pb_lv[i_lv]);
    ui_pos_lv += strlen(s_start_lv + ui_pos_lv);
  }
  TRACE44(TLOG_ARC_TRACE, "<params> PARAM_BUFFER: name %s, len %d, start %s", s_name_av,
          static_cast<int>(p_buf_av->length), s_start_lv);
}

// Writes the record at pb_av; returns the bytes written (RecordLength).
uint32_t WriteRecord(const ProfileParam* p_av, uint8_t* pb_av, int32_t i_depth_av) {
  uint32_t ui_name_lv = static_cast<uint32_t>(NameLength(p_av));
  uint32_t ui_payload_lv = static_cast<uint32_t>(PayloadLength(p_av, i_depth_av));
  PutLe32(pb_av, p_av->type);
  PutLe32(pb_av + 4, ui_name_lv + 5);
  if (ui_name_lv > 0) memcpy(pb_av + 8, p_av->name, ui_name_lv);
  pb_av[8 + ui_name_lv] = 0;
  PutLe32(pb_av + ui_name_lv + 9, ui_name_lv + 13 + ui_payload_lv);
  uint8_t* pb_pay_lv = pb_av + ui_name_lv + 13;
  if (ui_payload_lv == 0) return ui_name_lv + 13;
  switch (p_av->type) {
    case PP_LIST: {
      uint32_t ui_pos_lv = 0;
      for (const ProfileParam* p_lv = static_cast<const ProfileParam*>(p_av->value); p_lv->type != PP_END; p_lv++)
        ui_pos_lv += WriteRecord(p_lv, pb_pay_lv + ui_pos_lv, i_depth_av + 1);
      break;
    }
    case PP_STRING:
      PutLe32(pb_pay_lv, ui_payload_lv);
      memcpy(pb_pay_lv + 4, p_av->value, ui_payload_lv - 4);
      break;
    case PP_BUFFER: {
      const ProfileBuffer* p_buf_lv = static_cast<const ProfileBuffer*>(p_av->value);
      if (p_buf_lv->length > 10) TraceBufferStart(p_av->name != nullptr ? p_av->name : "", p_buf_lv);
      memcpy(pb_pay_lv, p_buf_lv->data, ui_payload_lv);
      break;
    }
    default:  // the 32-bit and 64-bit integers, read through the pointer
      memcpy(pb_pay_lv, p_av->value, ui_payload_lv);
      break;
  }
  return ui_name_lv + 13 + ui_payload_lv;
}

}  // namespace

uint16_t CodecNumberOfFcc(uint32_t ui_fcc_av) {
  static const char* const S_MPEG4_LV[] = {"XVID", "DIVX", "xvid", "divx", "mp4v", "DX50"};
  for (const char* s_lv : S_MPEG4_LV)
    if (ui_fcc_av == Fcc(s_lv)) return 10;
  if (ui_fcc_av == Fcc("KMM2")) return 2;
  if (ui_fcc_av == Fcc("H264") || ui_fcc_av == Fcc("h264")) return 7;
  return 0;
}

uint32_t FrameBlockHeadSize(int32_t i_key_av) { return i_key_av != 0 ? UI_FRAME_HEAD_LONG : UI_FRAME_HEAD_SHORT; }

uint64_t FrameBlockSize(int32_t i_key_av, uint32_t ui_data_av, uint32_t ui_extra_av, uint32_t ui_params_av) {
  uint64_t ui64_lv = FrameBlockHeadSize(i_key_av) + static_cast<uint64_t>(UI_SECTION_HEAD) + ui_data_av;
  if (ui_extra_av > 0) ui64_lv += UI_SECTION_HEAD + static_cast<uint64_t>(ui_extra_av);
  if (ui_params_av > 0) ui64_lv += UI_SECTION_HEAD + static_cast<uint64_t>(ui_params_av);
  return ui64_lv;
}

bool FccIsMpeg4(uint32_t ui_fcc_av) {
  static const char* const S_CODES_LV[] = {"XVID", "DIVX", "xvid", "divx", "mp4v", "DX50", "H264", "h264"};
  for (const char* s_lv : S_CODES_LV)
    if (ui_fcc_av == Fcc(s_lv)) return true;
  return false;
}

void FrameBlockWriteHead(uint8_t* pb_av, int32_t i_key_av, uint64_t ui64_local_time_av, uint32_t ui_frame_number_av,
                         int32_t i_width_av, int32_t i_height_av, uint32_t ui_fcc_av) {
  FrameBlockWriteHeadCodec(pb_av, i_key_av, ui64_local_time_av, ui_frame_number_av, i_width_av, i_height_av, ui_fcc_av,
                           i_key_av != 0 ? CodecNumberOfFcc(ui_fcc_av) : 0);
}

void FrameBlockWriteHeadCodec(uint8_t* pb_av, int32_t i_key_av, uint64_t ui64_local_time_av,
                              uint32_t ui_frame_number_av, int32_t i_width_av, int32_t i_height_av, uint32_t ui_fcc_av,
                              uint16_t ui_codec_av) {
  uint32_t ui_head_lv = FrameBlockHeadSize(i_key_av);
  memset(pb_av, 0, ui_head_lv);
  PutLe32(pb_av, ui_head_lv);
  PutLe32(pb_av + 4, i_key_av != 0 ? UI_FRAME_KIND_LONG : UI_FRAME_KIND_SHORT);
  PutLe64(pb_av + 8, ui64_local_time_av);
  PutLe32(pb_av + 20, ui_frame_number_av);
  if (i_key_av == 0) return;
  // 32-bit arithmetic as the archive computes it: the product wraps, the
  // division is signed.
  int16_t i_h16_lv = static_cast<int16_t>(i_height_av);
  uint32_t ui_product_lv = static_cast<uint32_t>(i_width_av) * static_cast<uint32_t>(static_cast<int32_t>(i_h16_lv)) * 12u;
  PutLe32(pb_av + 32, static_cast<uint32_t>(static_cast<int32_t>(ui_product_lv) / 8));
  uint16_t ui_codec_lv = ui_codec_av;
  PutLe16(pb_av + 36, ui_codec_lv);
  PutLe16(pb_av + 38, static_cast<uint16_t>(i_height_av));
  PutLe16(pb_av + 40, static_cast<uint16_t>(i_width_av));
  PutLe16(pb_av + 42, 12);
  PutLe32(pb_av + 44, ui_codec_lv == 10 ? Fcc("xvid") : ui_fcc_av);
}

uint32_t FrameBlockPutSection(uint8_t* pb_av, uint32_t ui_type_av, const void* p_data_av, uint32_t ui_size_av) {
  PutLe32(pb_av, ui_size_av + UI_SECTION_HEAD);
  PutLe32(pb_av + 4, ui_type_av);
  if (ui_size_av > 0 && p_data_av != nullptr) memcpy(pb_av + UI_SECTION_HEAD, p_data_av, ui_size_av);
  return ui_size_av + UI_SECTION_HEAD;
}

uint64_t ParamRecordLength(const ProfileParam* p_param_av) {
  // Most elements of a frame are numbers: their length needs no walk.
  if (p_param_av->value != nullptr) {
    switch (p_param_av->type) {
      case PP_INT32:
      case PP_INT32B:
        return NameLength(p_param_av) + 13 + 4;
      case PP_INT64:
      case PP_CALLBACK:
      case PP_INT64B:
        return NameLength(p_param_av) + 13 + 8;
      default:
        break;
    }
  }
  uint64_t ui64_lv = RecordLength(p_param_av, 0);
  return ui64_lv <= UI64_RECORD_MAX ? ui64_lv : 0;
}

uint32_t WriteParamRecord(const ProfileParam* p_param_av, uint32_t ui_len_av, uint8_t* pb_av) {
  uint32_t ui_payload_lv = 0;
  if (p_param_av->value != nullptr) {
    switch (p_param_av->type) {
      case PP_INT32:
      case PP_INT32B:
        ui_payload_lv = 4;
        break;
      case PP_INT64:
      case PP_CALLBACK:
      case PP_INT64B:
        ui_payload_lv = 8;
        break;
      default:  // texts, buffers and lists are measured as they are written
        return WriteRecord(p_param_av, pb_av, 0);
    }
  }
  // The name's length follows from the measured one: no second strlen.
  uint32_t ui_name_lv = ui_len_av - 13 - ui_payload_lv;
  PutLe32(pb_av, p_param_av->type);
  PutLe32(pb_av + 4, ui_name_lv + 5);
  if (ui_name_lv > 0) memcpy(pb_av + 8, p_param_av->name, ui_name_lv);
  pb_av[8 + ui_name_lv] = 0;
  PutLe32(pb_av + ui_name_lv + 9, ui_len_av);
  if (ui_payload_lv > 0) memcpy(pb_av + ui_name_lv + 13, p_param_av->value, ui_payload_lv);
  return ui_len_av;
}

bool ParamFixedMake(uint32_t ui_type_av, const char* s_name_av, uint32_t ui_payload_av, TParamFixed* p_out_av) {
  memset(p_out_av, 0, sizeof(*p_out_av));
  uint8_t pb_zero_lv[8] = {};
  ProfileParam param_lv = {ui_type_av, s_name_av, pb_zero_lv};
  // Only the number types have a payload of their own fixed length.
  uint64_t ui64_len_lv = ParamRecordLength(&param_lv);
  if (ui64_len_lv != RecordLength(&param_lv, 0) || ui64_len_lv > UI_PARAM_FIXED_MAX ||
      ui64_len_lv != NameLength(&param_lv) + 13 + ui_payload_av || (ui_payload_av != 4 && ui_payload_av != 8))
    return false;
  p_out_av->m_ui_length = WriteParamRecord(&param_lv, static_cast<uint32_t>(ui64_len_lv), p_out_av->m_pb_record);
  p_out_av->m_ui_payload = ui_payload_av;
  return true;
}

bool ParamTextMake(const char* s_name_av, TParamFixed* p_out_av) {
  memset(p_out_av, 0, sizeof(*p_out_av));
  uint32_t ui_name_lv = static_cast<uint32_t>(s_name_av != nullptr ? strnlen(s_name_av, UI_PARAM_FIXED_MAX) : 0);
  if (ui_name_lv + 13 > UI_PARAM_FIXED_MAX) return false;
  PutLe32(p_out_av->m_pb_record, PP_STRING);
  PutLe32(p_out_av->m_pb_record + 4, ui_name_lv + 5);
  if (ui_name_lv > 0) memcpy(p_out_av->m_pb_record + 8, s_name_av, ui_name_lv);
  p_out_av->m_ui_length = ui_name_lv + 13;  // the record's length goes in its last 4 bytes with each text
  return true;
}

uint32_t ParamTextWrite(const TParamFixed* p_av, const char* s_text_av, uint32_t ui_text_av, uint8_t* pb_av) {
  uint32_t ui_head_lv = p_av->m_ui_length;
  uint32_t ui_len_lv = ParamTextLength(p_av, ui_text_av);
  memcpy(pb_av, p_av->m_pb_record, ui_head_lv);
  PutLe32(pb_av + ui_head_lv - 4, ui_len_lv);
  PutLe32(pb_av + ui_head_lv, ui_text_av + 5);
  memcpy(pb_av + ui_head_lv + 4, s_text_av, ui_text_av);
  pb_av[ui_head_lv + 4 + ui_text_av] = 0;
  return ui_len_lv;
}

int32_t EncodeParam(const ProfileParam* p_param_av, uint8_t** ppb_buf_av, uint32_t* p_capacity_av,
                    uint32_t* p_size_av) {
  uint64_t ui64_len_lv = ParamRecordLength(p_param_av);
  uint64_t ui64_need_lv = ui64_len_lv + *p_size_av;
  if (ui64_len_lv == 0 || ui64_need_lv > UI64_RECORD_MAX) {
    TRACE45(TLOG_ARC_TRACE, TSEV_FAULT, "<error>EncodeParam: record of %s too long",
            p_param_av->name != nullptr ? p_param_av->name : "");
    return RC_E_INVALIDARG;
  }
  if (ui64_need_lv > *p_capacity_av) {
    uint64_t ui64_cap_lv = ui64_need_lv + ui64_need_lv / 2 + 64;
    if (ui64_cap_lv > UI64_RECORD_MAX) ui64_cap_lv = ui64_need_lv;
    uint8_t* pb_lv = *ppb_buf_av;
    SAFE_MEM_REALLOCB4(pb_lv, static_cast<int32_t>(ui64_cap_lv), I_SIGN_PARAMS);
    if (pb_lv == *ppb_buf_av) {  // a failed reallocation leaves the variable
      TRACE45(TLOG_ARC_TRACE, TSEV_FAULT, "<error>EncodeParam: no memory for %lld bytes",
              static_cast<long long>(ui64_cap_lv));
      return RC_E_FAIL;
    }
    *ppb_buf_av = pb_lv;
    *p_capacity_av = static_cast<uint32_t>(ui64_cap_lv);
  }
  *p_size_av += WriteRecord(p_param_av, *ppb_buf_av + *p_size_av, 0);
  return RC_OK;
}

void OpenTrack(CWriter* p_writer_av, const SafeString* p_common_keys_av, const SafeString* p_in_av) {
  const char* keys_lv[4] = {};
  for (int i_lv = 0; i_lv < 3; i_lv++)
    keys_lv[i_lv] = p_common_keys_av[i_lv].m_p_text != nullptr ? p_common_keys_av[i_lv].m_p_text : "";
  keys_lv[3] = p_in_av->m_p_text != nullptr ? p_in_av->m_p_text : "";
  SafeString status_lv;
  SafeString media_lv;
  SafeStringJoin(keys_lv, 3, &status_lv, '_');
  SafeStringJoin(keys_lv, 4, &media_lv, '_');
  const char* s_status_lv = status_lv.m_p_text != nullptr ? status_lv.m_p_text : "";
  ProfileCallback frames_lv = {p_writer_av, reinterpret_cast<void*>(&on_frame)};
  p_writer_av->m_h_track_frames =
      profile_open(media_lv.m_p_text != nullptr ? media_lv.m_p_text : "", &frames_lv, __FILE__, __LINE__);
  ProfileCallback status_cb_lv = {p_writer_av, reinterpret_cast<void*>(&on_data2)};
  // Stored whole: the schedule engine's thread reads it to ask for frames.
  AtomicPut(&p_writer_av->m_h_track_status, profile_open(s_status_lv, &status_cb_lv, __FILE__, __LINE__));
  TRACE44(TLOG_ARC, "<sched2%lld> open track cm=%pp,%s\n",
          static_cast<long long>(p_writer_av->m_camera_info_w->m_i64_id3),
          reinterpret_cast<void*>(static_cast<uintptr_t>(p_writer_av->m_h_track_status)), s_status_lv);
}
