// The /metrics text (see srv_metrics.h). Counters come from the sources'
// atomics, the archive's host-only statistics and the monitor; nothing here
// reads the disk, so a scrape costs the same on a full archive.
#include "host/server/srv_metrics.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

#include "host/archive/arc_format.h"
#include "host/server/srv_account.h"

namespace {

// Metric families are written in one piece each: HELP, TYPE, samples.
class Family {
 public:
  Family(std::string* p_out_av, const char* s_name_av, const char* s_type_av, const char* s_help_av)
      : m_p_out(p_out_av), m_s_name(s_name_av) {
    *m_p_out += std::string("# HELP ") + s_name_av + " " + s_help_av + "\n# TYPE " + s_name_av + " " + s_type_av + "\n";
  }
  void Sample(const std::string& s_labels_av, long long ll_value_av, const char* s_suffix_av = "") {
    char s_lv[32];
    snprintf(s_lv, sizeof(s_lv), "%lld", ll_value_av);
    Line(s_labels_av, s_lv, s_suffix_av);
  }
  void Line(const std::string& s_labels_av, const std::string& s_value_av, const char* s_suffix_av = "") {
    *m_p_out += m_s_name + s_suffix_av + (s_labels_av.empty() ? "" : "{" + s_labels_av + "}") + " " + s_value_av + "\n";
  }

 private:
  std::string* m_p_out;
  std::string m_s_name;
};

std::string CameraLabels(const SrvCamera& cam_av, const char* s_medium_av) {
  return "camera=\"" + SrvMetricsLabel(cam_av.m_s_name) + "\",medium=\"" + s_medium_av + "\"";
}

// Frames and bytes stored per camera folder and kind since the start.
std::map<std::pair<std::string, int>, ArchiveStreamStats> StreamStats(SrvPlugin* p_av) {
  std::map<std::pair<std::string, int>, ArchiveStreamStats> out_lv;
  if (p_av == nullptr || p_av->m_p_archive_stream_stats == nullptr) return out_lv;
  ArchiveStreamStats st_lv;
  // The archive has one stream per camera and kind; the bound only keeps a
  // scrape short whatever the archive says.
  for (int32_t i_lv = 0; i_lv < 100000 && p_av->m_p_archive_stream_stats(i_lv, &st_lv) == 0; i_lv++) {
    st_lv.camera_folder[sizeof(st_lv.camera_folder) - 1] = 0;
    out_lv[{st_lv.camera_folder, st_lv.kind}] = st_lv;
  }
  return out_lv;
}

void CameraFamilies(const SrvRunView& view_av, std::string* p_out_av) {
  const std::vector<SrvCamera>& cams_lv = view_av.m_p_settings->m_cameras;
  auto per_source = [&](const char* s_name_av, const char* s_help_av, std::atomic<int64_t> SrvSourceCounts::*p_video_av,
                        std::atomic<int64_t> SrvSourceCounts::*p_audio_av) {
    Family fam_lv(p_out_av, s_name_av, "counter", s_help_av);
    for (size_t ui_lv = 0; ui_lv < cams_lv.size() && ui_lv < view_av.m_sources.size(); ui_lv++) {
      const SrvSourceCounts& c_lv = view_av.m_sources[ui_lv]->m_counts;
      fam_lv.Sample(CameraLabels(cams_lv[ui_lv], "video"), (c_lv.*p_video_av).load());
      fam_lv.Sample(CameraLabels(cams_lv[ui_lv], "audio"), (c_lv.*p_audio_av).load());
    }
  };
  per_source("writer_frames_sent_total", "Frames the camera's source sent to the plug-in.", &SrvSourceCounts::m_i64_video,
             &SrvSourceCounts::m_i64_audio);
  per_source("writer_frames_wanted_total", "Frames a recording channel took (answered need).",
             &SrvSourceCounts::m_i64_wanted_video, &SrvSourceCounts::m_i64_wanted_audio);
  auto streams_lv = StreamStats(view_av.m_p_plugin);
  auto per_stream = [&](const char* s_name_av, const char* s_help_av, int64_t ArchiveStreamStats::*p_field_av) {
    Family fam_lv(p_out_av, s_name_av, "counter", s_help_av);
    for (const SrvCamera& cam_lv : cams_lv) {
      std::string s_folder_lv = SrvCameraFolder(cam_lv);
      for (int i_kind_lv = 1; i_kind_lv <= 2; i_kind_lv++) {
        auto it_lv = streams_lv.find({s_folder_lv, i_kind_lv});
        fam_lv.Sample(CameraLabels(cam_lv, i_kind_lv == 1 ? "video" : "audio"),
                      it_lv == streams_lv.end() ? 0 : it_lv->second.*p_field_av);
      }
    }
  };
  per_stream("writer_frames_stored_total", "Frames the archive stored for the camera.",
             &ArchiveStreamStats::frames_written);
  per_stream("writer_stored_bytes_total", "Frame block bytes the archive stored.", &ArchiveStreamStats::bytes_written);
  auto per_camera = [&](const char* s_name_av, const char* s_help_av, std::atomic<int64_t> SrvSourceCounts::*p_av) {
    Family fam_lv(p_out_av, s_name_av, "counter", s_help_av);
    for (size_t ui_lv = 0; ui_lv < cams_lv.size() && ui_lv < view_av.m_sources.size(); ui_lv++)
      fam_lv.Sample("camera=\"" + SrvMetricsLabel(cams_lv[ui_lv].m_s_name) + "\"",
                    (view_av.m_sources[ui_lv]->m_counts.*p_av).load());
  };
  per_camera("writer_source_reconnects_total", "Times a camera's network source joined its stream again.",
             &SrvSourceCounts::m_i64_reconnects);
  per_camera("writer_source_drops_total", "Times a camera's network stream was lost.", &SrvSourceCounts::m_i64_drops);
}

// Each frame's fate by its rule, per camera and medium (srv_account.h).
// Counts that rest on the plug-in's log lines are left out while those
// lines may not reach the log library.
void FrameFateFamilies(const SrvRunView& view_av, std::string* p_out_av) {
  const std::vector<SrvCamera>& cams_lv = view_av.m_p_settings->m_cameras;
  bool b_lines_lv = SrvPluginLinesCounted(view_av.m_p_plugin);
  std::vector<ArchiveChannelStats> channels_lv = SrvChannelStats(view_av.m_p_plugin->m_p_archive_channel_stats, false);
  auto each_lv = [&](const std::function<void(const SrvCamera&, const char*, const SrvFrameAccount&)>& fn_av) {
    for (size_t ui_lv = 0; ui_lv < cams_lv.size() && ui_lv < view_av.m_sources.size(); ui_lv++)
      for (int i_medium_lv = 0; i_medium_lv < 2; i_medium_lv++)
        fn_av(cams_lv[ui_lv], i_medium_lv == 0 ? "video" : "audio",
              SrvAccountOf(view_av.m_sources[ui_lv]->m_counts.m_put, i_medium_lv, channels_lv,
                           SrvCameraFolder(cams_lv[ui_lv]), b_lines_lv));
  };
  if (b_lines_lv) {
    Family passed_lv(p_out_av, "writer_frames_passed_over_total", "counter",
                     "Frames the plug-in passed over: its buffers were full, or a key frame was awaited after a loss.");
    each_lv([&](const SrvCamera& cam_av, const char* s_medium_av, const SrvFrameAccount& acc_av) {
      passed_lv.Sample(CameraLabels(cam_av, s_medium_av), acc_av.m_put[SRV_PUT_PASSED_OVER]);
    });
  }
  Family dropped_lv(p_out_av, "writer_frames_dropped_total", "counter",
                    "Frames sent and not stored, by the rule that dropped them.");
  each_lv([&](const SrvCamera& cam_av, const char* s_medium_av, const SrvFrameAccount& acc_av) {
    std::string s_labels_lv = CameraLabels(cam_av, s_medium_av) + ",rule=\"";
    for (int i_lv = 0; i_lv < SRV_PUT_RULES; i_lv++) {
      bool b_by_line_lv = i_lv == SRV_PUT_BEFORE_KEY || i_lv == SRV_PUT_BAD_DATA;
      if (i_lv == SRV_PUT_ENTERED || i_lv == SRV_PUT_PASSED_OVER || (b_by_line_lv && !b_lines_lv)) continue;
      dropped_lv.Sample(s_labels_lv + SRV_PUT_RULE_NAMES[i_lv] + "\"", acc_av.m_put[i_lv]);
    }
    const ArchiveChannelStats& g_lv = acc_av.m_get;
    const std::pair<const char*, int64_t> get_lv[] = {{"do_not_write", g_lv.no_write},
                                                      {"no_session", g_lv.no_session},
                                                      {"write_refused", acc_av.Refused()},
                                                      {"write_failed", acc_av.Failed()}};
    for (const auto& item_lv : get_lv) dropped_lv.Sample(s_labels_lv + item_lv.first + "\"", item_lv.second);
  });
}

void ArchiveFamilies(SrvPlugin* p_av, std::string* p_out_av) {
  ArchiveStats st_lv = SrvPluginArchiveStats(p_av);
  Family(p_out_av, "archive_writes_total", "counter", "Frames the archive wrote.").Sample("", st_lv.frames_written);
  Family(p_out_av, "archive_write_bytes_total", "counter", "Frame block bytes the archive wrote.")
      .Sample("", st_lv.bytes_written);
  Family(p_out_av, "archive_writes_refused_total", "counter", "Writes the archive refused.")
      .Sample("", st_lv.writes_refused);
  Family(p_out_av, "archive_writes_failed_total", "counter", "Writes that failed on the disk.")
      .Sample("", st_lv.writes_failed);
  Family(p_out_av, "archive_sessions_opened_total", "counter", "Write sessions the archive opened.")
      .Sample("", st_lv.sessions_opened);
  Family(p_out_av, "archive_sessions_refused_total", "counter", "Write sessions the archive refused to open.")
      .Sample("", st_lv.opens_refused);
  Family(p_out_av, "archive_sessions_closed_total", "counter", "Write sessions closed.").Sample("", st_lv.sessions_closed);
  ArchiveWriteLatency lat_lv;
  memset(&lat_lv, 0, sizeof(lat_lv));
  if (p_av != nullptr && p_av->m_p_archive_latency != nullptr) p_av->m_p_archive_latency(&lat_lv);
  Family hist_lv(p_out_av, "archive_write_seconds", "histogram", "Time of one archive write call.");
  for (int i_lv = 0; i_lv < ARCHIVE_LATENCY_BUCKETS; i_lv++) {
    char s_le_lv[32];
    if (lat_lv.bound_us[i_lv] == INT64_MAX || i_lv == ARCHIVE_LATENCY_BUCKETS - 1)
      snprintf(s_le_lv, sizeof(s_le_lv), "+Inf");
    else
      snprintf(s_le_lv, sizeof(s_le_lv), "%g", static_cast<double>(lat_lv.bound_us[i_lv]) / 1e6);
    hist_lv.Sample(std::string("le=\"") + s_le_lv + "\"", lat_lv.count_le[i_lv], "_bucket");
  }
  char s_sum_lv[40];
  snprintf(s_sum_lv, sizeof(s_sum_lv), "%.6f", static_cast<double>(lat_lv.sum_us) / 1e6);
  hist_lv.Line("", s_sum_lv, "_sum");
  hist_lv.Sample("", lat_lv.count, "_count");
}

}  // namespace

std::string SrvMetricsLabel(const std::string& s_av) {
  std::string s_out_lv;
  for (char c_lv : s_av) {
    if (c_lv == '\\' || c_lv == '"') s_out_lv += '\\', s_out_lv += c_lv;
    else if (c_lv == '\n') s_out_lv += "\\n";
    else s_out_lv += c_lv;
  }
  return s_out_lv;
}

long long SrvBufferMemory(SrvPlugin* p_av) {
  std::string s_lv = SrvPluginQuery(p_av, "{\"query_id\":\"common_status\"}");
  size_t ui_at_lv = s_lv.find("\"buffs_used_mem\":");
  return ui_at_lv == std::string::npos ? -1 : atoll(s_lv.c_str() + ui_at_lv + 17);
}

std::string SrvMetricsText(const SrvRunView& view_av) {
  std::string s_out_lv;
  if (view_av.m_p_settings != nullptr) CameraFamilies(view_av, &s_out_lv);
  if (view_av.m_p_settings != nullptr && view_av.m_p_plugin != nullptr) FrameFateFamilies(view_av, &s_out_lv);
  if (view_av.m_p_plugin != nullptr) {
    long long ll_mem_lv = view_av.m_p_plugin->m_b_initialised ? SrvBufferMemory(view_av.m_p_plugin) : -1;
    if (ll_mem_lv >= 0)
      Family(&s_out_lv, "writer_buffer_memory_bytes", "gauge", "Memory of the plug-in's write buffers.")
          .Sample("", ll_mem_lv);
    ArchiveFamilies(view_av.m_p_plugin, &s_out_lv);
  }
  if (view_av.m_p_tracks != nullptr)
    Family(&s_out_lv, "writer_liveness_silences_total", "counter",
           "Times a recording channel stopped confirming it is alive.")
        .Sample("", view_av.m_p_tracks->m_i64_silences.load());
  return s_out_lv;
}

std::string SrvCameraFolder(const SrvCamera& cam_av) {
  const char* keys_lv[5];
  int32_t sizes_lv[5];
  for (int i_lv = 0; i_lv < 5; i_lv++) {
    keys_lv[i_lv] = cam_av.m_s_arc_keys[i_lv].c_str();
    sizes_lv[i_lv] = static_cast<int32_t>(cam_av.m_s_arc_keys[i_lv].size() + 1);
  }
  return warc::CameraFolderName(keys_lv, sizes_lv, 5);
}
