// The schedule binding of a channel: tracks, the calendar request and the
// presence of a plan. The plan itself becomes a task of the schedule engine,
// which turns the present hour into m_b_state.
#include "writer/writer_schedule.h"

#include <cstring>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/yajl_host.h"
#include "writer/writer_stability.h"

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

void CloseTrack(TrackHandle* p_h_av) {
  if (*p_h_av == 0) return;
  profile_close(*p_h_av);
  *p_h_av = 0;
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
  CloseTrack(&m_h_track_schedule_in);
  if (m_h_track_schedule_out != 0) {
    TRACE44(TLOG_ARC_TRACEDECIM, "<core> track_schedule_out close");
    CloseTrack(&m_h_track_schedule_out);
  }
  CloseTrack(&m_h_spare[0]);
  CloseTrack(&m_h_spare[1]);
}

// The calendar answer goes to the schedule engine's day types.
void WriterSchedule::on_schedule_out(void* p_user_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("WriterSchedule::on_schedule_out");
  (void)p_user_av;
  (void)p_params_av;
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
  CloseTrack(&p_av->m_h_track_schedule_in);
  p_av->m_h_track_schedule_in = profile_open("track_schedule_in", nullptr, __FILE__, __LINE__);
  if (p_av->m_h_track_schedule_out != 0) {
    TRACE44(TLOG_ARC_TRACEDECIM, "<core> track_schedule_out close");
    CloseTrack(&p_av->m_h_track_schedule_out);
  }
  TRACE44(TLOG_ARC_TRACEDECIM, "<core> track_schedule_out open");
  ProfileCallback cb_lv = {p_av, reinterpret_cast<void*>(&WriterSchedule::on_schedule_out)};
  p_av->m_h_track_schedule_out = profile_open("track_schedule_out", &cb_lv, __FILE__, __LINE__);
  ProfileParam get_lv[] = {{PP_STRING, "command", const_cast<char*>("get_list")}, {PP_END, nullptr, nullptr}};
  BusData(p_av->m_h_track_schedule_in, get_lv);
  if (ObjectGet(node_av, "_schedule") == nullptr) return;
  p_av->m_b_is_shedule_present = 1;
  // The plan becomes (or updates) a task of the schedule engine here.
}
