// The reference host's library `core`, apart from the bus (core_tracks.cpp):
// the import table that plug-ins fill with core_dll_open, the per-thread
// hook value behind core_sethook / core_gethook, and the sibling paths that
// the host program registers with core_set_path and plug-ins ask for with
// core_get_path.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "include/host/core_api.h"

namespace {

// A thread that never set a hook reads 0: the host marks no place for it.
thread_local uint8_t t_hook = 0;

void SetHook(uint8_t value) { t_hook = value; }
uint8_t GetHook() { return t_hook; }

struct PathTable {
  std::mutex mutex;
  std::unordered_map<std::string, std::string> paths;
};

PathTable& Paths() {
  static PathTable* table = new PathTable();
  return *table;
}

void* HostFunction(const char* name) {
  if (strcmp(name, "core_sethook") == 0) return reinterpret_cast<void*>(&SetHook);
  if (strcmp(name, "core_gethook") == 0) return reinterpret_cast<void*>(&GetHook);
  return nullptr;
}

}  // namespace

extern "C" {

int core_dll_open(const char*, CoreImportRow* table) {
  if (table == nullptr) return -1;
  for (CoreImportRow* row = table; row->name != nullptr || row->slot != nullptr; ++row) {
    if (row->slot == nullptr || row->name == nullptr) continue;
    void* fn = HostFunction(row->name);
    if (fn != nullptr) *row->slot = fn;
  }
  return 0;
}

int core_dll_close(const char*) { return 0; }

char* core_get_path(const char* name, const char*, int32_t) {
  if (name == nullptr) return nullptr;
  PathTable& table = Paths();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.paths.find(name);
  if (it == table.paths.end()) return nullptr;
  char* copy = static_cast<char*>(malloc(it->second.size() + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, it->second.c_str(), it->second.size() + 1);
  return copy;
}

void core_mfree(void* p) { free(p); }

void core_set_path(const char* name, const char* path) {
  if (name == nullptr) return;
  PathTable& table = Paths();
  std::lock_guard<std::mutex> lock(table.mutex);
  if (path == nullptr) {
    table.paths.erase(name);
  } else {
    table.paths[name] = path;
  }
}

}  // extern "C"
