// The stand-in archive and the recording channel that the in-process
// benchmarks drive: a video channel built on the plug-in's units as
// plugin_open builds it, writing into ten archive functions that answer
// what the plug-in asks and only count what they are given. The channel's
// buffering thread is stopped: a benchmark drains with GetAndWr itself.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "include/host/core_api.h"
#include "platform/pl_clock.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"

namespace bench {

constexpr int32_t kHandle = 7;

// ---- The stand-in archive: answers what the plug-in asks, counts writes ----

struct Sink {
  int64_t writes = 0;
  int64_t bytes = 0;
  int64_t sum = 0;  // one byte of each frame, so that no side skips its copy
  int64_t questions = 0;
  int64_t camera_id = 0;
  int64_t storage_id = 0;
};
inline Sink g_sink;
// Each write costs this many ticks of the manual clock (a slow archive).
inline int64_t g_i64_write_ticks = 0;

inline int32_t SinkInit(int32_t) { return 0; }
inline int32_t SinkWrite(int32_t, const void* data, int32_t size, int32_t, int64_t) {
  g_sink.writes++;
  g_sink.bytes += size;
  g_sink.sum += static_cast<const uint8_t*>(data)[size - 1];
  if (g_i64_write_ticks > 0) PlClockAdvance(g_i64_write_ticks);
  return 0;
}
inline int32_t SinkOpen(int32_t* out, int64_t, int64_t, int64_t id3, const ArchiveKey*, int32_t, uint32_t, int64_t storage,
                 int64_t) {
  g_sink.camera_id = id3;
  g_sink.storage_id = storage;
  *out = kHandle;
  return 0;
}
inline int32_t SinkClose(int32_t) { return 0; }
inline int64_t SinkGet(int64_t, int32_t, int32_t code) {
  g_sink.questions++;
  switch (code) {
    case 34:
    case 84:
      return 1;  // ready
    case 111:
      return 1;  // buffers may grow
    case 112:
      return 512LL << 20;
    default:
      return 0;
  }
}
inline int32_t SinkSet(int32_t, int64_t, int64_t) { return 0; }
inline int64_t SinkGetReq(int32_t, int32_t code) {
  g_sink.questions++;
  switch (code) {
    case 29:
      return 1;  // session alive
    case 10:
      return g_sink.camera_id;
    case 36:
      return g_sink.storage_id;
    default:
      return 0;
  }
}
inline int64_t SinkSetReq(int32_t, int32_t, int64_t) { return 0; }
inline int32_t SinkAddCamera(const ArchiveKey*, int64_t, int64_t, uint32_t, int32_t, int32_t, int64_t) { return 0; }

inline void SinkInstall() {
  g_archive.dll_init2 = SinkInit;
  g_archive.dll_free2 = SinkInit;
  g_archive.WriteDataForTime = SinkWrite;
  g_archive.GetHandleForWrite = SinkOpen;
  g_archive.CloseHandleWrite = SinkClose;
  g_archive.GetParamsByType = SinkGet;
  g_archive.SetParamsByType = SinkSet;
  g_archive.GetParamsByTypeReqWrite = SinkGetReq;
  g_archive.SetParamsByTypeReqWrite = SinkSetReq;
  g_archive.AddCameraInfo = SinkAddCamera;
}

// ---- The channel ----

inline CWriter* g_p_writer = nullptr;
inline CWriteBuffering* g_p_buff = nullptr;

inline std::string Document() {
  return R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
         R"("arc_key1":{"_value":"A"},"arc_key2":{"_value":"B"},"arc_key3":{"_value":"C"},)"
         R"("in":{"_value":"t"}}}})";
}

// A video channel as plugin_open makes it, with its thread stopped and its
// wake-up event made again, so that the frame path still sets it.
inline void ChannelUp() {
  g_p_writer_global = SafeNew<CWriterGlobal>(1);
  g_p_writer = SafeNew<CWriter>(1);
  g_p_writer->m_i64_type_id = g_p_writer_global->m_i64_video_id;
  SafeStringAssign(&g_p_writer->m_s_type, "video", 1);
  std::string doc = Document();
  ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
  WriterOpen(g_p_writer, params);
  g_p_buff = g_p_writer->m_camera_info_w->m_p_write_buffering;
  ExitThreadWriteBuffering(g_p_buff);
  AtomicPut(&g_p_buff->m_b_exit_thread_write_buffering, 0);
  g_p_buff->m_h_event_activate_thread_write_buffering = new PlEvent(false, false);
}

inline void ChannelDown() {
  WriterCloseTracks(g_p_writer);
  SafeDelete(g_p_writer);
  SafeDelete(g_p_writer_global);
}

// One frame message as a source sends it, with every field.
struct FrameMessage {
  // Key frames may be larger than the others, as a camera's are.
  explicit FrameMessage(size_t size, size_t key_size = 0) : data(key_size > size ? key_size : size) {
    this->size = static_cast<uint32_t>(size);
    this->key_size = static_cast<uint32_t>(key_size > 0 ? key_size : size);
    for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<uint8_t>(i * 131u + 7u);
    buf = {data.data(), static_cast<uint32_t>(size)};
    extra_buf = {extra, sizeof(extra)};
    no_extra = {nullptr, 0};
    ProfileParam f[] = {{PP_INT32, "need", &need},     {PP_BUFFER, "data", &buf},      {PP_BUFFER, "extra", &extra_buf},
                        {PP_INT32, "width", &width},   {PP_INT32, "height", &height},  {PP_INT32, "fcc", &fcc},
                        {PP_INT64, "index", &index},   {PP_INT32, "key", &key},        {PP_INT64, "time", &time},
                        {PP_STRING, "type", const_cast<char*>("video")}, {PP_END, nullptr, nullptr}};
    memcpy(frame, f, sizeof(f));
    msg[0] = {PP_LIST, "frame", frame};
    msg[1] = {PP_END, nullptr, nullptr};
  }
  void Next() {
    key = index % key_every == 0 ? 1 : 0;
    frame[2].value = key != 0 ? &extra_buf : &no_extra;
    buf.length = key != 0 ? key_size : size;
    index++;
    time += 40000;
  }
  std::vector<uint8_t> data;
  uint32_t size, key_size;
  uint8_t extra[32] = {1, 2, 3};
  ProfileBuffer buf, extra_buf, no_extra;
  int32_t need = 0, width = 1920, height = 1080, fcc = 0x34363248, key = 0;  // "H264"
  int64_t index = 0, time = 1700000000000000LL;
  int64_t key_every = 50;  // two seconds at 25 fps
  ProfileParam frame[11];
  ProfileParam msg[2];
};

}  // namespace bench
