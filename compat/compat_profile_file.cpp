// The section-and-key text file: reading a value (writing the default when
// the key is missing) and writing one in place. No lock is taken: two
// writers of one file can overwrite each other, and the file is rewritten in
// place, without a temporary copy. Called by modules outside the plug-in.
#include "compat/compat_profile_file.h"

#include <cstring>

#include "compat/compat.h"
#include "compat/compat_memory.h"
#include "compat/compat_text.h"
#include "platform/pl_os.h"

namespace {

const int32_t I_READ_CHUNK = 64 * 1024;
// Room for the CR LF in front, "[", "]", CR LF, "=" and the closing CR LF.
const int32_t I_WRITE_SLACK = 11;
// Longest wide file name taken.
const int32_t I_WIDE_NAME_MAX = 32767;

struct TLine {
  int32_t i_start;    // first byte of the line
  int32_t i_content;  // first byte after the leading blanks
  int32_t i_end;      // the CR or LF that ends it, or the text's end
  int32_t i_next;     // first byte of the next line
};

TLine LineAt(const char* s_text_av, int32_t i_len_av, int32_t i_start_av) {
  TLine line_lv = {i_start_av, i_start_av, i_start_av, i_start_av};
  while (line_lv.i_content < i_len_av && s_text_av[line_lv.i_content] == ' ') line_lv.i_content++;
  line_lv.i_end = line_lv.i_content;
  while (line_lv.i_end < i_len_av && s_text_av[line_lv.i_end] != '\r' && s_text_av[line_lv.i_end] != '\n')
    line_lv.i_end++;
  line_lv.i_next = line_lv.i_end;
  while (line_lv.i_next < i_len_av && (s_text_av[line_lv.i_next] == '\r' || s_text_av[line_lv.i_next] == '\n'))
    line_lv.i_next++;
  return line_lv;
}

bool IsHeader(const char* s_text_av, const TLine& line_av) {
  return line_av.i_content < line_av.i_end && s_text_av[line_av.i_content] == '[';
}

bool HasLineBreak(const char* s_av, int32_t i_len_av) {
  return memchr(s_av, '\r', static_cast<size_t>(i_len_av)) != nullptr ||
         memchr(s_av, '\n', static_cast<size_t>(i_len_av)) != nullptr;
}

// Length of a field, or -1 when it is longer than a field may be.
int32_t FieldLen(const char* s_av) {
  if (s_av == nullptr) return 0;
  const void* p_end_lv = memchr(s_av, 0, static_cast<size_t>(I_PROFILE_FIELD_MAX) + 1);
  return p_end_lv == nullptr ? -1 : static_cast<int32_t>(static_cast<const char*>(p_end_lv) - s_av);
}

// The whole file into a zeroed buffer with i_extra_av spare bytes and a
// terminator, creating the file when it is missing. False when it cannot be
// opened for writing or read, or is larger than the layer takes.
bool ReadWhole(const char* s_file_av, int32_t i_extra_av, char** pp_text_av, int32_t* p_len_av) {
  int i_fd_lv = PlFileOpen(s_file_av, PL_FILE_APPEND);
  if (i_fd_lv < 0) return false;
  PlFileClose(i_fd_lv);
  i_fd_lv = PlFileOpen(s_file_av, PL_FILE_READ);
  if (i_fd_lv < 0) return false;
  char* s_text_lv = nullptr;
  int32_t i_len_lv = 0;
  bool b_ok_lv = true;
  for (;;) {
    if (i_len_lv > I_PROFILE_FILE_MAX ||
        CompatResize(reinterpret_cast<void**>(&s_text_lv), i_len_lv + I_READ_CHUNK + 1, 1) == nullptr) {
      b_ok_lv = false;
      break;
    }
    long i_got_lv = PlFileRead(i_fd_lv, s_text_lv + i_len_lv, static_cast<size_t>(I_READ_CHUNK));
    if (i_got_lv < 0) b_ok_lv = false;
    if (i_got_lv <= 0) break;
    i_len_lv += static_cast<int32_t>(i_got_lv);
  }
  PlFileClose(i_fd_lv);
  if (b_ok_lv && CompatResize(reinterpret_cast<void**>(&s_text_lv), i_len_lv + i_extra_av + 1, 1) == nullptr)
    b_ok_lv = false;
  if (!b_ok_lv) {
    CompatFree(s_text_lv);
    return false;
  }
  *pp_text_av = s_text_lv;
  *p_len_av = i_len_lv;
  return true;
}

void InsertAt(char* s_text_av, int32_t* p_len_av, int32_t i_at_av, const char* s_part_av, int32_t i_part_len_av) {
  memmove(s_text_av + i_at_av + i_part_len_av, s_text_av + i_at_av, static_cast<size_t>(*p_len_av - i_at_av));
  memcpy(s_text_av + i_at_av, s_part_av, static_cast<size_t>(i_part_len_av));
  *p_len_av += i_part_len_av;
}

void Append(char* s_text_av, int32_t* p_len_av, const char* s_part_av, int32_t i_part_len_av) {
  InsertAt(s_text_av, p_len_av, *p_len_av, s_part_av, i_part_len_av);
}

// A new line at the end of the text starts on a line of its own.
void EndLine(char* s_text_av, int32_t* p_len_av) {
  if (*p_len_av > 0 && s_text_av[*p_len_av - 1] != '\r' && s_text_av[*p_len_av - 1] != '\n')
    Append(s_text_av, p_len_av, "\r\n", 2);
}

// Blanks behind the last line break are dropped before the text is written.
int32_t TrimTail(const char* s_text_av, int32_t i_len_av) {
  int32_t i_lv = i_len_av;
  while (i_lv > 0 && s_text_av[i_lv - 1] == ' ') i_lv--;
  if (i_lv > 0 && (s_text_av[i_lv - 1] == '\r' || s_text_av[i_lv - 1] == '\n')) return i_lv;
  return i_len_av;
}

int32_t WriteWhole(const char* s_file_av, const char* s_text_av, int32_t i_len_av) {
  int i_fd_lv = PlFileOpen(s_file_av, PL_FILE_TRUNC);
  if (i_fd_lv < 0) return 0;
  long i_rc_lv = i_len_av > 0 ? PlFileWrite(i_fd_lv, s_text_av, static_cast<size_t>(i_len_av)) : 0;
  PlFileClose(i_fd_lv);
  return i_rc_lv == i_len_av ? 1 : 0;
}

// Puts "key=value" into the file text (whose buffer has the room).
// False when the value is already there as it is.
bool PutEntry(char* s_text_av, int32_t* p_len_av, const char* s_section_av, int32_t i_section_len_av,
              const char* s_key_av, int32_t i_key_len_av, const char* s_value_av, int32_t i_value_len_av) {
  int32_t i_body_lv = ProfileFindSection(s_text_av, *p_len_av, s_section_av);
  TProfileKeyPos pos_lv = {0, 0, -1};
  if (i_body_lv >= 0 && ProfileFindKey(s_text_av, *p_len_av, i_body_lv, s_key_av, i_key_len_av, &pos_lv)) {
    int32_t i_old_len_lv = pos_lv.i_value_end - pos_lv.i_value_start;
    if (i_old_len_lv == i_value_len_av &&
        memcmp(s_text_av + pos_lv.i_value_start, s_value_av, static_cast<size_t>(i_value_len_av)) == 0)
      return false;
    memmove(s_text_av + pos_lv.i_value_start + i_value_len_av, s_text_av + pos_lv.i_value_end,
            static_cast<size_t>(*p_len_av - pos_lv.i_value_end));
    memcpy(s_text_av + pos_lv.i_value_start, s_value_av, static_cast<size_t>(i_value_len_av));
    *p_len_av += i_value_len_av - i_old_len_lv;
    return true;
  }
  int32_t i_at_lv = pos_lv.i_insert_at;
  if (i_body_lv < 0 || i_at_lv < 0) {
    EndLine(s_text_av, p_len_av);
    i_at_lv = *p_len_av;
  }
  if (i_body_lv < 0) {
    Append(s_text_av, p_len_av, "[", 1);
    Append(s_text_av, p_len_av, s_section_av, i_section_len_av);
    Append(s_text_av, p_len_av, "]\r\n", 3);
    i_at_lv = *p_len_av;
  }
  // The entry is built in place: key, "=", value, CR LF.
  InsertAt(s_text_av, p_len_av, i_at_lv, "\r\n", 2);
  InsertAt(s_text_av, p_len_av, i_at_lv, s_value_av, i_value_len_av);
  InsertAt(s_text_av, p_len_av, i_at_lv, "=", 1);
  InsertAt(s_text_av, p_len_av, i_at_lv, s_key_av, i_key_len_av);
  return true;
}

// mWritePrivateProfileString with the value's length known.
int32_t WriteProfile(const char* s_file_av, const char* s_section_av, const char* s_key_av, const char* s_value_av,
                     int32_t i_value_len_av) {
  if (s_file_av == nullptr || s_key_av == nullptr || s_value_av == nullptr) return 0;
  int32_t i_key_len_lv = FieldLen(s_key_av);
  int32_t i_section_len_lv = FieldLen(s_section_av);
  if (i_key_len_lv < 1 || i_section_len_lv < 0 || i_value_len_av < 0 || i_value_len_av > I_PROFILE_FIELD_MAX) return 0;
  // A line break in a name or value, or a key that reads as a blank, comment
  // or header, would write a line that no later read finds again.
  if (HasLineBreak(s_key_av, i_key_len_lv) || HasLineBreak(s_value_av, i_value_len_av) ||
      HasLineBreak(s_section_av == nullptr ? "" : s_section_av, i_section_len_lv) || s_key_av[0] == ' ' ||
      s_key_av[0] == ';' || s_key_av[0] == '[')
    return 0;
  char* s_text_lv = nullptr;
  int32_t i_len_lv = 0;
  if (!ReadWhole(s_file_av, i_key_len_lv + i_value_len_av + i_section_len_lv + I_WRITE_SLACK, &s_text_lv, &i_len_lv))
    return 0;
  int32_t i_rc_lv = 0;
  if (PutEntry(s_text_lv, &i_len_lv, s_section_av, i_section_len_lv, s_key_av, i_key_len_lv, s_value_av,
               i_value_len_av))
    i_rc_lv = WriteWhole(s_file_av, s_text_lv, TrimTail(s_text_lv, i_len_lv));
  CompatFree(s_text_lv);
  return i_rc_lv;
}

}  // namespace

int32_t ProfileFindSection(const char* s_text_av, int32_t i_len_av, const char* s_section_av) {
  if (s_section_av == nullptr) return 0;
  if (s_text_av == nullptr) return -1;
  int32_t i_name_len_lv = FieldLen(s_section_av);
  if (i_name_len_lv < 0) return -1;
  for (int32_t i_pos_lv = 0; i_pos_lv < i_len_av;) {
    TLine line_lv = LineAt(s_text_av, i_len_av, i_pos_lv);
    const char* s_name_lv = s_text_av + line_lv.i_content + 1;
    if (IsHeader(s_text_av, line_lv) && line_lv.i_content + 1 + i_name_len_lv < line_lv.i_end &&
        memcmp(s_name_lv, s_section_av, static_cast<size_t>(i_name_len_lv)) == 0 && s_name_lv[i_name_len_lv] == ']')
      return line_lv.i_next;
    i_pos_lv = line_lv.i_next;
  }
  return -1;
}

bool ProfileFindKey(const char* s_text_av, int32_t i_len_av, int32_t i_body_av, const char* s_key_av,
                    int32_t i_key_len_av, TProfileKeyPos* p_pos_av) {
  p_pos_av->i_insert_at = -1;
  if (s_text_av == nullptr || s_key_av == nullptr || i_key_len_av < 1) return false;
  // Start of the run of comment and blank lines seen last, and whether the
  // run holds a comment at all.
  int32_t i_run_start_lv = -1;
  bool b_run_comment_lv = false;
  for (int32_t i_pos_lv = i_body_av; i_pos_lv < i_len_av;) {
    TLine line_lv = LineAt(s_text_av, i_len_av, i_pos_lv);
    const char* s_line_lv = s_text_av + line_lv.i_content;
    if (IsHeader(s_text_av, line_lv)) {
      p_pos_av->i_insert_at = i_run_start_lv >= 0 && b_run_comment_lv ? i_run_start_lv : line_lv.i_start;
      return false;
    }
    bool b_comment_lv = line_lv.i_content < line_lv.i_end && s_line_lv[0] == ';';
    if (b_comment_lv || line_lv.i_content == line_lv.i_end) {
      if (i_run_start_lv < 0) i_run_start_lv = line_lv.i_start;
      b_run_comment_lv = b_run_comment_lv || b_comment_lv;
    } else {
      i_run_start_lv = -1;
      b_run_comment_lv = false;
      if (line_lv.i_end - line_lv.i_content > i_key_len_av &&
          memcmp(s_line_lv, s_key_av, static_cast<size_t>(i_key_len_av)) == 0 && s_line_lv[i_key_len_av] == '=') {
        p_pos_av->i_value_start = line_lv.i_content + i_key_len_av + 1;
        p_pos_av->i_value_end = line_lv.i_end;
        return true;
      }
    }
    i_pos_lv = line_lv.i_next;
  }
  return false;
}

COMPAT_EXPORT int32_t mWritePrivateProfileString(const char* s_file_av, const char* s_section_av, const char* s_key_av,
                                                 const char* s_value_av) {
  if (s_value_av == nullptr) s_value_av = "";
  int32_t i_value_len_lv = FieldLen(s_value_av);
  return WriteProfile(s_file_av, s_section_av, s_key_av, s_value_av, i_value_len_lv);
}

COMPAT_EXPORT int32_t mGetPrivateProfileString(const char* s_file_av, const char* s_section_av, const char* s_key_av,
                                               ProfileString* p_result_av) {
  if (s_file_av == nullptr || s_key_av == nullptr || p_result_av == nullptr) return 0;
  int32_t i_key_len_lv = FieldLen(s_key_av);
  if (i_key_len_lv < 0) return 0;
  char* s_text_lv = nullptr;
  int32_t i_len_lv = 0;
  if (!ReadWhole(s_file_av, 0, &s_text_lv, &i_len_lv)) return 0;
  int32_t i_body_lv = ProfileFindSection(s_text_lv, i_len_lv, s_section_av);
  TProfileKeyPos pos_lv = {0, 0, -1};
  if (i_body_lv >= 0 && ProfileFindKey(s_text_lv, i_len_lv, i_body_lv, s_key_av, i_key_len_lv, &pos_lv)) {
    int32_t i_value_len_lv = pos_lv.i_value_end - pos_lv.i_value_start;
    int32_t i_rc_lv = 0;
    if (CompatResize(reinterpret_cast<void**>(&p_result_av->s_text), i_value_len_lv + 1, 1) != nullptr) {
      memcpy(p_result_av->s_text, s_text_lv + pos_lv.i_value_start, static_cast<size_t>(i_value_len_lv));
      p_result_av->s_text[i_value_len_lv] = 0;
      p_result_av->i_len = i_value_len_lv;
      i_rc_lv = i_value_len_lv;
    }
    CompatFree(s_text_lv);
    return i_rc_lv;
  }
  CompatFree(s_text_lv);
  // A missing entry is written with the default, so the file shows every key
  // that is read; the default is measured within its own buffer.
  const char* s_default_lv = p_result_av->s_text == nullptr ? "" : p_result_av->s_text;
  int32_t i_default_len_lv =
      static_cast<int32_t>(strnlen(s_default_lv, static_cast<size_t>(CompatSize(p_result_av->s_text))));
  WriteProfile(s_file_av, s_section_av, s_key_av, s_default_lv, i_default_len_lv);
  return p_result_av->i_len;
}

COMPAT_EXPORT int32_t mGetPrivateProfileStringW(const TCompatWChar* s_file_av, const char* s_section_av,
                                                const char* s_key_av, ProfileString* p_result_av) {
  if (s_file_av == nullptr) return 0;
  char* s_name_lv = nullptr;
  int32_t i_rc_lv = 0;
  if (CompatWideToUtf8(s_file_av, I_WIDE_NAME_MAX, &s_name_lv) > 0)
    i_rc_lv = mGetPrivateProfileString(s_name_lv, s_section_av, s_key_av, p_result_av);
  CompatFree(s_name_lv);
  return i_rc_lv;
}

COMPAT_EXPORT int32_t mWritePrivateProfileStringW(const TCompatWChar* s_file_av, const char* s_section_av,
                                                  const char* s_key_av, const char* s_value_av) {
  if (s_file_av == nullptr) return 0;
  char* s_name_lv = nullptr;
  int32_t i_rc_lv = 0;
  if (CompatWideToUtf8(s_file_av, I_WIDE_NAME_MAX, &s_name_lv) > 0)
    i_rc_lv = mWritePrivateProfileString(s_name_lv, s_section_av, s_key_av, s_value_av);
  CompatFree(s_name_lv);
  return i_rc_lv;
}
