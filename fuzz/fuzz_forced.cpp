// Forced-recording commands on "track_vp-api", and the answers of the peer
// that looks cameras up ("rtsp:list_cameras"), both built from the input.
// The peer answers at once, with the request's owner, so that no command
// waits out its time-out.
#include "fuzz/fuzz_bus.h"

namespace {

const char kCamera[] = R"(,"by_events":{"_value":true},"events":{"_value":""})";

struct Peer {
  std::string answer;
  static void On(void* user, ProfileParam* p) {
    Peer* peer = static_cast<Peer*>(user);
    void *owner = nullptr, *number = nullptr;
    for (const ProfileParam* e = p; e->type != PP_END; e++) {
      if (e->name == nullptr) continue;
      if (strcmp(e->name, "owner") == 0) owner = e->value;
      if (strcmp(e->name, "owner_data") == 0) number = e->value;
    }
    ProfileParam answer[] = {{PP_STRING, "json", const_cast<char*>(peer->answer.c_str())},
                             {PP_OBJECT, "owner", owner},
                             {PP_OBJECT, "owner_data", number},
                             {PP_END, nullptr, nullptr}};
    profile_data(fuzz::Sender("trackWsServerData"), answer, 0);
  }
};

void Heard(void*, ProfileParam*) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Plugin::Get(kCamera);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Plugin& p = fuzz::Plugin::Get(kCamera);
  static Peer s_peer;
  static TrackHandle s_h_peer = 0;
  if (s_h_peer == 0) {
    ProfileCallback cb = {&s_peer, reinterpret_cast<void*>(&Peer::On)};
    s_h_peer = profile_open("trackWsServerCmd", &cb, __FILE__, __LINE__);
    ProfileCallback api_cb = {nullptr, reinterpret_cast<void*>(&Heard)};
    profile_open("track_vp-api", &api_cb, __FILE__, __LINE__);
  }
  static fuzz::MessageBuilder s_builder(
      {"method", "args", "id", "self44", "result", "30", "", "0", "99999999999999999999", "-5"},
      {"start_recording", "stop_recording", "door-1", "self44", "Start_recording", ""});
  fuzz::Input in(data, size);
  static const char* kAnswers[] = {"[{\"id\":\"door-1\",\"key1\":\"A\",\"key2\":\"B\",\"key3\":\"C\"}]", "[]",
                                   "{\"key2\":\"B\"}", "[", "]", "{\"key2\":7}", ""};
  uint8_t b = in.Byte();
  s_peer.answer = b < 7 * 16 ? kAnswers[b % 7] : in.Text(200);
  fuzz::SendMessages("track_vp-api", &s_builder, &in);
  p.Tick();
  return 0;
}
