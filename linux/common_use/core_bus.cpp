// The hook pair and the bus-call discipline (see core_bus.h).
#include "linux/common_use/core_bus.h"

CoreSetHookFn core_sethook = nullptr;
CoreGetHookFn core_gethook = nullptr;

void BusData(TrackHandle h_track_av, ProfileParam* p_params_av) {
  HookSet(HOOK_IN_BUS);
  profile_data(h_track_av, p_params_av, 0);
  HookSet(HOOK_IN_PLUGIN);
}

void BusCoreData(TrackHandle h_track_av, ProfileParam* p_params_av) {
  HookSet(HOOK_IN_BUS);
  core_profile_data(h_track_av, nullptr, p_params_av);
  HookSet(HOOK_IN_PLUGIN);
}
