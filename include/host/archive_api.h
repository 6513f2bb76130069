/* The storage library `archive` as the plug-in sees it: ten C functions that
 * the plug-in looks up by name, plus host-only functions (configuration,
 * fault switches, statistics, the record of what the plug-in told it) that
 * the reference host and the tests call. The reference build is
 * libwarchive.so; its on-disk format is described in host/archive/FORMAT.md. */
#ifndef ARCHIVE_API_H
#define ARCHIVE_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One of the five arc keys of a camera, read in place: the text (may be
 * null) and its size with the terminator. Same layout as the plug-in's
 * string type: pointer, then 32-bit size. */
typedef struct ArchiveKey {
  const char* text;
  int32_t size;
} ArchiveKey;

#define ARCHIVE_KEY_COUNT 5
#define ARCHIVE_INVALID_HANDLE (-1)

/* ---- The ten functions the plug-in loads ---- */
int32_t dll_init2(int32_t reserved);
int32_t dll_free2(int32_t reserved);
/* Stores one frame. 0 when stored, negative when the frame is lost. */
int32_t WriteDataForTime(int32_t handle, const void* data, int32_t size, int32_t type, int64_t time);
int32_t GetHandleForWrite(int32_t* out_handle, int64_t id1, int64_t id2, int64_t id3, const ArchiveKey* keys,
                          int32_t view_prior, uint32_t id54, int64_t storage_id, int64_t type_id);
int32_t CloseHandleWrite(int32_t handle);
int64_t GetParamsByType(int64_t id, int32_t reserved, int32_t code);
int32_t SetParamsByType(int32_t code, int64_t id, int64_t value);
int64_t GetParamsByTypeReqWrite(int32_t handle, int32_t code);
int64_t SetParamsByTypeReqWrite(int32_t handle, int32_t code, int64_t value);
int32_t AddCameraInfo(const ArchiveKey* keys, int64_t id3, int64_t id2, uint32_t id54, int32_t view_prior,
                      int32_t id54_present, int64_t type_id);

typedef int32_t (*ArchiveDllInit2Fn)(int32_t);
typedef int32_t (*ArchiveDllFree2Fn)(int32_t);
typedef int32_t (*ArchiveWriteDataForTimeFn)(int32_t, const void*, int32_t, int32_t, int64_t);
typedef int32_t (*ArchiveGetHandleForWriteFn)(int32_t*, int64_t, int64_t, int64_t, const ArchiveKey*, int32_t,
                                              uint32_t, int64_t, int64_t);
typedef int32_t (*ArchiveCloseHandleWriteFn)(int32_t);
typedef int64_t (*ArchiveGetParamsByTypeFn)(int64_t, int32_t, int32_t);
typedef int32_t (*ArchiveSetParamsByTypeFn)(int32_t, int64_t, int64_t);
typedef int64_t (*ArchiveGetParamsByTypeReqWriteFn)(int32_t, int32_t);
typedef int64_t (*ArchiveSetParamsByTypeReqWriteFn)(int32_t, int32_t, int64_t);
typedef int32_t (*ArchiveAddCameraInfoFn)(const ArchiveKey*, int64_t, int64_t, uint32_t, int32_t, int32_t, int64_t);

/* Results of WriteDataForTime and GetHandleForWrite besides 0. */
#define ARCHIVE_E_BAD_HANDLE (-2)
#define ARCHIVE_E_BAD_ARG (-3)
#define ARCHIVE_E_REFUSED (-4)  /* fault switch: write or open refused */
#define ARCHIVE_E_IO (-5)       /* the disk said no, or an injected failure */
#define ARCHIVE_E_ENDED (-6)    /* the session was ended by the archive */
#define ARCHIVE_E_CONFIG (-7)   /* bad configuration text */
#define ARCHIVE_E_BUSY (-8)     /* sessions are open */

/* ---- Host-only: configuration ----
 * JSON text (see FORMAT.md for the keys and their defaults); a null text
 * restores the defaults. Refused with ARCHIVE_E_BUSY while sessions are
 * open. On bad text: ARCHIVE_E_CONFIG, a line on stderr, the previous
 * configuration stays, and archive_last_error tells why. */
int32_t archive_configure(const char* json);
const char* archive_last_error(void);
/* Closes every session and forgets faults, statistics, recorded values and
 * the call log; the configuration stays. For tests and host restarts. */
void archive_reset(void);

/* ---- Host-only: fault switches ----
 * archive_fault(fault, id, value); id is a handle, a camera id or a storage
 * id as told below, -1 meaning all where that makes sense. value 0 clears. */
enum {
  ARCHIVE_FAULT_CLEAR_ALL = 0,      /* all switches off */
  ARCHIVE_FAULT_REFUSE_WRITES = 1,  /* id handle or -1: writes refused, frame lost */
  ARCHIVE_FAULT_FAIL_ONE_IN = 2,    /* id handle or -1: every value-th write fails (1: all) */
  ARCHIVE_FAULT_WRITE_DELAY_MS = 3, /* id handle or -1: each write sleeps value ms first */
  ARCHIVE_FAULT_END_SESSION = 4,    /* id handle or -1 (all open): code 29 answers 0 */
  ARCHIVE_FAULT_ERROR_STATE = 5,    /* id handle: code 82 answers value */
  ARCHIVE_FAULT_CLOSE_REQUEST = 6,  /* id handle: code 46 answers value */
  ARCHIVE_FAULT_NOT_READY_MS = 7,   /* codes 84 and 34 answer 0 for value ms (-1: until cleared) */
  ARCHIVE_FAULT_STORAGE_MISSING = 8,/* id storage or -1: code 115 answers 0 */
  ARCHIVE_FAULT_MARKING_RUNNING = 9,/* code 128 answers value */
  ARCHIVE_FAULT_MARKING_FAILED = 10,/* code 129 answers value */
  ARCHIVE_FAULT_NO_WRITE = 11,      /* id camera: value bit 1 video (85), bit 2 audio (107) */
  ARCHIVE_FAULT_REFUSE_OPEN = 12    /* GetHandleForWrite fails while value is non-zero */
};
int32_t archive_fault(int32_t fault, int64_t id, int64_t value);

/* ---- Host-only: statistics ---- */
typedef struct ArchiveStats {
  int64_t sessions_opened;
  int64_t sessions_closed;
  int64_t opens_refused;
  int64_t frames_written;
  int64_t bytes_written;   /* frame block bytes as received */
  int64_t writes_refused;  /* refused by a fault switch or a bad argument */
  int64_t writes_failed;   /* disk errors and injected failures */
  int64_t segments_created;
  int64_t segments_deleted;
  int64_t frames_asked;    /* per-frame questions of all channels (archive_get_channel_stats) */
} ArchiveStats;

typedef struct ArchiveSessionStats {
  int64_t camera_id;
  int64_t storage_id;
  int64_t type_id;
  int64_t frames_written;
  int64_t bytes_written;
  int64_t writes_refused;
  int64_t writes_failed;
  int64_t last_write_time; /* local file time, 0 before the first */
  int32_t open;            /* 1 until CloseHandleWrite */
  int32_t alive;           /* 0 once ended by the archive */
} ArchiveSessionStats;

int32_t archive_get_stats(ArchiveStats* out);
/* 0 and the figures of a session, open or recently closed; -1 if unknown. */
int32_t archive_get_session_stats(int32_t handle, ArchiveSessionStats* out);

/* Frames stored per stream (a camera folder's video or audio) since the
 * library started. index counts from 0; 0 and the figures, or -1 past the
 * last stream. */
typedef struct ArchiveStreamStats {
  char camera_folder[256]; /* last part of the camera's folder, cut to fit */
  int32_t kind;            /* 1 video, 2 audio */
  int64_t frames_written;
  int64_t bytes_written;
} ArchiveStreamStats;
int32_t archive_get_stream_stats(int32_t index, ArchiveStreamStats* out);

/* How long WriteDataForTime took, as counts of calls at or below each bound
 * (microseconds; the last bound is INT64_MAX), their number and their sum. */
#define ARCHIVE_LATENCY_BUCKETS 12
typedef struct ArchiveWriteLatency {
  int64_t bound_us[ARCHIVE_LATENCY_BUCKETS];
  int64_t count_le[ARCHIVE_LATENCY_BUCKETS]; /* cumulative */
  int64_t count;
  int64_t sum_us;
} ArchiveWriteLatency;
int32_t archive_get_write_latency(ArchiveWriteLatency* out);

/* ---- Host-only: what became of each frame ----
 * The calling thread's answers to the readiness question (code 34), which
 * the plug-in asks on the frame source's thread once a frame has passed its
 * checks: a host that counts them around its own delivery of a frame learns
 * whether that frame went on to the buffers or was dropped as not ready. */
typedef struct ArchiveThreadCounts {
  int64_t ready_answers;     /* answered 1 */
  int64_t not_ready_answers; /* answered 0 */
} ArchiveThreadCounts;
int32_t archive_thread_counts(ArchiveThreadCounts* out);

/* Per camera and medium, from the per-frame question of the plug-in's
 * channel (85 video, 107 audio, with the camera id) and what the channel's
 * thread did until its next question. Frames written with no question of
 * their own come from the pre-event ring, which hands on older frames. */
typedef struct ArchiveChannelStats {
  char camera_folder[256]; /* from AddCameraInfo; empty for a camera never announced */
  int64_t camera_id;
  int32_t kind;            /* 1 video, 2 audio */
  int32_t pending;         /* the last question, not settled yet: 0 none, 1 no session so far, 2 with a session */
  int64_t asked;           /* questions */
  int64_t no_write;        /* answered "nothing is to be written" */
  int64_t no_session;      /* answered 0, no session, nothing written: lost */
  int64_t held;            /* answered 0, a session, nothing written: taken by the pre-event ring */
  int64_t stored;          /* the write after the question: stored, */
  int64_t refused;         /* refused, */
  int64_t failed;          /* failed (ARCHIVE_E_IO) */
  int64_t later_stored;    /* writes with no question of their own: stored, */
  int64_t later_refused;   /* refused, */
  int64_t later_failed;    /* failed */
} ArchiveChannelStats;
/* index counts from 0; 0 and the figures, or -1 past the last channel. */
int32_t archive_get_channel_stats(int32_t index, ArchiveChannelStats* out);
/* The camera id AddCameraInfo gave with keys that make this camera folder
 * (see FORMAT.md): 0 and *out, or -1 for a folder no camera announced. */
int32_t archive_camera_id(const char* camera_folder, int64_t* out);

/* ---- Host-only: what the plug-in told the archive ----
 * Last value given by SetParamsByType(code, id, value): 1 and *out, or 0. */
int32_t archive_last_set(int32_t code, int64_t id, int64_t* out);
/* Last value given by SetParamsByTypeReqWrite(handle, code, value). */
int32_t archive_last_set_session(int32_t handle, int32_t code, int64_t* out);

enum {
  ARCHIVE_CALL_INIT = 1,        /* dll_init2 */
  ARCHIVE_CALL_FREE = 2,        /* dll_free2 */
  ARCHIVE_CALL_OPEN = 3,        /* GetHandleForWrite: handle, id = camera, value = result */
  ARCHIVE_CALL_CLOSE = 4,       /* CloseHandleWrite: handle, value = result */
  ARCHIVE_CALL_SET = 5,         /* SetParamsByType: code, id, value */
  ARCHIVE_CALL_SET_SESSION = 6, /* SetParamsByTypeReqWrite: handle, code, value */
  ARCHIVE_CALL_ADD_CAMERA = 7   /* AddCameraInfo: id = camera, value = type id */
};

typedef struct ArchiveCall {
  int64_t seq; /* 1, 2, ... in call order since the last reset */
  int32_t kind;
  int32_t code;
  int32_t handle;
  int32_t reserved;
  int64_t id;
  int64_t value;
} ArchiveCall;

/* The call log keeps the latest ARCHIVE_CALL_LOG_SIZE calls. Copies the
 * calls with seq above after_seq, oldest first, at most max; gives the
 * number copied. */
#define ARCHIVE_CALL_LOG_SIZE 4096
int32_t archive_call_log(ArchiveCall* out, int32_t max, int64_t after_seq);

#ifdef __cplusplus
}
#endif

#endif
