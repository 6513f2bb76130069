// The process clock: file time, local time, calendar split, the performance
// counter and sleep. Every clock read of the plug-in and the reference host
// goes through these functions, so that a test can switch the whole process
// to a manual clock and move it forward or back.
//
// A tick is 100 ns; file time counts ticks since 1601-01-01 UTC.
#pragma once

#include <cstdint>

const uint64_t PL_TICKS_PER_SECOND = 10000000ULL;
const uint64_t PL_TICKS_PER_MS = 10000ULL;
// File time of 1970-01-01 00:00:00 UTC.
const uint64_t PL_UNIX_EPOCH_TICKS = 116444736000000000ULL;

// Calendar form of a file time, as the system splits it.
struct PlCalendar {
  int i_year;
  int i_month;        // 1..12
  int i_day_of_week;  // 0 = Sunday
  int i_day;          // day of the month, 1..31
  int i_hour;
  int i_minute;
  int i_second;
  int i_millisecond;
};

// Present time as UTC file time.
uint64_t PlFileTimeUtc();
// Present time as UTC file time to within a few milliseconds, at a quarter
// of the cost: for checks of periods of seconds on hot paths.
uint64_t PlFileTimeUtcCoarse();
// UTC file time to local file time. The offset to UTC is cached per quarter
// hour of UTC, so a call costs no time-zone look-up in the common case and is
// still right across a daylight-saving change.
uint64_t PlFileTimeToLocal(uint64_t ui64_utc_av);
// Local file time back to UTC (the offset in force at that local time).
uint64_t PlLocalToFileTime(uint64_t ui64_local_av);
// Splits a file time (UTC or local, it does not care) into calendar fields.
// False for a time beyond year 30827.
bool PlFileTimeToCalendar(uint64_t ui64_ticks_av, PlCalendar* p_out_av);
// Builds a file time from calendar fields (day of week ignored). False for
// fields out of range.
bool PlCalendarToFileTime(const PlCalendar* p_cal_av, uint64_t* p_out_av);

// Performance counter and its frequency in counts per second.
int64_t PlPerfCounter();
int64_t PlPerfFrequency();

// Sleeps for real, whatever clock is in force: short pauses in polling loops
// must not depend on a test moving the clock.
void PlSleep(uint32_t ui_ms_av);

// Forgets the cached UTC offset; call after changing the TZ variable.
void PlClockTimeZoneChanged();

// Manual clock for tests. From PlClockUseManual on, PlFileTimeUtc and the
// performance counter give the manual time (the counter at 10 MHz), and
// waits with a time-out end when the manual time passes their deadline.
void PlClockUseManual(uint64_t ui64_utc_av);
void PlClockUseReal();
bool PlClockIsManual();
// Moves the manual clock by a signed number of ticks and wakes every timed
// wait so that it looks at its deadline again.
void PlClockAdvance(int64_t i64_ticks_av);
void PlClockSet(uint64_t ui64_utc_av);
