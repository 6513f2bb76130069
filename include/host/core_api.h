/* The host library `core` as plug-ins see it: the message bus of named
 * tracks, the hook values, sibling paths. Any host that loads plug-ins
 * supplies a libcore.so with these C functions; the reference host builds
 * its own in host/core. */
#ifndef CORE_API_H
#define CORE_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Element types of a message. */
enum {
  PP_END = 0,      /* terminator */
  PP_LIST = 1,     /* nested ProfileParam array, or null as a marker */
  PP_STRING = 2,   /* zero-terminated text */
  PP_OBJECT = 3,   /* opaque pointer of the sender, identity only */
  PP_INT32 = 4,    /* pointer to a 32-bit integer */
  PP_INT64 = 5,    /* pointer to a 64-bit integer */
  PP_CALLBACK = 7, /* pointer to a ProfileCallback */
  PP_BUFFER = 8,   /* pointer to a ProfileBuffer */
  PP_INT32B = 9,   /* pointer to a 32-bit integer */
  PP_INT64B = 10   /* pointer to a 64-bit integer */
};

/* One element of a bus message; a message is an array closed by type 0.
 * Values always travel by pointer, so that a receiver can write back. */
typedef struct ProfileParam {
  uint32_t type;
  const char* name;
  void* value;
} ProfileParam;

typedef void (*ProfileTrackFn)(void* user, ProfileParam* params);

/* Callback record: passed by pointer to profile_open and inside messages.
 * The function's form depends on where the record is used. */
typedef struct ProfileCallback {
  void* user;
  void* fn;
} ProfileCallback;

typedef struct ProfileBuffer {
  void* data;
  uint32_t length;
} ProfileBuffer;

/* One row of the import table of core_dll_open; a row of two nulls ends it. */
typedef struct CoreImportRow {
  const char* name;
  void** slot;
} CoreImportRow;

typedef uint64_t TrackHandle;

typedef void (*CoreSetHookFn)(uint8_t value);
typedef uint8_t (*CoreGetHookFn)(void);

/* Callback of a core-level track (core_profile_open). kind is 2 for a data
 * message, whichever of profile_data and core_profile_data sent it.
 * Core-level holders and ordinary holders of one name form one track: a
 * message from either kind of holder reaches both kinds, each through its
 * own callback form. */
typedef void (*CoreProfileFn)(void* user, TrackHandle handle, int32_t kind, ProfileParam* params);

/* Fills each row's slot with the host function of that name
 * ("core_sethook", "core_gethook"); the slot of a name it does not offer is
 * not touched (callers pass it null). The hook value is kept per thread; a thread that never set one
 * reads 0. */
int core_dll_open(const char* name, CoreImportRow* table);
int core_dll_close(const char* name);
char* core_get_path(const char* name, const char* access, int32_t mode);
void core_mfree(void* p);

/* The bus. profile_open joins a named track and gives a handle that is never
 * 0 and never given again in the process (0 for a null track name); without
 * a callback (null record or null fn) the holder only sends. profile_data
 * runs, on the caller's thread and before it returns, the callback of every
 * other holder of the track; an unknown or closed handle, or a null array,
 * sends nothing. profile_close gives 0, or -1 for an unknown handle; once it
 * returns no callback of the handle runs any more (it waits for deliveries
 * running on other threads, not for those its own thread is inside). */
TrackHandle profile_open(const char* track, const ProfileCallback* callback, const char* file, int32_t line);
void profile_data(TrackHandle handle, ProfileParam* params, int32_t zero);
int32_t profile_close(TrackHandle handle);

TrackHandle core_profile_open(const char* track, CoreProfileFn fn, void* user, const char* file, int32_t line);
void core_profile_data(TrackHandle handle, void* reserved, ProfileParam* params);

/* For the host program only: the path that core_get_path gives for a name.
 * A null path forgets the name. */
void core_set_path(const char* name, const char* path);

/* For host programs' diagnostics: the number of named tracks that have at
 * least one holder, and the number of holders of one name. */
int32_t core_bus_track_count(void);
int32_t core_bus_holder_count(const char* track);

#ifdef __cplusplus
}
#endif

#endif
