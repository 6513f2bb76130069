// libwriter.so loaded once per fuzz process beside the reference bus, log
// and archive, as the tests load it, with one camera (keys a/b/c, media
// track "a_b_c_t", status track "a_b_c") opened and started. Every few
// thousand inputs the plug-in is taken down and brought up again with an
// empty archive and emptied log files, so that what the inputs leave behind
// (open events, sessions, stored frames, log lines) cannot grow without
// bound over a long run.
#pragma once

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "include/host/core_api.h"
#include "include/host/log_api.h"
#include "include/host/plugin_api.h"
#include "tests/test_plugin_host.h"

namespace fuzz {

// A camera that records always; extra writer settings may follow "in".
inline std::string CameraDocument(const std::string& extra) {
  return R"({"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{)"
         R"("arc_key1":{"_value":"A"},"arc_key2":{"_value":"B"},"arc_key3":{"_value":"C"},)"
         R"("in":{"_value":"t"})" +
         extra + "}}}";
}

class Plugin {
 public:
  // The one plug-in of the process; camera_extra is used at every bring-up.
  static Plugin& Get(const std::string& camera_extra = "") {
    static Plugin* p = new Plugin(camera_extra);
    return *p;
  }

  // Counts an input and recycles the plug-in when enough have gone by.
  void Tick() {
    if (++m_count % kRecycleEvery == 0) {
      Down();
      Up();
    }
  }

  void* Pair() const { return m_pair; }
  const std::string& Dir() const { return m_dir; }

  DllInitFn dll_init = nullptr;
  DllFreeFn dll_free = nullptr;
  PluginOpenFn plugin_open = nullptr;
  PluginCloseFn plugin_close = nullptr;
  DllExecFn dll_exec = nullptr;
  PluginExecFn plugin_exec = nullptr;

 private:
  static const int kRecycleEvery = 4000;

  explicit Plugin(const std::string& camera_extra) : m_extra(camera_extra) {
    char dir[] = "/tmp/writer_fuzz_XXXXXX";
    if (mkdtemp(dir) == nullptr) Die("mkdtemp");
    m_dir = dir;
    m_archive = dlopen(WRITER_BIN_DIR "/libwarchive.so", RTLD_NOW | RTLD_LOCAL);
    m_log = dlopen(WRITER_BIN_DIR "/liblog.so", RTLD_NOW | RTLD_LOCAL);
    if (m_archive == nullptr || m_log == nullptr) Die(dlerror());
    m_lib = LoadPluginBeside(m_archive, m_log, m_dir, "");
    if (m_lib == nullptr) Die("libwriter.so");
    dll_init = Sym<DllInitFn>(m_lib, "dll_init");
    dll_free = Sym<DllFreeFn>(m_lib, "dll_free");
    plugin_open = Sym<PluginOpenFn>(m_lib, "plugin_open");
    plugin_close = Sym<PluginCloseFn>(m_lib, "plugin_close");
    dll_exec = Sym<DllExecFn>(m_lib, "dll_exec");
    plugin_exec = Sym<PluginExecFn>(m_lib, "plugin_exec");
    ProfileCallback cb = {this, reinterpret_cast<void*>(&Swallow)};
    m_h_status = profile_open("a_b_c", &cb, __FILE__, __LINE__);
    Up();
    atexit(&AtExit);
  }

  void Up() {
    if (dll_init() != 0) Die("dll_init");
    std::string doc = CameraDocument(m_extra);
    ProfileParam open[] = {{PP_STRING, "json", const_cast<char*>(doc.c_str())}, {PP_END, nullptr, nullptr}};
    m_pair = plugin_open(open);
    if (m_pair == nullptr) Die("plugin_open");
    int32_t any = 0;
    ProfileParam start[] = {{PP_INT32, "start", &any}, {PP_END, nullptr, nullptr}};
    plugin_exec(m_pair, start);
  }

  void Down() {
    plugin_close(m_pair);
    m_pair = nullptr;
    dll_free();
    Sym<void (*)()>(m_archive, "archive_reset")();
    if (system(("rm -rf " + m_dir + "/arc && for f in " + m_dir + "/log/*; do : > \"$f\"; done").c_str()) != 0)
      Die("clean-up");
    std::string config = "{\"root\":\"" + m_dir + "/arc\"}";
    Sym<int32_t (*)(const char*)>(m_archive, "archive_configure")(config.c_str());
  }

  static void AtExit() {
    Plugin& p = Get();
    if (system(("rm -rf " + p.m_dir).c_str()) != 0) fprintf(stderr, "could not remove %s\n", p.m_dir.c_str());
  }

  static void Swallow(void*, ProfileParam*) {}

  [[noreturn]] static void Die(const char* what) {
    fprintf(stderr, "fuzz set-up failed: %s\n", what);
    abort();
  }

  std::string m_extra;
  std::string m_dir;
  void* m_archive = nullptr;
  void* m_log = nullptr;
  void* m_lib = nullptr;
  void* m_pair = nullptr;
  TrackHandle m_h_status = 0;
  uint64_t m_count = 0;
};

}  // namespace fuzz
