// Loading and release of the archive library and the global object.
#include "writer/writer_global.h"

#include <cstring>

#include "linux/common_use/config.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"
#include "writer/writer_forced.h"
#include "writer/writer_main.h"
#include "writer/writer_web_service.h"

TArchiveFns g_archive = {};
CWriterGlobal* g_p_writer_global = nullptr;

namespace {

const int32_t I_SIGN_GLOBAL = 4401;
const int32_t I_SIGN_WEB_SERVICE = 4403;
const int32_t I_SIGN_SERVICE_CLIENT = 4402;
const uint64_t UI64_MEM_SCAN_PERIOD = 6000000000ULL;  // 600 s

void StdoutLine(const char* s_format_av, const char* s_arg_av) {
  char s_line_lv[256];
  FormatStr(s_line_lv, sizeof(s_line_lv), s_format_av, s_arg_av);
  PlStdoutWrite(s_line_lv, strlen(s_line_lv));
}

int64_t HashText(const char* s_av) { return static_cast<int64_t>(StrHash64(s_av, static_cast<uint32_t>(strlen(s_av)))); }

// Looks one function up; without it nothing can be recorded, so the whole
// host ends here.
template <typename T>
void LookUp(const char* s_name_av, T* p_fn_av) {
  *p_fn_av = reinterpret_cast<T>(PlLibSym(g_archive.m_h_lib, s_name_av));
  if (*p_fn_av != nullptr) return;
  char s_format_lv[96];
  FormatStr(s_format_lv, sizeof(s_format_lv), "Couldn't find %s: %%s\n", s_name_av);
  StdoutLine(s_format_lv, "");
  PlExitProcess(1);
}

void LookUpAll() {
  LookUp("dll_init2", &g_archive.dll_init2);
  LookUp("dll_free2", &g_archive.dll_free2);
  LookUp("WriteDataForTime", &g_archive.WriteDataForTime);
  LookUp("GetHandleForWrite", &g_archive.GetHandleForWrite);
  LookUp("CloseHandleWrite", &g_archive.CloseHandleWrite);
  LookUp("GetParamsByType", &g_archive.GetParamsByType);
  LookUp("SetParamsByType", &g_archive.SetParamsByType);
  LookUp("GetParamsByTypeReqWrite", &g_archive.GetParamsByTypeReqWrite);
  LookUp("SetParamsByTypeReqWrite", &g_archive.SetParamsByTypeReqWrite);
  LookUp("AddCameraInfo", &g_archive.AddCameraInfo);
}

bool WorkFunctionsPresent() {
  return g_archive.WriteDataForTime != nullptr && g_archive.GetHandleForWrite != nullptr &&
         g_archive.CloseHandleWrite != nullptr && g_archive.GetParamsByType != nullptr &&
         g_archive.SetParamsByType != nullptr && g_archive.GetParamsByTypeReqWrite != nullptr &&
         g_archive.SetParamsByTypeReqWrite != nullptr && g_archive.AddCameraInfo != nullptr;
}

int32_t MissingFunctions(int i_which_av) {
  char s_line_lv[96];
  FormatStr(s_line_lv, sizeof(s_line_lv), "Error load archive.dll. needed functions for write not found %d.\n",
            i_which_av);
  PlStdoutWrite(s_line_lv, strlen(s_line_lv));
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error> Error load archive.dll. needed functions for write not found %d. ",
          i_which_av);
  return -1;
}

// The memory report of the end of the run: the scan is made due first.
void FinalMemoryScan() {
  MemChecker* p_lv = g_p_mem_checker;
  if (p_lv == nullptr) return;
  p_lv->m_ui64_last_scan_time = 0;
  uint64_t ui64_now_lv = FileTimeNowLocal();
  if (ui64_now_lv > p_lv->m_ui64_last_scan_time + UI64_MEM_SCAN_PERIOD) {
    CheckNextBaseElem(p_lv, "writer");
    p_lv->m_ui64_last_scan_time = ui64_now_lv;
  }
  MemCheckerReportElems(p_lv);
}

}  // namespace

int64_t ArcGetParams(int64_t i64_id_av, int32_t i_code_av) {
  ArchiveGetParamsByTypeFn fn_lv = g_archive.GetParamsByType;
  return fn_lv != nullptr ? fn_lv(i64_id_av, -1, i_code_av) : 0;
}

void ArcSetParams(int32_t i_code_av, int64_t i64_id_av, int64_t i64_value_av) {
  ArchiveSetParamsByTypeFn fn_lv = g_archive.SetParamsByType;
  if (fn_lv != nullptr) fn_lv(i_code_av, i64_id_av, i64_value_av);
}

int64_t ArcGetReq(int32_t i_handle_av, int32_t i_code_av) {
  ArchiveGetParamsByTypeReqWriteFn fn_lv = g_archive.GetParamsByTypeReqWrite;
  return fn_lv != nullptr ? fn_lv(i_handle_av, i_code_av) : 0;
}

int64_t ArcSetReq(int32_t i_handle_av, int32_t i_code_av, int64_t i64_value_av) {
  ArchiveSetParamsByTypeReqWriteFn fn_lv = g_archive.SetParamsByTypeReqWrite;
  return fn_lv != nullptr ? fn_lv(i_handle_av, i_code_av, i64_value_av) : 0;
}

CWriterGlobal::CWriterGlobal()
    : m_h_track_event(0),
      m_i64_empty_id(0),
      m_i64_video_id(0),
      m_i64_audio_id(0),
      ui64_buffs_used_mem(0),
      m_b_work_mode_150204(0),
      m_i64_start_time(static_cast<int64_t>(FileTimeNowLocal())),
      m_b_work_mode_150602(0),
      m_b_work_mode_150605(0),
      m_b_work_mode_150607(0),
      m_p_service_client(nullptr),
      m_p_forced(nullptr) {
  m_speed_stat.m_i_print_form = 2;
  m_h_track_event = profile_open("track_event", nullptr, __FILE__, __LINE__);
  m_i64_empty_id = HashText("");
  m_i64_video_id = HashText("video");
  m_i64_audio_id = HashText("audio");
  m_p_web_service = SafeNew<CWriterWebService>(I_SIGN_WEB_SERVICE);
  m_p_service_client = SafeNew<ServiceClient>(I_SIGN_SERVICE_CLIENT);
  m_p_forced = ForcedBindingOpen();
}

CWriterGlobal::~CWriterGlobal() {
  // The front's calls end first: they read the channel list.
  SafeDelete(m_p_web_service);
  // No command may arrive while the client it needs goes away.
  ForcedBindingClose(m_p_forced);
  SafeDelete(m_p_service_client);
  int32_t i_rv_lv = profile_close(m_h_track_event);
  if (i_rv_lv != 0) TRACE45(TLOG_ARC, TSEV_FAULT, "<error>ewriter: profile_close w rv=%d", i_rv_lv);
  // Channels live inside the host's camera pairs, which only plugin_close
  // may take apart; one still listed here was never closed by the host.
  PlCritLock lock_lv(&m_list_writers.m_crit_sect);
  for (int32_t i_lv = 0; i_lv < m_list_writers.m_i_count; i_lv++)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>writer: channel %p still open at dll_free",
            CListOurGet(&m_list_writers, i_lv));
  CListOurClear(&m_list_writers);
}

int32_t GlobalInit() {
  TRACE44(TLOG_ARC, "<root>writer dll_init start 2");
  // Nobody has subscribed to a log site yet: with the all-off flag set, the
  // trace calls of the frame path skip the site work.
  if (g_p_log_status_list == nullptr) {
    g_p_log_status_list = new CLogStatusList();
    LogStatusRecomputeAllOff(g_p_log_status_list);
  }
  LogDllLoad();
  TRACE44(TLOG_ARC,
          "<root>writer dll_init start after loginit sizeof( TUnivStruct ) is %d sizeof( TDeb8687 ) is %d sizeof( "
          "TDeb8688 ) is %d",
          8, 12, 16);
  TRACE44(TLOG_ARC, "<root> writer memchecker %pp", static_cast<void*>(g_p_mem_checker));
  char* s_path_lv = core_get_path("archive", "xxx", 1);
  if (s_path_lv == nullptr) return -1;
  g_archive.m_h_lib = PlLibOpen(s_path_lv);
  core_mfree(s_path_lv);
  if (g_archive.m_h_lib == nullptr) {
    StdoutLine("Couldn't open libarchive.so: %s\n", "");
    PlExitProcess(1);
  }
  LookUpAll();
  if (g_archive.dll_init2 == nullptr || g_archive.dll_free2 == nullptr)
    return MissingFunctions(1);
  g_archive.dll_init2(0);
  if (!WorkFunctionsPresent())
    return MissingFunctions(2);
  if (g_p_writer_global == nullptr) g_p_writer_global = SafeNew<CWriterGlobal>(I_SIGN_GLOBAL);
  return 0;
}

void GlobalDeinit() {
  SafeDelete(g_p_writer_global);
  if (g_archive.dll_free2 != nullptr) g_archive.dll_free2(0);
  if (g_archive.m_h_lib != nullptr) PlLibClose(g_archive.m_h_lib);
  g_archive = TArchiveFns();
  FinalMemoryScan();
  TRACE44(TLOG_ARC, "<root>writer: dll_free end bef GlobalDeinit44");
  LogDllUnload();
  // The saved subscriptions outlive the stability monitor's print thread;
  // dll_free frees them after it.
}
