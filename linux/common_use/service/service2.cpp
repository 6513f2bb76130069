// Placeholder bodies; replaced by the real logging.
#include "linux/common_use/service/service2.h"

TLogBinding* g_p_log_common = nullptr;
int64_t* g_p_log_site_version = nullptr;

CLastLogStatus::~CLastLogStatus() {}
void LogDllLoad() {}
void LogDllUnload() {}
void Trace44_Level1(TLog2, CLastLogStatus*, const char*, int32_t, const char*, ...) {}
void Trace45_Level1(TLog2, int32_t, CLastLogStatus*, const char*, int32_t, const char*, ...) {}
void LogWriteLevel(TLogBinding*, int64_t, int32_t, int64_t, const char*, const char*, int32_t, const char*, ...) {}
void LogStatusReport(SafeString*, int32_t) {}
