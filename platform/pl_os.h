// Small services of the operating system: dynamic libraries, the host
// executable's path, directories, plain files, aligned memory and the
// version probe.
#pragma once

#include <cstddef>
#include <cstdint>

// Dynamic libraries. Null on failure; PlLibError tells why.
void* PlLibOpen(const char* s_path_av);
void* PlLibSym(void* h_lib_av, const char* s_name_av);
int PlLibClose(void* h_lib_av);
const char* PlLibError();

// Full path of the running executable into out (terminated). Returns the
// length, or 0 when it cannot be had or does not fit.
size_t PlExePath(char* s_out_av, size_t ui_size_av);
// Creates a directory; an existing one is no error. 0 on success.
int PlMkdir(const char* s_path_av);

// Plain files as descriptors. The open modes:
const int PL_FILE_TRUNC = 1;   // write, create, truncate
const int PL_FILE_APPEND = 2;  // write, create, append
const int PL_FILE_READ = 3;
// -1 on failure.
int PlFileOpen(const char* s_path_av, int i_mode_av);
// Opens an existing file to append, without creating it; safe inside a crash
// handler (a single system call).
int PlFileOpenAppendRaw(const char* s_path_av);
// Writes all bytes (retrying short writes); the number written or -1.
long PlFileWrite(int fd_av, const void* p_data_av, size_t ui_len_av);
long PlFileRead(int fd_av, void* p_data_av, size_t ui_len_av);
// Moves to an offset from the start of the file; the new offset or -1.
long long PlFileSeekStart(int fd_av, long long i64_offset_av);
void PlFileClose(int fd_av);
// Writes text to standard output unbuffered (crash prints, fatal lines).
void PlStdoutWrite(const char* s_text_av, size_t ui_len_av);

// Heap memory aligned to a power of two. Null on failure.
void* PlAlignedAlloc(size_t ui_size_av, size_t ui_align_av);
void PlAlignedFree(void* p_av);

// Memory in whole pages of the system, for large blocks that live long and
// change size: pages given back return to the system at once (the C heap
// keeps freed memory for itself), growth moves pages instead of copying
// bytes, and a page holds memory only once it is touched. Sizes are in bytes;
// every call is told the size the block was last given. Fresh bytes read as
// zero. Null on failure, and a failed resize leaves the block as it was.
void* PlPagesAlloc(size_t ui_size_av);
// Keeps the first min(old, new) bytes; the block may move.
void* PlPagesResize(void* p_av, size_t ui_old_size_av, size_t ui_new_size_av);
void PlPagesFree(void* p_av, size_t ui_size_av);

// Version of the operating system. With the long form, also a service-pack
// text is asked for. True on success; the platform id is 2 for a kernel of
// the present family.
bool PlOsVersion(bool b_long_form_av, uint32_t* p_platform_id_av);

// Ends the process at once with the exit code.
[[noreturn]] void PlExitProcess(int i_code_av);
