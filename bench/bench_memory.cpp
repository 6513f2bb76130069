// Buffer memory of one recording channel: in steady state, and how it grows
// when the archive is slow. A video stream of 4 Mbit/s at 25 fps (a key
// frame four times the others every two seconds) goes through the plug-in's
// units under the manual clock for half an hour of stream time, long enough
// for the buffers' four-minute reduction to settle. After each frame the
// buffer is drained, as a buffering thread woken by the frame would; each
// write to the stand-in archive takes the given time of the manual clock,
// and the frames that arrive meanwhile pile up in the other buffer.
//
// Printed per write time: the largest burst (bytes that one buffer took
// between two drains), the buffer memory at 1, 5 and 30 minutes, and its
// ratio to the burst. Budget: with a prompt archive the steady-state buffer
// memory of the channel stays under twice its largest burst.
//
// Then the process's resident memory over a stall: the frame buffers of 64
// cameras grow to hold a backlog and shrink back, a quarter per 240 s, while
// small blocks live on beside them. Budget: what the buffers gave back is
// given back to the system, so resident memory ends near where it started.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "bench/bench_budget.h"
#include "bench/bench_channel.h"
#include "linux/common_use/service/service4.h"
#include "writer/writer_buffer.h"
#include "writer/writer_exchanger.h"

using namespace bench;

namespace {

const int64_t kTicksPerMs = 10000;
const int64_t kFrameTicks = 40 * kTicksPerMs;
const uint32_t kFrameBytes = 18868;  // with a 4x key frame every 50: 4 Mbit/s

struct Result {
  double burst = 0;
  double mem_1min = 0, mem_5min = 0, mem_30min = 0;
  int64_t passes = 0;
};

// The bytes the accepting buffer holds now.
double Queued() { return static_cast<double>(g_p_buff->m_buffs[g_p_buff->m_i_curr_put_ind].m_i_offs_b); }

Result Run(int64_t write_ms) {
  PlClockUseManual(133444915000000000ULL);
  g_i64_write_ticks = write_ms * kTicksPerMs;
  ChannelUp();
  FrameMessage m(kFrameBytes, 4 * kFrameBytes);
  Result r;
  Sink before = g_sink;
  uint64_t start = PlFileTimeUtc(), next = start;
  int64_t sent = 0;
  for (int minute : {1, 5, 30}) {
    uint64_t until = start + static_cast<uint64_t>(minute) * 60 * 10000000ULL;
    while (next < until) {
      // Frames that arrived while the archive wrote, then one drain round.
      while (next <= PlFileTimeUtc()) {
        m.Next();
        on_frame(g_p_writer, m.msg);
        sent++;
        next += kFrameTicks;
      }
      if (Queued() > r.burst) r.burst = Queued();
      GetAndWr(g_p_buff, nullptr);
      if (PlFileTimeUtc() < next) PlClockAdvance(static_cast<int64_t>(next - PlFileTimeUtc()));
    }
    double mem = static_cast<double>(BuffsUsedMemRead());
    (minute == 1 ? r.mem_1min : minute == 5 ? r.mem_5min : r.mem_30min) = mem;
  }
  r.passes = sent - (g_sink.writes - before.writes);
  ChannelDown();
  g_i64_write_ticks = 0;
  PlClockUseReal();
  return r;
}

// Resident memory of this process in KB, from /proc.
double ResidentKb() {
  FILE* f = fopen("/proc/self/status", "r");
  if (f == nullptr) return -1;
  char line[256];
  double kb = -1;
  while (fgets(line, sizeof(line), f) != nullptr)
    if (strncmp(line, "VmRSS:", 6) == 0) kb = atof(line + 6);
  fclose(f);
  return kb;
}

struct Stall {
  double before = 0, peak = 0, after = 0;
  double buffs_peak = 0, buffs_after = 0;
};

// 64 cameras, video and audio, two buffers each. Every buffer first carries
// its steady traffic, then a backlog of many frames (the archive stalled),
// with a small long-lived block taken between frames as the logger and the
// lists do; then the backlog drains and ten reduce checks 241 s apart bring
// the buffers back to their steady size.
void RunStall(Stall* r) {
  const int kBuffers = 64 * 2 * 2;
  const uint32_t kPortion = 2000;
  std::vector<TWriteBuffer> buffs(kBuffers);
  std::vector<char*> smalls;
  auto steady = [&]() {
    for (TWriteBuffer& b : buffs) {
      b.m_i_offs_b = 0;
      ReservePortion(&b, kPortion);
    }
  };
  steady();
  r->before = ResidentKb();
  for (int frame = 0; frame < 15; frame++) {
    for (TWriteBuffer& b : buffs) {
      if (ReservePortion(&b, kPortion) == 0) continue;
      memset(b.m_pb_data_b + b.m_i_offs_b, frame, kPortion);
      b.m_i_offs_b += static_cast<int32_t>(kPortion);
    }
    char* p = nullptr;
    SAFE_MEM_ALLOCB5(p, 200, 17);
    smalls.push_back(p);
  }
  r->peak = ResidentKb();
  r->buffs_peak = static_cast<double>(BuffsUsedMemRead());
  for (int check = 0; check < 11; check++) {
    steady();
    for (TWriteBuffer& b : buffs) ReduceBuff(&b);
    PlClockAdvance(241 * 10000000LL);
  }
  r->after = ResidentKb();
  r->buffs_after = static_cast<double>(BuffsUsedMemRead());
  for (char*& p : smalls) SAFE_MEM_FREE(p);
}

}  // namespace

int main() {
  {
    // On a thread of its own, as the frame path and the buffering threads
    // are: their blocks come from the allocator's per-thread arenas.
    PlClockUseManual(133444915000000000ULL);
    Stall s;
    std::thread t(RunStall, &s);
    t.join();
    PlClockUseReal();
    double grown = s.peak - s.before, kept = s.after - s.before;
    printf("resident memory over a stall of 64 cameras: %.0f KB before, %.0f KB at the backlog (buffers %.0f KB), "
           "%.0f KB after the buffers shrank back (buffers %.0f KB)\n",
           s.before, s.peak, s.buffs_peak / 1024, s.after, s.buffs_after / 1024);
    bench::PrintBudget("5b", "resident memory kept after the frame buffers shrink back / what their growth took",
                       s.before > 0 && grown > 0, kept < 0.1 * grown,
                       bench::Format("%.2f (%.0f KB of %.0f KB)", grown > 0 ? kept / grown : 0, kept, grown),
                       "under 0.10");
  }
  SinkInstall();
  printf("buffer memory of one video channel, 4 Mbit/s at 25 fps, key frame %u bytes\n", 4 * kFrameBytes);
  printf("%10s %10s %12s %12s %12s %10s %10s\n", "write ms", "burst KB", "1 min KB", "5 min KB", "30 min KB",
         "ratio", "passed");
  Result prompt;
  for (int64_t write_ms : {0, 10, 30, 38, 45}) {
    Result r = Run(write_ms);
    if (write_ms == 0) prompt = r;
    printf("%10lld %10.0f %12.0f %12.0f %12.0f %10.2f %10lld\n", static_cast<long long>(write_ms), r.burst / 1024,
           r.mem_1min / 1024, r.mem_5min / 1024, r.mem_30min / 1024, r.burst > 0 ? r.mem_30min / r.burst : -1,
           static_cast<long long>(r.passes));
  }
  bool have = prompt.burst > 0;
  bench::PrintBudget("5", "steady-state buffer memory of a channel / its largest burst", have,
                     have && prompt.mem_30min < 2 * prompt.burst,
                     bench::Format("%.2f (%.0f KB / %.0f KB)", prompt.mem_30min / prompt.burst, prompt.mem_30min / 1024,
                                   prompt.burst / 1024),
                     "under 2");
  g_archive = TArchiveFns();
  return 0;
}
