// Speed and wait statistics (see diagnostic.h). SpeedAdd runs on the frame
// path of every channel, SpeedTable on the host thread of a "traffic" query,
// WaitState and WaitStatPrint on the thread that owns the TWaitStat.
#include "linux/common_use/diagnostic.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"

namespace {

const int32_t I_SIGN_SPEED_SITE = 16;
const int32_t I_SIGN_SPEED_TEXT = 17;
const int32_t I_SIGN_WAIT_GROUPS = 18;
const int64_t I64_TICKS_PER_SECOND = 10000000;
// Shorter measurements say nothing about the storage's speed.
const int64_t I64_SPEED_MIN_DURATION = 200001;
// Access speeds below this many KiB/s mark a row of the table.
const int32_t I_SPEED_SLOW = 1000;
// A write shorter than a frame block's head is not counted as a write.
const uint32_t UI_SPEED_MIN_WRITE = 23;
const int32_t I_SPEED_WALK_MAX = 150;
const size_t UI_WAIT_TEXT_SIZE = 2048;
const size_t UI_WAIT_RAW_LIMIT = 1700;

// The sites are written by the frame paths of all channels at once, without
// a lock: a stale or lost count is accepted in a statistic, but each field is
// read and written whole, so that no access is torn.
template <typename T>
T LoadRelaxed(const T* p_av) {
  return __atomic_load_n(p_av, __ATOMIC_RELAXED);
}
template <typename T>
void StoreRelaxed(T* p_av, T value_av) {
  __atomic_store_n(p_av, value_av, __ATOMIC_RELAXED);
}
template <typename T>
void AddRelaxed(T* p_av, T value_av) {
  __atomic_fetch_add(p_av, value_av, __ATOMIC_RELAXED);
}

// Counter counts to ticks without overflow for any span.
int64_t CounterToTicks(int64_t i64_counts_av) {
  int64_t i64_freq_lv = PlPerfFrequency();
  if (i64_freq_lv <= 0) return 0;
  return i64_counts_av / i64_freq_lv * I64_TICKS_PER_SECOND +
         i64_counts_av % i64_freq_lv * I64_TICKS_PER_SECOND / i64_freq_lv;
}

// The site made at first use; double-checked so that the frame path takes
// the lock only once. Null without memory.
TSpeedSite* SpeedFirstSite(TSpeedStat* p_stat_av) {
  TSpeedSite* p_site_lv = __atomic_load_n(&p_stat_av->m_p_sites[0], __ATOMIC_ACQUIRE);
  if (p_site_lv != nullptr) return p_site_lv;
  PlCritLock lock_lv(&p_stat_av->m_crit_sect_sites);
  p_site_lv = p_stat_av->m_p_sites[0];
  if (p_site_lv != nullptr) return p_site_lv;
  SAFE_MEM_ALLOCB5(p_site_lv, static_cast<int32_t>(sizeof(TSpeedSite)), I_SIGN_SPEED_SITE);
  if (p_site_lv == nullptr) return nullptr;
  p_site_lv->m_i_slot = -1;
  __atomic_store_n(&p_stat_av->m_p_sites[0], p_site_lv, __ATOMIC_RELEASE);
  return p_site_lv;
}

void SpeedSlotClear(TSpeedSlot* p_slot_av, int64_t i64_time_av) {
  StoreRelaxed(&p_slot_av->m_i64_slot_time, i64_time_av);
  StoreRelaxed(&p_slot_av->m_i64_write_dur, static_cast<int64_t>(0));
  StoreRelaxed(&p_slot_av->m_ui_write_size, 0u);
  StoreRelaxed(&p_slot_av->m_ui_write_useful, 0u);
  StoreRelaxed(&p_slot_av->m_ui_write_count, 0u);
  StoreRelaxed(&p_slot_av->m_i64_read_dur, static_cast<int64_t>(0));
  StoreRelaxed(&p_slot_av->m_ui_read_size, 0u);
  StoreRelaxed(&p_slot_av->m_ui_read_count, 0u);
}

void SpeedSlotRead(const TSpeedSlot* p_slot_av, TSpeedSlot* p_out_av) {
  p_out_av->m_i64_slot_time = LoadRelaxed(&p_slot_av->m_i64_slot_time);
  p_out_av->m_i64_write_dur = LoadRelaxed(&p_slot_av->m_i64_write_dur);
  p_out_av->m_ui_write_size = LoadRelaxed(&p_slot_av->m_ui_write_size);
  p_out_av->m_ui_write_useful = LoadRelaxed(&p_slot_av->m_ui_write_useful);
  p_out_av->m_ui_write_count = LoadRelaxed(&p_slot_av->m_ui_write_count);
  p_out_av->m_i64_read_dur = LoadRelaxed(&p_slot_av->m_i64_read_dur);
  p_out_av->m_ui_read_size = LoadRelaxed(&p_slot_av->m_ui_read_size);
  p_out_av->m_ui_read_count = LoadRelaxed(&p_slot_av->m_ui_read_count);
}

// KiB per second of bytes over ticks, truncated; 0 for no time.
int32_t SpeedKibPerSec(uint32_t ui_size_av, int64_t i64_ticks_av) {
  double d_seconds_lv = static_cast<double>(i64_ticks_av) / static_cast<double>(I64_TICKS_PER_SECOND);
  if (d_seconds_lv == 0.0) return 0;
  return static_cast<int32_t>(static_cast<double>(ui_size_av) / 1024.0 / d_seconds_lv);
}

// Mean KiB per write, integer division.
int32_t SpeedKibPerWrite(uint32_t ui_size_av, uint32_t ui_count_av) {
  if (ui_count_av < 1) return 0;
  return static_cast<int32_t>(ui_size_av / ui_count_av / 1024);
}

// The slot the site moves to ends its old period: its speeds feed SpeedMin.
void SpeedSlotRetire(TSpeedStat* p_stat_av, TSpeedSlot* p_slot_av) {
  TSpeedSlot old_lv;
  SpeedSlotRead(p_slot_av, &old_lv);
  SpeedMin(p_stat_av, SpeedKibPerSec(old_lv.m_ui_write_size, old_lv.m_i64_write_dur), old_lv.m_ui_write_count,
           old_lv.m_i64_write_dur);
  SpeedMin(p_stat_av, SpeedKibPerSec(old_lv.m_ui_read_size, old_lv.m_i64_read_dur), old_lv.m_ui_read_count,
           old_lv.m_i64_read_dur);
}

// A slot of slow access: a long enough measure below the threshold; a
// period without a counted operation weighs a hundred times.
bool SpeedSlow(int64_t i64_duration_av, int32_t i_speed_av, uint32_t ui_count_av) {
  if (i64_duration_av < I64_SPEED_MIN_DURATION || i_speed_av < 1) return false;
  int64_t i64_weighted_lv = static_cast<int64_t>(i_speed_av) * (ui_count_av != 0 ? 1 : 100);
  return i64_weighted_lv < I_SPEED_SLOW;
}

// A text buffer filled by bounded appends; what does not fit is cut.
struct TTextFill {
  char* m_p_text;
  size_t m_ui_size;
  size_t m_ui_len;
};

void TextFillAppend(TTextFill* p_fill_av, const char* s_format_av, ...) __attribute__((format(printf, 2, 3)));
void TextFillAppend(TTextFill* p_fill_av, const char* s_format_av, ...) {
  if (p_fill_av->m_ui_len + 1 >= p_fill_av->m_ui_size) return;
  size_t ui_room_lv = p_fill_av->m_ui_size - p_fill_av->m_ui_len;
  va_list args_lv;
  va_start(args_lv, s_format_av);
  int i_n_lv = vsnprintf(p_fill_av->m_p_text + p_fill_av->m_ui_len, ui_room_lv, s_format_av, args_lv);
  va_end(args_lv);
  if (i_n_lv < 0) {
    p_fill_av->m_p_text[p_fill_av->m_ui_len] = 0;
    return;
  }
  size_t ui_n_lv = static_cast<size_t>(i_n_lv);
  p_fill_av->m_ui_len += ui_n_lv < ui_room_lv ? ui_n_lv : ui_room_lv - 1;
}

// The width of the table's time grid for a period.
int64_t SpeedGrid(int64_t i64_period_av) {
  if (i64_period_av == SPEED_PERIOD_10S) return 600000000;
  if (i64_period_av == SPEED_PERIOD_200MS) return 10000000;
  return i64_period_av * 5;
}

// One entry's values in a row; returns whether they mark the row slow.
bool SpeedTableEntry(TSpeedStat* p_stat_av, const TSpeedSiteInfo* p_entry_av, const TSpeedSlot* p_info_av,
                     TTextFill* p_fill_av) {
  TRACE44(TLOG_ARC_TRACEDECIM, "<speed> bef CulcSpeed size %d dur %lld", static_cast<int>(p_info_av->m_ui_write_size),
          static_cast<long long>(p_info_av->m_i64_write_dur));
  int64_t i64_period_lv = LoadRelaxed(&p_stat_av->m_i64_period);
  int32_t i_access_write_lv = SpeedKibPerSec(p_info_av->m_ui_write_size, p_info_av->m_i64_write_dur);
  int32_t i_write_lv = SpeedKibPerSec(p_info_av->m_ui_write_size, i64_period_lv);
  int32_t i_write_useful_lv = SpeedKibPerSec(p_info_av->m_ui_write_useful, i64_period_lv);
  int32_t i_write_size_lv = SpeedKibPerWrite(p_info_av->m_ui_write_size, p_info_av->m_ui_write_count);
  int32_t i_acc_read_lv = SpeedKibPerSec(p_info_av->m_ui_read_size, p_info_av->m_i64_read_dur);
  int32_t i_read_lv = SpeedKibPerSec(p_info_av->m_ui_read_size, i64_period_lv);
  int32_t i_read_size_lv = SpeedKibPerWrite(p_info_av->m_ui_read_size, p_info_av->m_ui_read_count);
  bool b_slow_lv = SpeedSlow(p_info_av->m_i64_write_dur, i_access_write_lv, p_info_av->m_ui_write_count) ||
                   SpeedSlow(p_info_av->m_i64_read_dur, i_acc_read_lv, p_info_av->m_ui_read_count);
  int32_t i_form_lv = LoadRelaxed(&p_stat_av->m_i_print_form);
  if (i_form_lv == 2) {
    TextFillAppend(p_fill_av, " write size %d write %d write useful %d ", i_write_size_lv, i_write_lv,
                   i_write_useful_lv);
  } else if (i_form_lv == 1) {
    const char* s_name_lv = p_entry_av->m_s_name.m_p_text != nullptr ? p_entry_av->m_s_name.m_p_text : "";
    TextFillAppend(p_fill_av, " %s write size %d access write %d write %d size %d acc read %d read %d ", s_name_lv,
                   i_write_size_lv, i_access_write_lv, i_write_lv, i_read_size_lv, i_acc_read_lv, i_read_lv);
  }
  return b_slow_lv;
}

// The local time now, down to the start of its period.
int64_t SlotTimeNow(int64_t i64_period_av) {
  int64_t i64_now_lv = static_cast<int64_t>(FileTimeNowLocal());
  return i64_now_lv / i64_period_av * i64_period_av;
}

}  // namespace

TSpeedStat::TSpeedStat()
    : m_i64_min_speed_time(0),
      m_i_min_speed(SPEED_MIN_START),
      m_p_sites(),
      m_crit_sect_sites(),
      m_i64_period(SPEED_PERIOD_10S),
      m_i_print_form(2),
      m_i_curr_slot(-1),
      m_i64_start_time(static_cast<int64_t>(FileTimeNowLocal())) {}

TSpeedStat::~TSpeedStat() {
  for (int32_t i_lv = 0; i_lv < SPEED_SITE_NUM; i_lv++) {
    if (m_p_sites[i_lv] != nullptr) SAFE_MEM_FREE(m_p_sites[i_lv]);
  }
}

void SpeedAdd(TSpeedStat* p_stat_av, int64_t i64_counter_start_av, uint32_t ui_size_av, uint32_t ui_useful_av,
              int64_t* p_duration_av) {
  if (p_stat_av == nullptr) return;
  TSpeedSite* p_site_lv = SpeedFirstSite(p_stat_av);
  int64_t i64_duration_lv = CounterToTicks(PlPerfCounter() - i64_counter_start_av);
  if (p_duration_av != nullptr) *p_duration_av = i64_duration_lv;
  if (p_site_lv == nullptr) return;
  int64_t i64_period_lv = LoadRelaxed(&p_stat_av->m_i64_period);
  if (i64_period_lv <= 0) return;
  int32_t i_slot_lv = LoadRelaxed(&p_site_lv->m_i_slot);
  int32_t i_curr_lv = LoadRelaxed(&p_stat_av->m_i_curr_slot);
  // The clock only dates a slot that starts: a write into the running slot,
  // the case of almost every frame, does not read it.
  if (i_slot_lv == -1) {
    i_slot_lv = 0;
    SpeedSlotClear(&p_site_lv->m_slots[0], SlotTimeNow(i64_period_lv));
    StoreRelaxed(&p_site_lv->m_i_slot, i_slot_lv);
  } else if (i_curr_lv != -1 && i_curr_lv != i_slot_lv) {
    // The archive's slot numbers are folded into the ring: a number out of
    // range must not reach past it.
    int64_t i64_slot_time_lv = SlotTimeNow(i64_period_lv);
    i_slot_lv = (i_curr_lv % SPEED_SLOT_NUM + SPEED_SLOT_NUM) % SPEED_SLOT_NUM;
    StoreRelaxed(&p_site_lv->m_i_slot, i_slot_lv);
    SpeedSlotRetire(p_stat_av, &p_site_lv->m_slots[i_slot_lv]);
    SpeedSlotClear(&p_site_lv->m_slots[i_slot_lv], i64_slot_time_lv);
  }
  if (static_cast<uint32_t>(i_slot_lv) >= static_cast<uint32_t>(SPEED_SLOT_NUM)) return;
  TSpeedSlot* p_slot_lv = &p_site_lv->m_slots[i_slot_lv];
  AddRelaxed(&p_slot_lv->m_i64_write_dur, i64_duration_lv);
  AddRelaxed(&p_slot_lv->m_ui_write_size, ui_size_av);
  AddRelaxed(&p_slot_lv->m_ui_write_useful, ui_useful_av);
  if (ui_size_av >= UI_SPEED_MIN_WRITE) AddRelaxed(&p_slot_lv->m_ui_write_count, 1u);
}

void SpeedMin(TSpeedStat* p_stat_av, int32_t i_speed_av, uint32_t ui_count_av, int64_t i64_duration_av) {
  if (i64_duration_av < I64_SPEED_MIN_DURATION) return;
  int64_t i64_weighted_lv = static_cast<int64_t>(i_speed_av) * (ui_count_av != 0 ? 1 : 100);
  if (i_speed_av >= 1 && i64_weighted_lv < LoadRelaxed(&p_stat_av->m_i_min_speed)) {
    StoreRelaxed(&p_stat_av->m_i_min_speed, static_cast<int32_t>(i64_weighted_lv));
    StoreRelaxed(&p_stat_av->m_i64_min_speed_time, static_cast<int64_t>(FileTimeNowLocal()));
  }
}

void GetAccessSpeedInfoA_Level1(TSpeedSite* p_site_av, int64_t i64_time_av, int32_t* p_slot_av,
                                TSpeedSlot* p_info_av) {
  memset(p_info_av, 0, sizeof(*p_info_av));
  int32_t i_last_lv = LoadRelaxed(&p_site_av->m_i_slot);
  int32_t i_s_lv = *p_slot_av;
  if (i_s_lv == -1) i_s_lv = (i_last_lv + 2) % SPEED_SLOT_NUM;
  if (i_last_lv == -1) return;
  if (static_cast<uint32_t>(i_s_lv) >= static_cast<uint32_t>(SPEED_SLOT_NUM)) return;
  if (LoadRelaxed(&p_site_av->m_slots[i_s_lv].m_i64_slot_time) < i64_time_av) {
    int32_t i_steps_lv = 0;
    while (i_s_lv != i_last_lv) {
      i_s_lv = (i_s_lv + 1) % SPEED_SLOT_NUM;
      if (++i_steps_lv > I_SPEED_WALK_MAX) {
        TRACE45(TLOG_ARC, TSEV_FAULT, "<error> Error: GetAccessSpeedInfoA_Level1 ");
        return;
      }
      if (LoadRelaxed(&p_site_av->m_slots[i_s_lv].m_i64_slot_time) >= i64_time_av) break;
    }
  }
  if (LoadRelaxed(&p_site_av->m_slots[i_s_lv].m_i64_slot_time) != i64_time_av) return;
  SpeedSlotRead(&p_site_av->m_slots[i_s_lv], p_info_av);
  *p_slot_av = i_s_lv;
}

void SpeedTable(TSpeedStat* p_stat_av, TSpeedSiteInfo* p_sites_av, SafeString* p_out_av) {
  if (p_stat_av == nullptr || p_sites_av == nullptr || p_out_av == nullptr) return;
  int32_t i_active_lv = 0;
  for (int32_t i_lv = 0; i_lv < SPEED_SITE_NUM; i_lv++) {
    if (p_sites_av[i_lv].m_b_active) i_active_lv++;
  }
  if (i_active_lv == 0) return;
  SafeStringDestroy(p_out_av);
  int32_t i_size_lv = SPEED_TEXT_PER_ENTRY * i_active_lv;
  SAFE_MEM_ALLOCB5(p_out_av->m_p_text, i_size_lv, I_SIGN_SPEED_TEXT);
  if (p_out_av->m_p_text == nullptr) return;
  p_out_av->m_i_size = i_size_lv;
  TTextFill fill_lv = {p_out_av->m_p_text, static_cast<size_t>(i_size_lv), 0};

  int32_t i_slots_lv[SPEED_SITE_NUM];
  for (int32_t i_lv = 0; i_lv < SPEED_SITE_NUM; i_lv++) i_slots_lv[i_lv] = -1;
  int64_t i64_period_lv = LoadRelaxed(&p_stat_av->m_i64_period);
  int64_t i64_grid_lv = SpeedGrid(i64_period_lv);
  if (i64_grid_lv <= 0) return;
  int64_t i64_now_lv = static_cast<int64_t>(FileTimeNowLocal());
  int64_t i64_t_lv = (i64_now_lv / i64_grid_lv + 1) * i64_grid_lv - SPEED_TABLE_ROWS * i64_period_lv;

  for (int32_t i_row_lv = 0; i_row_lv < SPEED_TABLE_ROWS; i_row_lv++) {
    char s_time_lv[FILE_TIME_TEXT_SIZE];
    FileTimeToText(static_cast<uint64_t>(i64_t_lv), s_time_lv);
    TextFillAppend(&fill_lv, "%s", s_time_lv);
    bool b_slow_lv = false;
    for (int32_t i_lv = 0; i_lv < SPEED_SITE_NUM; i_lv++) {
      if (!p_sites_av[i_lv].m_b_active) continue;
      TSpeedSlot info_lv = {};
      TSpeedSite* p_site_lv = __atomic_load_n(&p_stat_av->m_p_sites[i_lv], __ATOMIC_ACQUIRE);
      if (p_site_lv != nullptr) GetAccessSpeedInfoA_Level1(p_site_lv, i64_t_lv, &i_slots_lv[i_lv], &info_lv);
      if (SpeedTableEntry(p_stat_av, &p_sites_av[i_lv], &info_lv, &fill_lv)) b_slow_lv = true;
    }
    if (b_slow_lv) TextFillAppend(&fill_lv, " error");
    TextFillAppend(&fill_lv, "\n");
    i64_t_lv += i64_period_lv;
  }
}

void SpeedTableQuery(TSpeedStat* p_stat_av, SafeString* p_out_av) {
  TSpeedSiteInfo* p_table_lv = new TSpeedSiteInfo[SPEED_SITE_NUM]();
  p_table_lv[0].m_b_active = 1;
  SpeedTable(p_stat_av, p_table_lv, p_out_av);
  delete[] p_table_lv;
}

void SpeedSetCurrSlot(TSpeedStat* p_stat_av, int32_t i_slot_av) {
  if (p_stat_av != nullptr) StoreRelaxed(&p_stat_av->m_i_curr_slot, i_slot_av);
}

void SpeedSetPeriod(TSpeedStat* p_stat_av, int64_t i64_period_av) {
  if (p_stat_av != nullptr && i64_period_av > 0) StoreRelaxed(&p_stat_av->m_i64_period, i64_period_av);
}

int32_t WaitStatInit(TWaitStat* p_wd_av, int32_t i_stable_slot_av) {
  memset(p_wd_av, 0, sizeof(*p_wd_av));
  p_wd_av->m_i_stable_slot = i_stable_slot_av;
  p_wd_av->m_i_end = -1;
  SAFE_MEM_ALLOCB5(p_wd_av->m_p_groups, static_cast<int32_t>(sizeof(TWaitGroup) * WAIT_GROUP_NUM),
                   I_SIGN_WAIT_GROUPS);
  p_wd_av->m_i64_now = PlPerfCounter();
  p_wd_av->m_i64_last_print = p_wd_av->m_i64_now;
  return p_wd_av->m_p_groups != nullptr ? RC_OK : RC_E_FAIL;
}

void WaitStatDestroy(TWaitStat* p_wd_av) {
  if (p_wd_av != nullptr && p_wd_av->m_p_groups != nullptr) SAFE_MEM_FREE(p_wd_av->m_p_groups);
}

void WaitStatPrint(TWaitStat* p_wd_av, int32_t i_form_av, int64_t i64_camera_id_av, int64_t i64_type_id_av) {
  if (p_wd_av == nullptr || p_wd_av->m_p_groups == nullptr) return;
  p_wd_av->m_i64_now = PlPerfCounter();
  int64_t i64_span_lv = p_wd_av->m_i64_now - p_wd_av->m_i64_last_print + 1;
  if (i64_span_lv < 1) i64_span_lv = 1;
  for (int32_t i_g_lv = 0; i_g_lv < WAIT_GROUP_NUM; i_g_lv++) {
    const TWaitGroup* p_group_lv = &p_wd_av->m_p_groups[i_g_lv];
    char s_raw_lv[UI_WAIT_TEXT_SIZE];
    char s_perc_lv[UI_WAIT_TEXT_SIZE];
    TTextFill raw_lv = {s_raw_lv, sizeof(s_raw_lv), 0};
    TTextFill perc_lv = {s_perc_lv, sizeof(s_perc_lv), 0};
    s_raw_lv[0] = 0;
    s_perc_lv[0] = 0;
    int64_t i64_sum_lv = 0;
    for (int32_t i_s_lv = 1; i_s_lv < WAIT_STATE_NUM; i_s_lv++) {
      int64_t i64_v_lv = p_group_lv->m_i64_times[i_s_lv];
      if (i64_v_lv == 0) continue;
      TextFillAppend(&raw_lv, "WD(%d,%d)%lld", i_g_lv, i_s_lv, static_cast<long long>(i64_v_lv));
      int64_t i64_p_lv = i64_v_lv * 1000 / i64_span_lv;
      i64_sum_lv += i64_p_lv;
      TextFillAppend(&perc_lv, "WD(%d,%d)%lld ", i_g_lv, i_s_lv, static_cast<long long>(i64_p_lv));
      if (raw_lv.m_ui_len > UI_WAIT_RAW_LIMIT) break;
    }
    if (raw_lv.m_ui_len == 0) continue;
    TRACE44(TLOG_ARC_TRACEDECIM, "<wd_%lld_%lld_%d> %s %lld %d %s %lld", static_cast<long long>(i64_camera_id_av),
            static_cast<long long>(i64_type_id_av), i_form_av, i64_camera_id_av != 0 ? "SCwaitPerc" : "CCwaitPerc",
            0LL, i_g_lv, s_perc_lv, static_cast<long long>(i64_sum_lv / 10));
  }
  p_wd_av->m_i64_last_print = p_wd_av->m_i64_now;
  memset(p_wd_av->m_p_groups, 0, sizeof(TWaitGroup) * WAIT_GROUP_NUM);
}
