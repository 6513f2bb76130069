// Text helpers of the compatibility layer and the exported SAFE_STRCAT.
// Called by the other units of compat/ and by modules outside the plug-in.
#include "compat/compat_text.h"

#include <errno.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>

#include "compat/compat_memory.h"

namespace {

const uintptr_t UI_PAGE = 4096;
// Longest text the layer measures; keeps every size below 32 bits.
const int32_t I_TEXT_MAX = INT32_MAX - 64;

// Whether the byte at p_av can be read, asked of the kernel so that a bad
// address gives an answer instead of a fault. When the kernel refuses the
// question itself the address is trusted.
bool Readable(const char* p_av) {
  char c_lv = 0;
  struct iovec local_lv = {&c_lv, 1};
  struct iovec remote_lv = {const_cast<char*>(p_av), 1};
  if (process_vm_readv(getpid(), &local_lv, 1, &remote_lv, 1, 0) == 1) return true;
  return errno != EFAULT;
}

void PutUtf8(uint32_t ui_cp_av, char* p_out_av, int32_t* p_pos_av) {
  int32_t& i_lv = *p_pos_av;
  if (ui_cp_av < 0x80) {
    p_out_av[i_lv++] = static_cast<char>(ui_cp_av);
  } else if (ui_cp_av < 0x800) {
    p_out_av[i_lv++] = static_cast<char>(0xC0 | (ui_cp_av >> 6));
    p_out_av[i_lv++] = static_cast<char>(0x80 | (ui_cp_av & 0x3F));
  } else if (ui_cp_av < 0x10000) {
    p_out_av[i_lv++] = static_cast<char>(0xE0 | (ui_cp_av >> 12));
    p_out_av[i_lv++] = static_cast<char>(0x80 | ((ui_cp_av >> 6) & 0x3F));
    p_out_av[i_lv++] = static_cast<char>(0x80 | (ui_cp_av & 0x3F));
  } else {
    p_out_av[i_lv++] = static_cast<char>(0xF0 | (ui_cp_av >> 18));
    p_out_av[i_lv++] = static_cast<char>(0x80 | ((ui_cp_av >> 12) & 0x3F));
    p_out_av[i_lv++] = static_cast<char>(0x80 | ((ui_cp_av >> 6) & 0x3F));
    p_out_av[i_lv++] = static_cast<char>(0x80 | (ui_cp_av & 0x3F));
  }
}

// One code point from UTF-8 at s_av (i_left_av bytes left); *p_used_av gets
// the bytes taken, at least 1. A malformed sequence gives U+FFFD for one byte.
uint32_t TakeUtf8(const unsigned char* s_av, int32_t i_left_av, int32_t* p_used_av) {
  *p_used_av = 1;
  uint32_t ui_c_lv = s_av[0];
  if (ui_c_lv < 0x80) return ui_c_lv;
  int32_t i_more_lv = ui_c_lv >= 0xF0 && ui_c_lv < 0xF5 ? 3 : ui_c_lv >= 0xE0 ? 2 : ui_c_lv >= 0xC2 ? 1 : -1;
  if (ui_c_lv >= 0xF5) i_more_lv = -1;
  if (i_more_lv < 0 || i_more_lv >= i_left_av) return 0xFFFD;
  uint32_t ui_cp_lv = ui_c_lv & (0x3F >> i_more_lv);
  for (int32_t i_lv = 1; i_lv <= i_more_lv; i_lv++) {
    if ((s_av[i_lv] & 0xC0) != 0x80) return 0xFFFD;
    ui_cp_lv = (ui_cp_lv << 6) | (s_av[i_lv] & 0x3F);
  }
  static const uint32_t ui_min_lv[] = {0, 0x80, 0x800, 0x10000};
  if (ui_cp_lv < ui_min_lv[i_more_lv] || ui_cp_lv > 0x10FFFF || (ui_cp_lv >= 0xD800 && ui_cp_lv < 0xE000))
    return 0xFFFD;
  *p_used_av = i_more_lv + 1;
  return ui_cp_lv;
}

}  // namespace

int32_t CompatSafeLen(const char* s_text_av, int32_t i_max_av) {
  if (s_text_av == nullptr) return 0;
  if (i_max_av > I_TEXT_MAX || i_max_av < 0) i_max_av = I_TEXT_MAX;
  int32_t i_len_lv = 0;
  // Readability is a property of whole pages: probe once per page entered.
  bool b_probe_lv = true;
  while (i_len_lv < i_max_av) {
    const char* p_lv = s_text_av + i_len_lv;
    if (b_probe_lv && !Readable(p_lv)) break;
    unsigned char uc_lv = static_cast<unsigned char>(*p_lv);
    if (uc_lv == 0 || (uc_lv & 0x80) != 0) break;
    i_len_lv++;
    b_probe_lv = (reinterpret_cast<uintptr_t>(s_text_av + i_len_lv) % UI_PAGE) == 0;
  }
  return i_len_lv;
}

int32_t CompatWideLen(const TCompatWChar* s_text_av, int32_t i_max_av) {
  if (s_text_av == nullptr) return 0;
  int32_t i_len_lv = 0;
  while (i_len_lv < i_max_av && s_text_av[i_len_lv] != 0) i_len_lv++;
  return i_len_lv;
}

int32_t CompatUtf8ToWide(const char* s_text_av, int32_t i_len_av, TCompatWChar** pp_out_av) {
  if (pp_out_av == nullptr || i_len_av < 0 || i_len_av > I_TEXT_MAX / 2 - 1) return -1;
  // A byte never gives more than one unit, a four-byte sequence two.
  if (CompatResize(reinterpret_cast<void**>(pp_out_av), i_len_av + 1, 2) == nullptr) return -1;
  const unsigned char* s_lv = reinterpret_cast<const unsigned char*>(s_text_av);
  TCompatWChar* p_out_lv = *pp_out_av;
  int32_t i_out_lv = 0;
  for (int32_t i_lv = 0; i_lv < i_len_av;) {
    int32_t i_used_lv = 1;
    uint32_t ui_cp_lv = TakeUtf8(s_lv + i_lv, i_len_av - i_lv, &i_used_lv);
    i_lv += i_used_lv;
    if (ui_cp_lv >= 0x10000) {
      ui_cp_lv -= 0x10000;
      p_out_lv[i_out_lv++] = static_cast<TCompatWChar>(0xD800 | (ui_cp_lv >> 10));
      p_out_lv[i_out_lv++] = static_cast<TCompatWChar>(0xDC00 | (ui_cp_lv & 0x3FF));
    } else {
      p_out_lv[i_out_lv++] = static_cast<TCompatWChar>(ui_cp_lv);
    }
  }
  p_out_lv[i_out_lv] = 0;
  return i_out_lv;
}

int32_t CompatWideToUtf8(const TCompatWChar* s_text_av, int32_t i_max_av, char** pp_out_av) {
  if (pp_out_av == nullptr) return -1;
  int32_t i_len_lv = CompatWideLen(s_text_av, i_max_av);
  if (i_len_lv > I_TEXT_MAX / 3 - 1) return -1;
  // A unit never gives more than three bytes, a surrogate pair four.
  if (CompatResize(reinterpret_cast<void**>(pp_out_av), i_len_lv * 3 + 1, 1) == nullptr) return -1;
  char* p_out_lv = *pp_out_av;
  int32_t i_out_lv = 0;
  for (int32_t i_lv = 0; i_lv < i_len_lv; i_lv++) {
    uint32_t ui_cp_lv = s_text_av[i_lv];
    if (ui_cp_lv >= 0xD800 && ui_cp_lv < 0xDC00 && i_lv + 1 < i_len_lv && s_text_av[i_lv + 1] >= 0xDC00 &&
        s_text_av[i_lv + 1] < 0xE000) {
      ui_cp_lv = 0x10000 + ((ui_cp_lv - 0xD800) << 10) + (s_text_av[i_lv + 1] - 0xDC00);
      i_lv++;
    } else if (ui_cp_lv >= 0xD800 && ui_cp_lv < 0xE000) {
      ui_cp_lv = 0xFFFD;
    }
    PutUtf8(ui_cp_lv, p_out_lv, &i_out_lv);
  }
  p_out_lv[i_out_lv] = 0;
  return i_out_lv;
}

// The size asked of the allocator covers what the buffer already holds as
// well as the text added, so a concatenation can never run past its buffer.
COMPAT_EXPORT int32_t SAFE_STRCAT(char** pp_dest_av, const char* s_text_av, TStrcatAlloc p_alloc_av,
                                  int32_t i_alloc_arg_av) {
  if (pp_dest_av == nullptr) return 0;
  char* s_old_lv = *pp_dest_av;
  // A buffer of this layer is measured within its own size only.
  int32_t i_old_max_lv = p_alloc_av == nullptr && s_old_lv != nullptr ? CompatSize(s_old_lv) : I_TEXT_MAX;
  int32_t i_old_len_lv = CompatSafeLen(s_old_lv, i_old_max_lv);
  int32_t i_text_len_lv = CompatSafeLen(s_text_av, I_TEXT_MAX);
  // Text taken from the buffer itself moves with it.
  int64_t i64_offset_lv = -1;
  if (s_text_av != nullptr && s_old_lv != nullptr && s_text_av >= s_old_lv && s_text_av <= s_old_lv + i_old_len_lv)
    i64_offset_lv = s_text_av - s_old_lv;
  int64_t i64_want_lv = static_cast<int64_t>(i_old_len_lv) + i_text_len_lv + 1;
  char* s_new_lv = nullptr;
  if (i64_want_lv <= I_TEXT_MAX) {
    int32_t i_want_lv = static_cast<int32_t>(i64_want_lv);
    if (p_alloc_av != nullptr)
      s_new_lv = static_cast<char*>(p_alloc_av(s_old_lv, i_want_lv, i_alloc_arg_av));
    else
      s_new_lv = static_cast<char*>(CompatResize(reinterpret_cast<void**>(pp_dest_av), i_want_lv, 1));
  }
  if (s_new_lv == nullptr) {
    if (p_alloc_av == nullptr) CompatFree(*pp_dest_av);
    *pp_dest_av = nullptr;
    return 0;
  }
  *pp_dest_av = s_new_lv;
  if (i64_offset_lv >= 0) s_text_av = s_new_lv + i64_offset_lv;
  int32_t i_new_max_lv = p_alloc_av == nullptr ? CompatSize(s_new_lv) : static_cast<int32_t>(i64_want_lv);
  int32_t i_len_lv = CompatSafeLen(s_new_lv, i_new_max_lv - 1);
  if (i_len_lv + i_text_len_lv + 1 > i_new_max_lv) i_text_len_lv = i_new_max_lv - 1 - i_len_lv;
  if (s_new_lv + i_len_lv != s_text_av) {
    if (i_text_len_lv > 0) memmove(s_new_lv + i_len_lv, s_text_av, static_cast<size_t>(i_text_len_lv));
    s_new_lv[i_len_lv + i_text_len_lv] = 0;
  }
  return i_len_lv + i_text_len_lv;
}
