// The configuration reader: the template read back, key-by-key defaults,
// the all-or-nothing arc keys, clamps and cuts, the event list, and
// documents that are broken in every way a configurator can break them.
#include "linux/common_use/temp/tools.h"
#include "writer/writer_by_event.h"
#include "writer/writer_parcer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Text(const SafeString& s) { return s.m_p_text != nullptr ? s.m_p_text : ""; }

// The outputs of one read, with the defaults a channel open starts from.
struct Parsed {
  SafeString arc[5];
  SafeString common[5];
  SafeString in;
  SafeString storage;
  uint32_t id54 = 0;
  int32_t id54_present = 7;
  int32_t by_events = 7;
  CListOur events;
  int64_t prev_write = 11;
  int64_t post_write = 12;
  int32_t view_prior = 7;
  int32_t depth_restrict = 0;
  int64_t depth = 1000;
  int32_t only_key = 0;
  int32_t profiles = 7;
  std::string out;  // what went to standard output

  explicit Parsed(const char* json) {
    testing::internal::CaptureStdout();
    ParseWriterConfig(json, arc, common, &in, &id54, &id54_present, &storage, &by_events, &events, &prev_write,
                      &post_write, &view_prior, &depth_restrict, &depth, &only_key, &profiles);
    out = testing::internal::GetCapturedStdout();
  }
  ~Parsed() { EventListClear(&events); }

  std::vector<int> EventIds() {
    std::vector<int> ids;
    for (int i = 0; i < events.m_i_count; i++) {
      const TEventElem* e = static_cast<const TEventElem*>(CListOurGet(&events, i));
      ids.push_back(e->event);
      if (e->stop_event != 0) ids.push_back(-e->stop_event);
    }
    return ids;
  }
};

// A "profiles" document with keys a/b/c and the given writer settings.
std::string Doc(const std::string& writer) {
  return R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)" + writer +
         "}}}";
}

std::string Setting(const std::string& key, const std::string& value) {
  return "\"" + key + "\":{\"_value\":" + value + "}";
}

const char kNoCommon[] = "no such node: common\n";

TEST(WriterParcer, TemplateReadsBackAsAlwaysOnChannelOfItsCommonKeys) {
  Parsed p(S_FISH);
  EXPECT_EQ(1, p.profiles);
  EXPECT_EQ("host", Text(p.common[0]));
  EXPECT_EQ("4201", Text(p.common[1]));
  EXPECT_EQ("key3", Text(p.common[2]));
  EXPECT_EQ("", Text(p.common[3]));
  EXPECT_EQ("trackSource", Text(p.in));
  // Empty arc keys in the template: the common keys stand in for all five.
  EXPECT_EQ("host", Text(p.arc[0]));
  EXPECT_EQ("4201", Text(p.arc[1]));
  EXPECT_EQ("key3", Text(p.arc[2]));
  EXPECT_EQ("", Text(p.arc[3]));
  EXPECT_EQ(0, p.by_events);
  EXPECT_EQ(0, p.view_prior);
  EXPECT_EQ(0, p.prev_write);
  EXPECT_EQ(0, p.depth);
  EXPECT_EQ(0, p.id54_present);
  std::vector<int> want = {20001, 20008, 20009, 20010, 20016, 20017, 20026, 20027, 20028, 20030,
                           20034, 20035, 20074, 20075, 20076, 20078, 20081, 20084, 60030, -60031};
  EXPECT_EQ(want, p.EventIds());
  EXPECT_EQ("", p.out);
}

TEST(WriterParcer, TemplatesAreTheirExactTexts) {
  EXPECT_STREQ("{\"writer\":[\"profiles\"]}", S_FISH_TYPES);
  EXPECT_NE(nullptr, strstr(S_FISH, "\"view_prior\":{\"_level\":1,\"_value\":0,\"_values\":[0,1,2]}"));
  EXPECT_NE(nullptr, strstr(S_FISH, "\"holidays\":[{\"begin\":\" 0 : 00 \",\"end\":\" 24 : 00 \"}]"));
  EXPECT_NE(nullptr, strstr(S_FISH, "\"profiles::network_5_4::km54server::ID_54::_value\":null}}}"));
  EXPECT_NE(nullptr, strstr(S_LANGUAGE_KEYS, "\"depth_restrict\":\"Depth Restrict\""));
  EXPECT_NE(nullptr, strstr(S_LANGUAGE_KEYS, "\"true\":\"Yes\",\"false\":\"No\"}"));
}

// Documents that are not what a channel can use: nothing beyond what the
// table says is taken, and none of them may crash.
struct BadDoc {
  const char* what;
  std::string json;
  int32_t profiles;
  const char* key1;  // common key 1 after the read
  std::string out;
};

TEST(WriterParcer, BadDocumentsKeepTheStartValues) {
  std::string huge(1 << 20, 'x');
  std::string deep(2000, '[');
  deep += std::string(2000, ']');
  const std::vector<BadDoc> cases = {
      {"not JSON", "{\"common\":", 0, "", ""},
      {"empty text", "", 0, "", ""},
      {"array root", "[1,2,3]", 0, "", std::string(kNoCommon) + kNoCommon + kNoCommon + kNoCommon},
      {"deep nesting", deep, 0, "", std::string(kNoCommon) + kNoCommon + kNoCommon + kNoCommon},
      {"common missing", R"({"archive":{"writer":{"in":{"_value":"t"}}}})", 0, "",
       std::string(kNoCommon) + kNoCommon + kNoCommon + kNoCommon},
      {"other kind", R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"devices"},)"
                     R"("archive":{"writer":{"in":{"_value":"t"},"view_prior":{"_value":2}}}})",
       0, "a", ""},
      {"keys not strings", R"({"common":{"key1":1,"key2":null,"key3":"c","_typeJS":"profiles"}})", 1, "",
       std::string(kNoCommon) + kNoCommon + "no such node: archive\n"},
      {"huge key", "{\"common\":{\"key1\":\"" + huge + "\",\"key2\":\"b\",\"key3\":\"c\",\"_typeJS\":\"x\"}}", 0,
       huge.c_str(), ""},
  };
  for (const BadDoc& c : cases) {
    SCOPED_TRACE(c.what);
    Parsed p(c.json.c_str());
    EXPECT_EQ(c.profiles, p.profiles);
    EXPECT_EQ(c.key1, Text(p.common[0]));
    EXPECT_EQ(c.out, p.out);
    EXPECT_EQ(11, p.prev_write);
    EXPECT_EQ(1000, p.depth);
    EXPECT_EQ(0, p.view_prior);
    EXPECT_EQ(0, p.by_events);
    EXPECT_EQ(0, p.events.m_i_count);
    EXPECT_EQ("", Text(p.in));
  }
}

TEST(WriterParcer, NullTextIsNoDocument) {
  Parsed p(nullptr);
  EXPECT_EQ(0, p.profiles);
  EXPECT_EQ(0, p.id54_present);
  EXPECT_EQ("", p.out);
}

// Numbers, flags and clamps, key by key.
struct Setting1 {
  std::string writer;
  int64_t prev_write, post_write, depth;
  int32_t view_prior, by_events, depth_restrict, only_key;
};

TEST(WriterParcer, SettingsAreReadByTypeWithDefaultsKept) {
  const std::vector<Setting1> cases = {
      {Setting("prev_write", "5") + "," + Setting("post_write", "7") + "," + Setting("depth", "30"), 5, 7, 30, 0, 0, 0, 0},
      // Numbers given as text are not numbers: the defaults hold.
      {Setting("prev_write", "\"5\"") + "," + Setting("depth", "\"3\""), 11, 12, 1000, 0, 0, 0, 0},
      // Fractions are cut, out-of-range values stop at the 32-bit limit.
      {Setting("prev_write", "2.9") + "," + Setting("post_write", "-1.5") + "," + Setting("depth", "99999999999"),
       2, -1, 2147483647, 0, 0, 0, 0},
      {Setting("depth", "-99999999999"), 11, 12, -2147483648LL, 0, 0, 0, 0},
      {Setting("view_prior", "7"), 11, 12, 1000, 2, 0, 0, 0},
      {Setting("view_prior", "-3"), 11, 12, 1000, 0, 0, 0, 0},
      {Setting("view_prior", "1"), 11, 12, 1000, 1, 0, 0, 0},
      {Setting("view_prior", "\"2\""), 11, 12, 1000, 0, 0, 0, 0},
      // Only a JSON true sets a flag.
      {Setting("by_events", "true") + "," + Setting("depth_restrict", "true") + "," + Setting("only_key_frame", "true"),
       11, 12, 1000, 0, 1, 1, 1},
      {Setting("by_events", "\"true\"") + "," + Setting("depth_restrict", "1") + "," + Setting("only_key_frame", "false"),
       11, 12, 1000, 0, 0, 0, 0},
  };
  for (const Setting1& c : cases) {
    SCOPED_TRACE(c.writer);
    Parsed p(Doc(c.writer).c_str());
    EXPECT_EQ(1, p.profiles);
    EXPECT_EQ(c.prev_write, p.prev_write);
    EXPECT_EQ(c.post_write, p.post_write);
    EXPECT_EQ(c.depth, p.depth);
    EXPECT_EQ(c.view_prior, p.view_prior);
    EXPECT_EQ(c.by_events, p.by_events);
    EXPECT_EQ(c.depth_restrict, p.depth_restrict);
    EXPECT_EQ(c.only_key, p.only_key);
    // "in" is missing from all of them.
    EXPECT_EQ("no such node: archive\n", p.out);
  }
}

TEST(WriterParcer, ArcKeysAreAllOrNothing) {
  std::string all = Setting("arc_key1", "\"A\"") + "," + Setting("arc_key2", "\"B\"") + "," + Setting("arc_key3", "\"C\"");
  Parsed full(Doc(all).c_str());
  EXPECT_EQ("A", Text(full.arc[0]));
  EXPECT_EQ("B", Text(full.arc[1]));
  EXPECT_EQ("C", Text(full.arc[2]));

  std::string partial = Setting("arc_key1", "\"A\"") + "," + Setting("arc_key2", "\"B\"") + "," + Setting("arc_key3", "\"\"");
  std::string with_key4 = R"({"common":{"key1":"a","key2":"b","key3":"c","key4":"d","_typeJS":"profiles"},)"
                          R"("archive":{"writer":{)" + partial + "}}}";
  Parsed part(with_key4.c_str());
  const char* want[5] = {"a", "b", "c", "d", ""};
  for (int i = 0; i < 5; i++) EXPECT_EQ(want[i], Text(part.arc[i])) << i;
}

TEST(WriterParcer, Id54NeedsAFirstElementThatIsNotNull) {
  struct Row {
    const char* value;
    int32_t present;
    uint32_t id54;
  } rows[] = {{"[54]", 1, 54}, {"[\"x\"]", 1, 0}, {"[1.5]", 1, 0}, {"[]", 0, 0}, {"[null,3]", 0, 0}, {"54", 0, 0}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.value);
    std::string doc = Doc(std::string("\"profiles::network_5_4::km54server::ID_54::_value\":") + r.value);
    Parsed p(doc.c_str());
    EXPECT_EQ(r.present, p.id54_present);
    EXPECT_EQ(r.id54, p.id54);
  }
}

TEST(WriterParcer, StorageIsCutAt255Characters) {
  std::string name(300, 's');
  name[254] = 'e';
  Parsed p(Doc(Setting("storage", "\"" + name + "\"")).c_str());
  EXPECT_EQ(name.substr(0, 255), Text(p.storage));
}

TEST(WriterParcer, EventListTakesNumbersAndEndsWithTheForcedPair) {
  struct Row {
    const char* text;
    std::vector<int> ids;
  } rows[] = {
      {"1,2,3", {1, 2, 3, 60030, -60031}},
      {"5,\"x\",2.5,null", {5, 0, 60030, -60031}},
      {"\"only text\"", {60030, -60031}},
      {"", {}},
      {"1,,2", {}},
      {"]", {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    CListOur list;
    ParseEventList(r.text, &list);
    std::vector<int> ids;
    for (int i = 0; i < list.m_i_count; i++) {
      const TEventElem* e = static_cast<const TEventElem*>(CListOurGet(&list, i));
      ids.push_back(e->event);
      if (e->stop_event != 0) ids.push_back(-e->stop_event);
      EXPECT_EQ(e->event == 60030 ? 1 : 0, e->forced);
    }
    EXPECT_EQ(r.ids, ids);
    EventListClear(&list);
  }
}

TEST(WriterParcer, Key2IsReadFromTheTopLevelOnly) {
  SafeString out;
  ParseKey2(R"({"key2":"cam7","common":{"key2":"other"}})", &out);
  EXPECT_EQ("cam7", Text(out));
  ParseKey2(R"({"common":{"key2":"other"}})", &out);
  ParseKey2("not json", &out);
  ParseKey2(nullptr, &out);
  EXPECT_EQ("cam7", Text(out));
}

}  // namespace
