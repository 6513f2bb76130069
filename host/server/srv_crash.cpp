// The crash handler of writer-host (see srv_crash.h). Runs inside a signal
// handler: only async-signal-safe calls from the moment the signal arrives.
#include "host/server/srv_crash.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

const int FATAL_SIGNALS[] = {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL};
std::atomic<SrvExceptionFilterFn> g_p_filter{nullptr};
thread_local void* g_p_alt_stack = nullptr;

void WriteText(const char* s_av) {
  ssize_t i_lv = write(2, s_av, strlen(s_av));
  (void)i_lv;
}

void WriteNumber(long l_av) {
  char s_lv[24];
  int i_lv = sizeof(s_lv) - 1;
  s_lv[i_lv] = 0;
  unsigned long ul_lv = l_av < 0 ? 0 : static_cast<unsigned long>(l_av);
  do {
    s_lv[--i_lv] = static_cast<char>('0' + ul_lv % 10);
    ul_lv /= 10;
  } while (ul_lv != 0 && i_lv > 0);
  WriteText(s_lv + i_lv);
}

void OnFatalSignal(int i_sig_av, siginfo_t*, void*) {
  long l_tid_lv = syscall(SYS_gettid);
  WriteText("writer-host: fatal signal ");
  WriteNumber(i_sig_av);
  WriteText(" in thread ");
  WriteNumber(l_tid_lv);
  WriteText("; the plug-in writes its crash print to stable/writer.log\n");
  SrvExceptionFilterFn fn_lv = g_p_filter.exchange(nullptr);
  if (fn_lv != nullptr) fn_lv(static_cast<int32_t>(l_tid_lv));
  // Die of the same signal, as the process would have without us: the
  // default action again, and the signal sent to this very thread. It is
  // blocked while the handler runs and lands when the handler returns.
  struct sigaction act_lv;
  memset(&act_lv, 0, sizeof(act_lv));
  act_lv.sa_handler = SIG_DFL;
  sigaction(i_sig_av, &act_lv, nullptr);
  syscall(SYS_tgkill, getpid(), l_tid_lv, i_sig_av);
}

}  // namespace

void SrvCrashThreadBegin() {
  if (g_p_alt_stack != nullptr) return;
  size_t ui_size_lv = 64 * 1024;
  g_p_alt_stack = malloc(ui_size_lv);
  if (g_p_alt_stack == nullptr) return;
  stack_t stack_lv;
  memset(&stack_lv, 0, sizeof(stack_lv));
  stack_lv.ss_sp = g_p_alt_stack;
  stack_lv.ss_size = ui_size_lv;
  if (sigaltstack(&stack_lv, nullptr) != 0) {
    free(g_p_alt_stack);
    g_p_alt_stack = nullptr;
  }
}

void SrvCrashThreadEnd() {
  if (g_p_alt_stack == nullptr) return;
  stack_t stack_lv;
  memset(&stack_lv, 0, sizeof(stack_lv));
  stack_lv.ss_flags = SS_DISABLE;
  sigaltstack(&stack_lv, nullptr);
  free(g_p_alt_stack);
  g_p_alt_stack = nullptr;
}

bool SrvCrashInstall(SrvExceptionFilterFn fn_av) {
  g_p_filter = fn_av;
  SrvCrashThreadBegin();
  struct sigaction act_lv;
  memset(&act_lv, 0, sizeof(act_lv));
  act_lv.sa_sigaction = &OnFatalSignal;
  act_lv.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&act_lv.sa_mask);
  bool b_ok_lv = true;
  for (int i_sig_lv : FATAL_SIGNALS) b_ok_lv = sigaction(i_sig_lv, &act_lv, nullptr) == 0 && b_ok_lv;
  return b_ok_lv;
}

void SrvCrashForgetFilter() { g_p_filter = nullptr; }

void SrvCrashUninstall() {
  g_p_filter = nullptr;
  struct sigaction act_lv;
  memset(&act_lv, 0, sizeof(act_lv));
  act_lv.sa_handler = SIG_DFL;
  for (int i_sig_lv : FATAL_SIGNALS) sigaction(i_sig_lv, &act_lv, nullptr);
  SrvCrashThreadEnd();
}
