// The floor that recording one camera as fast as it goes is measured against:
// the same frames as writer-host's synthetic camera (the same generator, the
// same settings), each copied once into a frame block laid out as the
// plug-in lays it out (head, data section, the set-up as extra section on key
// frames), and handed to libwarchive.so with the same calls the plug-in makes
// (one session for video, one for audio, one WriteDataForTime a frame). No
// bus, no threads, no buffering: what is left is what any recorder of these
// frames into this archive must pay. Prints the CPU time per frame, the
// figure scripts/bench.sh sets against writer-host's.
//
//   bench_append FOLDER FRAMES [FRAME_BYTES] [LIBRARY]
#include <dlfcn.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host/server/srv_media.h"
#include "include/host/archive_api.h"
#include "platform/pl_clock.h"

namespace {

double Seconds(const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }

void Put32(uint8_t* pb, uint32_t v) {
  for (int i = 0; i < 4; i++) pb[i] = static_cast<uint8_t>(v >> (8 * i));
}

struct Archive {
  decltype(&archive_configure) configure = nullptr;
  ArchiveDllInit2Fn init = nullptr;
  ArchiveDllFree2Fn free = nullptr;
  ArchiveGetHandleForWriteFn open = nullptr;
  ArchiveWriteDataForTimeFn write = nullptr;
  ArchiveCloseHandleWriteFn close = nullptr;

  bool Load(const std::string& path) {
    void* lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return fprintf(stderr, "%s\n", dlerror()), false;
    configure = reinterpret_cast<decltype(configure)>(dlsym(lib, "archive_configure"));
    init = reinterpret_cast<ArchiveDllInit2Fn>(dlsym(lib, "dll_init2"));
    free = reinterpret_cast<ArchiveDllFree2Fn>(dlsym(lib, "dll_free2"));
    open = reinterpret_cast<ArchiveGetHandleForWriteFn>(dlsym(lib, "GetHandleForWrite"));
    write = reinterpret_cast<ArchiveWriteDataForTimeFn>(dlsym(lib, "WriteDataForTime"));
    close = reinterpret_cast<ArchiveCloseHandleWriteFn>(dlsym(lib, "CloseHandleWrite"));
    return configure && init && free && open && write && close;
  }

  int32_t Session(const char* channel) {
    const char* texts[ARCHIVE_KEY_COUNT] = {"bench", "c1", channel, nullptr, nullptr};
    ArchiveKey keys[ARCHIVE_KEY_COUNT];
    for (int i = 0; i < ARCHIVE_KEY_COUNT; i++) {
      keys[i].text = texts[i];
      keys[i].size = texts[i] ? static_cast<int32_t>(strlen(texts[i]) + 1) : 0;
    }
    int32_t handle = -1;
    return open(&handle, 1, 1, 1, keys, 0, 0, 1, 0) == 0 ? handle : -1;
  }
};

// The frame's one copy: into a block with the plug-in's head and sections.
uint32_t MakeBlock(const SrvMediaFrame& frame, uint32_t number, int64_t time, std::vector<uint8_t>* block) {
  bool key = frame.m_i_key != 0;
  uint32_t head = key ? 48 : 32;
  uint32_t extra = key ? frame.m_ui_extra_size : 0;
  uint32_t size = head + 8 + frame.m_ui_size + (extra > 0 ? 8 + extra : 0);
  if (block->size() < size) block->resize(size);
  uint8_t* pb = block->data();
  memset(pb, 0, head);
  Put32(pb, head);
  Put32(pb + 4, key ? 6 : 7);
  Put32(pb + 8, static_cast<uint32_t>(time));
  Put32(pb + 12, static_cast<uint32_t>(static_cast<uint64_t>(time) >> 32));
  Put32(pb + 20, number);
  if (key) {
    Put32(pb + 36, static_cast<uint32_t>(frame.m_i_width));
    Put32(pb + 40, static_cast<uint32_t>(frame.m_i_height));
    Put32(pb + 44, frame.m_ui_fcc);
  }
  uint8_t* at = pb + head;
  Put32(at, 8 + frame.m_ui_size);
  Put32(at + 4, 1);
  memcpy(at + 8, frame.m_pb_data, frame.m_ui_size);
  at += 8 + frame.m_ui_size;
  if (extra > 0) {
    Put32(at, 8 + extra);
    Put32(at + 4, 80);
    memcpy(at + 8, frame.m_pb_extra, extra);
  }
  return size;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_append FOLDER FRAMES [FRAME_BYTES] [LIBRARY]\n");
    return 2;
  }
  long long frames = atoll(argv[2]);
  SrvSourceConfig cfg;  // the default camera: 25 fps, a key frame every 2 s, 20 ms PCMA
  if (argc > 3 && atoi(argv[3]) > 0) cfg.m_i_frame_bytes = atoi(argv[3]);
  Archive arc;
  if (!arc.Load(argc > 4 ? argv[4] : WRITER_BIN_DIR "/libwarchive.so")) return 1;
  std::string config = std::string("{\"root\": \"") + argv[1] + "\"}";
  if (arc.configure(config.c_str()) != 0 || arc.init(0) != 0) return fprintf(stderr, "archive refused\n"), 1;
  int32_t video = arc.Session("main"), audio = arc.Session("audio");
  if (video < 0 || audio < 0) return fprintf(stderr, "no session\n"), 1;

  SrvSynthetic source;
  SrvSyntheticInit(&source, cfg, 1);
  std::vector<uint8_t> block;
  int64_t start_local = static_cast<int64_t>(PlFileTimeToLocal(PlFileTimeUtc()));
  long long bytes = 0;
  uint32_t numbers[2] = {0, 0};  // per channel, as the plug-in counts them
  rusage ru0;
  getrusage(RUSAGE_SELF, &ru0);
  int64_t start = PlPerfCounter();
  for (long long i = 0; i < frames; i++) {
    SrvMediaFrame frame;
    SrvSyntheticNext(&source, &frame);
    bool is_audio = strcmp(frame.m_s_type, "audio") == 0;
    uint32_t& number = numbers[is_audio ? 1 : 0];
    number = frame.m_i_key != 0 ? ((number + 1) & ~0xFFFu) + 0x1000 : number + 1;
    int64_t time = start_local + frame.m_i64_offset_us * 10;
    uint32_t size = MakeBlock(frame, number, time, &block);
    int32_t type = 1 | (frame.m_i_key != 0 ? 2 : 0) | (is_audio ? 64 : 0);
    if (arc.write(is_audio ? audio : video, block.data(), static_cast<int32_t>(size), type, time) != 0) {
      fprintf(stderr, "write refused at frame %lld\n", i);
      return 1;
    }
    bytes += size;
  }
  arc.close(video);
  arc.close(audio);
  double span = static_cast<double>(PlPerfCounter() - start) / static_cast<double>(PlPerfFrequency());
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  double user = Seconds(ru.ru_utime) - Seconds(ru0.ru_utime), sys = Seconds(ru.ru_stime) - Seconds(ru0.ru_stime);
  printf("floor    %lld frames (%.1f MB) stored in %.2f s: %.0f frames/s, %.1f MB/s; cpu %.2f s user + %.2f s system, "
         "%.2f us a frame\n",
         frames, bytes / 1e6, span, frames / span, bytes / 1e6 / span, user, sys, (user + sys) * 1e6 / frames);
  arc.free(0);
  return 0;
}
