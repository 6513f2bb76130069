// Calendar messages on "track_schedule_out" to a camera with a week plan.
#include "fuzz/fuzz_bus.h"

namespace {
const char kCamera[] =
    R"(,"_schedule":{"usual":{"monday":[{"begin":"0:00","end":"24:00"}],"tuesday":[{"begin":"1:00","end":"3:00"}]},)"
    R"("holidays":[{"begin":"0:00","end":"12:00"}],"working_weekends":[{"begin":"8:00","end":"17:00"}]})";
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get(kCamera);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get(kCamera);
  static fuzz::MessageBuilder s_builder(
      {"holidays_and_working_weekends", "cmd", "method", "json"},
      {R"({"working_weekends":["november_16"],"holidays":["january_1","may_9"]})",
       R"({"holidays":["february_30","december_31","june_0"],"working_weekends":[]})",
       R"({"holidays":[1,null,{"a":[]}],"working_weekends":"x"})", R"([])", R"({"holidays":["january_)"});
  fuzz::Input in(data, size);
  fuzz::SendMessages("track_schedule_out", &s_builder, &in);
  p.Tick();
  return 0;
}
