// FFmpeg's libraries and the hundred-odd libraries they pull in cost some
// 70 ms of CPU to load and relocate, at every start of the server, whether
// a camera needs them or not. What uses them (the stream source and the
// container export) lives in libwriter_media.so beside the server, loaded
// the first time one of them is used.
#pragma once

#include <cstdint>
#include <string>

#include "host/server/srv_stream.h"

struct SrvMediaLib {
  bool (*m_p_stream_open)(SrvStream*, const SrvSourceConfig&, const SrvStreamLink&, bool, std::string*);
  bool (*m_p_stream_next)(SrvStream*, SrvMediaFrame*);
  void (*m_p_stream_close)(SrvStream*);
  bool (*m_p_export)(const std::string& root, const std::string& camera, int64_t i64_from_us, int64_t i64_to_us,
                     const std::string& format, const std::string& out_path, std::string* p_error);
};

// The module's one export.
extern "C" const SrvMediaLib* writer_media_lib(void);
typedef const SrvMediaLib* (*SrvMediaLibFn)(void);

// Loads the module once, from the folder given, else where the loader finds
// it; later calls give the same table. Null with a message when it cannot
// be loaded.
const SrvMediaLib* SrvMediaLibLoad(const std::string& s_lib_dir_av, std::string* p_error_av);
// The table when the module is loaded already, else null.
const SrvMediaLib* SrvMediaLibLoaded();
