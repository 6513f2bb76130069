// The floor that budget 6 (CPU per camera in real time) is measured
// against: what the operating system charges for the wake-ups and writes
// that recording n cameras in real time cannot do without. Two pacer threads
// put each camera's frames on a 20 ms grid (video 25 fps of 18,868 bytes,
// audio 50 fps of 160 bytes) into a per-channel buffer under its lock, and
// wake that channel's thread for every put, as the plug-in wakes its
// buffering thread; the thread swaps the buffer and writes each frame with
// one writev into a file of its own. No bus, no plug-in, no archive format.
// Prints the CPU time per camera and per frame.
//
//   bench_wake FOLDER CAMERAS SECONDS
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pl_clock.h"

namespace {

long Futex(std::atomic<int>* word, int op, int value, const timespec* timeout) {
  return syscall(SYS_futex, reinterpret_cast<int*>(word), op, value, timeout, nullptr, 0);
}

// An automatic-reset event at the system's price: 0 clear, 1 set, 2 clear
// with a sleeper. A set with nobody asleep makes no system call.
struct Event {
  std::atomic<int> m_state{0};
  void Set() {
    if (m_state.exchange(1) == 2) Futex(&m_state, FUTEX_WAKE_PRIVATE, 1, nullptr);
  }
  void Wait(int ms) {
    timespec timeout{ms / 1000, (ms % 1000) * 1000000L};
    for (;;) {
      int state = m_state.load();
      if (state == 1) {
        if (m_state.compare_exchange_strong(state, 0)) return;
        continue;
      }
      if (state == 0 && !m_state.compare_exchange_strong(state, 2)) continue;
      if (Futex(&m_state, FUTEX_WAIT_PRIVATE, 2, &timeout) != 0 && errno == ETIMEDOUT) {
        int sleeping = 2;
        m_state.compare_exchange_strong(sleeping, 0);
        return;
      }
    }
  }
};

struct Channel {
  std::mutex m_mutex;
  std::vector<char> m_in, m_out;
  std::vector<size_t> m_in_sizes, m_out_sizes;
  Event m_event;
  std::atomic<bool>* m_stop = nullptr;
  int m_fd = -1;
  size_t m_frame_bytes = 0;
  int m_period_ms = 0;

  void Put(const char* data, size_t size) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_in.insert(m_in.end(), data, data + size);
      m_in_sizes.push_back(size);
    }
    m_event.Set();
  }

  void Run() {
    while (!m_stop->load()) {
      m_event.Wait(5000);
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_in.swap(m_out);
        m_in_sizes.swap(m_out_sizes);
        m_in.clear();
        m_in_sizes.clear();
      }
      size_t at = 0;
      for (size_t size : m_out_sizes) {
        uint64_t head = size;
        iovec parts[2] = {{&head, sizeof(head)}, {m_out.data() + at, size}};
        if (writev(m_fd, parts, 2) < 0) perror("writev"), exit(1);
        at += size;
      }
    }
  }
};

double CpuSeconds() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: bench_wake FOLDER CAMERAS SECONDS\n");
    return 2;
  }
  const int cameras = atoi(argv[2]), seconds = atoi(argv[3]), pacers = 2;
  if (cameras <= 0 || seconds <= 0) return fprintf(stderr, "cameras and seconds must be positive\n"), 2;
  std::atomic<bool> stop{false};
  std::deque<Channel> channels(2 * static_cast<size_t>(cameras));  // video, audio, video, ...
  for (size_t i = 0; i < channels.size(); i++) {
    Channel& ch = channels[i];
    ch.m_stop = &stop;
    ch.m_frame_bytes = i % 2 ? 160 : 18868;
    ch.m_period_ms = i % 2 ? 20 : 40;
    std::string path = std::string(argv[1]) + "/c" + std::to_string(i);
    ch.m_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (ch.m_fd < 0) return perror(path.c_str()), 1;
  }
  std::vector<char> frame(18868, 'x');
  std::vector<std::thread> threads;
  for (Channel& ch : channels) threads.emplace_back([&ch] { ch.Run(); });

  double cpu_start = CpuSeconds();
  const int64_t start = PlPerfCounter(), per_ms = PlPerfFrequency() / 1000;
  std::vector<std::thread> pacer_threads;
  for (int p = 0; p < pacers; p++)
    pacer_threads.emplace_back([&, p] {
      for (int tick = 0; tick < seconds * 50; tick++) {
        int64_t left_ms = (start + tick * 20 * per_ms - PlPerfCounter()) / per_ms;
        if (left_ms > 0) PlSleep(static_cast<uint32_t>(left_ms));
        for (size_t i = p; i < channels.size(); i += pacers)
          if (tick * 20 % channels[i].m_period_ms == 0) channels[i].Put(frame.data(), channels[i].m_frame_bytes);
      }
    });
  for (std::thread& t : pacer_threads) t.join();
  stop = true;
  for (Channel& ch : channels) ch.m_event.Set();
  for (std::thread& t : threads) t.join();
  double cpu = CpuSeconds() - cpu_start;
  for (Channel& ch : channels) close(ch.m_fd);
  printf("floor    %d cameras, %d s: cpu %.2f s, %.3f %% of one core per camera, %.1f us a frame\n", cameras, seconds, cpu,
         100.0 * cpu / seconds / cameras, cpu * 1e6 / (75.0 * cameras * seconds));
  return 0;
}
