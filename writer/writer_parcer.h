// The configuration document of a camera: the template the plug-in
// publishes (the "fish"), the language table of its keys, and the one-pass
// reader that takes a filled document apart key by key. The channel open
// and reconfiguration call the reader; forced recording reads key2 alone.
#pragma once

#include <cstdint>

#include "linux/common_use/temp/clist.h"
#include "linux/common_use/temp/tools.h"

// Longest storage name kept; the rest is cut.
const int32_t I_STORAGE_NAME_MAX = 255;

extern const char* const S_FISH_TYPES;
extern const char* const S_FISH;
extern const char* const S_LANGUAGE_KEYS;

// Reads the document into the caller's outputs. Sets the ID_54 present
// flag, the document flag, by_events and view_prior to 0 first; every other
// output keeps the caller's value unless the document gives the key.
// Arc keys and common keys are arrays of five.
void ParseWriterConfig(const char* s_json_av, SafeString* p_arc_keys_av, SafeString* p_common_keys_av,
                       SafeString* p_in_av, uint32_t* p_id54_av, int32_t* p_id54_present_av,
                       SafeString* p_storage_av, int32_t* p_by_events_av, CListOur* p_events_av,
                       int64_t* p_prev_write_av, int64_t* p_post_write_av, int32_t* p_view_prior_av,
                       int32_t* p_depth_restrict_av, int64_t* p_depth_av, int32_t* p_only_key_frame_av,
                       int32_t* p_is_profiles_av);
// Appends the events of a comma-separated text, then the forced pair.
void ParseEventList(const char* s_text_av, CListOur* p_events_av);
// The top-level key2 of a document, when there is one.
void ParseKey2(const char* s_json_av, SafeString* p_out_av);
