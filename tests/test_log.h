// Reading back what the plug-in logged.
#pragma once

#include <dlfcn.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "include/host/core_api.h"
#include "include/host/log_api.h"
#include "linux/common_use/service/service2.h"
#include "tests/test_text_util.h"

namespace writer_test {

// The reference log library behind the plug-in's loggers, its files in
// `dir`; `conf` turns on more levels ("arc.trace = 5000").
class TestLog {
 public:
  void Open(const std::string& dir, const std::string& conf = "") {
    m_dir = dir;
    m_lib = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, m_lib) << dlerror();
    std::string path = dir + "/log.conf";
    if (!conf.empty()) std::ofstream(path) << conf;
    auto configure = reinterpret_cast<LogConfigureFn>(dlsym(m_lib, "log_configure"));
    ASSERT_EQ(0, configure(dir.c_str(), conf.empty() ? nullptr : path.c_str()));
    core_set_path("log-1", WRITER_BIN_DIR "/liblog.so");
    LogDllLoad();
  }
  void Close() {
    if (m_lib == nullptr) return;
    LogDllUnload();
    core_set_path("log-1", nullptr);
    dlclose(m_lib);
    m_lib = nullptr;
  }
  std::string Read(const char* name) const { return ReadAll(m_dir + "/" + name + ".log"); }

 private:
  std::string m_dir;
  void* m_lib = nullptr;
};

}  // namespace writer_test
