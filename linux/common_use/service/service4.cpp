// Placeholder bodies; replaced by the real memory checker.
#include "linux/common_use/service/service4.h"

#include <cstdlib>
#include <cstring>

MemChecker* g_p_mem_checker = nullptr;

MemChecker::MemChecker() {}
MemChecker::~MemChecker() {}
void SafeMemAllocB5(void** pp_out_av, int32_t i_size_av, int32_t) {
  *pp_out_av = i_size_av < 1 ? nullptr : calloc(1, i_size_av);
}
void SafeMemReallocB4(void** pp_var_av, int32_t i_size_av, int32_t) { *pp_var_av = realloc(*pp_var_av, i_size_av); }
void SafeMemFree(void** pp_var_av) {
  free(*pp_var_av);
  *pp_var_av = nullptr;
}
void MemCheckerDumpToFile(int, MemChecker*) {}
void MemCheckerReportElems(MemChecker*) {}
void MemCheckerInitPath(MemChecker*, const char*) {}
void CheckNextBaseElem(MemChecker*, const char*) {}
