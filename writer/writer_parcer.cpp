// The configuration document: template, language table and the reader.
// The reader has no schema: every key is looked up by its path, and a key
// that is missing or of another type leaves the caller's default in place.
#include "writer/writer_parcer.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "linux/common_use/service/service4.h"
#include "linux/common_use/yajl_host.h"
#include "platform/pl_os.h"
#include "writer/writer_by_event.h"

// GCC says AddressSanitizer is on with a macro, clang through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define WRITER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WRITER_ASAN 1
#endif
#endif

#if defined(WRITER_ASAN)
#include <sanitizer/lsan_interface.h>
#endif

const char* const S_FISH_TYPES = "{\"writer\":[\"profiles\"]}";

#define FISH_DAY(name) "\"" name "\":[{\"begin\":\" 0 : 00 \",\"end\":\" 24 : 00 \"}]"
#define FISH_SETTING(name, level, value) "\"" name "\":{\"_level\":" #level ",\"_value\":" value "}"

const char* const S_FISH =
    "{\"common\":{\"key1\":\"host\",\"key2\":\"4201\",\"key3\":\"key3\",\"enable\":\"1\",\"_typeJS\":\"profiles\"},"
    "\"archive\":{\"_name\":{\"_level\":0,\"_value\":\"archive\"},"
    "\"writer\":{" FISH_SETTING("in", 0, "\"trackSource\"") "," FISH_SETTING("by_events", 0, "false") ","
    FISH_SETTING("events", 1,
                 "\"20001,20008,20009,20010,20016,20017,20026,20027,20028,20030,20034,20035,20074,20075,20076,"
                 "20078,20081,20084\"") ","
    FISH_SETTING("prev_write", 1, "0") "," FISH_SETTING("post_write", 1, "0") "," FISH_SETTING("storage", 1, "\"\"") ","
    FISH_SETTING("depth_restrict", 1, "false") "," FISH_SETTING("depth", 1, "0") ","
    "\"view_prior\":{\"_level\":1,\"_value\":0,\"_values\":[0,1,2]},"
    FISH_SETTING("only_key_frame", 1, "false") "," FISH_SETTING("arc_key1", 3, "\"\"") ","
    FISH_SETTING("arc_key2", 3, "\"\"") "," FISH_SETTING("arc_key3", 3, "\"\"") ","
    "\"_schedule\":{\"usual\":{" FISH_DAY("monday") "," FISH_DAY("tuesday") "," FISH_DAY("wednesday") ","
    FISH_DAY("thursday") "," FISH_DAY("friday") "," FISH_DAY("saturday") "," FISH_DAY("sunday") "},"
    FISH_DAY("holidays") "," FISH_DAY("working_weekends") "},"
    "\"profiles::network_5_4::km54server::ID_54::_value\":null}}}";

#undef FISH_DAY
#undef FISH_SETTING

const char* const S_LANGUAGE_KEYS =
    "{\"archive\":\"Archive\",\"writer\":\"Writer\",\"by_events\":\"By events\",\"events\":\"Events\","
    "\"prev_write\":\"Prev write\",\"post_write\":\"Post write\",\"storage\":\"Storage\","
    "\"depth_restrict\":\"Depth Restrict\",\"only_key_frame\":\"Only Key Frame\",\"depth\":\"Depth\","
    "\"view_prior\":\"View Prior\",\"arc_key1\":\"arc_key1\",\"arc_key2\":\"arc_key2\",\"arc_key3\":\"arc_key3\","
    "\"true\":\"Yes\",\"false\":\"No\"}";

namespace {

const int32_t I_SIGN_PARSE = 4201;
const size_t UI_ERRBUF_SIZE = 1024;

// A missing node is told on standard output, not in the log, with the
// first component of its path.
void PrintNoSuchNode(const char* s_first_av) {
  char s_line_lv[64];
  FormatStr(s_line_lv, sizeof(s_line_lv), "no such node: %s\n", s_first_av);
  PlStdoutWrite(s_line_lv, strlen(s_line_lv));
}

// The text at the path, or null when absent or not a string.
const char* TextAt(yajl_val root_av, const char* s_a_av, const char* s_b_av, const char* s_c_av,
                   const char* s_d_av) {
  const char* path_lv[] = {s_a_av, s_b_av, s_c_av, s_d_av, nullptr};
  yajl_val node_lv = yajl_tree_get(root_av, path_lv, yajl_t_string);
  return node_lv != nullptr ? YAJL_GET_STRING(node_lv) : nullptr;
}

// A common key: absent or not a string is told, with "common".
void ReadCommonKey(yajl_val root_av, const char* s_key_av, SafeString* p_out_av, bool b_tell_av) {
  const char* s_lv = TextAt(root_av, "common", s_key_av, nullptr, nullptr);
  if (s_lv == nullptr) {
    if (b_tell_av) PrintNoSuchNode("common");
    return;
  }
  SafeStringAssign(p_out_av, s_lv, I_SIGN_PARSE);
}

yajl_val WriterValue(yajl_val root_av, const char* s_key_av, yajl_type type_av) {
  const char* path_lv[] = {"archive", "writer", s_key_av, "_value", nullptr};
  return yajl_tree_get(root_av, path_lv, type_av);
}

// A number read through its text as a 32-bit long: the fraction is cut and
// a value out of range stays at the 32-bit limit. Absent: false.
bool ReadNumber(yajl_val root_av, const char* s_key_av, int32_t* p_out_av) {
  yajl_val node_lv = WriterValue(root_av, s_key_av, yajl_t_number);
  if (node_lv == nullptr || YAJL_GET_NUMBER(node_lv) == nullptr) return false;
  long long i64_lv = strtoll(YAJL_GET_NUMBER(node_lv), nullptr, 10);
  if (i64_lv > INT32_MAX) i64_lv = INT32_MAX;
  if (i64_lv < INT32_MIN) i64_lv = INT32_MIN;
  *p_out_av = static_cast<int32_t>(i64_lv);
  return true;
}

void ReadNumber64(yajl_val root_av, const char* s_key_av, int64_t* p_out_av) {
  int32_t i_lv = 0;
  if (ReadNumber(root_av, s_key_av, &i_lv)) *p_out_av = i_lv;
}

// Only a JSON true sets the flag; anything else leaves it.
void ReadFlag(yajl_val root_av, const char* s_key_av, int32_t* p_out_av) {
  if (YAJL_IS_TRUE(WriterValue(root_av, s_key_av, yajl_t_any))) *p_out_av = 1;
}

// Arc key i given with at least one character: true.
bool ReadArcKey(yajl_val root_av, const char* s_key_av, SafeString* p_out_av) {
  yajl_val node_lv = WriterValue(root_av, s_key_av, yajl_t_string);
  if (node_lv == nullptr || YAJL_GET_STRING(node_lv) == nullptr) return false;
  const char* s_lv = YAJL_GET_STRING(node_lv);
  SafeStringAssign(p_out_av, s_lv, I_SIGN_PARSE);
  return s_lv[0] != 0;
}

void ReadId54(yajl_val root_av, uint32_t* p_id54_av, int32_t* p_present_av) {
  const char* path_lv[] = {"archive", "writer", "profiles::network_5_4::km54server::ID_54::_value", nullptr};
  yajl_val node_lv = yajl_tree_get(root_av, path_lv, yajl_t_array);
  if (node_lv == nullptr || node_lv->u.array.len < 1) return;
  yajl_val first_lv = node_lv->u.array.values[0];
  if (first_lv == nullptr || YAJL_IS_NULL(first_lv)) return;
  *p_id54_av = YAJL_IS_INTEGER(first_lv) ? static_cast<uint32_t>(YAJL_GET_INTEGER(first_lv)) : 0;
  *p_present_av = 1;
}

void ReadStorage(yajl_val root_av, SafeString* p_out_av) {
  yajl_val node_lv = WriterValue(root_av, "storage", yajl_t_string);
  if (node_lv == nullptr || YAJL_GET_STRING(node_lv) == nullptr) return;
  char s_cut_lv[I_STORAGE_NAME_MAX + 1];
  FormatStr(s_cut_lv, sizeof(s_cut_lv), "%s", YAJL_GET_STRING(node_lv));
  SafeStringAssign(p_out_av, s_cut_lv, I_SIGN_PARSE);
}

// Sets a string to a text, the empty text for null or an empty string.
void TextReplace(SafeString* p_dst_av, const SafeString* p_src_av) {
  SafeStringAssign(p_dst_av, p_src_av->m_p_text != nullptr ? p_src_av->m_p_text : "", I_SIGN_PARSE);
}

// Everything under archive/writer, read only for a "profiles" document.
void ReadWriterSection(yajl_val root_av, SafeString* p_arc_keys_av, const SafeString* p_common_keys_av,
                       SafeString* p_in_av, uint32_t* p_id54_av, int32_t* p_id54_present_av,
                       SafeString* p_storage_av, int32_t* p_by_events_av, CListOur* p_events_av,
                       int64_t* p_prev_write_av, int64_t* p_post_write_av, int32_t* p_view_prior_av,
                       int32_t* p_depth_restrict_av, int64_t* p_depth_av, int32_t* p_only_key_frame_av) {
  yajl_val in_lv = WriterValue(root_av, "in", yajl_t_string);
  if (in_lv != nullptr)
    SafeStringAssign(p_in_av, YAJL_GET_STRING(in_lv), I_SIGN_PARSE);
  else
    PrintNoSuchNode("archive");
  bool b_arc1_lv = ReadArcKey(root_av, "arc_key1", &p_arc_keys_av[0]);
  bool b_arc2_lv = ReadArcKey(root_av, "arc_key2", &p_arc_keys_av[1]);
  bool b_arc3_lv = ReadArcKey(root_av, "arc_key3", &p_arc_keys_av[2]);
  ReadId54(root_av, p_id54_av, p_id54_present_av);
  ReadStorage(root_av, p_storage_av);
  ReadFlag(root_av, "by_events", p_by_events_av);
  ReadNumber64(root_av, "prev_write", p_prev_write_av);
  ReadNumber64(root_av, "post_write", p_post_write_av);
  ReadNumber64(root_av, "depth", p_depth_av);
  ReadNumber(root_av, "view_prior", p_view_prior_av);
  if (*p_view_prior_av < 0) *p_view_prior_av = 0;
  if (*p_view_prior_av > 2) *p_view_prior_av = 2;
  ReadFlag(root_av, "depth_restrict", p_depth_restrict_av);
  ReadFlag(root_av, "only_key_frame", p_only_key_frame_av);
  yajl_val events_lv = WriterValue(root_av, "events", yajl_t_string);
  if (events_lv != nullptr) ParseEventList(YAJL_GET_STRING(events_lv), p_events_av);
  // Arc keys are all or nothing: a partial set names no camera, so the
  // track keys stand in for all five.
  if (!b_arc1_lv || !b_arc2_lv || !b_arc3_lv)
    for (int i_lv = 0; i_lv < 5; i_lv++) TextReplace(&p_arc_keys_av[i_lv], &p_common_keys_av[i_lv]);
}

}  // namespace

void ParseWriterConfig(const char* s_json_av, SafeString* p_arc_keys_av, SafeString* p_common_keys_av,
                       SafeString* p_in_av, uint32_t* p_id54_av, int32_t* p_id54_present_av,
                       SafeString* p_storage_av, int32_t* p_by_events_av, CListOur* p_events_av,
                       int64_t* p_prev_write_av, int64_t* p_post_write_av, int32_t* p_view_prior_av,
                       int32_t* p_depth_restrict_av, int64_t* p_depth_av, int32_t* p_only_key_frame_av,
                       int32_t* p_is_profiles_av) {
  *p_id54_present_av = 0;
  *p_is_profiles_av = 0;
  *p_by_events_av = 0;
  *p_view_prior_av = 0;
  char s_errbuf_lv[UI_ERRBUF_SIZE];
  yajl_val root_lv = YAJL_TREE_PARSE(s_json_av, s_errbuf_lv, sizeof(s_errbuf_lv));
  if (root_lv == nullptr) return;
  ReadCommonKey(root_lv, "key1", &p_common_keys_av[0], true);
  ReadCommonKey(root_lv, "key2", &p_common_keys_av[1], true);
  ReadCommonKey(root_lv, "key3", &p_common_keys_av[2], true);
  ReadCommonKey(root_lv, "key4", &p_common_keys_av[3], false);
  const char* s_type_lv = TextAt(root_lv, "common", "_typeJS", nullptr, nullptr);
  if (s_type_lv == nullptr) PrintNoSuchNode("common");
  if (s_type_lv != nullptr && strcmp(s_type_lv, "profiles") == 0) *p_is_profiles_av = 1;
  if (*p_is_profiles_av != 0)
    ReadWriterSection(root_lv, p_arc_keys_av, p_common_keys_av, p_in_av, p_id54_av, p_id54_present_av,
                      p_storage_av, p_by_events_av, p_events_av, p_prev_write_av, p_post_write_av,
                      p_view_prior_av, p_depth_restrict_av, p_depth_av, p_only_key_frame_av);
  yajl_tree_free(root_lv);
}

void ParseEventList(const char* s_text_av, CListOur* p_events_av) {
  if (s_text_av == nullptr) return;
  size_t ui_len_lv = strlen(s_text_av);
  if (ui_len_lv > 0x7FFFFF00u) return;
  char* s_doc_lv = nullptr;
  SAFE_MEM_ALLOCB5(s_doc_lv, static_cast<int32_t>(ui_len_lv + 3), I_SIGN_PARSE);
  if (s_doc_lv == nullptr) return;
  s_doc_lv[0] = '[';
  memcpy(s_doc_lv + 1, s_text_av, ui_len_lv);
  s_doc_lv[ui_len_lv + 1] = ']';
  s_doc_lv[ui_len_lv + 2] = 0;
  char s_errbuf_lv[UI_ERRBUF_SIZE];
  yajl_val root_lv = YAJL_TREE_PARSE(s_doc_lv, s_errbuf_lv, sizeof(s_errbuf_lv));
  SAFE_MEM_FREE(s_doc_lv);
  if (root_lv == nullptr) return;
  if (!YAJL_IS_ARRAY(root_lv) || root_lv->u.array.len < 1) {
    // The tree of an empty list is left allocated, as it always was; the
    // leak checker is told that this is known.
#if defined(WRITER_ASAN)
    __lsan_ignore_object(root_lv);
    if (YAJL_IS_ARRAY(root_lv)) __lsan_ignore_object(root_lv->u.array.values);
#endif
    return;
  }
  for (size_t i_lv = 0; i_lv < root_lv->u.array.len; i_lv++) {
    yajl_val elem_lv = root_lv->u.array.values[i_lv];
    if (!YAJL_IS_NUMBER(elem_lv)) continue;
    int32_t i_id_lv = YAJL_IS_INTEGER(elem_lv) ? static_cast<int32_t>(YAJL_GET_INTEGER(elem_lv)) : 0;
    EventListAdd(p_events_av, i_id_lv, 0);
  }
  EventListAdd(p_events_av, I_EVENT_FORCED, I_EVENT_FORCED_STOP);
  yajl_tree_free(root_lv);
}

void ParseKey2(const char* s_json_av, SafeString* p_out_av) {
  if (s_json_av == nullptr) return;
  char s_errbuf_lv[UI_ERRBUF_SIZE];
  yajl_val root_lv = YAJL_TREE_PARSE(s_json_av, s_errbuf_lv, sizeof(s_errbuf_lv));
  if (root_lv == nullptr) return;
  const char* path_lv[] = {"key2", nullptr};
  yajl_val node_lv = yajl_tree_get(root_lv, path_lv, yajl_t_string);
  if (node_lv != nullptr) SafeStringAssign(p_out_av, YAJL_GET_STRING(node_lv), I_SIGN_PARSE);
  yajl_tree_free(root_lv);
}
