// Speed of the base layer on the frame path: a trace line on a channel that
// is off, the stability marks, checked memory against the plain heap, and
// the name hash. Budget: StableMark under 20 ns.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "include/host/core_api.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_os.h"
#include "bench/bench_monitor.h"

namespace {

const char kLogLibrary[] = WRITER_BIN_DIR "/liblog.so";

// The plug-in takes the host down when the library lacks a function, so
// look before loading.
bool LogLibraryComplete() {
  void* h_lib = PlLibOpen(kLogLibrary);
  if (h_lib == nullptr) return false;
  bool complete = true;
  for (const char* name : {"dll_init", "dll_free", "log_init", "log_vwrite", "log_free", "log_get_level"}) {
    if (PlLibSym(h_lib, name) == nullptr) complete = false;
  }
  PlLibClose(h_lib);
  return complete;
}

void TraceOff(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    TRACE44(TLOG_ARC_TRACE, "<bench> frame %d of %s", i, "cam");
    ++i;
  }
}

void BM_TraceOffNoLogger(benchmark::State& state) { TraceOff(state); }
BENCHMARK(BM_TraceOffNoLogger);

// The library's own defaults put "arc.trace" above the threshold of every
// trace line, so this measures the off path with loggers open.
void LoadLogger(const benchmark::State&) {
  core_set_path("log-1", kLogLibrary);
  LogDllLoad();
}
void UnloadLogger(const benchmark::State&) {
  LogDllUnload();
  core_set_path("log-1", nullptr);
}
void BM_TraceOffLoggerLoaded(benchmark::State& state) { TraceOff(state); }

void BM_StableMark(benchmark::State& state) {
  int32_t slot = StableEnter("bench mark");
  int32_t point = 20121;
  for (auto _ : state) {
    StableMark(slot, point);
    point ^= 1;
  }
  StableLeave(slot);
}
BENCHMARK(BM_StableMark);

void BM_StableEnterLeave(benchmark::State& state) {
  for (auto _ : state) StableLeave(StableEnter("bench entry"));
}
BENCHMARK(BM_StableEnterLeave);

void BM_SafeAllocFree(benchmark::State& state) {
  int32_t size = static_cast<int32_t>(state.range(0));
  for (auto _ : state) {
    char* p_block = nullptr;
    SAFE_MEM_ALLOCB5(p_block, size, 17);
    benchmark::DoNotOptimize(p_block);
    SAFE_MEM_FREE(p_block);
  }
}
BENCHMARK(BM_SafeAllocFree)->Arg(64)->Arg(20 * 1024);

// The plain heap, zeroed as the checked blocks are.
void BM_MallocFree(benchmark::State& state) {
  size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p_block = calloc(1, size);
    benchmark::DoNotOptimize(p_block);
    free(p_block);
  }
}
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(20 * 1024);

void BM_StrHash64(benchmark::State& state) {
  const char name[] = "key1_key2_key3_0";  // 16 bytes
  for (auto _ : state) benchmark::DoNotOptimize(StrHash64(name, 16));
}
BENCHMARK(BM_StrHash64);

// The monitor and the checker as dll_init makes them; the monitor's files
// go beside this program and are removed at the end.
bench::MonitorWorld g_world;

void WorldUp() { g_world.Up("bench_base"); }
void WorldDown() { g_world.Down(); }

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (LogLibraryComplete()) {
    benchmark::RegisterBenchmark("BM_TraceOffLoggerLoaded", BM_TraceOffLoggerLoaded)
        ->Setup(LoadLogger)
        ->Teardown(UnloadLogger);
  } else {
    fprintf(stderr, "bench_base: %s is not a complete logging library; trace with a logger skipped\n",
            kLogLibrary);
  }
  WorldUp();
  benchmark::RunSpecifiedBenchmarks();
  WorldDown();
  benchmark::Shutdown();
  return 0;
}
