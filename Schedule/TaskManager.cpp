// The schedule engine (see TaskManager.h): the task table, the plan and
// calendar readers, and the hourly thread. Made and destroyed by dllmain;
// tasks come and go with the channels' schedule bindings.
#include "Schedule/TaskManager.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "linux/common_use/yajl_host.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "linux/common_use/service/entry_scope.h"

namespace kelmar_schedule {

TaskManager* g_p_task_manager = nullptr;

namespace {

const size_t UI_DAYS_ERRBUF = 256;
const uint32_t UI_SECONDS_PER_HOUR = 3600;

// Ids are handed out once per process and never used again.
int32_t g_i_next_task_id = 0;

const char* const S_DAY_KEYS[7] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
const char* const S_MONTHS[12] = {"january", "february", "march",     "april",   "may",      "june",
                                  "july",    "august",   "september", "october", "november", "december"};

// Hours of a time text, or 0 for a value that is no text.
int32_t HourOf(yajl_val node_av) {
  return ParseTwoDigits(YAJL_IS_STRING(node_av) ? YAJL_GET_STRING(node_av) : nullptr);
}

// One {"begin": ..., "end": ...} element. The keys count only in this
// order; a missing one reads as hour 0.
void ApplyInterval(yajl_val elem_av, int32_t* p_row_av) {
  if (!YAJL_IS_OBJECT(elem_av) || elem_av->u.object.len != 2) return;
  const char** keys_lv = elem_av->u.object.keys;
  yajl_val* values_lv = elem_av->u.object.values;
  int32_t i_begin_lv = strcmp(keys_lv[0], "begin") == 0 ? HourOf(values_lv[0]) : 0;
  int32_t i_end_lv = strcmp(keys_lv[1], "end") == 0 ? HourOf(values_lv[1]) : 0;
  if (i_begin_lv < 0 || i_begin_lv > 23 || i_end_lv < 0 || i_end_lv > 24 || i_begin_lv >= i_end_lv) return;
  for (int32_t i_lv = i_begin_lv; i_lv < i_end_lv; i_lv++) p_row_av[i_lv] = I_STATE_INSIDE;
}

int DayRow(const char* s_key_av) {
  for (int i_lv = 0; i_lv < 7; i_lv++)
    if (strcmp(s_key_av, S_DAY_KEYS[i_lv]) == 0) return i_lv;
  return -1;
}

void ParseUsual(yajl_val usual_av, int32_t (*p_hours_av)[I_PLAN_HOURS]) {
  for (size_t i_lv = 0; i_lv < usual_av->u.object.len; i_lv++) {
    int i_row_lv = DayRow(usual_av->u.object.keys[i_lv]);
    yajl_val day_lv = usual_av->u.object.values[i_lv];
    if (i_row_lv >= 0 && YAJL_IS_ARRAY(day_lv)) parseHours(day_lv, p_hours_av[i_row_lv]);
  }
}

// Seconds from now to the next full hour of local time, and the present
// local date and hour. A clock that cannot be broken down ends the thread.
uint32_t ReadClock(PlCalendar* p_cal_av) {
  uint64_t ui64_local_lv = FileTimeNowLocal();
  if (!PlFileTimeToCalendar(ui64_local_lv, p_cal_av))
    throw km::InvalidArgumentException("_localtime64_s failed due to invalid arguments");
  return UI_SECONDS_PER_HOUR - static_cast<uint32_t>(p_cal_av->i_minute * 60 + p_cal_av->i_second);
}

// Tells every task the state of the present hour, in the row of the day.
// The day table is read one place further than applyDayList writes.
void Evaluate(TaskManager* p_av, const PlCalendar* p_cal_av) {
  PlCritLock lock_lv(&p_av->m_crit_sect_tasks);
  int32_t i_type_lv = AtomicGet(&p_av->m_day_types[(p_cal_av->i_month - 1) * 31 + p_cal_av->i_day]);
  int i_row_lv = p_cal_av->i_day_of_week;
  if (i_type_lv == I_DAY_HOLIDAY) i_row_lv = I_ROW_HOLIDAYS;
  if (i_type_lv == I_DAY_WORKING_WEEKEND) i_row_lv = I_ROW_WORKING_WEEKENDS;
  for (BaseTask* p_task_lv : p_av->m_tasks) p_task_lv->setState(p_task_lv->m_hours[i_row_lv][p_cal_av->i_hour]);
  PlAtomicAdd32(&p_av->m_i_passes, 1);
}

// The thread: an evaluation, then a wait until the full hour (plus 1 ms,
// so that the clock is past it) or a signal; a signal with the stop flag
// up ends it.
void ThreadBody(void* p_arg_av) {
  TaskManager* p_lv = static_cast<TaskManager*>(p_arg_av);
  CEntryScope scope_lv("schedule thread");
  for (;;) {
    PlCalendar cal_lv = {};
    uint32_t ui_wait_s_lv = ReadClock(&cal_lv);
    Evaluate(p_lv, &cal_lv);
    uint32_t ui_rc_lv = p_lv->m_h_event->Wait(ui_wait_s_lv * 1000u + 1u);
    if (ui_rc_lv != PL_WAIT_OBJECT_0 && ui_rc_lv != PL_WAIT_TIMEOUT) throw km::SystemException("wait for event failed");
    if (ui_rc_lv == PL_WAIT_OBJECT_0 && AtomicGetAcquire(&p_lv->m_b_stop) != 0) return;
  }
}

}  // namespace

BaseTask::BaseTask() : m_i_id(-1), m_i_state(I_STATE_OUTSIDE) {
  // A day that the first plan does not name counts as outside.
  for (int i_row_lv = 0; i_row_lv < I_PLAN_ROWS; i_row_lv++)
    for (int i_hour_lv = 0; i_hour_lv < I_PLAN_HOURS; i_hour_lv++) m_hours[i_row_lv][i_hour_lv] = I_STATE_OUTSIDE;
}

BaseTask::~BaseTask() {}

void parseHours(yajl_val node_av, int32_t* p_row_av) {
  if (!YAJL_IS_ARRAY(node_av)) return;
  for (int i_lv = 0; i_lv < I_PLAN_HOURS; i_lv++) p_row_av[i_lv] = I_STATE_OUTSIDE;
  for (size_t i_lv = 0; i_lv < node_av->u.array.len; i_lv++) ApplyInterval(node_av->u.array.values[i_lv], p_row_av);
}

void parseSchedule(yajl_val node_av, int32_t (*p_hours_av)[I_PLAN_HOURS]) {
  if (!YAJL_IS_OBJECT(node_av)) return;
  for (size_t i_lv = 0; i_lv < node_av->u.object.len; i_lv++) {
    const char* s_key_lv = node_av->u.object.keys[i_lv];
    yajl_val value_lv = node_av->u.object.values[i_lv];
    if (strcmp(s_key_lv, "usual") == 0 && YAJL_IS_OBJECT(value_lv)) {
      ParseUsual(value_lv, p_hours_av);
    } else if (strcmp(s_key_lv, "holidays") == 0 && YAJL_IS_ARRAY(value_lv)) {
      parseHours(value_lv, p_hours_av[I_ROW_HOLIDAYS]);
    } else if (strcmp(s_key_lv, "working_weekends") == 0 && YAJL_IS_ARRAY(value_lv)) {
      parseHours(value_lv, p_hours_av[I_ROW_WORKING_WEEKENDS]);
    }
  }
}

bool parseMonthDay(const char* s_text_av, int32_t* p_month_av, int32_t* p_day_av) {
  if (s_text_av == nullptr || s_text_av[0] == 0) return false;
  const char* p_sep_lv = strchr(s_text_av, '_');
  if (p_sep_lv == nullptr) return false;
  size_t ui_name_len_lv = static_cast<size_t>(p_sep_lv - s_text_av);
  int32_t i_month_lv = -1;
  for (int32_t i_lv = 0; i_lv < 12; i_lv++)
    if (strlen(S_MONTHS[i_lv]) == ui_name_len_lv && memcmp(S_MONTHS[i_lv], s_text_av, ui_name_len_lv) == 0)
      i_month_lv = i_lv;
  if (i_month_lv < 0) return false;
  // Any month takes days up to 31; strtol saturates, so no text overflows.
  long l_day_lv = strtol(p_sep_lv + 1, nullptr, 10);
  if (l_day_lv < 1 || l_day_lv > 31) return false;
  *p_month_av = i_month_lv;
  *p_day_av = static_cast<int32_t>(l_day_lv);
  return true;
}

TaskManager::TaskManager() : m_p_thread(nullptr), m_h_event(nullptr), m_b_stop(0), m_day_types(), m_i_passes(0) {
  m_h_event = new (std::nothrow) PlEvent(false, false);
  if (m_h_event == nullptr) throw km::SystemException("cannot create event");
  PlCritLock lock_lv(&m_crit_sect_thread);
  m_p_thread = new CThread();
  CThreadInit(m_p_thread, ThreadBody);
  CThreadStart(m_p_thread, this);
}

TaskManager::~TaskManager() noexcept(false) {
  {
    CEntryScope scope_lv("kelmar_schedule::TaskManager::~TaskManager");
    int32_t i_slot_lv = scope_lv.Slot();
    PlCritLock lock_lv(&m_crit_sect_thread);
    StableMark(i_slot_lv, 20261);
    if (m_p_thread != nullptr) {
      StableMark(i_slot_lv, 20262);
      PlThread* p_handle_lv = m_p_thread->m_h_thread;
      if (p_handle_lv != nullptr && p_handle_lv->ExitCode() == PL_STILL_ACTIVE) {
        StableMark(i_slot_lv, 20263);
        __atomic_exchange_n(&m_b_stop, 1, __ATOMIC_SEQ_CST);
        signal();
        StableMark(i_slot_lv, 20264);
        CThreadJoin(m_p_thread);
        StableMark(i_slot_lv, 20265);
      }
      StableMark(i_slot_lv, 20266);
      // A thread that ended on its own still has its handle.
      if (m_p_thread->m_h_thread != nullptr) PlThread::Close(m_p_thread->m_h_thread);
      delete m_p_thread;
      StableMark(i_slot_lv, 20267);
      m_p_thread = nullptr;
    }
  }
  delete m_h_event;
  m_h_event = nullptr;
}

void TaskManager::signal() {
  if (m_h_event == nullptr) throw km::SystemException("cannot signal event");
  m_h_event->Set();
}

int32_t TaskManager::addTask(BaseTask* p_task_av, yajl_val node_av) {
  int32_t i_id_lv = PlAtomicAdd32(&g_i_next_task_id, 1) - 1;
  {
    PlCritLock lock_lv(&m_crit_sect_tasks);
    p_task_av->m_i_id = i_id_lv;
    parseSchedule(node_av, p_task_av->m_hours);
    m_tasks.push_back(p_task_av);
  }
  signal();
  return i_id_lv;
}

void TaskManager::updateTask(int32_t i_id_av, yajl_val node_av) {
  bool b_found_lv = false;
  {
    PlCritLock lock_lv(&m_crit_sect_tasks);
    for (BaseTask* p_task_lv : m_tasks) {
      if (p_task_lv->m_i_id != i_id_av) continue;
      parseSchedule(node_av, p_task_lv->m_hours);
      b_found_lv = true;
      break;
    }
  }
  if (b_found_lv) signal();
}

void TaskManager::unregisterTask(int32_t i_id_av) {
  PlCritLock lock_lv(&m_crit_sect_tasks);
  for (size_t i_lv = 0; i_lv < m_tasks.size(); i_lv++) {
    if (m_tasks[i_lv]->m_i_id != i_id_av) continue;
    delete m_tasks[i_lv];
    m_tasks.erase(m_tasks.begin() + static_cast<std::ptrdiff_t>(i_lv));
    return;
  }
}

// A date stays marked until the library ends: a later document can
// overwrite it, never clear it.
void TaskManager::applyDayList(yajl_val node_av, int32_t i_type_av) {
  if (!YAJL_IS_ARRAY(node_av) || node_av->u.array.len == 0) return;
  for (size_t i_lv = 0; i_lv < node_av->u.array.len; i_lv++) {
    yajl_val elem_lv = node_av->u.array.values[i_lv];
    int32_t i_month_lv = 0;
    int32_t i_day_lv = 0;
    if (!YAJL_IS_STRING(elem_lv) || !parseMonthDay(YAJL_GET_STRING(elem_lv), &i_month_lv, &i_day_lv)) continue;
    AtomicPut(&m_day_types[i_month_lv * 31 + i_day_lv - 1], i_type_av);
  }
}

void TaskManager::loadDayTypes(const char* s_json_av) {
  if (s_json_av == nullptr) return;
  char s_errbuf_lv[UI_DAYS_ERRBUF];
  yajl_val root_lv = YAJL_TREE_PARSE(s_json_av, s_errbuf_lv, sizeof(s_errbuf_lv));
  if (YAJL_IS_OBJECT(root_lv) && root_lv->u.object.len == 2) {
    const char** keys_lv = root_lv->u.object.keys;
    yajl_val* values_lv = root_lv->u.object.values;
    if (strcmp(keys_lv[0], "holidays") == 0) {
      applyDayList(values_lv[0], I_DAY_HOLIDAY);
      if (strcmp(keys_lv[1], "working_weekends") == 0) applyDayList(values_lv[1], I_DAY_WORKING_WEEKEND);
    } else if (strcmp(keys_lv[0], "working_weekends") == 0) {
      applyDayList(values_lv[0], I_DAY_WORKING_WEEKEND);
      if (strcmp(keys_lv[1], "holidays") == 0) applyDayList(values_lv[1], I_DAY_HOLIDAY);
    }
  }
  if (root_lv != nullptr) yajl_tree_free(root_lv);
  signal();
}

}  // namespace kelmar_schedule
