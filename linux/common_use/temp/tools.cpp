// Placeholder bodies; replaced by the real toolbox.
#include "linux/common_use/temp/tools.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "linux/common_use/service/service4.h"

SafeString::SafeString() : m_p_text(nullptr), m_i_size(0) { SafeStringAssign(this, "", 34); }
SafeString::~SafeString() { SafeStringDestroy(this); }
void SafeStringAssign(SafeString* p_str_av, const char* s_src_av, int32_t i_signat_av) {
  if (s_src_av == nullptr) return;
  if (p_str_av->m_p_text != nullptr) SAFE_MEM_FREE(p_str_av->m_p_text);
  int32_t i_len_lv = static_cast<int32_t>(strlen(s_src_av));
  SAFE_MEM_ALLOCB5(p_str_av->m_p_text, i_len_lv + 1, i_signat_av);
  p_str_av->m_i_size = i_len_lv + 1;
  memcpy(p_str_av->m_p_text, s_src_av, i_len_lv + 1);
}
void SafeStringAppend(SafeString*, const char*, int32_t) {}
void SafeStringDestroy(SafeString* p_str_av) {
  if (p_str_av->m_p_text != nullptr) SAFE_MEM_FREE(p_str_av->m_p_text);
  p_str_av->m_i_size = 0;
}
void SafeStringCopy(SafeString*, const SafeString*, int32_t) {}
void SafeStringTupleCopy(SafeString*, const SafeString*, int32_t) {}
int SafeStringTupleMatch(const SafeString*, const SafeString*) { return 0; }
void SafeStringJoin(const char* const*, int32_t, SafeString*, char) {}
uint64_t StrHash64(const void*, uint32_t) { return 0; }
int32_t FormatStr(char* s_buf_av, size_t ui_size_av, const char* s_format_av, ...) {
  va_list args_lv;
  va_start(args_lv, s_format_av);
  vsnprintf(s_buf_av, ui_size_av, s_format_av, args_lv);
  va_end(args_lv);
  return W_OK;
}
int32_t PathJoin(char*, const char*, const char*) { return W_E_FAIL; }
uint64_t FileTimeNowLocal() { return 0; }
void FileTimeToText(uint64_t, char* s_buf_av) { s_buf_av[0] = 0; }
int64_t UnixMicrosToLocal(int64_t i64_micros_av) { return i64_micros_av; }
void OsPlatformProbe(TOsPlatform*) {}
int ParseTwoDigits(const char*) { return 0; }
