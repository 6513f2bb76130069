// writer-host end to end: the program run as a child process on cameras
// files, with a scratch archive and log folder, and what it recorded read
// back with the archive's own reader and the writer-archive tool.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "host/archive/arc_reader.h"
#include "host/server/srv_h264.h"
#include "host/server/srv_media.h"
#include "host/server/srv_account.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"

namespace {

const char CLIP[] = WRITER_SOURCE_DIR "/tests/data/clip.h264";

// A camera of the cameras file: keys A/<name>/C, the given source and extra
// writer settings.
std::string Camera(const std::string& name, const std::string& source, const std::string& writer_extra = "") {
  return R"({"name":")" + name + R"(","source":)" + source +
         R"(,"config":{"common":{"key1":"h","key2":")" + name + R"(","key3":"c","_typeJS":"profiles"},)"
         R"("archive":{"_type":{"_value":"writer"},"writer":{"in":{"_value":"src"},"arc_key1":{"_value":"A"},)"
         R"("arc_key2":{"_value":")" + name + R"("},"arc_key3":{"_value":"C"})" + writer_extra + "}}}}";
}

struct Child {
  pid_t pid = -1;
  int status = 0;
  std::string out, err;
  bool Exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/test_server_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    m_dir = dir;
  }
  void TearDown() override { EXPECT_EQ(0, system(("rm -rf " + m_dir).c_str())); }

  std::string Write(const std::string& name, const std::string& text) {
    std::ofstream(m_dir + "/" + name) << text;
    return m_dir + "/" + name;
  }

  // A run keeps its archive, log, state and output in the test's folder, or
  // in a folder of its own inside it, so that several can run at once.
  pid_t Start(std::vector<std::string> args, const char* program = WRITER_BIN_DIR "/writer-host",
              const std::string& sub = "") {
    std::string dir = sub.empty() ? m_dir : m_dir + "/" + sub;
    if (!sub.empty()) mkdir(dir.c_str(), 0755);
    if (std::string(program).find("writer-host") != std::string::npos) {
      std::vector<std::string> scratch = {"--archive", dir + "/arc", "--log", dir + "/log", "--state", dir};
      args.insert(args.begin(), scratch.begin(), scratch.end());
    }
    pid_t pid = fork();
    if (pid == 0) {
      int out = open((dir + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      int err = open((dir + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1);
      dup2(err, 2);
      std::vector<char*> argv = {const_cast<char*>(program)};
      for (std::string& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      execv(program, argv.data());
      _exit(127);
    }
    return pid;
  }

  // Waits at most the time given (real seconds); a child still running then
  // is killed and the test fails.
  Child Wait(pid_t pid, double seconds = 25, const std::string& sub = "") {
    Child c;
    c.pid = pid;
    int64_t start = PlPerfCounter();
    while (waitpid(pid, &c.status, WNOHANG) == 0) {
      if (static_cast<double>(PlPerfCounter() - start) / PlPerfFrequency() > seconds) {
        ADD_FAILURE() << "child still running after " << seconds << " s";
        kill(pid, SIGKILL);
        waitpid(pid, &c.status, 0);
        break;
      }
      PlSleep(20);
    }
    std::string dir = sub.empty() ? m_dir : m_dir + "/" + sub;
    c.out = ReadAll(dir + "/stdout");
    c.err = ReadAll(dir + "/stderr");
    return c;
  }

  Child Run(const std::vector<std::string>& args, const char* program = WRITER_BIN_DIR "/writer-host") {
    return Wait(Start(args, program));
  }

  // The frames the archive holds of a camera's medium, with their data sections.
  std::vector<std::string> Stored(const std::string& camera, const std::string& kind, std::vector<bool>* keys = nullptr) {
    std::vector<std::string> frames;
    for (const warc::StreamRef& s : warc::FindStreams(m_dir + "/arc")) {
      if (s.m_s_kind != kind || s.m_s_camera.substr(s.m_s_camera.rfind('/') + 1) != camera) continue;
      std::string error;
      EXPECT_TRUE(warc::ReadFrames(s, 0, INT64_MAX,
                                   [&](const warc::IndexEntry& e, uint32_t, const uint8_t* block) {
                                     warc::BlockInfo info;
                                     std::string why;
                                     ASSERT_TRUE(warc::ParseFrameBlock(block, e.m_ui_size, &info, &why)) << why;
                                     const warc::BlockSection* data = info.Find(1);
                                     frames.emplace_back(reinterpret_cast<const char*>(data->m_pb_data), data->m_ui_len);
                                     if (keys != nullptr) keys->push_back((e.m_ui_type & warc::TYPE_KEY) != 0);
                                   },
                                   &error))
          << error;
    }
    return frames;
  }

  // The figure before a label in a camera's lines of one medium, "12" in
  // "  video    ... 12 passed over, ..."; -1 when there is none.
  static int64_t Fate(const std::string& out, const std::string& camera, const std::string& medium,
                      const std::string& label) {
    size_t at = out.find("camera " + camera + " ");
    if (at == std::string::npos) return -1;
    std::string lines;
    std::istringstream in(out.substr(at + 1));
    for (std::string line; std::getline(in, line) && line.rfind("camera ", 0) != 0;)
      if (line.rfind("  " + medium + " ", 0) == 0) lines += line + "\n";
    std::smatch m;
    if (!std::regex_search(lines, m, std::regex("([0-9]+) " + label + "[,;() \n]"))) return -1;
    return atoll(m[1].str().c_str());
  }

  // The figure behind a label in the summary, "wanted" in "frames   N wanted".
  int64_t Figure(const std::string& out, const std::string& before) {
    size_t at = out.find(before);
    EXPECT_NE(std::string::npos, at) << before << " in\n" << out;
    return at == std::string::npos ? -1 : atoll(out.c_str() + at + before.size());
  }

  std::string m_dir;
};

TEST_F(ServerTest, ClipComesBackFromTheArchiveAccessUnitByAccessUnit) {
  std::string cams = Write("cams.json", "{\"cameras\":[" + Camera("clip", std::string("{\"type\":\"h264\",\"file\":\"") + CLIP + "\"}") + "]}");
  Child c = Run({"--cameras", cams, "--pacing", "fast", "--duration", "0"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;

  std::string clip = ReadAll(CLIP);
  std::vector<SrvAccessUnit> units =
      SrvSplitAccessUnits(reinterpret_cast<const uint8_t*>(clip.data()), clip.size());
  std::vector<bool> keys;
  std::vector<std::string> frames = Stored("A_clip_C", "video", &keys);
  ASSERT_EQ(units.size(), frames.size());
  for (size_t i = 0; i < units.size(); i++) {
    EXPECT_EQ(clip.substr(units[i].m_ui_offset, units[i].m_ui_size), frames[i]) << "unit " << i;
    EXPECT_EQ(units[i].m_b_key, keys[i]) << "unit " << i;
  }
  // The tool's export gives back the file itself.
  std::string root = m_dir + "/arc", out = m_dir + "/out.h264";
  std::string camera;
  for (const warc::StreamRef& s : warc::FindStreams(root)) camera = s.m_s_camera;
  Child e = Run({"export", "--root", root, "--camera", camera, "--out", out}, WRITER_BIN_DIR "/writer-archive");
  ASSERT_TRUE(e.Exited(0)) << e.err;
  EXPECT_TRUE(clip == ReadAll(out));
}

TEST_F(ServerTest, SeveralCamerasRecordAtOnceEachIntoItsOwnFolder) {
  std::string synthetic = R"({"type":"synthetic","fps":50,"key_interval_ms":400,"frame_bytes":600})";
  std::string cams = Write("cams.json", "{\"cameras\":[" + Camera("one", synthetic) + "," + Camera("two", synthetic) +
                                            "," + Camera("three", std::string("{\"type\":\"h264\",\"file\":\"") + CLIP + "\"}") + "]}");
  Child c = Run({"--cameras", cams, "--duration", "2"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;
  EXPECT_EQ(3, Count(c.out, "  stored   "));
  for (const char* name : {"one", "two"}) {
    std::vector<std::string> video = Stored(std::string("A_") + name + "_C", "video");
    std::vector<std::string> audio = Stored(std::string("A_") + name + "_C", "audio");
    EXPECT_GT(video.size(), 60u) << name;
    EXPECT_GT(audio.size(), 60u) << name;
    // Each camera's frames are its own, all of them in the order made: the
    // seed and number in the head, the bytes as made.
    uint32_t seed = std::string(name) == "one" ? 1 : 2;
    uint32_t next = 0;
    for (const std::string& f : video) {
      ASSERT_GE(f.size(), 16u);
      uint32_t n = 0, s = 0;
      memcpy(&s, f.data() + 4, 4);
      memcpy(&n, f.data() + 8, 4);
      EXPECT_EQ(seed, s);
      EXPECT_EQ(next++, n) << name;
      std::vector<uint8_t> again;
      SrvSyntheticVideoBytes(seed, n, static_cast<uint32_t>(f.size()), &again);
      EXPECT_EQ(0, memcmp(again.data(), f.data(), f.size())) << name << " frame " << n;
    }
  }
  // The clip goes at its own 25 frames a second.
  EXPECT_NEAR(50.0, static_cast<double>(Stored("A_three_C", "video").size()), 4.0);
}

// Each fault of the archive through writer-host, a few runs at once, each
// run with a fault of its own on camera "cam" and, where they go together,
// one on camera "more": the frames a fault costs are counted under its own
// rule, every frame sent is accounted for, and the passes counted around
// the deliveries are the pass lines of the log.
TEST_F(ServerTest, EveryFaultCountsItsFramesUnderItsOwnRuleAndLeavesNoneUnaccounted) {
  struct Expect {
    const char* camera;
    const char* medium;
    const char* label;  // the rule that must count frames
  };
  struct Case {
    const char* name;
    std::string faults;  // of the whole run
    std::vector<std::string> args;
    std::vector<Expect> expects;
    std::string source = R"({"type":"synthetic","fps":50,"key_interval_ms":200,"frame_bytes":300})";
  };
  const std::vector<std::string> fast = {"--pacing", "fast", "--duration", "0", "--frames", "1500"};
  const std::vector<Case> cases = {
      {"open", R"({"refuse_open":1})", fast, {{"cam", "audio", "lost without a session"}, {"more", "video", "do not write"}}},
      {"write", R"({"refuse_writes":1})", fast, {{"cam", "video", "write refused"}}},
      {"disk", R"({"fail_one_in":3,"storage_missing":1})", fast, {{"cam", "video", "write failed"}, {"cam", "video", "stored"}}},
      {"notready", R"({"not_ready_ms":60000})", fast, {{"cam", "video", "archive not ready"}}},
      // Too slow for a source of 1000 frames a second, and too little time
      // at the end to store what is buffered.
      {"slow", "{}",
       {"--duration", "1.5", "--drain", "0.3", "--write-delay", "20", "--archive-config",
        R"({"increase_write_buffers":0})"},
       {{"cam", "video", "passed over"}, {"cam", "video", "still buffered"}},
       R"({"type":"synthetic","fps":1000,"key_interval_ms":100,"frame_bytes":200,"audio":false})"}};
  std::vector<pid_t> pids;
  for (const Case& k : cases) {
    const std::string source = R"({"type":"synthetic","fps":50,"key_interval_ms":200,"frame_bytes":300})";
    std::string cam = R"({"must_record":false,)" + Camera("cam", k.source).substr(1);
    std::string more = R"({"must_record":false,"archive_faults":{"no_write":1},)" + Camera("more", source).substr(1);
    std::string cams = Write(std::string(k.name) + ".json",
                             "{\"cameras\":[" + cam + "," + more + "],\"archive_faults\":" + k.faults + "}");
    std::vector<std::string> args = {"--cameras", cams};
    args.insert(args.end(), k.args.begin(), k.args.end());
    pids.push_back(Start(args, WRITER_BIN_DIR "/writer-host", k.name));
  }
  for (size_t i = 0; i < cases.size(); i++) {
    const Case& k = cases[i];
    Child c = Wait(pids[i], 90, k.name);
    ASSERT_TRUE(c.Exited(0)) << k.name << "\n" << c.out << c.err;
    for (const Expect& e : k.expects) EXPECT_GT(Fate(c.out, e.camera, e.medium, e.label), 0) << k.name << "\n" << c.out;
    for (const char* camera : {"cam", "more"})
      for (const char* medium : {"video", "audio"})
        if (Fate(c.out, camera, medium, "sent:") > 0) {
          EXPECT_EQ(0, Fate(c.out, camera, medium, "unaccounted")) << k.name << " " << camera << "\n" << c.out;
        }
    EXPECT_TRUE(std::regex_search(c.out, std::regex("\naccount  [0-9]+ sent: .* 0 unaccounted\n"))) << k.name << "\n" << c.out;
    EXPECT_EQ(Fate(c.out, "cam", "video", "passed over") + Fate(c.out, "more", "video", "passed over"),
              Count(ReadAll(m_dir + "/" + k.name + "/log/arc.log"), SRV_PASS_TAG))
        << k.name;
  }
}

TEST_F(ServerTest, CleanRunOfTheDefaultCameraEndsWithNoReport) {
  Child c = Run({"--duration", "1.5"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;
  // The first progress line comes about a second in; later on a busy machine.
  EXPECT_TRUE(std::regex_search(c.out, std::regex("\\[  1\\.[0-9] s\\] cameras 1  sent "))) << c.out;
  EXPECT_TRUE(std::regex_search(c.out, std::regex("passes 0  buffers [0-9]+\\.[0-9] MB\n"))) << "asked of the plug-in";
  EXPECT_NE(std::string::npos, c.out.find("web method writer GetError: plugin_methods_writer")) << c.out;
  EXPECT_NE(std::string::npos, c.out.find("result   OK"));
  EXPECT_GT(Figure(c.out, "host     "), 0) << "the calendar was asked for and answered";
  for (const char* report : {"Sanitizer", "runtime error", "leak"}) EXPECT_EQ(std::string::npos, c.err.find(report)) << c.err;
  EXPECT_GT(Stored("demo_cam1_main", "video").size(), 25u);
  EXPECT_GT(Stored("demo_cam1_main", "audio").size(), 50u);
}

// What the memory checker still counts at unload is the process's own
// furniture (the monitor's print buffers, the log site list), the same for
// one camera as for three: a channel that left a block behind shows here.
TEST_F(ServerTest, CheckedMemoryAtUnloadDoesNotGrowWithTheCameras) {
  auto unload_count = [&](const std::vector<std::string>& args) {
    EXPECT_EQ(0, system(("rm -rf " + m_dir + "/log " + m_dir + "/arc").c_str()));
    Child c = Run(args);
    EXPECT_TRUE(c.Exited(0)) << c.out << c.err;
    std::string log = ReadAll(m_dir + "/log/arc.log");
    size_t at = log.rfind("--- memcounter ");
    return at == std::string::npos ? -1LL : atoll(log.c_str() + at + strlen("--- memcounter "));
  };
  long long one = unload_count({"--duration", "1"});
  std::string synthetic = R"({"type":"synthetic","fps":25,"key_interval_ms":400})";
  std::string cams = Write("cams.json", "{\"cameras\":[" + Camera("a", synthetic) + "," + Camera("b", synthetic) + "," +
                                            Camera("c", synthetic) + "]}");
  long long three = unload_count({"--cameras", cams, "--duration", "1"});
  EXPECT_GT(one, 0);
  EXPECT_EQ(one, three);
}

TEST_F(ServerTest, KilledRunLeavesAnArchiveThatVerifyAccepts) {
  pid_t pid = Start({"--duration", "30"});
  int64_t start = PlPerfCounter();
  while (Stored("demo_cam1_main", "video").size() < 20 &&
         static_cast<double>(PlPerfCounter() - start) / PlPerfFrequency() < 10)
    PlSleep(100);
  ASSERT_EQ(0, kill(pid, SIGKILL));
  Child c = Wait(pid);
  ASSERT_TRUE(WIFSIGNALED(c.status) && WTERMSIG(c.status) == SIGKILL);
  Child v = Run({"verify", "--root", m_dir + "/arc"}, WRITER_BIN_DIR "/writer-archive");
  EXPECT_TRUE(v.Exited(0)) << v.out << v.err;
  EXPECT_NE(std::string::npos, v.out.find("archive OK")) << v.out;
}

TEST_F(ServerTest, CrashRunsThePluginsCrashPrintThenDiesOfTheSignal) {
  std::string stable = WRITER_BIN_DIR "/stable/writer.log";
  pid_t pid = Start({"--duration", "30"});
  int64_t start = PlPerfCounter();
  while (ReadAll(m_dir + "/stdout").find("plug-in up") == std::string::npos &&
         static_cast<double>(PlPerfCounter() - start) / PlPerfFrequency() < 10)
    PlSleep(50);
  PlSleep(300);
  ASSERT_EQ(0, kill(pid, SIGSEGV));
  Child c = Wait(pid);
  ASSERT_TRUE(WIFSIGNALED(c.status)) << c.out << c.err;
  EXPECT_EQ(SIGSEGV, WTERMSIG(c.status));
  EXPECT_NE(std::string::npos, c.err.find("writer-host: fatal signal 11 in thread ")) << c.err;
  std::string print = ReadAll(stable);
  EXPECT_NE(std::string::npos, print.find("crash aT ___")) << print;
  EXPECT_NE(std::string::npos, print.find("__\n"));
}

TEST_F(ServerTest, BadCameraFilesEndWithAMessageAndStatusTwo) {
  struct Case {
    std::string text;
    std::string words;
  };
  for (const Case& bad : std::vector<Case>{{"{\"cameras\": [", "not JSON"},
                                           {R"({"cameras":[{"name":"x","config":{"common":{}}}]})", "lacks common/key1"},
                                           {R"({"cameras":[{"name":"x"}]})", "missing \"config\""}}) {
    std::string cams = Write("bad.json", bad.text);
    Child c = Run({"--cameras", cams});
    EXPECT_TRUE(c.Exited(2)) << bad.text << c.err;
    EXPECT_EQ(0u, c.err.find("writer-host: " + cams + ": ")) << c.err;
    EXPECT_NE(std::string::npos, c.err.find(bad.words)) << c.err;
  }
  Child missing = Run({"--cameras", m_dir + "/none.json"});
  EXPECT_TRUE(missing.Exited(2));
  EXPECT_NE(std::string::npos, missing.err.find("cannot be read"));
  Child help = Run({"--help"});
  EXPECT_TRUE(help.Exited(0));
  EXPECT_EQ(0u, help.out.find("usage: writer-host"));
  Child wrong = Run({"--pacing", "sometimes"});
  EXPECT_TRUE(wrong.Exited(2));
  EXPECT_NE(std::string::npos, wrong.err.find("--help"));
  Child endless = Run({"--duration", "inf"});
  EXPECT_TRUE(endless.Exited(2));
  EXPECT_NE(std::string::npos, endless.err.find("--duration: out of range")) << endless.err;
  // A folder that cannot be made: its option, its path and why, exit 4.
  std::string file = Write("plain", "x");
  for (const char* option : {"--state", "--log"}) {
    Child c = Run({option, file + "/sub"});
    EXPECT_TRUE(c.Exited(4)) << option << c.out << c.err;
    EXPECT_NE(std::string::npos, c.err.find("cannot make the folder " + file + "/sub (" + option + "): "))
        << c.err;
  }
}

TEST_F(ServerTest, ARunIsJudgedByWhatItStoredItselfNotByAnEarlierRun) {
  ASSERT_TRUE(Run({"--duration", "1"}).Exited(0));
  // The archive refuses every frame: this run stores nothing.
  Child c = Run({"--duration", "1", "--drain", "0", "--archive-config", R"({"max_frame_bytes":1})"});
  EXPECT_TRUE(c.Exited(1)) << c.out << c.err;
  EXPECT_NE(std::string::npos, c.out.find("stored   (this run) 0 video")) << c.out;
  EXPECT_NE(std::string::npos, c.out.find("FAILED: this camera should record and stored nothing")) << c.out;
}

// A camera that records by events stores what comes between the script's
// start and stop, from the first key frame after the start.
TEST_F(ServerTest, EventScriptOpensAndClosesRecordingOfAnEventCamera) {
  std::string cams = Write("cams.json",
      "{\"cameras\":[" +
      Camera("door", R"({"type":"synthetic","fps":25,"key_interval_ms":200,"audio":false})",
             R"(,"by_events":{"_value":true},"events":{"_value":"20001"})") +
      R"(],"events":[{"at":0.5,"camera":"door","event":20001,"action":"start"},)"
      R"({"at":1.5,"camera":"door","event":20001,"action":"stop"}]})");
  Child c = Run({"--cameras", cams, "--duration", "2.5"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;
  EXPECT_EQ(2, Figure(c.out, "camera look-ups, "));
  size_t stored = Stored("A_door_C", "video").size();
  // About one second of 25 frames, from the first key frame after the start.
  EXPECT_GT(stored, 10u) << c.out;
  EXPECT_LT(stored, 40u) << c.out;
  // Before the start and after the stop the channel wants nothing.
  EXPECT_GT(Fate(c.out, "door", "video", "not wanted"), 20) << c.out;
  EXPECT_EQ(0, Fate(c.out, "door", "video", "unaccounted")) << c.out;
}

// A camera with a pre-event time keeps its recent frames in memory: the
// event at 3 s brings them to the archive from a key frame at least 2 s
// before it, two for every new one until it has caught up with live, each
// once and in order.
TEST_F(ServerTest, PreEventTimeBringsTheSecondsBeforeAnEventIntoTheArchive) {
  std::string cams = Write(
      "cams.json",
      "{\"cameras\":[" +
          Camera("gate", R"({"type":"synthetic","fps":25,"key_interval_ms":400,"frame_bytes":60000,"audio":false})",
                 R"(,"by_events":{"_value":true},"events":{"_value":"20001"},"prev_write":{"_value":2})") +
          R"(],"events":[{"at":3,"camera":"gate","event":20001,"action":"start"},)"
          R"({"at":4,"camera":"gate","event":20001,"action":"stop"}]})");
  Child c = Run({"--cameras", cams, "--duration", "5.5"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;
  std::vector<bool> keys;
  std::vector<std::string> frames = Stored("A_gate_C", "video", &keys);
  ASSERT_GT(frames.size(), 25u) << c.out;
  // A synthetic frame carries its number, its time in 25ths of a second.
  std::vector<uint32_t> numbers;
  for (const std::string& f : frames) {
    uint32_t n = 0;
    memcpy(&n, f.data() + 8, 4);
    numbers.push_back(n);
  }
  EXPECT_TRUE(keys[0]);
  EXPECT_EQ(0u, numbers[0] % 10);
  EXPECT_LE(numbers[0], 30u) << "at least two seconds before the start at 3 s";
  // Output, once begun, runs on past the stop until it has caught up.
  EXPECT_GT(numbers.back(), 120u) << "past the stop at 4 s";
  for (size_t i = 1; i < numbers.size(); i++) ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "frame " << i;
  // The ring wrote what it brought later than it was asked about, and the
  // history older than two seconds before the event it never wrote.
  EXPECT_GT(Fate(c.out, "gate", "video", "written later by the ring"), 25) << c.out;
  EXPECT_GT(Fate(c.out, "gate", "video", "kept by the pre-event ring and not written"), 0) << c.out;
  EXPECT_EQ(0, Fate(c.out, "gate", "video", "unaccounted")) << c.out;
}

// A camera whose "_schedule" is open at every hour records; one whose plan
// has no hour at all records nothing, though its source sends (once its 5 s
// wait for a request that never comes is over).
TEST_F(ServerTest, ScheduledCamerasRecordOnlyInsideTheirPlan) {
  auto plan = [](const std::string& day) {
    std::string usual;
    for (const char* d : {"monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"})
      usual += std::string(usual.empty() ? "" : ",") + "\"" + d + "\":" + day;
    return R"(,"_schedule":{"usual":{)" + usual + R"(},"holidays":)" + day + R"(,"working_weekends":)" + day + "}";
  };
  std::string source = R"({"type":"synthetic","fps":25,"key_interval_ms":200,"audio":false})";
  std::string open = Camera("open", source, plan(R"([{"begin":" 0 : 00 ","end":" 24 : 00 "}])"));
  std::string closed = Camera("closed", source, plan("[]"));
  std::string cams =
      Write("cams.json", "{\"cameras\":[" + open + R"(,{"must_record":false,)" + closed.substr(1) + "]}");
  Child c = Run({"--cameras", cams, "--duration", "7"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;
  EXPECT_GT(Stored("A_open_C", "video").size(), 20u) << c.out;
  EXPECT_EQ(0u, Stored("A_closed_C", "video").size()) << c.out;
  size_t at = c.out.find("camera closed");
  ASSERT_NE(std::string::npos, at) << c.out;
  EXPECT_GT(Figure(c.out.substr(at), "  sent     "), 0) << c.out;
  EXPECT_EQ(Fate(c.out, "closed", "video", "sent:"), Fate(c.out, "closed", "video", "not wanted")) << c.out;
}

// An outside client's "start_recording" makes a by-events camera with no
// event types of its own record from the command on; a command for an id
// the host does not know is refused.
TEST_F(ServerTest, ForcedCommandOfAnApiClientRecordsAnEventCameraFromTheCommandOn) {
  std::string cams =
      Write("cams.json", "{\"cameras\":[" +
                             Camera("door", R"({"type":"synthetic","fps":25,"key_interval_ms":200,"audio":false})",
                                    R"(,"by_events":{"_value":true},"events":{"_value":""})") +
                             R"(],"events":[{"at":1.0,"camera":"door","action":"start_recording","duration":5},)"
                             R"({"at":1.2,"id":"nobody","action":"start_recording"}]})");
  Child c = Run({"--cameras", cams, "--duration", "2.5"});
  ASSERT_TRUE(c.Exited(0)) << c.out << c.err;
  EXPECT_EQ(1, Count(c.out, "api: answer <result cause=\"0\"></result>")) << c.out;
  EXPECT_EQ(1, Count(c.out,
                     "api: answer <result cause=\"4\"><params><param name=\"descr\" value=\"not_available\"/>"
                     "</params></result>"))
      << c.out;
  std::vector<std::string> frames = Stored("A_door_C", "video");
  ASSERT_GT(frames.size(), 10u) << c.out;
  // A synthetic frame carries its number, its time in 25ths of a second.
  uint32_t first = 0;
  memcpy(&first, frames[0].data() + 8, 4);
  EXPECT_GE(first, 20u) << "nothing from before the command at 1 s";
}

}  // namespace
