// writer-host's stream source and the container export: the timestamp
// clock on its own, then end to end with media made by ffmpeg at test
// time, a real RTSP server (GStreamer's, through its Python bindings) on
// 127.0.0.1, and ffprobe reading what the export wrote.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/archive/arc_reader.h"
#include "host/server/srv_stream.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"

namespace {

TEST(StreamClock, OffsetsKeepRisingOverWrapsJumpsAndRestarts) {
  SrvStreamClock clock;
  SrvStreamClockRestart(&clock, 0);
  const int64_t WRAP_US = (1LL << 33) * 1000000 / 90000;  // a 90 kHz clock's 33 bits
  int64_t ts = WRAP_US - 200000, prev = INT64_MIN;
  std::vector<int64_t> video;
  for (int i = 0; i < 20; i++) {  // video and audio, across the wrap
    int64_t v = SrvStreamClockMap(&clock, 0, ts % WRAP_US, 40000);
    int64_t a = SrvStreamClockMap(&clock, 1, (ts + 5000) % WRAP_US, 20000);
    EXPECT_GT(v, prev);
    EXPECT_GT(a, v);
    prev = v;
    video.push_back(v);
    ts += 40000;
  }
  EXPECT_EQ(0, video[0]);
  // The wrap is a seam of one step after the latest offset (audio's).
  EXPECT_EQ(19 * 40000 + 5000, video[19]);
  // Back by ten seconds, then a leap of an hour: both go on one step later.
  int64_t last = video.back() + 5000;
  EXPECT_EQ(last + 40000, SrvStreamClockMap(&clock, 0, 1000, 40000));
  EXPECT_EQ(last + 80000, SrvStreamClockMap(&clock, 0, 41000, 40000));
  EXPECT_EQ(last + 120000, SrvStreamClockMap(&clock, 0, 3600000000LL, 40000));
  // A real pause below the bound stays a pause.
  EXPECT_EQ(last + 120000 + 5000000, SrvStreamClockMap(&clock, 0, 3605000000LL, 40000));
  // A new session lands where it is told, never before what was given.
  SrvStreamClockRestart(&clock, 0);
  int64_t after = SrvStreamClockMap(&clock, 0, 777, 0);
  EXPECT_GT(after, last + 120000 + 5000000);
  SrvStreamClockRestart(&clock, after + 60000000);
  EXPECT_EQ(after + 60000000, SrvStreamClockMap(&clock, 0, 5, 0));
}

std::string Camera(const std::string& name, const std::string& source) {
  return R"({"name":")" + name + R"(","source":)" + source +
         R"(,"config":{"common":{"key1":"h","key2":")" + name + R"(","key3":"c","_typeJS":"profiles"},)"
         R"("archive":{"_type":{"_value":"writer"},"writer":{"in":{"_value":"src"},"arc_key1":{"_value":"A"},)"
         R"("arc_key2":{"_value":")" + name + R"("},"arc_key3":{"_value":"C"}}}}})";
}

std::string Stream(const std::string& url, const std::string& more = "") {
  return R"({"type":"stream","url":")" + url + "\"" + more + "}";
}

double Since(int64_t start) { return static_cast<double>(PlPerfCounter() - start) / PlPerfFrequency(); }

class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/test_stream_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    m_dir = dir;
  }
  void TearDown() override {
    StopServer();
    EXPECT_EQ(0, system(("rm -rf " + m_dir).c_str()));
  }

  // Runs a shell command line; gives its standard output.
  std::string Shell(const std::string& line, int* rc = nullptr) {
    std::string out;
    FILE* p = popen(line.c_str(), "r");
    char buf[4096];
    size_t n;
    while (p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    int status = p == nullptr ? -1 : pclose(p);
    if (rc != nullptr) *rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
  }

  // A media file made by ffmpeg from its test sources.
  std::string Make(const std::string& name, const std::string& args) {
    std::string path = m_dir + "/" + name;
    int rc = 0;
    Shell("ffmpeg -v error -nostdin " + args + " -y " + path + " 2>&1", &rc);
    EXPECT_EQ(0, rc) << args;
    return path;
  }

  std::string Clip(int seconds) {
    return Make("clip.mkv", "-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=f=440:sample_rate=8000 -t " +
                                std::to_string(seconds) +
                                " -c:v libx264 -profile:v baseline -preset veryfast -g 25 -c:a pcm_alaw");
  }

  pid_t Spawn(const std::vector<std::string>& args, const std::string& out) {
    pid_t pid = fork();
    if (pid == 0) {
      int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, 1);
      dup2(fd, 2);
      std::vector<char*> argv;
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    return pid;
  }

  // GStreamer's RTSP server on the clip; the port it listens on. The first
  // start on a machine builds GStreamer's plug-in registry, which is slow.
  int StartServer(const std::string& clip, int port = 0) {
    std::string out = m_dir + "/rtsp_server.out";
    m_server = Spawn({"/usr/bin/python3", WRITER_SOURCE_DIR "/tests/rtsp_server.py", clip, std::to_string(port)}, out);
    int64_t start = PlPerfCounter();
    while (Since(start) < 90) {
      std::string text = ReadAll(out);
      if (text.compare(0, 5, "port ") == 0 && text.find('\n') != std::string::npos) return atoi(text.c_str() + 5);
      if (waitpid(m_server, nullptr, WNOHANG) == m_server) break;
      PlSleep(50);
    }
    ADD_FAILURE() << "the RTSP server did not come up:\n" << ReadAll(out);
    StopServer();
    return -1;
  }

  void StopServer() {
    if (m_server <= 0) return;
    kill(m_server, SIGTERM);
    int64_t start = PlPerfCounter();
    while (waitpid(m_server, nullptr, WNOHANG) == 0) {
      if (Since(start) > 5) {
        kill(m_server, SIGKILL);
        waitpid(m_server, nullptr, 0);
        break;
      }
      PlSleep(20);
    }
    m_server = -1;
  }

  pid_t StartHost(const std::string& cams, std::vector<std::string> more) {
    std::vector<std::string> args = {WRITER_BIN_DIR "/writer-host", "--cameras", cams, "--archive", m_dir + "/arc",
                                     "--log", m_dir + "/log", "--state", m_dir, "--quiet"};
    args.insert(args.end(), more.begin(), more.end());
    return Spawn(args, m_dir + "/host.out");
  }

  // Waits for writer-host; gives its exit status (-1 when it had to be killed).
  int WaitHost(pid_t pid, double seconds) {
    int status = 0;
    int64_t start = PlPerfCounter();
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (Since(start) > seconds) {
        ADD_FAILURE() << "writer-host still running after " << seconds << " s";
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
      }
      PlSleep(20);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string Cams(const std::vector<std::string>& cameras) {
    std::string text = "{\"cameras\":[";
    for (size_t i = 0; i < cameras.size(); i++) text += (i > 0 ? "," : "") + cameras[i];
    std::string path = m_dir + "/cams.json";
    FILE* f = fopen(path.c_str(), "w");
    fputs((text + "]}").c_str(), f);
    fclose(f);
    return path;
  }

  // Stored frame times (ticks) of a camera's medium.
  std::vector<int64_t> Times(const std::string& camera, const std::string& kind) {
    std::vector<int64_t> times;
    for (const warc::StreamRef& s : warc::FindStreams(m_dir + "/arc")) {
      if (s.m_s_kind != kind || s.m_s_camera.find("A_" + camera + "_C") == std::string::npos) continue;
      std::string error;
      EXPECT_TRUE(warc::ReadFrames(s, 0, INT64_MAX,
                                   [&](const warc::IndexEntry& e, uint32_t, const uint8_t*) { times.push_back(e.m_i64_time); },
                                   &error));
    }
    return times;
  }

  std::string Folder(const std::string& camera) {
    for (const warc::StreamRef& s : warc::FindStreams(m_dir + "/arc"))
      if (s.m_s_camera.find("A_" + camera + "_C") != std::string::npos) return s.m_s_camera;
    return "";
  }

  std::string Probe(const std::string& file, const std::string& what) {
    return Shell("ffprobe -v error -count_frames " + what + " -of default=nw=1 " + file + " 2>&1");
  }

  std::string m_dir;
  pid_t m_server = -1;
};

// Records a live camera, loses it and gets it back; everything recorded is
// in the archive and in the MP4 made of it.
TEST_F(StreamTest, LiveCameraRecordsReconnectsAndExportsToMp4) {
  std::string clip = Clip(30);
  int port = StartServer(clip);
  ASSERT_GT(port, 0);
  std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/cam";
  pid_t host = StartHost(Cams({Camera("live", Stream(url, R"(,"read_timeout_ms":2000)"))}), {"--duration", "120"});
  int64_t start = PlPerfCounter();
  while (Times("live", "video").size() < 50 && Since(start) < 30) PlSleep(100);
  StopServer();
  PlSleep(700);
  ASSERT_EQ(port, StartServer(clip, port));
  // Recording goes on after the camera is back; then the run is ended as
  // people end it.
  size_t before = Times("live", "video").size();
  start = PlPerfCounter();
  while ((ReadAll(m_dir + "/host.out").find("stream back") == std::string::npos ||
          Times("live", "video").size() < before + 50) &&
         Since(start) < 40)
    PlSleep(100);
  kill(host, SIGTERM);
  ASSERT_EQ(0, WaitHost(host, 30));
  std::string out = ReadAll(m_dir + "/host.out");
  EXPECT_NE(std::string::npos, out.find("camera live: stream dropped")) << out;
  EXPECT_NE(std::string::npos, out.find("camera live: stream back")) << out;
  EXPECT_NE(std::string::npos, out.find("  stream   1 drops, 1 reconnects")) << out;
  EXPECT_NE(std::string::npos, out.find(" passed over, 0 neither stored nor passed")) << "nothing recorded is lost\n" << out;

  std::vector<int64_t> video = Times("live", "video");
  ASSERT_GT(video.size(), before + 40);
  for (size_t i = 1; i < video.size(); i++) ASSERT_GT(video[i], video[i - 1]) << "frame " << i;
  std::vector<int64_t> audio = Times("live", "audio");
  EXPECT_GT(audio.size(), 20u);
  for (size_t i = 1; i < audio.size(); i++) ASSERT_GT(audio[i], audio[i - 1]) << "audio frame " << i;
  int rc = 0;
  std::string verify = Shell(WRITER_BIN_DIR "/writer-archive verify --root " + m_dir + "/arc", &rc);
  EXPECT_EQ(0, rc) << verify;

  std::string mp4 = m_dir + "/out.mp4";
  Shell(WRITER_BIN_DIR "/writer-archive export --root " + m_dir + "/arc --camera " + Folder("live") +
            " --format mp4 --out " + mp4 + " 2>&1",
        &rc);
  ASSERT_EQ(0, rc);
  EXPECT_EQ("codec_name=h264\nnb_read_frames=" + std::to_string(video.size()) + "\n",
            Probe(mp4, "-select_streams v -show_entries stream=codec_name,nb_read_frames"));
  double duration = atof(Probe(mp4, "-select_streams v -show_entries stream=duration").c_str() + 9);
  double recorded = static_cast<double>(video.back() - video.front()) / 1e7;
  EXPECT_NEAR(recorded + 0.04, duration, 0.05);
  // The A-law audio is in it as AAC, across the drop, as long as what was
  // recorded from the file's start, within one AAC frame.
  EXPECT_EQ("codec_name=aac\n", Probe(mp4, "-select_streams a -show_entries stream=codec_name"));
  int64_t audio_from = *std::lower_bound(audio.begin(), audio.end(), video.front());
  double audio_recorded = static_cast<double>(2 * audio.back() - audio[audio.size() - 2] - audio_from) / 1e7;
  double audio_duration = atof(Probe(mp4, "-select_streams a -show_entries stream=duration").c_str() + 9);
  EXPECT_NEAR(audio_recorded, audio_duration, 1024.0 / 8000);
  EXPECT_EQ("", Shell("ffmpeg -v error -nostdin -i " + mp4 + " -f null - 2>&1"));
  // Matroska keeps the A-law audio as recorded; the camera's own
  // folder name is enough.
  std::string mkv = m_dir + "/out.mkv";
  Shell(WRITER_BIN_DIR "/writer-archive export --root " + m_dir + "/arc --camera A_live_C --format mkv --out " + mkv +
            " 2>&1",
        &rc);
  ASSERT_EQ(0, rc);
  // The file starts at the first key frame: audio from before it stays out.
  size_t audio_in_file = 0;
  for (int64_t t : audio) audio_in_file += t >= video.front() ? 1 : 0;
  EXPECT_EQ("codec_name=h264\nnb_read_frames=" + std::to_string(video.size()) + "\ncodec_name=pcm_alaw\nnb_read_frames=" +
                std::to_string(audio_in_file) + "\n",
            Probe(mkv, "-show_entries stream=codec_name,nb_read_frames"));
}

// A file whose timestamps wrap and then fall back: what the plug-in gets
// keeps rising at the clip's own pace; the MKV export keeps the AAC audio.
TEST_F(StreamTest, WrappingAndFallingTimestampsStillRiseAndMkvKeepsTheAudio) {
  std::string make = "-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=sample_rate=8000 -t 3 "
                     "-c:v libx264 -preset ultrafast -bf 0 -g 25 -c:a aac -ar 8000 ";
  // The first piece starts 1.5 s before the 33-bit clock wraps.
  std::string a = Make("a.ts", make + "-output_ts_offset 95442.2");
  std::string b = Make("b.ts", make + "-output_ts_offset 0.5");
  std::string joined = m_dir + "/joined.ts";
  ASSERT_EQ(0, system(("cat " + a + " " + b + " > " + joined).c_str()));
  pid_t host = StartHost(Cams({Camera("ts", Stream(joined))}), {"--pacing", "fast", "--duration", "0"});
  ASSERT_EQ(0, WaitHost(host, 30)) << ReadAll(m_dir + "/host.out");
  std::vector<int64_t> video = Times("ts", "video");
  ASSERT_EQ(150u, video.size()) << ReadAll(m_dir + "/host.out");
  for (size_t i = 1; i < video.size(); i++) {
    EXPECT_GE(video[i] - video[i - 1], 350000) << "frame " << i;
    EXPECT_LE(video[i] - video[i - 1], 450000) << "frame " << i;
  }
  std::string mkv = m_dir + "/out.mkv";
  int rc = 0;
  Shell(WRITER_BIN_DIR "/writer-archive export --root " + m_dir + "/arc --camera " + Folder("ts") +
            " --format mkv --out " + mkv + " 2>&1",
        &rc);
  ASSERT_EQ(0, rc);
  EXPECT_EQ("codec_name=h264\ncodec_name=aac\n", Probe(mkv, "-show_entries stream=codec_name"));
  EXPECT_EQ("", Shell("ffmpeg -v error -nostdin -i " + mkv + " -f null - 2>&1"));
}

// MP4 cannot hold A-law: the export re-encodes it as AAC on the recorded
// timeline, and a pause in the recording (3 s after the first 2 s, in
// frames of 20 ms that do not fill AAC's) stays a pause rather than a seam.
TEST_F(StreamTest, Mp4ExportCarriesALawAudioAsAacAndKeepsItsPause) {
  std::string pause = "'if(gte(T,2),PTS+3/TB,PTS)'";
  std::string clip = Make("pause.mkv", "-t 4 -f lavfi -i testsrc2=size=160x120:rate=25 -t 4 -f lavfi -i "
                                       "sine=f=440:sample_rate=8000 -vf \"setpts=" + pause +
                                           "\" -af \"asetnsamples=n=160,asetpts=" + pause +
                                           "\" -c:v libx264 -preset ultrafast -bf 0 -g 25 -c:a pcm_alaw");
  pid_t host = StartHost(Cams({Camera("pause", Stream(clip))}), {"--pacing", "fast", "--duration", "0"});
  ASSERT_EQ(0, WaitHost(host, 30)) << ReadAll(m_dir + "/host.out");
  std::vector<int64_t> video = Times("pause", "video"), audio = Times("pause", "audio");
  ASSERT_EQ(200u, audio.size());
  std::string mp4 = m_dir + "/out.mp4";
  int rc = 0;
  std::string out = Shell(WRITER_BIN_DIR "/writer-archive export --root " + m_dir + "/arc --camera A_pause_C --format mp4 --out " +
                              mp4 + " 2>&1",
                          &rc);
  ASSERT_EQ(0, rc) << out;
  EXPECT_EQ("writer-archive: pcm_alaw audio re-encoded as AAC: mp4 cannot hold it (mkv keeps it as recorded)\n"
            "writer-archive: 100 video and 33 audio frames exported to " + mp4 + "\n",
            out);
  EXPECT_EQ("codec_name=h264\ncodec_name=aac\n", Probe(mp4, "-show_entries stream=codec_name"));
  EXPECT_EQ("", Shell("ffmpeg -v error -nostdin -i " + mp4 + " -f null - 2>&1"));
  // The audio lasts from the file's start to the end of the last stored
  // frame, within one AAC frame (1024 samples).
  double recorded = static_cast<double>(audio.back() + 200000 - std::max(audio.front(), video.front())) / 1e7;
  double duration = atof(Probe(mp4, "-select_streams a -show_entries stream=duration").c_str() + 9);
  EXPECT_NEAR(recorded, duration, 1024.0 / 8000);
  // Packets on both sides of the pause, none in it.
  std::vector<double> times;
  std::string packets = Probe(mp4, "-select_streams a -show_entries packet=pts_time");
  for (size_t at = packets.find("pts_time="); at != std::string::npos; at = packets.find("pts_time=", at + 1))
    times.push_back(atof(packets.c_str() + at + 9));
  ASSERT_FALSE(times.empty());
  EXPECT_GT(times.back(), 6.5);
  for (double t : times) EXPECT_TRUE(t < 2.05 || t > 4.95) << t;
}

// Sources that cannot record say why, by camera; the others record.
TEST_F(StreamTest, BadStreamsNameTheirCameraAndTheCauseWhileOthersRecord) {
  std::string audio_only = Make("audio.mkv", "-f lavfi -i sine=sample_rate=8000 -t 1 -c:a pcm_alaw");
  std::string mjpeg = Make("mjpeg.mkv", "-f lavfi -i testsrc2=size=64x48:rate=5 -t 1 -c:v mjpeg");
  std::string damaged = m_dir + "/damaged.mp4";
  ASSERT_EQ(0, system(("head -c 20000 /dev/urandom > " + damaged).c_str()));
  std::string cams = Cams({Camera("gone", Stream("rtsp://127.0.0.1:1/none", R"(,"connect_timeout_ms":500,"retry_max_ms":1000)")),
                           Camera("mute", Stream(audio_only)), Camera("mjpeg", Stream(mjpeg)),
                           Camera("broken", Stream(damaged)),
                           Camera("fine", R"({"type":"synthetic","fps":25,"key_interval_ms":400})")});
  // The camera that is not there keeps trying until the end, and holds up
  // neither the others nor the shutdown: the run ends.
  int rc = WaitHost(StartHost(cams, {"--duration", "3"}), 60);
  std::string out = ReadAll(m_dir + "/host.out");
  EXPECT_EQ(1, rc) << out;
  EXPECT_NE(std::string::npos, out.find("camera gone: cannot open rtsp://127.0.0.1:1/none: ")) << out;
  EXPECT_NE(std::string::npos, out.find("next try in 1000 ms")) << "the pause grows to its bound\n" << out;
  EXPECT_NE(std::string::npos, out.find("camera mute: no video stream in it")) << out;
  EXPECT_NE(std::string::npos, out.find("camera mjpeg: video codec mjpeg cannot be stored")) << out;
  EXPECT_NE(std::string::npos, out.find("camera broken: cannot open " + damaged + ": ")) << out;
  EXPECT_GT(Times("fine", "video").size(), 40u);
}

}  // namespace
