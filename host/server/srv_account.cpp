// Frame accounting of writer-host (see srv_account.h).
#include "host/server/srv_account.h"

#include <cstdio>
#include <cstring>

#include "host/server/srv_json.h"

const char* const SRV_PASS_TAG = "<error3> narusheno usl";
const char* const SRV_COUNTED_LINES[SRV_LINE_COUNT] = {
    SRV_PASS_TAG, "<root>writer, warning, not m_b_is_fierst_key_accepted", "<error>data not correct"};
const char* const SRV_PUT_RULE_NAMES[SRV_PUT_RULES] = {"not_wanted", "passed_over", "before_first_key", "bad_data",
                                                       "not_ready",  "key_wait",    "no_data",          "entered"};

int SrvClassifyDelivery(const SrvDelivery& d_av) {
  // A passed frame was asked about readiness first, so the pass goes before
  // the answer; both channels of a camera see every frame, but only the
  // channel of the frame's medium gets as far as the archive.
  if (d_av.m_lines[SRV_LINE_PASS] > 0) return SRV_PUT_PASSED_OVER;
  if (d_av.m_i64_ready > 0) return SRV_PUT_ENTERED;
  if (d_av.m_i64_not_ready > 0) return SRV_PUT_NOT_READY;
  if (d_av.m_lines[SRV_LINE_BEFORE_KEY] > 0) return SRV_PUT_BEFORE_KEY;
  // Both channels say so of a bad frame: it counts once.
  if (d_av.m_lines[SRV_LINE_BAD_DATA] > 0) return SRV_PUT_BAD_DATA;
  if (d_av.m_i_need == 0) return SRV_PUT_NOT_WANTED;
  // Wanted, and dropped without a word: what the frame itself shows.
  if (d_av.m_b_empty) return SRV_PUT_NO_DATA;
  if (!d_av.m_b_key && d_av.m_b_key_wait_possible) return SRV_PUT_KEY_WAIT;
  return -1;
}

SrvProbeMark SrvProbeRead(const SrvProbes& probes_av) {
  SrvProbeMark mark_lv;
  if (probes_av.m_p_lines != nullptr) probes_av.m_p_lines(mark_lv.m_lines, SRV_LINE_COUNT);
  if (probes_av.m_p_ready != nullptr) probes_av.m_p_ready(&mark_lv.m_ready);
  return mark_lv;
}

void SrvProbeDiff(const SrvProbeMark& before_av, const SrvProbeMark& after_av, SrvDelivery* p_out_av) {
  for (int i_lv = 0; i_lv < SRV_LINE_COUNT; i_lv++) p_out_av->m_lines[i_lv] = after_av.m_lines[i_lv] - before_av.m_lines[i_lv];
  p_out_av->m_i64_ready = after_av.m_ready.ready_answers - before_av.m_ready.ready_answers;
  p_out_av->m_i64_not_ready = after_av.m_ready.not_ready_answers - before_av.m_ready.not_ready_answers;
}

int64_t SrvFrameAccount::Unaccounted() const {
  int64_t i64_named_lv = 0;
  for (int i_lv = 0; i_lv < SRV_PUT_RULES; i_lv++)
    if (i_lv != SRV_PUT_ENTERED) i64_named_lv += m_put[i_lv];
  i64_named_lv += m_get.no_write + m_get.no_session + Stored() + Refused() + Failed() + RingUnwritten() + StillBuffered();
  return m_i64_sent - i64_named_lv;
}

std::vector<ArchiveChannelStats> SrvChannelStats(int32_t (*p_get_av)(int32_t, ArchiveChannelStats*), bool b_final_av) {
  std::vector<ArchiveChannelStats> out_lv;
  ArchiveChannelStats st_lv;
  // A bound only against an archive that never says "past the last".
  for (int32_t i_lv = 0; p_get_av != nullptr && i_lv < 100000 && p_get_av(i_lv, &st_lv) == 0; i_lv++) {
    st_lv.camera_folder[sizeof(st_lv.camera_folder) - 1] = 0;
    if (b_final_av && st_lv.pending != 0) (st_lv.pending == 2 ? st_lv.held : st_lv.no_session)++;
    st_lv.pending = 0;
    out_lv.push_back(st_lv);
  }
  return out_lv;
}

SrvFrameAccount SrvAccountOf(const SrvPutCounts& put_av, int i_medium_av, const std::vector<ArchiveChannelStats>& get_av,
                             const std::string& s_folder_av, bool b_lines_av) {
  SrvFrameAccount acc_lv;
  acc_lv.m_b_lines = b_lines_av;
  acc_lv.m_i64_sent = put_av.m_sent[i_medium_av];
  for (int i_lv = 0; i_lv < SRV_PUT_RULES; i_lv++) acc_lv.m_put[i_lv] = put_av.m_rules[i_medium_av][i_lv];
  for (const ArchiveChannelStats& st_lv : get_av)
    if (st_lv.kind == i_medium_av + 1 && s_folder_av == st_lv.camera_folder) acc_lv.m_get = st_lv;
  return acc_lv;
}

namespace {

long long L(int64_t i64_av) { return static_cast<long long>(i64_av); }

void Add(const SrvFrameAccount& acc_av, SrvFrameAccount* p_total_av) {
  p_total_av->m_i64_sent += acc_av.m_i64_sent;
  for (int i_lv = 0; i_lv < SRV_PUT_RULES; i_lv++) p_total_av->m_put[i_lv] += acc_av.m_put[i_lv];
  ArchiveChannelStats& t_lv = p_total_av->m_get;
  const ArchiveChannelStats& a_lv = acc_av.m_get;
  for (auto p_field_lv : {&ArchiveChannelStats::asked, &ArchiveChannelStats::no_write, &ArchiveChannelStats::no_session,
                          &ArchiveChannelStats::held, &ArchiveChannelStats::stored, &ArchiveChannelStats::refused,
                          &ArchiveChannelStats::failed, &ArchiveChannelStats::later_stored,
                          &ArchiveChannelStats::later_refused, &ArchiveChannelStats::later_failed})
    t_lv.*p_field_lv += a_lv.*p_field_lv;
}

}  // namespace

void SrvPrintAccount(const char* s_medium_av, const SrvFrameAccount& acc_av, SrvFrameAccount* p_total_av) {
  Add(acc_av, p_total_av);
  if (acc_av.m_i64_sent == 0) return;
  const int64_t* p_lv = acc_av.m_put;
  printf("  %-8s %lld sent: %lld not wanted, %lld passed over, %lld before the first key frame, %lld bad data, "
         "%lld archive not ready, %lld waiting for a key frame, %lld without data, %lld into the buffers\n",
         s_medium_av, L(acc_av.m_i64_sent), L(p_lv[SRV_PUT_NOT_WANTED]), L(p_lv[SRV_PUT_PASSED_OVER]),
         L(p_lv[SRV_PUT_BEFORE_KEY]), L(p_lv[SRV_PUT_BAD_DATA]), L(p_lv[SRV_PUT_NOT_READY]), L(p_lv[SRV_PUT_KEY_WAIT]),
         L(p_lv[SRV_PUT_NO_DATA]), L(p_lv[SRV_PUT_ENTERED]));
  const ArchiveChannelStats& g_lv = acc_av.m_get;
  printf("  %-8s %lld into the buffers: %lld stored, %lld write refused, %lld write failed, %lld do not write, "
         "%lld lost without a session, %lld kept by the pre-event ring and not written, %lld still buffered "
         "(%lld written later by the ring); ",
         s_medium_av, L(p_lv[SRV_PUT_ENTERED]), L(acc_av.Stored()), L(acc_av.Refused()), L(acc_av.Failed()),
         L(g_lv.no_write), L(g_lv.no_session), L(acc_av.RingUnwritten()), L(acc_av.StillBuffered()),
         L(g_lv.later_stored + g_lv.later_refused + g_lv.later_failed));
  if (acc_av.m_b_lines) printf("%lld unaccounted\n", L(acc_av.Unaccounted()));
  else printf("unaccounted n/a\n");
}

void SrvPrintAccountTotal(const SrvFrameAccount& total_av, bool b_lines_av) {
  int64_t i64_dropped_lv = 0;
  for (int i_lv = 0; i_lv < SRV_PUT_RULES; i_lv++)
    if (i_lv != SRV_PUT_ENTERED && i_lv != SRV_PUT_PASSED_OVER) i64_dropped_lv += total_av.m_put[i_lv];
  i64_dropped_lv += total_av.m_get.no_write + total_av.m_get.no_session + total_av.RingUnwritten();
  printf("account  %lld sent: %lld stored, %lld refused or failed by the archive, %lld passed over, "
         "%lld dropped by a named rule, %lld still buffered, ",
         L(total_av.m_i64_sent), L(total_av.Stored()), L(total_av.Refused() + total_av.Failed()),
         L(total_av.m_put[SRV_PUT_PASSED_OVER]), L(i64_dropped_lv), L(total_av.StillBuffered()));
  if (b_lines_av) {
    printf("%lld unaccounted\n", L(total_av.Unaccounted()));
    return;
  }
  printf("unaccounted n/a\n  (counts by log line not available: the plug-in's \"arc\" log was set above %lld, so "
         "passes, frames before the first key frame and bad data are not told from frames that entered the "
         "buffers)\n",
         L(SRV_COUNTED_LINES_LEVEL));
}

bool SrvReadArchiveFaults(yajl_val p_node_av, bool b_camera_av, std::vector<SrvArchiveFault>* p_out_av,
                          std::string* p_error_av) {
  struct Switch {
    const char* m_s_name;
    int32_t m_i_fault;
    int64_t m_i64_max;
    bool m_b_camera;
  };
  static const Switch SWITCHES[] = {{"refuse_open", ARCHIVE_FAULT_REFUSE_OPEN, 1, false},
                                    {"refuse_writes", ARCHIVE_FAULT_REFUSE_WRITES, 1, false},
                                    {"fail_one_in", ARCHIVE_FAULT_FAIL_ONE_IN, 1000000000, false},
                                    {"not_ready_ms", ARCHIVE_FAULT_NOT_READY_MS, 600000, false},
                                    {"storage_missing", ARCHIVE_FAULT_STORAGE_MISSING, 1, false},
                                    {"no_write", ARCHIVE_FAULT_NO_WRITE, 3, true}};
  yajl_val p_faults_lv = SrvJsonMember(p_node_av, "archive_faults");
  if (p_faults_lv == nullptr) return true;
  if (!YAJL_IS_OBJECT(p_faults_lv)) return *p_error_av = "\"archive_faults\" is not an object", false;
  for (size_t ui_lv = 0; ui_lv < p_faults_lv->u.object.len; ui_lv++) {
    const char* s_key_lv = p_faults_lv->u.object.keys[ui_lv];
    const Switch* p_sw_lv = nullptr;
    for (const Switch& sw_lv : SWITCHES)
      if (strcmp(sw_lv.m_s_name, s_key_lv) == 0 && sw_lv.m_b_camera == b_camera_av) p_sw_lv = &sw_lv;
    if (p_sw_lv == nullptr)
      return *p_error_av = std::string("\"archive_faults\": no switch \"") + s_key_lv + "\"" +
                           (b_camera_av ? " for a camera (only \"no_write\")" : ""),
             false;
    bool b_ok_lv = true;
    int64_t i64_lv = 0;
    SrvJsonInt(p_faults_lv, s_key_lv, &i64_lv, &b_ok_lv);
    if (!b_ok_lv || i64_lv < 0 || i64_lv > p_sw_lv->m_i64_max)
      return *p_error_av = std::string("\"archive_faults\": \"") + s_key_lv + "\" is a whole number from 0 to " +
                           std::to_string(p_sw_lv->m_i64_max),
             false;
    p_out_av->push_back(SrvArchiveFault{p_sw_lv->m_i_fault, i64_lv});
  }
  return true;
}
