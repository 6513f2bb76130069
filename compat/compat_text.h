// Text helpers of the compatibility layer: the probing length of a narrow
// text, and UTF-8 / UTF-16 conversion into the layer's fenced buffers. Used
// by SAFE_STRCAT, the application directory and the wide profile-file calls.
#pragma once

#include <cstdint>

#include "compat/compat.h"

// Bytes of narrow text in front of the first 0 byte, the first byte with its
// top bit set, an address that cannot be read, or i_max_av. Null gives 0.
int32_t CompatSafeLen(const char* s_text_av, int32_t i_max_av);
// 16-bit units in front of the terminating 0, at most i_max_av. Null gives 0.
int32_t CompatWideLen(const TCompatWChar* s_text_av, int32_t i_max_av);

// Converts i_len_av bytes of UTF-8 into a terminated wide buffer of this
// layer held by *pp_out_av (grown as needed). Bytes that are not UTF-8 become
// U+FFFD. The number of units, or -1 when memory is short.
int32_t CompatUtf8ToWide(const char* s_text_av, int32_t i_len_av, TCompatWChar** pp_out_av);
// Converts a terminated wide text (at most i_max_av units) into a terminated
// UTF-8 buffer of this layer held by *pp_out_av. Lone surrogates become
// U+FFFD. The number of bytes, or -1 when memory is short.
int32_t CompatWideToUtf8(const TCompatWChar* s_text_av, int32_t i_max_av, char** pp_out_av);
