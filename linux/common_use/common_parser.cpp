// Reads the parameters of a query from its JSON text for the query
// dispatch. Every parse makes and frees its own tree; a value is taken only
// when its JSON type is the one the name stands for.
#include "linux/common_use/common_parser.h"

#include <cstdlib>

#include "linux/common_use/service/service2.h"
#include "linux/common_use/yajl_host.h"

namespace {

const int32_t I_SIGN_QUERY = 5201;
const size_t UI_ERRBUF_SIZE = 1024;
const int64_t I64_TICKS_PER_SECOND = 10000000LL;
const int64_t I64_BYTES_PER_GIGABYTE = 1LL << 30;

// Only the first parse tells of a broken text; the other two would only
// repeat it.
yajl_val ParseTree(const char* s_json_av, bool b_tell_av) {
  if (s_json_av == nullptr) return nullptr;
  char s_errbuf_lv[UI_ERRBUF_SIZE];
  s_errbuf_lv[0] = 0;
  yajl_val root_lv = YAJL_TREE_PARSE(s_json_av, s_errbuf_lv, sizeof(s_errbuf_lv));
  if (root_lv == nullptr && b_tell_av)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<query> json of the query not parsed, defaults taken: %s", s_errbuf_lv);
  return root_lv;
}

yajl_val NodeAt(yajl_val root_av, const char* s_a_av, const char* s_b_av, yajl_type type_av) {
  const char* path_lv[] = {s_a_av, s_b_av, nullptr};
  return yajl_tree_get(root_av, path_lv, type_av);
}

// The text at the path into out; false, and out as it was, when absent.
bool ReadText(yajl_val root_av, const char* s_a_av, const char* s_b_av, SafeString* p_out_av) {
  yajl_val node_lv = NodeAt(root_av, s_a_av, s_b_av, yajl_t_string);
  if (node_lv == nullptr || YAJL_GET_STRING(node_lv) == nullptr) return false;
  SafeStringAssign(p_out_av, YAJL_GET_STRING(node_lv), I_SIGN_QUERY);
  return true;
}

// The whole part of a number; one beyond the 64-bit range stays at its
// limit.
bool ReadWhole(yajl_val root_av, const char* s_a_av, const char* s_b_av, int64_t* p_out_av) {
  yajl_val node_lv = NodeAt(root_av, s_a_av, s_b_av, yajl_t_number);
  if (node_lv == nullptr) return false;
  if (YAJL_IS_INTEGER(node_lv)) {
    *p_out_av = YAJL_GET_INTEGER(node_lv);
    return true;
  }
  double d_lv = YAJL_GET_DOUBLE(node_lv);
  if (d_lv >= 9.2233720368547758e18)
    *p_out_av = INT64_MAX;
  else if (d_lv <= -9.2233720368547758e18)
    *p_out_av = INT64_MIN;
  else
    *p_out_av = static_cast<int64_t>(d_lv);
  return true;
}

int64_t ClampedProduct(int64_t i64_value_av, int64_t i64_factor_av) {
  if (i64_value_av > INT64_MAX / i64_factor_av) return INT64_MAX;
  if (i64_value_av < INT64_MIN / i64_factor_av) return INT64_MIN;
  return i64_value_av * i64_factor_av;
}

// Keys 1 to 3 fall back to the top level; key 4 is read under "object_id"
// only.
void ReadFilter(yajl_val root_av, TQueryParams* p_av) {
  static const char* const s_names_lv[4] = {"key1", "key2", "key3", "key4"};
  for (int32_t i_lv = 0; i_lv < 4; i_lv++) {
    SafeString* p_key_lv = &p_av->m_s_keys[i_lv];
    if (!ReadText(root_av, "object_id", s_names_lv[i_lv], p_key_lv) && i_lv < 3)
      ReadText(root_av, s_names_lv[i_lv], nullptr, p_key_lv);
    p_av->m_b_keys[i_lv] = p_key_lv->m_p_text != nullptr && p_key_lv->m_p_text[0] != 0 ? 1 : 0;
  }
}

void ReadIgnoreKey3(yajl_val root_av, TQueryParams* p_av) {
  yajl_val node_lv = NodeAt(root_av, "object_id", "ignore_arc_key3", yajl_t_number);
  if (node_lv == nullptr) node_lv = NodeAt(root_av, "ignore_arc_key3", nullptr, yajl_t_number);
  if (node_lv != nullptr && YAJL_GET_NUMBER(node_lv) != nullptr)
    p_av->m_i64_ignore_arc_key3 = strtoll(YAJL_GET_NUMBER(node_lv), nullptr, 10);
}

}  // namespace

TQueryParams::TQueryParams()
    : m_b_help(0),
      m_b_hash(0),
      m_b_keys(),
      m_i64_ignore_arc_key3(0),
      m_b_begin_end(0),
      m_i64_longer(0),
      m_i64_size(0),
      m_b_size(0) {
  SafeStringAssign(&m_s_view, "short", I_SIGN_QUERY);
}

TQueryParams::~TQueryParams() {}

void ParseQueryHead(const char* s_json_av, SafeString* p_query_id_av, SafeString* p_view_av, int32_t* p_b_help_av,
                    int32_t* p_b_hash_av, SafeString* p_hash_av, SafeString* p_univ_cmd_av) {
  yajl_val root_lv = ParseTree(s_json_av, true);
  if (root_lv == nullptr) return;
  ReadText(root_lv, "query_id", nullptr, p_query_id_av);
  ReadText(root_lv, "view", nullptr, p_view_av);
  if (NodeAt(root_lv, "", nullptr, yajl_t_string) != nullptr) *p_b_help_av = 1;
  if (ReadText(root_lv, "hash", nullptr, p_hash_av)) *p_b_hash_av = 1;
  ReadText(root_lv, "univ_cmd", nullptr, p_univ_cmd_av);
  yajl_tree_free(root_lv);
}

void ParseQueryParams(const char* s_json_av, TQueryParams* p_av) {
  yajl_val root_lv = ParseTree(s_json_av, false);
  if (root_lv == nullptr) return;
  ReadFilter(root_lv, p_av);
  ReadIgnoreKey3(root_lv, p_av);
  bool b_begin_lv = ReadText(root_lv, "begin", nullptr, &p_av->m_s_begin);
  bool b_end_lv = ReadText(root_lv, "end", nullptr, &p_av->m_s_end);
  p_av->m_b_begin_end = b_begin_lv && b_end_lv ? 1 : 0;
  int64_t i64_lv = 0;
  if (ReadWhole(root_lv, "longer", nullptr, &i64_lv)) p_av->m_i64_longer = ClampedProduct(i64_lv, I64_TICKS_PER_SECOND);
  if (ReadWhole(root_lv, "size", nullptr, &i64_lv)) {
    p_av->m_i64_size = ClampedProduct(i64_lv, I64_BYTES_PER_GIGABYTE);
    p_av->m_b_size = 1;
  }
  ReadText(root_lv, "topic", nullptr, &p_av->m_s_topic);
  ReadText(root_lv, "directory", nullptr, &p_av->m_s_directory);
  ReadText(root_lv, "type", nullptr, &p_av->m_s_type);
  yajl_tree_free(root_lv);
}

void ParseQueryValues(const char* s_json_av, TQueryParams* p_av) {
  yajl_val root_lv = ParseTree(s_json_av, false);
  if (root_lv == nullptr) return;
  ReadText(root_lv, "value", nullptr, &p_av->m_s_value);
  ReadText(root_lv, "scale", nullptr, &p_av->m_s_scale);
  ReadText(root_lv, "storage", nullptr, &p_av->m_s_storage);
  yajl_tree_free(root_lv);
}
