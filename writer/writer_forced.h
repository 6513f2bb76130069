// Forced recording turns into a pair of system events, 60030 and 60031,
// which reach the channels and the registrator like any other event. This
// unit posts them; the forced-duration check of the event state calls it.
#pragma once

#include <cstdint>

// Posts the start (with its duration when one is given) or the stop for
// every channel of key2 that records by events. The result is the
// by-events flag of the last channel of key2, or 0 when there is none.
int32_t SendForcedEvent(const char* s_key2_av, int32_t b_start_av, int64_t i64_dur_av, int32_t b_dur_present_av,
                        int32_t i_slot_av);
