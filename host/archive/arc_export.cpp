// The container export (see arc_export.h) on FFmpeg's libavformat. Audio is
// read first (it is small), then the video streams through segment by
// segment, each audio frame written before the first video frame that is
// not older; the muxer interleaves the rest. Each packet is held back until
// the next of its stream is known, so that its duration reaches the next
// one's time and a gap in the recording stays a gap in the file. A-law and
// mu-law audio, which MP4 cannot hold, goes into an MP4 as AAC instead.
#include "host/archive/arc_export.h"

#include <climits>
#include <cstring>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

#include "host/archive/arc_aac.h"
#include "host/archive/arc_reader.h"
#include "platform/pl_clock.h"

using namespace warc;

namespace {

struct AudioFrame {
  int64_t m_i64_ticks;
  std::string m_s_data;
};

// One output stream and the packet it holds back.
struct OutStream {
  AVStream* m_p_st = nullptr;
  bool m_b_held = false;
  int64_t m_i64_held_ticks = 0;
  bool m_b_held_key = false;
  std::string m_s_held;
  int64_t m_i64_last_dur_ticks = 400000;  // a guess until two frames are seen
  uint64_t m_ui64_count = 0;
};

struct Export {
  AVFormatContext* m_p_fmt = nullptr;
  OutStream m_video, m_audio;
  bool m_b_header = false;
  bool m_b_started = false;  // the first key frame was seen
  int64_t m_i64_t0 = 0;      // ticks of the first key frame: the file's time 0
  std::vector<AudioFrame> m_audio_frames;
  size_t m_ui_audio_next = 0;
  AVCodecID m_audio_codec = AV_CODEC_ID_NONE;
  std::string m_s_audio_config;
  std::unique_ptr<ArcAacEncoder> m_p_aac;  // G.711 into a container that cannot hold it
  std::string m_s_error;
};

// Microseconds since 1970 UTC to the archive's local ticks.
int64_t ToTicks(int64_t i64_us_av, int64_t i64_open_av) {
  if (i64_us_av == INT64_MIN || i64_us_av == INT64_MAX) return i64_open_av;
  int64_t i64_utc_lv = i64_us_av * 10 + static_cast<int64_t>(PL_UNIX_EPOCH_TICKS);
  if (i64_utc_lv < 0) return 0;
  return static_cast<int64_t>(PlFileTimeToLocal(static_cast<uint64_t>(i64_utc_lv)));
}

std::string AvError(int i_rc_av) {
  char s_lv[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(i_rc_av, s_lv, sizeof(s_lv));
  return s_lv;
}

bool IsHevc(const char* s_fcc_av) {
  return strcmp(s_fcc_av, "H265") == 0 || strcmp(s_fcc_av, "HEVC") == 0 || strcmp(s_fcc_av, "hvc1") == 0 ||
         strcmp(s_fcc_av, "hev1") == 0;
}

AVCodecID AudioCodec(const char* s_fcc_av) {
  if (strcmp(s_fcc_av, "PCMA") == 0 || strcmp(s_fcc_av, "pcma") == 0 || strcmp(s_fcc_av, "alaw") == 0)
    return AV_CODEC_ID_PCM_ALAW;
  if (strcmp(s_fcc_av, "PCMU") == 0 || strcmp(s_fcc_av, "pcmu") == 0 || strcmp(s_fcc_av, "mlaw") == 0)
    return AV_CODEC_ID_PCM_MULAW;
  if (strcmp(s_fcc_av, "mp4a") == 0) return AV_CODEC_ID_AAC;
  return AV_CODEC_ID_NONE;
}

// The parameter-set units of an Annex-B span (SPS and PPS, or VPS, SPS and
// PPS), with their start codes: what a container keeps as the codec's set-up.
std::string ParameterSets(const std::string& s_annexb_av, bool b_hevc_av) {
  std::string s_out_lv;
  const uint8_t* pb_lv = reinterpret_cast<const uint8_t*>(s_annexb_av.data());
  size_t ui_size_lv = s_annexb_av.size();
  std::vector<size_t> starts_lv;
  for (size_t ui_lv = 0; ui_lv + 3 <= ui_size_lv; ui_lv++)
    if (pb_lv[ui_lv] == 0 && pb_lv[ui_lv + 1] == 0 && pb_lv[ui_lv + 2] == 1) starts_lv.push_back(ui_lv + 3);
  for (size_t ui_i_lv = 0; ui_i_lv < starts_lv.size(); ui_i_lv++) {
    size_t ui_begin_lv = starts_lv[ui_i_lv];
    size_t ui_end_lv = ui_i_lv + 1 < starts_lv.size() ? starts_lv[ui_i_lv + 1] - 3 : ui_size_lv;
    while (ui_end_lv > ui_begin_lv && pb_lv[ui_end_lv - 1] == 0) ui_end_lv--;
    if (ui_begin_lv >= ui_end_lv) continue;
    int i_type_lv = b_hevc_av ? (pb_lv[ui_begin_lv] >> 1) & 0x3F : pb_lv[ui_begin_lv] & 0x1F;
    bool b_set_lv = b_hevc_av ? (i_type_lv >= 32 && i_type_lv <= 34) : (i_type_lv == 7 || i_type_lv == 8);
    if (!b_set_lv) continue;
    s_out_lv.append("\0\0\0\1", 4);
    s_out_lv.append(s_annexb_av, ui_begin_lv, ui_end_lv - ui_begin_lv);
  }
  return s_out_lv;
}

void SetExtradata(AVCodecParameters* p_par_av, const std::string& s_av) {
  if (s_av.empty()) return;
  p_par_av->extradata = static_cast<uint8_t*>(av_mallocz(s_av.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  memcpy(p_par_av->extradata, s_av.data(), s_av.size());
  p_par_av->extradata_size = static_cast<int>(s_av.size());
}

// AAC's configuration: sample rate index and channels.
void AacRate(const std::string& s_config_av, int* p_rate_av, int* p_channels_av) {
  static const int RATES[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
  if (s_config_av.size() < 2) return;
  int i_index_lv = ((s_config_av[0] & 0x07) << 1) | ((static_cast<uint8_t>(s_config_av[1]) >> 7) & 1);
  if (i_index_lv < 13) *p_rate_av = RATES[i_index_lv];
  *p_channels_av = (s_config_av[1] >> 3) & 0x0F;
}

bool IsG711(AVCodecID codec_av) { return codec_av == AV_CODEC_ID_PCM_ALAW || codec_av == AV_CODEC_ID_PCM_MULAW; }

// G.711 audio as AAC, so that an MP4 still has the camera's sound.
void AddAacAudio(Export* p_av, std::string* p_note_av) {
  const char* s_codec_lv = avcodec_get_name(p_av->m_audio_codec);
  std::unique_ptr<ArcAacEncoder> p_aac_lv(new ArcAacEncoder());
  std::string s_why_lv;
  bool b_global_lv = (p_av->m_p_fmt->oformat->flags & AVFMT_GLOBALHEADER) != 0;
  AVStream* p_st_lv = nullptr;
  if (p_aac_lv->Open(p_av->m_audio_codec, 8000, 1, b_global_lv, &s_why_lv)) {
    p_st_lv = avformat_new_stream(p_av->m_p_fmt, nullptr);
    if (p_st_lv == nullptr || !p_aac_lv->CopyParameters(p_st_lv->codecpar)) s_why_lv = "no stream for it";
  }
  if (!s_why_lv.empty()) {
    *p_note_av = std::string("audio left out: ") + s_codec_lv + " cannot be re-encoded as AAC: " + s_why_lv;
    return;
  }
  p_st_lv->time_base = AVRational{1, p_aac_lv->Rate()};
  p_av->m_audio.m_p_st = p_st_lv;
  p_av->m_p_aac = std::move(p_aac_lv);
  *p_note_av = std::string(s_codec_lv) + " audio re-encoded as AAC: " + p_av->m_p_fmt->oformat->name +
               " cannot hold it (mkv keeps it as recorded)";
}

void AddAudio(Export* p_av, std::string* p_note_av) {
  if (p_av->m_audio_frames.empty()) return;
  if (p_av->m_audio_codec == AV_CODEC_ID_NONE) {
    *p_note_av = "audio of a codec the container export does not know is left out";
    return;
  }
  // Matroska takes any audio (as a WAVE format when it has no tag of its
  // own); MP4 only what its muxer lists.
  bool b_mp4_lv = strcmp(p_av->m_p_fmt->oformat->name, "mp4") == 0;
  if (b_mp4_lv && IsG711(p_av->m_audio_codec)) return AddAacAudio(p_av, p_note_av);
  if (b_mp4_lv && avformat_query_codec(p_av->m_p_fmt->oformat, p_av->m_audio_codec, FF_COMPLIANCE_NORMAL) != 1) {
    *p_note_av = std::string("audio left out: ") + p_av->m_p_fmt->oformat->name + " cannot hold " +
                 avcodec_get_name(p_av->m_audio_codec) + " (mkv keeps it)";
    return;
  }
  AVStream* p_st_lv = avformat_new_stream(p_av->m_p_fmt, nullptr);
  AVCodecParameters* p_par_lv = p_st_lv->codecpar;
  p_par_lv->codec_type = AVMEDIA_TYPE_AUDIO;
  p_par_lv->codec_id = p_av->m_audio_codec;
  int i_rate_lv = 8000, i_channels_lv = 1;
  if (p_av->m_audio_codec == AV_CODEC_ID_AAC) {
    AacRate(p_av->m_s_audio_config, &i_rate_lv, &i_channels_lv);
    SetExtradata(p_par_lv, p_av->m_s_audio_config);
    p_par_lv->frame_size = 1024;  // what cameras send; MP4's muxer asks for it
  } else {
    p_par_lv->bits_per_coded_sample = 8;
  }
  p_par_lv->sample_rate = i_rate_lv;
  av_channel_layout_default(&p_par_lv->ch_layout, i_channels_lv > 0 ? i_channels_lv : 1);
  p_st_lv->time_base = AVRational{1, i_rate_lv};
  p_av->m_audio.m_p_st = p_st_lv;
}

bool StartFile(Export* p_av, const BlockInfo& info_av, const std::string& s_key_data_av, const std::string& s_out_av,
               std::string* p_note_av) {
  bool b_hevc_lv = IsHevc(info_av.m_s_fcc);
  if (!b_hevc_lv && !BlockIsH264(info_av))
    return p_av->m_s_error = std::string("video codec '") + info_av.m_s_fcc + "' cannot go into a container (H.264 and H.265 can)",
           false;
  std::string s_config_lv;
  const BlockSection* p_extra_lv = info_av.Find(80);
  if (p_extra_lv != nullptr) AppendAnnexB(p_extra_lv->m_pb_data, p_extra_lv->m_ui_len, &s_config_lv, true);
  std::string s_sets_lv = ParameterSets(s_config_lv, b_hevc_lv);
  if (s_sets_lv.empty()) s_sets_lv = ParameterSets(s_key_data_av, b_hevc_lv);
  AVStream* p_st_lv = avformat_new_stream(p_av->m_p_fmt, nullptr);
  AVCodecParameters* p_par_lv = p_st_lv->codecpar;
  p_par_lv->codec_type = AVMEDIA_TYPE_VIDEO;
  p_par_lv->codec_id = b_hevc_lv ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
  p_par_lv->width = info_av.m_ui_width;
  p_par_lv->height = info_av.m_ui_height;
  SetExtradata(p_par_lv, s_sets_lv);
  p_st_lv->time_base = AVRational{1, 90000};
  p_av->m_video.m_p_st = p_st_lv;
  AddAudio(p_av, p_note_av);
  int i_rc_lv = avio_open(&p_av->m_p_fmt->pb, s_out_av.c_str(), AVIO_FLAG_WRITE);
  if (i_rc_lv < 0) return p_av->m_s_error = "cannot write " + s_out_av + ": " + AvError(i_rc_lv), false;
  i_rc_lv = avformat_write_header(p_av->m_p_fmt, nullptr);
  if (i_rc_lv < 0) return p_av->m_s_error = "cannot start the file: " + AvError(i_rc_lv), false;
  p_av->m_b_header = true;
  return true;
}

// Writes the packet a stream held back, lasting until the given time.
bool Flush(Export* p_av, OutStream* p_out_av, int64_t i64_until_av) {
  if (!p_out_av->m_b_held) return true;
  int64_t i64_dur_lv = i64_until_av - p_out_av->m_i64_held_ticks;
  if (i64_dur_lv <= 0) i64_dur_lv = p_out_av->m_i64_last_dur_ticks;
  p_out_av->m_i64_last_dur_ticks = i64_dur_lv;
  AVPacket* p_pkt_lv = av_packet_alloc();
  av_new_packet(p_pkt_lv, static_cast<int>(p_out_av->m_s_held.size()));
  memcpy(p_pkt_lv->data, p_out_av->m_s_held.data(), p_out_av->m_s_held.size());
  AVRational tb_lv = p_out_av->m_p_st->time_base;
  p_pkt_lv->pts = p_pkt_lv->dts = av_rescale_q(p_out_av->m_i64_held_ticks - p_av->m_i64_t0, AVRational{1, 10000000}, tb_lv);
  p_pkt_lv->duration = av_rescale_q(i64_dur_lv, AVRational{1, 10000000}, tb_lv);
  p_pkt_lv->flags = p_out_av->m_b_held_key ? AV_PKT_FLAG_KEY : 0;
  p_pkt_lv->stream_index = p_out_av->m_p_st->index;
  int i_rc_lv = av_interleaved_write_frame(p_av->m_p_fmt, p_pkt_lv);
  av_packet_free(&p_pkt_lv);
  p_out_av->m_b_held = false;
  p_out_av->m_ui64_count++;
  if (i_rc_lv < 0) return p_av->m_s_error = "cannot write a frame: " + AvError(i_rc_lv), false;
  return true;
}

bool Put(Export* p_av, OutStream* p_out_av, int64_t i64_ticks_av, bool b_key_av, std::string* p_data_av) {
  if (p_out_av->m_p_st == nullptr) return true;
  // Times that do not rise would break the container's order: such a
  // frame keeps the previous one's time plus a tick.
  if (p_out_av->m_b_held && i64_ticks_av <= p_out_av->m_i64_held_ticks) i64_ticks_av = p_out_av->m_i64_held_ticks + 1;
  if (!Flush(p_av, p_out_av, i64_ticks_av)) return false;
  p_out_av->m_b_held = true;
  p_out_av->m_i64_held_ticks = i64_ticks_av;
  p_out_av->m_b_held_key = b_key_av;
  p_out_av->m_s_held.swap(*p_data_av);
  return true;
}

bool WriteAac(Export* p_av, AVPacket* p_pkt_av) {
  AVStream* p_st_lv = p_av->m_audio.m_p_st;
  av_packet_rescale_ts(p_pkt_av, AVRational{1, p_av->m_p_aac->Rate()}, p_st_lv->time_base);
  p_pkt_av->stream_index = p_st_lv->index;
  int i_rc_lv = av_interleaved_write_frame(p_av->m_p_fmt, p_pkt_av);
  if (i_rc_lv < 0) return p_av->m_s_error = "cannot write an audio frame: " + AvError(i_rc_lv), false;
  p_av->m_audio.m_ui64_count++;
  return true;
}

// A stored frame's samples go where its time says, counted from the file's
// time 0 at the encoder's rate.
bool PutAac(Export* p_av, const AudioFrame& frame_av) {
  int64_t i64_pos_lv =
      av_rescale_q(frame_av.m_i64_ticks - p_av->m_i64_t0, AVRational{1, 10000000}, AVRational{1, p_av->m_p_aac->Rate()});
  std::string s_why_lv;
  if (p_av->m_p_aac->Put(reinterpret_cast<const uint8_t*>(frame_av.m_s_data.data()), frame_av.m_s_data.size(), i64_pos_lv,
                         [p_av](AVPacket* p_pkt_av) { return WriteAac(p_av, p_pkt_av); }, &s_why_lv))
    return true;
  if (p_av->m_s_error.empty()) p_av->m_s_error = s_why_lv;
  return false;
}

bool FinishAac(Export* p_av) {
  std::string s_why_lv;
  if (p_av->m_p_aac->Finish([p_av](AVPacket* p_pkt_av) { return WriteAac(p_av, p_pkt_av); }, &s_why_lv)) return true;
  if (p_av->m_s_error.empty()) p_av->m_s_error = s_why_lv;
  return false;
}

bool PutAudioUntil(Export* p_av, int64_t i64_ticks_av) {
  while (p_av->m_ui_audio_next < p_av->m_audio_frames.size() &&
         p_av->m_audio_frames[p_av->m_ui_audio_next].m_i64_ticks <= i64_ticks_av) {
    AudioFrame& frame_lv = p_av->m_audio_frames[p_av->m_ui_audio_next++];
    if (frame_lv.m_i64_ticks < p_av->m_i64_t0) continue;
    if (p_av->m_p_aac != nullptr) {
      if (!PutAac(p_av, frame_lv)) return false;
      continue;
    }
    if (!Put(p_av, &p_av->m_audio, frame_lv.m_i64_ticks, true, &frame_lv.m_s_data)) return false;
  }
  return true;
}

void OnVideo(Export* p_av, const IndexEntry& entry_av, const uint8_t* pb_av, const std::string& s_out_av,
             std::string* p_note_av) {
  if (!p_av->m_s_error.empty()) return;
  BlockInfo info_lv;
  std::string s_why_lv;
  if (!ParseFrameBlock(pb_av, entry_av.m_ui_size, &info_lv, &s_why_lv) || info_lv.Find(1) == nullptr) return;
  bool b_key_lv = (entry_av.m_ui_type & TYPE_KEY) != 0;
  if (!p_av->m_b_started && !b_key_lv) return;
  const BlockSection* p_data_lv = info_lv.Find(1);
  std::string s_data_lv;
  AppendAnnexB(p_data_lv->m_pb_data, p_data_lv->m_ui_len, &s_data_lv);
  if (!p_av->m_b_started) {
    p_av->m_b_started = true;
    p_av->m_i64_t0 = entry_av.m_i64_time;
    if (!StartFile(p_av, info_lv, s_data_lv, s_out_av, p_note_av)) return;
  }
  if (PutAudioUntil(p_av, entry_av.m_i64_time)) Put(p_av, &p_av->m_video, entry_av.m_i64_time, b_key_lv, &s_data_lv);
}

// The key frame at or before from, found in the indexes; from itself when
// there is none.
int64_t KeyAtOrBefore(const StreamRef& video_av, int64_t i64_from_av) {
  int64_t i64_key_lv = i64_from_av;
  bool b_found_lv = false;
  for (uint32_t ui_seq_lv : video_av.m_segs) {
    // The segment's head tells which checksums its index carries.
    SegHead head_lv;
    if (!ReadSegHead(video_av.m_s_dir + "/" + SegmentFileName(ui_seq_lv), &head_lv)) continue;
    std::vector<IndexEntry> entries_lv;
    uint64_t ui64_size_lv = 0;
    if (!ReadIndex(video_av.m_s_dir + "/" + IndexFileName(ui_seq_lv), head_lv.m_ui_version, &entries_lv,
                   &ui64_size_lv))
      continue;
    for (const IndexEntry& entry_lv : entries_lv)
      if ((entry_lv.m_ui_type & TYPE_KEY) && entry_lv.m_i64_time <= i64_from_av &&
          (!b_found_lv || entry_lv.m_i64_time > i64_key_lv)) {
        i64_key_lv = entry_lv.m_i64_time;
        b_found_lv = true;
      }
  }
  return i64_key_lv;
}

bool ReadAudio(Export* p_av, const StreamRef& audio_av, int64_t i64_from_av, int64_t i64_to_av, std::string* p_error_av) {
  return ReadFrames(
      audio_av, i64_from_av, i64_to_av,
      [p_av](const IndexEntry& entry_av, uint32_t, const uint8_t* pb_av) {
        BlockInfo info_lv;
        std::string s_why_lv;
        if (!ParseFrameBlock(pb_av, entry_av.m_ui_size, &info_lv, &s_why_lv) || info_lv.Find(1) == nullptr) return;
        if (p_av->m_audio_frames.empty()) p_av->m_audio_codec = AudioCodec(info_lv.m_s_fcc);
        const BlockSection* p_extra_lv = info_lv.Find(80);
        if (p_av->m_s_audio_config.empty() && p_extra_lv != nullptr)
          p_av->m_s_audio_config.assign(reinterpret_cast<const char*>(p_extra_lv->m_pb_data), p_extra_lv->m_ui_len);
        const BlockSection* p_data_lv = info_lv.Find(1);
        p_av->m_audio_frames.push_back(
            AudioFrame{entry_av.m_i64_time, std::string(reinterpret_cast<const char*>(p_data_lv->m_pb_data), p_data_lv->m_ui_len)});
      },
      p_error_av);
}

bool Finish(Export* p_av) {
  if (!p_av->m_b_header) return false;
  if (p_av->m_s_error.empty()) PutAudioUntil(p_av, INT64_MAX);
  if (p_av->m_s_error.empty()) Flush(p_av, &p_av->m_video, 0);
  if (p_av->m_s_error.empty() && p_av->m_p_aac != nullptr) FinishAac(p_av);
  if (p_av->m_s_error.empty() && p_av->m_audio.m_p_st != nullptr) Flush(p_av, &p_av->m_audio, 0);
  int i_rc_lv = av_write_trailer(p_av->m_p_fmt);
  if (i_rc_lv < 0 && p_av->m_s_error.empty()) p_av->m_s_error = "cannot end the file: " + AvError(i_rc_lv);
  return p_av->m_s_error.empty();
}

}  // namespace

bool ArcExportContainerReport(const std::string& root, const std::string& camera, int64_t i64_from_us,
                              int64_t i64_to_us, const std::string& format, const std::string& out_path,
                              ArcExportReport* p_report, std::string* p_error) {
  if (format != "mp4" && format != "mkv") return *p_error = "format is mp4 or mkv, not '" + format + "'", false;
  const StreamRef* p_video_lv = nullptr;
  const StreamRef* p_audio_lv = nullptr;
  std::vector<StreamRef> streams_lv = FindStreams(root);
  for (const StreamRef& stream_lv : streams_lv) {
    // The camera as list shows it, or its own folder name under a storage.
    const std::string& s_name_lv = stream_lv.m_s_camera;
    size_t ui_slash_lv = s_name_lv.rfind('/');
    if (s_name_lv != camera && (ui_slash_lv == std::string::npos || s_name_lv.compare(ui_slash_lv + 1, std::string::npos, camera) != 0))
      continue;
    (stream_lv.m_s_kind == "video" ? p_video_lv : p_audio_lv) = &stream_lv;
  }
  if (p_video_lv == nullptr) return *p_error = "no video of camera " + camera + " under " + root, false;
  int64_t i64_to_lv = ToTicks(i64_to_us, INT64_MAX);
  int64_t i64_from_lv = KeyAtOrBefore(*p_video_lv, ToTicks(i64_from_us, 0));
  Export exp_lv;
  if (p_audio_lv != nullptr && !ReadAudio(&exp_lv, *p_audio_lv, i64_from_lv, i64_to_lv, p_error)) return false;
  int i_rc_lv = avformat_alloc_output_context2(&exp_lv.m_p_fmt, nullptr, format == "mp4" ? "mp4" : "matroska",
                                               out_path.c_str());
  if (i_rc_lv < 0) return *p_error = "cannot make a " + format + " file: " + AvError(i_rc_lv), false;
  ArcExportReport report_lv;
  bool b_read_lv = ReadFrames(
      *p_video_lv, i64_from_lv, i64_to_lv,
      [&](const IndexEntry& entry_av, uint32_t, const uint8_t* pb_av) {
        OnVideo(&exp_lv, entry_av, pb_av, out_path, &report_lv.m_s_note);
      },
      p_error);
  bool b_ok_lv = b_read_lv && Finish(&exp_lv);
  if (b_read_lv && !b_ok_lv)
    *p_error = exp_lv.m_s_error.empty() ? "no key frame of camera " + camera + " in the range" : exp_lv.m_s_error;
  report_lv.m_ui64_video = exp_lv.m_video.m_ui64_count;
  report_lv.m_ui64_audio = exp_lv.m_audio.m_ui64_count;
  if (exp_lv.m_p_fmt->pb != nullptr) avio_closep(&exp_lv.m_p_fmt->pb);
  avformat_free_context(exp_lv.m_p_fmt);
  if (!b_ok_lv) remove(out_path.c_str());
  if (p_report != nullptr) *p_report = report_lv;
  return b_ok_lv;
}

bool ArcExportContainer(const std::string& root, const std::string& camera, int64_t i64_from_us, int64_t i64_to_us,
                        const std::string& format, const std::string& out_path, std::string* p_error) {
  return ArcExportContainerReport(root, camera, i64_from_us, i64_to_us, format, out_path, nullptr, p_error);
}
