// Loading libwriter_media.so on first use (see srv_media_lib.h).
#include <dlfcn.h>

#include <atomic>
#include <mutex>

#include "host/server/srv_media_lib.h"

namespace {

std::mutex g_load_mutex;
// Set once, under the mutex; read without it on every frame of a stream.
std::atomic<const SrvMediaLib*> g_p_lib{nullptr};

const SrvMediaLib* LoadFrom(const std::string& s_path_av, std::string* p_error_av) {
  void* h_lv = dlopen(s_path_av.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (h_lv == nullptr) {
    const char* s_why_lv = dlerror();
    *p_error_av = "cannot load " + s_path_av + ": " + (s_why_lv != nullptr ? s_why_lv : "?");
    return nullptr;
  }
  SrvMediaLibFn p_fn_lv = reinterpret_cast<SrvMediaLibFn>(dlsym(h_lv, "writer_media_lib"));
  if (p_fn_lv == nullptr) {
    *p_error_av = s_path_av + " has no writer_media_lib";
    dlclose(h_lv);
    return nullptr;
  }
  // Kept loaded for the rest of the process: sources and exports hold its code.
  return p_fn_lv();
}

}  // namespace

const SrvMediaLib* SrvMediaLibLoad(const std::string& s_lib_dir_av, std::string* p_error_av) {
  std::lock_guard<std::mutex> lock_lv(g_load_mutex);
  if (const SrvMediaLib* p_lib_lv = g_p_lib.load()) return p_lib_lv;
  const char* NAME = "libwriter_media.so";
  std::string s_first_error_lv, s_error_lv;
  const SrvMediaLib* p_lib_lv = nullptr;
  if (!s_lib_dir_av.empty()) p_lib_lv = LoadFrom(s_lib_dir_av + "/" + NAME, &s_first_error_lv);
  // A program built beside the module (the tests) finds it by its run path.
  if (p_lib_lv == nullptr) p_lib_lv = LoadFrom(NAME, &s_error_lv);
  if (p_lib_lv == nullptr) *p_error_av = s_first_error_lv.empty() ? s_error_lv : s_first_error_lv;
  g_p_lib.store(p_lib_lv);
  return p_lib_lv;
}

const SrvMediaLib* SrvMediaLibLoaded() { return g_p_lib.load(); }
