// The camera document: a camera opened with the text in front of the first
// zero byte, reconfigured by a "json" message with the text behind it,
// started and closed.
#include "fuzz/fuzz_plugin.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get();
  std::string all(reinterpret_cast<const char*>(data), size);
  size_t cut = all.find('\0');
  std::string first = all.substr(0, cut);
  std::string second = cut == std::string::npos ? std::string() : all.substr(cut + 1);
  ProfileParam open[] = {{PP_STRING, "json", const_cast<char*>(first.c_str())}, {PP_END, nullptr, nullptr}};
  void* pair = p.plugin_open(open);
  if (pair == nullptr) return 0;
  if (cut != std::string::npos) {
    int32_t any = 0;
    ProfileParam again[] = {{PP_STRING, "json", const_cast<char*>(second.c_str())},
                            {PP_INT32, "start", &any},
                            {PP_END, nullptr, nullptr}};
    p.plugin_exec(pair, again);
  }
  p.plugin_close(pair);
  p.Tick();
  return 0;
}
