// The archive reader: a storage folder with one camera made from the input
// (up to two segments with their indexes, video or audio), then what
// `writer-archive` does with it: list, export of every frame block, verify,
// and repair, which must leave nothing for a second repair to change: what
// one repair cannot mend (times or frame numbers out of order) stays as it
// was, but nothing more is cut or rebuilt.
//
// Input: a flags byte, then for each file a two-byte length and its bytes.
// Flag 1 puts the checksums right before the files are written, so that the
// search gets past them into the records, blocks and times.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "fuzz/fuzz_input.h"
#include "host/archive/arc_format.h"
#include "host/archive/arc_reader.h"

namespace {

const std::string& Root() {
  static std::string root;
  if (root.empty()) {
    char tmpl[] = "/tmp/writer_fuzz_archive_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    root = tmpl;
    atexit([] {
      if (system(("rm -rf " + Root()).c_str()) != 0) fprintf(stderr, "could not remove %s\n", Root().c_str());
    });
  }
  return root;
}

void FixSegment(std::string* seg) {
  uint8_t* b = reinterpret_cast<uint8_t*>(&(*seg)[0]);
  size_t n = seg->size();
  if (n < warc::SEG_HEAD_SIZE) return;
  warc::PutU32(b + 28, warc::Crc32(b, 28));
  size_t off = warc::SEG_HEAD_SIZE;
  while (off + warc::REC_HEAD_SIZE <= n) {
    uint32_t len = warc::GetU32(b + off + 4);
    if (len > n - off - warc::REC_HEAD_SIZE) break;
    uint32_t crc = warc::Crc32(b + off, 20);
    crc = warc::Crc32(b + off + warc::REC_HEAD_SIZE, len, crc);
    warc::PutU32(b + off + 20, crc);
    off += warc::REC_HEAD_SIZE + len;
  }
}

void FixIndex(std::string* idx) {
  uint8_t* b = reinterpret_cast<uint8_t*>(&(*idx)[0]);
  for (size_t off = 0; off + warc::IDX_ENTRY_SIZE <= idx->size(); off += warc::IDX_ENTRY_SIZE)
    warc::PutU32(b + off + 28, warc::Crc32(b + off, 28));
}

void Write(const std::string& path, const std::string& bytes) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  fwrite(bytes.data(), 1, bytes.size(), f);
  fclose(f);
}

void Export(const warc::StreamRef& stream) {
  std::string out, why;
  warc::ReadFrames(
      stream, INT64_MIN, INT64_MAX,
      [&out](const warc::IndexEntry& entry, uint32_t, const uint8_t* block) {
        warc::BlockInfo info;
        std::string why_block;
        out += warc::TimeText(entry.m_i64_time);
        if (!warc::ParseFrameBlock(block, entry.m_ui_size, &info, &why_block)) return;
        out += warc::TimeText(info.m_i64_time);
        const warc::BlockSection* data = info.Find(1);
        const warc::BlockSection* extra = info.Find(80);
        if (extra != nullptr && warc::BlockIsH264(info)) warc::AppendAnnexB(extra->m_pb_data, extra->m_ui_len, &out, true);
        if (data != nullptr) warc::AppendAnnexB(data->m_pb_data, data->m_ui_len, &out);
      },
      &why);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  uint8_t flags = in.Byte();
  std::string kind = (flags & 2) != 0 ? "audio" : "video";
  std::string dir = Root() + "/cam";
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);  // not through a shell: a fork per input would be most of the time
  mkdir(dir.c_str(), 0755);
  mkdir((dir + "/" + kind).c_str(), 0755);
  Write(dir + "/camera.txt", "A\nB\nC\n\n\n");
  int segments = 1 + ((flags >> 2) & 1);
  for (uint32_t seq = 1; seq <= static_cast<uint32_t>(segments); seq++) {
    std::string seg = in.Bytes(1 << 16), idx = in.Bytes(1 << 14);
    if ((flags & 1) != 0) {
      FixSegment(&seg);
      FixIndex(&idx);
    }
    Write(dir + "/" + kind + "/" + warc::SegmentFileName(seq), seg);
    if ((flags & 8) == 0) Write(dir + "/" + kind + "/" + warc::IndexFileName(seq), idx);
  }
  int64_t t = 0;
  warc::ParseTimeArg(in.Text(40), &t);
  for (const warc::StreamRef& stream : warc::FindStreams(Root())) {
    warc::SummariseStream(stream, 5 * 10000000LL);
    Export(stream);
    warc::VerifyStream(stream, false);
    if ((flags & 16) == 0) continue;
    warc::VerifyStream(stream, true);
    warc::VerifyReport once = warc::VerifyStream(stream, false);
    warc::VerifyStream(stream, true);
    warc::VerifyReport twice = warc::VerifyStream(stream, false);
    if (once.m_lines != twice.m_lines || once.m_ui64_frames != twice.m_ui64_frames) {
      for (const std::string& line : once.m_lines) fprintf(stderr, "  after one repair: %s\n", line.c_str());
      for (const std::string& line : twice.m_lines) fprintf(stderr, "  after two: %s\n", line.c_str());
      fprintf(stderr, "a second repair changed what verify finds\n");
      abort();
    }
  }
  return 0;
}
