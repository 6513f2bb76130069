// The small platform layer that libwriter.so exports beside the host's entry
// points, for the modules of the server that were built against it: 64-bit
// interlocked operations, the application directory, a checked string
// concatenation, a section-and-key text file and critical sections with a
// time-out. Nothing here logs or touches the plug-in's memory checker; the
// layer keeps its own fenced memory and reports leaks at process exit.
#pragma once

#include <cstdint>

#define COMPAT_EXPORT extern "C" __attribute__((visibility("default")))

// Wide text of this layer: 16-bit code units (UTF-16), two bytes an element.
typedef uint16_t TCompatWChar;

// The operation of mInterlockedUniv64: gets copies of the value read and of
// the argument and returns the value to store.
typedef int64_t (*TInterlockedFunc)(int64_t* p_value_av, int64_t* p_arg_av);

// Allocator for SAFE_STRCAT: resizes p_buff_av to hold i_size_av bytes and
// returns the (possibly moved) buffer, or null.
typedef void* (*TStrcatAlloc)(void* p_buff_av, int32_t i_size_av, int32_t i_arg_av);

// Result record of mGetPrivateProfileString. s_text holds the default value
// on the way in; it must be a buffer of this layer (SAFE_STRCAT makes one).
struct ProfileString {
  int32_t i_len;
  char* s_text;
  int64_t i64_reserved;
};

// A critical section with a time-out: five words, the fourth holds the event.
struct CriticalSectionTimeout {
  int64_t i64_reserved0;
  int64_t i64_reserved1;
  int64_t i64_reserved2;
  void* h_event;
  int64_t i64_reserved4;
};
static_assert(sizeof(CriticalSectionTimeout) == 40, "five 64-bit words");

// -1 until the first compare-and-exchange probes the processor; then 1 when
// it has a 64-bit compare-and-exchange, 0 otherwise.
COMPAT_EXPORT int32_t IsCMPXCHG8BSupport;

COMPAT_EXPORT int64_t mInterlockedUniv64(int64_t* p_addr_av, int64_t i64_arg_av, TInterlockedFunc p_func_av);
COMPAT_EXPORT int64_t mInterlockedGet64(int64_t* p_addr_av);
COMPAT_EXPORT int64_t mInterlockedExchange64(int64_t* p_addr_av, int64_t i64_value_av);
COMPAT_EXPORT int64_t mInterlockedCompareExchange64(int64_t* p_addr_av, int64_t i64_new_av, int64_t i64_comparand_av);
COMPAT_EXPORT int64_t mInterlockedIncrement64(int64_t* p_addr_av);
COMPAT_EXPORT int64_t mInterlockedDecrement64(int64_t* p_addr_av);
COMPAT_EXPORT int64_t mInterlockedExchangeAdd64(int64_t* p_addr_av, int64_t i64_value_av);
COMPAT_EXPORT int64_t mInterlockedAnd64(int64_t* p_addr_av, int64_t i64_value_av);
COMPAT_EXPORT int64_t mInterlockedOr64(int64_t* p_addr_av, int64_t i64_value_av);
COMPAT_EXPORT int64_t mInterlockedXor64(int64_t* p_addr_av, int64_t i64_value_av);

COMPAT_EXPORT int32_t GetAppDirPath(char** pp_dir_av);
COMPAT_EXPORT int32_t GetAppDirPathW(TCompatWChar** pp_dir_av);
COMPAT_EXPORT int32_t GetAppDirPathUTF8(char** pp_dir_av);
COMPAT_EXPORT void GetAppDirPathFree(char** pp_dir_av);
COMPAT_EXPORT void GetAppDirPathFreeW(TCompatWChar** pp_dir_av);

COMPAT_EXPORT int32_t SAFE_STRCAT(char** pp_dest_av, const char* s_text_av, TStrcatAlloc p_alloc_av,
                                  int32_t i_alloc_arg_av);

COMPAT_EXPORT int32_t mGetPrivateProfileString(const char* s_file_av, const char* s_section_av, const char* s_key_av,
                                               ProfileString* p_result_av);
COMPAT_EXPORT int32_t mGetPrivateProfileStringW(const TCompatWChar* s_file_av, const char* s_section_av,
                                                const char* s_key_av, ProfileString* p_result_av);
COMPAT_EXPORT int32_t mWritePrivateProfileString(const char* s_file_av, const char* s_section_av, const char* s_key_av,
                                                 const char* s_value_av);
COMPAT_EXPORT int32_t mWritePrivateProfileStringW(const TCompatWChar* s_file_av, const char* s_section_av,
                                                  const char* s_key_av, const char* s_value_av);

COMPAT_EXPORT void InitializeCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av);
COMPAT_EXPORT void DeleteCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av);
COMPAT_EXPORT int32_t EnterCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av, uint32_t ui_ms_av);
COMPAT_EXPORT void LeaveCriticalSectionTimeout(CriticalSectionTimeout* p_cs_av);
