// Placeholder bodies; replaced by the real bus.
#include "host/include/core_api.h"

extern "C" {
int core_dll_open(const char*, CoreImportRow*) { return 0; }
int core_dll_close(const char*) { return 0; }
char* core_get_path(const char*, const char*, int32_t) { return nullptr; }
void core_mfree(void*) {}
TrackHandle profile_open(const char*, const ProfileCallback*, const char*, int32_t) { return 0; }
void profile_data(TrackHandle, ProfileParam*, int32_t) {}
int32_t profile_close(TrackHandle) { return 0; }
TrackHandle core_profile_open(const char*, CoreProfileFn, void*, const char*, int32_t) { return 0; }
void core_profile_data(TrackHandle, void*, ProfileParam*) {}
void core_set_path(const char*, const char*) {}
}
