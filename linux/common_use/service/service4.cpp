// The checked allocator and its registry. Every unit allocates through
// SAFE_MEM_ALLOCB5 / SAFE_MEM_REALLOCB4 / SAFE_MEM_FREE; the buffering thread
// drives the background scan (CheckNextBaseElem), dll_free reports the tables,
// and the crash print lists damaged blocks (MemCheckerDumpToFile).
//
// The registry lock is the innermost lock of the program, and the logger
// allocates from this very registry. So no log line is written while the lock
// is held: lines raised under it are queued per thread and written once the
// lock is left (see TRegistryLock). Otherwise a log line in the middle of an
// entry update would register its own text over a half-updated counter.
#include "linux/common_use/service/service4.h"

#include <atomic>
#include <cstring>
#include <new>

#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/temp/tools.h"
#include "platform/pl_os.h"

MemChecker* g_p_mem_checker = nullptr;
int32_t g_i_mem_last_bad_base = -1;
int32_t g_i_mem_last_bad_index = -1;

namespace {

const int32_t I_MEM_FREE_TO_WRAP = 20000;
const int32_t I_MEM_CIRCLE_MAX = 0xFFFFFFF;
const size_t UI_MEM_ALIGN = 32;
const int32_t I_MEM_TABLE_BYTES = I_MEM_BLOCK_NUM * static_cast<int32_t>(sizeof(MemBlockEntry));

// ---------------------------------------------------------------------------
// Block words. The suffix sits right behind the caller's bytes, so it may be
// unaligned: every word goes through memcpy.

uint32_t ReadWord(const unsigned char* pb_av) {
  uint32_t ui_lv;
  memcpy(&ui_lv, pb_av, sizeof(ui_lv));
  return ui_lv;
}

void WriteWord(unsigned char* pb_av, uint32_t ui_value_av) { memcpy(pb_av, &ui_value_av, sizeof(ui_value_av)); }

// ---------------------------------------------------------------------------
// Log lines raised while the registry lock is held wait here until it is left.

enum TMemLogKind {
  MEM_LOG_REG_IS_ERROR,
  MEM_LOG_REG_LAST_INDEX,
  MEM_LOG_LEVEL1_NONE,
  MEM_LOG_NEXT_IS_ERROR,
  MEM_LOG_NEXT_RAN_OFF,
  MEM_LOG_CIRCLE_EXCEED,
  MEM_LOG_BEF_LEVEL1,
  MEM_LOG_INDEX_EXCEED,
  MEM_LOG_BEF_CREATE,
  MEM_LOG_CONTROL_BUG,
  MEM_LOG_CREATE_FAILED
};

struct TMemLogLine {
  int32_t m_i_kind;
  int32_t m_i_a;
  int32_t m_i_b;
  int32_t m_i_c;
  const void* m_p;
};

const int32_t I_MEM_LOG_QUEUE = 16;

struct TMemLogQueue {
  int32_t m_i_depth;
  int32_t m_i_count;
  TMemLogLine m_lines[I_MEM_LOG_QUEUE];
};

thread_local TMemLogQueue t_mem_log_queue;

// One call site per text, so that each line keeps one site record.
void MemLogEmit(const TMemLogLine& line_av) {
  switch (line_av.m_i_kind) {
    case MEM_LOG_REG_IS_ERROR:
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error> RegistryMemBlock m_b_is_error i_signat_av %d ", line_av.m_i_a);
      break;
    case MEM_LOG_REG_LAST_INDEX:
      TRACE44(TLOG_ARC, "<mem> RegistryMemBlock I_MEM_BLOCK_NUM - 1 == m_i_block_counter base %d size %d memchecker %pp ",
              line_av.m_i_a, line_av.m_i_b, line_av.m_p);
      break;
    case MEM_LOG_LEVEL1_NONE:
      TRACE44(TLOG_ARC, "<mem> GetNextFreeIndex_Level1 m_i_block_counter %d m_i_block_counter_base %d ", line_av.m_i_a,
              line_av.m_i_b);
      break;
    case MEM_LOG_NEXT_IS_ERROR:
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error> GetNextFreeIndex start m_b_is_error base %d m_i_block_counter %d ",
              line_av.m_i_a, line_av.m_i_b);
      break;
    case MEM_LOG_NEXT_RAN_OFF:
      TRACE44(TLOG_ARC,
              "<mem> aft 1 GetNextFreeIndex_Level1 -1 == m_i_block_counter  prev base %d prev %d memchecker %pp "
              "i_free_counter_lv %d ",
              line_av.m_i_a, line_av.m_i_b, line_av.m_p, line_av.m_i_c);
      break;
    case MEM_LOG_CIRCLE_EXCEED:
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error>mem exceed m_i_circle_counter, ona ne mogla stolko mnogo prorabotat");
      break;
    case MEM_LOG_BEF_LEVEL1:
      TRACE44(TLOG_ARC, "<mem>GetNextFreeIndex bef GetNextFreeIndex_Level1  m_i_block_counter %d m_i_block_counter_base %d ",
              line_av.m_i_a, line_av.m_i_b);
      break;
    case MEM_LOG_INDEX_EXCEED:
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error>mem exceed index block %d block base %d ", line_av.m_i_a, line_av.m_i_b);
      break;
    case MEM_LOG_BEF_CREATE:
      TRACE44(TLOG_ARC, "<mem>GetNextFreeIndex bef CreateNewBaseElem  m_i_block_counter_base %d ", line_av.m_i_a);
      break;
    case MEM_LOG_CONTROL_BUG:
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error>mem contriol bug");
      break;
    case MEM_LOG_CREATE_FAILED:
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error> CreateNewBaseElem ");
      break;
    default:
      break;
  }
}

// Queues the line while this thread holds the registry lock, writes it now
// otherwise (a test or a caller outside the lock).
void MemLog(int32_t i_kind_av, int32_t i_a_av = 0, int32_t i_b_av = 0, int32_t i_c_av = 0,
            const void* p_av = nullptr) {
  TMemLogLine line_lv = {i_kind_av, i_a_av, i_b_av, i_c_av, p_av};
  TMemLogQueue& queue_lv = t_mem_log_queue;
  if (queue_lv.m_i_depth == 0) {
    MemLogEmit(line_lv);
    return;
  }
  if (queue_lv.m_i_count < I_MEM_LOG_QUEUE) queue_lv.m_lines[queue_lv.m_i_count++] = line_lv;
}

// The registry lock for the registering path: lines raised inside are
// written after the lock is left, in the order they were raised.
class TRegistryLock {
 public:
  explicit TRegistryLock(MemChecker* p_checker_av) : m_p_checker(p_checker_av) {
    m_p_checker->m_crit_sect.Enter();
    t_mem_log_queue.m_i_depth++;
  }
  ~TRegistryLock() {
    TMemLogQueue& queue_lv = t_mem_log_queue;
    queue_lv.m_i_depth--;
    m_p_checker->m_crit_sect.Leave();
    if (queue_lv.m_i_depth != 0 || queue_lv.m_i_count == 0) return;
    TMemLogLine lines_lv[I_MEM_LOG_QUEUE];
    int32_t i_count_lv = queue_lv.m_i_count;
    memcpy(lines_lv, queue_lv.m_lines, sizeof(TMemLogLine) * i_count_lv);
    queue_lv.m_i_count = 0;
    for (int32_t i_lv = 0; i_lv < i_count_lv; i_lv++) MemLogEmit(lines_lv[i_lv]);
  }
  TRegistryLock(const TRegistryLock&) = delete;
  TRegistryLock& operator=(const TRegistryLock&) = delete;

 private:
  MemChecker* m_p_checker;
};

// ---------------------------------------------------------------------------
// Release helpers.

// What the registry remembered of a block at its release.
struct TMemRemembered {
  int32_t m_b_known;
  int32_t m_i_size;
  int32_t m_i_sign;
  uint32_t m_ui_circle;
  int32_t m_b_still_held;  // the entry kept a size: the scan goes on reading it
};

// Finds the block's entry through its counter word and gives its size back.
// An entry counts only when the counter is in range and the entry still holds
// this block: a stale pointer (counter 0x33334444, base 8589), a second
// release or a block of an earlier registry must touch nobody's entry.
TMemRemembered MemUnregister(MemChecker* p_checker_av, unsigned char* pb_block_av, uint32_t ui_counter_av,
                             int32_t i_size_av) {
  TMemRemembered rem_lv = {0, 0, 0, 0, 0};
  if (p_checker_av == nullptr) return rem_lv;
  int32_t i_counter_lv = static_cast<int32_t>(ui_counter_av);
  int32_t i_base_lv = i_counter_lv / I_MEM_BLOCK_NUM;
  int32_t i_index_lv = i_counter_lv - i_base_lv * I_MEM_BLOCK_NUM;
  PlCritLock lock_lv(&p_checker_av->m_crit_sect);
  if (i_index_lv >= 0 && i_index_lv < I_MEM_BLOCK_NUM && i_base_lv >= 0 && i_base_lv < I_MEM_BASE_NUM &&
      p_checker_av->m_p_base_elems[i_base_lv] != nullptr) {
    MemBlockEntry* p_entry_lv = &p_checker_av->m_p_base_elems[i_base_lv][i_index_lv];
    if (p_entry_lv->m_pb_block == pb_block_av && p_entry_lv->m_ui64_size != 0) {
      rem_lv.m_b_known = 1;
      rem_lv.m_i_size = static_cast<int32_t>(static_cast<uint32_t>(p_entry_lv->m_ui64_size));
      rem_lv.m_i_sign = p_entry_lv->m_i_sign;
      rem_lv.m_ui_circle = p_entry_lv->m_ui_circle;
      p_entry_lv->m_ui64_size -= static_cast<uint64_t>(static_cast<int64_t>(i_size_av));
      rem_lv.m_b_still_held = p_entry_lv->m_ui64_size != 0;
    }
  }
  p_checker_av->m_i64_memcounter -= i_size_av;
  return rem_lv;
}

// The suffix is read only where the block surely reaches: up to the size the
// registry remembers, or, for a block it does not know, through the size word
// of a header that still carries the live prefix. A released or wrecked
// header must not send the check outside the block.
bool MemSuffixReadable(uint32_t ui_prefix_av, int32_t i_size_av, const TMemRemembered& rem_av) {
  if (i_size_av < 0) return false;
  if (rem_av.m_b_known) return i_size_av <= rem_av.m_i_size;
  return ui_prefix_av == MEM_PREFIX_WORD;
}

// The size test is skipped for a block allocated while there was no registry
// (process start, after dll_free): there is nothing to compare with. A block
// the full registry could not take keeps the test and so reports itself.
bool MemSizeTested(const MemChecker* p_checker_av, uint32_t ui_counter_av) {
  if (p_checker_av == nullptr) return false;
  return ui_counter_av != MEM_UNREGISTERED || p_checker_av->m_b_is_error != 0;
}

void MemLogDamage(uint32_t ui_prefix_av, uint32_t ui_counter_av, int32_t i_size_av, uint32_t ui_suffix_av,
                  const TMemRemembered& rem_av, const MemChecker* p_checker_av) {
  TRACE45(TLOG_ARC, TSEV_FAULT,
          "<error> mem 2 : pref %x, counter %d, size %d, suff %x, rememb_size %d sign %d circl %d memchecker %pp",
          ui_prefix_av, static_cast<int32_t>(ui_counter_av), i_size_av, ui_suffix_av, rem_av.m_i_size, rem_av.m_i_sign,
          static_cast<int32_t>(rem_av.m_ui_circle), static_cast<const void*>(p_checker_av));
  TRACE44(TLOG_ARC, "---error free beg---");
  TRACE44(TLOG_ARC_TRANSF, "---error free beg---");
  TRACE44(TLOG_ARC, "---error free end---");
  TRACE44(TLOG_ARC_TRANSF, "---error free end---");
}

// ---------------------------------------------------------------------------
// Scan and crash print helpers.

void LogCheckBlock(const MemChecker* p_checker_av, const void* p_block_av) {
  TRACE44(TLOG_ARC_TRANSF, "<mem3%pp> CheckBlock %pp ", static_cast<const void*>(p_checker_av), p_block_av);
}

// Checks one entry under the registry lock; the caller logs after the lock.
// Returns false when the element is gone or the entry is free.
bool ScanEntry(MemChecker* p_checker_av, int32_t i_base_av, int32_t i_index_av, MemBlockEntry* p_copy_av,
               int32_t* p_error_av, int* p_good_av) {
  PlCritLock lock_lv(&p_checker_av->m_crit_sect);
  const MemBlockEntry* p_table_lv = p_checker_av->m_p_base_elems[i_base_av];
  if (p_table_lv == nullptr || p_table_lv[i_index_av].m_ui64_size == 0) return false;
  *p_copy_av = p_table_lv[i_index_av];
  *p_good_av = CheckBlockWords(p_copy_av, p_error_av);
  return true;
}

// Writes a text with a plain descriptor write.
void DumpText(int fd_av, const char* s_text_av) { PlFileWrite(fd_av, s_text_av, strlen(s_text_av)); }

// Writes a number in decimal, digit by digit, without the formatting
// machinery: this runs inside the crash handler.
void DumpNumber(int fd_av, int64_t i64_value_av) {
  char s_digits_lv[24];
  int i_pos_lv = static_cast<int>(sizeof(s_digits_lv));
  uint64_t ui64_rest_lv = i64_value_av < 0 ? 0 - static_cast<uint64_t>(i64_value_av) : static_cast<uint64_t>(i64_value_av);
  do {
    s_digits_lv[--i_pos_lv] = static_cast<char>('0' + ui64_rest_lv % 10);
    ui64_rest_lv /= 10;
  } while (ui64_rest_lv != 0);
  if (i64_value_av < 0) s_digits_lv[--i_pos_lv] = '-';
  PlFileWrite(fd_av, s_digits_lv + i_pos_lv, sizeof(s_digits_lv) - i_pos_lv);
}

void DumpFailure(int fd_av, int32_t i_base_av, int32_t i_index_av, const MemBlockEntry& entry_av, int32_t i_error_av) {
  DumpText(fd_av, "base ind ");
  DumpNumber(fd_av, i_base_av);
  DumpText(fd_av, "ind ");
  DumpNumber(fd_av, i_index_av);
  DumpText(fd_av, "circl use ");
  DumpNumber(fd_av, static_cast<int32_t>(entry_av.m_ui_circle));
  DumpText(fd_av, "size ");
  DumpNumber(fd_av, static_cast<int32_t>(static_cast<uint32_t>(entry_av.m_ui64_size)));
  DumpText(fd_av, "sign ");
  DumpNumber(fd_av, entry_av.m_i_sign);
  DumpText(fd_av, "error ");
  DumpNumber(fd_av, i_error_av);
  DumpText(fd_av, "\n");
}

}  // namespace

// ---------------------------------------------------------------------------
// The registry object.

MemChecker::MemChecker()
    : m_i_block_counter(0),
      m_i_block_counter_base(0),
      m_i64_memcounter(0),
      m_i_circle_counter(0),
      m_b_is_error(0),
      m_p_base_elems(),
      m_ui64_last_scan_time(0),
      m_s_mem_path(),
      m_i_scan_base(0),
      m_b_first_scan(1),
      m_b_first_scan_error(0) {
  CreateNewBaseElem(this);
}

MemChecker::~MemChecker() {
  for (int32_t i_lv = 0; i_lv < I_MEM_BASE_NUM; i_lv++) {
    delete[] m_p_base_elems[i_lv];
    m_p_base_elems[i_lv] = nullptr;
  }
}

// ---------------------------------------------------------------------------
// Allocation, reallocation, release.

namespace {

std::atomic<int32_t> g_i_fail_sign{0};
std::atomic<int32_t> g_i_fail_count{0};

// One failure of the switch spent, when it is set for this signature.
bool FailThisAllocation(int32_t i_signat_av) {
  if (g_i_fail_count.load(std::memory_order_acquire) <= 0 ||
      g_i_fail_sign.load(std::memory_order_relaxed) != i_signat_av)
    return false;
  return g_i_fail_count.fetch_sub(1, std::memory_order_acq_rel) > 0;
}


// Writes the words of a zeroed block and registers it; the caller's pointer.
unsigned char* MemBlockArm(unsigned char* pb_block_av, int32_t i_size_av, int32_t i_signat_av) {
  // Every word the scan checks is in place before the block is registered:
  // the scan may look at it from then on, from another thread.
  WriteWord(pb_block_av, MEM_PREFIX_WORD);
  WriteWord(pb_block_av + 8, static_cast<uint32_t>(i_size_av));
  WriteWord(pb_block_av + MEM_HEADER_SIZE + i_size_av, MEM_SUFFIX_WORD);
  int32_t i_base_lv = 0;
  int32_t i_index_lv = -1;
  MemChecker* p_checker_lv = g_p_mem_checker;
  if (p_checker_lv != nullptr)
    RegistryMemBlock(p_checker_lv, i_size_av, i_signat_av, &i_base_lv, &i_index_lv, pb_block_av);
  uint32_t ui_counter_lv =
      static_cast<uint32_t>(i_base_lv) * static_cast<uint32_t>(I_MEM_BLOCK_NUM) + static_cast<uint32_t>(i_index_lv);
  WriteWord(pb_block_av + 4, ui_counter_lv);
  // Without a registry (before dll_init, after dll_free) every block is
  // unregistered by design, which is no failure worth a line.
  if (ui_counter_lv == MEM_UNREGISTERED && p_checker_lv != nullptr)
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error> aft RegistryMemBlock sign %d", i_signat_av);
  return pb_block_av + MEM_HEADER_SIZE;
}

void MemLogNoBlock() {
  static const char s_line_lv[] = "archive throw exception div 0 in SAFE_MEM_ALLOCB5 ";
  PlStdoutWrite(s_line_lv, sizeof(s_line_lv) - 1);
}

// Bytes of pages that a checked block of that size takes.
size_t PagesBlockBytes(int32_t i_size_av) { return static_cast<size_t>(i_size_av) + MEM_EXTRA_SIZE; }

// Grows a pages block in place or by moving its pages. The old block is
// released first, so that the scan never reads it while it moves; its
// trailer is cleared, because it now lies inside the caller's bytes. A
// block the system cannot grow is armed again as it was.
unsigned char* PagesGrow(unsigned char* pb_user_av, int32_t i_old_size_av, int32_t i_size_av, int32_t i_signat_av) {
  unsigned char* pb_old_lv = pb_user_av - MEM_HEADER_SIZE;
  if (SafeMemReleaseCheck(pb_user_av) < 0) {
    // A damaged block that the registry still lists stays where the scan
    // reads it; the bytes move to a fresh block.
    unsigned char* pb_new_lv = static_cast<unsigned char*>(PlPagesAlloc(PagesBlockBytes(i_size_av)));
    if (pb_new_lv == nullptr) return nullptr;
    memcpy(pb_new_lv + MEM_HEADER_SIZE, pb_user_av, static_cast<size_t>(i_old_size_av));
    return MemBlockArm(pb_new_lv, i_size_av, i_signat_av);
  }
  memset(pb_old_lv + MEM_HEADER_SIZE + i_old_size_av, 0, MEM_EXTRA_SIZE - MEM_HEADER_SIZE);
  memset(pb_old_lv, 0, MEM_HEADER_SIZE);
  unsigned char* pb_new_lv = static_cast<unsigned char*>(
      PlPagesResize(pb_old_lv, PagesBlockBytes(i_old_size_av), PagesBlockBytes(i_size_av)));
  if (pb_new_lv == nullptr) {
    MemBlockArm(pb_old_lv, i_old_size_av, i_signat_av);
    return nullptr;
  }
  return MemBlockArm(pb_new_lv, i_size_av, i_signat_av);
}

}  // namespace

void SafeMemFailNext(int32_t i_signat_av, int32_t i_count_av) {
  g_i_fail_count.store(0, std::memory_order_release);
  g_i_fail_sign.store(i_signat_av, std::memory_order_relaxed);
  g_i_fail_count.store(i_count_av, std::memory_order_release);
}

void SafeMemAllocB5(void** pp_out_av, int32_t i_size_av, int32_t i_signat_av) {
  *pp_out_av = nullptr;
  if (i_size_av < 1) return;
  size_t ui_total_lv = static_cast<size_t>(i_size_av) + MEM_EXTRA_SIZE;
  unsigned char* pb_block_lv = FailThisAllocation(i_signat_av)
                                   ? nullptr
                                   : static_cast<unsigned char*>(PlAlignedAlloc(ui_total_lv, UI_MEM_ALIGN));
  if (pb_block_lv == nullptr) {
    MemLogNoBlock();
    return;
  }
  memset(pb_block_lv, 0, ui_total_lv);
  *pp_out_av = MemBlockArm(pb_block_lv, i_size_av, i_signat_av);
}

void SafeMemReallocB4(void** pp_var_av, int32_t i_size_av, int32_t i_signat_av) {
  void* p_new_lv = nullptr;
  SafeMemAllocB5(&p_new_lv, i_size_av, i_signat_av);
  if (p_new_lv == nullptr) return;
  if (*pp_var_av != nullptr) {
    // A shrinking reallocation copies nothing: the new block stays zero.
    const unsigned char* pb_old_lv = static_cast<const unsigned char*>(*pp_var_av) - MEM_HEADER_SIZE;
    int32_t i_old_size_lv = static_cast<int32_t>(ReadWord(pb_old_lv + 8));
    if (i_old_size_lv >= 0 && i_old_size_lv <= i_size_av) memcpy(p_new_lv, *pp_var_av, i_old_size_lv);
    SafeMemFree(pp_var_av);
  }
  *pp_var_av = p_new_lv;
}

int32_t SafeMemPagesReallocB4(void** pp_var_av, int32_t i_old_size_av, int32_t i_size_av, int32_t i_signat_av) {
  if (i_size_av < 1) return 0;
  unsigned char* pb_user_lv = static_cast<unsigned char*>(*pp_var_av);
  unsigned char* pb_new_lv = nullptr;
  if (!FailThisAllocation(i_signat_av)) {
    if (pb_user_lv != nullptr && i_old_size_av <= i_size_av) {
      pb_new_lv = PagesGrow(pb_user_lv, i_old_size_av, i_size_av, i_signat_av);
    } else {
      // First block, or a shrink: fresh pages, all zero and none of them
      // resident yet, while the old block gives all of its pages back.
      void* p_pages_lv = PlPagesAlloc(PagesBlockBytes(i_size_av));
      if (p_pages_lv != nullptr) {
        pb_new_lv = MemBlockArm(static_cast<unsigned char*>(p_pages_lv), i_size_av, i_signat_av);
        SafeMemPagesFree(pp_var_av, i_old_size_av);
      }
    }
  }
  if (pb_new_lv == nullptr) {
    MemLogNoBlock();
    return 0;
  }
  *pp_var_av = pb_new_lv;
  return 1;
}

void SafeMemPagesFree(void** pp_var_av, int32_t i_size_av) {
  if (*pp_var_av == nullptr) return;
  // As with heap blocks, a damaged block the registry still lists stays.
  if (SafeMemReleaseCheck(*pp_var_av) >= 0)
    PlPagesFree(static_cast<unsigned char*>(*pp_var_av) - MEM_HEADER_SIZE, PagesBlockBytes(i_size_av));
  *pp_var_av = nullptr;
}

int SafeMemReleaseCheck(void* p_user_av) {
  unsigned char* pb_block_lv = static_cast<unsigned char*>(p_user_av) - MEM_HEADER_SIZE;
  MemChecker* p_checker_lv = g_p_mem_checker;
  uint32_t ui_prefix_lv = ReadWord(pb_block_lv);
  uint32_t ui_counter_lv = ReadWord(pb_block_lv + 4);
  int32_t i_size_lv = static_cast<int32_t>(ReadWord(pb_block_lv + 8));
  TMemRemembered rem_lv = MemUnregister(p_checker_lv, pb_block_lv, ui_counter_lv, i_size_lv);
  uint32_t ui_suffix_lv = 0;
  bool b_suffix_lv = MemSuffixReadable(ui_prefix_lv, i_size_lv, rem_lv);
  if (b_suffix_lv) ui_suffix_lv = ReadWord(pb_block_lv + MEM_HEADER_SIZE + i_size_lv);
  bool b_good_lv = ui_prefix_lv == MEM_PREFIX_WORD && b_suffix_lv && ui_suffix_lv == MEM_SUFFIX_WORD &&
                   (!MemSizeTested(p_checker_lv, ui_counter_lv) || i_size_lv == rem_lv.m_i_size);
  if (!b_good_lv) {
    MemLogDamage(ui_prefix_lv, ui_counter_lv, i_size_lv, ui_suffix_lv, rem_lv, p_checker_lv);
    return rem_lv.m_b_still_held ? -1 : 0;
  }
  // Marks that make a second release or a late reader show up.
  WriteWord(pb_block_lv, MEM_FREED_PREFIX);
  WriteWord(pb_block_lv + 4, MEM_FREED_COUNTER);
  WriteWord(pb_block_lv + 8, MEM_FREED_SIZE);
  WriteWord(pb_block_lv + MEM_HEADER_SIZE + i_size_lv, MEM_FREED_SUFFIX);
  return 1;
}

void SafeMemFree(void** pp_var_av) {
  if (*pp_var_av == nullptr) return;
  // A block whose size word no longer matches its entry stays registered and
  // is reported by every scan; it keeps its memory so that the scan reads a
  // live block and not freed heap.
  if (SafeMemReleaseCheck(*pp_var_av) >= 0) PlAlignedFree(static_cast<unsigned char*>(*pp_var_av) - MEM_HEADER_SIZE);
  *pp_var_av = nullptr;
}

// ---------------------------------------------------------------------------
// Registration and the search for the next free entry.

void RegistryMemBlock(MemChecker* p_checker_av, int32_t i_size_av, int32_t i_signat_av, int32_t* p_base_av,
                      int32_t* p_index_av, unsigned char* pb_block_av) {
  *p_index_av = -1;
  TRegistryLock lock_lv(p_checker_av);
  if (p_checker_av->m_b_is_error) {
    MemLog(MEM_LOG_REG_IS_ERROR, i_signat_av);
    p_checker_av->m_i64_memcounter += i_size_av;
    return;
  }
  int32_t i_index_lv = p_checker_av->m_i_block_counter;
  int32_t i_base_lv = p_checker_av->m_i_block_counter_base;
  if (i_index_lv >= 0 && i_index_lv < I_MEM_BLOCK_NUM && i_base_lv >= 0 && i_base_lv < I_MEM_BASE_NUM &&
      p_checker_av->m_p_base_elems[i_base_lv] != nullptr) {
    MemBlockEntry* p_entry_lv = &p_checker_av->m_p_base_elems[i_base_lv][i_index_lv];
    p_entry_lv->m_ui64_size = static_cast<uint64_t>(static_cast<int64_t>(i_size_av));
    p_entry_lv->m_ui_circle = static_cast<uint32_t>(p_checker_av->m_i_circle_counter);
    p_entry_lv->m_i_sign = i_signat_av;
    p_entry_lv->m_pb_block = pb_block_av;
    if (i_index_lv == I_MEM_BLOCK_NUM - 1) MemLog(MEM_LOG_REG_LAST_INDEX, i_base_lv, i_size_av, 0, p_checker_av);
    *p_base_av = i_base_lv;
    *p_index_av = i_index_lv;
  }
  GetNextFreeIndex(p_checker_av);
  p_checker_av->m_i64_memcounter += i_size_av;
}

// Forward search from one above the stored index. Entry 0 of every element
// but the very first block's is passed over, because each element is entered
// with the stored index at 0.
void GetNextFreeIndex_Level1(MemChecker* p_checker_av) {
  int32_t i_result_lv = -1;
  if (p_checker_av->m_i_block_counter == -1 || p_checker_av->m_i_block_counter_base == -1 ||
      p_checker_av->m_b_is_error) {
    p_checker_av->m_i_block_counter = -1;
    p_checker_av->m_i_block_counter_base = 0;
  } else {
    int32_t i_base_lv = p_checker_av->m_i_block_counter_base;
    int32_t i_index_lv = p_checker_av->m_i_block_counter;
    if (i_base_lv < 0) i_base_lv = I_MEM_BASE_NUM;
    for (; i_base_lv < I_MEM_BASE_NUM; i_base_lv++, i_index_lv = 0) {
      const MemBlockEntry* p_table_lv = p_checker_av->m_p_base_elems[i_base_lv];
      if (p_table_lv == nullptr) continue;
      for (int32_t i_lv = i_index_lv + 1; i_lv < I_MEM_BLOCK_NUM; i_lv++) {
        if (p_table_lv[i_lv].m_ui64_size == 0) {
          i_result_lv = i_lv;
          break;
        }
      }
      if (i_result_lv != -1) break;
    }
    p_checker_av->m_i_block_counter = i_result_lv;
    p_checker_av->m_i_block_counter_base = i_base_lv;
  }
  if (p_checker_av->m_i_block_counter == -1 || p_checker_av->m_i_block_counter_base == -1)
    MemLog(MEM_LOG_LEVEL1_NONE, p_checker_av->m_i_block_counter, p_checker_av->m_i_block_counter_base);
}

namespace {

int32_t CountFreeEntries(const MemChecker* p_checker_av) {
  int32_t i_free_lv = 0;
  for (int32_t i_base_lv = 0; i_base_lv < I_MEM_BASE_NUM; i_base_lv++) {
    const MemBlockEntry* p_table_lv = p_checker_av->m_p_base_elems[i_base_lv];
    if (p_table_lv == nullptr) continue;
    for (int32_t i_lv = 0; i_lv < I_MEM_BLOCK_NUM; i_lv++)
      if (p_table_lv[i_lv].m_ui64_size == 0) i_free_lv++;
  }
  return i_free_lv;
}

bool CounterFound(const MemChecker* p_checker_av) {
  return p_checker_av->m_i_block_counter != -1 && p_checker_av->m_i_block_counter_base != -1;
}

// Enough entries were given back: start again from the bottom.
void WrapRound(MemChecker* p_checker_av) {
  p_checker_av->m_i_circle_counter++;
  p_checker_av->m_i_block_counter = 0;
  p_checker_av->m_i_block_counter_base = 0;
  if (p_checker_av->m_i_circle_counter > I_MEM_CIRCLE_MAX) {
    p_checker_av->m_i_circle_counter = 0;
    MemLog(MEM_LOG_CIRCLE_EXCEED);
  }
  MemLog(MEM_LOG_BEF_LEVEL1, p_checker_av->m_i_block_counter, p_checker_av->m_i_block_counter_base);
  GetNextFreeIndex_Level1(p_checker_av);
  if (CounterFound(p_checker_av)) return;
  MemLog(MEM_LOG_INDEX_EXCEED, p_checker_av->m_i_block_counter, p_checker_av->m_i_block_counter_base);
  p_checker_av->m_b_is_error = 1;
}

// Too few entries free: add a base element.
void Grow(MemChecker* p_checker_av) {
  p_checker_av->m_i_block_counter = 0;
  MemLog(MEM_LOG_BEF_CREATE, p_checker_av->m_i_block_counter_base);
  CreateNewBaseElem(p_checker_av);
  GetNextFreeIndex_Level1(p_checker_av);
  if (!CounterFound(p_checker_av)) MemLog(MEM_LOG_CONTROL_BUG);
}

}  // namespace

void GetNextFreeIndex(MemChecker* p_checker_av) {
  if (p_checker_av->m_b_is_error) {
    MemLog(MEM_LOG_NEXT_IS_ERROR, p_checker_av->m_i_block_counter_base, p_checker_av->m_i_block_counter);
    p_checker_av->m_i_block_counter = -1;
    p_checker_av->m_i_block_counter_base = -1;
    return;
  }
  int32_t i_prev_base_lv = p_checker_av->m_i_block_counter_base;
  int32_t i_prev_index_lv = p_checker_av->m_i_block_counter;
  GetNextFreeIndex_Level1(p_checker_av);
  if (CounterFound(p_checker_av)) return;
  int32_t i_free_lv = CountFreeEntries(p_checker_av);
  MemLog(MEM_LOG_NEXT_RAN_OFF, i_prev_base_lv, i_prev_index_lv, i_free_lv, p_checker_av);
  if (i_free_lv >= I_MEM_FREE_TO_WRAP)
    WrapRound(p_checker_av);
  else
    Grow(p_checker_av);
}

void CreateNewBaseElem(MemChecker* p_checker_av) {
  p_checker_av->m_i_block_counter_base = -1;
  for (int32_t i_lv = 0; i_lv < I_MEM_BASE_NUM; i_lv++) {
    if (p_checker_av->m_p_base_elems[i_lv] != nullptr) continue;
    MemBlockEntry* p_table_lv = new (std::nothrow) MemBlockEntry[I_MEM_BLOCK_NUM]();
    if (p_table_lv == nullptr) break;
    p_checker_av->m_p_base_elems[i_lv] = p_table_lv;
    p_checker_av->m_i_block_counter_base = i_lv;
    return;
  }
  MemLog(MEM_LOG_CREATE_FAILED);
}

// ---------------------------------------------------------------------------
// Checks of blocks in use: the background scan and the crash print.

int CheckBlockWords(const MemBlockEntry* p_entry_av, int32_t* p_error_av) {
  *p_error_av = 0;
  const unsigned char* pb_block_lv = p_entry_av->m_pb_block;
  if (pb_block_lv == nullptr) return 1;
  if (ReadWord(pb_block_lv) != MEM_PREFIX_WORD) {
    *p_error_av = 1;
    return 0;
  }
  // The size word leads to the suffix; beyond the size the entry knows, the
  // block may end, so such a suffix counts as not found.
  int32_t i_size_lv = static_cast<int32_t>(ReadWord(pb_block_lv + 8));
  int64_t i64_known_lv = static_cast<int64_t>(p_entry_av->m_ui64_size);
  if (i_size_lv < 0 || i_size_lv > i64_known_lv ||
      ReadWord(pb_block_lv + MEM_HEADER_SIZE + i_size_lv) != MEM_SUFFIX_WORD) {
    *p_error_av = 2;
    return 0;
  }
  if (i_size_lv != i64_known_lv) {
    *p_error_av = 3;
    return 0;
  }
  return 1;
}

int CheckBlock(MemChecker* p_checker_av, const MemBlockEntry* p_entry_av, int32_t* p_error_av) {
  if (p_entry_av->m_pb_block != nullptr) LogCheckBlock(p_checker_av, p_entry_av->m_pb_block);
  return CheckBlockWords(p_entry_av, p_error_av);
}

void CheckBaseElem(MemChecker* p_checker_av, const char* s_name_av, int32_t i_base_av, int32_t* p_flag_av) {
  if (i_base_av < 0 || i_base_av >= I_MEM_BASE_NUM) return;
  for (int32_t i_lv = 0; i_lv < I_MEM_BLOCK_NUM; i_lv++) {
    MemBlockEntry entry_lv;
    int32_t i_error_lv = 0;
    int i_good_lv = 1;
    if (!ScanEntry(p_checker_av, i_base_av, i_lv, &entry_lv, &i_error_lv, &i_good_lv)) continue;
    TRACE45(TLOG_ARC_TRANSF, TSEV_TRACE, "<mem%s> base ind %d block ind %d circl use %d size %lld sign %d ptr %pp",
            s_name_av, i_base_av, i_lv, static_cast<int32_t>(entry_lv.m_ui_circle),
            static_cast<long long>(entry_lv.m_ui64_size), entry_lv.m_i_sign, static_cast<void*>(entry_lv.m_pb_block));
    if (entry_lv.m_pb_block != nullptr) LogCheckBlock(p_checker_av, entry_lv.m_pb_block);
    if (i_good_lv) continue;
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error8> dll %s base ind %d block ind %d circl use %d size %lld sign %d error %d ",
            s_name_av, i_base_av, i_lv, static_cast<int32_t>(entry_lv.m_ui_circle),
            static_cast<long long>(entry_lv.m_ui64_size), entry_lv.m_i_sign, i_error_lv);
    if (*p_flag_av != 0) continue;
    *p_flag_av = 1;
    // The same block leads a second pass: worth a line on the console.
    if (i_base_av == g_i_mem_last_bad_base && i_lv == g_i_mem_last_bad_index) {
      static const char s_line_lv[] = "archive throw exception div 0";
      PlStdoutWrite(s_line_lv, sizeof(s_line_lv) - 1);
    }
    g_i_mem_last_bad_base = i_base_av;
    g_i_mem_last_bad_index = i_lv;
  }
}

void CheckNextBaseElem(MemChecker* p_checker_av, const char* s_name_av) {
  PlCritLock scan_lock_lv(&p_checker_av->m_crit_sect_scan);
  int32_t i_start_lv = p_checker_av->m_i_scan_base;
  int64_t i64_memcounter_lv;
  {
    PlCritLock lock_lv(&p_checker_av->m_crit_sect);
    i64_memcounter_lv = p_checker_av->m_i64_memcounter;
  }
  TRACE44(TLOG_ARC, "<mem%s> --- memcounter %lld memchecker %pp", s_name_av, static_cast<long long>(i64_memcounter_lv),
          static_cast<void*>(p_checker_av));
  if (g_p_stable != nullptr) g_p_stable->m_i64_memcounter = i64_memcounter_lv;
  if (p_checker_av->m_b_first_scan) {
    p_checker_av->m_b_first_scan = 0;
    if (i_start_lv >= 0 && i_start_lv < I_MEM_BASE_NUM && p_checker_av->m_p_base_elems[i_start_lv] != nullptr) {
      CheckBaseElem(p_checker_av, s_name_av, i_start_lv, &p_checker_av->m_b_first_scan_error);
      return;
    }
  }
  // One element a step, never the one the step started on.
  int32_t i_flag_lv = 0;
  for (;;) {
    p_checker_av->m_i_scan_base++;
    if (p_checker_av->m_i_scan_base >= I_MEM_BASE_NUM || p_checker_av->m_i_scan_base < 0) {
      p_checker_av->m_i_scan_base = 0;
      p_checker_av->m_b_first_scan_error = 0;
    }
    if (p_checker_av->m_i_scan_base == i_start_lv) return;
    if (p_checker_av->m_p_base_elems[p_checker_av->m_i_scan_base] == nullptr) continue;
    CheckBaseElem(p_checker_av, s_name_av, p_checker_av->m_i_scan_base, &i_flag_lv);
    return;
  }
}

void MemCheckerDumpToFile(int fd_av, MemChecker* p_checker_av) {
  DumpText(fd_av, "----------\n");
  if (p_checker_av == nullptr) return;
  int32_t i_failures_lv = 0;
  for (int32_t i_base_lv = 0; i_base_lv < I_MEM_BASE_NUM; i_base_lv++) {
    const MemBlockEntry* p_table_lv = p_checker_av->m_p_base_elems[i_base_lv];
    if (p_table_lv == nullptr) continue;
    for (int32_t i_lv = 0; i_lv < I_MEM_BLOCK_NUM && i_failures_lv <= 100; i_lv++) {
      if (p_table_lv[i_lv].m_ui64_size == 0) continue;
      int32_t i_error_lv = 0;
      if (CheckBlockWords(&p_table_lv[i_lv], &i_error_lv)) continue;
      DumpFailure(fd_av, i_base_lv, i_lv, p_table_lv[i_lv], i_error_lv);
      i_failures_lv++;
    }
  }
}

void MemCheckerReportElems(MemChecker* p_checker_av) {
  for (int32_t i_lv = 0; i_lv < I_MEM_BASE_NUM; i_lv++) {
    if (p_checker_av->m_p_base_elems[i_lv] == nullptr) continue;
    TRACE44(TLOG_ARC, "<root>dll_free MemChecker elem mem ptr %pp size %d ",
            static_cast<void*>(p_checker_av->m_p_base_elems[i_lv]), I_MEM_TABLE_BYTES);
  }
}

// The memory file lies in "memory" beside the host executable. The host's
// path is taken to 240 characters; a longer one, or none, leaves the path
// empty rather than put the folder somewhere else.
void MemCheckerInitPath(MemChecker* p_checker_av, const char* s_name_av) {
  const size_t UI_EXE_MAX = 240;
  char s_dir_lv[UI_EXE_MAX + 16];
  p_checker_av->m_s_mem_path[0] = 0;
  if (PlExePath(s_dir_lv, UI_EXE_MAX + 1) == 0) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>MemCheckerInitPath: no host path");
    return;
  }
  char* s_cut_lv = strrchr(s_dir_lv, '/');
  char* s_cut2_lv = strrchr(s_dir_lv, '\\');
  if (s_cut2_lv != nullptr && (s_cut_lv == nullptr || s_cut2_lv > s_cut_lv)) s_cut_lv = s_cut2_lv;
  if (s_cut_lv != nullptr) *s_cut_lv = 0;
  strcat(s_dir_lv, "/memory");
  PlMkdir(s_dir_lv);
  char s_file_lv[I_MEM_PATH_SIZE];
  if (s_name_av == nullptr) {
    PathJoin(p_checker_av->m_s_mem_path, s_dir_lv, nullptr);
    return;
  }
  FormatStr(s_file_lv, sizeof(s_file_lv), "%s.log", s_name_av);
  PathJoin(p_checker_av->m_s_mem_path, s_dir_lv, s_file_lv);
}
