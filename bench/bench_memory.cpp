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
#include <cstdio>
#include <cstdlib>

#include "bench/bench_budget.h"
#include "bench/bench_channel.h"
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

}  // namespace

int main() {
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
