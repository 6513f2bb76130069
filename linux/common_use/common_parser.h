// The parameters of a query: what an operator's JSON text asks for. The
// query dispatch fills a TQueryParams with three parses of the same text
// (head, filter and kept values, the values of the commands) and chooses
// the query by its name. A name given with another JSON type counts as
// absent, and a null or broken text leaves every default in place.
#pragma once

#include <cstdint>

#include "linux/common_use/temp/tools.h"

// The five key slots of the filter; the query language sets four of them.
const int32_t I_QUERY_KEYS = 5;

// Local to one query.
struct TQueryParams {
  TQueryParams();
  ~TQueryParams();
  TQueryParams(const TQueryParams&) = delete;
  TQueryParams& operator=(const TQueryParams&) = delete;

  SafeString m_s_query_id;
  SafeString m_s_view;  // "short" unless given
  int32_t m_b_help;     // the empty name was given: the text asks for help
  int32_t m_b_hash;     // "hash" was given
  SafeString m_s_hash;
  SafeString m_s_univ_cmd;
  SafeString m_s_keys[I_QUERY_KEYS];  // the filter; an empty key matches anything
  int32_t m_b_keys[I_QUERY_KEYS];     // 1 for a key given and not empty
  int64_t m_i64_ignore_arc_key3;
  SafeString m_s_begin;
  SafeString m_s_end;
  int32_t m_b_begin_end;  // both "begin" and "end" were given
  int64_t m_i64_longer;   // ticks
  int64_t m_i64_size;     // bytes
  int32_t m_b_size;
  SafeString m_s_topic;
  SafeString m_s_directory;
  SafeString m_s_type;
  SafeString m_s_value;  // work modes and the log status queries
  SafeString m_s_scale;  // "traffic_params"
  SafeString m_s_storage;
};

// "query_id", "view", the help flag (a string under the empty name), "hash"
// and "univ_cmd".
void ParseQueryHead(const char* s_json_av, SafeString* p_query_id_av, SafeString* p_view_av, int32_t* p_b_help_av,
                    int32_t* p_b_hash_av, SafeString* p_hash_av, SafeString* p_univ_cmd_av);
// The filter keys (under "object_id", keys 1 to 3 falling back to the top
// level), "ignore_arc_key3", "begin"/"end", "longer", "size", "topic",
// "directory" and "type".
void ParseQueryParams(const char* s_json_av, TQueryParams* p_params_av);
// "value", "scale" and "storage".
void ParseQueryValues(const char* s_json_av, TQueryParams* p_params_av);
