// The process clock, real or manual, and the timed waits that follow it.
#include "platform/pl_clock.h"

#include <time.h>
#include <x86intrin.h>

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "platform/pl_internal.h"

namespace {

std::atomic<bool> g_b_manual{false};
std::atomic<uint64_t> g_ui64_manual_utc{0};

std::atomic<uint64_t> g_ui64_clock_epoch{0};  // raised at every switch of mode

uint64_t MonotonicNs() {
  timespec ts_lv;
  clock_gettime(CLOCK_MONOTONIC, &ts_lv);
  return static_cast<uint64_t>(ts_lv.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts_lv.tv_nsec);
}

// --- Performance counter: the invariant TSC, calibrated once against the
// monotonic clock; the monotonic clock itself where the TSC is not fit.
struct TscCalibration {
  bool m_b_use_tsc;
  uint64_t m_ui64_tsc0;
  uint64_t m_ui64_ns0;
  std::atomic<int64_t> m_i64_freq;
};
TscCalibration g_tsc{false, 0, 0, {0}};

bool CpuHasInvariantTsc() {
  unsigned int eax_lv, ebx_lv, ecx_lv, edx_lv;
  __asm__ volatile("cpuid" : "=a"(eax_lv), "=b"(ebx_lv), "=c"(ecx_lv), "=d"(edx_lv) : "a"(0x80000000u), "c"(0));
  if (eax_lv < 0x80000007u) return false;
  __asm__ volatile("cpuid" : "=a"(eax_lv), "=b"(ebx_lv), "=c"(ecx_lv), "=d"(edx_lv) : "a"(0x80000007u), "c"(0));
  return (edx_lv & (1u << 8)) != 0;
}

__attribute__((constructor)) void TscStart() {
  g_tsc.m_b_use_tsc = CpuHasInvariantTsc();
  g_tsc.m_ui64_tsc0 = __rdtsc();
  g_tsc.m_ui64_ns0 = MonotonicNs();
}

int64_t TscFrequency() {
  int64_t i64_freq_lv = g_tsc.m_i64_freq.load(std::memory_order_acquire);
  if (i64_freq_lv != 0) return i64_freq_lv;
  // At least 50 ms of history make the rate good to a few parts per million.
  uint64_t ui64_ns_lv = MonotonicNs() - g_tsc.m_ui64_ns0;
  if (ui64_ns_lv < 50000000ULL) {
    timespec ts_lv = {0, static_cast<long>(50000000ULL - ui64_ns_lv)};
    nanosleep(&ts_lv, nullptr);
  }
  uint64_t ui64_tsc_lv = __rdtsc();
  ui64_ns_lv = MonotonicNs() - g_tsc.m_ui64_ns0;
  double d_freq_lv = static_cast<double>(ui64_tsc_lv - g_tsc.m_ui64_tsc0) * 1e9 / static_cast<double>(ui64_ns_lv);
  i64_freq_lv = static_cast<int64_t>(d_freq_lv);
  if (i64_freq_lv <= 0) i64_freq_lv = 1;
  int64_t i64_expected_lv = 0;
  g_tsc.m_i64_freq.compare_exchange_strong(i64_expected_lv, i64_freq_lv);
  return g_tsc.m_i64_freq.load(std::memory_order_acquire);
}

// --- Local time: the UTC offset cached per quarter hour of UTC. Offsets
// change almost always at such boundaries; a quarter whose first and last
// second have different offsets holds a change and is never cached: each
// call there asks for its own second. Each entry packs bucket + 1 (high 40
// bits) and the offset in seconds + 2^23 (low 24 bits).
const uint64_t QUARTER_TICKS = 15ULL * 60ULL * PL_TICKS_PER_SECOND;
const int OFFSET_CACHE_SIZE = 16;
std::atomic<uint64_t> g_offset_cache[OFFSET_CACHE_SIZE];

// The offset in force at a UTC file time, to the second; 0 where the system
// cannot tell.
int64_t OffsetSecondsOfSystem(uint64_t ui64_utc_av) {
  // Whole seconds first: no file time overflows the signed range then.
  int64_t i64_unix_lv = static_cast<int64_t>(ui64_utc_av / PL_TICKS_PER_SECOND) -
                        static_cast<int64_t>(PL_UNIX_EPOCH_TICKS / PL_TICKS_PER_SECOND);
  time_t t_lv = static_cast<time_t>(i64_unix_lv);
  tm tm_lv;
  if (localtime_r(&t_lv, &tm_lv) == nullptr) return 0;
  return tm_lv.tm_gmtoff;
}

int64_t OffsetSecondsAt(uint64_t ui64_utc_av) {
  uint64_t ui64_bucket_lv = ui64_utc_av / QUARTER_TICKS;
  std::atomic<uint64_t>& entry_lv = g_offset_cache[ui64_bucket_lv % OFFSET_CACHE_SIZE];
  uint64_t ui64_packed_lv = entry_lv.load(std::memory_order_relaxed);
  if ((ui64_packed_lv >> 24) == ui64_bucket_lv + 1) {
    return static_cast<int64_t>(ui64_packed_lv & 0xFFFFFFu) - (1 << 23);
  }
  uint64_t ui64_start_lv = ui64_bucket_lv * QUARTER_TICKS;
  int64_t i64_offset_lv = OffsetSecondsOfSystem(ui64_start_lv);
  if (OffsetSecondsOfSystem(ui64_start_lv + QUARTER_TICKS - PL_TICKS_PER_SECOND) != i64_offset_lv)
    return OffsetSecondsOfSystem(ui64_utc_av);
  entry_lv.store(((ui64_bucket_lv + 1) << 24) | static_cast<uint64_t>(i64_offset_lv + (1 << 23)),
                 std::memory_order_relaxed);
  return i64_offset_lv;
}

// Days from 1970-01-01 to a civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y_av, int m_av, int d_av) {
  y_av -= m_av <= 2;
  int64_t era_lv = (y_av >= 0 ? y_av : y_av - 399) / 400;
  int64_t yoe_lv = y_av - era_lv * 400;
  int64_t doy_lv = (153 * (m_av + (m_av > 2 ? -3 : 9)) + 2) / 5 + d_av - 1;
  int64_t doe_lv = yoe_lv * 365 + yoe_lv / 4 - yoe_lv / 100 + doy_lv;
  return era_lv * 146097 + doe_lv - 719468;
}

void CivilFromDays(int64_t z_av, int64_t* p_y_av, int* p_m_av, int* p_d_av) {
  z_av += 719468;
  int64_t era_lv = (z_av >= 0 ? z_av : z_av - 146096) / 146097;
  int64_t doe_lv = z_av - era_lv * 146097;
  int64_t yoe_lv = (doe_lv - doe_lv / 1460 + doe_lv / 36524 - doe_lv / 146096) / 365;
  int64_t doy_lv = doe_lv - (365 * yoe_lv + yoe_lv / 4 - yoe_lv / 100);
  int64_t mp_lv = (5 * doy_lv + 2) / 153;
  *p_d_av = static_cast<int>(doy_lv - (153 * mp_lv + 2) / 5 + 1);
  *p_m_av = static_cast<int>(mp_lv < 10 ? mp_lv + 3 : mp_lv - 9);
  *p_y_av = yoe_lv + era_lv * 400 + (*p_m_av <= 2);
}

// Days from 1601-01-01 to 1970-01-01.
const int64_t DAYS_1601_TO_1970 = 134774;
const uint64_t TICKS_PER_DAY = 86400ULL * PL_TICKS_PER_SECOND;

}  // namespace

uint64_t PlFileTimeUtc() {
  if (g_b_manual.load(std::memory_order_relaxed)) return g_ui64_manual_utc.load(std::memory_order_relaxed);
  timespec ts_lv;
  clock_gettime(CLOCK_REALTIME, &ts_lv);
  return PL_UNIX_EPOCH_TICKS + static_cast<uint64_t>(ts_lv.tv_sec) * PL_TICKS_PER_SECOND +
         static_cast<uint64_t>(ts_lv.tv_nsec) / 100;
}

uint64_t PlFileTimeUtcCoarse() {
  if (g_b_manual.load(std::memory_order_relaxed)) return g_ui64_manual_utc.load(std::memory_order_relaxed);
  timespec ts_lv;
  clock_gettime(CLOCK_REALTIME_COARSE, &ts_lv);
  return PL_UNIX_EPOCH_TICKS + static_cast<uint64_t>(ts_lv.tv_sec) * PL_TICKS_PER_SECOND +
         static_cast<uint64_t>(ts_lv.tv_nsec) / 100;
}

uint64_t PlFileTimeToLocal(uint64_t ui64_utc_av) {
  return ui64_utc_av + static_cast<uint64_t>(OffsetSecondsAt(ui64_utc_av) * static_cast<int64_t>(PL_TICKS_PER_SECOND));
}

uint64_t PlLocalToFileTime(uint64_t ui64_local_av) {
  int64_t i64_guess_lv = OffsetSecondsAt(ui64_local_av);
  uint64_t ui64_utc_lv = ui64_local_av - static_cast<uint64_t>(i64_guess_lv * static_cast<int64_t>(PL_TICKS_PER_SECOND));
  int64_t i64_offset_lv = OffsetSecondsAt(ui64_utc_lv);
  return ui64_local_av - static_cast<uint64_t>(i64_offset_lv * static_cast<int64_t>(PL_TICKS_PER_SECOND));
}

bool PlFileTimeToCalendar(uint64_t ui64_ticks_av, PlCalendar* p_out_av) {
  if (p_out_av == nullptr || ui64_ticks_av >= 0x8000000000000000ULL) return false;
  int64_t i64_days_lv = static_cast<int64_t>(ui64_ticks_av / TICKS_PER_DAY);
  uint64_t ui64_rest_lv = ui64_ticks_av % TICKS_PER_DAY;
  int64_t i64_year_lv = 0;
  CivilFromDays(i64_days_lv - DAYS_1601_TO_1970, &i64_year_lv, &p_out_av->i_month, &p_out_av->i_day);
  if (i64_year_lv > 30827) return false;
  p_out_av->i_year = static_cast<int>(i64_year_lv);
  p_out_av->i_day_of_week = static_cast<int>((i64_days_lv + 1) % 7);  // 1601-01-01 was a Monday
  uint64_t ui64_ms_lv = ui64_rest_lv / PL_TICKS_PER_MS;
  p_out_av->i_hour = static_cast<int>(ui64_ms_lv / 3600000);
  p_out_av->i_minute = static_cast<int>(ui64_ms_lv / 60000 % 60);
  p_out_av->i_second = static_cast<int>(ui64_ms_lv / 1000 % 60);
  p_out_av->i_millisecond = static_cast<int>(ui64_ms_lv % 1000);
  return true;
}

bool PlCalendarToFileTime(const PlCalendar* p_cal_av, uint64_t* p_out_av) {
  if (p_cal_av == nullptr || p_out_av == nullptr) return false;
  const PlCalendar& c_lv = *p_cal_av;
  if (c_lv.i_year < 1601 || c_lv.i_year > 30827 || c_lv.i_month < 1 || c_lv.i_month > 12 || c_lv.i_day < 1 ||
      c_lv.i_hour < 0 || c_lv.i_hour > 23 || c_lv.i_minute < 0 || c_lv.i_minute > 59 || c_lv.i_second < 0 ||
      c_lv.i_second > 59 || c_lv.i_millisecond < 0 || c_lv.i_millisecond > 999) {
    return false;
  }
  static const int s_days_in_month[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool b_leap_lv = (c_lv.i_year % 4 == 0 && c_lv.i_year % 100 != 0) || c_lv.i_year % 400 == 0;
  int i_max_day_lv = s_days_in_month[c_lv.i_month - 1] + ((c_lv.i_month == 2 && b_leap_lv) ? 1 : 0);
  if (c_lv.i_day > i_max_day_lv) return false;
  int64_t i64_days_lv = DaysFromCivil(c_lv.i_year, c_lv.i_month, c_lv.i_day) + DAYS_1601_TO_1970;
  uint64_t ui64_ms_lv = static_cast<uint64_t>(c_lv.i_hour) * 3600000ULL + static_cast<uint64_t>(c_lv.i_minute) * 60000ULL +
                        static_cast<uint64_t>(c_lv.i_second) * 1000ULL + static_cast<uint64_t>(c_lv.i_millisecond);
  *p_out_av = static_cast<uint64_t>(i64_days_lv) * TICKS_PER_DAY + ui64_ms_lv * PL_TICKS_PER_MS;
  return true;
}

int64_t PlPerfCounter() {
  if (g_b_manual.load(std::memory_order_relaxed)) {
    return static_cast<int64_t>(g_ui64_manual_utc.load(std::memory_order_relaxed));
  }
  if (g_tsc.m_b_use_tsc) return static_cast<int64_t>(__rdtsc());
  return static_cast<int64_t>(MonotonicNs());
}

int64_t PlPerfFrequency() {
  if (g_b_manual.load(std::memory_order_relaxed)) return static_cast<int64_t>(PL_TICKS_PER_SECOND);
  if (g_tsc.m_b_use_tsc) return TscFrequency();
  return 1000000000LL;
}

void PlSleep(uint32_t ui_ms_av) {
  PlWakeDeferred();
  timespec ts_lv = {static_cast<time_t>(ui_ms_av / 1000), static_cast<long>(ui_ms_av % 1000) * 1000000L};
  while (nanosleep(&ts_lv, &ts_lv) != 0) {
  }
}

void PlClockTimeZoneChanged() {
  tzset();
  for (int i_lv = 0; i_lv < OFFSET_CACHE_SIZE; ++i_lv) g_offset_cache[i_lv].store(0, std::memory_order_relaxed);
}

void PlClockUseManual(uint64_t ui64_utc_av) {
  g_ui64_manual_utc.store(ui64_utc_av);
  g_b_manual.store(true);
  g_ui64_clock_epoch.fetch_add(1);
  PlEventsKickAll();
}

void PlClockUseReal() {
  g_b_manual.store(false);
  g_ui64_clock_epoch.fetch_add(1);
  PlEventsKickAll();
}

bool PlClockIsManual() { return g_b_manual.load(); }

void PlClockAdvance(int64_t i64_ticks_av) {
  g_ui64_manual_utc.fetch_add(static_cast<uint64_t>(i64_ticks_av));
  PlEventsKickAll();
}

void PlClockSet(uint64_t ui64_utc_av) {
  g_ui64_manual_utc.store(ui64_utc_av);
  PlEventsKickAll();
}

// --- Timed waits.

PlTimedWait::PlTimedWait(uint32_t ui_ms_av)
    : m_ui_ms(ui_ms_av), m_ui64_epoch(~0ULL), m_b_manual(false), m_ui64_deadline(0) {}

namespace {

long Futex(std::atomic<uint32_t>* p_word_av, int i_op_av, uint32_t ui_val_av, const timespec* p_ts_av) {
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex is one plain word");
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(p_word_av), i_op_av | FUTEX_PRIVATE_FLAG, ui_val_av, p_ts_av,
                 nullptr, FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

void PlWakeWord(std::atomic<uint32_t>* p_word_av) { Futex(p_word_av, FUTEX_WAKE, 1, nullptr); }

bool PlTimedWaitWord(PlTimedWait* p_wait_av, std::atomic<uint32_t>* p_word_av, uint32_t ui_seen_av) {
  PlTimedWait& w_lv = *p_wait_av;
  if (w_lv.m_ui_ms == 0xFFFFFFFFu) {
    Futex(p_word_av, FUTEX_WAIT, ui_seen_av, nullptr);
    return true;
  }
  // The deadline is taken again from the present time when the clock
  // switches between real and manual during the wait.
  uint64_t ui64_epoch_lv = g_ui64_clock_epoch.load();
  if (ui64_epoch_lv != w_lv.m_ui64_epoch) {
    w_lv.m_ui64_epoch = ui64_epoch_lv;
    w_lv.m_b_manual = g_b_manual.load();
    w_lv.m_ui64_deadline = w_lv.m_b_manual
                               ? g_ui64_manual_utc.load() + static_cast<uint64_t>(w_lv.m_ui_ms) * PL_TICKS_PER_MS
                               : MonotonicNs() + static_cast<uint64_t>(w_lv.m_ui_ms) * 1000000ULL;
  }
  if (w_lv.m_b_manual) {
    if (g_ui64_manual_utc.load() >= w_lv.m_ui64_deadline) return false;
    Futex(p_word_av, FUTEX_WAIT, ui_seen_av, nullptr);
    return true;
  }
  // An absolute deadline on the monotonic clock (FUTEX_WAIT_BITSET), so that
  // wake-ups that change nothing do not stretch the wait.
  timespec ts_lv = {static_cast<time_t>(w_lv.m_ui64_deadline / 1000000000ULL),
                    static_cast<long>(w_lv.m_ui64_deadline % 1000000000ULL)};
  if (Futex(p_word_av, FUTEX_WAIT_BITSET, ui_seen_av, &ts_lv) == 0 || errno != ETIMEDOUT) return true;
  // A switch of clock during the park starts the wait again on the new one.
  return g_ui64_clock_epoch.load() != w_lv.m_ui64_epoch;
}
