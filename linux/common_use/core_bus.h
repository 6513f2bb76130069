// The plug-in's thin layer over the host library `core`: the hook pair that
// core_dll_open hands out, and the discipline around entries and bus calls.
// Hook 40 means "in the plug-in's own code", 49 "gone out into the bus".
#pragma once

#include <cstdint>

#include "include/host/core_api.h"

const uint8_t HOOK_IN_PLUGIN = 40;
const uint8_t HOOK_IN_BUS = 49;
const uint8_t HOOK_NONE = 254;

// Filled by core_dll_open in dll_init; either may stay null.
extern CoreSetHookFn core_sethook;
extern CoreGetHookFn core_gethook;

// The thread's present hook value, or HOOK_NONE when the host has no getter.
inline uint8_t HookGet() { return core_gethook != nullptr ? core_gethook() : HOOK_NONE; }
inline void HookSet(uint8_t ui_value_av) {
  if (core_sethook != nullptr) core_sethook(ui_value_av);
}

// profile_data and core_profile_data with the hook at 49 for the call.
void BusData(TrackHandle h_track_av, ProfileParam* p_params_av);
void BusCoreData(TrackHandle h_track_av, ProfileParam* p_params_av);

// Closes a track and zeroes its handle. The handle is taken out whole
// first: another thread (the schedule engine asking for frames) may read
// it at any time.
inline void BusTrackClose(TrackHandle* p_h_av) {
  TrackHandle h_lv = __atomic_exchange_n(p_h_av, 0, __ATOMIC_ACQ_REL);
  if (h_lv != 0) profile_close(h_lv);
}
