// The stability monitor: the slot free list behind StableEnter/StableLeave,
// the print thread that writes the stable, cpu and memory files once a
// minute, and the crash print. dll_init calls StableStart, dll_free
// StableStop; every entry wrapper and thread of the plug-in claims a slot;
// the host calls exception_filter when the process dies.
#include "linux/common_use/service/Stable.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/service/service4.h"
#include "platform/pl_os.h"

StableObject* g_p_stable = nullptr;
char g_s_plugin_path[64] = {0};

namespace {

// One pass a minute; the wait on the stop event is the print thread's clock.
const uint32_t STABLE_PRINT_PERIOD_MS = 60000;
// A file that has taken more lines than this is emptied at the next pass.
const int32_t STABLE_LINES_MAX = 10000;
// Points below this are the plug-in's own work ("profdata"), points above
// STABLE_POINT_SLEEP_AFTER its waits ("mysleep").
const int32_t STABLE_POINT_PROFDATA_END = 10000;
const int32_t STABLE_POINT_SLEEP_AFTER = 90000;
// The host executable's name is taken up to this length.
const size_t STABLE_EXE_PATH_MAX = 240;
// The print thread keeps its tables on the heap; this is room for the
// formatting and the file buffer.
const size_t STABLE_THREAD_STACK = 256 * 1024;
// Signature of the print thread's work buffers in the checked allocator.
const int32_t STABLE_MEM_SIGN = 61;

enum { STABLE_FILE_STABLE = 0, STABLE_FILE_CPU = 1, STABLE_FILE_MEMORY = 2, STABLE_FILE_NUM = 3 };

// ---------------------------------------------------------------------------
// Free list. The lock covers the list only; slot fields belong to the thread
// that holds the slot.

void StableInitSlots(StableObject* p_av) {
  memset(p_av->m_slots, 0, sizeof(p_av->m_slots));
  for (int32_t i_lv = 0; i_lv < STABLE_SLOT_NUM; ++i_lv) {
    p_av->m_slots[i_lv].m_i_index = i_lv;
    if (i_lv + 1 < STABLE_SLOT_NUM) p_av->m_slots[i_lv].m_p_next = &p_av->m_slots[i_lv + 1];
  }
  // Slot 0 is the end mark and never given out; it points to itself so that
  // a walk along the list always ends on it.
  p_av->m_p_head = &p_av->m_slots[1];
  p_av->m_p_tail = &p_av->m_slots[STABLE_SLOT_NUM - 1];
  p_av->m_p_end = &p_av->m_slots[0];
  p_av->m_slots[0].m_p_next = &p_av->m_slots[0];
  p_av->m_slots[STABLE_SLOT_NUM - 1].m_p_next = &p_av->m_slots[0];
}

// The head of the free list, or null when only the last free slot is left:
// that one stays on the list so that the list never runs empty.
StableSlot* StableTakeFree(StableObject* p_av) {
  PlCritLock lock_lv(p_av->m_p_lock);
  StableSlot* p_slot_lv = p_av->m_p_head;
  if (p_slot_lv->m_p_next == p_av->m_p_end) return nullptr;
  p_av->m_p_head = p_slot_lv->m_p_next;
  return p_slot_lv;
}

void StableGiveBack(StableObject* p_av, StableSlot* p_slot_av) {
  PlCritLock lock_lv(p_av->m_p_lock);
  p_slot_av->m_p_next = p_av->m_p_end;
  int64_t i64_now_lv = PlPerfCounter();
  StableAdd(&p_av->m_i64_time[p_slot_av->m_i_timing_point], i64_now_lv - p_slot_av->m_i64_start_ticks);
  StableStore(&p_slot_av->m_i_timing_point, 0);
  p_av->m_p_tail->m_p_next = p_slot_av;
  p_av->m_p_tail = p_slot_av;
}

void StableCopyName(char* s_out_av, const char* s_name_av) {
  int32_t i_len_lv = 0;
  if (s_name_av != nullptr) {
    while (i_len_lv < STABLE_NAME_MAX && s_name_av[i_len_lv] != 0) {
      StableStore(&s_out_av[i_len_lv], s_name_av[i_len_lv]);
      ++i_len_lv;
    }
  }
  StableStore(&s_out_av[i_len_lv], static_cast<char>(0));
}

// ---------------------------------------------------------------------------
// Time of the headers: UTC day, hour and minute are kept in the object so
// that the crash print can say when the monitor last wrote.

void StableUtcNow(PlCalendar* p_cal_av) {
  if (!PlFileTimeToCalendar(PlFileTimeUtc(), p_cal_av)) memset(p_cal_av, 0, sizeof(*p_cal_av));
}

void StableStoreTime(StableObject* p_av, const PlCalendar* p_cal_av) {
  StableStore(&p_av->m_i_day, p_cal_av->i_day);
  StableStore(&p_av->m_i_hour, p_cal_av->i_hour);
  StableStore(&p_av->m_i_minute, p_cal_av->i_minute);
}

// ---------------------------------------------------------------------------
// A file of one pass, written through a buffer so that 1,200 slot lines cost
// a few system calls. Lines are cut at the buffer's end, never overrun it.

struct TStableFile {
  int m_i_fd;
  size_t m_ui_used;
  char m_s_buf[8192];
};

const size_t STABLE_LINE_ROOM = 512;

void StableFileFlush(TStableFile* p_av) {
  if (p_av->m_ui_used > 0) PlFileWrite(p_av->m_i_fd, p_av->m_s_buf, p_av->m_ui_used);
  p_av->m_ui_used = 0;
}

void StableFilePrintf(TStableFile* p_av, const char* s_format_av, ...) __attribute__((format(printf, 2, 3)));
void StableFilePrintf(TStableFile* p_av, const char* s_format_av, ...) {
  if (sizeof(p_av->m_s_buf) - p_av->m_ui_used < STABLE_LINE_ROOM) StableFileFlush(p_av);
  size_t ui_room_lv = sizeof(p_av->m_s_buf) - p_av->m_ui_used;
  va_list args_lv;
  va_start(args_lv, s_format_av);
  int i_len_lv = vsnprintf(p_av->m_s_buf + p_av->m_ui_used, ui_room_lv, s_format_av, args_lv);
  va_end(args_lv);
  if (i_len_lv <= 0) return;
  size_t ui_len_lv = static_cast<size_t>(i_len_lv);
  p_av->m_ui_used += ui_len_lv < ui_room_lv ? ui_len_lv : ui_room_lv - 1;
}

void StableFileClose(TStableFile* p_av) {
  StableFileFlush(p_av);
  PlFileClose(p_av->m_i_fd);
}

// Reads UTC, keeps it in the object and writes the header of a pass.
void StableWriteHeader(StableObject* p_av, TStableFile* p_file_av) {
  PlCalendar cal_lv;
  StableUtcNow(&cal_lv);
  StableStoreTime(p_av, &cal_lv);
  StableFilePrintf(p_file_av, "%d %d:%d:%d----------------------\n", cal_lv.i_day, cal_lv.i_hour, cal_lv.i_minute,
                   cal_lv.i_second);
}

// ---------------------------------------------------------------------------
// Files at start: three folders beside the host executable, one log each,
// named after the plug-in.

// Formats a path; a path that does not fit stays empty, so that nothing is
// written under a cut name.
void StableMakePath(char* s_out_av, const char* s_format_av, const char* s_dir_av, const char* s_name_av) {
  int i_len_lv = snprintf(s_out_av, STABLE_PATH_SIZE, s_format_av, s_dir_av, s_name_av);
  if (i_len_lv < 0 || i_len_lv >= STABLE_PATH_SIZE) {
    s_out_av[0] = 0;
    TRACE45(TLOG_ARC, TSEV_FAULT, "<stable> path too long in %s", s_dir_av);
  }
}

void StableInitFiles(StableObject* p_av) {
  char s_dir_lv[STABLE_EXE_PATH_MAX + 2];
  if (PlExePath(s_dir_lv, sizeof(s_dir_lv)) == 0) {
    p_av->m_h_done->Set();
    return;
  }
  char* p_cut_lv = strrchr(s_dir_lv, '/');
  char* p_cut2_lv = strrchr(s_dir_lv, '\\');
  if (p_cut2_lv > p_cut_lv) p_cut_lv = p_cut2_lv;
  if (p_cut_lv != nullptr) *p_cut_lv = 0;

  static const char* const s_sub_lv[STABLE_FILE_NUM] = {"stable", "cpu", "memory"};
  char* s_paths_lv[STABLE_FILE_NUM] = {p_av->m_s_stable_path, p_av->m_s_cpu_path, p_av->m_s_memory_path};
  for (int i_lv = 0; i_lv < STABLE_FILE_NUM; ++i_lv) {
    char s_sub_dir_lv[STABLE_PATH_SIZE];
    StableMakePath(s_sub_dir_lv, "%s/%s", s_dir_lv, s_sub_lv[i_lv]);
    PlMkdir(s_sub_dir_lv);
    StableMakePath(s_paths_lv[i_lv], "%s%s.log", s_sub_dir_lv, g_s_plugin_path);
  }
  for (int i_lv = 0; i_lv < STABLE_FILE_NUM; ++i_lv) {
    TStableFile file_lv;
    file_lv.m_i_fd = PlFileOpen(s_paths_lv[i_lv], PL_FILE_TRUNC);
    file_lv.m_ui_used = 0;
    if (file_lv.m_i_fd < 0) break;
    StableFilePrintf(&file_lv, "start %s\n", g_s_plugin_path);
    StableFileClose(&file_lv);
  }
}

// ---------------------------------------------------------------------------
// The print thread.

struct TStablePrintState {
  int32_t m_i_lines[STABLE_FILE_NUM];
  int64_t* m_p_time_work;     // the time table of the pass
  int32_t* m_p_count_work;    // the count table of the pass
  StableSlot* m_p_snapshot;   // the slot table of the pass
};

const char* StablePath(StableObject* p_av, int i_file_av) {
  if (i_file_av == STABLE_FILE_STABLE) return p_av->m_s_stable_path;
  if (i_file_av == STABLE_FILE_CPU) return p_av->m_s_cpu_path;
  return p_av->m_s_memory_path;
}

// Step 1: all three files must take a line, or the thread writes nothing.
bool StableAnnounceThread(StableObject* p_av) {
  int fd_lv[STABLE_FILE_NUM];
  bool b_ok_lv = true;
  for (int i_lv = 0; i_lv < STABLE_FILE_NUM; ++i_lv) {
    fd_lv[i_lv] = PlFileOpen(StablePath(p_av, i_lv), PL_FILE_APPEND);
    if (fd_lv[i_lv] < 0) b_ok_lv = false;
  }
  static const char s_line_lv[] = "start thread print\n";
  for (int i_lv = 0; i_lv < STABLE_FILE_NUM; ++i_lv) {
    if (fd_lv[i_lv] < 0) continue;
    if (b_ok_lv) PlFileWrite(fd_lv[i_lv], s_line_lv, sizeof(s_line_lv) - 1);
    PlFileClose(fd_lv[i_lv]);
  }
  return b_ok_lv;
}

void StableFreeState(TStablePrintState* p_av) {
  if (p_av->m_p_time_work != nullptr) SAFE_MEM_FREE(p_av->m_p_time_work);
  if (p_av->m_p_count_work != nullptr) SAFE_MEM_FREE(p_av->m_p_count_work);
  if (p_av->m_p_snapshot != nullptr) SAFE_MEM_FREE(p_av->m_p_snapshot);
}

bool StableInitState(TStablePrintState* p_av) {
  memset(p_av, 0, sizeof(*p_av));
  SAFE_MEM_ALLOCB5(p_av->m_p_time_work, static_cast<int32_t>(sizeof(int64_t) * STABLE_POINT_NUM), STABLE_MEM_SIGN);
  SAFE_MEM_ALLOCB5(p_av->m_p_count_work, static_cast<int32_t>(sizeof(int32_t) * STABLE_POINT_NUM), STABLE_MEM_SIGN);
  SAFE_MEM_ALLOCB5(p_av->m_p_snapshot, static_cast<int32_t>(sizeof(StableSlot) * STABLE_SLOT_NUM), STABLE_MEM_SIGN);
  if (p_av->m_p_time_work != nullptr && p_av->m_p_count_work != nullptr && p_av->m_p_snapshot != nullptr) return true;
  StableFreeState(p_av);
  TRACE45(TLOG_ARC, TSEV_FAULT, "<stable> print thread has no memory for its tables");
  return false;
}

// A file at most STABLE_LINES_MAX lines long is continued; a longer one is
// emptied and counted from 0.
int StableOpenForPass(const char* s_path_av, int32_t* p_lines_av) {
  if (*p_lines_av <= STABLE_LINES_MAX) return PlFileOpen(s_path_av, PL_FILE_APPEND);
  int fd_lv = PlFileOpen(s_path_av, PL_FILE_TRUNC);
  if (fd_lv >= 0) *p_lines_av = 0;
  return fd_lv;
}

// One slot's fields as its owner last wrote them. The name is read byte by
// byte; a name changing hands during the copy may come out mixed, which
// the print accepts.
void StableSnapSlot(StableSlot* p_out_av, const StableSlot* p_slot_av) {
  p_out_av->m_ui_thread_id = StableLoad(&p_slot_av->m_ui_thread_id);
  p_out_av->m_i_point = StableLoad(&p_slot_av->m_i_point);
  p_out_av->m_i_index = p_slot_av->m_i_index;
  p_out_av->m_i_timing_point = StableLoad(&p_slot_av->m_i_timing_point);
  p_out_av->m_i64_start_ticks = StableLoad(&p_slot_av->m_i64_start_ticks);
  p_out_av->m_p_next = nullptr;
  p_out_av->m_ui_counter = StableLoad(&p_slot_av->m_ui_counter);
  p_out_av->m_ui_prev_counter = p_slot_av->m_ui_prev_counter;
  for (int32_t i_lv = 0; i_lv < STABLE_NAME_SIZE; ++i_lv) {
    p_out_av->m_s_name[i_lv] = StableLoad(&p_slot_av->m_s_name[i_lv]);
  }
}

// The slots, from a snapshot taken without the lock. A live slot whose
// counter has not moved since the last pass is stalled: no StableEnter and
// no StableMark for a minute or more.
void StableWriteSlots(StableObject* p_av, TStablePrintState* p_state_av, int fd_av) {
  TStableFile file_lv;
  file_lv.m_i_fd = fd_av;
  file_lv.m_ui_used = 0;
  int32_t* p_lines_lv = &p_state_av->m_i_lines[STABLE_FILE_STABLE];
  StableWriteHeader(p_av, &file_lv);
  ++*p_lines_lv;
  StableSlot* p_snap_lv = p_state_av->m_p_snapshot;
  for (int32_t i_lv = 0; i_lv < STABLE_SLOT_NUM; ++i_lv) StableSnapSlot(&p_snap_lv[i_lv], &p_av->m_slots[i_lv]);
  for (int32_t i_lv = 0; i_lv < STABLE_SLOT_NUM; ++i_lv) {
    p_av->m_slots[i_lv].m_ui_prev_counter = p_snap_lv[i_lv].m_ui_counter;
    const StableSlot& slot_lv = p_snap_lv[i_lv];
    if (slot_lv.m_s_name[0] == 0) continue;
    StableFilePrintf(&file_lv, "[%d][%d] a=%d tID %d '%.*s'\n", i_lv, static_cast<int>(slot_lv.m_ui_counter),
                     slot_lv.m_i_point, static_cast<int>(slot_lv.m_ui_thread_id), STABLE_NAME_SIZE - 1,
                     slot_lv.m_s_name);
    ++*p_lines_lv;
    if (slot_lv.m_ui_prev_counter == slot_lv.m_ui_counter) StableFilePrintf(&file_lv, "TORMOZ!!!!\n");
  }
  StableFileClose(&file_lv);
}

// Where the minute went, per point, in percent of one processor's minute.
// The tables are taken and cleared without the lock; an addition made in
// that instant may be lost.
void StableWriteCpu(StableObject* p_av, TStablePrintState* p_state_av, int fd_av) {
  for (int32_t i_lv = 0; i_lv < STABLE_POINT_NUM; ++i_lv) {
    p_state_av->m_p_time_work[i_lv] = StableLoad(&p_av->m_i64_time[i_lv]);
    p_state_av->m_p_count_work[i_lv] = StableLoad(&p_av->m_i_count[i_lv]);
    StableStore(&p_av->m_i64_time[i_lv], static_cast<int64_t>(0));
    StableStore(&p_av->m_i_count[i_lv], 0);
  }

  TStableFile file_lv;
  file_lv.m_i_fd = fd_av;
  file_lv.m_ui_used = 0;
  int32_t* p_lines_lv = &p_state_av->m_i_lines[STABLE_FILE_CPU];
  StableWriteHeader(p_av, &file_lv);
  ++*p_lines_lv;
  int64_t i64_minute_lv = PlPerfFrequency() * 60;
  if (i64_minute_lv <= 0) i64_minute_lv = 1;
  int64_t i64_total_lv = 0, i64_low_lv = 0, i64_high_lv = 0, i64_cnt_lv = 0;
  for (int32_t i_lv = 0; i_lv < STABLE_POINT_NUM; ++i_lv) {
    int64_t i64_time_lv = p_state_av->m_p_time_work[i_lv];
    if (i64_time_lv == 0) continue;
    int64_t i64_percent_lv = i64_time_lv * 100 / i64_minute_lv;
    if (i64_percent_lv != 0) {
      StableFilePrintf(&file_lv, "[%d] %lld %% %d\n", i_lv, static_cast<long long>(i64_percent_lv),
                       p_state_av->m_p_count_work[i_lv]);
      ++*p_lines_lv;
    }
    i64_total_lv += i64_time_lv;
    if (i_lv < STABLE_POINT_PROFDATA_END) i64_low_lv += i64_time_lv;
    if (i_lv > STABLE_POINT_SLEEP_AFTER) i64_high_lv += i64_time_lv;
    i64_cnt_lv += p_state_av->m_p_count_work[i_lv];
  }
  // No line end: the next pass's header follows on the same line.
  StableFilePrintf(&file_lv, "MYTORMOZ=%lld %% cpu=%lld mysleep=%lld profdata=%lld CNT=%lld",
                   static_cast<long long>((i64_total_lv - i64_high_lv) * 100 / i64_minute_lv),
                   static_cast<long long>(i64_total_lv * 100 / i64_minute_lv),
                   static_cast<long long>(i64_high_lv * 100 / i64_minute_lv),
                   static_cast<long long>(i64_low_lv * 100 / i64_minute_lv), static_cast<long long>(i64_cnt_lv));
  StableFileClose(&file_lv);
}

void StableWriteMemory(StableObject* p_av, TStablePrintState* p_state_av, int fd_av) {
  TStableFile file_lv;
  file_lv.m_i_fd = fd_av;
  file_lv.m_ui_used = 0;
  StableWriteHeader(p_av, &file_lv);
  StableFilePrintf(&file_lv, "mem %lld\n", static_cast<long long>(p_av->m_i64_memcounter));
  p_state_av->m_i_lines[STABLE_FILE_MEMORY] += 2;
  StableFileClose(&file_lv);
}

// One pass. A file that will not open is skipped this time; for the cpu file
// the tables then go on adding up until a pass gets through.
void StablePrintPass(StableObject* p_av, TStablePrintState* p_state_av) {
  TRACE44(TLOG_ARC, "<stable> bef print file dump %s ", p_av->m_s_stable_path);
  int fd_lv[STABLE_FILE_NUM];
  for (int i_lv = 0; i_lv < STABLE_FILE_NUM; ++i_lv) {
    fd_lv[i_lv] = StableOpenForPass(StablePath(p_av, i_lv), &p_state_av->m_i_lines[i_lv]);
  }
  if (fd_lv[STABLE_FILE_STABLE] >= 0) StableWriteSlots(p_av, p_state_av, fd_lv[STABLE_FILE_STABLE]);
  if (fd_lv[STABLE_FILE_CPU] >= 0) StableWriteCpu(p_av, p_state_av, fd_lv[STABLE_FILE_CPU]);
  if (fd_lv[STABLE_FILE_MEMORY] >= 0) StableWriteMemory(p_av, p_state_av, fd_lv[STABLE_FILE_MEMORY]);
}

void StableWriteExitLine(StableObject* p_av) {
  TStableFile file_lv;
  file_lv.m_i_fd = PlFileOpen(p_av->m_s_stable_path, PL_FILE_APPEND);
  file_lv.m_ui_used = 0;
  if (file_lv.m_i_fd < 0) return;
  PlCalendar cal_lv;
  StableUtcNow(&cal_lv);
  StableFilePrintf(&file_lv, "%d %d:%d:%d---normal exit\n", cal_lv.i_day, cal_lv.i_hour, cal_lv.i_minute,
                   cal_lv.i_second);
  StableFileClose(&file_lv);
}

void StablePrintThread(StableObject* p_av) {
  TStablePrintState state_lv;
  if (StableAnnounceThread(p_av) && StableInitState(&state_lv)) {
    // Each pass starts with the wait, so the first comes after a minute.
    while (p_av->m_h_stop->Wait(STABLE_PRINT_PERIOD_MS) == PL_WAIT_TIMEOUT) StablePrintPass(p_av, &state_lv);
    StableFreeState(&state_lv);
    StableWriteExitLine(p_av);
  }
  p_av->m_h_done->Set();
}

uint32_t StablePrintThreadEntry(void* p_arg_av) {
  uint8_t ui_saved_hook_lv = HookGet();
  HookSet(HOOK_IN_PLUGIN);
  TRACE44(TLOG_ARC, "<stable> start thread");
  StablePrintThread(static_cast<StableObject*>(p_arg_av));
  HookSet(ui_saved_hook_lv);
  return 0;
}

void StableStartThread(StableObject* p_av) {
  PlThread* h_thread_lv = PlThread::Create(StablePrintThreadEntry, p_av, STABLE_THREAD_STACK, true);
  if (h_thread_lv == nullptr) {
    // Nobody would ever set the done event that StableStop waits for.
    TRACE45(TLOG_ARC, TSEV_FAULT, "<stable> print thread not created");
    p_av->m_h_done->Set();
    return;
  }
  p_av->m_h_thread = h_thread_lv;
  if (h_thread_lv->Resume() != 1) {
    PlThread::Close(h_thread_lv);
    p_av->m_h_thread = nullptr;
  }
}

// ---------------------------------------------------------------------------
// Crash print: runs while anything else may be broken, so it takes no lock,
// touches no heap and formats nothing through the printf family.

struct TStableCrashOut {
  int m_i_fd;
  int32_t m_b_echo;
};

void CrashPut(const TStableCrashOut* p_out_av, const char* s_bytes_av, size_t ui_len_av) {
  PlFileWrite(p_out_av->m_i_fd, s_bytes_av, ui_len_av);
  if (p_out_av->m_b_echo != 0) PlStdoutWrite(s_bytes_av, ui_len_av);
}

void CrashPutText(const TStableCrashOut* p_out_av, const char* s_text_av) {
  size_t ui_len_lv = 0;
  while (s_text_av[ui_len_lv] != 0) ++ui_len_lv;
  CrashPut(p_out_av, s_text_av, ui_len_lv);
}

void CrashPutNumber(const TStableCrashOut* p_out_av, uint32_t ui_value_av, uint32_t ui_base_av) {
  static const char s_digits_lv[] = "0123456789ABCDEF";
  char s_buf_lv[16];
  size_t ui_pos_lv = sizeof(s_buf_lv);
  do {
    s_buf_lv[--ui_pos_lv] = s_digits_lv[ui_value_av % ui_base_av];
    ui_value_av /= ui_base_av;
  } while (ui_value_av != 0);
  CrashPut(p_out_av, s_buf_lv + ui_pos_lv, sizeof(s_buf_lv) - ui_pos_lv);
}

void CrashPutDec(const TStableCrashOut* p_out_av, uint32_t ui_value_av) { CrashPutNumber(p_out_av, ui_value_av, 10); }

void CrashPutSlot(const TStableCrashOut* p_out_av, const StableSlot* p_slot_av, int32_t i_index_av,
                  uint32_t ui_crashed_av) {
  if (p_slot_av->m_ui_thread_id == ui_crashed_av) CrashPutText(p_out_av, "ENASOS--- ---");
  CrashPutText(p_out_av, "tiD ");
  CrashPutDec(p_out_av, p_slot_av->m_ui_thread_id);
  CrashPutText(p_out_av, " x ");
  CrashPutNumber(p_out_av, p_slot_av->m_ui_thread_id, 16);
  CrashPutText(p_out_av, " ind ");
  CrashPutDec(p_out_av, static_cast<uint32_t>(i_index_av));
  CrashPutText(p_out_av, " intrenal count ");
  CrashPutDec(p_out_av, p_slot_av->m_ui_counter & 0xFFu);
  CrashPutText(p_out_av, " point ");
  CrashPutDec(p_out_av, static_cast<uint32_t>(p_slot_av->m_i_point));
  // The blank behind the word is left out, so the name follows at once.
  static const char s_thread_lv[] = " thread ";
  CrashPut(p_out_av, s_thread_lv, 7);
  size_t ui_len_lv = 0;
  while (ui_len_lv < static_cast<size_t>(STABLE_NAME_SIZE) && p_slot_av->m_s_name[ui_len_lv] != 0) ++ui_len_lv;
  CrashPut(p_out_av, p_slot_av->m_s_name, ui_len_lv);
  CrashPutText(p_out_av, "\n");
}

void CrashPrintSlots(const StableObject* p_av, uint32_t ui_crashed_av) {
  TStableCrashOut out_lv;
  out_lv.m_i_fd = PlFileOpenAppendRaw(p_av->m_s_stable_path);
  out_lv.m_b_echo = p_av->m_b_echo;
  if (out_lv.m_i_fd < 0) return;
  // The length comes from the twin text; the capital T is what is written.
  static const char s_head_lv[] = "crash aT ___";
  static const char s_twin_lv[] = "crash at ___";
  CrashPut(&out_lv, s_head_lv, sizeof(s_twin_lv) - 1);
  // Day, hour and minute of the last header, not the present time.
  CrashPutText(&out_lv, "20xx:xx:");
  CrashPutDec(&out_lv, static_cast<uint32_t>(StableLoad(&p_av->m_i_day)));
  CrashPutText(&out_lv, " ");
  CrashPutDec(&out_lv, static_cast<uint32_t>(StableLoad(&p_av->m_i_hour)));
  CrashPutText(&out_lv, ":");
  CrashPutDec(&out_lv, static_cast<uint32_t>(StableLoad(&p_av->m_i_minute)));
  CrashPutText(&out_lv, "\n");
  for (int32_t i_lv = 0; i_lv < STABLE_SLOT_NUM; ++i_lv) {
    StableSlot snap_lv;  // on the stack: no heap at a crash
    StableSnapSlot(&snap_lv, &p_av->m_slots[i_lv]);
    if (snap_lv.m_s_name[0] != 0) CrashPutSlot(&out_lv, &snap_lv, i_lv, ui_crashed_av);
  }
  CrashPutText(&out_lv, "__\n");
  PlFileClose(out_lv.m_i_fd);
}

void CrashPrintMemory() {
  MemChecker* p_checker_lv = g_p_mem_checker;
  if (p_checker_lv == nullptr) return;
  int fd_lv = PlFileOpenAppendRaw(p_checker_lv->m_s_mem_path);
  if (fd_lv < 0) return;
  MemCheckerDumpToFile(fd_lv, p_checker_lv);
  PlFileClose(fd_lv);
}

}  // namespace

// ---------------------------------------------------------------------------

void StableStart() {
  StableObject* p_lv = g_p_stable;
  if (p_lv == nullptr) return;
  p_lv->m_b_echo = 0;
  p_lv->m_i64_memcounter = 0;
  void* p_mem_lv = PlAlignedAlloc(sizeof(PlCritSect), 32);
  p_lv->m_p_lock = p_mem_lv != nullptr ? new (p_mem_lv) PlCritSect() : nullptr;
  if (p_lv->m_p_lock == nullptr) TRACE45(TLOG_ARC, TSEV_FAULT, "<stable> no memory for the lock");
  StableInitSlots(p_lv);
  p_lv->m_h_stop = new PlEvent(true, false);
  p_lv->m_h_done = new PlEvent(true, false);
  PlCalendar cal_lv;
  StableUtcNow(&cal_lv);
  StableStoreTime(p_lv, &cal_lv);
  StableInitFiles(p_lv);
  if (p_lv->m_h_thread == nullptr) StableStartThread(p_lv);
}

void StableStop() {
  StableObject* p_lv = g_p_stable;
  if (p_lv == nullptr) return;
  if (p_lv->m_h_stop != nullptr) p_lv->m_h_stop->Set();
  if (p_lv->m_h_done != nullptr) p_lv->m_h_done->Wait(PL_INFINITE);
  if (p_lv->m_h_thread != nullptr) {
    p_lv->m_h_thread->Join(PL_INFINITE);
    PlThread::Close(p_lv->m_h_thread);
    p_lv->m_h_thread = nullptr;
  }
  delete p_lv->m_h_stop;
  p_lv->m_h_stop = nullptr;
  delete p_lv->m_h_done;
  p_lv->m_h_done = nullptr;
  if (p_lv->m_p_lock != nullptr) {
    p_lv->m_p_lock->~PlCritSect();
    PlAlignedFree(p_lv->m_p_lock);
    p_lv->m_p_lock = nullptr;
  }
}

int32_t StableEnter(const char* s_name_av) {
  HookSet(HOOK_IN_PLUGIN);
  StableObject* p_lv = g_p_stable;
  if (p_lv == nullptr || p_lv->m_p_lock == nullptr) return -1;
  StableSlot* p_slot_lv = StableTakeFree(p_lv);
  // Full: the caller works on slot 0, which is never shown.
  if (p_slot_lv == nullptr) return 0;
  StableStore(&p_slot_lv->m_ui_counter, StableLoad(&p_slot_lv->m_ui_counter) + 1);
  StableStore(&p_slot_lv->m_i_point, 1);
  StableCopyName(p_slot_lv->m_s_name, s_name_av);
  StableStore(&p_slot_lv->m_i64_start_ticks, PlPerfCounter());
  StableStore(&p_slot_lv->m_i_timing_point, 1);
  StableStore(&p_slot_lv->m_ui_thread_id, PlThreadCurrentId());
  return p_slot_lv->m_i_index;
}

void StableLeave(int32_t i_slot_av) {
  StableObject* p_lv = g_p_stable;
  if (p_lv != nullptr && p_lv->m_p_lock != nullptr && StableSlotValid(i_slot_av)) {
    StableSlot* p_slot_lv = &p_lv->m_slots[i_slot_av];
    StableStore(&p_slot_lv->m_s_name[0], static_cast<char>(0));
    StableGiveBack(p_lv, p_slot_lv);
  }
  HookSet(HOOK_IN_BUS);
}

void StableScopeEnd(const TStableScope* p_scope_av) {
  if (p_scope_av == nullptr) return;
  StableLeave(p_scope_av->m_i_slot);
  HookSet(p_scope_av->m_ui_saved_hook);
}

extern "C" __attribute__((visibility("default"))) void exception_filter(int32_t i_thread_id_av) {
  // Thread ids are compared as the 32 bits the host passes.
  uint32_t ui_crashed_lv = static_cast<uint32_t>(i_thread_id_av);
  const StableObject* p_lv = g_p_stable;
  if (p_lv != nullptr && p_lv->m_s_stable_path[0] != 0) CrashPrintSlots(p_lv, ui_crashed_lv);
  CrashPrintMemory();
}
