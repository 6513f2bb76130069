// The reading of a query's parameters: what each parse takes, where the
// filter keys fall back, and that a wrong type or a broken text leaves the
// defaults.
#include <gtest/gtest.h>

#include <string>

#include "linux/common_use/common_parser.h"

namespace {

std::string T(const SafeString& s) { return s.m_p_text != nullptr ? s.m_p_text : ""; }

// All three parses, as the dispatch runs them.
void ParseAll(const char* json, TQueryParams* p) {
  ParseQueryHead(json, &p->m_s_query_id, &p->m_s_view, &p->m_b_help, &p->m_b_hash, &p->m_s_hash, &p->m_s_univ_cmd);
  ParseQueryParams(json, p);
  ParseQueryValues(json, p);
}

// The parameters the dispatch acts on, as one text.
std::string Summary(const TQueryParams& p) {
  std::string keys;
  for (int i = 0; i < I_QUERY_KEYS; i++) keys += T(p.m_s_keys[i]) + std::to_string(p.m_b_keys[i]) + "/";
  return T(p.m_s_query_id) + "|" + T(p.m_s_view) + "|" + std::to_string(p.m_b_help) + std::to_string(p.m_b_hash) + "|" +
         keys + "|" + std::to_string(p.m_i64_longer) + std::to_string(p.m_b_size) + "|" + T(p.m_s_value) +
         T(p.m_s_scale);
}
// What a text with no usable parameter reads as.
const char kDefaults[] = "|short|00|0/0/0/0/0/|00|";

TEST(CommonParserTest, NullBrokenOrNonObjectTextsLeaveEveryDefault) {
  for (const char* json :
       {static_cast<const char*>(nullptr), "", "{\"query_id\":", "not json", "[\"vers\"]", "\"vers\"", "null"}) {
    TQueryParams p;
    ParseAll(json, &p);
    EXPECT_EQ(kDefaults, Summary(p)) << (json != nullptr ? json : "(null)");
  }
}

TEST(CommonParserTest, HeadTakesNameViewHelpHashAndUnivCmd) {
  TQueryParams p;
  ParseAll(R"({"query_id":"GetStatus","view":"by_events","":"?","hash":"h1","univ_cmd":"u"})", &p);
  EXPECT_EQ("GetStatus", T(p.m_s_query_id));
  EXPECT_EQ("by_events", T(p.m_s_view));
  EXPECT_EQ(1, p.m_b_help);
  EXPECT_EQ(1, p.m_b_hash);
  EXPECT_EQ("h1", T(p.m_s_hash));
  EXPECT_EQ("u", T(p.m_s_univ_cmd));
  // An empty text under the empty name is still a help request.
  TQueryParams q;
  ParseAll(R"({"":""})", &q);
  EXPECT_EQ(1, q.m_b_help);
}

TEST(CommonParserTest, ANameOfAnotherTypeCountsAsAbsent) {
  TQueryParams p;
  ParseAll(R"({"query_id":5,"view":["x"],"":1,"hash":true,"value":150204,"scale":null,"longer":"3",)"
           R"("size":"2","begin":1,"end":"e"})",
           &p);
  EXPECT_EQ(kDefaults, Summary(p));
  EXPECT_EQ(0, p.m_b_begin_end);
  EXPECT_EQ("e", T(p.m_s_end));
}

TEST(CommonParserTest, FilterKeysPreferObjectIdAndFallBackToTheTopLevelForKeysOneToThree) {
  TQueryParams p;
  ParseAll(R"({"key1":"top1","key2":"top2","key3":"top3","key4":"top4",)"
           R"("object_id":{"key1":"obj1","key2":7,"key3":""}})",
           &p);
  // A number under object_id is absent; an empty text is present, so key 3
  // does not fall back but has no flag; key 4 has no fallback at all.
  EXPECT_EQ("|short|00|obj11/top21/0/0/0/|00|", Summary(p));
  TQueryParams q;
  ParseAll(R"({"object_id":{"key4":"k4","ignore_arc_key3":12},"ignore_arc_key3":99})", &q);
  EXPECT_EQ("k4", T(q.m_s_keys[3]));
  EXPECT_EQ(1, q.m_b_keys[3]);
  EXPECT_EQ(12, q.m_i64_ignore_arc_key3);
  TQueryParams r;
  ParseAll(R"({"ignore_arc_key3":99})", &r);
  EXPECT_EQ(99, r.m_i64_ignore_arc_key3);
}

TEST(CommonParserTest, LongerBecomesTicksAndSizeBytesWithinThe64BitRange) {
  TQueryParams p;
  ParseAll(R"({"longer":3,"size":2,"begin":"b","end":"e","topic":"t","directory":"d","type":"y",)"
           R"("value":"150204","scale":"200ms","storage":"s"})",
           &p);
  EXPECT_EQ(30000000, p.m_i64_longer);
  EXPECT_EQ(int64_t(2) << 30, p.m_i64_size);
  EXPECT_EQ(1, p.m_b_size);
  EXPECT_EQ(1, p.m_b_begin_end);
  EXPECT_EQ("t", T(p.m_s_topic));
  EXPECT_EQ("d", T(p.m_s_directory));
  EXPECT_EQ("y", T(p.m_s_type));
  EXPECT_EQ("150204", T(p.m_s_value));
  EXPECT_EQ("200ms", T(p.m_s_scale));
  EXPECT_EQ("s", T(p.m_s_storage));
  // Fractions are cut to the whole part; values beyond the range stay at
  // its limits instead of wrapping.
  TQueryParams q;
  ParseAll(R"({"longer":1.9,"size":-1})", &q);
  EXPECT_EQ(10000000, q.m_i64_longer);
  EXPECT_EQ(-(int64_t(1) << 30), q.m_i64_size);
  TQueryParams r;
  ParseAll(R"({"longer":9223372036854775807,"size":1e30})", &r);
  EXPECT_EQ(INT64_MAX, r.m_i64_longer);
  EXPECT_EQ(INT64_MAX, r.m_i64_size);
  TQueryParams s;
  ParseAll(R"({"longer":-1e300,"size":-9223372036854775807})", &s);
  EXPECT_EQ(INT64_MIN, s.m_i64_longer);
  EXPECT_EQ(INT64_MIN, s.m_i64_size);
}

}  // namespace
