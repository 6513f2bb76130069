// Frame accounting of the archive (see arc_account.h). A channel asks its
// question and then, on the same thread, makes sure of its session and
// writes; so the thread's last question tells which frame a call is about.
// A write that comes when the channel's last question already has its
// write is the pre-event ring's, which writes older frames later.
// Every channel has its own lock and the thread keeps its last channel, so
// the frame path of one camera never waits on another's, and the shared map
// is searched only when a thread turns to another channel.
#include "host/archive/arc_account.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <string>

#include "host/archive/arc_format.h"
#include "host/archive/arc_session.h"

namespace warc {

namespace {

struct ChannelAccount {
  std::mutex m_mutex;  // after Accounts::m_mutex, never before
  // The key, set when the account is made and never again: read without a lock.
  int64_t m_i64_camera = 0;
  uint32_t m_ui_kind = 0;
  ArchiveChannelStats m_stats;
  bool m_b_pending = false;  // the last question was answered 0 and has no write yet
  bool m_b_session = false;  // a session was there for it
};

struct Accounts {
  std::mutex m_mutex;
  // Never erased: the threads' pointers below stay good across a reset.
  std::map<std::pair<int64_t, uint32_t>, ChannelAccount> m_channels;
  std::map<int64_t, std::string> m_folders;
};

Accounts& Acc() {
  static Accounts* p_lv = new Accounts();
  return *p_lv;
}

// Read without the lock by a host that paces its sources on it.
std::atomic<int64_t> g_i64_asked{0};
// Static TLS, as the log library's line counts: 24 bytes of the reserve
// glibc keeps for loaded libraries, and nothing made lazily per thread that
// the leak checker's thread scan could trip over.
__attribute__((tls_model("initial-exec"))) thread_local ChannelAccount* t_p_channel = nullptr;
__attribute__((tls_model("initial-exec"))) thread_local ArchiveThreadCounts t_ready = {0, 0};

// The channel's account, made at its first call.
ChannelAccount* FindChannel(int64_t i64_camera_av, uint32_t ui_kind_av) {
  ChannelAccount* p_lv = t_p_channel;
  if (p_lv != nullptr && p_lv->m_i64_camera == i64_camera_av && p_lv->m_ui_kind == ui_kind_av) return p_lv;
  Accounts& acc_lv = Acc();
  std::lock_guard<std::mutex> lock_lv(acc_lv.m_mutex);
  auto it_lv = acc_lv.m_channels.find({i64_camera_av, ui_kind_av});
  if (it_lv != acc_lv.m_channels.end()) return &it_lv->second;
  ChannelAccount& ch_lv = acc_lv.m_channels[{i64_camera_av, ui_kind_av}];
  ch_lv.m_i64_camera = i64_camera_av;
  ch_lv.m_ui_kind = ui_kind_av;
  ch_lv.m_stats.camera_id = i64_camera_av;
  ch_lv.m_stats.kind = static_cast<int32_t>(ui_kind_av);
  return &ch_lv;
}

// The frame of the last question went nowhere: with a session the ring took
// it, without one it was lost.
void SettleLocked(ChannelAccount* p_av) {
  if (p_av->m_b_pending) (p_av->m_b_session ? p_av->m_stats.held : p_av->m_stats.no_session)++;
  p_av->m_b_pending = false;
}

}  // namespace

void AccountReadyAnswer(int64_t i64_answer_av) {
  (i64_answer_av != 0 ? t_ready.ready_answers : t_ready.not_ready_answers)++;
}

void AccountQuestion(int64_t i64_camera_av, uint32_t ui_kind_av, int64_t i64_answer_av) {
  ChannelAccount* p_ch_lv = FindChannel(i64_camera_av, ui_kind_av);
  std::lock_guard<std::mutex> lock_lv(p_ch_lv->m_mutex);
  SettleLocked(p_ch_lv);
  p_ch_lv->m_stats.asked++;
  g_i64_asked++;
  if (i64_answer_av != 0) p_ch_lv->m_stats.no_write++;
  p_ch_lv->m_b_pending = i64_answer_av == 0;
  p_ch_lv->m_b_session = false;
  t_p_channel = p_ch_lv;
}

void AccountSession(bool b_session_av) {
  ChannelAccount* p_ch_lv = t_p_channel;
  if (p_ch_lv == nullptr) return;
  std::lock_guard<std::mutex> lock_lv(p_ch_lv->m_mutex);
  if (p_ch_lv->m_b_pending) p_ch_lv->m_b_session = b_session_av;
}

void AccountWrite(int64_t i64_camera_av, uint32_t ui_kind_av, int32_t i_result_av) {
  // A channel writes on the thread that asked its question; a write from
  // anywhere else goes by its session.
  ChannelAccount* p_ch_lv = t_p_channel;
  if (p_ch_lv == nullptr) {
    if (i64_camera_av == -1) return;  // no channel to put it on
    p_ch_lv = FindChannel(i64_camera_av, ui_kind_av);
  }
  std::lock_guard<std::mutex> lock_lv(p_ch_lv->m_mutex);
  ArchiveChannelStats& st_lv = p_ch_lv->m_stats;
  bool b_own_lv = p_ch_lv->m_b_pending;
  p_ch_lv->m_b_pending = false;
  if (i_result_av == 0) (b_own_lv ? st_lv.stored : st_lv.later_stored)++;
  else if (i_result_av == ARCHIVE_E_IO) (b_own_lv ? st_lv.failed : st_lv.later_failed)++;
  else (b_own_lv ? st_lv.refused : st_lv.later_refused)++;
}

void AccountCamera(const ArchiveKey* p_keys_av, int64_t i64_camera_av) {
  const char* pp_keys_lv[ARCHIVE_KEY_COUNT] = {};
  int32_t pi_sizes_lv[ARCHIVE_KEY_COUNT] = {};
  for (int i_lv = 0; p_keys_av != nullptr && i_lv < ARCHIVE_KEY_COUNT; i_lv++) {
    pp_keys_lv[i_lv] = p_keys_av[i_lv].text;
    pi_sizes_lv[i_lv] = p_keys_av[i_lv].size;
  }
  std::string s_folder_lv = CameraFolderName(pp_keys_lv, pi_sizes_lv, ARCHIVE_KEY_COUNT);
  Accounts& acc_lv = Acc();
  std::lock_guard<std::mutex> lock_lv(acc_lv.m_mutex);
  acc_lv.m_folders[i64_camera_av] = s_folder_lv;
}

void AccountReset() {
  Accounts& acc_lv = Acc();
  std::lock_guard<std::mutex> lock_lv(acc_lv.m_mutex);
  for (auto& item_lv : acc_lv.m_channels) {
    ChannelAccount& ch_lv = item_lv.second;
    std::lock_guard<std::mutex> lock_ch_lv(ch_lv.m_mutex);
    memset(&ch_lv.m_stats, 0, sizeof(ch_lv.m_stats));
    ch_lv.m_stats.camera_id = item_lv.first.first;
    ch_lv.m_stats.kind = static_cast<int32_t>(item_lv.first.second);
    ch_lv.m_b_pending = ch_lv.m_b_session = false;
  }
  g_i64_asked = 0;
}

int64_t AccountAskedTotal() { return g_i64_asked; }

}  // namespace warc

using namespace warc;

ARC_EXPORT int32_t archive_thread_counts(ArchiveThreadCounts* out) {
  if (out == nullptr) return -1;
  *out = t_ready;
  return 0;
}

ARC_EXPORT int32_t archive_get_channel_stats(int32_t index, ArchiveChannelStats* out) {
  if (out == nullptr || index < 0) return -1;
  Accounts& acc_lv = Acc();
  std::lock_guard<std::mutex> lock_lv(acc_lv.m_mutex);
  if (static_cast<size_t>(index) >= acc_lv.m_channels.size()) return -1;
  auto it_lv = acc_lv.m_channels.begin();
  std::advance(it_lv, index);
  ChannelAccount& ch_lv = it_lv->second;
  std::lock_guard<std::mutex> lock_ch_lv(ch_lv.m_mutex);
  *out = ch_lv.m_stats;
  out->pending = !ch_lv.m_b_pending ? 0 : ch_lv.m_b_session ? 2 : 1;
  auto it_folder_lv = acc_lv.m_folders.find(ch_lv.m_stats.camera_id);
  std::string s_folder_lv = it_folder_lv == acc_lv.m_folders.end() ? std::string() : it_folder_lv->second;
  snprintf(out->camera_folder, sizeof(out->camera_folder), "%s", s_folder_lv.c_str());
  return 0;
}

ARC_EXPORT int32_t archive_camera_id(const char* camera_folder, int64_t* out) {
  if (camera_folder == nullptr || out == nullptr) return -1;
  Accounts& acc_lv = Acc();
  std::lock_guard<std::mutex> lock_lv(acc_lv.m_mutex);
  for (const auto& item_lv : acc_lv.m_folders)
    if (item_lv.second == camera_folder) return *out = item_lv.first, 0;
  return -1;
}
