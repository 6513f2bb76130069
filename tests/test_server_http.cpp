// writer-host's web front through a real HTTP client: one writer-host run
// with a camera that records always ("yard") and one that records by events
// ("door", id "door-1"), an H.264 file camera ("gate") for the MP4 export, a
// token for the write routes, and every route asked
// the way a browser, a script or Prometheus would ask it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "host/server/srv_config.h"
#include "host/server/srv_http.h"
#include "platform/pl_clock.h"
#include "tests/test_text_util.h"

namespace {

const char TOKEN[] = "s3cret-token";

const char SYNTHETIC[] = R"({"type":"synthetic","fps":25,"key_interval_ms":200,"audio":false})";

std::string Camera(const std::string& name, const std::string& writer_extra, const std::string& source = SYNTHETIC) {
  return R"({"name":")" + name + R"(","id":")" + name + R"(-1","source":)" + source +
         R"(,"config":{"common":{"key1":"h","key2":")" + name +
         R"(","key3":"c","_typeJS":"profiles"},"archive":{"_type":{"_value":"writer"},"writer":{"in":{"_value":"src"},)"
         R"("arc_key1":{"_value":"A"},"arc_key2":{"_value":")" + name + R"("},"arc_key3":{"_value":"C"})" +
         writer_extra + "}}}}";
}

double Seconds(int64_t start) { return static_cast<double>(PlPerfCounter() - start) / PlPerfFrequency(); }

class HttpTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/test_server_http_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    s_dir = dir;
    std::ofstream(s_dir + "/cams.json")
        << "{\"cameras\":[" << Camera("yard", "") << ","
        << Camera("door", R"(,"by_events":{"_value":true},"events":{"_value":""})") << ","
        << Camera("gate", "", R"({"type":"h264","file":")" WRITER_SOURCE_DIR R"(/tests/data/clip.h264"})") << "]}";
    s_pid = fork();
    if (s_pid == 0) {
      int out = open((s_dir + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1);
      dup2(out, 2);
      std::vector<std::string> args = {WRITER_BIN_DIR "/writer-host", "--archive", s_dir + "/arc", "--log",
                                       s_dir + "/log", "--state", s_dir, "--cameras", s_dir + "/cams.json",
                                       "--duration", "90", "--http", "127.0.0.1:0", "--http-token", TOKEN};
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    // The bound port is in the line the server prints once it listens.
    std::regex line(R"(web front at http://127\.0\.0\.1:(\d+)/)");
    int64_t start = PlPerfCounter();
    std::smatch m;
    while (Seconds(start) < 20) {
      std::string out = ReadAll(s_dir + "/stdout");
      if (std::regex_search(out, m, line)) {
        s_port = std::stoi(m[1]);
        break;
      }
      PlSleep(50);
    }
    ASSERT_GT(s_port, 0) << ReadAll(s_dir + "/stdout");
  }

  static void TearDownTestSuite() {
    if (s_pid > 0) {
      kill(s_pid, SIGTERM);
      int status = 0;
      waitpid(s_pid, &status, 0);
    }
    if (!s_dir.empty()) {
      EXPECT_EQ(0, system(("rm -rf " + s_dir).c_str()));
    }
  }

  std::unique_ptr<httplib::Client> Client() {
    auto c = std::make_unique<httplib::Client>("127.0.0.1", s_port);
    c->set_read_timeout(10, 0);
    return c;
  }

  httplib::Headers Auth(const std::string& token = TOKEN) { return {{"Authorization", "Bearer " + token}}; }

  // Polls a GET until its body holds the text, for at most a few seconds.
  bool Eventually(const std::string& path, const std::string& text) {
    int64_t start = PlPerfCounter();
    while (Seconds(start) < 8) {
      auto r = Client()->Get(path.c_str());
      if (r && r->body.find(text) != std::string::npos) return true;
      PlSleep(100);
    }
    return false;
  }

  static std::string s_dir;
  static pid_t s_pid;
  static int s_port;
};
std::string HttpTest::s_dir;
pid_t HttpTest::s_pid = -1;
int HttpTest::s_port = 0;

TEST(HttpRules, TokenAndNamesAndListenAddresses) {
  EXPECT_TRUE(SrvHttpTokenOk("", ""));
  EXPECT_TRUE(SrvHttpTokenOk("abc", "Bearer abc"));
  EXPECT_FALSE(SrvHttpTokenOk("abc", "Bearer abd"));
  EXPECT_FALSE(SrvHttpTokenOk("abc", "Bearer abcd"));
  EXPECT_FALSE(SrvHttpTokenOk("abc", "Bearer ab"));
  EXPECT_FALSE(SrvHttpTokenOk("abc", "abc"));
  EXPECT_FALSE(SrvHttpTokenOk("abc", ""));
  for (const char* bad : {"", ".", "..", "../x", "a/b", "a\\b", "x..y", "a\nb"}) EXPECT_FALSE(SrvHttpSafeName(bad)) << bad;
  EXPECT_TRUE(SrvHttpSafeName("A_yard_C"));
  EXPECT_TRUE(SrvHttpQueryWrites("work_mode_set"));
  EXPECT_TRUE(SrvHttpQueryWrites("query_log_status_add"));
  EXPECT_FALSE(SrvHttpQueryWrites("GetStatus"));

  SrvSettings s;
  std::string error;
  EXPECT_TRUE(SrvParseHttpAddress("127.0.0.1:0", "", &s, &error)) << error;
  EXPECT_EQ(0, s.m_i_http_port);
  EXPECT_TRUE(SrvParseHttpAddress("8081", "", &s, &error));
  EXPECT_EQ("127.0.0.1", s.m_s_http_host);
  EXPECT_EQ(8081, s.m_i_http_port);
  EXPECT_TRUE(SrvParseHttpAddress("[::1]:9000", "", &s, &error));
  EXPECT_EQ("::1", s.m_s_http_host);
  // Another address opens the write routes to the network: only with a token.
  EXPECT_FALSE(SrvParseHttpAddress("0.0.0.0:8080", "", &s, &error));
  EXPECT_NE(std::string::npos, error.find("--http-token")) << error;
  EXPECT_TRUE(SrvParseHttpAddress("0.0.0.0:8080", "t", &s, &error));
  for (const char* bad : {"127.0.0.1:", "127.0.0.1:70000", "127.0.0.1:-1", "127.0.0.1:80x", "127.0.0.1:1.5"})
    EXPECT_FALSE(SrvParseHttpAddress(bad, "", &s, &error)) << bad;
}

TEST_F(HttpTest, MethodsAreListedAndCalledAsTheFrontWould) {
  auto c = Client();
  auto list = c->Get("/api/methods");
  ASSERT_TRUE(list);
  EXPECT_EQ(200, list->status);
  for (const char* name : {"\"vers\"", "\"GetStatus\"", "\"events_register\"", "\"GetError\""})
    EXPECT_NE(std::string::npos, list->body.find(name)) << list->body;
  EXPECT_NE(std::string::npos, list->body.find("\"in_track\":\"plugin_methods_writer\""));

  auto vers = c->Get("/api/methods/vers");
  ASSERT_TRUE(vers);
  EXPECT_EQ(200, vers->status);
  EXPECT_EQ("{\"version\":\"15.11.26.0\"}", vers->body);

  // Query-string parameters filter like a JSON body does.
  ASSERT_TRUE(Eventually("/api/methods/GetStatus?key2=yard", "\"key2\":\"yard\""));
  auto yard = c->Get("/api/methods/GetStatus?key2=yard");
  EXPECT_EQ(std::string::npos, yard->body.find("\"key2\":\"door\"")) << yard->body;
  auto fill = c->Post("/api/methods/GetStatus", "{\"view\":\"buffer_fill\"}", "application/json");
  ASSERT_TRUE(fill);
  EXPECT_EQ(200, fill->status);
  EXPECT_NE(std::string::npos, fill->body.find("\"buff1\":[[")) << fill->body;

  // A method the plug-in does not provide: its own error answer, 404.
  auto unknown = c->Get("/api/methods/help");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(404, unknown->status);
  EXPECT_EQ("{\"error\":\"error message in text format\"}", unknown->body);

  for (const char* bad : {"{\"view\":", "[1,2]", "not json"}) {
    auto r = c->Post("/api/methods/GetStatus", bad, "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(400, r->status) << bad;
    EXPECT_NE(std::string::npos, r->body.find("\"error\"")) << r->body;
  }
}

TEST_F(HttpTest, QueriesGoThroughDllExecAndWritesWantTheToken) {
  auto c = Client();
  auto mem = c->Get("/api/query?json=%7B%22query_id%22%3A%22common_status%22%7D");
  ASSERT_TRUE(mem);
  EXPECT_EQ(200, mem->status);
  EXPECT_NE(std::string::npos, mem->body.find("\"buffs_used_mem\":")) << mem->body;
  auto help = c->Post("/api/query", "{\"query_id\":\"help\"}", "application/json");
  ASSERT_TRUE(help);
  EXPECT_EQ(200, help->status);
  EXPECT_NE(std::string::npos, help->get_header_value("Content-Type").find("text/plain"));

  const char set[] = "{\"query_id\":\"work_mode_set\",\"value\":\"150605\"}";
  auto refused = c->Post("/api/query", set, "application/json");
  ASSERT_TRUE(refused);
  EXPECT_EQ(401, refused->status);
  auto wrong = c->Post("/api/query", Auth("s3cret-tokem"), set, "application/json");
  EXPECT_EQ(401, wrong->status);
  auto ok = c->Post("/api/query", Auth(), set, "application/json");
  ASSERT_TRUE(ok);
  EXPECT_EQ(200, ok->status);
  EXPECT_EQ("[\"Команда принята.\"]", ok->body);
  auto reset = c->Post("/api/query", Auth(), "{\"query_id\":\"work_mode_reset\",\"value\":\"150605\"}",
                       "application/json");
  EXPECT_EQ(200, reset->status);
  auto subscribe = c->Post("/api/query", "{\"query_id\":\"query_log_status_add\",\"value\":\"x\"}", "application/json");
  EXPECT_EQ(401, subscribe->status);

  EXPECT_EQ(400, c->Get("/api/query")->status);
  EXPECT_EQ(400, c->Get("/api/query?json=%7B")->status);
  EXPECT_EQ(400, c->Post("/api/query", "", "application/json")->status);
}

TEST_F(HttpTest, ForcedRecordingStartsAndStopsAByEventsCamera) {
  auto c = Client();
  const char start[] = "{\"action\":\"start\",\"duration\":30}";
  EXPECT_EQ(401, c->Post("/api/cameras/door-1/recording", start, "application/json")->status);
  auto r = c->Post("/api/cameras/door-1/recording", Auth(), start, "application/json");
  ASSERT_TRUE(r);
  EXPECT_EQ(200, r->status) << r->body;
  EXPECT_EQ("<result cause=\"0\"></result>", r->body);
  EXPECT_TRUE(Eventually("/api/methods/GetStatus?key2=door", "\"forced_recording\":true"));

  auto stop = c->Post("/api/cameras/door-1/recording", Auth(), "{\"action\":\"stop\"}", "application/json");
  EXPECT_EQ(200, stop->status) << stop->body;
  EXPECT_TRUE(Eventually("/api/methods/GetStatus?key2=door", "\"forced_recording\":false"));

  // A camera that records always cannot be forced: the plug-in's refusal.
  auto yard = c->Post("/api/cameras/yard-1/recording", Auth(), start, "application/json");
  EXPECT_EQ(409, yard->status);
  EXPECT_NE(std::string::npos, yard->body.find("not_available")) << yard->body;
  EXPECT_EQ(404, c->Post("/api/cameras/nobody/recording", Auth(), start, "application/json")->status);
  for (const char* bad : {"", "{", "{\"action\":\"pause\"}", "{\"action\":\"start\",\"duration\":\"x\"}",
                          "{\"action\":\"start\",\"duration\":-5}"})
    EXPECT_EQ(400, c->Post("/api/cameras/door-1/recording", Auth(), bad, "application/json")->status) << bad;
}

TEST_F(HttpTest, EventsOpenAndCloseInTheRegister) {
  auto c = Client();
  const char start[] = "{\"camera\":\"door\",\"event\":20001,\"action\":\"start\"}";
  EXPECT_EQ(401, c->Post("/api/events", start, "application/json")->status);
  auto r = c->Post("/api/events", Auth(), start, "application/json");
  ASSERT_TRUE(r);
  EXPECT_EQ(200, r->status) << r->body;
  EXPECT_TRUE(Eventually("/api/methods/events_register?key2=door&view=full", "{\"event\":20001,\"cntr\":1"));
  auto stop = c->Post("/api/events", Auth(), "{\"camera\":\"door-1\",\"event\":20001,\"action\":\"stop\"}",
                      "application/json");
  EXPECT_EQ(200, stop->status) << stop->body;
  EXPECT_TRUE(Eventually("/api/methods/events_register?key2=door&view=full", "{\"event\":20001,\"cntr\":0"))
      << Client()->Get("/api/methods/events_register?key2=door&view=full")->body;

  EXPECT_EQ(404, c->Post("/api/events", Auth(), "{\"camera\":\"x\",\"event\":1,\"action\":\"start\"}",
                         "application/json")->status);
  for (const char* bad : {"{\"camera\":\"door\",\"event\":1,\"action\":\"open\"}",
                          "{\"camera\":\"door\",\"event\":\"1\",\"action\":\"start\"}",
                          "{\"camera\":\"door\",\"event\":0,\"action\":\"start\"}",
                          "{\"camera\":\"door\",\"event\":99999999999,\"action\":\"start\"}",
                          "{\"camera\":\"door\",\"action\":\"start\"}", "[]"})
    EXPECT_EQ(400, c->Post("/api/events", Auth(), bad, "application/json")->status) << bad;
}

TEST_F(HttpTest, RecordingsListWhatTheArchiveHoldsAndNeverLeaveItsFolder) {
  auto c = Client();
  ASSERT_TRUE(Eventually("/api/recordings", "\"folder\":\"A_yard_C\""));
  auto all = c->Get("/api/recordings");
  EXPECT_NE(std::string::npos, all->body.find("\"camera\":\"yard\"")) << all->body;
  auto yard = c->Get("/api/recordings/yard");
  ASSERT_TRUE(yard);
  EXPECT_EQ(200, yard->status);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(yard->body, m, std::regex(R"("kind":"video","frames":(\d+).*"first_us":(\d+),"last_us":(\d+))")))
      << yard->body;
  EXPECT_GT(std::stoll(m[1]), 0);
  EXPECT_LE(std::stoll(m[2]), std::stoll(m[3]));
  EXPECT_EQ(200, c->Get("/api/recordings/A_yard_C")->status);
  EXPECT_EQ(404, c->Get("/api/recordings/nobody")->status);

  for (const char* escape : {"/api/recordings/..", "/api/recordings/..%2F..%2Fetc", "/api/recordings/%2Fetc",
                             "/api/recordings/..%2F..%2Fetc/export.mp4", "/api/recordings/A%5C..", "/api/recordings/%2E%2E"}) {
    auto r = c->Get(escape);
    ASSERT_TRUE(r) << escape;
    EXPECT_TRUE(r->status == 400 || r->status == 404) << escape << ": " << r->status << " " << r->body;
  }
  // The export plays: an H.264 camera's range comes back as an MP4 file;
  // a camera whose video no container can hold, or a range too long or
  // malformed, is refused with a reason.
  ASSERT_TRUE(Eventually("/api/recordings/gate", "\"kind\":\"video\""));
  auto gate = c->Get("/api/recordings/gate");
  ASSERT_TRUE(std::regex_search(gate->body, m, std::regex(R"("kind":"video".*"first_us":(\d+),"last_us":(\d+))")))
      << gate->body;
  auto mp4 = c->Get(("/api/recordings/gate/export.mp4?from=" + std::string(m[1]) + "&to=" + std::string(m[2])).c_str());
  ASSERT_TRUE(mp4);
  EXPECT_EQ(200, mp4->status) << mp4->body;
  EXPECT_EQ("video/mp4", mp4->get_header_value("Content-Type"));
  EXPECT_TRUE(mp4->body.size() > 8 && mp4->body.compare(4, 4, "ftyp") == 0);
  EXPECT_EQ(422, c->Get("/api/recordings/yard/export.mp4?from=0&to=1")->status);
  for (const char* bad : {"/api/recordings/gate/export.mp4", "/api/recordings/gate/export.mp4?from=5&to=1",
                          "/api/recordings/gate/export.mp4?from=-1&to=1",
                          "/api/recordings/gate/export.mp4?from=0&to=999999999999"})
    EXPECT_EQ(400, c->Get(bad)->status) << bad;
}

TEST_F(HttpTest, MetricsPassPromtoolAndCountPerCameraAndMedium) {
  ASSERT_TRUE(Eventually("/metrics", "writer_frames_stored_total{camera=\"yard\",medium=\"video\"}"));
  auto r = Client()->Get("/metrics");
  ASSERT_TRUE(r);
  EXPECT_EQ(200, r->status);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r->body, m, std::regex(R"(writer_frames_sent_total\{camera="yard",medium="video"\} (\d+))")));
  EXPECT_GT(std::stoll(m[1]), 0);
  for (const char* family : {"writer_frames_wanted_total", "writer_frames_passed_over_total{camera=\"yard\",medium=\"video\"}",
                             "writer_frames_dropped_total{camera=\"door\",medium=\"audio\",rule=\"no_session\"}",
                             "writer_buffer_memory_bytes",
                             "archive_write_seconds_bucket{le=\"+Inf\"}", "archive_write_seconds_count",
                             "archive_sessions_opened_total", "archive_sessions_refused_total",
                             "writer_liveness_silences_total", "writer_source_reconnects_total{camera=\"door\"}"})
    EXPECT_NE(std::string::npos, r->body.find(family)) << family;
  std::string file = s_dir + "/metrics.txt";
  std::ofstream(file) << r->body;
  std::string out = s_dir + "/promtool.txt";
  int rc = system(("promtool check metrics < " + file + " > " + out + " 2>&1").c_str());
  EXPECT_EQ(0, rc) << ReadAll(out) << r->body;
}

TEST_F(HttpTest, BadRequestsAreRefusedAndNoneHoldsUpTheOthers) {
  auto c = Client();
  std::string big(SRV_HTTP_MAX_BODY + 1, ' ');
  auto r = c->Post("/api/query", Auth(), big, "application/json");
  ASSERT_TRUE(r);
  EXPECT_EQ(413, r->status);
  EXPECT_EQ(404, c->Get("/api/nothing")->status);
  EXPECT_EQ(404, c->Get("/nothing.js")->status);
  auto page = c->Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(200, page->status);
  EXPECT_NE(std::string::npos, page->body.find("<script src=\"/app.js\">"));
  EXPECT_EQ(200, c->Get("/app.js")->status);

  // Clients that connect and then send half a request, or nothing, each
  // hold a connection until the read time-out; the rest are served now.
  std::vector<int> stalled;
  for (int i = 0; i < 3; i++) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(s_port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
    const char half[] = "GET /api/methods HTTP/1.1\r\nHost: x\r\n";
    if (i > 0) {
      ASSERT_GT(write(fd, half, sizeof(half) - 1), 0);
    }
    stalled.push_back(fd);
  }
  // The client gives up before the server's own time-out would free a thread.
  auto quick = Client();
  quick->set_read_timeout(3, 0);
  auto vers = quick->Get("/api/methods/vers");
  ASSERT_TRUE(vers);
  EXPECT_EQ(200, vers->status);
  for (int fd : stalled) close(fd);
}

}  // namespace
