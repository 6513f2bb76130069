// The section-and-key text file of the compatibility layer: where a section
// and a key stand in the file's text. Used by the exported
// mGetPrivateProfileString / mWritePrivateProfileString (and wide forms).
//
// The text is a run of lines ending in CR, LF or any run of them; blanks at a
// line's start are skipped; ";" starts a comment; "[name]" starts a section;
// "key=value" is an entry. Names and keys match byte for byte, case counts.
#pragma once

#include <cstdint>

// Largest file the layer reads or writes, and longest section, key or value.
const int32_t I_PROFILE_FILE_MAX = 16 * 1024 * 1024;
const int32_t I_PROFILE_FIELD_MAX = 1024 * 1024;

// Offset where the body of the section begins (behind its header line), or
// -1 when the text has no such header. A null section is the part of the
// text in front of the first header: it always exists and begins at 0.
int32_t ProfileFindSection(const char* s_text_av, int32_t i_len_av, const char* s_section_av);

struct TProfileKeyPos {
  int32_t i_value_start;  // when found: the value, up to its line end
  int32_t i_value_end;
  // When not found: where a new entry of the section goes. That is in front
  // of the next header, above the comments right over it so that they stay
  // with the section they describe; -1 for the end of the text.
  int32_t i_insert_at;
};

// Looks for the key in the section body starting at i_body_av, up to the next
// header. True when found.
bool ProfileFindKey(const char* s_text_av, int32_t i_len_av, int32_t i_body_av, const char* s_key_av,
                    int32_t i_key_len_av, TProfileKeyPos* p_pos_av);
