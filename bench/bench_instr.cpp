// Instructions of the frame path, for valgrind --tool=callgrind, against the
// floor that the design leaves: one copy of the frame, the stability marks
// and the trace calls with their channels off. Counted instructions repeat
// whatever the load of the machine, so this is the figure to decide on.
//
//   bench_instr path N    N frame messages of a camera (one 18,868-byte video
//                         frame to two 160-byte audio frames, a key frame
//                         every 50 video frames) through on_frame of its
//                         video and its audio channel, each channel drained
//                         with GetAndWr after every 25 messages
//   bench_instr floor N   the same messages: one copy each into a buffer,
//                         then the marks and the trace calls of one message
//   bench_instr copy N    the copies alone, to tell the copy from the rest
//
// Only the functions Measure* are to be collected
// (--toggle-collect='*Measure*'); the set-up before them warms the buffers
// up. The logger is loaded with every channel above its threshold, as the
// plug-in runs in production. "path" prints the marks it saw per message.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_channel.h"
#include "bench/bench_monitor.h"
#include "include/host/log_api.h"
#include "linux/common_use/config.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/temp/atomic_field.h"
#include "platform/pl_os.h"
#include "writer/writer_buffering.h"
#include "writer/writer_exchanger.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"

namespace {

using namespace bench;

const char kLogLibrary[] = WRITER_BIN_DIR "/liblog.so";
const uint32_t kVideoBytes = 18868;  // 4 Mbit/s at 25 frames a second
const uint32_t kAudioBytes = 160;    // 20 ms of 8 kHz PCMA
const int kDrainEvery = 25;
// What the design puts on the path of one message through both channels,
// counted on the path itself: marks, and trace calls whose channel is off.
const int kFloorMarks = 56;
const int kFloorTraces44 = 24;
const int kFloorTraces45 = 12;

const char* const kLoggers[] = {"arc", "arc.load", "arc.trace", "arc.tracedecim", "arc.common",
                                "arc.transf", "arc.interf", "common", "*"};

std::string g_log_dir;
MonitorWorld g_world;

void LoggerUp() {
  core_set_path("log-1", kLogLibrary);
  void* h_lib = dlopen(kLogLibrary, RTLD_NOW | RTLD_LOCAL);
  if (h_lib == nullptr) return;
  auto configure = reinterpret_cast<LogConfigureFn>(dlsym(h_lib, "log_configure"));
  auto set_level = reinterpret_cast<LogSetLevelFn>(dlsym(h_lib, "log_set_level"));
  LogDllLoad();
  if (configure != nullptr) configure(g_log_dir.c_str(), nullptr);
  if (set_level != nullptr)
    for (const char* name : kLoggers) set_level(name, 30000);
  LogRefreshLevels();
  dlclose(h_lib);
}

// The audio channel of the same camera, as plugin_open makes it.
CWriter* g_p_audio = nullptr;
CWriteBuffering* g_p_audio_buff = nullptr;

void AudioUp() {
  g_p_audio = SafeNew<CWriter>(1);
  g_p_audio->m_i64_type_id = g_p_writer_global->m_i64_audio_id;
  SafeStringAssign(&g_p_audio->m_s_type, "audio", 1);
  std::string doc = Document();
  ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
  WriterOpen(g_p_audio, params);
  g_p_audio_buff = g_p_audio->m_camera_info_w->m_p_write_buffering;
  ExitThreadWriteBuffering(g_p_audio_buff);
  AtomicPut(&g_p_audio_buff->m_b_exit_thread_write_buffering, 0);
  g_p_audio_buff->m_h_event_activate_thread_write_buffering = new PlEvent(false, false);
}

void AudioDown() {
  WriterCloseTracks(g_p_audio);
  SafeDelete(g_p_audio);
}

// The camera's stream: video and audio messages in the order a source sends
// them, every field filled.
struct Stream {
  Stream() : video(kVideoBytes, 4 * kVideoBytes), audio(kAudioBytes) {
    audio.frame[9].value = const_cast<char*>("audio");
    audio.fcc = 0x414D4350;  // "PCMA"
    audio.key_every = 1;
    audio.width = audio.height = 0;
  }
  FrameMessage& Next(int64_t n) {
    FrameMessage& m = n % 3 == 0 ? video : audio;
    m.Next();
    return m;
  }
  FrameMessage video, audio;
};

uint64_t MarksSoFar() {
  uint64_t sum = 0;
  for (int i = 0; i < STABLE_SLOT_NUM; i++) sum += g_p_stable->m_slots[i].m_ui_counter;
  return sum;
}

void SendOn(Stream* s, int64_t from, int64_t n) {
  for (int64_t i = from; i < from + n; i++) {
    FrameMessage& m = s->Next(i);
    on_frame(g_p_writer, m.msg);
    on_frame(g_p_audio, m.msg);
    if ((i + 1) % kDrainEvery == 0) {
      GetAndWr(g_p_buff, nullptr);
      GetAndWr(g_p_audio_buff, nullptr);
    }
  }
}

__attribute__((noinline)) void MeasurePath(Stream* s, int64_t from, int64_t n) { SendOn(s, from, n); }

bool g_b_copy_only = false;

__attribute__((noinline)) void FloorOne(uint8_t* buffer, const FrameMessage& m, int32_t slot) {
  memcpy(buffer, m.data.data(), m.buf.length);
  if (g_b_copy_only) return;
  for (int k = 0; k < kFloorMarks; k++) StableMark(slot, 21011 + k);
  for (int k = 0; k < kFloorTraces44; k++) TRACE44(TLOG_ARC_TRACE, "<%lld>floor %d", 1LL, k);
  for (int k = 0; k < kFloorTraces45; k++) TRACE45(TLOG_ARC_TRACE, TSEV_TRACE, "<%lld>floor %d", 1LL, k);
}

__attribute__((noinline)) void MeasureFloor(Stream* s, uint8_t* buffer, int32_t slot, int64_t n) {
  for (int64_t i = 0; i < n; i++) FloorOne(buffer, s->Next(i), slot);
}

int RunPath(int64_t n) {
  ChannelUp();
  AudioUp();
  Stream s;
  int64_t warm = 3 * 50 * 4;  // buffers at their working size first
  SendOn(&s, 0, warm);
  uint64_t marks0 = MarksSoFar();
  Sink before = g_sink;
  MeasurePath(&s, warm, n);
  uint64_t marks = MarksSoFar() - marks0;
  int64_t written = g_sink.writes - before.writes;
  printf("path: %lld messages, %lld frames written, %.2f marks per message\n", static_cast<long long>(n),
         static_cast<long long>(written), static_cast<double>(marks) / n);
  AudioDown();
  ChannelDown();
  return written > 0 ? 0 : 1;
}

int RunFloor(int64_t n) {
  Stream s;
  uint8_t* buffer = static_cast<uint8_t*>(PlAlignedAlloc(4 * kVideoBytes + 64, 64));
  int32_t slot = StableEnter("floor");
  MeasureFloor(&s, buffer, slot, n);
  StableLeave(slot);
  if (g_b_copy_only)
    printf("copy: %lld messages\n", static_cast<long long>(n));
  else
    printf("floor: %lld messages, %d marks and %d trace calls each\n", static_cast<long long>(n), kFloorMarks,
           kFloorTraces44 + kFloorTraces45);
  PlAlignedFree(buffer);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool b_path = argc == 3 && strcmp(argv[1], "path") == 0;
  g_b_copy_only = argc == 3 && strcmp(argv[1], "copy") == 0;
  if (argc != 3 || (!b_path && !g_b_copy_only && strcmp(argv[1], "floor") != 0)) {
    fprintf(stderr, "usage: bench_instr path|floor|copy MESSAGES\n");
    return 2;
  }
  int64_t n = atoll(argv[2]);
  if (n <= 0) return 2;
  char log_dir[] = "/tmp/bench_instr_log.XXXXXX";
  if (mkdtemp(log_dir) != nullptr) g_log_dir = log_dir;
  g_world.Up("bench_instr");
  g_p_log_status_list = new CLogStatusList();
  LogStatusRecomputeAllOff(g_p_log_status_list);
  SinkInstall();
  LoggerUp();
  int rc = b_path ? RunPath(n) : RunFloor(n);
  LogDllUnload();
  core_set_path("log-1", nullptr);
  g_archive = TArchiveFns();
  delete g_p_log_status_list;
  g_p_log_status_list = nullptr;
  g_world.Down();
  for (const char* name : kLoggers) std::remove((g_log_dir + "/" + name + ".log").c_str());
  std::remove((g_log_dir + "/_.log").c_str());
  rmdir(g_log_dir.c_str());
  return rc;
}
