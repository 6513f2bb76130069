// Frame intake, on the frame source's thread: the media track's callback,
// the checks of one frame, its time correction, the encoding of its other
// parameters, the build of its block in the accepting buffer, and the
// answer to the source's "need" counter. The status track's callback
// answers "listen".
#include "writer/writer_intake.h"

#include <cstdint>
#include <cstring>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_by_event.h"
#include "writer/writer_exchanger.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "writer/writer_process.h"
#include "linux/common_use/service/entry_scope.h"

namespace {

const int32_t I_SIGN_FRAME_PARAMS = 4302;
const uint64_t UI64_EPOCH_MICROS = 0x295E9648864000ULL;
const int64_t I64_STAT_PRINT_PERIOD = 600000000LL;     // 60 s
const int64_t I64_TIME_RESET_PERIOD = 6000000000LL;    // 600 s
const int64_t I64_BACKWARD_STEP_MICROS = 1000;
const int64_t I64_HASH_LEVEL_REFRESH = 200000000LL;    // 20 s
// Frame times the file-time conversions can hold: from 1601 on, and up to a
// day short of the largest tick count, which leaves room for any UTC offset.
const int64_t I64_TIME_MIN_MICROS = -static_cast<int64_t>(UI64_EPOCH_MICROS);
const int64_t I64_TIME_MAX_MICROS =
    INT64_MAX / 10 - static_cast<int64_t>(UI64_EPOCH_MICROS) - 86400LL * 1000000LL;

int64_t g_i64_hash_log_mark = 0;

const char* Name(const ProfileParam* p_av) { return p_av->name != nullptr ? p_av->name : ""; }
bool Is(const ProfileParam* p_av, const char* s_name_av, uint32_t ui_type_av) {
  return p_av->type == ui_type_av && strcmp(Name(p_av), s_name_av) == 0;
}

// The elements a "frame" list is made of, and those kept out of the
// parameter section. Every element of every frame is looked up here, so the
// name is matched once, by its first letter and one comparison, instead of
// against each known name in turn.
enum TFrameField {
  FF_OTHER, FF_NEED, FF_DATA, FF_EXTRA, FF_WIDTH, FF_HEIGHT, FF_FCC, FF_INDEX, FF_KEY, FF_TIME, FF_TYPE,
  FF_GET, FF_PARENT, FF_ERROR, FF_VIRTUAL, FF_NEAREST, FF_TYPES_DESCR, FF_COUNT
};

// A name against a known text whose first letter FieldOf's switch has
// matched already, from the second character on: the loop stops at the
// first difference, so it never reads past the end of the name. Unrolled:
// every element of every frame comes through here, and the known names are
// short and fixed, so the loop's own counting would cost as much as the
// comparisons.
template <size_t N>
bool NameIs(const char* s_name_av, const char (&s_known_av)[N]) {
#pragma GCC unroll 16
  for (size_t i_lv = 1; i_lv < N; i_lv++)
    if (s_name_av[i_lv] != s_known_av[i_lv]) return false;
  return true;
}

TFrameField Known(bool b_match_av, const ProfileParam* p_av, uint32_t ui_type_av, TFrameField field_av) {
  return b_match_av && p_av->type == ui_type_av ? field_av : FF_OTHER;
}

// Inlined into the walk: it runs for every element of every frame, and the
// call would cost about as much as the switch itself.
__attribute__((always_inline)) inline TFrameField FieldOf(const ProfileParam* p_av) {
  const char* s_lv = Name(p_av);
  switch (s_lv[0]) {
    case 'd': return Known(NameIs(s_lv, "data"), p_av, PP_BUFFER, FF_DATA);
    case 'f': return Known(NameIs(s_lv, "fcc"), p_av, PP_INT32, FF_FCC);
    case 'g': return Known(NameIs(s_lv, "get"), p_av, PP_LIST, FF_GET);
    case 'h': return Known(NameIs(s_lv, "height"), p_av, PP_INT32, FF_HEIGHT);
    case 'i': return Known(NameIs(s_lv, "index"), p_av, PP_INT64, FF_INDEX);
    case 'k': return Known(NameIs(s_lv, "key"), p_av, PP_INT32, FF_KEY);
    case 'p': return Known(NameIs(s_lv, "parent"), p_av, PP_LIST, FF_PARENT);
    case 'v': return Known(NameIs(s_lv, "virtual"), p_av, PP_INT32, FF_VIRTUAL);
    case 'w': return Known(NameIs(s_lv, "width"), p_av, PP_INT32, FF_WIDTH);
    case 'e':
      if (NameIs(s_lv, "extra")) return Known(true, p_av, PP_BUFFER, FF_EXTRA);
      return Known(NameIs(s_lv, "error"), p_av, PP_INT32, FF_ERROR);
    case 'n':
      if (NameIs(s_lv, "need")) return Known(true, p_av, PP_INT32, FF_NEED);
      return Known(NameIs(s_lv, "nearest_finded"), p_av, PP_INT64, FF_NEAREST);
    case 't':
      if (NameIs(s_lv, "time")) return Known(true, p_av, PP_INT64, FF_TIME);
      if (NameIs(s_lv, "type")) return Known(true, p_av, PP_STRING, FF_TYPE);
      return Known(NameIs(s_lv, "types_descr"), p_av, PP_LIST, FF_TYPES_DESCR);
    default:
      return FF_OTHER;
  }
}

// Every element of every message is asked this.
bool IsFrameList(const ProfileParam* p_av) {
  const char* s_lv = Name(p_av);
  return p_av->type == PP_LIST && s_lv[0] == 'f' && NameIs(s_lv, "frame");
}

// Copies a text into a field of ui_size_av bytes, cut to fit; returns the
// characters copied.
size_t CopyCut(char* s_out_av, size_t ui_size_av, const char* s_in_av) {
  size_t ui_len_lv = strnlen(s_in_av, ui_size_av - 1);
  memcpy(s_out_av, s_in_av, ui_len_lv);
  s_out_av[ui_len_lv] = 0;
  return ui_len_lv;
}

uint32_t Fcc(const char* s_av) {
  return static_cast<uint32_t>(static_cast<uint8_t>(s_av[0])) | static_cast<uint32_t>(static_cast<uint8_t>(s_av[1])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(s_av[2])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(s_av[3])) << 24;
}

bool FccIn(uint32_t ui_fcc_av, const char* const* pp_codes_av, size_t ui_count_av) {
  for (size_t i_lv = 0; i_lv < ui_count_av; i_lv++)
    if (ui_fcc_av == Fcc(pp_codes_av[i_lv])) return true;
  return false;
}

// The code as a printable text of up to four characters.
void FccText(uint32_t ui_fcc_av, char* s_out_av) {
  for (int i_lv = 0; i_lv < 4; i_lv++) s_out_av[i_lv] = static_cast<char>(ui_fcc_av >> (8 * i_lv));
  s_out_av[4] = 0;
}

const char* TypeText(const CWriter* p_av) { return p_av->m_s_type.m_p_text != nullptr ? p_av->m_s_type.m_p_text : ""; }

// Inlined into each call: the points and states are fixed at every call
// site, so their range checks fold away.
__attribute__((always_inline)) inline void Mark(TWaitStat* p_wd_av, int32_t i_group_av, int32_t i_point_av,
                                                int32_t i_state_av) {
  WaitStateMark(p_wd_av, i_group_av, i_state_av, i_point_av);
}

bool TimeInRange(int64_t i64_micros_av) {
  return i64_micros_av >= I64_TIME_MIN_MICROS && i64_micros_av <= I64_TIME_MAX_MICROS;
}

// A time the conversions cannot hold prints as all zeros.
void UtcText(int64_t i64_micros_av, char* s_out_av) {
  uint64_t ui64_ticks_lv = TimeInRange(i64_micros_av) ? (static_cast<uint64_t>(i64_micros_av) + UI64_EPOCH_MICROS) * 10ULL
                                                       : 0x8000000000000000ULL;
  FileTimeToText(ui64_ticks_lv, s_out_av);
}

// Elements whose kind the walk keeps for the parameter section; a longer
// list has the rest looked up again.
const int32_t I_FIELDS_KEPT = I_PARAM_LAYOUT_ELEMENTS;

const uint32_t UI_TYPE_LEN_UNKNOWN = 0xFFFFFFFFu;

// What the walk of one "frame" list found besides the channel's members.
struct TFrameRead {
  int32_t* m_p_need;
  int64_t m_i64_index;
  int64_t m_i64_time;
  int32_t m_i_count;
  const ProfileParam* m_p_type;  // the last "type" element and its text's whole length,
  uint32_t m_ui_type_len;        // UI_TYPE_LEN_UNKNOWN when the copy cut it
  bool m_b_ok;
  bool m_b_bad;
  uint8_t m_ui_fields[I_FIELDS_KEPT];  // TFrameField of each element, by position
};

void ClearFrame(CWriter* p_av) {
  p_av->m_p_data = nullptr;
  p_av->m_ui_data_size = 0;
  p_av->m_p_extra = nullptr;
  p_av->m_ui_extra_size = 0;
  p_av->m_ui_fcc = 0;
  p_av->m_i_width = 0;
  p_av->m_i_height = 0;
  p_av->m_i_key = 0;
  p_av->m_i64_time = 0;
  p_av->m_s_frame_type[0] = 0;
}

// A required 32-bit value; a null one spoils the frame.
void ReadInt32(const ProfileParam* p_av, int32_t* p_out_av, TFrameRead* p_rd_av) {
  if (p_av->value == nullptr) {
    p_rd_av->m_b_bad = true;
    p_rd_av->m_b_ok = false;
    return;
  }
  *p_out_av = *static_cast<const int32_t*>(p_av->value);
}

void ReadBuffer(const ProfileParam* p_av, const void** pp_out_av, uint32_t* p_size_av) {
  const ProfileBuffer* p_buf_lv = static_cast<const ProfileBuffer*>(p_av->value);
  *pp_out_av = p_buf_lv->data;
  *p_size_av = p_buf_lv->length;
}

// One element of the "frame" list; false when its name and type are not
// among those the frame is made of.
bool ReadKnown(CWriter* p_av, const ProfileParam* p_el_av, TFrameField field_lv, TFrameRead* p_rd_av,
               long long i64_cam_lv) {
  switch (field_lv) {
    case FF_NEED:
      p_rd_av->m_p_need = static_cast<int32_t*>(p_el_av->value);
      return true;
    case FF_DATA:
      if (p_el_av->value == nullptr) {
        p_rd_av->m_b_bad = true;
        p_rd_av->m_b_ok = false;
      } else {
        ReadBuffer(p_el_av, &p_av->m_p_data, &p_av->m_ui_data_size);
      }
      return true;
    case FF_EXTRA:
      if (p_el_av->value != nullptr) ReadBuffer(p_el_av, &p_av->m_p_extra, &p_av->m_ui_extra_size);
      return true;
    case FF_WIDTH:
      ReadInt32(p_el_av, &p_av->m_i_width, p_rd_av);
      return true;
    case FF_HEIGHT:
      ReadInt32(p_el_av, &p_av->m_i_height, p_rd_av);
      return true;
    case FF_FCC: {
      int32_t i_fcc_lv = 0;
      ReadInt32(p_el_av, &i_fcc_lv, p_rd_av);
      p_av->m_ui_fcc = static_cast<uint32_t>(i_fcc_lv);
      char s_fcc_lv[5];
      FccText(p_av->m_ui_fcc, s_fcc_lv);
      TRACE44(TLOG_ARC_TRACE, "<%lld>on frame fcc %d %s ", i64_cam_lv, static_cast<int>(p_av->m_ui_fcc), s_fcc_lv);
      return true;
    }
    case FF_INDEX:
      if (p_el_av->value != nullptr) p_rd_av->m_i64_index = *static_cast<const int64_t*>(p_el_av->value);
      TRACE44(TLOG_ARC_TRACE, "<%lld>on frame index %lld ", i64_cam_lv, static_cast<long long>(p_rd_av->m_i64_index));
      return true;
    case FF_KEY:
      ReadInt32(p_el_av, &p_av->m_i_key, p_rd_av);
      if (p_av->m_i_key != 0) {
        p_av->m_b_is_fierst_key_accepted = 1;
        p_av->m_b_key_since_need = 1;
      }
      return true;
    case FF_TIME:
      if (p_el_av->value == nullptr) {
        p_rd_av->m_b_bad = true;
        p_rd_av->m_b_ok = false;
        return true;
      }
      p_rd_av->m_i64_time = *static_cast<const int64_t*>(p_el_av->value);
      // A time no file time can hold is as good as none.
      if (!TimeInRange(p_rd_av->m_i64_time)) {
        p_rd_av->m_b_bad = true;
        p_rd_av->m_b_ok = false;
      }
      return true;
    case FF_TYPE:
      if (p_el_av->value != nullptr) {
        // A longer text than the field holds is cut.
        size_t ui_len_lv = CopyCut(p_av->m_s_frame_type, UI_FRAME_TYPE_TEXT, static_cast<const char*>(p_el_av->value));
        p_rd_av->m_p_type = p_el_av;
        p_rd_av->m_ui_type_len =
            ui_len_lv < UI_FRAME_TYPE_TEXT - 1 ? static_cast<uint32_t>(ui_len_lv) : UI_TYPE_LEN_UNKNOWN;
        TRACE44(TLOG_ARC_TRACE, "<%lld>on frame type %s ", i64_cam_lv, p_av->m_s_frame_type);
      }
      return true;
    case FF_GET:
      p_rd_av->m_b_ok = false;
      return true;
    default:
      return false;
  }
}

// Once the frame is spoilt the rest of its elements are not looked at.
void WalkFrame(CWriter* p_av, ProfileParam* p_frame_av, TFrameRead* p_rd_av, long long i64_cam_av) {
  int32_t i_pos_lv = 0;
  for (const ProfileParam* p_lv = p_frame_av; p_lv->type != PP_END && p_rd_av->m_b_ok; p_lv++, i_pos_lv++) {
    TFrameField field_lv = FieldOf(p_lv);
    if (i_pos_lv < I_FIELDS_KEPT) p_rd_av->m_ui_fields[i_pos_lv] = static_cast<uint8_t>(field_lv);
    ReadKnown(p_av, p_lv, field_lv, p_rd_av, i64_cam_av);
  }
  p_rd_av->m_i_count = i_pos_lv;
}

// Data present, the channel's medium, key-only. False drops the frame.
bool CheckMedium(CWriter* p_av) {
  if (p_av->m_p_data == nullptr || p_av->m_ui_data_size == 0) return false;
  long long i64_cam_lv = static_cast<long long>(InfoCamId(p_av->m_camera_info_w));
  if (p_av->m_s_frame_type[0] == 0) {
    char s_fcc_lv[5];
    FccText(p_av->m_ui_fcc, s_fcc_lv);
    TRACE44(TLOG_ARC_TRACE, "<%lld>on frame bef FCCToDataType type %s fcc %s", i64_cam_lv, p_av->m_s_frame_type,
            s_fcc_lv);
    FCCToDataType(p_av->m_ui_fcc, p_av->m_s_frame_type);
    TRACE44(TLOG_ARC_TRACE, "<%lld>on frame after FCCToDataType type %s ", i64_cam_lv, p_av->m_s_frame_type);
  }
  // Both channels of a camera hear every frame: the other medium's differs
  // at its first letter already.
  const char* s_type_lv = TypeText(p_av);
  if (p_av->m_s_frame_type[0] != 0 &&
      (p_av->m_s_frame_type[0] != s_type_lv[0] || strcmp(p_av->m_s_frame_type, s_type_lv) != 0))
    return false;
  // A video channel takes a frame of unknown medium; an audio one does not.
  if (WriterIsAudio(p_av) && p_av->m_s_frame_type[0] == 0) return false;
  if (AtomicGet(&p_av->m_b_only_key_frame) != 0 && p_av->m_i_key == 0) return false;
  return true;
}

// Time never falls in the archive: a backward frame goes 1 ms after the one
// before; a clock that stays behind for 10 minutes is followed again.
void CorrectTime(CWriter* p_av, int64_t i64_time_av, int64_t i64_now_av) {
  int64_t i64_t_lv = i64_time_av;
  if (i64_t_lv >= p_av->m_i64_prev_time) {
    p_av->m_i64_last_forward_time = i64_now_av;
  } else {
    if (p_av->m_i64_last_forward_time + I64_TIME_RESET_PERIOD < i64_now_av) {
      p_av->m_i64_last_forward_time = i64_now_av;
      p_av->m_i64_prev_time = 0;
    }
    char s_t_lv[FILE_TIME_TEXT_SIZE];
    char s_prev_lv[FILE_TIME_TEXT_SIZE];
    UtcText(i64_t_lv, s_t_lv);
    UtcText(p_av->m_i64_prev_time, s_prev_lv);
    TRACE44(TLOG_ARC_TRACEDECIM, "<error15>cam %lld warning: try write frame with prev time prev KM7 %s now KM7 %s ",
            static_cast<long long>(InfoCamId(p_av->m_camera_info_w)), s_prev_lv, s_t_lv);
    // Steps after the latest time a frame may carry stay at it.
    i64_t_lv = p_av->m_i64_prev_time <= I64_TIME_MAX_MICROS - I64_BACKWARD_STEP_MICROS
                   ? p_av->m_i64_prev_time + I64_BACKWARD_STEP_MICROS
                   : I64_TIME_MAX_MICROS;
  }
  p_av->m_i64_prev_time = i64_t_lv;
  p_av->m_i64_time = i64_t_lv;
}

// The time texts are made only for a line that will be formatted; the
// clock reading behind "prevt" is kept for every frame all the same.
void LogTimes(CWriter* p_av, int64_t i64_orig_av, int64_t i64_now_av) {
  long long i64_cam_lv = static_cast<long long>(InfoCamId(p_av->m_camera_info_w));
  // Asked once for both lines: the trace call between them drops its line
  // itself should the levels have changed at its check.
  bool b_trace_lv = LogTraceWanted(TLOG_ARC_TRACE);
  if (b_trace_lv) {
    char s_orig_lv[FILE_TIME_TEXT_SIZE];
    char s_corr_lv[FILE_TIME_TEXT_SIZE];
    char s_syst_lv[FILE_TIME_TEXT_SIZE];
    UtcText(i64_orig_av, s_orig_lv);
    UtcText(p_av->m_i64_time, s_corr_lv);
    FileTimeToText(PlFileTimeUtc(), s_syst_lv);
    int64_t i64_current_lv = FileTimeNowLocalI64();
    TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld>on frame %lld orig %s corr %s syst univ %s currt %lld, prevt %lld",
            i64_cam_lv, static_cast<long long>(p_av->m_i64_time), s_orig_lv, s_corr_lv, s_syst_lv,
            static_cast<long long>(i64_current_lv / 10000),
            static_cast<long long>(p_av->m_i64_prev_local_time / 10000));
    p_av->m_i64_prev_local_time = i64_current_lv;
  } else {
    p_av->m_i64_prev_local_time = FileTimeNowLocalI64();
  }
  AtomicPut(&p_av->m_status.m_i64_last_source_stat, i64_now_av);
  if (!b_trace_lv) return;
  char s_now_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(i64_now_av), s_now_lv);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld_%lld>on_frame_level1 m_i64_last_source_stat %s", i64_cam_lv,
          static_cast<long long>(p_av->m_i64_type_id), s_now_lv);
}

// Gaps are only told: nothing is dropped or repaired.
void LogIndexGap(CWriter* p_av, int64_t i64_index_av) {
  int64_t* p_prev_lv = &p_av->m_i64_prev_index;
  int i_kind_lv = 0;
  const char* s_type_lv = p_av->m_s_frame_type;
  if (s_type_lv[0] == 'a' && strcmp(s_type_lv, "audio") == 0) {
    p_prev_lv = &p_av->m_i64_prev_audio_index;
    i_kind_lv = 1;
  } else if (s_type_lv[0] == 'v' && strcmp(s_type_lv, "video") == 0) {
    p_prev_lv = &p_av->m_i64_prev_video_index;
    i_kind_lv = 2;
  }
  long long i64_prev_lv = static_cast<long long>(*p_prev_lv);
  long long i64_delta_lv =
      static_cast<long long>(static_cast<uint64_t>(i64_index_av) - static_cast<uint64_t>(*p_prev_lv));
  long long i64_cam_lv = static_cast<long long>(InfoCamId(p_av->m_camera_info_w));
  long long i64_curr_lv = static_cast<long long>(i64_index_av);
  *p_prev_lv = i64_index_av;
  if (i64_delta_lv <= 1) return;
  if (i_kind_lv == 1)
    TRACE44(TLOG_ARC, "<%lld> audio index propusk prev %lld curr %lld delta %lld ", i64_cam_lv, i64_prev_lv,
            i64_curr_lv, i64_delta_lv);
  else if (i_kind_lv == 2)
    TRACE44(TLOG_ARC, "<%lld> video index propusk prev %lld curr %lld delta %lld ", i64_cam_lv, i64_prev_lv,
            i64_curr_lv, i64_delta_lv);
  else
    TRACE44(TLOG_ARC, "<%lld> index propusk prev %lld curr %lld delta %lld ", i64_cam_lv, i64_prev_lv, i64_curr_lv,
            i64_delta_lv);
}

// Elements that are the frame itself or the source's own business do not
// go into the parameter section.
bool CarriedAsParam(TFrameField field_av) {
  switch (field_av) {
    case FF_PARENT:
    case FF_DATA:
    case FF_EXTRA:
    case FF_NEED:
    case FF_ERROR:
    case FF_VIRTUAL:
    case FF_NEAREST:
    case FF_TYPES_DESCR:
      return false;
    default:
      return true;
  }
}

// The elements of a list chosen for the parameter section, each with its
// record length, measured once for the size and the write, and the fixed
// record of a known number element.
const int32_t I_PLAN_MAX = 32;
struct TParamPlan {
  const ProfileParam* m_p_params[I_PLAN_MAX];
  const TParamFixed* m_p_fixed[I_PLAN_MAX];  // null: the record is measured and written from the element
  uint32_t m_ui_lengths[I_PLAN_MAX];
  uint32_t m_ui_value_at[I_PLAN_MAX];  // where EncodePlan put each fixed record's value
  int32_t m_i_count;
  bool m_b_whole;  // false: more elements than the plan holds
};

// The records of the number elements every frame brings, and of the
// channel's own "arc_prev_write": the same names and types frame after
// frame, so only their values are new.
struct TKnownRecords {
  TKnownRecords() {
    ParamFixedMake(PP_INT32, "width", 4, &m_width);
    ParamFixedMake(PP_INT32, "height", 4, &m_height);
    ParamFixedMake(PP_INT32, "fcc", 4, &m_fcc);
    ParamFixedMake(PP_INT64, "index", 8, &m_index);
    ParamFixedMake(PP_INT32, "key", 4, &m_key);
    ParamFixedMake(PP_INT64, "time", 8, &m_time);
    ParamFixedMake(PP_INT64, "arc_prev_write", 8, &m_prev_write);
    ParamTextMake("type", &m_type);
    m_p_by_field[FF_WIDTH] = &m_width;
    m_p_by_field[FF_HEIGHT] = &m_height;
    m_p_by_field[FF_FCC] = &m_fcc;
    m_p_by_field[FF_INDEX] = &m_index;
    m_p_by_field[FF_KEY] = &m_key;
    m_p_by_field[FF_TIME] = &m_time;
  }
  TParamFixed m_width, m_height, m_fcc, m_index, m_key, m_time, m_prev_write;
  TParamFixed m_type;  // a text: its head only
  const TParamFixed* m_p_by_field[FF_COUNT] = {};  // the number elements' records by their kind
};
const TKnownRecords g_known_records;

// The walk has matched the element's name and type already; a null value
// is measured the long way (its record has no payload).
const TParamFixed* FixedRecordOf(TFrameField field_av, const ProfileParam* p_av) {
  return p_av->value != nullptr ? g_known_records.m_p_by_field[field_av] : nullptr;
}

// The fixed record of a carried element of a frame; null for one measured
// the long way. The type text's record is fixed when the walk measured the
// text whole as it took the frame's type from this element.
const TParamFixed* FixedOrTextRecordOf(TFrameField field_av, const ProfileParam* p_av, const TFrameRead* p_rd_av) {
  const TParamFixed* p_fixed_lv = FixedRecordOf(field_av, p_av);
  if (p_fixed_lv == nullptr && p_rd_av != nullptr && p_av == p_rd_av->m_p_type &&
      p_rd_av->m_ui_type_len != UI_TYPE_LEN_UNKNOWN)
    p_fixed_lv = &g_known_records.m_type;
  return p_fixed_lv;
}

// The kind of the element at a position: as the walk kept it, or looked up
// anew beyond what it keeps (the local list has no walk).
TFrameField FieldAt(const TFrameRead* p_rd_av, int32_t i_pos_av, const ProfileParam* p_av) {
  if (p_rd_av != nullptr && i_pos_av < I_FIELDS_KEPT) return static_cast<TFrameField>(p_rd_av->m_ui_fields[i_pos_av]);
  return FieldOf(p_av);
}

void PlanAdd(TParamPlan* p_plan_av, const ProfileParam* p_av, const TParamFixed* p_fixed_av, uint64_t ui64_len_av) {
  if (p_plan_av->m_i_count == I_PLAN_MAX) {
    p_plan_av->m_b_whole = false;
    return;
  }
  p_plan_av->m_p_params[p_plan_av->m_i_count] = p_av;
  p_plan_av->m_p_fixed[p_plan_av->m_i_count] = p_fixed_av;
  p_plan_av->m_ui_lengths[p_plan_av->m_i_count] = static_cast<uint32_t>(ui64_len_av);
  p_plan_av->m_i_count++;
}

uint64_t ParamsSize(const ProfileParam* p_list_av, const TFrameRead* p_rd_av, TParamPlan* p_plan_av) {
  uint64_t ui64_lv = 0;
  int32_t i_pos_lv = 0;
  for (const ProfileParam* p_lv = p_list_av; p_lv->type != PP_END; p_lv++, i_pos_lv++) {
    TFrameField field_lv = FieldAt(p_rd_av, i_pos_lv, p_lv);
    if (!CarriedAsParam(field_lv)) continue;
    const TParamFixed* p_fixed_lv = FixedOrTextRecordOf(field_lv, p_lv, p_rd_av);
    uint64_t ui64_len_lv = 0;
    if (p_fixed_lv == nullptr)
      ui64_len_lv = ParamRecordLength(p_lv);
    else if (p_fixed_lv->m_ui_payload == 0)  // the walk measured the text when it took the frame's type
      ui64_len_lv = ParamTextLength(p_fixed_lv, p_rd_av->m_ui_type_len);
    else
      ui64_len_lv = p_fixed_lv->m_ui_length;
    ui64_lv += ui64_len_lv;
    PlanAdd(p_plan_av, p_lv, p_fixed_lv, ui64_len_lv);
  }
  return ui64_lv;
}

void EncodeList(CWriter* p_av, const ProfileParam* p_list_av, const TFrameRead* p_rd_av) {
  int32_t i_pos_lv = 0;
  for (const ProfileParam* p_lv = p_list_av; p_lv->type != PP_END; p_lv++, i_pos_lv++)
    if (CarriedAsParam(FieldAt(p_rd_av, i_pos_lv, p_lv)))
      EncodeParam(p_lv, &p_av->m_pb_params, &p_av->m_ui_params_capacity, &p_av->m_ui_params_size);
}

// The measured records, written one after the other. A record that cannot
// be encoded, or a buffer that could not grow, goes through EncodeParam,
// which says why.
// False when a record went through EncodeParam.
bool EncodePlan(CWriter* p_av, TParamPlan* p_plan_av, int32_t i_from_av, int32_t i_to_av) {
  bool b_all_lv = true;
  for (int32_t i_lv = i_from_av; i_lv < i_to_av; i_lv++) {
    uint32_t ui_len_lv = p_plan_av->m_ui_lengths[i_lv];
    uint64_t ui64_end_lv = static_cast<uint64_t>(p_av->m_ui_params_size) + ui_len_lv;
    if (ui_len_lv == 0 || ui64_end_lv > p_av->m_ui_params_capacity) {
      EncodeParam(p_plan_av->m_p_params[i_lv], &p_av->m_pb_params, &p_av->m_ui_params_capacity,
                  &p_av->m_ui_params_size);
      b_all_lv = false;
      continue;
    }
    uint8_t* pb_lv = p_av->m_pb_params + p_av->m_ui_params_size;
    const TParamFixed* p_fixed_lv = p_plan_av->m_p_fixed[i_lv];
    const void* p_value_lv = p_plan_av->m_p_params[i_lv]->value;
    if (p_fixed_lv == nullptr) {
      p_av->m_ui_params_size += WriteParamRecord(p_plan_av->m_p_params[i_lv], ui_len_lv, pb_lv);
    } else if (p_fixed_lv->m_ui_payload == 0) {  // the type text, its length in the plan
      p_plan_av->m_ui_value_at[i_lv] = p_av->m_ui_params_size + p_fixed_lv->m_ui_length + 4;
      p_av->m_ui_params_size += ParamTextWrite(p_fixed_lv, static_cast<const char*>(p_value_lv),
                                               ui_len_lv - ParamTextLength(p_fixed_lv, 0), pb_lv);
    } else {
      p_plan_av->m_ui_value_at[i_lv] = p_av->m_ui_params_size + p_fixed_lv->m_ui_length - p_fixed_lv->m_ui_payload;
      p_av->m_ui_params_size += ParamFixedWrite(p_fixed_lv, p_value_lv, pb_lv);
    }
  }
  return b_all_lv;
}

// Puts the frame's values into the channel's last section when the frame
// has the same elements, of the same kinds, as the frame that made it:
// its records are then the same ones. False otherwise, and the section is
// encoded whole (what was put in place is overwritten).
bool PatchLayout(CWriter* p_av, const ProfileParam* p_frame_av, const TFrameRead* p_rd_av) {
  const TParamLayout* p_lay_lv = &p_av->m_param_layout;
  if (p_lay_lv->m_i_count < 0 || p_av->m_pb_params == nullptr || p_av->m_ui_params_capacity < p_lay_lv->m_ui_size ||
      p_rd_av->m_i_count != p_lay_lv->m_i_elements ||
      memcmp(p_rd_av->m_ui_fields, p_lay_lv->m_ui_fields, sizeof(p_lay_lv->m_ui_fields)) != 0)
    return false;
  for (int32_t i_rec_lv = 0; i_rec_lv < p_lay_lv->m_i_count; i_rec_lv++) {
    const ProfileParam* p_lv = p_frame_av + p_lay_lv->m_ui_pos[i_rec_lv];
    if (p_lv->value == nullptr) return false;  // a null index has a record of its own form
    uint8_t* pb_lv = p_av->m_pb_params + p_lay_lv->m_ui_value_at[i_rec_lv];
    if (p_lay_lv->m_ui_payload[i_rec_lv] == 8) {
      memcpy(pb_lv, p_lv->value, 8);
    } else if (p_lay_lv->m_ui_payload[i_rec_lv] == 4) {
      memcpy(pb_lv, p_lv->value, 4);
    } else {
      if (p_lv != p_rd_av->m_p_type || p_rd_av->m_ui_type_len != p_lay_lv->m_ui_type_len) return false;
      memcpy(pb_lv, p_lv->value, p_rd_av->m_ui_type_len);
    }
  }
  p_av->m_ui_params_size = p_lay_lv->m_ui_size;
  return true;
}

// Keeps where the section's records lie when every record of the frame has
// a fixed form and was written in place.
void KeepLayout(CWriter* p_av, const TParamPlan* p_plan_av, int32_t i_frame_count_av, const ProfileParam* p_frame_av,
                const TFrameRead* p_rd_av) {
  TParamLayout* p_lay_lv = &p_av->m_param_layout;
  if (i_frame_count_av > I_PARAM_LAYOUT_MAX || p_rd_av->m_i_count > I_PARAM_LAYOUT_ELEMENTS) return;
  for (int32_t i_lv = 0; i_lv < i_frame_count_av; i_lv++) {
    const TParamFixed* p_fixed_lv = p_plan_av->m_p_fixed[i_lv];
    if (p_fixed_lv == nullptr) return;
    p_lay_lv->m_ui_pos[i_lv] = static_cast<uint8_t>(p_plan_av->m_p_params[i_lv] - p_frame_av);
    p_lay_lv->m_ui_payload[i_lv] = static_cast<uint8_t>(p_fixed_lv->m_ui_payload);
    p_lay_lv->m_ui_value_at[i_lv] = p_plan_av->m_ui_value_at[i_lv];
  }
  memcpy(p_lay_lv->m_ui_fields, p_rd_av->m_ui_fields, sizeof(p_lay_lv->m_ui_fields));
  p_lay_lv->m_i_elements = p_rd_av->m_i_count;
  p_lay_lv->m_ui_type_len = p_rd_av->m_ui_type_len;
  p_lay_lv->m_ui_size = p_av->m_ui_params_size;
  p_lay_lv->m_i_count = i_frame_count_av;
}

// The frame's other elements and the local list, encoded for the
// parameter section; the buffer is kept between frames and only grows.
void EncodeFrameParams(CWriter* p_av, const ProfileParam* p_frame_av, const TFrameRead* p_rd_av, TWaitStat* p_wd_av) {
  int64_t i64_prev_write_lv = 0;
  ProfileParam local_lv[] = {{PP_INT64, "arc_prev_write", &i64_prev_write_lv}, {PP_END, nullptr, nullptr}};
  TParamPlan plan_lv;
  plan_lv.m_i_count = 0;
  plan_lv.m_b_whole = true;
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20124, 4);
  p_av->m_ui_params_size = 0;
  if (p_frame_av != nullptr && PatchLayout(p_av, p_frame_av, p_rd_av)) {
    Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20125, 5);
    Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20126, 6);
    Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20127, 7);
    Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20128, 8);
    return;  // the local records are constant: they stand as they were written
  }
  p_av->m_ui_params_size = 0;
  p_av->m_param_layout.m_i_count = -1;
  uint64_t ui64_size_lv = p_frame_av != nullptr ? ParamsSize(p_frame_av, p_rd_av, &plan_lv) : 0;
  int32_t i_frame_count_lv = plan_lv.m_i_count;
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20125, 5);
  ui64_size_lv += g_known_records.m_prev_write.m_ui_length;
  PlanAdd(&plan_lv, &local_lv[0], &g_known_records.m_prev_write, g_known_records.m_prev_write.m_ui_length);
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20126, 6);
  if (ui64_size_lv <= 0x7FFFFFFFu && p_av->m_ui_params_capacity < ui64_size_lv) {
    uint8_t* pb_lv = p_av->m_pb_params;
    SAFE_MEM_REALLOCB4(pb_lv, static_cast<int32_t>(ui64_size_lv), I_SIGN_FRAME_PARAMS);
    if (pb_lv != p_av->m_pb_params) {
      p_av->m_pb_params = pb_lv;
      p_av->m_ui_params_capacity = static_cast<uint32_t>(ui64_size_lv);
    }
  }
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20127, 7);
  // A list longer than the plan is encoded the long way, measure and all.
  if (!plan_lv.m_b_whole) {
    if (p_frame_av != nullptr) EncodeList(p_av, p_frame_av, p_rd_av);
    Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20128, 8);
    EncodeList(p_av, local_lv, nullptr);
    return;
  }
  bool b_in_place_lv = EncodePlan(p_av, &plan_lv, 0, i_frame_count_lv);
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20128, 8);
  b_in_place_lv = EncodePlan(p_av, &plan_lv, i_frame_count_lv, plan_lv.m_i_count) && b_in_place_lv;
  if (b_in_place_lv && p_frame_av != nullptr) KeepLayout(p_av, &plan_lv, i_frame_count_lv, p_frame_av, p_rd_av);
}

// Nothing goes to the archive before the first key frame of the channel or
// before the archive has loaded what it knows.
bool ReadyToWrite(CWriter* p_av) {
  if (p_av->m_b_is_fierst_key_accepted == 0) {
    TRACE44(TLOG_ARC, "<root>writer, warning, not m_b_is_fierst_key_accepted");
    return false;
  }
  if (ArcGetParams(-1, 34) != 0) return true;
  TRACE44(TLOG_ARC_TRACE, "<%lld>warning, writer, start but not m_b_is_all_load_arc_info_complete",
          static_cast<long long>(InfoCamId(p_av->m_camera_info_w)));
  return false;
}

void LogAdmitted(CWriter* p_av) {
  static const char* const S_MPEG4_LV[] = {"XVID", "DIVX", "xvid", "divx", "DX50", "mp4v", "H264", "h264"};
  if (!LogTraceWanted(TLOG_ARC_TRACE)) return;
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  UtcText(p_av->m_i64_time, s_time_lv);
  int i_mpeg4_lv = FccIn(p_av->m_ui_fcc, S_MPEG4_LV, 8) ? 1 : 0;
  TRACE44(TLOG_ARC_TRACE, "<%lld>on frame %lld %s key %d width %d height %d fcc %d mpeg4 %d si %d ex si %d type %s ",
          static_cast<long long>(InfoCamId(p_av->m_camera_info_w)), static_cast<long long>(p_av->m_i64_time),
          s_time_lv, p_av->m_i_key, p_av->m_i_width, p_av->m_i_height, static_cast<int>(p_av->m_ui_fcc), i_mpeg4_lv,
          static_cast<int>(p_av->m_ui_data_size), static_cast<int>(p_av->m_ui_extra_size), p_av->m_s_frame_type);
}

// Checks from the walk to the index gaps; true when the frame goes on.
bool CheckFrame(CWriter* p_av, ProfileParam* p_frame_av, TFrameRead* p_rd_av, int64_t i64_now_av,
                long long i64_cam_av) {
  if (p_frame_av != nullptr) WalkFrame(p_av, p_frame_av, p_rd_av, i64_cam_av);
  if (p_rd_av->m_b_bad) TRACE45(TLOG_ARC, TSEV_FAULT, "<error>data not correct");
  if (!p_rd_av->m_b_ok || !CheckMedium(p_av)) return false;
  int64_t i64_orig_lv = p_rd_av->m_i64_time;
  CorrectTime(p_av, i64_orig_lv, i64_now_av);
  LogTimes(p_av, i64_orig_lv, i64_now_av);
  // Recording by events without a pre-event ring starts at a key frame.
  if (p_av->m_b_key_since_need == 0 && AtomicGet(&p_av->m_camera_info_w->m_b_write_by_event) != 0 &&
      !(AtomicGet(&p_av->m_by_event.prev_write) > 0))
    return false;
  LogIndexGap(p_av, p_rd_av->m_i64_index);
  return p_rd_av->m_i_count > 1;
}

// The frame number: the low 12 bits count frames since the key frame, the
// rest count key frames.
uint32_t NextFrameNumber(CWriter* p_av) {
  p_av->m_ui_frame_number++;
  if (p_av->m_i_key != 0) p_av->m_ui_frame_number = (p_av->m_ui_frame_number & ~0xFFFu) + 0x1000u;
  return p_av->m_ui_frame_number;
}

void LogFilled(CWriter* p_av, int64_t i64_local_av) {
  if (!LogTraceWanted(TLOG_ARC_TRACE)) return;
  uint32_t ui_field_lv = 0xFFFFFFFFu;
  if (p_av->m_ui_data_size > 20)
    memcpy(&ui_field_lv, static_cast<const uint8_t*>(p_av->m_p_data) + p_av->m_ui_data_size - 16, 4);
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  FileTimeToText(static_cast<uint64_t>(i64_local_av), s_time_lv);
  TRACE44(TLOG_ARC_TRACE, "<rtsp%lld> fill buff i %x, time %lld  %s size %d field %x ",
          static_cast<long long>(InfoCamId(p_av->m_camera_info_w)), p_av->m_ui_frame_number,
          static_cast<long long>(p_av->m_i64_time), s_time_lv, static_cast<int>(p_av->m_ui_data_size), ui_field_lv);
}

}  // namespace

void FCCToDataType(uint32_t ui_fcc_av, char* s_out_av) {
  static const char* const S_VIDEO_LV[] = {"XVID", "xvid", "DIVX", "divx", "DX50", "mp4v",
                                           "H264", "h264", "JPEG", "jpeg", "KMM2"};
  // Three-letter codes carry a zero as their fourth byte.
  static const char* const S_AUDIO_LV[] = {"PCM\0", "PCMA", "PCMU", "pcma", "pcmu", "alaw", "mlaw",
                                           "GSM\0", "gsm\0", "GSM6", "gsm6", "G726", "g726", "MP3\0",
                                           "mp3\0", "AC3\0", "ac3\0", "mp4a"};
  if (FccIn(ui_fcc_av, S_VIDEO_LV, sizeof(S_VIDEO_LV) / sizeof(S_VIDEO_LV[0])))
    CopyCut(s_out_av, UI_FRAME_TYPE_TEXT, "video");
  else if (FccIn(ui_fcc_av, S_AUDIO_LV, sizeof(S_AUDIO_LV) / sizeof(S_AUDIO_LV[0])))
    CopyCut(s_out_av, UI_FRAME_TYPE_TEXT, "audio");
  else
    s_out_av[0] = 0;
}

void on_frame_level1(CWriter* p_av, ProfileParam* p_frame_av, TWaitStat* p_wd_av) {
  int32_t i_slot_lv = p_wd_av != nullptr ? p_wd_av->m_i_stable_slot : -1;
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20121, 1);
  int64_t i64_now_lv = FileTimeNowLocalI64();
  long long i64_cam_lv = static_cast<long long>(InfoCamId(p_av->m_camera_info_w));
  TRACE44(TLOG_ARC_TRACE, "<%lld>start on frame prishel kadr", i64_cam_lv);
  TRACE44(TLOG_ARC_TRACE, "<profdata%lld>start on frame prishel kadr", i64_cam_lv);
  ClearFrame(p_av);
  StableMark(i_slot_lv, 21011);
  int32_t b_need_lv = NeedWriteAt(&p_av->m_by_event, i_slot_lv, i64_now_lv);
  StableMark(i_slot_lv, 21012);
  AtomicPut(&p_av->m_status.m_b_last_need, b_need_lv);
  StableMark(i_slot_lv, 21013);
  // A rising edge of the decision starts the wait for a key frame anew.
  if (b_need_lv == 1 && p_av->m_b_need_prev == 0) p_av->m_b_key_since_need = 0;
  p_av->m_b_need_prev = b_need_lv;
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20122, 2);
  TFrameRead rd_lv = {nullptr, 0, 0, 0, nullptr, UI_TYPE_LEN_UNKNOWN, true, false, {}};
  bool b_ok_lv = false;
  if (b_need_lv == 1) {
    p_av->m_ui_params_size = 0;
    b_ok_lv = CheckFrame(p_av, p_frame_av, &rd_lv, i64_now_lv, i64_cam_lv);
  }
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20123, 3);
  if (b_ok_lv) {
    EncodeFrameParams(p_av, p_frame_av, &rd_lv, p_wd_av);
    b_ok_lv = ReadyToWrite(p_av);
  }
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20129, 9);
  if (b_ok_lv) {
    LogAdmitted(p_av);
    TryWriteData(p_av->m_camera_info_w, i_slot_lv);
  }
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20130, 10);
  // The source learns from its counter that the stream is still wanted,
  // whatever became of this one frame.
  TRACE44(TLOG_ARC_TRACE, "<by_event%lld> bef need establ condit", i64_cam_lv);
  if (NeedWrite(&p_av->m_by_event, i_slot_lv) != 0 && rd_lv.m_p_need != nullptr) {
    TRACE44(TLOG_ARC_TRACE, "<by_event%lld> bef need establ", i64_cam_lv);
    CounterRaise(rd_lv.m_p_need);
  } else {
    AtomicPut(&p_av->m_status.m_i64_last_unneeded, i64_now_lv);
  }
  TRACE44(TLOG_ARC_TRACE, "<%lld>end on frame", i64_cam_lv);
  TRACE44(TLOG_ARC_TRACE, "<profdata%lld>end on frame", i64_cam_lv);
  Mark(p_wd_av, WAIT_GROUP_ON_FRAME, 20131, 0);
}

void FrameHashLog(CWriter* p_av) {
  int64_t i64_now_lv = FileTimeNowLocalI64();
  if (i64_now_lv > AtomicGet(&g_i64_hash_log_mark) + I64_HASH_LEVEL_REFRESH) {
    AtomicPut(&g_i64_hash_log_mark, i64_now_lv);
    LogRefreshLevels();
  }
  // The levels were checked just above: a second clock read for the flag
  // would only repeat that check.
  if (!LogChannelFlag(TLOG_ARC_TRACE)) return;
  uint64_t ui64_data_lv = p_av->m_ui_data_size > 0 ? StrHash64(p_av->m_p_data, p_av->m_ui_data_size) : 0;
  uint64_t ui64_extra_lv = p_av->m_ui_extra_size > 0 && p_av->m_p_extra != nullptr
                               ? StrHash64(p_av->m_p_extra, p_av->m_ui_extra_size)
                               : 0;
  p_av->m_ui64_hash_sum_data += ui64_data_lv;
  p_av->m_ui64_hash_sum_extra += ui64_extra_lv;
  char s_time_lv[FILE_TIME_TEXT_SIZE];
  UtcText(p_av->m_i64_time, s_time_lv);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld> frame hash curr d\t\t%llx e %llx summ d %llx e %llx time %s ",
          static_cast<long long>(InfoCamId(p_av->m_camera_info_w)), static_cast<unsigned long long>(ui64_data_lv),
          static_cast<unsigned long long>(ui64_extra_lv), static_cast<unsigned long long>(p_av->m_ui64_hash_sum_data),
          static_cast<unsigned long long>(p_av->m_ui64_hash_sum_extra), s_time_lv);
}

int32_t FillBuff(CWriter* p_av, int32_t i_slot_av) {
  StableMark(i_slot_av, 21871);
  CWriteBuffering* p_buff_lv = p_av->m_camera_info_w->m_p_write_buffering;
  uint32_t ui_head_lv = FrameBlockHeadSize(p_av->m_i_key);
  uint64_t ui64_portion_lv =
      static_cast<uint64_t>(p_av->m_ui_params_size) + p_av->m_ui_extra_size + ui_head_lv + p_av->m_ui_data_size + 49;
  uint32_t ui_portion_lv = ui64_portion_lv > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(ui64_portion_lv);
  StableMark(i_slot_av, 21872);
  if (ReservePortion(&p_buff_lv->m_buffs[p_buff_lv->m_i_curr_put_ind], ui_portion_lv) == 0) return 0;
  StableMark(i_slot_av, 21873);
  FrameHashLog(p_av);
  uint8_t* pb_lv = GetDataBuff(p_buff_lv);
  p_av->m_pb_frame_block = pb_lv;
  int64_t i64_local_lv = FrameLocalTicks(p_av->m_i64_time);
  p_av->m_i64_block_local_time = i64_local_lv;
  uint32_t ui_number_lv = NextFrameNumber(p_av);
  if (LogTraceWanted(TLOG_ARC_TRACE)) {
    char s_time_lv[FILE_TIME_TEXT_SIZE];
    FileTimeToText(static_cast<uint64_t>(i64_local_lv), s_time_lv);
    TRACE44(TLOG_ARC_TRACE, "<%lld>fill buff %lld time %s ", static_cast<long long>(InfoCamId(p_av->m_camera_info_w)),
            static_cast<long long>(i64_local_lv), s_time_lv);
  }
  StableMark(i_slot_av, 22011);
  uint16_t ui_codec_lv = p_av->m_i_key != 0 ? FccFactsOf(&p_av->m_fcc_facts, p_av->m_ui_fcc).m_ui_codec : 0;
  FrameBlockWriteHeadCodec(pb_lv, p_av->m_i_key, static_cast<uint64_t>(i64_local_lv), ui_number_lv, p_av->m_i_width,
                           p_av->m_i_height, p_av->m_ui_fcc, ui_codec_lv);
  uint32_t ui_pos_lv = ui_head_lv;
  ui_pos_lv += FrameBlockPutSection(pb_lv + ui_pos_lv, UI_SECTION_DATA, p_av->m_p_data, p_av->m_ui_data_size);
  StableMark(i_slot_av, 22021);
  if (p_av->m_ui_extra_size > 0)
    ui_pos_lv += FrameBlockPutSection(pb_lv + ui_pos_lv, UI_SECTION_EXTRA, p_av->m_p_extra, p_av->m_ui_extra_size);
  if (p_av->m_ui_params_size > 0)
    ui_pos_lv += FrameBlockPutSection(pb_lv + ui_pos_lv, UI_SECTION_PARAMS, p_av->m_pb_params, p_av->m_ui_params_size);
  p_av->m_ui_frame_block_size = ui_pos_lv;
  StableMark(i_slot_av, 22032);
  LogFilled(p_av, i64_local_lv);
  StableMark(i_slot_av, 21879);
  return 1;
}

// The media track: a message may carry several frames.
void on_frame(void* p_user_av, ProfileParam* p_params_av) {
  int64_t i64_counter_lv = PlPerfCounter();
  CWriter* p_av = static_cast<CWriter*>(p_user_av);
  long long i64_cam_lv = static_cast<long long>(InfoCamId(p_av->m_camera_info_w));
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<sched2%lld> on_frame beg", i64_cam_lv);
  CEntryScope scope_lv("on_frame");
  TWaitStat* p_wd_lv = p_av->m_p_frame_stat;
  if (p_wd_lv != nullptr) p_wd_lv->m_i_stable_slot = scope_lv.Slot();
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv != nullptr && AtomicGet(&p_global_lv->m_b_work_mode_150602) != 0) return;
  Mark(p_wd_lv, WAIT_GROUP_FRAME_STAT, 20141, 1);
  if (p_params_av != nullptr)
    for (ProfileParam* p_lv = p_params_av; p_lv->type != PP_END; p_lv++)
      if (IsFrameList(p_lv)) on_frame_level1(p_av, static_cast<ProfileParam*>(p_lv->value), p_wd_lv);
  int64_t i64_now_lv = FileTimeNowLocalI64();
  if (i64_now_lv > p_av->m_i64_last_stat_print + I64_STAT_PRINT_PERIOD) {
    WaitStatPrint(p_wd_lv, 1, InfoCamId(p_av->m_camera_info_w), p_av->m_i64_type_id);
    p_av->m_i64_last_stat_print = i64_now_lv;
  }
  Mark(p_wd_lv, WAIT_GROUP_FRAME_STAT, 20142, 0);
  int64_t i64_ticks_lv = (PlPerfCounter() - i64_counter_lv) * 10000000LL / PlPerfFrequency();
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<sched2%lld> on_frame end dur %lld ms", i64_cam_lv,
          static_cast<long long>(i64_ticks_lv / 10000));
}

// The status track: a source may count its listeners with "listen".
void on_data2(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("on_data2");
  (void)p_user_av;
  if (p_params_av == nullptr) return;
  ProfileParam* p_status_lv = nullptr;
  for (ProfileParam* p_lv = p_params_av; p_lv->type != PP_END; p_lv++)
    if (Is(p_lv, "status", PP_LIST)) p_status_lv = static_cast<ProfileParam*>(p_lv->value);
  if (p_status_lv == nullptr) return;
  int32_t* p_listen_lv = nullptr;
  for (ProfileParam* p_lv = p_status_lv; p_lv->type != PP_END; p_lv++)
    if (Is(p_lv, "listen", PP_INT32)) p_listen_lv = static_cast<int32_t*>(p_lv->value);
  if (p_listen_lv != nullptr) CounterRaise(p_listen_lv);
}
