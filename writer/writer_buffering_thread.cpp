// The buffering thread of a channel: its start at the channel's
// construction, its loop (wait for a frame, the exit event or 5 s, then one
// round of liveness, error status, drain and periodic jobs) and its stop at
// the channel's destruction. Frames still in the buffers at the stop are
// not written.
#include <cstring>

#include "linux/common_use/config.h"
#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_inform.h"
#include "writer/writer_main.h"
#include "writer/writer_process.h"

namespace {

const int64_t I64_LIVE_LINE_PERIOD = 18000000000LL;  // 1800 s
const uint64_t UI64_MEM_SCAN_PERIOD = 6000000000ULL;  // 600 s
const int64_t I64_SAVE_PERIOD = 1800000000LL;         // 180 s
const int64_t I64_WD_PRINT_PERIOD = 600000000LL;      // 60 s

long long CameraId(const CWriteBuffering* p_av) {
  return p_av->m_p_camera_info != nullptr ? static_cast<long long>(InfoCamId(p_av->m_p_camera_info)) : 0;
}

uint32_t ThreadEntry(void* p_arg_av) {
  if (p_arg_av != nullptr) ThreadWriteBufferingMethod(static_cast<CWriteBuffering*>(p_arg_av));
  return 0;
}

// A line of the "common" logger, which operators keep apart from the trace.
void CommonLine(const char* s_text_av, long long i64_cam_av) {
  TLogBinding* p_lv = g_p_log_common;
  if (p_lv == nullptr) return;
  LogWriteLevel(p_lv, 20000, 0, static_cast<int64_t>(static_cast<uint64_t>(PlPerfCounter()) % 200), __FILE__,
                __func__, __LINE__, s_text_av, i64_cam_av);
}

void GroupState(TWaitStat* p_wd_av, int32_t i_slot_av, int32_t i_state_av, int32_t i_point_av) {
  WaitState(p_wd_av, WAIT_GROUP_BUFF_THREAD, i_state_av);
  StableMark(i_slot_av, i_point_av);
}

// True when the wait ended the thread's life.
bool WaitOnce(CWriteBuffering* p_av, int32_t i_slot_av, TWaitStat* p_wd_av, int64_t* p_last_live_av) {
  long long i64_cam_lv = CameraId(p_av);
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld> -buff- bef wait ", i64_cam_lv);
  GroupState(p_wd_av, i_slot_av, 2, 90001);
  PlEvent* wait_lv[2] = {p_av->m_h_event_exit_thread_write_buffering, p_av->m_h_event_activate_thread_write_buffering};
  uint32_t ui_res_lv = PlWaitAny(wait_lv, 2, UI_BUFF_WAIT_MS);
  GroupState(p_wd_av, i_slot_av, 3, 20001);
  int64_t i64_now_lv = FileTimeNowLocalI64();
  if (i64_now_lv > *p_last_live_av + I64_LIVE_LINE_PERIOD) {
    CommonLine("<live>ArchiveWriteBuffering cam %lld live...", i64_cam_lv);
    *p_last_live_av = i64_now_lv;
  }
  TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld> -buff- aft wait ", i64_cam_lv);
  if (ui_res_lv == 0) {
    TRACE44(TLOG_ARC, "<root>dwRes == WAIT_OBJECT_0 --- m_h_event_exit_thread_write_buffering");
    p_av->m_h_event_exit_thread_write_buffering->Reset();
    return true;
  }
  if (ui_res_lv == 1 || ui_res_lv == PL_WAIT_TIMEOUT) return false;
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: exit ThreadWriteBufferingMethod");
  return true;
}

// Claims a process-wide period for this thread: only the first thread to
// find it due does the job.
bool ClaimPeriod(int64_t* p_last_av, int64_t i64_now_av, int64_t i64_period_av) {
  int64_t i64_last_lv = AtomicGet(p_last_av);
  if (i64_now_av <= i64_last_lv + i64_period_av) return false;
  return __atomic_compare_exchange_n(p_last_av, &i64_last_lv, i64_now_av, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

void PeriodicJobs(CWriteBuffering* p_av, int32_t i_slot_av, TWaitStat* p_wd_av) {
  int64_t i64_now_lv = FileTimeNowLocalI64();
  MemChecker* p_mem_lv = g_p_mem_checker;
  if (p_mem_lv != nullptr) {
    int64_t* p_scan_lv = reinterpret_cast<int64_t*>(&p_mem_lv->m_ui64_last_scan_time);
    if (ClaimPeriod(p_scan_lv, i64_now_lv, static_cast<int64_t>(UI64_MEM_SCAN_PERIOD)))
      CheckNextBaseElem(p_mem_lv, "writer");
  }
  // The saved subscriptions are rewritten by the thread that claims this
  // period first; the claim keeps the pace for all channels.
  CLogStatusList* p_saved_lv = g_p_log_status_list;
  if (p_saved_lv != nullptr && ClaimPeriod(&p_saved_lv->m_i64_last_save, i64_now_lv, I64_SAVE_PERIOD))
    SaveLogStatus(p_saved_lv);
  StableMark(i_slot_av, 20004);
  if (i64_now_lv > p_av->m_i64_last_wd_print + I64_WD_PRINT_PERIOD) {
    if (p_av->m_i64_last_wd_print != 0) {
      CWriter* p_writer_lv = p_av->m_p_writer;
      WaitStatPrint(p_wd_av, 2, CameraId(p_av), p_writer_lv != nullptr ? p_writer_lv->m_i64_type_id : 0);
    }
    p_av->m_i64_last_wd_print = i64_now_lv;
  }
}

void Round(CWriteBuffering* p_av, int32_t i_slot_av, TWaitStat* p_wd_av) {
  GroupState(p_wd_av, i_slot_av, 4, 20002);
  IAmLive(p_av, i_slot_av);
  WriteErrorStatusFormation_Vart2(p_av);
  GetAndWr(p_av, p_wd_av);
  GroupState(p_wd_av, i_slot_av, 5, 20003);
  PeriodicJobs(p_av, i_slot_av, p_wd_av);
  StableMark(i_slot_av, 20005);
}

void CloseEvent(PlEvent** pp_av) {
  delete *pp_av;
  *pp_av = nullptr;
}

bool CreateEvent(PlEvent** pp_av, bool b_manual_av, const char* s_error_av) {
  if (*pp_av == nullptr) *pp_av = new PlEvent(b_manual_av, false);
  if (*pp_av != nullptr) return true;
  TRACE44(TLOG_ARC, "%s", s_error_av);
  return false;
}

}  // namespace

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
  if (!CreateEvent(&p_av->m_h_event_activate_thread_write_buffering, false,
                   "<root>m_h_event_activate_thread_write_buffering Error create event") ||
      !CreateEvent(&p_av->m_h_event_exit_thread_write_buffering, true,
                   "<root>m_h_event_exit_thread_write_buffering Error create event") ||
      !CreateEvent(&p_av->m_h_event_stop_thread_write_buffering, false,
                   "<root>m_h_event_stop_thread_write_buffering Error create event"))
    return RC_E_FAIL;
  // A channel whose thread did not start is still built: its frames pile
  // up until the admission rule stops them.
  PlThread* h_lv = PlThread::Create(ThreadEntry, p_av, UI_BUFF_THREAD_STACK, true);
  if (h_lv == nullptr) return RC_OK;
  p_av->m_h_thread_write_buffering = h_lv;
  if (h_lv->Resume() != 1) p_av->m_h_thread_write_buffering = nullptr;
  return RC_OK;
}

void ThreadWriteBufferingMethod(CWriteBuffering* p_av) {
  CommonLine("<thread>ArchiveWriteBuffering cam %lld started", CameraId(p_av));
  int64_t i64_last_live_lv = FileTimeNowLocalI64();
  uint8_t ui_saved_hook_lv = HookGet();
  HookSet(HOOK_IN_PLUGIN);
  char s_name_lv[32];
  FormatStr(s_name_lv, sizeof(s_name_lv), "%d writer buff", static_cast<int>(PlThreadCurrentId()));
  int32_t i_slot_lv = StableEnter(s_name_lv);
  TWaitStat wd_lv;
  WaitStatInit(&wd_lv, i_slot_lv);
  GroupState(&wd_lv, i_slot_lv, 1, 20000);
  TRACE44(TLOG_ARC_TRACE, "<buff> thread started ");
  bool b_leave_lv = false;
  while (!b_leave_lv && AtomicGetAcquire(&p_av->m_b_exit_thread_write_buffering) == 0) {
    b_leave_lv = WaitOnce(p_av, i_slot_lv, &wd_lv, &i64_last_live_lv);
    // The round runs also after the exit event: it swaps, but its drain
    // does not start, so nothing is flushed at the stop.
    Round(p_av, i_slot_lv, &wd_lv);
  }
  TRACE44(TLOG_ARC, "<root>---Exit thread ThreadWriteBufferingMethod");
  CommonLine("<thread>ArchiveWriteBuffering cam %lld stoped", CameraId(p_av));
  StableMark(i_slot_lv, 21961);
  if (p_av->m_p_camera_info != nullptr && InfoWriteHandle(p_av->m_p_camera_info) != 0 &&
      CloseWriteHandle(p_av->m_p_camera_info) < 0)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Writer Error close seanse 1");
  if (p_av->m_h_event_stop_thread_write_buffering != nullptr) p_av->m_h_event_stop_thread_write_buffering->Set();
  StableLeave(i_slot_lv);
  WaitStatDestroy(&wd_lv);
  HookSet(ui_saved_hook_lv);
}

void ExitThreadWriteBuffering(CWriteBuffering* p_av) {
  TRACE44(TLOG_ARC, "<root> beg ExitThreadWriteBuffering");
  AtomicPutRelease(&p_av->m_b_exit_thread_write_buffering, 1);
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
