// The web-service front: "request" on "trackWsListMethods" and calls on
// "plugin_methods_writer", with elements of any name (null ones too) and
// type.
#include "fuzz/fuzz_bus.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get();
  static fuzz::MessageBuilder s_builder(
      {"cmd", "method", "params", "check_alive", "owner_data", "timeout", "json"},
      {"call", "request", "result", "stop", "vers", "GetStatus", "events_register", "GetError", "help",
       R"({"view":"buffer_fill"})", R"({"object_id":{"key1":"a","key2":"b"}})", ""},
      true);
  fuzz::Input in(data, size);
  fuzz::SendMessages((in.Byte() & 7) == 0 ? "trackWsListMethods" : "plugin_methods_writer", &s_builder, &in);
  p.Tick();
  return 0;
}
