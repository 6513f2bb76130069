// Event messages on "track_event", with any sysinfo, heard by the events
// registrator and by a camera that records by events with a pre-event time.
#include "fuzz/fuzz_bus.h"

namespace {
const char kCamera[] = R"(,"by_events":{"_value":true},"events":{"_value":"20001,20002,7"},)"
                       R"("prev_write":{"_value":2},"post_write":{"_value":1})";
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get(kCamera);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get(kCamera);
  static fuzz::MessageBuilder s_builder(
      {"event_type", "sysinfo", "key1", "key2", "key3", "comment", "media", "guid"},
      {"A", "B", "C", ",event_stop_id=20002,", ",event_start_id=20001", ",guid=0123456789abcdef,",
       ",dur=30,", ",event_stop_id=60031,dur=5,", ",event_stop_id=", ",dur=99999999999999999999,",
       ",event_stop_id=20002,guid=g1,dur=-1,", ""});
  fuzz::Input in(data, size);
  fuzz::SendMessages("track_event", &s_builder, &in);
  p.Tick();
  return 0;
}
