// Small text helpers shared by the tests that read log files, archive
// listings and program output.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

// The whole file, or "" when it cannot be read.
inline std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// How often `what` stands in `text` (overlaps counted).
inline int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
  return n;
}
