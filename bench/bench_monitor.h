// The memory checker and the stability monitor as dll_init makes them, for a
// benchmark program: the monitor's three files go beside the program under
// its own name, and are removed again at the end.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_os.h"

namespace bench {

class MonitorWorld {
 public:
  // name: the program's name, which names the files ("bench_base").
  void Up(const char* name) {
    m_name = name;
    char exe[512];
    if (PlExePath(exe, sizeof(exe)) > 0) {
      m_dir = exe;
      m_dir = m_dir.substr(0, m_dir.rfind('/'));
    }
    g_p_mem_checker = new MemChecker();
    snprintf(g_s_plugin_path, sizeof(g_s_plugin_path), "/%s", name);
    g_p_stable = static_cast<StableObject*>(calloc(1, sizeof(StableObject)));
    StableStart();
  }

  void Down() {
    StableStop();
    free(g_p_stable);
    g_p_stable = nullptr;
    delete g_p_mem_checker;
    g_p_mem_checker = nullptr;
    if (m_dir.empty()) return;
    for (const char* sub : {"stable", "cpu", "memory"}) {
      std::remove((m_dir + "/" + sub + "/" + m_name + ".log").c_str());
      std::remove((m_dir + "/" + sub).c_str());  // only when empty
    }
  }

 private:
  std::string m_name;
  std::string m_dir;
};

}  // namespace bench
