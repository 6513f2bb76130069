/* The logging library `log` as plug-ins see it. A plug-in loads it by the
 * path that core_get_path("log-1", ...) gives and looks these functions up
 * by name. Levels: a larger number is more severe; a line is written when
 * its level is at or above the logger's threshold.
 *
 * Exports every client uses: dll_init, dll_free, log_init, log_vwrite,
 * log_get_level, log_free. Exports for the host program only:
 * log_configure, log_set_level.
 *
 * The format of log_vwrite is a printf format, read together with args.
 * A caller that hands over a line it has already finished, with an empty
 * argument list, doubles every '%' in it first; the plug-in's trace
 * functions do so, and the line is then written exactly as they formed it.
 *
 * The reference library (host/log) writes one file per logger,
 * "<folder>/<logger name>.log", appending lines of the form
 *   "YYYY.MM.DD hh:mm:ss:mmm <level> <text>\n"
 * in local time. A text that already ends in a line feed gets no second
 * one. Each line goes to the file in one write, so lines of many threads
 * never mix. Characters of a logger name other than letters, digits, '.',
 * '-' and '_' become '_' in its file name. */
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
 * binding. 0 on success. */
typedef int32_t (*LogInitFn)(void* binding, const char* name, int32_t reserved);
/* Writes or drops one line. format may be null: the line is then dropped,
 * as it is when level is below the logger's threshold or handle is 0. */
typedef void (*LogVWriteFn)(uint64_t handle, int64_t level, int32_t reserved, int64_t random, const char* file,
                            const char* function, int32_t line, const char* format, va_list args);
/* The logger's present threshold; INT64_MAX for handle 0. */
typedef int64_t (*LogGetLevelFn)(uint64_t handle);
/* Closes the logger; 0 on success, -1 for a handle the library does not
 * know. */
typedef int32_t (*LogFreeFn)(uint64_t handle);

/* Host only. Sets the folder that takes the log files (created when it is
 * missing) and resets every threshold: first the defaults, then the lines
 * of the configuration file, when config_path is not null. Loggers already
 * open follow at once. Until the first call, and after a call with a null
 * folder, lines are written nowhere; the library says so once on stderr.
 * 0 on success; -1 when the folder cannot be made or the file not read
 * (the defaults and the good lines apply all the same).
 *
 * Configuration file: one "name = threshold" a line, the threshold a
 * decimal integer. '#' starts a comment that runs to the end of the line;
 * blank lines are ignored. The name "*" sets the threshold of every logger
 * that no line names. A line of any other shape is reported on stderr
 * ("log: <path>:<line number>: bad line skipped: <line>") and skipped.
 *
 * Defaults: "arc", "arc.tracedecim", "arc.load", "arc.interf", "arc.common"
 * and "*" at 5000; "common" at 20000; "arc.trace" and "arc.transf", the
 * per-frame and memory-check streams, at 30000, that is off for every
 * level a plug-in writes with its trace functions. */
typedef int32_t (*LogConfigureFn)(const char* folder, const char* config_path);
/* Host only. Sets the threshold of the logger name from now on: of the
 * loggers open under that name and of those opened later, until the next
 * log_configure. Returns the number of open loggers changed. */
typedef int32_t (*LogSetLevelFn)(const char* name, int64_t threshold);
/* Host only. The highest threshold loggers of that name have had since the
 * last log_configure (the one in force included): a line of a lower level
 * may have been dropped by its caller in that time. */
typedef int64_t (*LogLevelPeakFn)(const char* name);

/* Host only. Lines whose text begins with one of these texts are counted,
 * per calling thread and per text, when they are handed to log_vwrite with
 * a text, whether the threshold writes them or not. At most
 * LOG_COUNT_TEXTS_MAX texts; a new call replaces the table and gives the
 * number of texts taken (-1 for bad arguments). Made for a host that wants
 * to know what a plug-in reported while it ran one of the host's calls. */
#define LOG_COUNT_TEXTS_MAX 8
typedef int32_t (*LogCountTextsFn)(const char* const* texts, int32_t count);
/* Host only. The calling thread's counts, in the order of the texts, since
 * the thread began; gives the number copied. */
typedef int32_t (*LogThreadCountsFn)(int64_t* out, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
