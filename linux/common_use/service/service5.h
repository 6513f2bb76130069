// System events that the plug-in posts on "track_event" about itself (lost
// liveness, passed frames, storage faults, forced recording), the media name
// of a channel, and the whole-file read of the saved parameters.
//
// The channel lives in the writer: callers pass its send handle on
// "track_event", its key strings from key1 on and its media type id.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/temp/tools.h"

// Event codes posted; "event_type" carries the code plus this base.
const int32_t SYS_EVENT_BASE = 60000;
const int32_t SYS_EVENT_LIVE_EXPIRED = 2;
const int32_t SYS_EVENT_PASS = 24;
const int32_t SYS_EVENT_FORCE_START = 30;
const int32_t SYS_EVENT_FORCE_STOP = 31;
const int32_t SYS_EVENT_STORAGE = 33;

// Number of elements of a system event message, the closing one left out.
const int32_t SYS_EVENT_ELEMS = 14;

// Posts one system event on the track handle. p_keys_av points at the
// channel's key1, key2, key3 in a row, or is null; i64_media_av is the
// channel's media type id (StrHash64 of "video" or "audio"). A failed post
// is logged, never retried.
void PostSystemEvent(TrackHandle h_track_av, int32_t i_event_code_av, const SafeString* p_keys_av,
                     int64_t i64_media_av, const char* s_comment_av, const char* s_sysinfo_av);
// "video", "audio" or "" for the digests of those texts; any other digest
// leaves out as it was.
void ResolveMediaName(int64_t i64_media_av, SafeString* p_out_av);
// Reads size bytes from the start of the file descriptor. Returns 1 on
// success and 0 on failure (logged); out count (may be null) gets the bytes
// read.
int32_t UnivReadFromFile(int fd_av, void* p_buffer_av, uint32_t ui_size_av, uint32_t* p_count_av);
