// The service client against a peer on the reference bus: what the request
// looks like on "trackWsServerCmd", which answers on "trackWsServerData" it
// takes, and its five-second wait on the manual clock.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "linux/common_use/profile_common.h"
#include "platform/pl_clock.h"

namespace {

const uint64_t kStartUtc = 133444915000000000ULL;
const int64_t kSecond = 10000000LL;

// The peer plug-in: records the last request and answers as it is told.
struct Peer {
  enum Mode { kRight, kOtherOwner, kOtherNumber, kNoJson, kSilent };
  Mode mode = kRight;
  std::string json = "[{\"id\":\"door-1\",\"key2\":\"B\"}]";
  std::string cmd;
  int32_t timeout = 0;
  void* owner = nullptr;
  void* owner_data = nullptr;
  int requests = 0;
  TrackHandle h_cmd = 0, h_data = 0;

  static void On(void* user, ProfileParam* p) {
    Peer* peer = static_cast<Peer*>(user);
    peer->requests++;
    for (const ProfileParam* e = p; e->type != PP_END; e++) {
      std::string name = e->name;
      if (name == "cmd" && e->type == PP_STRING) peer->cmd = static_cast<const char*>(e->value);
      if (name == "timeout" && e->type == PP_INT32) peer->timeout = *static_cast<int32_t*>(e->value);
      if (name == "owner" && e->type == PP_OBJECT) peer->owner = e->value;
      if (name == "owner_data" && e->type == PP_OBJECT) peer->owner_data = e->value;
    }
    if (peer->mode != kSilent) peer->Answer();
  }
  void Answer() {
    void* answer_owner = mode == kOtherOwner ? static_cast<void*>(this) : owner;
    void* answer_number = mode == kOtherNumber ? reinterpret_cast<void*>(uintptr_t(0x100000000ULL) + 77) : owner_data;
    ProfileParam answer[] = {{PP_STRING, "error", const_cast<char*>("")},
                             {PP_STRING, mode == kNoJson ? "jsonx" : "json", const_cast<char*>(json.c_str())},
                             {PP_OBJECT, "owner", answer_owner},
                             {PP_OBJECT, "owner_data", answer_number},
                             {PP_END, nullptr, nullptr}};
    profile_data(h_data, answer, 0);
  }
};

class ServiceClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PlClockUseManual(kStartUtc);
    ProfileCallback cb = {&m_peer, reinterpret_cast<void*>(&Peer::On)};
    m_peer.h_cmd = profile_open("trackWsServerCmd", &cb, __FILE__, __LINE__);
    m_peer.h_data = profile_open("trackWsServerData", nullptr, __FILE__, __LINE__);
    m_client = new ServiceClient();
  }
  void TearDown() override {
    delete m_client;
    profile_close(m_peer.h_data);
    profile_close(m_peer.h_cmd);
    PlClockUseReal();
  }
  // The wait of a request nobody answers, with the clock moved until it
  // gives up; the manual seconds it took come back in p_waited.
  int32_t WaitOutTheClock(int64_t* p_waited) {
    std::atomic<bool> done{false};
    uint64_t before = PlFileTimeUtc();
    std::thread mover([&] {
      while (!done) {
        PlClockAdvance(kSecond / 2);
        PlSleep(2);
      }
    });
    int32_t accepted = ServiceClientWait(m_client);
    done = true;
    mover.join();
    *p_waited = static_cast<int64_t>(PlFileTimeUtc() - before);
    return accepted;
  }

  Peer m_peer;
  ServiceClient* m_client = nullptr;
};

TEST_F(ServiceClientTest, RequestCarriesTheCommandAndTheAnswerIsTakenFromTheDataTrack) {
  SafeString reply;
  EXPECT_EQ(1, ServiceClientCall(m_client, "\"id\":\"door-1\"", &reply));
  EXPECT_EQ("{\n\"cmd\": \"rtsp:list_cameras\",\n\"ip\": \"127.0.0.1\",\n\"params\": \n  {\n\"id\":\"door-1\"  }\n}\n",
            m_peer.cmd);
  EXPECT_EQ(5, m_peer.timeout);
  EXPECT_EQ(m_client, m_peer.owner);
  EXPECT_EQ(1u, reinterpret_cast<uintptr_t>(m_peer.owner_data));
  EXPECT_STREQ(m_peer.json.c_str(), reply.m_p_text);
  EXPECT_EQ(1, m_client->m_b_accepted);

  // Each request has its own number, and its reply replaces the last one.
  m_peer.json = "{\"key2\":\"C\"}";
  EXPECT_EQ(1, ServiceClientCall(m_client, "\"id\":\"x\"", &reply));
  EXPECT_EQ(2u, reinterpret_cast<uintptr_t>(m_peer.owner_data));
  EXPECT_STREQ("{\"key2\":\"C\"}", reply.m_p_text);
}

TEST_F(ServiceClientTest, AnswersForAnotherOwnerOrRequestOrWithoutJsonLeaveTheWaitToItsTimeOut) {
  for (Peer::Mode mode : {Peer::kOtherOwner, Peer::kOtherNumber, Peer::kNoJson, Peer::kSilent}) {
    m_peer.mode = mode;
    ServiceClientRequest(m_client, "\"id\":\"door-1\"");
    int64_t waited = 0;
    EXPECT_EQ(0, WaitOutTheClock(&waited)) << mode;
    EXPECT_GE(waited, 5 * kSecond) << mode;
    EXPECT_STREQ("", m_client->m_s_reply.m_p_text) << mode;
  }
}

TEST_F(ServiceClientTest, LateAnswerToAnAbandonedRequestDoesNotReleaseTheNextWait) {
  m_peer.mode = Peer::kSilent;
  ServiceClientRequest(m_client, "\"id\":\"door-1\"");
  int64_t waited = 0;
  EXPECT_EQ(0, WaitOutTheClock(&waited));
  m_peer.Answer();  // the peer answers after the caller gave up
  ServiceClientRequest(m_client, "\"id\":\"door-1\"");
  EXPECT_EQ(0, WaitOutTheClock(&waited));
  EXPECT_GE(waited, 5 * kSecond);
  m_peer.Answer();  // the right answer now releases at once
  EXPECT_EQ(1, ServiceClientWait(m_client));
}

TEST_F(ServiceClientTest, CallbackWithoutClientOrArrayAndOverlongParametersDoNoHarm) {
  ProfileParam empty[] = {{PP_END, nullptr, nullptr}};
  OnPluginDataServiceExchI(nullptr, empty);
  OnPluginDataServiceExchI(m_client, nullptr);
  ProfileParam nameless[] = {{PP_STRING, nullptr, const_cast<char*>("x")}, {PP_END, nullptr, nullptr}};
  OnPluginDataServiceExchI(m_client, nameless);
  std::string huge = "\"id\":\"" + std::string(10000, 'a') + "\"";
  SafeString reply;
  EXPECT_EQ(1, ServiceClientCall(m_client, huge.c_str(), &reply));
  EXPECT_EQ(size_t(I_SERVICE_CMD_SIZE - 1), m_peer.cmd.size());
}

TEST(BlankOuterBrackets, BlanksTheFirstOpeningAndTheLastClosingBracketOnly) {
  const char* cases[][2] = {
      {"[]", "  "},
      {"[{\"key2\":\"B\"}]", " {\"key2\":\"B\"} "},
      {"[[1],[2]]", " [1],[2] "},
      {"]x[", " x "},
      {"[", " "},
      {"no brackets", "no brackets"},
      {"", ""},
  };
  for (const auto& c : cases) {
    std::string text = c[0];
    BlankOuterBrackets(&text[0]);
    EXPECT_EQ(c[1], text) << c[0];
  }
  BlankOuterBrackets(nullptr);
}

}  // namespace
