// A channel object on its own: the session settings push against a busy
// archive, and the per-element reading of several documents.
#include "writer/writer_global.h"
#include "writer/writer_main.h"
#include "linux/common_use/temp/atomic_field.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> g_calls;
int g_busy_answers = 0;  // how many code-27 asks answer 0 first

int64_t FakeSetSession(int32_t handle, int32_t code, int64_t value) {
  g_calls.push_back(std::to_string(handle) + ":" + std::to_string(code) + ":" + std::to_string(value));
  if (code == 27 && value == 1 && g_busy_answers > 0) {
    g_busy_answers--;
    return 0;
  }
  return 1;
}

class WriterMainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_calls.clear();
    g_archive.SetParamsByTypeReqWrite = &FakeSetSession;
  }
  void TearDown() override { g_archive = TArchiveFns(); }
  CWriter m_writer;
};

TEST_F(WriterMainTest, PushWaitsOutABusyArchiveThenSendsTheSettingsBetweenMarks) {
  TCameraInfoW* info = m_writer.m_camera_info_w;
  WriterPushSessionParams(&m_writer);  // no session: nothing
  EXPECT_TRUE(g_calls.empty());
  AtomicPut(&info->m_dw_write_handle, 5);  // the channel's thread reads it
  info->m_b_depth_restrict = 1;
  info->m_i64_depth = 864000000000LL;
  info->m_b_write_by_event = 1;
  g_busy_answers = 2;
  WriterPushSessionParams(&m_writer);
  EXPECT_EQ((std::vector<std::string>{"5:27:1", "5:27:1", "5:27:1", "5:70:1", "5:71:864000000000", "5:122:1",
                                      "5:27:0"}),
            g_calls);
  g_calls.clear();
  g_busy_answers = 100;
  WriterPushSessionParams(&m_writer);
  EXPECT_EQ(std::vector<std::string>(10, "5:27:1"), g_calls);
}

TEST_F(WriterMainTest, EachDocumentElementScalesTheTimesAgain) {
  std::string doc = R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
                    R"("prev_write":{"_value":2},"post_write":{"_value":3}}}})";
  ProfileParam one[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
  TWriterConfig cfg1;
  WriterParseParams(&m_writer, one, &cfg1);
  EXPECT_EQ(20000000, cfg1.m_i64_prev_write);
  EXPECT_EQ(30000000, cfg1.m_i64_post_write);
  // depth absent: the default day count is scaled as if it were days.
  EXPECT_EQ(4567173211447361536LL, cfg1.m_i64_depth);
  EXPECT_EQ(1, cfg1.m_b_profiles);
  // No events given: the list holds the one forced element.
  ASSERT_EQ(1, m_writer.m_by_event.m_list_events.m_i_count);
  const TEventElem* e = static_cast<const TEventElem*>(CListOurGet(&m_writer.m_by_event.m_list_events, 0));
  EXPECT_EQ(60030, e->event);
  EXPECT_EQ(0, e->stop_event);
  EXPECT_EQ(1, e->forced);

  // A second "json" element whose document lacks the times multiplies the
  // first element's values again; a non-text "start" is no document.
  std::string bare = R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"}})";
  int32_t marker = 1;
  ProfileParam two[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())},
                        {PP_STRING, "json", const_cast<char*>(bare.c_str())},
                        {PP_INT32, "start", &marker},
                        {PP_END, nullptr, nullptr}};
  TWriterConfig cfg2;
  WriterParseParams(&m_writer, two, &cfg2);
  EXPECT_EQ(static_cast<int64_t>(200000000000000ULL * 10000000ULL), cfg2.m_i64_prev_write);
  EXPECT_EQ(1, m_writer.m_by_event.m_list_events.m_i_count);
}

}  // namespace
