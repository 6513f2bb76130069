// Dynamic libraries, paths, plain files and memory on POSIX.
#include "platform/pl_os.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

void* PlLibOpen(const char* s_path_av) {
  if (s_path_av == nullptr) return nullptr;
  return dlopen(s_path_av, RTLD_NOW | RTLD_LOCAL);
}

void* PlLibSym(void* h_lib_av, const char* s_name_av) {
  if (h_lib_av == nullptr || s_name_av == nullptr) return nullptr;
  return dlsym(h_lib_av, s_name_av);
}

int PlLibClose(void* h_lib_av) { return h_lib_av == nullptr ? -1 : dlclose(h_lib_av); }

const char* PlLibError() {
  const char* s_lv = dlerror();
  return s_lv != nullptr ? s_lv : "";
}

size_t PlExePath(char* s_out_av, size_t ui_size_av) {
  if (s_out_av == nullptr || ui_size_av == 0) return 0;
  ssize_t i_len_lv = readlink("/proc/self/exe", s_out_av, ui_size_av - 1);
  if (i_len_lv <= 0 || static_cast<size_t>(i_len_lv) >= ui_size_av - 1) {
    s_out_av[0] = 0;
    return 0;
  }
  s_out_av[i_len_lv] = 0;
  return static_cast<size_t>(i_len_lv);
}

int PlMkdir(const char* s_path_av) {
  if (s_path_av == nullptr) return -1;
  if (mkdir(s_path_av, 0755) == 0 || errno == EEXIST) return 0;
  return -1;
}

int PlFileOpen(const char* s_path_av, int i_mode_av) {
  if (s_path_av == nullptr) return -1;
  int i_flags_lv = O_RDONLY;
  if (i_mode_av == PL_FILE_TRUNC) i_flags_lv = O_WRONLY | O_CREAT | O_TRUNC;
  if (i_mode_av == PL_FILE_APPEND) i_flags_lv = O_WRONLY | O_CREAT | O_APPEND;
  return open(s_path_av, i_flags_lv | O_CLOEXEC, 0644);
}

int PlFileOpenAppendRaw(const char* s_path_av) { return open(s_path_av, O_WRONLY | O_APPEND | O_CLOEXEC); }

long PlFileWrite(int fd_av, const void* p_data_av, size_t ui_len_av) {
  const char* p_lv = static_cast<const char*>(p_data_av);
  size_t ui_done_lv = 0;
  while (ui_done_lv < ui_len_av) {
    ssize_t i_rc_lv = write(fd_av, p_lv + ui_done_lv, ui_len_av - ui_done_lv);
    if (i_rc_lv < 0 && errno == EINTR) continue;
    if (i_rc_lv <= 0) return ui_done_lv > 0 ? static_cast<long>(ui_done_lv) : -1;
    ui_done_lv += static_cast<size_t>(i_rc_lv);
  }
  return static_cast<long>(ui_done_lv);
}

long PlFileRead(int fd_av, void* p_data_av, size_t ui_len_av) {
  char* p_lv = static_cast<char*>(p_data_av);
  size_t ui_done_lv = 0;
  while (ui_done_lv < ui_len_av) {
    ssize_t i_rc_lv = read(fd_av, p_lv + ui_done_lv, ui_len_av - ui_done_lv);
    if (i_rc_lv < 0 && errno == EINTR) continue;
    if (i_rc_lv < 0) return -1;
    if (i_rc_lv == 0) break;
    ui_done_lv += static_cast<size_t>(i_rc_lv);
  }
  return static_cast<long>(ui_done_lv);
}

long long PlFileSeekStart(int fd_av, long long i64_offset_av) {
  return static_cast<long long>(lseek(fd_av, static_cast<off_t>(i64_offset_av), SEEK_SET));
}

void PlFileClose(int fd_av) {
  if (fd_av >= 0) close(fd_av);
}

void PlStdoutWrite(const char* s_text_av, size_t ui_len_av) { PlFileWrite(1, s_text_av, ui_len_av); }

void* PlAlignedAlloc(size_t ui_size_av, size_t ui_align_av) {
  void* p_lv = nullptr;
  if (posix_memalign(&p_lv, ui_align_av, ui_size_av) != 0) return nullptr;
  return p_lv;
}

void PlAlignedFree(void* p_av) { free(p_av); }

// ThreadSanitizer does not follow pages that mremap moves: a later block
// placed where another one lived inherits that block's history, and two
// cameras that never share memory are reported as racing. Under it a block
// moves by a copy instead.
#if defined(__SANITIZE_THREAD__)
#define PL_PAGES_MOVE_BY_COPY 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PL_PAGES_MOVE_BY_COPY 1
#endif
#endif

namespace {

size_t PageBytes() {
  static const size_t s_ui_page_lv = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return s_ui_page_lv;
}

// Whole pages that hold a block of that size; 0 for a size that no page
// count can hold.
size_t PagesSpan(size_t ui_size_av) {
  size_t ui_page_lv = PageBytes();
  if (ui_size_av > SIZE_MAX - ui_page_lv) return 0;
  return (ui_size_av + ui_page_lv - 1) / ui_page_lv * ui_page_lv;
}

}  // namespace

void* PlPagesAlloc(size_t ui_size_av) {
  size_t ui_span_lv = PagesSpan(ui_size_av);
  if (ui_size_av == 0 || ui_span_lv == 0) return nullptr;
  void* p_lv = mmap(nullptr, ui_span_lv, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p_lv == MAP_FAILED ? nullptr : p_lv;
}

void* PlPagesResize(void* p_av, size_t ui_old_size_av, size_t ui_new_size_av) {
  if (p_av == nullptr) return PlPagesAlloc(ui_new_size_av);
  size_t ui_old_span_lv = PagesSpan(ui_old_size_av);
  size_t ui_new_span_lv = PagesSpan(ui_new_size_av);
  if (ui_new_size_av == 0 || ui_new_span_lv == 0) return nullptr;
  // The old last page may carry bytes written past the old size; a block
  // that grows into them must read zero there, as fresh pages do.
  if (ui_new_size_av > ui_old_size_av) {
    size_t ui_end_lv = ui_new_size_av < ui_old_span_lv ? ui_new_size_av : ui_old_span_lv;
    if (ui_end_lv > ui_old_size_av) memset(static_cast<char*>(p_av) + ui_old_size_av, 0, ui_end_lv - ui_old_size_av);
  }
  if (ui_new_span_lv == ui_old_span_lv) return p_av;
#ifdef PL_PAGES_MOVE_BY_COPY
  void* p_lv = PlPagesAlloc(ui_new_size_av);
  if (p_lv == nullptr) return nullptr;
  memcpy(p_lv, p_av, ui_new_size_av < ui_old_size_av ? ui_new_size_av : ui_old_size_av);
  PlPagesFree(p_av, ui_old_size_av);
  return p_lv;
#else
  void* p_lv = mremap(p_av, ui_old_span_lv, ui_new_span_lv, MREMAP_MAYMOVE);
  return p_lv == MAP_FAILED ? nullptr : p_lv;
#endif
}

void PlPagesFree(void* p_av, size_t ui_size_av) {
  if (p_av != nullptr) munmap(p_av, PagesSpan(ui_size_av));
}

bool PlOsVersion(bool b_long_form_av, uint32_t* p_platform_id_av) {
  utsname name_lv;
  if (uname(&name_lv) != 0) return false;
  // Both forms come from the same call here; the long form also wants a
  // release text, which every kernel gives.
  if (b_long_form_av && name_lv.release[0] == 0) return false;
  if (p_platform_id_av != nullptr) *p_platform_id_av = 2;
  return true;
}

void PlExitProcess(int i_code_av) {
  fflush(nullptr);
  _exit(i_code_av);
}
