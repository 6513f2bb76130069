// Helpers of the archive tests: the library loaded the way the plug-in loads
// it, frame blocks as the plug-in builds them, camera keys and a scratch
// folder.
#pragma once

#include <dlfcn.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "include/host/archive_api.h"
#include "platform/pl_clock.h"

namespace archive_test {

// The library's functions, looked up by name from the built file.
struct ArchiveLib {
  void* m_h_lib = nullptr;
  ArchiveDllInit2Fn dll_init2 = nullptr;
  ArchiveDllFree2Fn dll_free2 = nullptr;
  ArchiveWriteDataForTimeFn WriteDataForTime = nullptr;
  ArchiveGetHandleForWriteFn GetHandleForWrite = nullptr;
  ArchiveCloseHandleWriteFn CloseHandleWrite = nullptr;
  ArchiveGetParamsByTypeFn GetParamsByType = nullptr;
  ArchiveSetParamsByTypeFn SetParamsByType = nullptr;
  ArchiveGetParamsByTypeReqWriteFn GetParamsByTypeReqWrite = nullptr;
  ArchiveSetParamsByTypeReqWriteFn SetParamsByTypeReqWrite = nullptr;
  ArchiveAddCameraInfoFn AddCameraInfo = nullptr;
  decltype(&archive_configure) configure = nullptr;
  decltype(&archive_last_error) last_error = nullptr;
  decltype(&archive_reset) reset = nullptr;
  decltype(&archive_fault) fault = nullptr;
  decltype(&archive_get_stats) get_stats = nullptr;
  decltype(&archive_get_session_stats) get_session_stats = nullptr;
  decltype(&archive_get_stream_stats) get_stream_stats = nullptr;
  decltype(&archive_get_write_latency) get_write_latency = nullptr;
  decltype(&archive_last_set) last_set = nullptr;
  decltype(&archive_last_set_session) last_set_session = nullptr;
  decltype(&archive_call_log) call_log = nullptr;
  decltype(&archive_thread_counts) thread_counts = nullptr;
  decltype(&archive_get_channel_stats) channel_stats = nullptr;
  decltype(&archive_camera_id) camera_id = nullptr;

  template <typename T>
  void Sym(T* p_av, const char* s_name_av) {
    *p_av = reinterpret_cast<T>(dlsym(m_h_lib, s_name_av));
    ASSERT_NE(*p_av, nullptr) << s_name_av;
  }

  void Load() {
    m_h_lib = dlopen(WRITER_BIN_DIR "/libwarchive.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_h_lib, nullptr) << dlerror();
    Sym(&dll_init2, "dll_init2");
    Sym(&dll_free2, "dll_free2");
    Sym(&WriteDataForTime, "WriteDataForTime");
    Sym(&GetHandleForWrite, "GetHandleForWrite");
    Sym(&CloseHandleWrite, "CloseHandleWrite");
    Sym(&GetParamsByType, "GetParamsByType");
    Sym(&thread_counts, "archive_thread_counts");
    Sym(&channel_stats, "archive_get_channel_stats");
    Sym(&camera_id, "archive_camera_id");
    Sym(&SetParamsByType, "SetParamsByType");
    Sym(&GetParamsByTypeReqWrite, "GetParamsByTypeReqWrite");
    Sym(&SetParamsByTypeReqWrite, "SetParamsByTypeReqWrite");
    Sym(&AddCameraInfo, "AddCameraInfo");
    Sym(&configure, "archive_configure");
    Sym(&last_error, "archive_last_error");
    Sym(&reset, "archive_reset");
    Sym(&fault, "archive_fault");
    Sym(&get_stats, "archive_get_stats");
    Sym(&get_session_stats, "archive_get_session_stats");
    Sym(&get_stream_stats, "archive_get_stream_stats");
    Sym(&get_write_latency, "archive_get_write_latency");
    Sym(&last_set, "archive_last_set");
    Sym(&last_set_session, "archive_last_set_session");
    Sym(&call_log, "archive_call_log");
  }
};

// Five arc keys laid out as the plug-in's strings.
struct Keys {
  std::string m_s_text[ARCHIVE_KEY_COUNT];
  ArchiveKey m_keys[ARCHIVE_KEY_COUNT];
  explicit Keys(const std::string& s_name_av, const char* s_second_av = "main") {
    const char* pp_lv[ARCHIVE_KEY_COUNT] = {"srv", s_name_av.c_str(), s_second_av, nullptr, nullptr};
    for (int i_lv = 0; i_lv < ARCHIVE_KEY_COUNT; i_lv++) {
      m_s_text[i_lv] = pp_lv[i_lv] ? pp_lv[i_lv] : "";
      m_keys[i_lv].text = pp_lv[i_lv] ? m_s_text[i_lv].c_str() : nullptr;
      m_keys[i_lv].size = pp_lv[i_lv] ? static_cast<int32_t>(m_s_text[i_lv].size() + 1) : 0;
    }
  }
  Keys(const Keys&) = delete;
  std::string Folder() const { return "srv_" + m_s_text[1] + (m_s_text[2].empty() ? "" : "_" + m_s_text[2]); }
};

inline void Put32(std::vector<uint8_t>* p_av, size_t ui_at_av, uint32_t ui_av) {
  for (int i_lv = 0; i_lv < 4; i_lv++) (*p_av)[ui_at_av + i_lv] = static_cast<uint8_t>(ui_av >> (8 * i_lv));
}

// A frame block as the plug-in builds it: H.264 long head for a key frame,
// short head otherwise, a data section and an optional extra section.
inline std::vector<uint8_t> MakeBlock(bool b_key_av, uint32_t ui_number_av, int64_t i64_time_av,
                                      const std::string& s_data_av, const std::string& s_extra_av = "") {
  uint32_t ui_head_lv = b_key_av ? 48 : 32;
  std::vector<uint8_t> block_lv(ui_head_lv, 0);
  Put32(&block_lv, 0, ui_head_lv);
  Put32(&block_lv, 4, b_key_av ? 6 : 7);
  Put32(&block_lv, 8, static_cast<uint32_t>(i64_time_av));
  Put32(&block_lv, 12, static_cast<uint32_t>(static_cast<uint64_t>(i64_time_av) >> 32));
  Put32(&block_lv, 20, ui_number_av);
  if (b_key_av) {
    block_lv[36] = 7;  // codec number of H.264
    block_lv[38] = 0xE0, block_lv[39] = 0x01;
    block_lv[40] = 0x80, block_lv[41] = 0x02;
    block_lv[42] = 12;
    memcpy(&block_lv[44], "H264", 4);
  }
  auto add_lv = [&block_lv](uint32_t ui_type_av, const std::string& s_av) {
    size_t ui_at_lv = block_lv.size();
    block_lv.resize(ui_at_lv + 8 + s_av.size());
    Put32(&block_lv, ui_at_lv, static_cast<uint32_t>(8 + s_av.size()));
    Put32(&block_lv, ui_at_lv + 4, ui_type_av);
    memcpy(block_lv.data() + ui_at_lv + 8, s_av.data(), s_av.size());
  };
  add_lv(1, s_data_av);
  if (!s_extra_av.empty()) add_lv(80, s_extra_av);
  return block_lv;
}

// Frame numbers as the plug-in counts them: a key frame starts a group of
// 0x1000, other frames count up inside it.
inline uint32_t NextNumber(uint32_t ui_prev_av, bool b_key_av) {
  return b_key_av ? ((ui_prev_av + 1) & ~0xFFFu) + 0x1000 : ui_prev_av + 1;
}

inline int64_t NowLocal() { return static_cast<int64_t>(PlFileTimeToLocal(PlFileTimeUtc())); }

// A fresh folder under /tmp, removed with everything in it.
struct TempDir {
  std::string m_s_path;
  TempDir() {
    char s_lv[] = "/tmp/warchive_test_XXXXXX";
    m_s_path = mkdtemp(s_lv);
  }
  ~TempDir() {
    nftw(m_s_path.c_str(), [](const char* s_av, const struct stat*, int, FTW*) { return remove(s_av); }, 16,
         FTW_DEPTH | FTW_PHYS);
  }
};

}  // namespace archive_test
