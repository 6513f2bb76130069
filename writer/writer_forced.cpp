// Forced recording as a pair of system events. SendForcedEvent is called
// by the forced-duration check of a channel's event state, on its frame
// thread, and by the forced-recording command.
#include "writer/writer_forced.h"

#include <cstring>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service5.h"
#include "linux/common_use/temp/tools.h"
#include "writer/writer_atomic.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"

namespace {

// The start names its stop partner and, with a limit, its seconds; the stop
// names the start it ends.
void PostForced(CWriterGlobal* p_global_av, CWriter* p_writer_av, int32_t b_start_av, int64_t i64_dur_av,
                int32_t b_dur_present_av) {
  char s_sysinfo_lv[80];
  if (b_start_av != 0) {
    if (b_dur_present_av != 0)
      FormatStr(s_sysinfo_lv, sizeof(s_sysinfo_lv), ",event_stop_id=60031,dur=%lld,",
                static_cast<long long>(i64_dur_av));
    else
      FormatStr(s_sysinfo_lv, sizeof(s_sysinfo_lv), ",event_stop_id=60031,");
  } else {
    FormatStr(s_sysinfo_lv, sizeof(s_sysinfo_lv), ",event_start_id=60030");
  }
  PostSystemEvent(p_global_av->m_h_track_event, b_start_av != 0 ? SYS_EVENT_FORCE_START : SYS_EVENT_FORCE_STOP,
                  p_writer_av->m_camera_info_w->m_s_arc_keys, p_writer_av->m_i64_type_id, "by http", s_sysinfo_lv);
}

}  // namespace

// The channel list is walked without its lock: the caller may be a frame
// thread inside the event path. A camera's video and audio channel both
// match, so one call posts two events.
int32_t SendForcedEvent(const char* s_key2_av, int32_t b_start_av, int64_t i64_dur_av, int32_t b_dur_present_av,
                        int32_t i_slot_av) {
  StableMark(i_slot_av, 22021);
  int32_t i_result_lv = 0;
  CWriterGlobal* p_global_lv = g_p_writer_global;
  if (p_global_lv != nullptr && s_key2_av != nullptr) {
    CListOur* p_list_lv = &p_global_lv->m_list_writers;
    for (int32_t i_lv = 0; i_lv < AtomicGet(&p_list_lv->m_i_count); i_lv++) {
      CWriter* p_writer_lv = static_cast<CWriter*>(CListOurGet(p_list_lv, i_lv));
      if (p_writer_lv == nullptr || p_writer_lv->m_camera_info_w == nullptr) continue;
      TCameraInfoW* p_info_lv = p_writer_lv->m_camera_info_w;
      if (strcmp(s_key2_av, SafeStringText(&p_info_lv->m_s_arc_keys[1])) != 0) continue;
      i_result_lv = AtomicGet(&p_info_lv->m_b_write_by_event);
      if (i_result_lv != 0) PostForced(p_global_lv, p_writer_lv, b_start_av, i64_dur_av, b_dur_present_av);
    }
  }
  if (i_slot_av != -1) StableMark(i_slot_av, 22022);
  return i_result_lv;
}
