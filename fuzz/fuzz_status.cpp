// The camera's status track: "status" lists with "listen" counters, "get"
// markers and anything else a source may send there.
#include "fuzz/fuzz_bus.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get();
  static fuzz::MessageBuilder s_builder({"status", "listen", "get", "frame", "need"}, {"", "status"});
  fuzz::Input in(data, size);
  fuzz::SendMessages("a_b_c", &s_builder, &in);
  p.Tick();
  return 0;
}
