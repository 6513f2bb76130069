// Strings, hashing, formatting, time texts, the thread wrapper and the
// exception family: the small toolbox every unit of the plug-in uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "platform/pl_thread.h"

// Result codes of the base layer.
const int32_t RC_OK = 0;
const int32_t RC_E_FAIL = static_cast<int32_t>(0x80004005u);
const int32_t RC_E_INVALIDARG = static_cast<int32_t>(0x80070057u);
const int32_t RC_E_BUFFER_SMALL = static_cast<int32_t>(0x8007007Au);

// Size of the buffer that PathJoin fills.
const int PATH_JOIN_SIZE = 2048;
// Size of the buffer that FileTimeToText fills.
const int FILE_TIME_TEXT_SIZE = 64;

// The program's text: a checked block and its size (terminator included).
// The length is found by scanning; size is only what the block can take.
// Not copied implicitly: copying goes through SafeStringCopy.
class SafeString {
 public:
  SafeString();
  ~SafeString();
  SafeString(const SafeString&) = delete;
  SafeString& operator=(const SafeString&) = delete;

  char* m_p_text;
  int32_t m_i_size;
};

// The text, or "" for a string that holds none; for formatting and compares.
inline const char* SafeStringText(const SafeString* p_str_av) {
  return p_str_av->m_p_text != nullptr ? p_str_av->m_p_text : "";
}

void SafeStringAssign(SafeString* p_str_av, const char* s_src_av, int32_t i_signat_av);
void SafeStringAppend(SafeString* p_str_av, const char* s_text_av, int32_t i_signat_av);
void SafeStringDestroy(SafeString* p_str_av);
void SafeStringCopy(SafeString* p_str_av, const SafeString* p_other_av, int32_t i_signat_av);
void SafeStringTupleCopy(SafeString* p_dst5_av, const SafeString* p_src5_av, int32_t i_signat_av);
int SafeStringTupleMatch(const SafeString* p_str5_av, const SafeString* p_pat5_av);
// Joins count texts (a null entry adds nothing but its separator) into out.
void SafeStringJoin(const char* const* pp_texts_av, int32_t i_count_av, SafeString* p_out_av, char c_sep_av);

// 64-bit digest of a text, for identity inside one run.
uint64_t StrHash64(const void* p_bytes_av, uint32_t ui_length_av);

// Bounded formatting: RC_OK, RC_E_BUFFER_SMALL when cut, RC_E_INVALIDARG for a
// size of 0 or above 0x7FFFFFFF. The buffer is always terminated.
int32_t FormatStr(char* s_buf_av, size_t ui_size_av, const char* s_format_av, ...)
    __attribute__((format(printf, 3, 4)));
// Joins a directory and a name into out (PATH_JOIN_SIZE bytes).
int32_t PathJoin(char* s_out_av, const char* s_dir_av, const char* s_name_av);

// Present local time in ticks.
uint64_t FileTimeNowLocal();
// The same as a signed tick count, the form time arithmetic uses.
inline int64_t FileTimeNowLocalI64() { return static_cast<int64_t>(FileTimeNowLocal()); }

// Counters that a peer hands over as plain integers and the plug-in raises
// (a source's `need` and `listen`, a caller's `check_alive`): they stop at
// their largest value instead of wrapping.
inline void CounterRaise(int32_t* p_counter_av) {
  if (*p_counter_av < INT32_MAX) (*p_counter_av)++;
}
// "%04d.%02d.%02d %02d:%02d:%02d:%03d" of the ticks, into a buffer of at
// least FILE_TIME_TEXT_SIZE bytes.
void FileTimeToText(uint64_t ui64_ticks_av, char* s_buf_av);
// Microseconds since 1970 UTC to microseconds since 1970 of local time.
int64_t UnixMicrosToLocal(int64_t i64_micros_av);

// The record OsPlatformProbe fills; its lock guards the family.
struct TOsPlatform {
  PlCritSect m_crit_sect;
  int32_t m_i_family;
};
void OsPlatformProbe(TOsPlatform* p_rec_av);

// The number in front of a colon, at most two characters, blanks left out.
int ParseTwoDigits(const char* s_text_av);

// Thread wrapper of the schedule engine. Throws km::SystemException and
// km::TimeoutException.
typedef void (*CThreadFn)(void* p_arg_av);
struct CThread {
  PlThread* m_h_thread;
  CThreadFn m_p_function;
  int64_t m_i64_result;
  void* m_p_argument;
};
void CThreadInit(CThread* p_thread_av, CThreadFn fn_av);
void CThreadStart(CThread* p_thread_av, void* p_arg_av);
bool CThreadTryJoin(CThread* p_thread_av);
void CThreadJoin(CThread* p_thread_av);

namespace km {

class Exception : public std::exception {
 public:
  explicit Exception(const std::string& s_message_av);
  Exception(const Exception& other_av);
  Exception& operator=(const Exception&) = delete;
  ~Exception() override;
  const char* what() const noexcept override;
  virtual const char* name() const;
  virtual std::string className() const;
  virtual Exception* clone() const;
  [[noreturn]] virtual void rethrow() const;

  std::string m_s_message;
  Exception* m_p_nested;
  int32_t m_i_code;
};

#define KM_DECLARE_EXCEPTION(CLS, BASE)                    \
  class CLS : public BASE {                                \
   public:                                                 \
    explicit CLS(const std::string& s_message_av);         \
    const char* name() const override;                     \
    Exception* clone() const override;                     \
    [[noreturn]] void rethrow() const override;            \
  };

KM_DECLARE_EXCEPTION(LogicException, Exception)
KM_DECLARE_EXCEPTION(InvalidArgumentException, LogicException)
KM_DECLARE_EXCEPTION(RuntimeException, Exception)
KM_DECLARE_EXCEPTION(TimeoutException, RuntimeException)
KM_DECLARE_EXCEPTION(SystemException, RuntimeException)

#undef KM_DECLARE_EXCEPTION

}  // namespace km
