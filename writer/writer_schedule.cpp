// The schedule binding of a channel: tracks, the calendar request, and the
// plan as a task of the schedule engine, whose hour state becomes m_b_state.
// When an interval begins the source is asked for frames at once; when it
// ends nothing is sent, the gate simply closes.
#include "writer/writer_schedule.h"

#include <cstdint>
#include <cstring>

#include "Schedule/TaskManager.h"
#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/yajl_host.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_main.h"
#include "linux/common_use/service/entry_scope.h"

using kelmar_schedule::g_p_task_manager;

namespace {

const size_t UI_SCHEDULE_ERRBUF = 256;

const char* LastJson(const ProfileParam* p_params_av) {
  const char* s_lv = nullptr;
  for (const ProfileParam* p_lv = p_params_av; p_lv->type != PP_END; p_lv++)
    if (p_lv->type == PP_STRING && p_lv->name != nullptr && strcmp(p_lv->name, "json") == 0)
      s_lv = static_cast<const char*>(p_lv->value);
  return s_lv;
}

// An object key's value, or null.
yajl_val ObjectGet(yajl_val obj_av, const char* s_key_av) {
  if (!YAJL_IS_OBJECT(obj_av)) return nullptr;
  for (size_t i_lv = 0; i_lv < obj_av->u.object.len; i_lv++)
    if (strcmp(obj_av->u.object.keys[i_lv], s_key_av) == 0) return obj_av->u.object.values[i_lv];
  return nullptr;
}

long long CamId(const WriterSchedule* p_av) {
  if (p_av->m_p_writer == nullptr || p_av->m_p_writer->m_camera_info_w == nullptr) return -1;
  return static_cast<long long>(InfoCamId(p_av->m_p_writer->m_camera_info_w));
}

// A first plan becomes a task, a later one replaces the task's plan.
void TakePlan(WriterSchedule* p_av, yajl_val plan_av) {
  AtomicPut(&p_av->m_b_is_shedule_present, 1);
  if (g_p_task_manager == nullptr) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error> <%lld_sched> no schedule engine: the plan is not followed", CamId(p_av));
    return;
  }
  int32_t i_task_lv = AtomicGet(&p_av->m_i_task_id);
  if (i_task_lv >= 0) {
    g_p_task_manager->updateTask(i_task_lv, plan_av);
    return;
  }
  i_task_lv = g_p_task_manager->registerTask(p_av, &WriterSchedule::schedule_invoker, plan_av);
  AtomicPut(&p_av->m_i_task_id, i_task_lv);
  TRACE44(TLOG_ARC_TRACEDECIM, "<sched> aft registerTask task %d", i_task_lv);
}

}  // namespace

WriterSchedule::WriterSchedule(CWriter* p_writer_av)
    : m_h_spare{0, 0},
      m_h_track_schedule_in(0),
      m_h_track_schedule_out(0),
      m_i_task_id(-1),
      m_b_state(0),
      m_b_is_shedule_present(0),
      m_p_writer(p_writer_av) {}

WriterSchedule::~WriterSchedule() {
  BusTrackClose(&m_h_track_schedule_in);
  if (m_h_track_schedule_out != 0) {
    TRACE44(TLOG_ARC_TRACEDECIM, "<core> track_schedule_out close");
    BusTrackClose(&m_h_track_schedule_out);
  }
  BusTrackClose(&m_h_spare[0]);
  BusTrackClose(&m_h_spare[1]);
  int32_t i_task_lv = AtomicGet(&m_i_task_id);
  if (i_task_lv < 0) return;
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_sched> bef unregisterTask task %d", CamId(this), i_task_lv);
  // Once this returns the engine no longer calls schedule_invoker.
  if (g_p_task_manager != nullptr) g_p_task_manager->unregisterTask(i_task_lv);
}

void WriterSchedule::schedule_invoker(int32_t i_state_av) {
  int32_t b_state_lv = i_state_av == kelmar_schedule::I_STATE_INSIDE ? 1 : 0;
  AtomicPut(&m_b_state, b_state_lv);
  long long i64_cam_lv = CamId(this);
  int32_t i_task_lv = AtomicGet(&m_i_task_id);
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_sched> schedule_invoker task id %d state %d", i64_cam_lv, i_task_lv, b_state_lv);
  if (b_state_lv == 0 || m_p_writer == nullptr) return;
  TRACE44(TLOG_ARC_TRACEDECIM, "<%lld_sched> task id %d writer: shed schedule_invoker, get", i64_cam_lv, i_task_lv);
  TRACE44(TLOG_ARC, "<sched2%lld> bef prof data cm=%pp\n", i64_cam_lv,
          reinterpret_cast<void*>(static_cast<uintptr_t>(AtomicGet(&m_p_writer->m_h_track_status))));
  WriterAskFrames(m_p_writer);
  TRACE44(TLOG_ARC, "<sched2%lld> aft prof data", i64_cam_lv);
  AtomicPut(&m_p_writer->m_status.m_i64_sched_last_get, static_cast<int64_t>(FileTimeNowLocal()));
}

// Every element from the calendar document on hands it to the engine again:
// a repeat of an idempotent step, each one a wake-up of the engine.
void WriterSchedule::on_schedule_out(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("WriterSchedule::on_schedule_out");
  (void)p_user_av;
  if (p_params_av == nullptr || g_p_task_manager == nullptr) return;
  const char* s_days_lv = nullptr;
  bool b_found_lv = false;
  for (const ProfileParam* p_lv = p_params_av; p_lv->type != PP_END; p_lv++) {
    if (p_lv->type == PP_STRING && p_lv->name != nullptr && strcmp(p_lv->name, "holidays_and_working_weekends") == 0) {
      s_days_lv = static_cast<const char*>(p_lv->value);
      b_found_lv = true;
    }
    if (b_found_lv) g_p_task_manager->loadDayTypes(s_days_lv);
  }
}

// A document whose "archive" lacks the "_type"/"_value" "writer" mark is
// passed over: the walk goes on with the next key rather than stand on it.
void LoadFromParams(WriterSchedule* p_av, ProfileParam* p_params_av) {
  if (p_params_av == nullptr) return;
  const char* s_json_lv = LastJson(p_params_av);
  if (s_json_lv == nullptr) return;
  char s_errbuf_lv[UI_SCHEDULE_ERRBUF];
  yajl_val root_lv = YAJL_TREE_PARSE(s_json_lv, s_errbuf_lv, sizeof(s_errbuf_lv));
  if (root_lv == nullptr) return;
  if (YAJL_IS_OBJECT(root_lv)) {
    for (size_t i_lv = 0; i_lv < root_lv->u.object.len; i_lv++) {
      if (strcmp(root_lv->u.object.keys[i_lv], "archive") != 0) continue;
      yajl_val arc_lv = root_lv->u.object.values[i_lv];
      yajl_val mark_lv = ObjectGet(ObjectGet(arc_lv, "_type"), "_value");
      if (!YAJL_IS_STRING(mark_lv) || strcmp(YAJL_GET_STRING(mark_lv), "writer") != 0) continue;
      yajl_val section_lv = ObjectGet(arc_lv, "writer");
      if (section_lv != nullptr) LoadFromNode(p_av, section_lv);
    }
  }
  yajl_tree_free(root_lv);
}

void LoadFromNode(WriterSchedule* p_av, yajl_val node_av) {
  if (node_av == nullptr) return;
  BusTrackClose(&p_av->m_h_track_schedule_in);
  p_av->m_h_track_schedule_in = profile_open("track_schedule_in", nullptr, __FILE__, __LINE__);
  if (p_av->m_h_track_schedule_out != 0) {
    TRACE44(TLOG_ARC_TRACEDECIM, "<core> track_schedule_out close");
    BusTrackClose(&p_av->m_h_track_schedule_out);
  }
  TRACE44(TLOG_ARC_TRACEDECIM, "<core> track_schedule_out open");
  ProfileCallback cb_lv = {p_av, reinterpret_cast<void*>(&WriterSchedule::on_schedule_out)};
  p_av->m_h_track_schedule_out = profile_open("track_schedule_out", &cb_lv, __FILE__, __LINE__);
  ProfileParam get_lv[] = {{PP_STRING, "command", const_cast<char*>("get_list")}, {PP_END, nullptr, nullptr}};
  BusData(p_av->m_h_track_schedule_in, get_lv);
  // A section without a plan leaves the one in force, if any.
  yajl_val plan_lv = ObjectGet(node_av, "_schedule");
  if (plan_lv == nullptr) return;
  TakePlan(p_av, plan_lv);
}
