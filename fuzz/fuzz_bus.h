// One fuzz input as a run of messages sent on one track of the bus to a
// plug-in with one started camera.
#pragma once

#include <map>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_plugin.h"

namespace fuzz {

// A sending handle of the track, opened once for the process.
inline TrackHandle Sender(const std::string& track) {
  static std::map<std::string, TrackHandle> s_handles;
  TrackHandle& h = s_handles[track];
  if (h == 0) h = profile_open(track.c_str(), nullptr, __FILE__, __LINE__);
  return h;
}

// Up to four messages built from the input go out on the track; wrap, when
// given, puts each built array where the track's messages carry it.
inline void SendMessages(const char* track, MessageBuilder* builder, Input* in,
                         ProfileParam* (*wrap)(MessageBuilder*, ProfileParam*, Input*) = nullptr) {
  TrackHandle h = Sender(track);
  for (int i = 0; i < 4 && !in->Empty(); i++) {
    builder->Reset();
    ProfileParam* msg = builder->Build(in);
    if (wrap != nullptr) msg = wrap(builder, msg, in);
    profile_data(h, msg, 0);
  }
  builder->Reset();
}

}  // namespace fuzz
