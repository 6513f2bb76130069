// Frame messages on the camera's media track: a "frame" list (and whatever
// else) with any elements, types, nesting, sizes and values at the edges of
// their ranges.
#include "fuzz/fuzz_bus.h"

namespace {
// Most messages carry their list under "frame", as sources send them.
ProfileParam* AsFrame(fuzz::MessageBuilder* b, ProfileParam* built, fuzz::Input* in) {
  if ((in->Byte() & 3) == 0) return built;
  return b->Wrap("frame", built);
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get();
  static fuzz::MessageBuilder s_builder({"need", "data", "extra", "width", "height", "fcc", "index", "key", "time",
                                         "type", "get", "parent", "error", "virtual", "nearest_finded",
                                         "types_descr", "frame"},
                                        {"video", "audio", "", "H264", "PCMA"});
  fuzz::Input in(data, size);
  fuzz::SendMessages("a_b_c_t", &s_builder, &in, &AsFrame);
  p.Tick();
  return 0;
}
