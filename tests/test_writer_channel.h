// A video channel of camera A/B/C built directly on the plug-in's units,
// with the reference archive behind g_archive and the manual clock. The
// channel's thread is stopped at once, so that a test drains the buffers
// itself with GetAndWr and every step happens in the test's order.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/test_archive_util.h"
#include "tests/test_log.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"

namespace writer_test {

// 2023-11-14 22:13:20 UTC, in file-time ticks.
const uint64_t kStartUtc = 133444915000000000ULL;
const int64_t kSecond = 10000000LL;

inline uint32_t Fcc(const char* s) {
  return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
         uint32_t(uint8_t(s[3])) << 24;
}

// What a holder of a track received: the first text of each message and
// the "comment" and "event_type" of system events.
struct Heard {
  std::vector<std::string> firsts;
  std::vector<std::string> comments;
  std::vector<int32_t> event_types;
  static void On(void* user, ProfileParam* p) {
    Heard* h = static_cast<Heard*>(user);
    h->firsts.push_back(p[0].type == PP_STRING && p[0].value ? static_cast<const char*>(p[0].value) : "");
    for (const ProfileParam* e = p; e->type != PP_END; e++) {
      if (e->name == nullptr) continue;
      if (std::string(e->name) == "comment" && e->value) h->comments.push_back(static_cast<const char*>(e->value));
      if (std::string(e->name) == "event_type" && e->value) h->event_types.push_back(*static_cast<int32_t*>(e->value));
    }
  }
};

class ChannelTest : public ::testing::Test {
 protected:
  static archive_test::ArchiveLib& L() {
    static archive_test::ArchiveLib lib;
    if (lib.m_h_lib == nullptr) lib.Load();
    return lib;
  }

  virtual std::string ArchiveExtra() { return ""; }
  virtual std::string WriterExtra() { return ""; }

  std::string Document(const std::string& extra) {
    return R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
           R"("arc_key1":{"_value":"A"},"arc_key2":{"_value":"B"},"arc_key3":{"_value":"C"},)"
           R"("in":{"_value":"t"})" +
           extra + "}}}";
  }

  void SetUp() override {
    archive_test::ArchiveLib& lib = L();
    std::string config = "{\"root\":\"" + m_dir.m_s_path + "\"" + ArchiveExtra() + "}";
    ASSERT_EQ(0, lib.configure(config.c_str())) << lib.last_error();
    PlClockUseManual(kStartUtc);
    lib.dll_init2(0);
    g_archive.WriteDataForTime = lib.WriteDataForTime;
    g_archive.GetHandleForWrite = lib.GetHandleForWrite;
    g_archive.CloseHandleWrite = lib.CloseHandleWrite;
    g_archive.GetParamsByType = lib.GetParamsByType;
    g_archive.SetParamsByType = lib.SetParamsByType;
    g_archive.GetParamsByTypeReqWrite = lib.GetParamsByTypeReqWrite;
    g_archive.SetParamsByTypeReqWrite = lib.SetParamsByTypeReqWrite;
    g_archive.AddCameraInfo = lib.AddCameraInfo;
    g_p_writer_global = SafeNew<CWriterGlobal>(1);
    ProfileCallback events_cb = {&m_events, reinterpret_cast<void*>(&Heard::On)};
    m_h_events = profile_open("track_event", &events_cb, __FILE__, __LINE__);
    m_w = SafeNew<CWriter>(1);
    m_w->m_i64_type_id = g_p_writer_global->m_i64_video_id;
    SafeStringAssign(&m_w->m_s_type, "video", 1);
    std::string doc = Document(WriterExtra());
    ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
    WriterOpen(m_w, params);
    m_info = m_w->m_camera_info_w;
    m_buff = m_info->m_p_write_buffering;
    ExitThreadWriteBuffering(m_buff);
    AtomicPut(&m_buff->m_b_exit_thread_write_buffering, 0);
    // Whether the stopped thread ran a last round depends on timing: its
    // judges start afresh.
    m_buff->m_i64_last_i_am_live = 0;
    m_buff->m_i64_last_error_status = 0;
    m_buff->m_i64_error_since = 0;
    m_buff->m_b_error_timer_armed = 0;
    m_w->m_status.m_b_is_write_error = 0;
    m_w->m_status.m_i64_last_alive_confirm = 0;
    m_h_source = profile_open("a_b_c_t", nullptr, __FILE__, __LINE__);
    m_seen = 0;
    Calls();
  }

  void TearDown() override {
    profile_close(m_h_source);
    WriterCloseTracks(m_w);
    SafeDelete(m_w);
    profile_close(m_h_events);
    SafeDelete(g_p_writer_global);
    L().dll_free2(0);
    L().reset();
    L().configure(nullptr);
    g_archive = TArchiveFns();
    PlClockUseReal();
  }

  // One frame from the source; its "need" answers are counted. A frame
  // without a type (nullptr) is told by its code.
  void Send(bool key, const std::string& data = "frame-data", int64_t index = 0, const char* type = "video",
            const char* code = "H264") {
    int32_t w = 640, h = 480, k = key ? 1 : 0, fcc = static_cast<int32_t>(Fcc(code));
    int64_t t = m_time += 40000;
    ProfileBuffer buf = {const_cast<char*>(data.data()), static_cast<uint32_t>(data.size())};
    ProfileParam frame[] = {{PP_INT32, "need", &m_need},  {PP_BUFFER, "data", &buf}, {PP_INT32, "width", &w},
                            {PP_INT32, "height", &h},     {PP_INT32, "fcc", &fcc},   {PP_INT64, "index", &index},
                            {PP_INT32, "key", &k},        {PP_INT64, "time", &t},
                            {PP_STRING, "type", const_cast<char*>(type)}, {PP_END, nullptr, nullptr}};
    if (type == nullptr) frame[8] = {PP_END, nullptr, nullptr};
    ProfileParam msg[] = {{PP_LIST, "frame", frame}, {PP_END, nullptr, nullptr}};
    profile_data(m_h_source, msg, 0);
  }

  int32_t Queued() { return m_buff->m_buffs[m_buff->m_i_curr_put_ind].m_i_frame_num_b; }
  void Drain() { GetAndWr(m_buff, nullptr); }
  void Advance(int64_t seconds) { PlClockAdvance(seconds * kSecond); }

  ArchiveStats Stats() {
    ArchiveStats s = {};
    L().get_stats(&s);
    return s;
  }

  std::vector<ArchiveCall> Calls() {
    std::vector<ArchiveCall> calls(ARCHIVE_CALL_LOG_SIZE);
    int32_t n = L().call_log(calls.data(), ARCHIVE_CALL_LOG_SIZE, m_seen);
    calls.resize(n);
    if (n > 0) m_seen = calls.back().seq;
    return calls;
  }
  // Values of SetParamsByType(code, ...) since the last look.
  std::vector<int64_t> Sets(int32_t code) {
    std::vector<int64_t> out;
    for (const ArchiveCall& c : Calls())
      if (c.kind == ARCHIVE_CALL_SET && c.code == code) out.push_back(c.value);
    return out;
  }
  int64_t LastSet(int32_t code, int64_t id) {
    int64_t v = 0;
    return L().last_set(code, id, &v) != 0 ? v : -999;
  }

  archive_test::TempDir m_dir;
  CWriter* m_w = nullptr;
  TCameraInfoW* m_info = nullptr;
  CWriteBuffering* m_buff = nullptr;
  TrackHandle m_h_source = 0;
  TrackHandle m_h_events = 0;
  Heard m_events;
  int32_t m_need = 0;
  int64_t m_time = 1700000000000000LL;
  int64_t m_seen = 0;
};

}  // namespace writer_test
