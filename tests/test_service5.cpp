// System events as a holder of "track_event" receives them, the media name,
// and the whole-file read.
#include "linux/common_use/service/service5.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "include/host/core_api.h"
#include "linux/common_use/core_bus.h"

namespace {

// One element as received, with its value decoded by type.
struct Elem {
  uint32_t type;
  std::string name;
  bool null_value;
  std::string text;
  int64_t number;
};

struct Holder {
  std::vector<std::vector<Elem>> messages;
  uint8_t hook_seen = 0;
};

void Receive(void* user, ProfileParam* params) {
  Holder* holder = static_cast<Holder*>(user);
  holder->hook_seen = HookGet();
  std::vector<Elem> message;
  for (ProfileParam* p = params; p->type != PP_END; p++) {
    Elem e{p->type, p->name != nullptr ? p->name : "<null>", p->value == nullptr, "", 0};
    if (p->value != nullptr && p->type == PP_STRING) e.text = static_cast<const char*>(p->value);
    if (p->value != nullptr && p->type == PP_INT32) e.number = *static_cast<int32_t*>(p->value);
    if (p->value != nullptr && p->type == PP_INT64) e.number = *static_cast<int64_t*>(p->value);
    message.push_back(e);
  }
  holder->messages.push_back(message);
}

int64_t Digest(const char* text) { return static_cast<int64_t>(StrHash64(text, static_cast<uint32_t>(strlen(text)))); }

class SystemEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CoreImportRow rows[] = {{"core_sethook", reinterpret_cast<void**>(&core_sethook)},
                            {"core_gethook", reinterpret_cast<void**>(&core_gethook)},
                            {nullptr, nullptr}};
    core_dll_open("core", rows);
    HookSet(HOOK_IN_PLUGIN);
    ProfileCallback cb{&m_holder, reinterpret_cast<void*>(&Receive)};
    m_receiver = profile_open("track_event", &cb, __FILE__, __LINE__);
    m_sender = profile_open("track_event", nullptr, __FILE__, __LINE__);
    SafeStringAssign(&m_keys[0], "k1", 1);
    SafeStringAssign(&m_keys[1], "k2", 1);
    SafeStringAssign(&m_keys[2], "k3", 1);
  }
  void TearDown() override {
    profile_close(m_sender);
    profile_close(m_receiver);
    core_dll_close("core");
    core_sethook = nullptr;
    core_gethook = nullptr;
  }
  // The one message received since the last call.
  std::vector<Elem> Take() {
    EXPECT_EQ(m_holder.messages.size(), 1u);
    std::vector<Elem> message = m_holder.messages.empty() ? std::vector<Elem>() : m_holder.messages.back();
    m_holder.messages.clear();
    return message;
  }

  Holder m_holder;
  TrackHandle m_receiver = 0;
  TrackHandle m_sender = 0;
  SafeString m_keys[3];
};

TEST_F(SystemEventTest, FourteenElementsInTheirOrderWithTheirTypesAndValues) {
  PostSystemEvent(m_sender, SYS_EVENT_PASS, m_keys, Digest("video"), "number of pass event 21", ",ERROR,");
  std::vector<Elem> m = Take();
  ASSERT_EQ(m.size(), 14u);
  const char* const names[] = {"time", "event_type", "key1", "key2", "key3", "ip", "port",
                               "comment", "user_id", "user_login", "user_login_hash", "sysjson", "sysinfo", "image"};
  const uint32_t types[] = {5, 4, 2, 2, 2, 2, 4, 2, 4, 2, 5, 2, 2, 1};
  for (size_t i = 0; i < m.size(); i++) {
    EXPECT_EQ(m[i].name, names[i]) << i;
    EXPECT_EQ(m[i].type, types[i]) << i;
  }
  EXPECT_TRUE(m[0].null_value);
  EXPECT_EQ(m[1].number, 60024);
  EXPECT_EQ(m[2].text, "k1");
  EXPECT_EQ(m[3].text, "k2");
  EXPECT_EQ(m[4].text, "k3");
  EXPECT_EQ(m[5].text, "0.0.0.0");
  EXPECT_TRUE(m[6].null_value);  // an integer type with no value
  EXPECT_EQ(m[7].text, "number of pass event 21 video");
  EXPECT_FALSE(m[8].null_value);
  EXPECT_EQ(m[8].number, 0);
  EXPECT_EQ(m[9].text, "system");
  EXPECT_FALSE(m[10].null_value);
  EXPECT_EQ(m[10].number, 0);
  EXPECT_EQ(m[11].text, "{}");
  EXPECT_EQ(m[12].text, ",ERROR,");
  EXPECT_TRUE(m[13].null_value);
  // Out to the bus at 49, back to the plug-in's own 40.
  EXPECT_EQ(m_holder.hook_seen, HOOK_IN_BUS);
  EXPECT_EQ(HookGet(), HOOK_IN_PLUGIN);
}

TEST_F(SystemEventTest, CommentEndsInTheMediaNameOrABlank) {
  PostSystemEvent(m_sender, SYS_EVENT_FORCE_STOP, m_keys, Digest("audio"), "by http", ",event_start_id=60030");
  std::vector<Elem> m = Take();
  EXPECT_EQ(m[1].number, 60031);
  EXPECT_EQ(m[7].text, "by http audio");
  EXPECT_EQ(m[12].text, ",event_start_id=60030");

  PostSystemEvent(m_sender, SYS_EVENT_FORCE_START, m_keys, Digest(""), "by http", ",event_stop_id=60031,");
  EXPECT_EQ(Take()[7].text, "by http ");
  PostSystemEvent(m_sender, SYS_EVENT_STORAGE, m_keys, Digest("data"), "storage id disk2", ",ERROR,");
  EXPECT_EQ(Take()[7].text, "storage id disk2 ");
}

TEST_F(SystemEventTest, MissingPartsArePostedAsNullOrEmpty) {
  PostSystemEvent(m_sender, SYS_EVENT_LIVE_EXPIRED, nullptr, Digest("video"), nullptr, nullptr);
  std::vector<Elem> m = Take();
  ASSERT_EQ(m.size(), 14u);
  EXPECT_EQ(m[1].number, 60002);
  EXPECT_TRUE(m[2].null_value);
  EXPECT_TRUE(m[3].null_value);
  EXPECT_TRUE(m[4].null_value);
  EXPECT_EQ(m[7].text, " video");
  EXPECT_TRUE(m[12].null_value);

  // A long comment goes whole; a closed handle sends nothing and no harm.
  std::string huge(1 << 20, 'c');
  PostSystemEvent(m_sender, SYS_EVENT_LIVE_EXPIRED, m_keys, Digest("video"), huge.c_str(), "");
  EXPECT_EQ(Take()[7].text, huge + " video");
  PostSystemEvent(0, SYS_EVENT_LIVE_EXPIRED, m_keys, Digest("video"), "x", "");
  EXPECT_TRUE(m_holder.messages.empty());
}

TEST(ResolveMediaNameTest, KnowsVideoAudioAndTheEmptyTextOnly) {
  SafeString out;
  ResolveMediaName(Digest("video"), &out);
  EXPECT_STREQ(out.m_p_text, "video");
  ResolveMediaName(Digest("audio"), &out);
  EXPECT_STREQ(out.m_p_text, "audio");
  ResolveMediaName(Digest("Video"), &out);  // unknown: left as it was
  EXPECT_STREQ(out.m_p_text, "audio");
  ResolveMediaName(Digest(""), &out);
  EXPECT_STREQ(out.m_p_text, "");
  ResolveMediaName(Digest("video"), nullptr);
}

// Reads from the start whatever the position; a short file is no failure.
TEST(UnivReadFromFileTest, NormalEmptyAndMissingFiles) {
  char dir[] = "/tmp/test_service5_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string path = std::string(dir) + "/saved.txt";
  std::ofstream(path, std::ios::binary) << "{\"log\":1}";
  int fd = open(path.c_str(), O_RDONLY);
  char buf[64] = {};
  ASSERT_EQ(read(fd, buf, 4), 4);
  uint32_t count = 99;
  EXPECT_EQ(UnivReadFromFile(fd, buf, sizeof(buf) - 1, &count), 1);
  EXPECT_EQ(count, 9u);
  EXPECT_STREQ(buf, "{\"log\":1}");
  EXPECT_EQ(UnivReadFromFile(fd, nullptr, 3, &count), 0);
  close(fd);

  std::ofstream(path, std::ios::binary | std::ios::trunc);
  fd = open(path.c_str(), O_RDONLY);
  EXPECT_EQ(UnivReadFromFile(fd, buf, sizeof(buf), &count), 1);
  EXPECT_EQ(count, 0u);
  close(fd);

  unlink(path.c_str());
  fd = open(path.c_str(), O_RDONLY);
  count = 99;
  EXPECT_EQ(UnivReadFromFile(fd, buf, sizeof(buf), &count), 0);
  EXPECT_EQ(count, 0u);
  rmdir(dir);
}

}  // namespace
