// Thresholds of the reference logging library: the built-in defaults and
// the small "name = threshold" configuration file. Used by log.cpp when the
// host configures the library and when a logger is opened.
#pragma once

#include <cstdint>
#include <map>
#include <string>

struct LogThresholds {
  std::map<std::string, int64_t> m_named;
  int64_t m_i64_other;  // for names that no entry gives
};

// The defaults every configuration starts from.
void LogThresholdsDefaults(LogThresholds* p_table_av);
// Applies the lines of a configuration text; bad lines are reported on
// stderr with the source name and line number, and skipped.
void LogThresholdsParse(LogThresholds* p_table_av, const std::string& s_text_av, const char* s_source_av);
// Reads and applies a configuration file; false when it cannot be read.
bool LogThresholdsReadFile(LogThresholds* p_table_av, const char* s_path_av);
int64_t LogThresholdOf(const LogThresholds* p_table_av, const std::string& s_name_av);
