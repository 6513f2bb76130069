// What became of every frame a source sent, per camera and medium, each
// count by a rule of its own. The put half is seen around each delivery on
// the source's thread: the plug-in decides there, and what it tells the log
// library and asks the archive during that call names the frame's fate. The
// get half comes from the archive's account of the channels' per-frame
// questions and writes. Read by the summary and /metrics.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <yajl/yajl_tree.h>

#include "include/host/archive_api.h"
#include "include/host/log_api.h"
#include "host/server/srv_config.h"

// The plug-in's lines that name a frame's fate, counted by the log library
// per thread; SRV_LINE_COUNT of them, in this order.
enum { SRV_LINE_PASS = 0, SRV_LINE_BEFORE_KEY = 1, SRV_LINE_BAD_DATA = 2, SRV_LINE_COUNT = 3 };
extern const char* const SRV_COUNTED_LINES[SRV_LINE_COUNT];
// The pass line: the frame was passed over because the buffers were full
// or a key frame was awaited after a loss.
extern const char* const SRV_PASS_TAG;
// The counted lines go to the plug-in's "arc" log at this level and above;
// with its threshold ever higher, some of them never reach the library.
const int64_t SRV_COUNTED_LINES_LEVEL = 5000;

// Put-half rules: what one delivery did with the frame.
enum SrvPutRule {
  SRV_PUT_NOT_WANTED,     // no channel wanted it (`need` 0): schedule closed, by events and idle
  SRV_PUT_PASSED_OVER,    // the pass line
  SRV_PUT_BEFORE_KEY,     // before the channel's first key frame
  SRV_PUT_BAD_DATA,       // a value the plug-in calls not correct
  SRV_PUT_NOT_READY,      // the archive said it is not ready
  SRV_PUT_KEY_WAIT,       // a non-key frame while the channel waits for a key frame
  SRV_PUT_NO_DATA,        // a frame with no bytes
  SRV_PUT_ENTERED,        // into the plug-in's buffers
  SRV_PUT_RULES
};
extern const char* const SRV_PUT_RULE_NAMES[SRV_PUT_RULES];

// What the probes saw change during one delivery, and the frame.
struct SrvDelivery {
  int64_t m_lines[SRV_LINE_COUNT] = {};
  int64_t m_i64_ready = 0;      // readiness answered 1
  int64_t m_i64_not_ready = 0;  // readiness answered 0
  int32_t m_i_need = 0;
  bool m_b_key = false;
  bool m_b_empty = false;
  bool m_b_key_wait_possible = false;  // the camera records by events or keeps key frames only
};
// The rule that explains the delivery; -1 when none does.
int SrvClassifyDelivery(const SrvDelivery& d_av);

// The probes a source reads before and after each delivery.
struct SrvProbes {
  LogThreadCountsFn m_p_lines = nullptr;
  int32_t (*m_p_ready)(ArchiveThreadCounts*) = nullptr;
};
struct SrvProbeMark {
  int64_t m_lines[SRV_LINE_COUNT] = {};
  ArchiveThreadCounts m_ready = {0, 0};
};
SrvProbeMark SrvProbeRead(const SrvProbes& probes_av);
// Fills the probe half of a delivery from the marks taken around it.
void SrvProbeDiff(const SrvProbeMark& before_av, const SrvProbeMark& after_av, SrvDelivery* p_out_av);

// Put-half counts of one camera, per medium (0 video, 1 audio).
struct SrvPutCounts {
  std::atomic<int64_t> m_rules[2][SRV_PUT_RULES] = {};
  std::atomic<int64_t> m_sent[2] = {};
};

// One camera and medium, both halves, as the summary tells them.
struct SrvFrameAccount {
  int64_t m_i64_sent = 0;
  int64_t m_put[SRV_PUT_RULES] = {};
  ArchiveChannelStats m_get = {};  // zeros when the archive never heard of the channel
  bool m_b_lines = true;      // the counts by log line can be trusted
  int64_t Stored() const { return m_get.stored + m_get.later_stored; }
  int64_t Refused() const { return m_get.refused + m_get.later_refused; }
  int64_t Failed() const { return m_get.failed + m_get.later_failed; }
  // Taken by the pre-event ring and never written by it.
  int64_t RingUnwritten() const { return m_get.held - m_get.later_stored - m_get.later_refused - m_get.later_failed; }
  int64_t StillBuffered() const { return m_put[SRV_PUT_ENTERED] - m_get.asked; }
  int64_t Unaccounted() const;
};
// The archive's channels, with the last question settled as final when
// asked to (at the end, when no write can follow).
std::vector<ArchiveChannelStats> SrvChannelStats(int32_t (*p_get_av)(int32_t, ArchiveChannelStats*), bool b_final_av);
SrvFrameAccount SrvAccountOf(const SrvPutCounts& put_av, int i_medium_av, const std::vector<ArchiveChannelStats>& get_av,
                             const std::string& s_folder_av, bool b_lines_av);

// Prints a camera's lines of the summary (media that sent nothing are left
// out) and adds them to the totals.
void SrvPrintAccount(const char* s_medium_av, const SrvFrameAccount& acc_av, SrvFrameAccount* p_total_av);
// The total line: "unaccounted" must be 0.
void SrvPrintAccountTotal(const SrvFrameAccount& total_av, bool b_lines_av);

// The archive's fault switches a cameras file may set: "archive_faults" of
// the file ("refuse_open", "refuse_writes", "fail_one_in", "not_ready_ms",
// "storage_missing") and of a camera ("no_write": 1 video, 2 audio, 3 both).
bool SrvReadArchiveFaults(yajl_val p_node_av, bool b_camera_av, std::vector<SrvArchiveFault>* p_out_av,
                          std::string* p_error_av);
