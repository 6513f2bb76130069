// Placeholder bodies; replaced by the real monitor.
#include "linux/common_use/service/Stable.h"

StableObject* g_p_stable = nullptr;
char g_s_plugin_path[64] = {0};

void StableStart() {}
void StableStop() {}
int32_t StableEnter(const char*) { return 0; }
void StableLeave(int32_t) {}
void StableScopeEnd(const TStableScope*) {}
extern "C" void exception_filter(int32_t) {}
