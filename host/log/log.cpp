// Placeholder bodies; replaced by the real logging library.
#include "host/include/log_api.h"

extern "C" {
int32_t dll_init(int32_t) { return 0; }
int32_t dll_free() { return 0; }
}
