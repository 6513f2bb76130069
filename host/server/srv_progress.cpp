// Progress lines, the pass count and the summary of writer-host (see
// srv_progress.h).
#include "host/server/srv_progress.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

#include "host/archive/arc_format.h"
#include "host/archive/arc_reader.h"
#include "host/server/srv_crash.h"
#include "platform/pl_clock.h"

namespace {

double SecondsSince(int64_t i64_perf_av) {
  return static_cast<double>(PlPerfCounter() - i64_perf_av) / static_cast<double>(PlPerfFrequency());
}

// The plug-in's buffer memory; empty when it does not answer the query.
std::string BufferMemory(SrvMonitor* p_av) {
  if (!p_av->m_b_ask_memory) return "";
  std::string s_lv = SrvPluginQuery(p_av->m_p_plugin, "{\"query_id\":\"common_status\"}");
  size_t ui_at_lv = s_lv.find("\"buffs_used_mem\":");
  if (ui_at_lv == std::string::npos) {
    p_av->m_b_ask_memory = false;  // the plug-in does not tell; don't ask every second
    return "";
  }
  char s_out_lv[32];
  snprintf(s_out_lv, sizeof(s_out_lv), "%.1f MB", atof(s_lv.c_str() + ui_at_lv + 17) / 1e6);
  return s_out_lv;
}

void PrintProgress(SrvMonitor* p_av) {
  int64_t i64_written_lv = 0, i64_passes_lv = 0, i64_sent_lv = 0;
  SrvMonitorRefresh(p_av, &i64_written_lv, &i64_passes_lv);
  for (SrvSource* p_src_lv : p_av->m_sources) i64_sent_lv += p_src_lv->m_counts.m_i64_sent;
  std::string s_mem_lv = BufferMemory(p_av);
  for (const std::string& s_line_lv : SrvHostTracksTakeLines(p_av->m_p_tracks)) printf("  %s\n", s_line_lv.c_str());
  for (SrvSource* p_src_lv : p_av->m_sources) {
    const char* s_note_lv = p_src_lv->m_p_note.exchange(nullptr);
    if (s_note_lv != nullptr) printf("  %s: %s\n", p_src_lv->m_p_camera->m_s_name.c_str(), s_note_lv);
  }
  if (!p_av->m_p_settings->m_b_quiet)
    printf("[%5.1f s] cameras %zu  sent %lld  written %lld  passes %lld  buffers %s\n", SecondsSince(p_av->m_i64_start_perf),
           p_av->m_sources.size(), static_cast<long long>(i64_sent_lv), static_cast<long long>(i64_written_lv),
           static_cast<long long>(i64_passes_lv), s_mem_lv.empty() ? "n/a" : s_mem_lv.c_str());
  fflush(stdout);
}

uint32_t MonitorThread(void* p_arg_av) {
  SrvMonitor* p_lv = static_cast<SrvMonitor*>(p_arg_av);
  SrvCrashThreadBegin();
  int i_tick_lv = 0;
  while (p_lv->m_p_stop->Wait(100) != PL_WAIT_OBJECT_0) {
    int64_t i64_written_lv = 0, i64_passes_lv = 0;
    SrvMonitorRefresh(p_lv, &i64_written_lv, &i64_passes_lv);
    if (++i_tick_lv % 10 != 0) continue;
    SrvHostTracksCheckAlive(p_lv->m_p_tracks);
    PrintProgress(p_lv);
  }
  SrvCrashThreadEnd();
  return 0;
}

}  // namespace

void SrvMonitorRefresh(SrvMonitor* p_av, int64_t* p_written_av, int64_t* p_passes_av) {
  ArchiveStats st_lv = SrvPluginArchiveStats(p_av->m_p_plugin);
  *p_written_av = st_lv.frames_written;
  *p_passes_av = 0;
  for (SrvSource* p_src_lv : p_av->m_sources)
    for (int i_lv = 0; i_lv < 2; i_lv++) *p_passes_av += p_src_lv->m_counts.m_put.m_rules[i_lv][SRV_PUT_PASSED_OVER];
  if (st_lv.frames_asked > p_av->m_p_flow->m_i64_taken) p_av->m_p_flow->m_i64_taken = st_lv.frames_asked;
}

int64_t SrvMonitorBuffered(SrvMonitor* p_av) {
  return p_av->m_p_flow->m_i64_entered - SrvPluginArchiveStats(p_av->m_p_plugin).frames_asked;
}

void SrvMonitorStart(SrvMonitor* p_av) {
  // Frames of earlier runs in the same archive are not this run's.
  p_av->m_stored_before = SrvStoredOfAll(p_av->m_p_settings->m_s_archive_root, p_av->m_sources);
  p_av->m_i64_start_perf = PlPerfCounter();
  p_av->m_p_stop = new PlEvent(true, false);
  p_av->m_p_thread = PlThread::Create(&MonitorThread, p_av, 0, false);
}

void SrvMonitorStop(SrvMonitor* p_av) {
  if (p_av->m_p_stop != nullptr) p_av->m_p_stop->Set();
  if (p_av->m_p_thread != nullptr) {
    p_av->m_p_thread->Join(PL_INFINITE);
    PlThread::Close(p_av->m_p_thread);
  }
  p_av->m_p_thread = nullptr;
  delete p_av->m_p_stop;
  p_av->m_p_stop = nullptr;
}

// What the archive holds of each camera, in the cameras' order. The archive
// is walked once for all of them: a walk per camera read every stream's
// folder as many times as there are cameras.
std::vector<SrvStored> SrvStoredOfAll(const std::string& s_root_av, const std::vector<SrvSource*>& sources_av) {
  std::vector<SrvStored> out_lv(sources_av.size());
  std::map<std::string, std::vector<size_t>> by_folder_lv;
  for (size_t ui_lv = 0; ui_lv < sources_av.size(); ui_lv++) {
    const SrvCamera& camera_lv = *sources_av[ui_lv]->m_p_camera;
    const char* keys_lv[5];
    int32_t sizes_lv[5];
    for (int i_lv = 0; i_lv < 5; i_lv++) {
      keys_lv[i_lv] = camera_lv.m_s_arc_keys[i_lv].c_str();
      sizes_lv[i_lv] = static_cast<int32_t>(camera_lv.m_s_arc_keys[i_lv].size() + 1);
    }
    out_lv[ui_lv].m_s_folder = warc::CameraFolderName(keys_lv, sizes_lv, 5);
    by_folder_lv[out_lv[ui_lv].m_s_folder].push_back(ui_lv);
  }
  for (const warc::StreamRef& stream_lv : warc::FindStreams(s_root_av)) {
    size_t ui_slash_lv = stream_lv.m_s_camera.rfind('/');
    auto it_lv = by_folder_lv.find(stream_lv.m_s_camera.substr(ui_slash_lv == std::string::npos ? 0 : ui_slash_lv + 1));
    if (it_lv == by_folder_lv.end()) continue;
    warc::StreamCount sum_lv = warc::CountStream(stream_lv);
    for (size_t ui_lv : it_lv->second) {
      SrvStored& st_lv = out_lv[ui_lv];
      (stream_lv.m_s_kind == "audio" ? st_lv.m_ui64_audio : st_lv.m_ui64_video) += sum_lv.m_ui64_frames;
      st_lv.m_ui64_keys += stream_lv.m_s_kind == "audio" ? 0 : sum_lv.m_ui64_key_frames;
    }
  }
  return out_lv;
}

namespace {

// What this run stored: the archive now less what it held at the start.
SrvStored StoredThisRun(SrvStored now_av, const SrvStored& before_av) {
  auto less_lv = [](uint64_t a_av, uint64_t b_av) { return a_av > b_av ? a_av - b_av : 0; };
  now_av.m_ui64_video = less_lv(now_av.m_ui64_video, before_av.m_ui64_video);
  now_av.m_ui64_audio = less_lv(now_av.m_ui64_audio, before_av.m_ui64_audio);
  now_av.m_ui64_keys = less_lv(now_av.m_ui64_keys, before_av.m_ui64_keys);
  return now_av;
}

// One camera's lines; false when it should have recorded and stored nothing
// in this run.
bool PrintCamera(const SrvSource& src_av, const SrvStored& now_av, const SrvStored& before_av,
                 const std::vector<ArchiveChannelStats>& channels_av, bool b_lines_av, SrvFrameAccount* p_total_av) {
  const SrvCamera& cam_lv = *src_av.m_p_camera;
  const SrvSourceCounts& c_lv = src_av.m_counts;
  SrvStored stored_lv = StoredThisRun(now_av, before_av);
  printf("camera %s (archive folder %s)\n", cam_lv.m_s_name.c_str(), stored_lv.m_s_folder.c_str());
  printf("  sent     %lld video, %lld audio, %lld key frames, %.1f MB; wanted %lld (%lld need answers); "
         "%d listening, %d asked for frames\n",
         static_cast<long long>(c_lv.m_i64_video.load()), static_cast<long long>(c_lv.m_i64_audio.load()),
         static_cast<long long>(c_lv.m_i64_keys.load()), static_cast<double>(c_lv.m_i64_bytes) / 1e6,
         static_cast<long long>(c_lv.m_i64_wanted.load()), static_cast<long long>(c_lv.m_i64_need_answers.load()),
         c_lv.m_i_listeners.load(), c_lv.m_i_gets.load());
  printf("  stored   (this run) %llu video (%llu key), %llu audio\n", static_cast<unsigned long long>(stored_lv.m_ui64_video),
         static_cast<unsigned long long>(stored_lv.m_ui64_keys), static_cast<unsigned long long>(stored_lv.m_ui64_audio));
  for (int i_lv = 0; i_lv < 2; i_lv++)
    SrvPrintAccount(i_lv == 0 ? "video" : "audio",
                    SrvAccountOf(c_lv.m_put, i_lv, channels_av, stored_lv.m_s_folder, b_lines_av), p_total_av);
  if (cam_lv.m_source.m_s_type == "stream")
    printf("  stream   %lld drops, %lld reconnects\n", static_cast<long long>(c_lv.m_i64_drops.load()),
           static_cast<long long>(c_lv.m_i64_reconnects.load()));
  bool b_ok_lv = !cam_lv.m_b_must_record || stored_lv.m_ui64_video + stored_lv.m_ui64_audio > 0;
  if (!b_ok_lv) printf("  FAILED: this camera should record and stored nothing\n");
  return b_ok_lv;
}

// A "Vm..." figure of /proc/self/status in MB; 0 when it cannot be read.
double ProcMegabytes(const char* s_key_av) {
  std::ifstream in_lv("/proc/self/status");
  std::string s_line_lv;
  size_t ui_key_lv = strlen(s_key_av);
  while (std::getline(in_lv, s_line_lv))
    if (s_line_lv.compare(0, ui_key_lv, s_key_av) == 0 && s_line_lv.size() > ui_key_lv && s_line_lv[ui_key_lv] == ':')
      return atof(s_line_lv.c_str() + ui_key_lv + 1) / 1024.0;
  return 0;
}

double Seconds(const timeval& tv_av) { return static_cast<double>(tv_av.tv_sec) + tv_av.tv_usec / 1e6; }

}  // namespace

void SrvPrintWholeRun(SrvMonitor* p_av, double d_stored_s_av) {
  ArchiveStats st_lv = SrvPluginArchiveStats(p_av->m_p_plugin);
  rusage ru_lv;
  memset(&ru_lv, 0, sizeof(ru_lv));
  getrusage(RUSAGE_SELF, &ru_lv);
  double d_user_lv = Seconds(ru_lv.ru_utime), d_sys_lv = Seconds(ru_lv.ru_stime);
  double d_span_lv = d_stored_s_av > 0 ? d_stored_s_av : 1e-9;
  int64_t i64_late_lv = 0;
  for (SrvSource* p_src_lv : p_av->m_sources)
    if (p_src_lv->m_counts.m_i64_max_late_us > i64_late_lv) i64_late_lv = p_src_lv->m_counts.m_i64_max_late_us;
  printf("whole    %lld frames (%.1f MB) stored in %.2f s: %.0f frames/s, %.1f MB/s; cpu %.2f s user + %.2f s "
         "system (%.0f%% of one core); memory %.1f MB resident, %.1f MB peak; frames late at most %.0f ms\n",
         static_cast<long long>(st_lv.frames_written), static_cast<double>(st_lv.bytes_written) / 1e6, d_stored_s_av,
         static_cast<double>(st_lv.frames_written) / d_span_lv, static_cast<double>(st_lv.bytes_written) / 1e6 / d_span_lv,
         d_user_lv, d_sys_lv, 100.0 * (d_user_lv + d_sys_lv) / d_span_lv, ProcMegabytes("VmRSS"),
         ProcMegabytes("VmHWM"), static_cast<double>(i64_late_lv) / 1000.0);
  fflush(stdout);
}

int SrvPrintSummary(SrvMonitor* p_av, double d_run_s_av) {
  const SrvSettings& settings_lv = *p_av->m_p_settings;
  int64_t i64_wanted_lv = 0, i64_passes_lv = 0, i64_written_lv = 0;
  SrvMonitorRefresh(p_av, &i64_written_lv, &i64_passes_lv);
  // The channels are closed by now: a last question with no write stays so.
  std::vector<ArchiveChannelStats> channels_lv = SrvChannelStats(p_av->m_p_plugin->m_p_archive_channel_stats, true);
  bool b_lines_lv = SrvPluginLinesCounted(p_av->m_p_plugin);
  SrvFrameAccount total_lv;
  printf("\n== writer-host summary: %.1f s, %s pacing\n", d_run_s_av, settings_lv.m_b_paced ? "real-time" : "fast");
  bool b_ok_lv = true;
  std::vector<SrvStored> now_lv = SrvStoredOfAll(settings_lv.m_s_archive_root, p_av->m_sources);
  for (size_t ui_lv = 0; ui_lv < p_av->m_sources.size(); ui_lv++) {
    SrvSource* p_src_lv = p_av->m_sources[ui_lv];
    SrvStored before_lv = ui_lv < p_av->m_stored_before.size() ? p_av->m_stored_before[ui_lv] : SrvStored();
    b_ok_lv = PrintCamera(*p_src_lv, now_lv[ui_lv], before_lv, channels_lv, b_lines_lv, &total_lv) && b_ok_lv;
    i64_wanted_lv += p_src_lv->m_counts.m_i64_wanted;
  }
  ArchiveStats st_lv = SrvPluginArchiveStats(p_av->m_p_plugin);
  printf("archive  %lld frames written (%.1f MB), %lld sessions opened, %lld closed, %lld opens refused, "
         "%lld writes refused, %lld failed, %lld segments\n",
         static_cast<long long>(st_lv.frames_written), static_cast<double>(st_lv.bytes_written) / 1e6,
         static_cast<long long>(st_lv.sessions_opened), static_cast<long long>(st_lv.sessions_closed),
         static_cast<long long>(st_lv.opens_refused), static_cast<long long>(st_lv.writes_refused),
         static_cast<long long>(st_lv.writes_failed), static_cast<long long>(st_lv.segments_created));
  int64_t i64_open_lv = i64_wanted_lv - st_lv.frames_written - st_lv.writes_refused - st_lv.writes_failed - i64_passes_lv;
  printf("frames   %lld wanted, %lld passed over, %lld neither stored nor passed\n", static_cast<long long>(i64_wanted_lv),
         static_cast<long long>(i64_passes_lv), static_cast<long long>(i64_open_lv < 0 ? 0 : i64_open_lv));
  SrvPrintAccountTotal(total_lv, b_lines_lv);
  SrvHostTracks* p_tr_lv = p_av->m_p_tracks;
  printf("host     %lld calendar answers, %lld camera look-ups, %lld script events, %lld plug-in events, "
         "%lld liveness silences\n",
         static_cast<long long>(p_tr_lv->m_i64_calendar_answers.load()),
         static_cast<long long>(p_tr_lv->m_i64_camera_answers.load()),
         static_cast<long long>(p_tr_lv->m_i64_script_posted.load()),
         static_cast<long long>(p_tr_lv->m_i64_plugin_events.load()), static_cast<long long>(p_tr_lv->m_i64_silences.load()));
  printf("result   %s\n", b_ok_lv ? "OK" : "FAILED: a camera stored nothing");
  fflush(stdout);
  return b_ok_lv ? 0 : 1;
}
