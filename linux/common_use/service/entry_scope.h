// The entry discipline of every place where a thread comes into the
// plug-in: host exports, track callbacks and the plug-in's own threads.
// On the way in the host's hook value is kept, the hook set to "in the
// plug-in" and an activity slot claimed under the site's name; on the way
// out, also when an exception passes, the slot is left and the hook put back.
#pragma once

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/Stable.h"

class CEntryScope {
 public:
  explicit CEntryScope(const char* s_site_av) {
    m_scope.m_ui_saved_hook = HookGet();
    HookSet(HOOK_IN_PLUGIN);
    m_scope.m_i_slot = StableEnter(s_site_av);
  }
  ~CEntryScope() { StableScopeEnd(&m_scope); }
  CEntryScope(const CEntryScope&) = delete;
  CEntryScope& operator=(const CEntryScope&) = delete;

  int32_t Slot() const { return m_scope.m_i_slot; }

  TStableScope m_scope;
};
