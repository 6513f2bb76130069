// The channel's buffering thread: start, wait loop and stop, and the
// liveness messages. The round that drains the buffers into the archive
// runs at the marked place of the loop.
#include "writer/writer_buffering.h"

#include <cstring>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/temp/tools.h"
#include "writer/writer_main.h"

namespace {

int64_t CameraId(const CWriteBuffering* p_av) {
  const CWriter* p_writer_lv = p_av->m_p_writer;
  if (p_writer_lv == nullptr || p_writer_lv->m_camera_info_w == nullptr) return 0;
  return p_writer_lv->m_camera_info_w->m_i64_id3;
}

uint32_t ThreadEntry(void* p_arg_av) {
  if (p_arg_av != nullptr) ThreadWriteBufferingMethod(static_cast<CWriteBuffering*>(p_arg_av));
  return 0;
}

void SendAlive(CWriter* p_owner_av, const char* s_command_av, const char* s_caption_av) {
  TrackHandle h_lv = profile_open("alive_track", nullptr, __FILE__, __LINE__);
  if (h_lv == 0) return;
  ProfileParam params_lv[] = {{PP_STRING, "command", const_cast<char*>(s_command_av)},
                              {PP_STRING, "caption", const_cast<char*>(s_caption_av)},
                              {PP_OBJECT, "owner", p_owner_av},
                              {PP_END, nullptr, nullptr}};
  BusData(h_lv, params_lv);
  profile_close(h_lv);
}

// True when the wait ended the thread's life.
bool WaitOnce(CWriteBuffering* p_av, int32_t i_slot_av) {
  int64_t i64_cam_lv = CameraId(p_av);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld> -buff- bef wait ", static_cast<long long>(i64_cam_lv));
  StableMark(i_slot_av, 90001);
  PlEvent* wait_lv[2] = {p_av->m_h_event_exit_thread_write_buffering, p_av->m_h_event_activate_thread_write_buffering};
  uint32_t ui_res_lv = PlWaitAny(wait_lv, 2, UI_BUFF_WAIT_MS);
  StableMark(i_slot_av, 20001);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld> -buff- aft wait ", static_cast<long long>(i64_cam_lv));
  if (ui_res_lv == 0) {
    TRACE44(TLOG_ARC, "<root>dwRes == WAIT_OBJECT_0 --- m_h_event_exit_thread_write_buffering");
    p_av->m_h_event_exit_thread_write_buffering->Reset();
    return true;
  }
  if (ui_res_lv == 1 || ui_res_lv == PL_WAIT_TIMEOUT) return false;
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: exit ThreadWriteBufferingMethod");
  return true;
}

void CloseEvent(PlEvent** pp_av) {
  delete *pp_av;
  *pp_av = nullptr;
}

}  // namespace

CWriteBuffering::CWriteBuffering()
    : m_p_writer(nullptr),
      m_p_crit_sect_write_buffering(nullptr),
      m_h_event_activate_thread_write_buffering(nullptr),
      m_h_event_exit_thread_write_buffering(nullptr),
      m_h_event_stop_thread_write_buffering(nullptr),
      m_h_thread_write_buffering(nullptr),
      m_b_exit_thread_write_buffering(0),
      m_i64_last_wd_print(0) {}

CWriteBuffering::~CWriteBuffering() {
  TRACE45(TLOG_ARC, TSEV_TRACE, "<alive%lld_%lld> bef unregister_alive wr handle %d ",
          static_cast<long long>(CameraId(this)),
          static_cast<long long>(m_p_writer != nullptr ? m_p_writer->m_i64_type_id : 0),
          m_p_writer != nullptr && m_p_writer->m_camera_info_w != nullptr
              ? static_cast<int>(m_p_writer->m_camera_info_w->m_dw_write_handle)
              : -1);
  ExitThreadWriteBuffering(this);
  UnregisterAlive(m_p_writer);
  delete m_p_crit_sect_write_buffering;
  m_p_crit_sect_write_buffering = nullptr;
}

int32_t InitWriteBuffering(CWriteBuffering* p_av) {
  p_av->m_p_crit_sect_write_buffering = new PlCritSect();
  TRACE44(TLOG_ARC, "<ks>m_crit_sect_write_buffering %pp ", static_cast<void*>(p_av->m_p_crit_sect_write_buffering));
  return StartThreadWriteBuffering(p_av);
}

int32_t StartThreadWriteBuffering(CWriteBuffering* p_av) {
  p_av->m_h_event_activate_thread_write_buffering = nullptr;
  p_av->m_h_event_exit_thread_write_buffering = nullptr;
  p_av->m_h_event_stop_thread_write_buffering = nullptr;
  p_av->m_b_exit_thread_write_buffering = 0;
  p_av->m_h_thread_write_buffering = nullptr;
  p_av->m_h_event_activate_thread_write_buffering = new PlEvent(false, false);
  p_av->m_h_event_exit_thread_write_buffering = new PlEvent(true, false);
  p_av->m_h_event_stop_thread_write_buffering = new PlEvent(false, false);
  PlThread* h_lv = PlThread::Create(ThreadEntry, p_av, UI_BUFF_THREAD_STACK, true);
  if (h_lv == nullptr) return RC_OK;
  p_av->m_h_thread_write_buffering = h_lv;
  if (h_lv->Resume() != 1) p_av->m_h_thread_write_buffering = nullptr;
  return RC_OK;
}

void ThreadWriteBufferingMethod(CWriteBuffering* p_av) {
  uint8_t ui_saved_hook_lv = HookGet();
  HookSet(HOOK_IN_PLUGIN);
  char s_name_lv[32];
  FormatStr(s_name_lv, sizeof(s_name_lv), "%d writer buff", static_cast<int>(PlThreadCurrentId()));
  int32_t i_slot_lv = StableEnter(s_name_lv);
  StableMark(i_slot_lv, 20000);
  TRACE44(TLOG_ARC_TRACE, "<buff> thread started ");
  bool b_leave_lv = false;
  while (!b_leave_lv && p_av->m_b_exit_thread_write_buffering == 0) {
    b_leave_lv = WaitOnce(p_av, i_slot_lv);
    StableMark(i_slot_lv, 20002);
    // The round (liveness, error status, drain, periodic jobs) runs here.
    StableMark(i_slot_lv, 20005);
  }
  TRACE44(TLOG_ARC, "<root>---Exit thread ThreadWriteBufferingMethod");
  StableMark(i_slot_lv, 21961);
  if (p_av->m_h_event_stop_thread_write_buffering != nullptr) p_av->m_h_event_stop_thread_write_buffering->Set();
  StableLeave(i_slot_lv);
  HookSet(ui_saved_hook_lv);
}

void ExitThreadWriteBuffering(CWriteBuffering* p_av) {
  TRACE44(TLOG_ARC, "<root> beg ExitThreadWriteBuffering");
  p_av->m_b_exit_thread_write_buffering = 1;
  if (p_av->m_h_event_exit_thread_write_buffering != nullptr) p_av->m_h_event_exit_thread_write_buffering->Set();
  if (p_av->m_h_event_stop_thread_write_buffering != nullptr) {
    // A thread that never ran has nobody to set the stop event.
    if (p_av->m_h_thread_write_buffering != nullptr &&
        p_av->m_h_event_stop_thread_write_buffering->Wait(PL_INFINITE) == PL_WAIT_TIMEOUT)
      TRACE44(TLOG_ARC, "<root>Buff a2: Error stop thread m_h_thread_write_buffering");
    if (p_av->m_h_thread_write_buffering != nullptr) {
      p_av->m_h_thread_write_buffering->Join(PL_INFINITE);
      PlThread::Close(p_av->m_h_thread_write_buffering);
      p_av->m_h_thread_write_buffering = nullptr;
    }
  }
  CloseEvent(&p_av->m_h_event_activate_thread_write_buffering);
  CloseEvent(&p_av->m_h_event_exit_thread_write_buffering);
  CloseEvent(&p_av->m_h_event_stop_thread_write_buffering);
}

void RegisterAlive(CWriter* p_owner_av, const char* s_caption_av) { SendAlive(p_owner_av, "register", s_caption_av); }

void UnregisterAlive(CWriter* p_owner_av) { SendAlive(p_owner_av, "unregister", "unloading plugins writer"); }
