// The six functions the host knows the plug-in by. dll_init and dll_free
// bring the process-wide services up and down; the plugin_ functions build,
// drive and take down one camera's pair of channels.
#include <cstring>

#include "Schedule/TaskManager.h"
#include "include/host/core_api.h"
#include "linux/common_use/config.h"
#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"
#include "writer/dllmain2.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "linux/common_use/service/entry_scope.h"

#define WRITER_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

const int32_t I_SIGN_PAIR = 4701;
const uint32_t UI_READY_POLL_MS = 20;

uint8_t g_ui_saved_hook = HOOK_NONE;

void StabilityStart() {
  if (g_p_stable != nullptr) return;
  void* p_lv = PlAlignedAlloc(sizeof(StableObject), 64);
  if (p_lv == nullptr) return;
  memset(p_lv, 0, sizeof(StableObject));
  g_p_stable = static_cast<StableObject*>(p_lv);
  TRACE44(TLOG_ARC, "<stable> writer bef S_tart");
  StableStart();
}

void StabilityStop() {
  if (g_p_stable == nullptr) return;
  StableStop();
  PlAlignedFree(g_p_stable);
  g_p_stable = nullptr;
}

// No channel is built before the archive says it is ready.
void WaitArchiveReady() {
  while (g_archive.GetParamsByType(-1, -1, 84) == 0) PlSleep(UI_READY_POLL_MS);
}

}  // namespace

WRITER_EXPORT int32_t dll_init(void) {
  CoreImportRow table_lv[] = {{"core_sethook", reinterpret_cast<void**>(&core_sethook)},
                              {"core_gethook", reinterpret_cast<void**>(&core_gethook)},
                              {nullptr, nullptr}};
  core_dll_open("core", table_lv);
  // Kept for dll_free; 40 stays set for the rest of this call.
  g_ui_saved_hook = HookGet();
  HookSet(HOOK_IN_PLUGIN);
  g_p_mem_checker = new MemChecker();
  FormatStr(g_s_plugin_path, sizeof(g_s_plugin_path), "/%s", "writer");
  MemCheckerInitPath(g_p_mem_checker, "writer");
  // The stability monitor's print thread traces from its start, and every
  // trace looks at the saved subscriptions: they exist before it runs and
  // are freed only after it has stopped. Nobody has subscribed yet: with the
  // all-off flag set, the trace calls of the frame path skip the site work.
  if (g_p_log_status_list == nullptr) {
    g_p_log_status_list = new CLogStatusList();
    LogStatusRecomputeAllOff(g_p_log_status_list);
  }
  StabilityStart();
  LanguageInit();
  int32_t i_rv_lv = GlobalInit();
  // The saved subscriptions come back once the logger is there to show the
  // file; also after a failed start, as dll_free saves the list again and
  // must not overwrite the file with an empty one.
  LogStatusLoad(g_p_log_status_list);
  if (i_rv_lv == 0) {
    TRACE44(TLOG_ARC, "<root>writer: dll_init end ");
    // The schedule engine starts last of all: its first evaluation may
    // already post on the bus.
    if (kelmar_schedule::g_p_task_manager == nullptr)
      kelmar_schedule::g_p_task_manager = new kelmar_schedule::TaskManager();
    return 0;
  }
  if (i_rv_lv == -1) g_b_init_failed = 1;
  return i_rv_lv;
}

WRITER_EXPORT int32_t dll_free(void) {
  // The schedule engine stops ahead of everything else, while the logger
  // and the monitor that its thread uses are still there.
  kelmar_schedule::TaskManager* p_engine_lv = kelmar_schedule::g_p_task_manager;
  kelmar_schedule::g_p_task_manager = nullptr;
  delete p_engine_lv;
  TRACE44(TLOG_ARC, "<root>writer: dll_free start ");
  // No channel and no query is left to change the list; saved while the
  // logger can still tell of a failed write.
  SaveLogStatus(g_p_log_status_list);
  GlobalDeinit();
  LanguageDeinit();
  StabilityStop();
  delete g_p_log_status_list;
  g_p_log_status_list = nullptr;
  delete g_p_mem_checker;
  g_p_mem_checker = nullptr;
  if (core_sethook != nullptr) core_sethook(g_ui_saved_hook);
  core_dll_close("core");
  return 0;
}

WRITER_EXPORT void* plugin_open(ProfileParam* p_params_av) {
  CEntryScope scope_lv("plugin_open");
  TRACE44(TLOG_ARC_TRACEDECIM, "<root>writer: plugin open start ");
  if (g_p_writer_global == nullptr) return nullptr;
  WaitArchiveReady();
  // Without parameters there is no camera: no pair, and no threads left
  // running that nobody could stop.
  if (p_params_av == nullptr) return nullptr;
  CWriterPair* p_pair_lv = SafeNew<CWriterPair>(I_SIGN_PAIR);
  if (p_pair_lv == nullptr) return nullptr;
  WriterOpen(&p_pair_lv->m_video, p_params_av);
  WriterOpen(&p_pair_lv->m_audio, p_params_av);
  return p_pair_lv;
}

WRITER_EXPORT int32_t plugin_close(void* p_plugin_av) {
  CEntryScope scope_lv("plugin_close");
  if (p_plugin_av == nullptr) return 0;
  CWriterPair* p_pair_lv = static_cast<CWriterPair*>(p_plugin_av);
  long long i64_cam_lv = static_cast<long long>(p_pair_lv->m_video.m_camera_info_w->m_i64_id3);
  int i_vp_lv = p_pair_lv->m_video.m_camera_info_w->m_i_view_prior;
  WriterCloseTracks(&p_pair_lv->m_video);
  WriterCloseTracks(&p_pair_lv->m_audio);
  TRACE44(TLOG_ARC, "<root>writer.dll plugin_close start cam %lld, vp %d ", i64_cam_lv, i_vp_lv);
  // Members go in reverse order: audio first, then video.
  SafeDelete(p_pair_lv);
  TRACE44(TLOG_ARC, "<root>writer.dll plugin_close end cam %lld, vp %d ", i64_cam_lv, i_vp_lv);
  return 0;
}

WRITER_EXPORT int32_t dll_exec(ProfileParam* p_params_av) {
  CEntryScope scope_lv("dll_exec");
  return DllExecWalk(p_params_av);
}

WRITER_EXPORT int32_t plugin_exec(void* p_plugin_av, ProfileParam* p_params_av) {
  CEntryScope scope_lv("plugin_exec");
  if (p_params_av == nullptr) return 0;
  CWriterPair* p_pair_lv = static_cast<CWriterPair*>(p_plugin_av);
  for (ProfileParam* p_lv = p_params_av; p_lv->name != nullptr && p_lv->value != nullptr; p_lv++) {
    if (p_pair_lv == nullptr) continue;
    if (strcmp(p_lv->name, "start") == 0) {
      WriterStart(&p_pair_lv->m_video);
      WriterStart(&p_pair_lv->m_audio);
    } else if (strcmp(p_lv->name, "json") == 0) {
      WriterReconfigure(&p_pair_lv->m_video, p_params_av);
      WriterReconfigure(&p_pair_lv->m_audio, p_params_av);
    }
  }
  return 0;
}
