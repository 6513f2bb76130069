// The checked allocator: every block of the plug-in's own objects carries a
// header and a trailer and is entered in a process-wide registry, so that
// damage shows up at release, in a background scan, and in the crash print.
// The registry is reached through g_p_mem_checker, made first in dll_init and
// destroyed last in dll_free; without it blocks are still checked at release.
#pragma once

#include <cstdint>

#include "platform/pl_sync.h"

const int32_t I_MEM_BLOCK_NUM = 100000;
const int32_t I_MEM_BASE_NUM = 100;
const int32_t I_MEM_PATH_SIZE = 2048;

// Words of a checked block header and trailer.
const uint32_t MEM_PREFIX_WORD = 0x12345678u;
const uint32_t MEM_SUFFIX_WORD = 0x87654321u;
const uint32_t MEM_FREED_PREFIX = 0x11112222u;
const uint32_t MEM_FREED_COUNTER = 0x33334444u;
const uint32_t MEM_FREED_SIZE = 0x55556666u;
const uint32_t MEM_FREED_SUFFIX = 0x55556666u;
const uint32_t MEM_UNREGISTERED = 0xFFFFFFFFu;
const int32_t MEM_HEADER_SIZE = 32;
const int32_t MEM_EXTRA_SIZE = 64;

struct MemBlockEntry {
  uint64_t m_ui64_size;  // 0: free
  uint32_t m_ui_circle;
  int32_t m_i_sign;
  unsigned char* m_pb_block;  // block start, not the caller's pointer
};

class MemChecker {
 public:
  MemChecker();
  ~MemChecker();
  MemChecker(const MemChecker&) = delete;
  MemChecker& operator=(const MemChecker&) = delete;

  int32_t m_i_block_counter;
  int32_t m_i_block_counter_base;
  int64_t m_i64_memcounter;
  int32_t m_i_circle_counter;
  int32_t m_b_is_error;
  MemBlockEntry* m_p_base_elems[I_MEM_BASE_NUM];
  PlCritSect m_crit_sect;       // registry lock
  PlCritSect m_crit_sect_scan;  // scan lock, taken before the registry lock
  uint64_t m_ui64_last_scan_time;
  char m_s_mem_path[I_MEM_PATH_SIZE];
  int32_t m_i_scan_base;
  int32_t m_b_first_scan;
  int32_t m_b_first_scan_error;
};

extern MemChecker* g_p_mem_checker;

void SafeMemAllocB5(void** pp_out_av, int32_t i_size_av, int32_t i_signat_av);
// Makes the next i_count_av allocations of signature i_signat_av fail as an
// exhausted heap would (0 ends it early), so that a caller's path for a
// failed allocation can be run and shown to give back what it took.
void SafeMemFailNext(int32_t i_signat_av, int32_t i_count_av);
void SafeMemReallocB4(void** pp_var_av, int32_t i_size_av, int32_t i_signat_av);
void SafeMemFree(void** pp_var_av);
// The same checked block on memory of whole pages (PlPagesAlloc), for the
// large blocks that grow and shrink over a long run, the frame buffers: a
// block that shrinks gives its pages back to the system at once, and one that
// grows keeps its bytes without a copy. Header, trailer, registry entry,
// counting, signatures and the failure switch are those of SafeMemReallocB4,
// and so are the results: growth keeps the old bytes, a shrink yields an
// all-zero block, a size below 1 or a failure leaves the variable as it was.
// The caller tells the size it last asked for (0 with no block); such a block
// is released only by SafeMemPagesFree. Returns 1 when the variable holds a
// block of the new size, which may be the old one grown in place, else 0.
int32_t SafeMemPagesReallocB4(void** pp_var_av, int32_t i_old_size_av, int32_t i_size_av, int32_t i_signat_av);
void SafeMemPagesFree(void** pp_var_av, int32_t i_size_av);
// The checking half of a release, shared by SafeMemFree and SafeStringAssign:
// gives the block's entry back, checks the words, writes the release words on
// a good block or logs the damage on a bad one. The memory itself stays
// allocated; the caller hands it back with PlAlignedFree(block start).
// Returns 1 for a good block, 0 for a damaged one, -1 for a damaged one whose
// entry keeps a size (its size word differs from the registered size): that
// block must stay allocated, because the scan goes on reading it.
int SafeMemReleaseCheck(void* p_user_av);

// The call forms every unit uses: a typed pointer variable in and out.
template <typename T>
inline void SAFE_MEM_ALLOCB5(T*& p_out_av, int32_t i_size_av, int32_t i_signat_av) {
  void* p_lv = nullptr;
  SafeMemAllocB5(&p_lv, i_size_av, i_signat_av);
  p_out_av = static_cast<T*>(p_lv);
}
template <typename T>
inline void SAFE_MEM_REALLOCB4(T*& p_var_av, int32_t i_size_av, int32_t i_signat_av) {
  void* p_lv = p_var_av;
  SafeMemReallocB4(&p_lv, i_size_av, i_signat_av);
  p_var_av = static_cast<T*>(p_lv);
}
template <typename T>
inline int32_t SAFE_MEM_PAGES_REALLOCB4(T*& p_var_av, int32_t i_old_size_av, int32_t i_size_av,
                                        int32_t i_signat_av) {
  void* p_lv = p_var_av;
  int32_t i_done_lv = SafeMemPagesReallocB4(&p_lv, i_old_size_av, i_size_av, i_signat_av);
  p_var_av = static_cast<T*>(p_lv);
  return i_done_lv;
}
template <typename T>
inline void SAFE_MEM_PAGES_FREE(T*& p_var_av, int32_t i_size_av) {
  void* p_lv = p_var_av;
  SafeMemPagesFree(&p_lv, i_size_av);
  p_var_av = static_cast<T*>(p_lv);
}
template <typename T>
inline void SAFE_MEM_FREE(T*& p_var_av) {
  void* p_lv = p_var_av;
  SafeMemFree(&p_lv);
  p_var_av = static_cast<T*>(p_lv);
}

void RegistryMemBlock(MemChecker* p_checker_av, int32_t i_size_av, int32_t i_signat_av, int32_t* p_base_av,
                      int32_t* p_index_av, unsigned char* pb_block_av);
void GetNextFreeIndex(MemChecker* p_checker_av);
void GetNextFreeIndex_Level1(MemChecker* p_checker_av);
void CreateNewBaseElem(MemChecker* p_checker_av);
int CheckBlock(MemChecker* p_checker_av, const MemBlockEntry* p_entry_av, int32_t* p_error_av);
// The words test of CheckBlock without its log line (crash print, scan).
int CheckBlockWords(const MemBlockEntry* p_entry_av, int32_t* p_error_av);
void CheckBaseElem(MemChecker* p_checker_av, const char* s_name_av, int32_t i_base_av, int32_t* p_flag_av);
void CheckNextBaseElem(MemChecker* p_checker_av, const char* s_name_av);
// The first failing block of the last scan pass (-1 before any), kept for the
// whole process so that a block that leads two passes is told on stdout.
extern int32_t g_i_mem_last_bad_base;
extern int32_t g_i_mem_last_bad_index;
// Crash list: plain descriptor writes, no heap, no lock, no formatted print.
void MemCheckerDumpToFile(int fd_av, MemChecker* p_checker_av);
void MemCheckerReportElems(MemChecker* p_checker_av);
void MemCheckerInitPath(MemChecker* p_checker_av, const char* s_name_av);
