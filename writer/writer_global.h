// The process-wide side of the plug-in: the ten functions of the archive
// library, loaded by GlobalInit and released by GlobalDeinit, and the one
// CWriterGlobal that lists every open channel and keeps the events
// registrator. dll_init and dll_free run them; every channel reaches the
// archive through g_archive.
#pragma once

#include <cstdint>

#include "include/host/archive_api.h"
#include "include/host/core_api.h"
#include "linux/common_use/diagnostic.h"
#include "linux/common_use/profile_common.h"
#include "linux/common_use/temp/clist.h"
#include "writer/writer_events_registrator.h"

struct TForcedBinding;

class CWriterWebService;

struct TArchiveFns {
  void* m_h_lib;
  ArchiveDllInit2Fn dll_init2;
  ArchiveDllFree2Fn dll_free2;
  ArchiveWriteDataForTimeFn WriteDataForTime;
  ArchiveGetHandleForWriteFn GetHandleForWrite;
  ArchiveCloseHandleWriteFn CloseHandleWrite;
  ArchiveGetParamsByTypeFn GetParamsByType;
  ArchiveSetParamsByTypeFn SetParamsByType;
  ArchiveGetParamsByTypeReqWriteFn GetParamsByTypeReqWrite;
  ArchiveSetParamsByTypeReqWriteFn SetParamsByTypeReqWrite;
  ArchiveAddCameraInfoFn AddCameraInfo;
};

extern TArchiveFns g_archive;

// The archive's generic doors; 0 (nothing known, nothing done) while the
// library is not loaded.
int64_t ArcGetParams(int64_t i64_id_av, int32_t i_code_av);
void ArcSetParams(int32_t i_code_av, int64_t i64_id_av, int64_t i64_value_av);
int64_t ArcGetReq(int32_t i_handle_av, int32_t i_code_av);
int64_t ArcSetReq(int32_t i_handle_av, int32_t i_code_av, int64_t i64_value_av);

class CWriterGlobal {
 public:
  CWriterGlobal();
  ~CWriterGlobal();
  CWriterGlobal(const CWriterGlobal&) = delete;
  CWriterGlobal& operator=(const CWriterGlobal&) = delete;

  TrackHandle m_h_track_event;
  // Made before the channel list and taken apart after it: its track is
  // closed before its lists go.
  CEventsRegistrator m_events_registrator;
  CListOur m_list_writers;  // CWriter*, video and audio alike
  TSpeedStat m_speed_stat;
  int64_t m_i64_empty_id;
  int64_t m_i64_video_id;
  int64_t m_i64_audio_id;
  volatile int64_t ui64_buffs_used_mem;
  int32_t m_b_work_mode_150204;
  int64_t m_i64_start_time;
  int32_t m_b_work_mode_150602;
  int32_t m_b_work_mode_150605;
  int32_t m_b_work_mode_150607;
  // Asks other plug-ins' methods, for forced recording's camera look-up.
  ServiceClient* m_p_service_client;
  // "track_vp-api", where forced recording commands arrive.
  TForcedBinding* m_p_forced;
  // The web-service methods: registration and calls of the host's web
  // front.
  CWriterWebService* m_p_web_service = nullptr;
};

// Null means that no channel may be opened.
extern CWriterGlobal* g_p_writer_global;

// Logger, archive, global object: 0, or -1 when the archive has no path or
// lacks its init functions. A library that will not load or misses a
// function ends the process with exit code 1.
int32_t GlobalInit();
void GlobalDeinit();

// The plug-in's own objects with constructors live in checked blocks too.
#include <new>
#include <utility>

#include "linux/common_use/service/service4.h"

template <typename T, typename... A>
T* SafeNew(int32_t i_signat_av, A&&... args_av) {
  void* p_lv = nullptr;
  SafeMemAllocB5(&p_lv, static_cast<int32_t>(sizeof(T)), i_signat_av);
  if (p_lv == nullptr) return nullptr;
  return new (p_lv) T(std::forward<A>(args_av)...);
}
template <typename T>
void SafeDelete(T*& p_av) {
  if (p_av == nullptr) return;
  p_av->~T();
  SAFE_MEM_FREE(p_av);
}
