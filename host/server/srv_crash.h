// writer-host's crash handler: on a fatal signal it lets the plug-in write
// its crash print (exception_filter, with the crashed thread's id) and then
// lets the process die as it would have. Installed by main once the plug-in
// is loaded; every thread of the host gives itself an alternate stack, so
// that a stack overflow still reaches the handler.
#pragma once

#include <cstdint>

typedef void (*SrvExceptionFilterFn)(int32_t i_thread_id_av);

// Installs the handler for SIGSEGV, SIGBUS, SIGABRT, SIGFPE and SIGILL and
// an alternate stack for the calling thread.
bool SrvCrashInstall(SrvExceptionFilterFn fn_av);
// The plug-in is about to go: the handler calls nobody any more.
void SrvCrashForgetFilter();
// Restores the default actions and frees the calling thread's stack.
void SrvCrashUninstall();
// Alternate stack of a thread of the host, from its start to its end.
void SrvCrashThreadBegin();
void SrvCrashThreadEnd();
