// Speed and wait statistics. The frame path feeds TSpeedStat with every
// frame it passes on (SpeedAdd) and the "traffic" query prints the last 24
// periods of it (SpeedTable). Every worker thread keeps a TWaitStat of its
// own: it marks each numbered stage of its work with WaitState, and once a
// minute WaitStatPrint writes the time per stage as "WD" lines.
//
// The channel and the process-wide object live in the writer; the functions
// here take the statistic objects and the camera's ids as arguments, so that
// this unit stands without them.
#pragma once

#include <cstdint>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "platform/pl_sync.h"

const int32_t SPEED_SITE_NUM = 512;          // measuring points of a TSpeedStat
const int32_t SPEED_SLOT_NUM = 50;           // periods kept per site
const int32_t SPEED_TABLE_ROWS = 24;         // rows of the "traffic" table
const int32_t SPEED_TEXT_PER_ENTRY = 24576;  // text bytes per active table entry
const int64_t SPEED_PERIOD_10S = 100000000;  // "10s", the starting period
const int64_t SPEED_PERIOD_200MS = 2000000;  // "200ms"
const int32_t SPEED_MIN_START = 0x40000000;  // m_i_min_speed before any measure

const int32_t WAIT_GROUP_NUM = 101;  // groups of a TWaitStat
const int32_t WAIT_STATE_NUM = 21;   // states of a group, 0 = rest

// Wait groups and their owners.
const int32_t WAIT_GROUP_BUFF_THREAD = 2;   // ThreadWriteBufferingMethod
const int32_t WAIT_GROUP_GET_AND_WR = 3;    // GetAndWr
const int32_t WAIT_GROUP_OPEN_HANDLE = 7;   // OpenWriteHandle
const int32_t WAIT_GROUP_SESSION = 9;       // the write-session check
const int32_t WAIT_GROUP_FRAME_STAT = 16;   // the frame-statistics step
const int32_t WAIT_GROUP_ON_FRAME = 17;     // on_frame

// One period of a measuring point; also the answer of
// GetAccessSpeedInfoA_Level1. The read fields are never fed and stay 0.
struct TSpeedSlot {
  int64_t m_i64_slot_time;   // start of the period, a multiple of the period
  int64_t m_i64_write_dur;   // ticks spent on writes
  uint32_t m_ui_write_size;  // bytes
  uint32_t m_ui_write_useful;
  uint32_t m_ui_write_count;  // writes of at least 23 bytes
  int64_t m_i64_read_dur;
  uint32_t m_ui_read_size;
  uint32_t m_ui_read_count;
};

// A measuring point: a ring of periods and the slot now being filled.
struct TSpeedSite {
  TSpeedSlot m_slots[SPEED_SLOT_NUM];
  int32_t m_i_slot;  // -1 until the first measure
};

// The speed statistics, one by value in the process-wide object.
struct TSpeedStat {
  TSpeedStat();
  ~TSpeedStat();
  TSpeedStat(const TSpeedStat&) = delete;
  TSpeedStat& operator=(const TSpeedStat&) = delete;

  int64_t m_i64_min_speed_time;  // local time at which m_i_min_speed was reached
  int32_t m_i_min_speed;         // lowest weighted access speed seen
  TSpeedSite* m_p_sites[SPEED_SITE_NUM];  // only the first is used, made at first use
  PlCritSect m_crit_sect_sites;            // guards the making of a site
  int64_t m_i64_period;                    // ticks per period
  int32_t m_i_print_form;                  // 2: short rows, 1: named long rows
  int32_t m_i_curr_slot;                   // the archive's slot number, -1 before any
  int64_t m_i64_start_time;                // local time of construction
};

// One entry of the table a "traffic" query prints: a name and a flag.
struct TSpeedSiteInfo {
  SafeString m_s_name;
  int32_t m_b_active;
};

// Measures from the counter value given, stores the ticks in out duration
// (may be null) and adds one entry to the current period. Frame path.
void SpeedAdd(TSpeedStat* p_stat_av, int64_t i64_counter_start_av, uint32_t ui_size_av, uint32_t ui_useful_av,
              int64_t* p_duration_av);
// Keeps the lowest weighted access speed of the periods that end.
void SpeedMin(TSpeedStat* p_stat_av, int32_t i_speed_av, uint32_t ui_count_av, int64_t i64_duration_av);
// The "traffic" report of the active entries of the site table
// (SPEED_SITE_NUM entries) into out; out is left as it was without one.
void SpeedTable(TSpeedStat* p_stat_av, TSpeedSiteInfo* p_sites_av, SafeString* p_out_av);
// The "traffic" answer as a query gives it: a fresh table with only the first
// entry active and unnamed.
void SpeedTableQuery(TSpeedStat* p_stat_av, SafeString* p_out_av);
// Reads the slot of a site that starts exactly at time; slot in out is the
// walk's position (-1: start at the oldest). Info is cleared first.
void GetAccessSpeedInfoA_Level1(TSpeedSite* p_site_av, int64_t i64_time_av, int32_t* p_slot_av,
                                TSpeedSlot* p_info_av);
// The slot number the archive gives for the present period (code 110); the
// frame path sets it before each frame.
void SpeedSetCurrSlot(TSpeedStat* p_stat_av, int32_t i_slot_av);
// The period length of "traffic_params" ("10s" or "200ms").
void SpeedSetPeriod(TSpeedStat* p_stat_av, int64_t i64_period_av);

// One group of a wait statistic: the state it is in and the ticks per state.
struct TWaitGroup {
  int64_t m_i64_now;   // counter at the latest state change
  int64_t m_i64_last;  // counter at the change before
  int32_t m_i_state;   // current state
  int64_t m_i64_times[WAIT_STATE_NUM];
};

// A thread's wait statistic; belongs to that thread alone.
struct TWaitStat {
  int64_t m_i64_now;         // counter at the latest print
  int64_t m_i64_last_print;  // counter at the print before
  int64_t m_i64_spare;
  int32_t m_i_stable_slot;   // the thread's stability slot
  TWaitGroup* m_p_groups;    // WAIT_GROUP_NUM groups, 32-byte aligned, zeroed
  int32_t m_i_end;           // -1
};

// Allocates the zeroed groups and starts the span now. 0, or RC_E_FAIL
// without memory (the statistic then stays silent).
int32_t WaitStatInit(TWaitStat* p_wd_av, int32_t i_stable_slot_av);
// Frees the groups.
void WaitStatDestroy(TWaitStat* p_wd_av);
// Books the time since the group's last change to its present state and
// moves it to the new one. A null statistic or a group or state outside the
// table is ignored.
inline void WaitStateAt(TWaitStat* p_wd_av, int32_t i_group_av, int32_t i_state_av, int64_t i64_now_av) {
  if (p_wd_av == nullptr || p_wd_av->m_p_groups == nullptr) return;
  if (static_cast<uint32_t>(i_group_av) >= static_cast<uint32_t>(WAIT_GROUP_NUM) ||
      static_cast<uint32_t>(i_state_av) >= static_cast<uint32_t>(WAIT_STATE_NUM)) {
    return;
  }
  TWaitGroup* p_group_lv = &p_wd_av->m_p_groups[i_group_av];
  p_group_lv->m_i64_now = i64_now_av;
  int32_t i_old_lv = p_group_lv->m_i_state;
  if (static_cast<uint32_t>(i_old_lv) < static_cast<uint32_t>(WAIT_STATE_NUM)) {
    p_group_lv->m_i64_times[i_old_lv] += p_group_lv->m_i64_now - p_group_lv->m_i64_last;
  }
  p_group_lv->m_i_state = i_state_av;
  p_group_lv->m_i64_last = p_group_lv->m_i64_now;
}
inline void WaitState(TWaitStat* p_wd_av, int32_t i_group_av, int32_t i_state_av) {
  if (p_wd_av == nullptr || p_wd_av->m_p_groups == nullptr) return;
  WaitStateAt(p_wd_av, i_group_av, i_state_av, PlPerfCounter());
}
// A state of the statistic and a point of the thread's stability slot
// entered at the same moment: one counter reading books both. Always
// inlined: the frame path marks some twenty times per message with fixed
// groups, states and points, whose range checks then fold away.
__attribute__((always_inline)) inline void WaitStateMark(TWaitStat* p_wd_av, int32_t i_group_av, int32_t i_state_av, int32_t i_point_av) {
  if (p_wd_av == nullptr) return;
  int64_t i64_now_lv = PlPerfCounter();
  WaitStateAt(p_wd_av, i_group_av, i_state_av, i64_now_lv);
  StableMarkAt(p_wd_av->m_i_stable_slot, i_point_av, i64_now_lv);
}
// Writes one "WD" line per group that spent time outside rest, then starts a
// new span with all counters at zero. Form 2: buffering thread, 1: frame path.
void WaitStatPrint(TWaitStat* p_wd_av, int32_t i_form_av, int64_t i64_camera_id_av, int64_t i64_type_id_av);
