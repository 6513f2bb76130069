// The plug-in's six entry points as a host looks them up by name in the
// loaded library (C linkage): what any host, this reference one or another,
// calls, in the order dll_init, dll_exec, plugin_open, plugin_exec,
// plugin_close, dll_free.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"

typedef int32_t (*DllInitFn)();
typedef int32_t (*DllFreeFn)();
typedef void* (*PluginOpenFn)(ProfileParam*);
typedef int32_t (*PluginCloseFn)(void*);
typedef int32_t (*DllExecFn)(ProfileParam*);
typedef int32_t (*PluginExecFn)(void*, ProfileParam*);
