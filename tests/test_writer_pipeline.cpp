// Frames from a source on the media track to the archive's files, through
// libwriter.so as the host loads it beside the reference bus, log and
// archive: what is stored, byte for byte and in order, and what is dropped.
#include <dlfcn.h>
#include <stdlib.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/archive/arc_reader.h"
#include "include/host/archive_api.h"
#include "include/host/core_api.h"
#include "include/host/log_api.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"
#include "tests/test_plugin_host.h"

namespace {

const uint64_t kEpochMicros = 0x295E9648864000ULL;

uint32_t Fcc(const char* s) {
  return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
         uint32_t(uint8_t(s[3])) << 24;
}

void Put(std::string* out, const void* p, size_t n) { out->append(static_cast<const char*>(p), n); }
void Put32(std::string* out, uint32_t v) { Put(out, &v, 4); }

// One frame as a source sends it.
struct Frame {
  bool key;
  std::string data;
  std::string extra;
  int64_t time;
  int64_t index;
  const char* type;  // null: no "type" element
  uint32_t fcc;
  int32_t width = 640;
  int32_t height = 480;
};

// The archive's view of a parameter record, written out independently.
std::string Record(uint32_t type, const char* name, const std::string& payload) {
  std::string out;
  uint32_t n = static_cast<uint32_t>(strlen(name));
  Put32(&out, type);
  Put32(&out, n + 5);
  Put(&out, name, n + 1);
  Put32(&out, n + 13 + static_cast<uint32_t>(payload.size()));
  return out + payload;
}
std::string I32(int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string I64(int64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }

std::string Section(uint32_t type, const std::string& body) {
  std::string out;
  Put32(&out, static_cast<uint32_t>(body.size() + 8));
  Put32(&out, type);
  return out + body;
}

int64_t LocalTicks(int64_t micros) {
  return static_cast<int64_t>(PlFileTimeToLocal((static_cast<uint64_t>(micros) + kEpochMicros) * 10) / 10 * 10);
}

// The block the archive must hold for a frame that went through intake.
std::string ExpectedBlock(const Frame& f, int64_t stored_time, uint32_t number) {
  std::string params = Record(4, "width", I32(f.width)) + Record(4, "height", I32(f.height)) +
                       Record(4, "fcc", I32(static_cast<int32_t>(f.fcc))) + Record(5, "index", I64(f.index)) +
                       Record(4, "key", I32(f.key ? 1 : 0)) + Record(5, "time", I64(f.time));
  if (f.type != nullptr) params += Record(2, "type", I32(static_cast<int32_t>(strlen(f.type) + 5)) + f.type + '\0');
  params += Record(5, "arc_prev_write", I64(0));
  std::string head(f.key ? 48 : 32, '\0');
  uint32_t words[2] = {f.key ? 48u : 32u, f.key ? 6u : 7u};
  memcpy(&head[0], words, 8);
  memcpy(&head[8], &stored_time, 8);
  memcpy(&head[20], &number, 4);
  if (f.key) {
    int32_t image = f.width * f.height * 12 / 8;
    uint16_t codec = f.fcc == Fcc("H264") ? 7 : 0;
    uint16_t h = static_cast<uint16_t>(f.height), w = static_cast<uint16_t>(f.width), bpp = 12;
    memcpy(&head[32], &image, 4);
    memcpy(&head[36], &codec, 2);
    memcpy(&head[38], &h, 2);
    memcpy(&head[40], &w, 2);
    memcpy(&head[42], &bpp, 2);
    memcpy(&head[44], &f.fcc, 4);
  }
  std::string block = head + Section(1, f.data);
  if (!f.extra.empty()) block += Section(80, f.extra);
  return block + Section(513, params);
}

// A source on the media track "a_b_c_trackSource".
struct Source {
  TrackHandle h = 0;
  int32_t need = 0;
  void Open() { h = profile_open("a_b_c_trackSource", nullptr, __FILE__, __LINE__); }
  void Send(Frame f) {
    ProfileBuffer data = {&f.data[0], static_cast<uint32_t>(f.data.size())};
    ProfileBuffer extra = {&f.extra[0], static_cast<uint32_t>(f.extra.size())};
    int32_t key = f.key ? 1 : 0;
    int32_t fcc = static_cast<int32_t>(f.fcc);
    std::vector<ProfileParam> in = {{PP_INT32, "need", &need}, {PP_BUFFER, "data", &data}};
    if (!f.extra.empty()) in.push_back({PP_BUFFER, "extra", &extra});
    in.insert(in.end(), {{PP_INT32, "width", &f.width},
                         {PP_INT32, "height", &f.height},
                         {PP_INT32, "fcc", &fcc},
                         {PP_INT64, "index", &f.index},
                         {PP_INT32, "key", &key},
                         {PP_INT64, "time", &f.time}});
    if (f.type != nullptr) in.push_back({PP_STRING, "type", const_cast<char*>(f.type)});
    in.push_back({PP_END, nullptr, nullptr});
    SendRaw(in.data());
  }
  void SendRaw(ProfileParam* frame) {
    ProfileParam msg[] = {{PP_LIST, "frame", frame}, {PP_END, nullptr, nullptr}};
    profile_data(h, msg, 0);
  }
};

class WriterPipelineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    s_archive = dlopen(WRITER_BIN_DIR "/libwarchive.so", RTLD_NOW | RTLD_LOCAL);
    s_log = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, s_archive) << dlerror();
    ASSERT_NE(nullptr, s_log) << dlerror();
    char dir[] = "/tmp/test_writer_pipeline_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    m_dir = dir;
    m_lib = LoadPluginBeside(s_archive, s_log, m_dir, m_archive_extra);
    ASSERT_NE(nullptr, m_lib);
    ASSERT_EQ(0, Sym<int32_t (*)()>(m_lib, "dll_init")());
    std::string doc = R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
                      R"("arc_key1":{"_value":"A"},"arc_key2":{"_value":"B"},"arc_key3":{"_value":"C"},)"
                      R"("in":{"_value":"trackSource"})" +
                      m_writer_extra + "}}}";
    ProfileParam params[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
    m_pair = Sym<void* (*)(ProfileParam*)>(m_lib, "plugin_open")(params);
    ASSERT_NE(nullptr, m_pair);
    m_source.Open();
  }

  void TearDown() override {
    CloseAll();
    profile_close(m_source.h);
    Sym<void (*)()>(s_archive, "archive_reset")();
    Sym<int32_t (*)(const char*)>(s_archive, "archive_configure")(nullptr);
    core_set_path("archive", nullptr);
    core_set_path("log-1", nullptr);
    EXPECT_EQ(0, system(("rm -rf " + m_dir).c_str()));
  }

  void CloseAll() {
    if (m_lib == nullptr) return;
    if (m_pair != nullptr) {
      EXPECT_EQ(0, Sym<int32_t (*)(void*)>(m_lib, "plugin_close")(m_pair));
    }
    m_pair = nullptr;
    EXPECT_EQ(0, Sym<int32_t (*)()>(m_lib, "dll_free")());
    dlclose(m_lib);
    m_lib = nullptr;
  }

  ArchiveStats Stats() {
    ArchiveStats s = {};
    Sym<int32_t (*)(ArchiveStats*)>(s_archive, "archive_get_stats")(&s);
    return s;
  }

  // The buffering threads write on their own time: a bounded real wait.
  bool WaitWritten(int64_t frames) {
    for (int i = 0; i < 500; i++) {
      if (Stats().frames_written >= frames) return true;
      PlSleep(10);
    }
    return false;
  }

  // Every stored frame of one kind: (time, type, block).
  struct Stored {
    int64_t time;
    uint8_t type;
    std::string block;
  };
  std::vector<Stored> Read(const std::string& kind) {
    std::vector<Stored> out;
    for (const warc::StreamRef& s : warc::FindStreams(m_dir + "/arc")) {
      if (s.m_s_kind != kind) continue;
      std::string why;
      bool ok = warc::ReadFrames(
          s, INT64_MIN, INT64_MAX,
          [&](const warc::IndexEntry& e, uint32_t, const uint8_t* b) {
            out.push_back({e.m_i64_time, e.m_ui_type, std::string(reinterpret_cast<const char*>(b), e.m_ui_size)});
          },
          &why);
      EXPECT_TRUE(ok) << why;
    }
    return out;
  }

  std::string Log(const char* name) { return ReadAll(m_dir + "/log/" + name + ".log"); }

  void* s_archive = nullptr;
  void* s_log = nullptr;
  void* m_lib = nullptr;
  void* m_pair = nullptr;
  std::string m_dir;
  std::string m_archive_extra;
  std::string m_writer_extra;
  Source m_source;
};

const int64_t kT0 = 1700000000000000LL;  // microseconds since 1970

Frame Video(bool key, int64_t time, int64_t index, const std::string& data) {
  return Frame{key, data, key ? std::string("\x01\x02sps", 5) : std::string(), time, index, "video", Fcc("H264")};
}
Frame Audio(int64_t time, int64_t index, const std::string& data) {
  Frame f{true, data, "", time, index, "audio", Fcc("PCMA")};
  f.width = 0;
  f.height = 0;
  return f;
}

TEST_F(WriterPipelineTest, FramesReachTheArchiveByteForByteInOrderWithEachMediumInItsOwnStream) {
  std::vector<Frame> video = {Video(true, kT0, 1, "key-frame-0"), Video(false, kT0 + 40000, 2, "p1"),
                              Video(false, kT0 + 80000, 3, "p2"), Video(true, kT0 + 120000, 5, "key-frame-1"),
                              Video(false, kT0 + 160000, 6, "p3")};
  std::vector<Frame> audio = {Audio(kT0 + 10000, 1, "pcm-a"), Audio(kT0 + 30000, 2, "pcm-b")};
  // A stream that changes its code and back: head and type byte follow each frame's code.
  video[3].fcc = Fcc("ABCD");
  m_source.Send(video[0]);
  m_source.Send(audio[0]);
  m_source.Send(video[1]);
  m_source.Send(video[2]);
  m_source.Send(audio[1]);
  m_source.Send(video[3]);
  m_source.Send(video[4]);
  // Both channels hear every message and both still want the stream.
  EXPECT_EQ(14, m_source.need);
  ASSERT_TRUE(WaitWritten(7));
  CloseAll();

  std::vector<Stored> v = Read("video");
  ASSERT_EQ(5u, v.size());
  uint32_t number = 0;
  for (size_t i = 0; i < v.size(); i++) {
    number = video[i].key ? ((number + 1) & ~0xFFFu) + 0x1000 : number + 1;
    int64_t t = LocalTicks(video[i].time);
    EXPECT_EQ(t, v[i].time) << i;
    EXPECT_EQ((video[i].key ? 2 : 0) | (video[i].fcc == Fcc("H264") ? 32 : 0) | 1, v[i].type) << i;
    EXPECT_EQ(ExpectedBlock(video[i], t, number), v[i].block) << i;
  }
  std::vector<Stored> a = Read("audio");
  ASSERT_EQ(2u, a.size());
  number = 0;
  for (size_t i = 0; i < a.size(); i++) {
    number = ((number + 1) & ~0xFFFu) + 0x1000;
    int64_t t = LocalTicks(audio[i].time);
    EXPECT_EQ(67, a[i].type);
    EXPECT_EQ(ExpectedBlock(audio[i], t, number), a[i].block) << i;
  }
}

TEST_F(WriterPipelineTest, BackwardTimesAreMovedAfterThePreviousFrameAndIndexGapsOnlyLogged) {
  m_source.Send(Video(true, kT0, 1, "k"));
  m_source.Send(Video(false, kT0 - 5000000, 2, "back1"));
  m_source.Send(Video(false, kT0 - 4000000, 3, "back2"));
  m_source.Send(Video(false, kT0 + 1000000, 9, "ahead"));
  m_source.Send(Video(false, kT0 + 1000000, 10, "same"));
  ASSERT_TRUE(WaitWritten(5));
  CloseAll();
  std::vector<Stored> v = Read("video");
  ASSERT_EQ(5u, v.size());
  EXPECT_EQ(LocalTicks(kT0 + 1000), v[1].time);
  EXPECT_EQ(LocalTicks(kT0 + 2000), v[2].time);
  EXPECT_EQ(LocalTicks(kT0 + 1000000), v[3].time);
  EXPECT_EQ(LocalTicks(kT0 + 1000000), v[4].time);  // equal counts as forward
  std::string arc = Log("arc");
  EXPECT_EQ(1, Count(arc, "video index propusk prev 3 curr 9 delta 6"));
  // The first frame reports its gap from 0.
  EXPECT_EQ(0, Count(arc, "video index propusk prev 0 curr 1"));
  EXPECT_EQ(2, Count(Log("arc.tracedecim"), "warning: try write frame with prev time"));
}

TEST_F(WriterPipelineTest, BadFramesAreDroppedAndStillAnswered) {
  // Before the first key frame nothing goes through, on either channel.
  m_source.Send(Video(false, kT0, 1, "early"));
  EXPECT_EQ(2, m_source.need);
  EXPECT_NE(std::string::npos, Log("arc").find("<root>writer, warning, not m_b_is_fierst_key_accepted"));
  m_source.Send(Video(true, kT0 + 1000, 2, "key"));

  int32_t width = 1, key = 0;
  int64_t time = kT0 + 2000;
  ProfileBuffer data = {const_cast<char*>("xx"), 2};
  // A required value that is null.
  ProfileParam null_width[] = {{PP_INT32, "need", &m_source.need}, {PP_BUFFER, "data", &data},
                               {PP_INT32, "width", nullptr},       {PP_INT32, "key", &key},
                               {PP_INT64, "time", &time},          {PP_END, nullptr, nullptr}};
  // Data as the only element.
  ProfileParam lone[] = {{PP_BUFFER, "data", &data}, {PP_END, nullptr, nullptr}};
  // A request and not a frame.
  ProfileParam get[] = {{PP_INT32, "need", &m_source.need}, {PP_BUFFER, "data", &data},
                        {PP_LIST, "get", nullptr},          {PP_INT32, "width", &width},
                        {PP_INT64, "time", &time},          {PP_END, nullptr, nullptr}};
  // A null data buffer, a null frame list, a wrongly typed fcc.
  ProfileParam no_data[] = {{PP_INT32, "need", &m_source.need}, {PP_BUFFER, "data", nullptr},
                            {PP_INT64, "time", &time}, {PP_END, nullptr, nullptr}};
  ProfileParam odd_fcc[] = {{PP_INT32, "need", &m_source.need}, {PP_BUFFER, "data", &data},
                            {PP_INT64, "fcc", &time}, {PP_INT64, "time", &time}, {PP_INT32, "key", &key},
                            {PP_STRING, "type", const_cast<char*>("video")}, {PP_END, nullptr, nullptr}};
  int before = m_source.need;
  m_source.SendRaw(null_width);
  m_source.SendRaw(lone);
  m_source.SendRaw(get);
  m_source.SendRaw(no_data);
  m_source.SendRaw(nullptr);
  EXPECT_EQ(before + 6, m_source.need);
  // An unknown type is carried as a parameter, and the frame goes on.
  m_source.SendRaw(odd_fcc);
  // The other medium's frame on the video channel, a frame with no type
  // and no known code on the audio channel: both dropped silently.
  m_source.Send(Frame{true, "mystery", "", kT0 + 3000, 3, nullptr, Fcc("ABCD")});
  ASSERT_TRUE(WaitWritten(3));
  CloseAll();
  std::vector<Stored> v = Read("video");
  ASSERT_EQ(3u, v.size());  // the key, the odd fcc frame, the unknown-medium frame on video
  EXPECT_EQ(0u, Read("audio").size());
  // The null width and the null data, once per channel.
  EXPECT_EQ(4, Count(Log("arc"), "<error>data not correct"));
}

// Elements the intake does not know go to the parameter section whole and
// in order, whatever their type and however many a frame brings (a short
// frame and one longer than the intake measures in one pass); the source's
// own elements do not. Known ones keep their records whatever their values:
// a null index, a type text longer than the frame's type field before the
// type that counts.
TEST_F(WriterPipelineTest, EveryUnknownElementOfAFrameIsCarriedInOrder) {
  int32_t key = 1;
  ProfileBuffer data = {const_cast<char*>("kf"), 2};
  ProfileBuffer blob = {const_cast<char*>("0123456789abc"), 13};
  int32_t inner_v = 7;
  ProfileParam inner[] = {{PP_INT32, "in", &inner_v}, {PP_END, nullptr, nullptr}};
  std::vector<int32_t> values(40);
  std::vector<std::string> names(40);
  for (int i = 0; i < 40; i++) values[i] = 1000 + i, names[i] = "u" + std::to_string(i);
  const int counts[] = {2, 40};
  int64_t times[] = {kT0, kT0 + 40000};
  std::vector<std::string> expected;
  const std::string long_type(300, 'v');
  for (int n = 0; n < 2; n++) {
    std::vector<ProfileParam> f = {{PP_INT32, "need", &m_source.need}, {PP_BUFFER, "data", &data},
                                   {PP_INT32, "key", &key}, {PP_INT64, "time", &times[n]},
                                   {PP_STRING, "type", const_cast<char*>(long_type.c_str())},
                                   {PP_INT64, "index", nullptr},
                                   {PP_STRING, "type", const_cast<char*>("video")}, {PP_INT64, "nul", nullptr},
                                   {PP_BUFFER, "blob", &blob}, {PP_LIST, "tree", inner}};
    std::string params = Record(4, "key", I32(1)) + Record(5, "time", I64(times[n])) +
                         Record(2, "type", I32(305) + long_type + '\0') + Record(5, "index", "") +
                         Record(2, "type", I32(10) + "video" + '\0') + Record(5, "nul", "") +
                         Record(8, "blob", "0123456789abc") + Record(1, "tree", Record(4, "in", I32(7)));
    for (int i = 0; i < counts[n]; i++) {
      f.push_back({PP_INT32, names[i].c_str(), &values[i]});
      params += Record(4, names[i].c_str(), I32(values[i]));
    }
    f.push_back({PP_LIST, "parent", inner});
    f.push_back({PP_INT64, "nearest_finded", &times[n]});
    f.push_back({PP_END, nullptr, nullptr});
    m_source.SendRaw(f.data());
    expected.push_back(Section(513, params + Record(5, "arc_prev_write", I64(0))));
  }
  ASSERT_TRUE(WaitWritten(2));
  CloseAll();
  std::vector<Stored> v = Read("video");
  ASSERT_EQ(2u, v.size());
  for (size_t n = 0; n < 2; n++) {
    ASSERT_GE(v[n].block.size(), expected[n].size()) << n;
    EXPECT_EQ(expected[n], v[n].block.substr(v[n].block.size() - expected[n].size())) << n;
  }
}

// A stream that keeps its elements has its last section reused with the new
// values; a frame that reorders, drops or nulls an element gets its own.
TEST_F(WriterPipelineTest, EachFrameGetsTheSectionOfItsOwnElements) {
  int32_t key = 1, width = 640, height = 480;
  ProfileBuffer data = {const_cast<char*>("kf"), 2};
  const int kFrames = 7;
  int64_t times[kFrames], indexes[kFrames];
  std::vector<std::string> expected;
  for (int n = 0; n < kFrames; n++) {
    times[n] = kT0 + n * 40000;
    indexes[n] = 100 + n;
    bool swapped = n == 2, no_type = n == 4, null_index = n == 6;
    ProfileParam w = {PP_INT32, "width", &width}, h = {PP_INT32, "height", &height};
    std::vector<ProfileParam> f = {{PP_INT32, "need", &m_source.need}, {PP_BUFFER, "data", &data},
                                   {PP_INT32, "key", &key}, {PP_INT64, "time", &times[n]}};
    f.push_back(swapped ? h : w);
    f.push_back(swapped ? w : h);
    f.push_back({PP_INT64, "index", null_index ? nullptr : &indexes[n]});
    if (!no_type) f.push_back({PP_STRING, "type", const_cast<char*>("video")});
    f.push_back({PP_END, nullptr, nullptr});
    std::string rw = Record(4, "width", I32(width)), rh = Record(4, "height", I32(height));
    std::string params = Record(4, "key", I32(1)) + Record(5, "time", I64(times[n])) + (swapped ? rh + rw : rw + rh) +
                         Record(5, "index", null_index ? "" : I64(indexes[n])) +
                         (no_type ? "" : Record(2, "type", I32(10) + "video" + '\0'));
    m_source.SendRaw(f.data());
    expected.push_back(Section(513, params + Record(5, "arc_prev_write", I64(0))));
  }
  ASSERT_TRUE(WaitWritten(kFrames));
  CloseAll();
  std::vector<Stored> v = Read("video");
  ASSERT_EQ(static_cast<size_t>(kFrames), v.size());
  for (int n = 0; n < kFrames; n++) {
    ASSERT_GE(v[n].block.size(), expected[n].size()) << n;
    EXPECT_EQ(expected[n], v[n].block.substr(v[n].block.size() - expected[n].size())) << n;
  }
}

TEST_F(WriterPipelineTest, FarTimesAreRefusedAndCountersStopAtTheirLimit) {
  m_source.Send(Video(true, kT0, 1, "k"));
  // Beyond what a file time holds, either way: refused as a bad time.
  m_source.Send(Video(false, 920000000000000000LL, 2, "far"));
  m_source.Send(Video(false, INT64_MAX, 3, "max"));
  m_source.Send(Video(false, INT64_MIN, 4, "min"));
  // Before 1970 but after 1601: an ordinary backward time.
  m_source.Send(Video(false, -1000000, 5, "old"));
  // Both channels answer each message: the counter stops at its largest value.
  m_source.need = INT32_MAX - 1;
  m_source.Send(Video(false, kT0 + 40000, 6, "p"));
  EXPECT_EQ(INT32_MAX, m_source.need);
  int32_t listen = INT32_MAX - 1;
  ProfileParam status[] = {{PP_INT32, "listen", &listen}, {PP_END, nullptr, nullptr}};
  ProfileParam ask[] = {{PP_LIST, "status", status}, {PP_END, nullptr, nullptr}};
  TrackHandle h = profile_open("a_b_c", nullptr, __FILE__, __LINE__);
  profile_data(h, ask, 0);
  profile_close(h);
  EXPECT_EQ(INT32_MAX, listen);
  ASSERT_TRUE(WaitWritten(3));
  CloseAll();
  std::vector<Stored> v = Read("video");
  ASSERT_EQ(3u, v.size());
  EXPECT_EQ(LocalTicks(kT0 + 1000), v[1].time);
  EXPECT_EQ(LocalTicks(kT0 + 40000), v[2].time);
  EXPECT_EQ(6, Count(Log("arc"), "<error>data not correct"));  // three frames, two channels
}

// Shutdown while the archive sits in a slow write returns once that write
// returns, and writes nothing after it.
class WriterPipelineSlowTest : public WriterPipelineTest {};

TEST_F(WriterPipelineSlowTest, CloseDuringASlowWriteWritesNothingMore) {
  auto fault = Sym<int32_t (*)(int32_t, int64_t, int64_t)>(s_archive, "archive_fault");
  fault(ARCHIVE_FAULT_WRITE_DELAY_MS, -1, 300);
  m_source.Send(Video(true, kT0, 1, "k"));
  // Wait until the thread is inside the first write.
  for (int i = 0; i < 200 && Stats().sessions_opened == 0; i++) PlSleep(5);
  ASSERT_EQ(1, Stats().sessions_opened);
  for (int i = 1; i < 20; i++) m_source.Send(Video(false, kT0 + i * 1000, i + 1, "p"));
  int64_t start = PlPerfCounter();
  CloseAll();
  double took = double(PlPerfCounter() - start) / double(PlPerfFrequency());
  EXPECT_LT(took, 2.0);
  EXPECT_EQ(1, Stats().frames_written);
  EXPECT_EQ(1u, Read("video").size());
}

}  // namespace
