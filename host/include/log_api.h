/* The logging library `log` as plug-ins see it. A plug-in loads it by the
 * path that core_get_path("log-1", ...) gives and looks these functions up
 * by name. Levels: a larger number is more severe; a line is written when
 * its level is at or above the logger's threshold. */
#ifndef LOG_API_H
#define LOG_API_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t (*LogDllInitFn)(int32_t reserved);
typedef int32_t (*LogDllFreeFn)(void);
/* Stores the logger's handle (64-bit, 0 on failure) in the first 8 bytes of
 * binding. */
typedef int32_t (*LogInitFn)(void* binding, const char* name, int32_t reserved);
/* Writes or drops one line. format may be null: the line is then dropped. */
typedef void (*LogVWriteFn)(uint64_t handle, int64_t level, int32_t reserved, int64_t random, const char* file,
                            const char* function, int32_t line, const char* format, va_list args);
typedef int64_t (*LogGetLevelFn)(uint64_t handle);
typedef int32_t (*LogFreeFn)(uint64_t handle);

#ifdef __cplusplus
}
#endif

#endif
