// The saved subscriptions (config/writer.js): a file of any content read at
// the start of a run, the list it gives written out again and read back.
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "linux/common_use/config.h"
#include "include/host/core_api.h"
#include "linux/common_use/service/log_sites.h"

namespace {

const std::string& State() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/writer_fuzz_saved_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    dir = tmpl;
    mkdir((dir + "/config").c_str(), 0755);
    core_set_path("writer", (dir + "/plugins/writer.so").c_str());
    atexit([] {
      if (system(("rm -rf " + State()).c_str()) != 0) fprintf(stderr, "could not remove %s\n", State().c_str());
    });
  }
  return dir;
}

void Write(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  fwrite(data, 1, size, f);
  fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string file = State() + "/config/writer.js";
  Write(file, data, size);
  CLogStatusList* list = new CLogStatusList();
  LogStatusLoad(list);
  SaveLogStatus(list);
  delete list;
  list = new CLogStatusList();
  LogStatusLoad(list);
  delete list;
  return 0;
}
