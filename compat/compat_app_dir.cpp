// The exported application directory: the folder of the running program's
// executable, in narrow, wide and UTF-8 text, with the separator kept at its
// end. For modules that keep their files beside the server.
#include <cstring>

#include "compat/compat.h"
#include "compat/compat_memory.h"
#include "compat/compat_text.h"
#include "platform/pl_os.h"

namespace {

const int32_t I_PATH_START = 4096;
const int32_t I_PATH_STEP = 512;
const int32_t I_PATH_LIMIT = 1048576;

// The executable's name into *pp_name_av, grown until it fits. Its length,
// or 0 when the system gives none.
int32_t ReadExeName(char** pp_name_av) {
  int32_t i_cap_lv = I_PATH_START;
  for (;;) {
    if (CompatResize(reinterpret_cast<void**>(pp_name_av), i_cap_lv, 1) == nullptr) return 0;
    size_t ui_len_lv = PlExePath(*pp_name_av, static_cast<size_t>(i_cap_lv));
    if (ui_len_lv > 0 && ui_len_lv < static_cast<size_t>(i_cap_lv)) return static_cast<int32_t>(ui_len_lv);
    if (i_cap_lv + I_PATH_STEP >= I_PATH_LIMIT) return 0;
    i_cap_lv += I_PATH_STEP;
  }
}

// Index of the last "/" or "\" in the first i_len_av elements, or -1.
template <typename TChar>
int32_t LastSeparator(const TChar* s_av, int32_t i_len_av) {
  for (int32_t i_lv = i_len_av - 1; i_lv >= 0; i_lv--) {
    if (s_av[i_lv] == '/' || s_av[i_lv] == '\\') return i_lv;
  }
  return -1;
}

template <typename TChar>
int32_t Release(TChar** pp_av) {
  *pp_av = static_cast<TChar*>(CompatFree(*pp_av));
  return 0;
}

}  // namespace

COMPAT_EXPORT int32_t GetAppDirPath(char** pp_dir_av) {
  if (pp_dir_av == nullptr) return 0;
  int32_t i_len_lv = ReadExeName(pp_dir_av);
  if (i_len_lv == 0) return Release(pp_dir_av);
  // A "?" is what a name looks like that narrow text cannot carry.
  if (memchr(*pp_dir_av, '?', static_cast<size_t>(i_len_lv)) != nullptr) return Release(pp_dir_av);
  int32_t i_sep_lv = LastSeparator(*pp_dir_av, i_len_lv);
  if (i_sep_lv < 0) return i_len_lv;
  (*pp_dir_av)[i_sep_lv + 1] = 0;
  return i_sep_lv + 2;
}

COMPAT_EXPORT int32_t GetAppDirPathW(TCompatWChar** pp_dir_av) {
  if (pp_dir_av == nullptr) return 0;
  char* s_name_lv = nullptr;
  int32_t i_len_lv = ReadExeName(&s_name_lv);
  int32_t i_units_lv = i_len_lv > 0 ? CompatUtf8ToWide(s_name_lv, i_len_lv, pp_dir_av) : -1;
  CompatFree(s_name_lv);
  if (i_units_lv <= 0) return Release(pp_dir_av);
  int32_t i_sep_lv = LastSeparator(*pp_dir_av, i_units_lv);
  if (i_sep_lv < 0) return i_units_lv;
  (*pp_dir_av)[i_sep_lv + 1] = 0;
  return i_sep_lv + 2;
}

// Unlike the other two this one returns the directory's length itself,
// without the one added for the terminator; callers count on that.
COMPAT_EXPORT int32_t GetAppDirPathUTF8(char** pp_dir_av) {
  if (pp_dir_av == nullptr) return 0;
  char* s_name_lv = nullptr;
  int32_t i_len_lv = ReadExeName(&s_name_lv);
  // The system's names are UTF-8 bytes already; the copy is the conversion.
  if (i_len_lv <= 0 || CompatResize(reinterpret_cast<void**>(pp_dir_av), i_len_lv + 1, 1) == nullptr) {
    CompatFree(s_name_lv);
    return Release(pp_dir_av);
  }
  memcpy(*pp_dir_av, s_name_lv, static_cast<size_t>(i_len_lv));
  (*pp_dir_av)[i_len_lv] = 0;
  CompatFree(s_name_lv);
  int32_t i_sep_lv = LastSeparator(*pp_dir_av, i_len_lv);
  if (i_sep_lv < 0) return i_len_lv;
  (*pp_dir_av)[i_sep_lv + 1] = 0;
  return i_sep_lv + 1;
}

COMPAT_EXPORT void GetAppDirPathFree(char** pp_dir_av) {
  if (pp_dir_av != nullptr) Release(pp_dir_av);
}

COMPAT_EXPORT void GetAppDirPathFreeW(TCompatWChar** pp_dir_av) {
  if (pp_dir_av != nullptr) Release(pp_dir_av);
}
