// The library-wide services beside the exports: the language keys on
// "track_language0"/"track_language1", the template (fish) documents, and
// the query door of dll_exec. dll_init and dll_free start and stop them.
#pragma once

#include <cstdint>

#include "include/host/core_api.h"
#include "linux/common_use/temp/tools.h"

// Reply callback forms handed to dll_exec.
typedef void (*FishReplyFn)(void* p_user_av, ProfileParam* p_params_av, int32_t i_zero_av);
typedef void (*ExecReplyFn)(void* p_user_av, ProfileParam* p_params_av);

extern ProfileParam g_fish_types[2];
extern ProfileParam g_fish[2];
extern FishReplyFn g_p_fish_callback;
extern ExecReplyFn g_p_exec_callback;
// 1 once GlobalInit failed: dll_exec refuses from then on.
extern int32_t g_b_init_failed;

void LanguageInit();
void LanguageDeinit();
void on_language(void* p_user_av, ProfileParam* p_params_av);
// dll_exec's work after its entry discipline: 0, or -1 when refused.
int32_t DllExecWalk(ProfileParam* p_params_av);
void OnGetInfo_Causing1(ProfileCallback* p_record_av, SafeString* p_json_av, SafeString* p_reply_av);
