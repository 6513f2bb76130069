// The toolbox under every unit: checked strings, the name digest, bounded
// formatting, time texts, the path join, the version probe, the schedule
// engine's thread wrapper and its exception family.
#include "linux/common_use/temp/tools.h"

#include <cxxabi.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"

// ---------------------------------------------------------------------------
// SafeString

namespace {

const int32_t I_SIGN_EMPTY_TEXT = 34;
const int32_t I_SIGN_APPEND_COPY = 93;
const int32_t I_SIGN_JOIN = 17;
// Sizes are 32-bit; a text that long cannot be held.
const size_t UI_TEXT_MAX = 0x7FFFFFF0u;

size_t TextLength(const SafeString* p_str_av) { return p_str_av->m_p_text != nullptr ? strlen(p_str_av->m_p_text) : 0; }

// True when the text lies inside the string's own block.
bool PointsInto(const SafeString* p_str_av, const char* s_text_av) {
  if (p_str_av->m_p_text == nullptr || p_str_av->m_i_size <= 0) return false;
  uintptr_t ui_begin_lv = reinterpret_cast<uintptr_t>(p_str_av->m_p_text);
  uintptr_t ui_text_lv = reinterpret_cast<uintptr_t>(s_text_av);
  return ui_text_lv >= ui_begin_lv && ui_text_lv < ui_begin_lv + static_cast<uint32_t>(p_str_av->m_i_size);
}

}  // namespace

SafeString::SafeString() : m_p_text(nullptr), m_i_size(0) { SafeStringAssign(this, "", I_SIGN_EMPTY_TEXT); }

SafeString::~SafeString() { SafeStringDestroy(this); }

// The old block goes before the new one is taken. A source inside the
// string's own block is read before its block goes.
void SafeStringAssign(SafeString* p_str_av, const char* s_src_av, int32_t i_signat_av) {
  if (s_src_av == nullptr) return;
  size_t ui_len_lv = strlen(s_src_av);
  if (ui_len_lv >= UI_TEXT_MAX) return;
  char* p_keep_lv = nullptr;
  if (p_str_av->m_p_text != nullptr) {
    if (PointsInto(p_str_av, s_src_av))
      p_keep_lv = p_str_av->m_p_text;
    else
      SAFE_MEM_FREE(p_str_av->m_p_text);
  }
  p_str_av->m_p_text = nullptr;
  p_str_av->m_i_size = 0;
  char* p_new_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_new_lv, static_cast<int32_t>(ui_len_lv + 1), i_signat_av);
  if (p_new_lv != nullptr) {
    memcpy(p_new_lv, s_src_av, ui_len_lv + 1);
    p_str_av->m_p_text = p_new_lv;
    p_str_av->m_i_size = static_cast<int32_t>(ui_len_lv + 1);
  }
  if (p_keep_lv != nullptr) SAFE_MEM_FREE(p_keep_lv);
}

// Appends in place when at least 4 bytes stay spare; otherwise the block is
// replaced by one of exactly the new length, with no growth reserve.
void SafeStringAppend(SafeString* p_str_av, const char* s_text_av, int32_t i_signat_av) {
  SafeString saved_lv;
  if (s_text_av == nullptr) return;
  size_t ui_cur_lv = TextLength(p_str_av);
  size_t ui_add_lv = strlen(s_text_av);
  size_t ui_total_lv = ui_cur_lv + ui_add_lv;
  if (ui_total_lv >= UI_TEXT_MAX) return;
  if (p_str_av->m_p_text != nullptr && p_str_av->m_i_size >= static_cast<int64_t>(ui_total_lv) + 4) {
    memmove(p_str_av->m_p_text + ui_cur_lv, s_text_av, ui_add_lv);
    p_str_av->m_p_text[ui_total_lv] = 0;
    return;
  }
  bool b_saved_lv = false;
  if (p_str_av->m_p_text != nullptr && p_str_av->m_i_size > 0) {
    char* p_before_lv = saved_lv.m_p_text;
    SAFE_MEM_REALLOCB4(saved_lv.m_p_text, p_str_av->m_i_size, I_SIGN_APPEND_COPY);
    if (saved_lv.m_p_text == p_before_lv) return;  // no memory: the string stays as it is
    saved_lv.m_i_size = p_str_av->m_i_size;
    memcpy(saved_lv.m_p_text, p_str_av->m_p_text, p_str_av->m_i_size);
    b_saved_lv = true;
  }
  // The text may lie in the block about to go: take it from the copy.
  const char* s_src_lv = s_text_av;
  if (PointsInto(p_str_av, s_text_av)) {
    if (!b_saved_lv) return;
    s_src_lv = saved_lv.m_p_text + (s_text_av - p_str_av->m_p_text);
  }
  size_t ui_keep_lv = b_saved_lv ? ui_cur_lv : 0;
  if (p_str_av->m_p_text != nullptr) SAFE_MEM_FREE(p_str_av->m_p_text);
  p_str_av->m_i_size = 0;
  char* p_new_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_new_lv, static_cast<int32_t>(ui_keep_lv + ui_add_lv + 1), i_signat_av);
  if (p_new_lv == nullptr) return;
  if (ui_keep_lv != 0) memcpy(p_new_lv, saved_lv.m_p_text, ui_keep_lv);
  memcpy(p_new_lv + ui_keep_lv, s_src_lv, ui_add_lv);
  p_new_lv[ui_keep_lv + ui_add_lv] = 0;
  p_str_av->m_p_text = p_new_lv;
  p_str_av->m_i_size = static_cast<int32_t>(ui_keep_lv + ui_add_lv + 1);
}

void SafeStringDestroy(SafeString* p_str_av) {
  if (p_str_av->m_p_text != nullptr) SAFE_MEM_FREE(p_str_av->m_p_text);
  p_str_av->m_i_size = 0;
}

// Copies the block as it is, size included, so a copy of a string with spare
// room keeps the room.
void SafeStringCopy(SafeString* p_str_av, const SafeString* p_other_av, int32_t i_signat_av) {
  if (p_str_av == p_other_av) return;
  if (p_other_av->m_p_text == nullptr || p_other_av->m_i_size <= 0) return;
  if (p_str_av->m_p_text != nullptr) SAFE_MEM_FREE(p_str_av->m_p_text);
  p_str_av->m_i_size = 0;
  char* p_new_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_new_lv, p_other_av->m_i_size, i_signat_av);
  if (p_new_lv == nullptr) return;
  memcpy(p_new_lv, p_other_av->m_p_text, p_other_av->m_i_size);
  p_str_av->m_p_text = p_new_lv;
  p_str_av->m_i_size = p_other_av->m_i_size;
}

void SafeStringTupleCopy(SafeString* p_dst5_av, const SafeString* p_src5_av, int32_t i_signat_av) {
  for (int i_lv = 0; i_lv < 5; i_lv++) SafeStringCopy(&p_dst5_av[i_lv], &p_src5_av[i_lv], i_signat_av);
}

// An empty pattern matches anything; the status report finds the channel a
// query names with it.
int SafeStringTupleMatch(const SafeString* p_str5_av, const SafeString* p_pat5_av) {
  for (int i_lv = 0; i_lv < 5; i_lv++) {
    const SafeString& pat_lv = p_pat5_av[i_lv];
    const SafeString& str_lv = p_str5_av[i_lv];
    if (pat_lv.m_p_text == nullptr || pat_lv.m_p_text[0] == 0) continue;
    if (str_lv.m_p_text == nullptr || str_lv.m_i_size == 0) return 0;
    if (strcmp(str_lv.m_p_text, pat_lv.m_p_text) != 0) return 0;
  }
  return 1;
}

// The new block is built before the old one goes, so an input may lie in it.
void SafeStringJoin(const char* const* pp_texts_av, int32_t i_count_av, SafeString* p_out_av, char c_sep_av) {
  if (i_count_av < 1) i_count_av = 0;
  size_t ui_need_lv = 1 + (i_count_av > 0 ? static_cast<size_t>(i_count_av - 1) : 0);
  for (int32_t i_lv = 0; i_lv < i_count_av; i_lv++)
    if (pp_texts_av[i_lv] != nullptr) ui_need_lv += strlen(pp_texts_av[i_lv]);
  if (ui_need_lv >= UI_TEXT_MAX) return;
  char* p_new_lv = nullptr;
  SAFE_MEM_ALLOCB5(p_new_lv, static_cast<int32_t>(ui_need_lv), I_SIGN_JOIN);
  if (p_new_lv != nullptr) {
    size_t ui_pos_lv = 0;
    for (int32_t i_lv = 0; i_lv < i_count_av; i_lv++) {
      if (i_lv > 0) p_new_lv[ui_pos_lv++] = c_sep_av;
      if (pp_texts_av[i_lv] == nullptr) continue;
      size_t ui_len_lv = strlen(pp_texts_av[i_lv]);
      memcpy(p_new_lv + ui_pos_lv, pp_texts_av[i_lv], ui_len_lv);
      ui_pos_lv += ui_len_lv;
    }
    p_new_lv[ui_pos_lv] = 0;
  }
  if (p_out_av->m_p_text != nullptr) SAFE_MEM_FREE(p_out_av->m_p_text);
  p_out_av->m_p_text = p_new_lv;
  p_out_av->m_i_size = p_new_lv != nullptr ? static_cast<int32_t>(ui_need_lv) : 0;
}

// ---------------------------------------------------------------------------
// StrHash64: the 64-bit block cipher of GOST 28147-89 chained over the text.
// Digests only serve look-ups inside one run, so the key, the substitution
// rows and the start value are the program's own. The eight 4-bit rows are
// folded into four 8-bit tables that already hold the rotation by 11, so a
// round is an addition, four look-ups and four exclusive ors.

namespace {

constexpr uint8_t UI_HASH_SBOX[8][16] = {
    {14, 1, 7, 8, 13, 6, 9, 3, 0, 15, 11, 5, 2, 12, 4, 10}, {13, 5, 3, 6, 7, 14, 8, 0, 12, 2, 1, 9, 10, 4, 15, 11},
    {4, 12, 1, 2, 0, 11, 8, 15, 14, 5, 10, 9, 7, 3, 6, 13}, {5, 7, 1, 15, 4, 10, 11, 9, 0, 6, 2, 8, 14, 13, 3, 12},
    {9, 12, 3, 4, 8, 15, 6, 10, 2, 1, 0, 5, 7, 11, 14, 13}, {1, 7, 2, 11, 9, 4, 6, 12, 14, 10, 3, 15, 8, 13, 5, 0},
    {15, 5, 3, 10, 1, 6, 8, 14, 7, 9, 0, 13, 12, 4, 11, 2}, {13, 5, 15, 10, 12, 9, 8, 2, 3, 4, 1, 0, 6, 14, 7, 11},
};
constexpr uint32_t UI_HASH_KEY[8] = {0x9F61D62Fu, 0x0ECB476Fu, 0xBDEF9F4Bu, 0xE220532Fu,
                                     0xD2E83592u, 0x8E18A60Eu, 0xE655F6AAu, 0xF69CEAF6u};
constexpr uint64_t UI64_HASH_START = 0x0D2671EFF4116BB4ULL;

struct THashTables {
  uint32_t m_ui_t[4][256];

  constexpr THashTables() : m_ui_t() {
    for (int i_byte_lv = 0; i_byte_lv < 4; i_byte_lv++) {
      for (int i_lv = 0; i_lv < 256; i_lv++) {
        uint32_t ui_lo_lv = UI_HASH_SBOX[2 * i_byte_lv][i_lv & 15];
        uint32_t ui_hi_lv = UI_HASH_SBOX[2 * i_byte_lv + 1][i_lv >> 4];
        uint32_t ui_v_lv = (ui_lo_lv | (ui_hi_lv << 4)) << (8 * i_byte_lv);
        m_ui_t[i_byte_lv][i_lv] = (ui_v_lv << 11) | (ui_v_lv >> 21);
      }
    }
  }
};

constexpr THashTables HASH_TABLES;

constexpr uint32_t HashF(uint32_t ui_x_av) {
  return HASH_TABLES.m_ui_t[0][ui_x_av & 0xFF] ^ HASH_TABLES.m_ui_t[1][(ui_x_av >> 8) & 0xFF] ^
         HASH_TABLES.m_ui_t[2][(ui_x_av >> 16) & 0xFF] ^ HASH_TABLES.m_ui_t[3][ui_x_av >> 24];
}

// 32 rounds: key words 0..7 three times, then 7..0, then the halves swap.
// The rounds go in pairs so that the halves never move between registers.
constexpr uint64_t HashEncrypt(uint64_t ui64_block_av) {
  uint32_t ui_a_lv = static_cast<uint32_t>(ui64_block_av);
  uint32_t ui_b_lv = static_cast<uint32_t>(ui64_block_av >> 32);
  for (int i_pass_lv = 0; i_pass_lv < 3; i_pass_lv++) {
    for (int i_lv = 0; i_lv < 8; i_lv += 2) {
      ui_b_lv ^= HashF(ui_a_lv + UI_HASH_KEY[i_lv]);
      ui_a_lv ^= HashF(ui_b_lv + UI_HASH_KEY[i_lv + 1]);
    }
  }
  for (int i_lv = 7; i_lv > 0; i_lv -= 2) {
    ui_b_lv ^= HashF(ui_a_lv + UI_HASH_KEY[i_lv]);
    ui_a_lv ^= HashF(ui_b_lv + UI_HASH_KEY[i_lv - 1]);
  }
  return static_cast<uint64_t>(ui_b_lv) | (static_cast<uint64_t>(ui_a_lv) << 32);
}

// The encrypted start value is the same for every text.
constexpr uint64_t UI64_HASH_FIRST = HashEncrypt(UI64_HASH_START);

uint64_t LoadLe64(const unsigned char* pb_av, uint32_t ui_len_av) {
  uint64_t ui64_lv = 0;
  for (uint32_t i_lv = 0; i_lv < ui_len_av; i_lv++) ui64_lv |= static_cast<uint64_t>(pb_av[i_lv]) << (8 * i_lv);
  return ui64_lv;
}

}  // namespace

uint64_t StrHash64(const void* p_bytes_av, uint32_t ui_length_av) {
  const unsigned char* pb_lv = static_cast<const unsigned char*>(p_bytes_av);
  uint64_t ui64_state_lv = UI64_HASH_FIRST;
  if (pb_lv == nullptr) return ui64_state_lv;
  uint32_t ui_whole_lv = ui_length_av & ~7u;
  for (uint32_t i_lv = 0; i_lv < ui_whole_lv; i_lv += 8)
    ui64_state_lv = HashEncrypt(LoadLe64(pb_lv + i_lv, 8) ^ ui64_state_lv);
  if (ui_length_av & 7u) ui64_state_lv = HashEncrypt(LoadLe64(pb_lv + ui_whole_lv, ui_length_av & 7u) ^ ui64_state_lv);
  return ui64_state_lv;
}

// ---------------------------------------------------------------------------
// Formatting, paths, time texts.

int32_t FormatStr(char* s_buf_av, size_t ui_size_av, const char* s_format_av, ...) {
  if (ui_size_av == 0 || ui_size_av > 0x7FFFFFFFu || s_buf_av == nullptr) return RC_E_INVALIDARG;
  if (s_format_av == nullptr) {
    s_buf_av[0] = 0;
    return RC_E_INVALIDARG;
  }
  va_list args_lv;
  va_start(args_lv, s_format_av);
  int i_len_lv = vsnprintf(s_buf_av, ui_size_av, s_format_av, args_lv);
  va_end(args_lv);
  if (i_len_lv < 0) {
    s_buf_av[0] = 0;
    return RC_E_INVALIDARG;
  }
  s_buf_av[ui_size_av - 1] = 0;
  return static_cast<size_t>(i_len_lv) >= ui_size_av ? RC_E_BUFFER_SMALL : RC_OK;
}

// The out buffer is taken to be PATH_JOIN_SIZE bytes: its writability cannot
// be tested here, so only null arguments and the length are refused.
int32_t PathJoin(char* s_out_av, const char* s_dir_av, const char* s_name_av) {
  if (s_out_av == nullptr || s_dir_av == nullptr || s_name_av == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: invarg");
    if (s_out_av != nullptr) s_out_av[0] = 0;
    return RC_E_FAIL;
  }
  s_out_av[0] = 0;
  size_t ui_dir_lv = strlen(s_dir_av);
  size_t ui_name_lv = strlen(s_name_av);
  if (ui_dir_lv + ui_name_lv + 1 >= static_cast<size_t>(PATH_JOIN_SIZE)) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: invimp reciving small buffer for path");
    return RC_E_FAIL;
  }
  memcpy(s_out_av, s_dir_av, ui_dir_lv);
  size_t ui_pos_lv = ui_dir_lv;
  if (ui_dir_lv == 0 || s_dir_av[ui_dir_lv - 1] != '/') s_out_av[ui_pos_lv++] = '/';
  memcpy(s_out_av + ui_pos_lv, s_name_av, ui_name_lv + 1);
  return RC_OK;
}

uint64_t FileTimeNowLocal() { return PlFileTimeToLocal(PlFileTimeUtc()); }

// A time beyond the calendar prints as all zeros.
void FileTimeToText(uint64_t ui64_ticks_av, char* s_buf_av) {
  PlCalendar cal_lv = {};
  if (!PlFileTimeToCalendar(ui64_ticks_av, &cal_lv)) cal_lv = PlCalendar();
  FormatStr(s_buf_av, FILE_TIME_TEXT_SIZE, "%04d.%02d.%02d %02d:%02d:%02d:%03d", cal_lv.i_year, cal_lv.i_month,
            cal_lv.i_day, cal_lv.i_hour, cal_lv.i_minute, cal_lv.i_second, cal_lv.i_millisecond);
}

// Frame times come from the bus: the arithmetic wraps instead of overflowing.
int64_t UnixMicrosToLocal(int64_t i64_micros_av) {
  const uint64_t UI64_EPOCH_MICROS = 11644473600000000ULL;
  uint64_t ui64_ticks_lv = (static_cast<uint64_t>(i64_micros_av) + UI64_EPOCH_MICROS) * 10u;
  uint64_t ui64_local_lv = PlFileTimeToLocal(ui64_ticks_lv);
  return static_cast<int64_t>(ui64_local_lv / 10u - UI64_EPOCH_MICROS);
}

void OsPlatformProbe(TOsPlatform* p_rec_av) {
  PlCritLock lock_lv(&p_rec_av->m_crit_sect);
  p_rec_av->m_i_family = 1;
  uint32_t ui_platform_lv = 0;
  if (!PlOsVersion(true, &ui_platform_lv) && !PlOsVersion(false, &ui_platform_lv)) return;
  p_rec_av->m_i_family = ui_platform_lv == 2 ? 3 : 1;
}

// "08:30" gives 8 and " 7:15" gives 7: the schedule's hour and minute fields.
int ParseTwoDigits(const char* s_text_av) {
  if (s_text_av == nullptr) return 0;
  char s_digits_lv[3] = {0, 0, 0};
  int i_taken_lv = 0;
  for (const char* p_lv = s_text_av; *p_lv != 0 && *p_lv != ':' && i_taken_lv < 2; p_lv++) {
    if (*p_lv == ' ' || *p_lv == '\t') continue;
    s_digits_lv[i_taken_lv++] = *p_lv;
  }
  return atoi(s_digits_lv);
}

// ---------------------------------------------------------------------------
// CThread: the schedule engine's thread. The wrapper throws; nothing else in
// the program does.

namespace {

const uint32_t UI_JOIN_WAIT_MS = 1001;

uint32_t CThreadEntry(void* p_arg_av) {
  CThread* p_thread_lv = static_cast<CThread*>(p_arg_av);
  try {
    if (p_thread_lv->m_p_function != nullptr) p_thread_lv->m_p_function(p_thread_lv->m_p_argument);
  } catch (...) {
    return 1;
  }
  return 0;
}

}  // namespace

void CThreadInit(CThread* p_thread_av, CThreadFn fn_av) {
  p_thread_av->m_h_thread = nullptr;
  p_thread_av->m_p_function = fn_av;
  p_thread_av->m_i64_result = 0;
  p_thread_av->m_p_argument = nullptr;
}

void CThreadStart(CThread* p_thread_av, void* p_arg_av) {
  if (p_thread_av->m_h_thread != nullptr && p_thread_av->m_h_thread->ExitCode() == PL_STILL_ACTIVE)
    throw km::SystemException("thread already running");
  p_thread_av->m_i64_result = 0;
  p_thread_av->m_p_argument = p_arg_av;
  if (p_thread_av->m_h_thread != nullptr) {
    PlThread::Close(p_thread_av->m_h_thread);
    p_thread_av->m_h_thread = nullptr;
  }
  p_thread_av->m_h_thread = PlThread::Create(CThreadEntry, p_thread_av, 0, false);
  if (p_thread_av->m_h_thread == nullptr) TRACE45(TLOG_ARC, TSEV_FAULT, "<error>CThreadStart: cannot create thread");
}

bool CThreadTryJoin(CThread* p_thread_av) {
  if (p_thread_av->m_h_thread == nullptr) return true;
  uint32_t ui_rc_lv = p_thread_av->m_h_thread->Join(UI_JOIN_WAIT_MS);
  if (ui_rc_lv == PL_WAIT_OBJECT_0) {
    PlThread::Close(p_thread_av->m_h_thread);
    p_thread_av->m_h_thread = nullptr;
    return true;
  }
  if (ui_rc_lv == PL_WAIT_TIMEOUT) return false;
  throw km::SystemException("cannot join thread");
}

void CThreadJoin(CThread* p_thread_av) {
  if (!CThreadTryJoin(p_thread_av)) throw km::TimeoutException("");
}

// ---------------------------------------------------------------------------
// km::Exception family.

namespace km {

Exception::Exception(const std::string& s_message_av) : m_s_message(s_message_av), m_p_nested(nullptr), m_i_code(0) {}

Exception::Exception(const Exception& other_av)
    : std::exception(other_av),
      m_s_message(other_av.m_s_message),
      m_p_nested(other_av.m_p_nested != nullptr ? other_av.m_p_nested->clone() : nullptr),
      m_i_code(other_av.m_i_code) {}

Exception::~Exception() { delete m_p_nested; }

// Gives the class's fixed name, not the message.
const char* Exception::what() const noexcept { return name(); }

const char* Exception::name() const { return "Exception"; }

std::string Exception::className() const {
  const char* s_raw_lv = typeid(*this).name();
  int i_status_lv = 0;
  char* s_plain_lv = abi::__cxa_demangle(s_raw_lv, nullptr, nullptr, &i_status_lv);
  std::string s_lv = (i_status_lv == 0 && s_plain_lv != nullptr) ? s_plain_lv : s_raw_lv;
  free(s_plain_lv);
  return s_lv;
}

Exception* Exception::clone() const { return new Exception(*this); }

void Exception::rethrow() const { throw Exception(*this); }

#define KM_DEFINE_EXCEPTION(CLS, BASE, NAME)                            \
  CLS::CLS(const std::string& s_message_av) : BASE(s_message_av) {}     \
  const char* CLS::name() const { return NAME; }                        \
  Exception* CLS::clone() const { return new CLS(*this); }              \
  void CLS::rethrow() const { throw CLS(*this); }

KM_DEFINE_EXCEPTION(LogicException, Exception, "Logic exception")
KM_DEFINE_EXCEPTION(InvalidArgumentException, LogicException, "Invalid argument")
KM_DEFINE_EXCEPTION(RuntimeException, Exception, "Runtime exception")
KM_DEFINE_EXCEPTION(TimeoutException, RuntimeException, "Timeout")
KM_DEFINE_EXCEPTION(SystemException, RuntimeException, "System exception")

#undef KM_DEFINE_EXCEPTION

}  // namespace km
