// Parsing of the archive's JSON configuration (keys in FORMAT.md).
// Called by archive_configure through arc_main.
#include "host/archive/arc_config.h"

#include <yajl/yajl_tree.h>

#include <cstring>

#include "platform/pl_os.h"

namespace warc {

std::string ArcConfig::StoragePath(int64_t i64_storage_id_av) const {
  auto it_lv = m_storages.find(i64_storage_id_av);
  if (it_lv != m_storages.end()) return it_lv->second;
  return m_s_root + "/storage_" + std::to_string(i64_storage_id_av);
}

ArcConfig DefaultConfig() {
  ArcConfig config_lv;
  char s_exe_lv[4096];
  size_t ui_len_lv = PlExePath(s_exe_lv, sizeof(s_exe_lv));
  std::string s_dir_lv = ui_len_lv > 0 ? std::string(s_exe_lv, ui_len_lv) : std::string("./x");
  size_t ui_slash_lv = s_dir_lv.rfind('/');
  s_dir_lv = ui_slash_lv == std::string::npos ? std::string(".") : s_dir_lv.substr(0, ui_slash_lv);
  config_lv.m_s_root = s_dir_lv + "/archive_data";
  return config_lv;
}

namespace {

// One integer key: its JSON name, where it goes, the least value allowed,
// and the scale from the unit of the text to the stored unit.
struct IntKey {
  const char* m_s_name;
  int64_t ArcConfig::*m_p_field;
  int64_t m_i64_min;
  int64_t m_i64_scale;
};

const IntKey g_int_keys[] = {
    {"segment_max_bytes", &ArcConfig::m_i64_segment_max_bytes, 1024, 1},
    {"segment_max_seconds", &ArcConfig::m_i64_segment_max_ticks, 1, 10000000},
    {"max_frame_bytes", &ArcConfig::m_i64_max_frame_bytes, 1, 1},
    {"increase_write_buffers", &ArcConfig::m_b_increase_write_buffers, 0, 1},
    {"max_buffers_bytes", &ArcConfig::m_i64_max_buffers_bytes, 0, 1},
    {"restart_stalled", &ArcConfig::m_b_restart_stalled, 0, 1},
    {"audio_not_key", &ArcConfig::m_b_audio_not_key, 0, 1},
    {"slot_ms", &ArcConfig::m_i64_slot_ticks, 1, 10000},
    {"slot_count", &ArcConfig::m_i_slot_count, 1, 1},
    {"depth_check_seconds", &ArcConfig::m_i64_depth_check_ticks, 0, 10000000},
    {"ready_delay_ms", &ArcConfig::m_i64_ready_delay_ticks, 0, 10000},
};

bool ParseStorages(yajl_val p_list_av, ArcConfig* p_out_av, std::string* s_error_av) {
  if (!YAJL_IS_ARRAY(p_list_av)) {
    *s_error_av = "\"storages\" must be an array";
    return false;
  }
  for (size_t ui_lv = 0; ui_lv < p_list_av->u.array.len; ui_lv++) {
    yajl_val p_item_lv = p_list_av->u.array.values[ui_lv];
    const char* pp_id_lv[] = {"id", nullptr};
    const char* pp_path_lv[] = {"path", nullptr};
    yajl_val p_id_lv = yajl_tree_get(p_item_lv, pp_id_lv, yajl_t_number);
    yajl_val p_path_lv = yajl_tree_get(p_item_lv, pp_path_lv, yajl_t_string);
    if (p_id_lv == nullptr || !YAJL_IS_INTEGER(p_id_lv) || p_path_lv == nullptr ||
        YAJL_GET_STRING(p_path_lv)[0] == 0) {
      *s_error_av = "each storage needs an integer \"id\" and a non-empty \"path\"";
      return false;
    }
    p_out_av->m_storages[YAJL_GET_INTEGER(p_id_lv)] = YAJL_GET_STRING(p_path_lv);
  }
  return true;
}

bool ParseKey(const char* s_key_av, yajl_val p_val_av, ArcConfig* p_out_av, std::string* s_error_av) {
  if (strcmp(s_key_av, "root") == 0) {
    if (!YAJL_IS_STRING(p_val_av) || YAJL_GET_STRING(p_val_av)[0] == 0) {
      *s_error_av = "\"root\" must be a non-empty text";
      return false;
    }
    p_out_av->m_s_root = YAJL_GET_STRING(p_val_av);
    return true;
  }
  if (strcmp(s_key_av, "storages") == 0) return ParseStorages(p_val_av, p_out_av, s_error_av);
  if (strcmp(s_key_av, "sync") == 0) {
    if (!YAJL_IS_TRUE(p_val_av) && !YAJL_IS_FALSE(p_val_av)) {
      *s_error_av = "\"sync\" must be true or false";
      return false;
    }
    p_out_av->m_b_sync = YAJL_IS_TRUE(p_val_av);
    return true;
  }
  for (const IntKey& key_lv : g_int_keys) {
    if (strcmp(s_key_av, key_lv.m_s_name) != 0) continue;
    if (!YAJL_IS_INTEGER(p_val_av) || YAJL_GET_INTEGER(p_val_av) < key_lv.m_i64_min ||
        YAJL_GET_INTEGER(p_val_av) > INT64_MAX / key_lv.m_i64_scale) {
      *s_error_av = std::string("\"") + s_key_av + "\" must be an integer of at least " +
                    std::to_string(key_lv.m_i64_min);
      return false;
    }
    p_out_av->*key_lv.m_p_field = YAJL_GET_INTEGER(p_val_av) * key_lv.m_i64_scale;
    return true;
  }
  *s_error_av = std::string("unknown key \"") + s_key_av + "\"";
  return false;
}

}  // namespace

bool ParseConfig(const char* s_json_av, ArcConfig* p_out_av, std::string* s_error_av) {
  char s_yajl_err_lv[256] = {0};
  yajl_val p_root_lv = yajl_tree_parse(s_json_av, s_yajl_err_lv, sizeof(s_yajl_err_lv));
  if (p_root_lv == nullptr) {
    // The parser's message spans lines; the first says enough.
    std::string s_msg_lv = s_yajl_err_lv;
    size_t ui_nl_lv = s_msg_lv.find('\n');
    if (ui_nl_lv != std::string::npos) s_msg_lv.resize(ui_nl_lv);
    *s_error_av = "not valid JSON: " + s_msg_lv;
    return false;
  }
  ArcConfig config_lv = *p_out_av;
  bool b_ok_lv = YAJL_IS_OBJECT(p_root_lv);
  if (!b_ok_lv) *s_error_av = "the configuration must be a JSON object";
  for (size_t ui_lv = 0; b_ok_lv && ui_lv < p_root_lv->u.object.len; ui_lv++)
    b_ok_lv = ParseKey(p_root_lv->u.object.keys[ui_lv], p_root_lv->u.object.values[ui_lv], &config_lv, s_error_av);
  yajl_tree_free(p_root_lv);
  if (b_ok_lv) *p_out_av = config_lv;
  return b_ok_lv;
}

}  // namespace warc
