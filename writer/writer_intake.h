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

// One nested "frame" list; wd is the channel's frame statistic or null.
void on_frame_level1(CWriter* p_av, ProfileParam* p_frame_av, TWaitStat* p_wd_av);
// "video", "audio" or "" for a four-character code; out holds
// UI_FRAME_TYPE_TEXT bytes.
void FCCToDataType(uint32_t ui_fcc_av, char* s_out_av);
// Builds the current frame's block in the accepting buffer; 0 when the
// buffer refuses the portion. Caller holds the buffering lock.
int32_t FillBuff(CWriter* p_av, int32_t i_slot_av);
void FrameHashLog(CWriter* p_av);
