// The plain program that the whole recording process is measured against:
// it makes the same frames as writer-host's synthetic camera (the same
// generator, the same settings) and appends each to one file with one
// write, as fast as it can. Prints one line in the form of writer-host's
// "whole" line, so that scripts/bench.sh can set the two side by side.
//
//   bench_append FILE FRAMES [FRAME_BYTES]
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/server/srv_media.h"
#include "platform/pl_clock.h"

namespace {

double Seconds(const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_append FILE FRAMES [FRAME_BYTES]\n");
    return 2;
  }
  long long frames = atoll(argv[2]);
  SrvSourceConfig cfg;  // the default camera: 25 fps, a key frame every 2 s, 20 ms PCMA
  if (argc > 3) cfg.m_i_frame_bytes = atoi(argv[3]);
  SrvSynthetic source;
  SrvSyntheticInit(&source, cfg, 1);
  int fd = open(argv[1], O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    perror(argv[1]);
    return 1;
  }
  long long bytes = 0;
  int64_t start = PlPerfCounter();
  for (long long i = 0; i < frames; i++) {
    SrvMediaFrame frame;
    SrvSyntheticNext(&source, &frame);
    if (write(fd, frame.m_pb_data, frame.m_ui_size) != static_cast<ssize_t>(frame.m_ui_size)) {
      perror("write");
      return 1;
    }
    bytes += frame.m_ui_size;
  }
  close(fd);
  double span = static_cast<double>(PlPerfCounter() - start) / static_cast<double>(PlPerfFrequency());
  rusage ru;
  memset(&ru, 0, sizeof(ru));
  getrusage(RUSAGE_SELF, &ru);
  printf("plain    %lld frames (%.1f MB) appended in %.2f s: %.0f frames/s, %.1f MB/s; cpu %.2f s user + %.2f s system\n",
         frames, bytes / 1e6, span, frames / span, bytes / 1e6 / span, Seconds(ru.ru_utime), Seconds(ru.ru_stime));
  return 0;
}
