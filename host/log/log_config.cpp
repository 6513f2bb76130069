// Thresholds of the reference logging library: defaults and the parser of
// the configuration file (format in include/host/log_api.h).
#include "host/log/log_config.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

const int64_t LEVEL_ON = 5000;
const int64_t LEVEL_COMMON = 20000;
// Above every level the plug-in's trace functions write with.
const int64_t LEVEL_OFF = 30000;

std::string Trim(const std::string& s_av) {
  const char* s_blanks_lv = " \t\r\n\v\f";
  size_t ui_first_lv = s_av.find_first_not_of(s_blanks_lv);
  if (ui_first_lv == std::string::npos) return std::string();
  size_t ui_last_lv = s_av.find_last_not_of(s_blanks_lv);
  return s_av.substr(ui_first_lv, ui_last_lv - ui_first_lv + 1);
}

bool ParseLevel(const std::string& s_av, int64_t* p_out_av) {
  if (s_av.empty()) return false;
  errno = 0;
  char* p_end_lv = nullptr;
  long long i64_lv = strtoll(s_av.c_str(), &p_end_lv, 10);
  if (errno != 0 || p_end_lv == s_av.c_str() || *p_end_lv != 0) return false;
  *p_out_av = i64_lv;
  return true;
}

bool ValidName(const std::string& s_av) {
  if (s_av.empty()) return false;
  return s_av.find_first_of(" \t=") == std::string::npos;
}

// One line; false when it is neither empty, a comment nor "name = level".
bool ParseLine(LogThresholds* p_table_av, const std::string& s_raw_av) {
  std::string s_line_lv = Trim(s_raw_av.substr(0, s_raw_av.find('#')));
  if (s_line_lv.empty()) return true;
  size_t ui_eq_lv = s_line_lv.find('=');
  if (ui_eq_lv == std::string::npos) return false;
  std::string s_name_lv = Trim(s_line_lv.substr(0, ui_eq_lv));
  int64_t i64_level_lv = 0;
  if (!ValidName(s_name_lv) || !ParseLevel(Trim(s_line_lv.substr(ui_eq_lv + 1)), &i64_level_lv)) return false;
  if (s_name_lv == "*")
    p_table_av->m_i64_other = i64_level_lv;
  else
    p_table_av->m_named[s_name_lv] = i64_level_lv;
  return true;
}

}  // namespace

void LogThresholdsDefaults(LogThresholds* p_table_av) {
  p_table_av->m_named.clear();
  p_table_av->m_named["arc"] = LEVEL_ON;
  p_table_av->m_named["arc.tracedecim"] = LEVEL_ON;
  p_table_av->m_named["arc.load"] = LEVEL_ON;
  p_table_av->m_named["arc.interf"] = LEVEL_ON;
  p_table_av->m_named["arc.common"] = LEVEL_ON;
  p_table_av->m_named["common"] = LEVEL_COMMON;
  p_table_av->m_named["arc.trace"] = LEVEL_OFF;
  p_table_av->m_named["arc.transf"] = LEVEL_OFF;
  p_table_av->m_i64_other = LEVEL_ON;
}

void LogThresholdsParse(LogThresholds* p_table_av, const std::string& s_text_av, const char* s_source_av) {
  std::istringstream in_lv(s_text_av);
  std::string s_line_lv;
  int i_number_lv = 0;
  while (std::getline(in_lv, s_line_lv)) {
    i_number_lv++;
    if (!ParseLine(p_table_av, s_line_lv))
      fprintf(stderr, "log: %s:%d: bad line skipped: %s\n", s_source_av, i_number_lv, s_line_lv.c_str());
  }
}

bool LogThresholdsReadFile(LogThresholds* p_table_av, const char* s_path_av) {
  std::ifstream in_lv(s_path_av, std::ios::binary);
  if (!in_lv) {
    fprintf(stderr, "log: cannot read configuration %s\n", s_path_av);
    return false;
  }
  std::ostringstream text_lv;
  text_lv << in_lv.rdbuf();
  LogThresholdsParse(p_table_av, text_lv.str(), s_path_av);
  return true;
}

int64_t LogThresholdOf(const LogThresholds* p_table_av, const std::string& s_name_av) {
  auto it_lv = p_table_av->m_named.find(s_name_av);
  return it_lv != p_table_av->m_named.end() ? it_lv->second : p_table_av->m_i64_other;
}
