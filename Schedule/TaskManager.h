// The schedule engine: one TaskManager per library, made at the end of
// dll_init and destroyed first thing in dll_free. A task is the week plan of
// one subject, one state per hour (0 inside the plan, 1 outside); the
// engine's thread wakes at every full hour, and at every signal, and tells a
// task's owner when the present hour's state has changed. Holidays and
// working weekends are dates common to all tasks that switch a task from its
// weekday row to one of two further rows. The channel's schedule binding
// (writer_schedule) is the only client.
//
// Unlike the rest of the plug-in, the engine throws km exceptions: from the
// constructor, the destructor and the signal, and inside its thread, which
// the thread wrapper catches and ends.
#pragma once

#include <yajl/yajl_tree.h>

#include <cstdint>
#include <vector>

#include "linux/common_use/temp/tools.h"
#include "platform/pl_sync.h"

namespace kelmar_schedule {

// State of an hour, in the engine's own sense.
const int32_t I_STATE_INSIDE = 0;
const int32_t I_STATE_OUTSIDE = 1;

// Day types of a date.
const int32_t I_DAY_ORDINARY = 0;
const int32_t I_DAY_HOLIDAY = 1;
const int32_t I_DAY_WORKING_WEEKEND = 2;

// Rows of a plan: sunday (0) to saturday (6) as the calendar numbers the
// weekdays, then the two calendar rows.
const int I_ROW_HOLIDAYS = 7;
const int I_ROW_WORKING_WEEKENDS = 8;
const int I_PLAN_ROWS = 9;
const int I_PLAN_HOURS = 24;

// 12 months of 31 days, and one value behind them: the thread reads one
// place further than a date is written, so that 31 December lands there. It
// stays 0, an ordinary day.
const int I_DAY_TABLE = 12 * 31;

class BaseTask {
 public:
  BaseTask();
  virtual ~BaseTask();
  BaseTask(const BaseTask&) = delete;
  BaseTask& operator=(const BaseTask&) = delete;

  // Tells the owner a state when it differs from the last one told.
  virtual void setState(int32_t i_state_av) = 0;

  int32_t m_i_id;
  int32_t m_i_state;  // last state told; 1 at creation
  int32_t m_hours[I_PLAN_ROWS][I_PLAN_HOURS];
};

template <class T>
class Task : public BaseTask {
 public:
  typedef void (T::*Invoker)(int32_t);
  Task(T* p_owner_av, Invoker pf_invoker_av) : m_p_owner(p_owner_av), m_pf_invoker(pf_invoker_av) {}

  void setState(int32_t i_state_av) override {
    if (i_state_av == m_i_state) return;
    m_i_state = i_state_av;
    (m_p_owner->*m_pf_invoker)(i_state_av);
  }

  T* m_p_owner;
  Invoker m_pf_invoker;
};

class TaskManager {
 public:
  // Starts the thread. Throws km::SystemException when the event cannot be
  // made.
  TaskManager();
  // Stops and joins the thread (1,001 ms at most). Throws on a failed or
  // timed-out join. Tasks are not destroyed here: their owners unregister
  // them before.
  ~TaskManager() noexcept(false);
  TaskManager(const TaskManager&) = delete;
  TaskManager& operator=(const TaskManager&) = delete;

  // A new task of the owner, its plan read from the "_schedule" node; the
  // thread evaluates it at once. Returns the task's id.
  template <class T>
  int32_t registerTask(T* p_owner_av, void (T::*pf_invoker_av)(int32_t), yajl_val node_av) {
    return addTask(new Task<T>(p_owner_av, pf_invoker_av), node_av);
  }
  // Reads a new plan into the task of that id, keeping its last state, and
  // evaluates at once. An unknown id is ignored.
  void updateTask(int32_t i_id_av, yajl_val node_av);
  // Destroys the task. Once this returns, its owner is not called any more.
  void unregisterTask(int32_t i_id_av);
  // Applies a {"holidays":[...],"working_weekends":[...]} document and
  // evaluates at once, also when the text is no such document.
  void loadDayTypes(const char* s_json_av);

  std::vector<BaseTask*> m_tasks;  // in order of registration; owned
  // Guards m_tasks, the tasks and the thread's evaluation. Held while an
  // owner is told its state.
  PlCritSect m_crit_sect_tasks;
  PlCritSect m_crit_sect_thread;  // guards m_p_thread
  CThread* m_p_thread;
  PlEvent* m_h_event;  // auto-reset wake-up of the thread
  int32_t m_b_stop;    // 1 asks the thread to end; set before the signal
  // Day type per date at month * 31 + day - 1. Written without the task
  // lock, one whole word at a time.
  int32_t m_day_types[I_DAY_TABLE + 1];
  // Evaluations made so far, counted once all owners of a pass have been
  // told: lets a caller see that the thread has looked at the present hour.
  int32_t m_i_passes;

 private:
  int32_t addTask(BaseTask* p_task_av, yajl_val node_av);
  void signal();
  void applyDayList(yajl_val node_av, int32_t i_type_av);
};

// The process's engine; null before dll_init has made it and after dll_free.
extern TaskManager* g_p_task_manager;

// Reads a "_schedule" document into the rows of a plan. Anything but an
// object, and every row it does not name, leaves the rows as they are.
void parseSchedule(yajl_val node_av, int32_t (*p_hours_av)[I_PLAN_HOURS]);
// Reads an array of {"begin": ..., "end": ...} into one row: outside at
// first, then inside for every well-formed interval. Anything but an array
// leaves the row alone.
void parseHours(yajl_val node_av, int32_t* p_row_av);
// "june_15" and the like: month 0..11 and day 1..31 (any month).
bool parseMonthDay(const char* s_text_av, int32_t* p_month_av, int32_t* p_day_av);

}  // namespace kelmar_schedule
