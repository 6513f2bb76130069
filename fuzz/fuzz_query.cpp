// Operators' queries: the whole input is the "json" text of a dll_exec call
// with an "exec" callback, asked of a plug-in with one started camera.
#include "fuzz/fuzz_plugin.h"

namespace {
void Answer(void*, ProfileParam*) {}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get();
  std::string json(reinterpret_cast<const char*>(data), size);
  ProfileCallback reply = {nullptr, reinterpret_cast<void*>(&Answer)};
  ProfileParam query[] = {{PP_STRING, "json", const_cast<char*>(json.c_str())},
                          {PP_CALLBACK, "exec", &reply},
                          {PP_END, nullptr, nullptr}};
  p.dll_exec(query);
  p.Tick();
  return 0;
}
