// The events registrator on the reference bus: what it keeps of the events
// posted on "track_event", and the lines of the "events_register" query.
#include <gtest/gtest.h>

#include "platform/pl_clock.h"
#include "writer/writer_events_registrator.h"
#include "writer/writer_global.h"  // SafeNew

namespace {

const int64_t kSecond = 10000000LL;
const std::string kEpoch = "1601.01.01 00:00:00:000";
const std::string kHead = "{\"key1\":\"K1\",\"key2\":\"K2\",\"key3\":\"K3\",\"key4\":\"\",\n\"events\":\n[";

std::string ElemJson(int event, int cntr, int incr, const std::string& mark, bool pres, const std::string& guids) {
  return "{\"event\":" + std::to_string(event) + ",\"cntr\":" + std::to_string(cntr) +
         ",\"incr_cntr\":" + std::to_string(incr) + ",\"dur_mark\":\"" + mark +
         "\",\"dur_pres\":" + (pres ? "true" : "false") + ",\"guids\":[" + guids + "]}";
}

class RegistratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PlClockUseManual(133444915000000000ULL);
    m_reg = SafeNew<CEventsRegistrator>(1);
    m_h_post = profile_open("track_event", nullptr, __FILE__, __LINE__);
  }
  void TearDown() override {
    profile_close(m_h_post);
    SafeDelete(m_reg);
    PlClockUseReal();
  }
  void Post(int32_t type, const std::string& sysinfo, const char* key2 = "K2", const char* key1 = "K1") {
    std::vector<ProfileParam> msg = {{PP_INT32, "event_type", &type}, {PP_STRING, "key1", const_cast<char*>(key1)}};
    if (key2 != nullptr) msg.push_back({PP_STRING, "key2", const_cast<char*>(key2)});
    msg.push_back({PP_STRING, "key3", const_cast<char*>("K3")});
    msg.push_back({PP_STRING, "sysinfo", const_cast<char*>(sysinfo.c_str())});
    msg.push_back({PP_END, nullptr, nullptr});
    profile_data(m_h_post, msg.data(), 0);
  }
  std::vector<std::string> Lines(const char* view, const std::vector<std::string>& filter = {},
                                 int64_t* size = nullptr) {
    SafeString keys[5];
    for (size_t i = 0; i < filter.size(); i++) SafeStringAssign(&keys[i], filter[i].c_str(), 1);
    std::vector<std::string> lines;
    int64_t total = 0;
    EventsRegisterLines(m_reg, keys, view, &total, &lines, -1);
    if (size != nullptr) *size = total;
    return lines;
  }
  TEventCamera* Camera() {
    SafeString keys[5];
    SafeStringAssign(&keys[1], "K2", 1);
    return GetCamera(&m_reg->m_list_cameras, keys);
  }

  CEventsRegistrator* m_reg = nullptr;
  TrackHandle m_h_post = 0;
};

TEST_F(RegistratorTest, StartsMakeCameraAndElementAndShortViewShowsOnlyOpenGuids) {
  int64_t size = -1;
  EXPECT_TRUE(Lines("full", {}, &size).empty());  // no event yet: no line
  EXPECT_EQ(0, size);
  Post(20001, ",event_stop_id=20002,guid=\"g1\",");
  Post(20001, ",event_stop_id=20002,guid=\"g2\",");
  std::vector<std::string> lines = Lines("short", {}, &size);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(kHead + ElemJson(20001, 2, 2, kEpoch, false, "\"g1\",\n\"g2\"") + "]}", lines[0]);
  EXPECT_EQ(static_cast<int64_t>(lines[0].size()) + 100, size);
  Post(20002, ",event_start_id=20001,guid=\"g1\",");
  Post(20002, ",event_start_id=20001,guid=\"g2\",");
  EXPECT_EQ(kHead + "]}", Lines("short")[0]);
  EXPECT_EQ(kHead + ElemJson(20001, 0, 4, kEpoch, false, "") + "]}", Lines("full")[0]);
  Post(20001, ",event_stop_id=20002,", "K2", "other");  // the camera keeps its first keys
  EXPECT_EQ(0u, Lines("full")[0].find(kHead));
}

TEST_F(RegistratorTest, WhatAChannelWouldKeepInPartTheRegistratorDropsWhole) {
  Post(20001, ",event_stop_id=20002,guid=" + std::string(32, 'g') + ",");
  Post(20001, ",event_stop_id=20002,dur=" + std::string(33, '1') + ",");
  Post(20001, ",event_stop_id=20002");
  Post(20001, ",guid=x,");
  Post(20001, ",event_stop_id=20002,", nullptr);  // no key2 of its own
  EXPECT_EQ(nullptr, Camera());
  Post(20001, ",event_start_id=20001,");  // a stop half: a camera, but no element
  ASSERT_NE(nullptr, Camera());
  EXPECT_EQ(0, Camera()->m_list_events.m_i_count);
  Post(20001, ",event_stop_id=20002,guid=" + std::string(31, 'g') + ",");
  Post(20002, ",event_start_id=20001,");
  Post(20002, ",event_start_id=20001,");  // more stops than starts: kept below 0
  ASSERT_EQ(1, Camera()->m_list_events.m_i_count);
  EXPECT_EQ(-1, static_cast<TEventElem*>(CListOurGet(&Camera()->m_list_events, 0))->m_i_counter);
}

TEST_F(RegistratorTest, ForcedElementShowsItsLimitOnlyInTheFullView) {
  Post(60030, ",event_stop_id=60031,dur=30,");
  char mark[FILE_TIME_TEXT_SIZE];
  FileTimeToText(FileTimeNowLocal() + 30 * kSecond, mark);
  EXPECT_EQ(kHead + "]}", Lines("short")[0]);
  EXPECT_EQ(kHead + ElemJson(60030, 1, 1, mark, true, "") + "]}", Lines("full")[0]);
  Post(60031, ",event_start_id=60030");
  EXPECT_EQ(kHead + ElemJson(60030, 0, 2, kEpoch, false, "") + "]}", Lines("full")[0]);
}

TEST_F(RegistratorTest, FilterKeepsCamerasWhoseKeysEqualEveryGivenKey) {
  Post(20001, ",event_stop_id=20002,guid=a,", "K2", "K1");
  Post(20001, ",event_stop_id=20002,guid=b,", "Z2", "Z1");
  Post(20001, ",event_stop_id=20002,guid=c,", "", "E1");  // a camera whose key2 is empty
  EXPECT_EQ(3u, Lines("short").size());
  std::vector<std::string> z = Lines("short", {"", "Z2"});
  ASSERT_EQ(1u, z.size());
  EXPECT_EQ(0u, z[0].find("{\"key1\":\"Z1\",\"key2\":\"Z2\""));
  EXPECT_EQ(1u, Lines("short", {"K1", "K2", "K3"}).size());
  EXPECT_TRUE(Lines("short", {"K1", "Z2"}).empty());
  EXPECT_TRUE(Lines("short", {"", "", "", "K4"}).empty());  // no camera has a key4
  EXPECT_EQ(1u, Lines("short", {"E1"}).size());
}

}  // namespace
