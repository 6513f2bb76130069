// The write process of a channel, methods of its TCameraInfoW. The put half
// runs on the frame source's thread: it admits a frame into the accepting
// buffer or passes it over when the buffers are at their limit
// (TryWriteData, WriteData). The get half runs on the buffering thread: it
// keeps the archive session (OpenWriteHandle, CheckWriteSession,
// CloseWriteHandle) and writes a frame (WriteFrame, WriteDataDirect).
#pragma once

#include <cstdint>

#include "linux/common_use/diagnostic.h"

class TCameraInfoW;

// Frames in the accepting buffer beyond which only growth lets one in.
const int32_t I_BUFF_FRAMES_MAX = 500;
// Passes within one window that raise the overload report (code 126).
const int64_t I64_PASS_WINDOW = 100000000LL;          // 10 s
const int64_t I64_PASS_REPORT_LIMIT = 20;
const int64_t I64_OVERLOAD_QUIET = 1800000000LL;      // 180 s
const int64_t I64_PASS_EVENT_PERIOD = 1200000000LL;   // 120 s
const int64_t I64_OPEN_RETRY_PAUSE = 50000000LL;      // 5 s

// Status codes reported to the archive under codes 65 / 106.
const int32_t I_WR_STATUS_START = -60;
const int32_t I_WR_STATUS_LOST = -61;
const int32_t I_WR_STATUS_NO_HANDLE = -63;
const int32_t I_WR_STATUS_BAD_PARAM = -64;

// Frame type byte bits.
const uint8_t UI_FRAME_TYPE_ANY = 1;
const uint8_t UI_FRAME_TYPE_KEY = 2;
const uint8_t UI_FRAME_TYPE_MPEG4 = 32;
const uint8_t UI_FRAME_TYPE_AUDIO = 64;

int32_t TryWriteData(TCameraInfoW* p_av, int32_t i_slot_av);
int32_t WriteData(TCameraInfoW* p_av, int32_t i_slot_av);
int32_t OpenWriteHandle(TCameraInfoW* p_av, int32_t* p_error_av, int32_t* p_do_write_av, TWaitStat* p_wd_av);
void CheckWriteSession(TCameraInfoW* p_av, TWaitStat* p_wd_av);
int32_t WriteFrame(TCameraInfoW* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                   int64_t i64_time_av, TWaitStat* p_wd_av);
int32_t WriteDataDirect(TCameraInfoW* p_av, const uint8_t* pb_data_av, uint32_t ui_size_av, uint8_t ui_type_av,
                        int64_t i64_time_av, TWaitStat* p_wd_av);
int32_t CloseWriteHandle(TCameraInfoW* p_av);

// The archive's code for the channel's medium: the video or the audio one.
int32_t MediaCode(const TCameraInfoW* p_av, int32_t i_video_av, int32_t i_audio_av);
// The frame type byte of the channel's current frame; b_mpeg4_av tells
// whether its code is of the MPEG-4 family (FccIsMpeg4).
uint8_t FrameTypeByte(int32_t i_key_av, bool b_mpeg4_av, const char* s_frame_type_av);
// A frame time (microseconds since 1970 UTC) as local file-time ticks.
int64_t FrameLocalTicks(int64_t i64_micros_av);
