// What became of each frame the plug-in asked about, per camera and medium,
// as the archive sees it: the per-frame question, the session the frame
// found, and the write that followed, or none. Fed by the exported
// functions (arc_main.cpp), read by the host-only ones (arc_account.cpp).
#pragma once

#include <cstdint>

#include "include/host/archive_api.h"

namespace warc {

// Code 34 as the frame path asks it: counted per calling thread.
void AccountReadyAnswer(int64_t i64_answer_av);
// The per-frame question of a channel (85 video, 107 audio) and its answer.
// Until the channel's next question, the calling thread's session news and
// writes belong to that frame.
void AccountQuestion(int64_t i64_camera_av, uint32_t ui_kind_av, int64_t i64_answer_av);
// Whether the calling thread's channel has a session for its frame: code 29
// answered, or an open done.
void AccountSession(bool b_session_av);
// One write of the calling thread's channel; camera -1 when the handle
// names no session. Result as WriteDataForTime gives it.
void AccountWrite(int64_t i64_camera_av, uint32_t ui_kind_av, int32_t i_result_av);
// A camera announced with its keys, for the host to find it by folder.
void AccountCamera(const ArchiveKey* p_keys_av, int64_t i64_camera_av);
void AccountReset();
// Questions of all channels since the start or the last reset.
int64_t AccountAskedTotal();

}  // namespace warc
