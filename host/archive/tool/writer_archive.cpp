// writer-archive: lists, exports and checks what the archive library stored.
// Run by people and scripts on the recording machine; the reading itself is
// in arc_reader, shared with the tests.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "host/archive/arc_export.h"
#include "host/archive/arc_reader.h"
#include "platform/pl_clock.h"
#include "platform/pl_os.h"

using namespace warc;

namespace {

const int EXIT_BAD_USAGE = 2;
const int EXIT_NO_ARCHIVE = 3;

const char* const HELP_MAIN =
    "usage: writer-archive COMMAND [options]\n"
    "\n"
    "commands:\n"
    "  list     cameras, media kinds, time ranges, frame counts, key frames, gaps\n"
    "  export   one camera's frames to a file (H.264 as an Annex-B stream), or a table\n"
    "  verify   check every record, the indexes, times and frame numbers\n"
    "\n"
    "'writer-archive COMMAND --help' tells the options of a command.\n";

const char* const HELP_LIST =
    "usage: writer-archive list [--root DIR] [--gap SECONDS]\n"
    "\n"
    "  --root DIR     storage folder, or a folder holding storages\n"
    "                 (default: archive_data beside this program)\n"
    "  --gap SECONDS  a pause between two frames longer than this is a gap (default 5)\n";

const char* const HELP_EXPORT =
    "usage: writer-archive export --camera NAME --out FILE [options]\n"
    "\n"
    "  --root DIR         as for list\n"
    "  --camera NAME      camera folder as list shows it (with --format, also\n"
    "                     the camera's own folder name without the storage)\n"
    "  --kind video|audio media kind (default video)\n"
    "  --from TIME        first frame time, \"YYYY.MM.DD HH:MM:SS[:mmm]\" local, or ticks\n"
    "  --to TIME          last frame time, same forms\n"
    "  --out FILE         output file, - for standard output\n"
    "  --table csv|json   write a table of the frames (time, type, size, number)\n"
    "                     instead of their data\n"
    "  --raw              data sections as they are, even for H.264\n"
    "  --format mp4|mkv   a file any player opens: the video with its audio, timed\n"
    "                     by the recorded frame times (gaps stay gaps), starting at\n"
    "                     the key frame at or before --from; --from and --to then\n"
    "                     also take seconds since 1970 UTC. MP4 cannot hold A-law\n"
    "                     or mu-law audio: it is left out there, mkv keeps it.\n"
    "\n"
    "Data export starts at the first key frame in the range. H.264 frames become\n"
    "an Annex-B byte stream (parameter sets of key frames first); other codecs'\n"
    "data sections are written back to back.\n";

const char* const HELP_VERIFY =
    "usage: writer-archive verify [--root DIR] [--camera NAME] [--kind video|audio] [--repair]\n"
    "\n"
    "Checks every record (length and checksum), that each index agrees with its\n"
    "segment, that times never fall and that frame numbers agree with key frames.\n"
    "Exit status 0 when no error was found, 1 otherwise.\n"
    "  --repair   first cut damaged tails and rebuild indexes, as the library does\n"
    "             when it next opens the stream\n";

struct Options {
  std::map<std::string, std::string> m_values;
  bool m_b_help = false;
  std::string m_s_error;
  bool Has(const char* s_av) const { return m_values.count(s_av) > 0; }
  std::string Get(const char* s_av, const std::string& s_default_av) const {
    auto it_lv = m_values.find(s_av);
    return it_lv == m_values.end() ? s_default_av : it_lv->second;
  }
};

// Options of a command: flags take no value, the rest take one.
Options ParseOptions(int argc, char** argv, const std::vector<std::string>& valued_av,
                     const std::vector<std::string>& flags_av) {
  Options opt_lv;
  for (int i_lv = 2; i_lv < argc; i_lv++) {
    std::string s_arg_lv = argv[i_lv];
    if (s_arg_lv == "--help" || s_arg_lv == "-h") {
      opt_lv.m_b_help = true;
    } else if (std::find(flags_av.begin(), flags_av.end(), s_arg_lv) != flags_av.end()) {
      opt_lv.m_values[s_arg_lv] = "1";
    } else if (std::find(valued_av.begin(), valued_av.end(), s_arg_lv) != valued_av.end()) {
      if (i_lv + 1 >= argc) {
        opt_lv.m_s_error = s_arg_lv + " needs a value";
        return opt_lv;
      }
      opt_lv.m_values[s_arg_lv] = argv[++i_lv];
    } else {
      opt_lv.m_s_error = "unknown option " + s_arg_lv;
      return opt_lv;
    }
  }
  return opt_lv;
}

std::string DefaultRoot() {
  char s_exe_lv[4096];
  size_t ui_len_lv = PlExePath(s_exe_lv, sizeof(s_exe_lv));
  std::string s_lv(s_exe_lv, ui_len_lv);
  size_t ui_slash_lv = s_lv.rfind('/');
  return (ui_slash_lv == std::string::npos ? std::string(".") : s_lv.substr(0, ui_slash_lv)) + "/archive_data";
}

// The streams under the root, or a message and an empty list.
bool LoadStreams(const Options& opt_av, std::vector<StreamRef>* p_out_av) {
  std::string s_root_lv = opt_av.Get("--root", DefaultRoot());
  struct stat st_lv;
  if (stat(s_root_lv.c_str(), &st_lv) != 0 || !S_ISDIR(st_lv.st_mode)) {
    fprintf(stderr, "writer-archive: no archive at %s (folder missing)\n", s_root_lv.c_str());
    return false;
  }
  *p_out_av = FindStreams(s_root_lv);
  if (p_out_av->empty()) {
    fprintf(stderr, "writer-archive: no recordings under %s\n", s_root_lv.c_str());
    return false;
  }
  return true;
}

int Usage(const char* s_help_av, const std::string& s_error_av) {
  fprintf(stderr, "writer-archive: %s\n\n%s", s_error_av.c_str(), s_help_av);
  return EXIT_BAD_USAGE;
}

int CmdList(int argc, char** argv) {
  Options opt_lv = ParseOptions(argc, argv, {"--root", "--gap"}, {});
  if (opt_lv.m_b_help) return printf("%s", HELP_LIST), 0;
  if (!opt_lv.m_s_error.empty()) return Usage(HELP_LIST, opt_lv.m_s_error);
  int64_t i64_gap_s_lv = atoll(opt_lv.Get("--gap", "5").c_str());
  if (i64_gap_s_lv <= 0 || i64_gap_s_lv > 1000000000LL)
    return Usage(HELP_LIST, "--gap needs a positive number of seconds, at most 1000000000");
  std::vector<StreamRef> streams_lv;
  if (!LoadStreams(opt_lv, &streams_lv)) return EXIT_NO_ARCHIVE;
  for (const StreamRef& stream_lv : streams_lv) {
    StreamSummary sum_lv = SummariseStream(stream_lv, i64_gap_s_lv * 10000000);
    printf("%s %s: %zu segments, %llu frames, %llu key frames, %llu bytes\n", stream_lv.m_s_camera.c_str(),
           stream_lv.m_s_kind.c_str(), sum_lv.m_ui_segments, static_cast<unsigned long long>(sum_lv.m_ui64_frames),
           static_cast<unsigned long long>(sum_lv.m_ui64_key_frames), static_cast<unsigned long long>(sum_lv.m_ui64_bytes));
    if (sum_lv.m_ui64_frames > 0)
      printf("  from %s to %s\n", TimeText(sum_lv.m_i64_first).c_str(), TimeText(sum_lv.m_i64_last).c_str());
    const size_t MAX_GAPS = 20;
    for (size_t ui_lv = 0; ui_lv < sum_lv.m_gaps.size() && ui_lv < MAX_GAPS; ui_lv++)
      printf("  gap from %s to %s (%.1f s)\n", TimeText(sum_lv.m_gaps[ui_lv].first).c_str(),
             TimeText(sum_lv.m_gaps[ui_lv].second).c_str(),
             (static_cast<double>(sum_lv.m_gaps[ui_lv].second) - static_cast<double>(sum_lv.m_gaps[ui_lv].first)) / 1e7);
    if (sum_lv.m_gaps.size() > MAX_GAPS) printf("  ... and %zu more gaps\n", sum_lv.m_gaps.size() - MAX_GAPS);
    if (sum_lv.m_ui_damaged_segments > 0)
      printf("  %zu segments with a damaged tail (see verify)\n", sum_lv.m_ui_damaged_segments);
  }
  return 0;
}

// Builds the output of export: the data stream or the table.
struct ExportSink {
  std::string m_s_table_form;  // "", "csv" or "json"
  bool m_b_raw = false;
  bool m_b_started = false;  // a key frame has been seen
  bool m_b_h264 = false;
  uint64_t m_ui64_frames = 0;
  uint64_t m_ui64_bad = 0;
  std::string m_s_out;

  void Frame(const IndexEntry& entry_av, const uint8_t* pb_av) {
    if (!m_s_table_form.empty()) return TableRow(entry_av);
    BlockInfo info_lv;
    std::string s_why_lv;
    if (!ParseFrameBlock(pb_av, entry_av.m_ui_size, &info_lv, &s_why_lv)) {
      m_ui64_bad++;
      return;
    }
    if (entry_av.m_ui_type & TYPE_KEY) {
      m_b_started = true;
      if (info_lv.m_ui_head_len == 48) m_b_h264 = BlockIsH264(info_lv);
    }
    if (!m_b_started) return;
    m_ui64_frames++;
    const BlockSection* p_data_lv = info_lv.Find(1);
    if (m_b_raw || !m_b_h264) {
      m_s_out.append(reinterpret_cast<const char*>(p_data_lv->m_pb_data), p_data_lv->m_ui_len);
      return;
    }
    const BlockSection* p_extra_lv = info_lv.Find(80);
    if ((entry_av.m_ui_type & TYPE_KEY) && p_extra_lv != nullptr)
      AppendAnnexB(p_extra_lv->m_pb_data, p_extra_lv->m_ui_len, &m_s_out, true);
    AppendAnnexB(p_data_lv->m_pb_data, p_data_lv->m_ui_len, &m_s_out);
  }

  void TableRow(const IndexEntry& entry_av) {
    char s_lv[256];
    if (m_s_table_form == "csv") {
      if (m_ui64_frames == 0) m_s_out += "time,time_text,type,key,size,number\n";
      snprintf(s_lv, sizeof(s_lv), "%lld,%s,%u,%d,%u,%u\n", static_cast<long long>(entry_av.m_i64_time),
               TimeText(entry_av.m_i64_time).c_str(), entry_av.m_ui_type, (entry_av.m_ui_type & TYPE_KEY) ? 1 : 0,
               entry_av.m_ui_size, entry_av.m_ui_number);
    } else {
      snprintf(s_lv, sizeof(s_lv),
               "%s\n  {\"time\": %lld, \"time_text\": \"%s\", \"type\": %u, \"key\": %s, \"size\": %u, \"number\": %u}",
               m_ui64_frames == 0 ? "[" : ",", static_cast<long long>(entry_av.m_i64_time),
               TimeText(entry_av.m_i64_time).c_str(), entry_av.m_ui_type,
               (entry_av.m_ui_type & TYPE_KEY) ? "true" : "false", entry_av.m_ui_size, entry_av.m_ui_number);
    }
    m_s_out += s_lv;
    m_ui64_frames++;
  }

  void Finish() {
    if (m_s_table_form == "json") m_s_out += m_ui64_frames == 0 ? "[]\n" : "\n]\n";
  }
};

bool WriteOut(const std::string& s_path_av, const std::string& s_data_av) {
  FILE* p_file_lv = s_path_av == "-" ? stdout : fopen(s_path_av.c_str(), "wb");
  if (p_file_lv == nullptr) return false;
  bool b_ok_lv = fwrite(s_data_av.data(), 1, s_data_av.size(), p_file_lv) == s_data_av.size();
  if (p_file_lv != stdout) b_ok_lv = fclose(p_file_lv) == 0 && b_ok_lv;
  return b_ok_lv;
}

// A time of the container export in microseconds since 1970 UTC: a local
// time text, or seconds (a fraction allowed).
bool ParseExportTime(const std::string& s_av, int64_t* p_out_av) {
  int64_t i64_local_lv = 0;
  if (s_av.find(':') != std::string::npos) {
    if (!ParseTimeArg(s_av, &i64_local_lv)) return false;
    uint64_t ui64_utc_lv = PlLocalToFileTime(static_cast<uint64_t>(i64_local_lv));
    *p_out_av = (static_cast<int64_t>(ui64_utc_lv) - static_cast<int64_t>(PL_UNIX_EPOCH_TICKS)) / 10;
    return true;
  }
  char* s_end_lv = nullptr;
  double d_lv = strtod(s_av.c_str(), &s_end_lv);
  if (s_av.empty() || *s_end_lv != 0 || !(d_lv >= 0 && d_lv < 1e11)) return false;
  *p_out_av = static_cast<int64_t>(d_lv * 1e6);
  return true;
}

int CmdExportContainer(const Options& opt_av) {
  std::string s_format_lv = opt_av.Get("--format", "");
  if (s_format_lv != "mp4" && s_format_lv != "mkv") return Usage(HELP_EXPORT, "--format is mp4 or mkv");
  if (opt_av.Get("--out", "-") == "-") return Usage(HELP_EXPORT, "--format needs a file for --out");
  int64_t i64_from_lv = INT64_MIN, i64_to_lv = INT64_MAX;
  if (opt_av.Has("--from") && !ParseExportTime(opt_av.Get("--from", ""), &i64_from_lv))
    return Usage(HELP_EXPORT, "--from: not a time");
  if (opt_av.Has("--to") && !ParseExportTime(opt_av.Get("--to", ""), &i64_to_lv))
    return Usage(HELP_EXPORT, "--to: not a time");
  std::string s_root_lv = opt_av.Get("--root", DefaultRoot()), s_error_lv;
  // FFmpeg's own chatter (the AAC encoder's figures) is not for people;
  // its warnings and errors are.
  av_log_set_level(AV_LOG_WARNING);
  ArcExportReport report_lv;
  if (!ArcExportContainerReport(s_root_lv, opt_av.Get("--camera", ""), i64_from_lv, i64_to_lv, s_format_lv,
                                opt_av.Get("--out", ""), &report_lv, &s_error_lv)) {
    fprintf(stderr, "writer-archive: %s\n", s_error_lv.c_str());
    return EXIT_NO_ARCHIVE;
  }
  if (!report_lv.m_s_note.empty()) fprintf(stderr, "writer-archive: %s\n", report_lv.m_s_note.c_str());
  fprintf(stderr, "writer-archive: %llu video and %llu audio frames exported to %s\n",
          static_cast<unsigned long long>(report_lv.m_ui64_video), static_cast<unsigned long long>(report_lv.m_ui64_audio),
          opt_av.Get("--out", "").c_str());
  return 0;
}

int CmdExport(int argc, char** argv) {
  Options opt_lv = ParseOptions(argc, argv, {"--root", "--camera", "--kind", "--from", "--to", "--out", "--table", "--format"},
                                {"--raw"});
  if (opt_lv.m_b_help) return printf("%s", HELP_EXPORT), 0;
  if (!opt_lv.m_s_error.empty()) return Usage(HELP_EXPORT, opt_lv.m_s_error);
  if (!opt_lv.Has("--camera") || !opt_lv.Has("--out")) return Usage(HELP_EXPORT, "--camera and --out are needed");
  if (opt_lv.Has("--format")) return CmdExportContainer(opt_lv);
  std::string s_kind_lv = opt_lv.Get("--kind", "video");
  std::string s_table_lv = opt_lv.Get("--table", "");
  if (s_kind_lv != "video" && s_kind_lv != "audio") return Usage(HELP_EXPORT, "--kind is video or audio");
  if (!s_table_lv.empty() && s_table_lv != "csv" && s_table_lv != "json")
    return Usage(HELP_EXPORT, "--table is csv or json");
  int64_t i64_from_lv = 0, i64_to_lv = INT64_MAX;
  if (opt_lv.Has("--from") && !ParseTimeArg(opt_lv.Get("--from", ""), &i64_from_lv))
    return Usage(HELP_EXPORT, "--from: not a time");
  if (opt_lv.Has("--to") && !ParseTimeArg(opt_lv.Get("--to", ""), &i64_to_lv))
    return Usage(HELP_EXPORT, "--to: not a time");
  std::vector<StreamRef> streams_lv;
  if (!LoadStreams(opt_lv, &streams_lv)) return EXIT_NO_ARCHIVE;
  const StreamRef* p_stream_lv = nullptr;
  for (const StreamRef& stream_lv : streams_lv)
    if (stream_lv.m_s_camera == opt_lv.Get("--camera", "") && stream_lv.m_s_kind == s_kind_lv) p_stream_lv = &stream_lv;
  if (p_stream_lv == nullptr) {
    fprintf(stderr, "writer-archive: no %s of camera %s (see list)\n", s_kind_lv.c_str(),
            opt_lv.Get("--camera", "").c_str());
    return EXIT_NO_ARCHIVE;
  }
  ExportSink sink_lv;
  sink_lv.m_s_table_form = s_table_lv;
  sink_lv.m_b_raw = opt_lv.Has("--raw");
  std::string s_error_lv;
  if (!ReadFrames(*p_stream_lv, i64_from_lv, i64_to_lv,
                  [&sink_lv](const IndexEntry& entry_av, uint32_t, const uint8_t* pb_av) { sink_lv.Frame(entry_av, pb_av); },
                  &s_error_lv)) {
    fprintf(stderr, "writer-archive: %s\n", s_error_lv.c_str());
    return EXIT_NO_ARCHIVE;
  }
  sink_lv.Finish();
  if (!WriteOut(opt_lv.Get("--out", "-"), sink_lv.m_s_out)) {
    fprintf(stderr, "writer-archive: cannot write %s\n", opt_lv.Get("--out", "-").c_str());
    return 1;
  }
  fprintf(stderr, "writer-archive: %llu frames exported%s\n", static_cast<unsigned long long>(sink_lv.m_ui64_frames),
          sink_lv.m_ui64_bad > 0 ? ", some frame blocks unreadable (see verify)" : "");
  return sink_lv.m_ui64_frames > 0 ? 0 : 1;
}

int CmdVerify(int argc, char** argv) {
  Options opt_lv = ParseOptions(argc, argv, {"--root", "--camera", "--kind"}, {"--repair"});
  if (opt_lv.m_b_help) return printf("%s", HELP_VERIFY), 0;
  if (!opt_lv.m_s_error.empty()) return Usage(HELP_VERIFY, opt_lv.m_s_error);
  std::vector<StreamRef> streams_lv;
  if (!LoadStreams(opt_lv, &streams_lv)) return EXIT_NO_ARCHIVE;
  int i_errors_lv = 0, i_checked_lv = 0;
  for (const StreamRef& stream_lv : streams_lv) {
    if (opt_lv.Has("--camera") && stream_lv.m_s_camera != opt_lv.Get("--camera", "")) continue;
    if (opt_lv.Has("--kind") && stream_lv.m_s_kind != opt_lv.Get("--kind", "")) continue;
    VerifyReport report_lv = VerifyStream(stream_lv, opt_lv.Has("--repair"));
    i_checked_lv++;
    i_errors_lv += report_lv.m_i_errors;
    printf("%s %s: %llu frames, %d errors, %d warnings\n", stream_lv.m_s_camera.c_str(), stream_lv.m_s_kind.c_str(),
           static_cast<unsigned long long>(report_lv.m_ui64_frames), report_lv.m_i_errors, report_lv.m_i_warnings);
    for (const std::string& s_line_lv : report_lv.m_lines) printf("  %s\n", s_line_lv.c_str());
  }
  if (i_checked_lv == 0) {
    fprintf(stderr, "writer-archive: no stream matches\n");
    return EXIT_NO_ARCHIVE;
  }
  printf("%s\n", i_errors_lv == 0 ? "archive OK" : "archive DAMAGED");
  return i_errors_lv == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "help") == 0 || strcmp(argv[1], "-h") == 0) {
    printf("%s", HELP_MAIN);
    return argc < 2 ? EXIT_BAD_USAGE : 0;
  }
  std::string s_cmd_lv = argv[1];
  if (s_cmd_lv == "list") return CmdList(argc, argv);
  if (s_cmd_lv == "export") return CmdExport(argc, argv);
  if (s_cmd_lv == "verify") return CmdVerify(argc, argv);
  return Usage(HELP_MAIN, "unknown command " + s_cmd_lv);
}
