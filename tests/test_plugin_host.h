// For the tests that drive libwriter.so in-process beside the reference
// host's libraries: configures the archive (rooted in DIR/arc) and the log
// (DIR/log), registers their paths on the bus and loads the plug-in.
#pragma once

#include <dlfcn.h>

#include <string>

#include "include/host/core_api.h"
#include "include/host/log_api.h"

template <typename T>
T Sym(void* lib, const char* name) {
  return reinterpret_cast<T>(dlsym(lib, name));
}

// The plug-in's handle, or null when a step failed (the step is printed).
inline void* LoadPluginBeside(void* archive_lib, void* log_lib, const std::string& dir,
                              const std::string& archive_extra) {
  std::string config = "{\"root\":\"" + dir + "/arc\"" + archive_extra + "}";
  if (Sym<int32_t (*)(const char*)>(archive_lib, "archive_configure")(config.c_str()) != 0) {
    fprintf(stderr, "archive_configure refused %s\n", config.c_str());
    return nullptr;
  }
  if (Sym<LogConfigureFn>(log_lib, "log_configure")((dir + "/log").c_str(), nullptr) != 0) {
    fprintf(stderr, "log_configure refused %s/log\n", dir.c_str());
    return nullptr;
  }
  core_set_path("archive", WRITER_BIN_DIR "/libwarchive.so");
  core_set_path("log-1", WRITER_BIN_DIR "/liblog.so");
  void* lib = dlopen(WRITER_BIN_DIR "/libwriter.so", RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) fprintf(stderr, "%s\n", dlerror());
  return lib;
}
