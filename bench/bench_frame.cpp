// Cost of the frame path per frame, from on_frame to the archive's write
// call, against its floor: a plain loop that copies the same bytes once into
// a buffer and hands them to the same sink. Both sides write into a stand-in
// archive that only counts, so that the difference is the plug-in's own work.
//
// The channel is built on the plug-in's units as plugin_open builds it; its
// buffering thread is stopped, and each iteration sends one batch of frames
// (one key frame and 49 others, two seconds of a 25 fps camera) through
// on_frame and then drains the buffer with GetAndWr on the same thread. So
// the figure is the work of both threads per frame, without the thread
// switch, which a real buffering thread spreads over a whole round.
//
// Logging states: no logger; the logger loaded with every channel above its
// threshold (the production setting); "arc.trace" on, writing to a scratch
// folder. Budgets: at 20 KB the path costs at most 1.5 times the floor and
// at most 2 us of own work per frame (own work: the path's time minus the
// sink's); a trace call whose channel is off costs under 60 ns.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_budget.h"
#include "bench/bench_channel.h"
#include "include/host/core_api.h"
#include "include/host/log_api.h"
#include "linux/common_use/config.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_os.h"
#include "linux/common_use/temp/atomic_field.h"
#include "writer/writer_buffering.h"
#include "writer/writer_exchanger.h"
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "bench/bench_monitor.h"

namespace {

const char kLogLibrary[] = WRITER_BIN_DIR "/liblog.so";
const int kBatch = 50;
using namespace bench;
// ---- The logger in its three states ----

std::string g_log_dir;
LogSetLevelFn g_log_set_level = nullptr;
LogConfigureFn g_log_configure = nullptr;

const char* const kLoggers[] = {"arc", "arc.load", "arc.trace", "arc.tracedecim", "arc.common",
                                "arc.transf", "arc.interf", "common", "*"};

// Loads the library as the plug-in does, every logger above what the
// plug-in writes with; "arc.trace" down to 0 when asked.
void LoggerUp(bool trace_on) {
  core_set_path("log-1", kLogLibrary);
  void* h_lib = dlopen(kLogLibrary, RTLD_NOW | RTLD_LOCAL);
  if (h_lib == nullptr) return;
  g_log_configure = reinterpret_cast<LogConfigureFn>(dlsym(h_lib, "log_configure"));
  g_log_set_level = reinterpret_cast<LogSetLevelFn>(dlsym(h_lib, "log_set_level"));
  LogDllLoad();
  if (g_log_configure != nullptr) g_log_configure(g_log_dir.c_str(), nullptr);
  if (g_log_set_level != nullptr)
    for (const char* name : kLoggers) g_log_set_level(name, 30000);
  if (trace_on && g_log_set_level != nullptr) g_log_set_level("arc.trace", 0);
  LogRefreshLevels();
  dlclose(h_lib);  // the plug-in's own reference keeps it loaded
}

void LoggerDown() {
  LogDllUnload();
  core_set_path("log-1", nullptr);
}

// Log states: 0 no logger, 1 logger with every channel off, 2 "arc.trace" on.
void BM_FramePath(benchmark::State& state) {
  size_t size = static_cast<size_t>(state.range(0));
  int log_state = static_cast<int>(state.range(1));
  if (log_state > 0) LoggerUp(log_state == 2);
  ChannelUp();
  FrameMessage m(size);
  Sink before = g_sink;
  int64_t sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; i++) {
      m.Next();
      on_frame(g_p_writer, m.msg);
    }
    GetAndWr(g_p_buff, nullptr);
    sent += kBatch;
  }
  int64_t written = g_sink.writes - before.writes;
  state.counters["frames"] = static_cast<double>(sent);
  state.counters["questions/frame"] = sent > 0 ? static_cast<double>(g_sink.questions - before.questions) / sent : 0;
  state.counters["buff_mem_KB"] = static_cast<double>(BuffsUsedMemRead()) / 1024.0;
  ChannelDown();
  if (log_state > 0) LoggerDown();
  if (written != sent) state.SkipWithError("frames were passed over: the figure would not be the whole path");
}

// The floor: one copy of each frame into a buffer, then the same sink.
void BM_Floor(benchmark::State& state) {
  size_t size = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> src(size, 0x5A);
  uint8_t* buffer = static_cast<uint8_t*>(PlAlignedAlloc(kBatch * (size + 64), 64));
  int64_t time = 1700000000000000LL;
  for (auto _ : state) {
    size_t at = 0;
    for (int i = 0; i < kBatch; i++) {
      memcpy(buffer + at, src.data(), size);
      at += size + 64;
    }
    at = 0;
    for (int i = 0; i < kBatch; i++) {
      g_archive.WriteDataForTime(kHandle, buffer + at, static_cast<int32_t>(size), 1, time += 400000);
      at += size + 64;
    }
    benchmark::ClobberMemory();
  }
  PlAlignedFree(buffer);
}

// The sink alone: what both sides pay for the write call itself.
void BM_Sink(benchmark::State& state) {
  uint8_t frame[64] = {1};
  int64_t time = 0;
  for (auto _ : state)
    for (int i = 0; i < kBatch; i++) g_archive.WriteDataForTime(kHandle, frame, sizeof(frame), 1, time += 400000);
}

// A trace call with its channel off, in the plug-in's own state: the
// logger loaded and the saved-subscription list made, nobody subscribed.
void BM_TraceOffPluginState(benchmark::State& state) {
  LoggerUp(false);
  int i = 0;
  for (auto _ : state) {
    TRACE44(TLOG_ARC_TRACE, "<bench> frame %d of %s", i, "cam");
    ++i;
  }
  LoggerDown();
}

void Register() {
  for (int64_t size : {1024, 20 * 1024, 200 * 1024}) {
    benchmark::RegisterBenchmark("BM_Floor", BM_Floor)->Arg(size);
    for (int64_t log_state : {0, 1, 2})
      benchmark::RegisterBenchmark("BM_FramePath", BM_FramePath)->Args({size, log_state});
  }
  benchmark::RegisterBenchmark("BM_Sink", BM_Sink);
  benchmark::RegisterBenchmark("BM_TraceOffPluginState", BM_TraceOffPluginState);
}

// Per frame, in ns; -1 when the run is missing.
double PerFrame(const bench::KeepingReporter& r, const std::string& name) {
  const bench::KeepingReporter::Kept* kept = r.Find(name);
  return kept == nullptr ? -1 : kept->real_ns / kBatch;
}

void Budgets(const bench::KeepingReporter& r) {
  double sink = PerFrame(r, "BM_Sink");
  printf("\nper frame, ns (own work = path - sink; sink %.1f ns):\n", sink);
  printf("%8s %10s %12s %12s %12s %8s\n", "size", "floor", "path off", "path nolog", "trace on", "ratio");
  for (int size : {1024, 20 * 1024, 200 * 1024}) {
    std::string s = std::to_string(size);
    double floor = PerFrame(r, "BM_Floor/" + s);
    double off = PerFrame(r, "BM_FramePath/" + s + "/1");
    double nolog = PerFrame(r, "BM_FramePath/" + s + "/0");
    double on = PerFrame(r, "BM_FramePath/" + s + "/2");
    printf("%8d %10.0f %12.0f %12.0f %12.0f %8.2f\n", size, floor, off, nolog, on, floor > 0 ? off / floor : -1);
  }
  double floor20 = PerFrame(r, "BM_Floor/20480");
  double off20 = PerFrame(r, "BM_FramePath/20480/1");
  bool have = floor20 > 0 && off20 > 0 && sink >= 0;
  // The budget on the path against its floor is counted in instructions
  // (bench_instr); the time ratio is shown.
  bench::PrintBudget("1t", "frame path / floor at 20 KB, channels off (shown, no budget)", have, true,
                     bench::Format("%.2f (%.0f ns / %.0f ns)", off20 / floor20, off20, floor20), "-");
  bench::PrintBudget("1b", "own work per 20 KB frame, channels off", have, have && off20 - sink <= 2000,
                     bench::Format("%.0f ns", off20 - sink), "at most 2000 ns");
  double on20 = PerFrame(r, "BM_FramePath/20480/2");
  bench::PrintBudget("2t", "cost of \"arc.trace\" on, per 20 KB frame (shown, no budget)", on20 > 0 && have, true,
                     bench::Format("%.0f ns more", on20 - off20), "-");
  const bench::KeepingReporter::Kept* trace = r.Find("BM_TraceOffPluginState");
  bench::PrintBudget("2", "trace call, channel off, plug-in state", trace != nullptr,
                     trace != nullptr && trace->real_ns < 60, bench::Format("%.1f ns", trace ? trace->real_ns : 0),
                     "under 60 ns");
}

// The monitor, the checker and the saved-subscription list as dll_init
// makes them; the monitor's files go beside this program.
bench::MonitorWorld g_world;

void WorldUp() {
  char log_dir[] = "/tmp/bench_frame_log.XXXXXX";
  if (mkdtemp(log_dir) != nullptr) g_log_dir = log_dir;
  g_world.Up("bench_frame");
  g_p_log_status_list = new CLogStatusList();
  LogStatusRecomputeAllOff(g_p_log_status_list);
  SinkInstall();
}

void WorldDown() {
  g_archive = TArchiveFns();
  delete g_p_log_status_list;
  g_p_log_status_list = nullptr;
  g_world.Down();
  if (!g_log_dir.empty()) {
    for (const char* name : kLoggers) std::remove((g_log_dir + "/" + name + ".log").c_str());
    std::remove((g_log_dir + "/_.log").c_str());
    rmdir(g_log_dir.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  WorldUp();
  Register();
  bench::KeepingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  Budgets(reporter);
  WorldDown();
  benchmark::Shutdown();
  return 0;
}
