// The recording channel: CWriter (one media type of one camera), its
// identity and session object TCameraInfoW, and CWriterPair (video and
// audio of one camera). plugin_open builds and opens a pair, plugin_exec
// starts and reconfigures it, plugin_close takes it down.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/diagnostic.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_sync.h"
#include "writer/writer_buffering.h"
#include "writer/writer_by_event.h"
#include "writer/writer_exchanger.h"
#include "writer/writer_inform.h"
#include "writer/writer_intake.h"
#include "writer/writer_schedule.h"

class CWriter;

// No archive write session.
const int32_t INVALIDATE_WRITE_HANDLE = -1;
const int64_t I64_TICKS_PER_SECOND = 10000000LL;
const int64_t I64_TICKS_PER_DAY = 864000000000LL;
// 1,000 days.
const int64_t I64_DEPTH_DEFAULT = 864000000000000LL;

// Archive codes that tell a channel's state, video / audio.
const int32_t I_CODE_BY_EVENT_VIDEO = 90;
const int32_t I_CODE_BY_EVENT_AUDIO = 108;
const int32_t I_CODE_START_VIDEO = 64;
const int32_t I_CODE_START_AUDIO = 104;
const int32_t I_CODE_LEAVE_VIDEO = 89;
const int32_t I_CODE_LEAVE_AUDIO = 105;

// The channel's status block; its first field mirrors write_by_event.
struct TWriterStatus {
  int32_t m_b_write_by_event;
  int64_t m_i64_last_source_stat;
  int32_t m_b_last_need;
  int32_t m_b_write_on;
  int64_t m_i64_last_unneeded;
  int32_t m_b_sched;
  int64_t m_i64_last_detect;
  int64_t m_i64_sched_last_get;
  TBuffFillStat m_buff_fill1;  // fill statistic of buffer index 0
  TBuffFillStat m_buff_fill2;  // and of index 1
  int32_t m_b_is_write_error;
  int64_t m_i64_last_alive_confirm;
  int64_t m_i64_buff_thread_last_itter;
  int32_t m_i_buff_frames[2];  // records in each of the two buffers
};

class TCameraInfoW {
 public:
  explicit TCameraInfoW(CWriter* p_writer_av);
  ~TCameraInfoW();
  TCameraInfoW(const TCameraInfoW&) = delete;
  TCameraInfoW& operator=(const TCameraInfoW&) = delete;

  CWriter* m_p_writer;
  int64_t m_i64_id1;
  int64_t m_i64_id2;
  int64_t m_i64_id3;
  SafeString m_s_arc_keys[5];
  SafeString m_s_common_keys[5];
  uint32_t m_ui_id54;
  uint32_t m_ui_id54_present;
  int64_t m_i64_storage_id;
  SafeString m_s_storage;
  int32_t m_b_write_off;
  int32_t m_i_view_prior;
  int32_t m_b_write_by_event;
  int32_t m_dw_write_handle;
  CWriteBuffering* m_p_write_buffering;
  int64_t m_i64_last_handle_check;
  int64_t m_i64_last_pass_report;
  uint32_t m_ui_pass_count;
  int64_t m_i64_pass_window_start;
  int64_t m_i64_pass_in_window;
  int64_t m_i64_pass_prev_window;
  int64_t m_i64_overload_check;
  int64_t m_i64_overload_passes;
  int32_t m_b_wait_key;
  char m_s_pass_text[100];
  int32_t m_b_depth_restrict;
  int64_t m_i64_depth;
  SafeString m_s_in;
};

class CWriter final {
 public:
  CWriter();
  ~CWriter();
  CWriter(const CWriter&) = delete;
  CWriter& operator=(const CWriter&) = delete;

  // Kept as the base of the type; nothing calls it.
  virtual void OnError();

  TWaitStat* m_p_frame_stat;  // wait statistic of on_frame; its slot is the running call's
  int64_t m_i64_last_stat_print;
  uint8_t* m_pb_frame_block;
  uint32_t m_ui_frame_block_size;
  uint32_t m_ui_frame_number;
  TrackHandle m_h_track_frames;
  TrackHandle m_h_track_status;
  uint32_t m_ui_fcc;
  const void* m_p_data;
  uint32_t m_ui_data_size;
  const void* m_p_extra;
  uint32_t m_ui_extra_size;
  int32_t m_i_width;
  int32_t m_i_height;
  int32_t m_i_key;
  int64_t m_i64_time;
  char m_s_frame_type[256];
  int32_t m_b_is_fierst_key_accepted;
  CWriter* m_p_owner;
  int64_t m_i64_prev_index;
  int64_t m_i64_prev_audio_index;
  int64_t m_i64_prev_video_index;
  uint8_t* m_pb_params;
  uint32_t m_ui_params_capacity;
  uint32_t m_ui_params_size;
  int64_t m_i64_prev_time;
  int64_t m_i64_last_forward_time;
  uint64_t m_ui64_hash_sum_data;
  uint64_t m_ui64_hash_sum_extra;
  int64_t m_i64_prev_local_time;
  TCameraInfoW* m_camera_info_w;
  CWriterByEvent m_by_event;
  int32_t m_b_need_prev;
  int32_t m_b_key_since_need;
  CWriter* m_p_write_owner;
  int32_t m_i_write_zero;
  int32_t m_i_write_minus_one;
  int32_t m_i_write_flag;
  int32_t m_i_stab_slot;
  CWriter* m_p_stab_owner;
  int64_t m_i64_stab_zero;
  int64_t m_i64_last_need_time;
  WriterSchedule* m_p_schedule;
  uint32_t m_ui_text_len;
  char m_s_text[2048];
  TWriterStatus m_status;
  PlCritSect m_crit_sect;
  int32_t m_b_only_key_frame;
  int64_t m_i64_type_id;
  SafeString m_s_type;
  // Kept by the frame path so that a frame's values are worked out once:
  // the local time FillBuff wrote into the block's head, for WriteData, and
  // what the channel's last four-character code stands for.
  int64_t m_i64_block_local_time;
  TFccFacts m_fcc_facts;
  TParamLayout m_param_layout;
};

// Video first, audio second, in one allocation.
class CWriterPair {
 public:
  CWriterPair();
  ~CWriterPair();
  CWriterPair(const CWriterPair&) = delete;
  CWriterPair& operator=(const CWriterPair&) = delete;

  CWriter m_video;
  CWriter m_audio;
};

// The values one configuration gives a channel, as read from "json" or
// "start" elements (seconds and days already turned into ticks).
struct TWriterConfig {
  TWriterConfig();
  ~TWriterConfig();
  TWriterConfig(const TWriterConfig&) = delete;
  TWriterConfig& operator=(const TWriterConfig&) = delete;

  SafeString m_s_arc_keys[5];
  SafeString m_s_common_keys[5];
  SafeString m_s_in;
  SafeString m_s_storage;
  uint32_t m_ui_id54;
  int32_t m_b_id54_present;
  int32_t m_b_by_events;
  int64_t m_i64_prev_write;
  int64_t m_i64_post_write;
  int32_t m_i_view_prior;
  int32_t m_b_depth_restrict;
  int64_t m_i64_depth;
  int32_t m_b_only_key_frame;
  int32_t m_b_profiles;  // some element was a "profiles" document
};

// Reads every "json" or "start" element of params into the config and the
// channel's event list.
void WriterParseParams(CWriter* p_av, ProfileParam* p_params_av, TWriterConfig* p_cfg_av);
bool WriterIsAudio(const CWriter* p_av);
// The camera id and the write handle, read whole by any thread.
int64_t InfoCamId(const TCameraInfoW* p_info_av);
int32_t InfoWriteHandle(const TCameraInfoW* p_info_av);
void WriterOpen(CWriter* p_av, ProfileParam* p_params_av);
void WriterCloseTracks(CWriter* p_av);
void WriterStart(CWriter* p_av);
// Asks the source on the status track for frames, with the bus discipline.
void WriterAskFrames(CWriter* p_av);
void WriterReconfigure(CWriter* p_av, ProfileParam* p_params_av);
void WriterApplyConfig(CWriter* p_av, const TWriterConfig* p_cfg_av, ProfileParam* p_params_av);
void WriterPushSessionParams(CWriter* p_av);
