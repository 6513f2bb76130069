// Cost of one bus message: the frame path sends one per frame to the
// recording channel, so a message to one receiver is the figure that counts.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "include/host/core_api.h"

namespace {

void Touch(void* user, ProfileParam* params) {
  int32_t* need = static_cast<int32_t*>(params[0].value);
  ++*need;
  benchmark::DoNotOptimize(user);
}

void SendToReceivers(benchmark::State& state) {
  const int receivers = static_cast<int>(state.range(0));
  ProfileCallback cb{nullptr, reinterpret_cast<void*>(&Touch)};
  // Each sending thread has a track of its own, as each camera does.
  const std::string media = "bench_media_" + std::to_string(state.thread_index());
  std::vector<TrackHandle> handles;
  for (int i = 0; i < receivers; ++i) handles.push_back(profile_open(media.c_str(), &cb, __FILE__, __LINE__));
  // Other tracks in the table, as in a server with many cameras.
  for (int i = 0; i < 64; ++i) {
    std::string name = media + "_other_" + std::to_string(i);
    handles.push_back(profile_open(name.c_str(), &cb, __FILE__, __LINE__));
  }
  TrackHandle sender = profile_open(media.c_str(), nullptr, __FILE__, __LINE__);
  int32_t need = 0;
  ProfileParam msg[] = {{PP_INT32, "need", &need}, {PP_END, nullptr, nullptr}};
  for (auto _ : state) profile_data(sender, msg, 0);
  if (need != static_cast<int32_t>(state.iterations() * receivers)) state.SkipWithError("lost deliveries");
  profile_close(sender);
  for (TrackHandle h : handles) profile_close(h);
}
BENCHMARK(SendToReceivers)->Arg(1)->Arg(4);
BENCHMARK(SendToReceivers)->Arg(1)->Threads(2);

}  // namespace

BENCHMARK_MAIN();
