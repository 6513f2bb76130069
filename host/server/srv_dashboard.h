// The dashboard's static files (host/server/web/), built into writer-host
// so that the program serves them wherever it is copied to.
#pragma once

#include <cstddef>
#include <string>

struct SrvDashboardFile {
  const char* m_s_path;  // "/index.html"
  const char* m_s_type;  // its content type
  const unsigned char* m_pb_data;
  size_t m_ui_size;
};

// The file at a path, or null.
const SrvDashboardFile* SrvDashboardFind(const std::string& s_path_av);
