// The entry of libwriter_media.so (see srv_media_lib.h).
#include "host/server/srv_media_lib.h"

#include "host/archive/arc_export.h"

extern "C" __attribute__((visibility("default"))) const SrvMediaLib* writer_media_lib(void) {
  static const SrvMediaLib s_lib_lv = {&SrvStreamOpen, &SrvStreamNext, &SrvStreamClose, &ArcExportContainer};
  return &s_lib_lv;
}
