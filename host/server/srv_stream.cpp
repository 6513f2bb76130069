// The stream source (see srv_stream.h) on FFmpeg's libavformat: open with a
// deadline watched by the interrupt callback, pick the video and audio
// streams, bring H.264/H.265 into Annex-B form, map timestamps, reconnect.
#include "host/server/srv_stream.h"

#include <cstdio>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

#include "platform/pl_clock.h"

// Everything of one open stream; remade at each reconnection.
struct SrvStreamState {
  AVFormatContext* m_p_fmt = nullptr;
  AVBSFContext* m_p_bsf = nullptr;
  AVPacket* m_p_pkt = nullptr;
  AVPacket* m_p_out = nullptr;     // what the caller holds until the next call
  int m_i_video = -1;
  int m_i_audio = -1;
  uint32_t m_ui_video_fcc = 0;
  uint32_t m_ui_audio_fcc = 0;
  std::vector<uint8_t> m_video_extra;  // parameter sets, Annex-B
  std::vector<uint8_t> m_audio_extra;  // AAC's configuration
  int64_t m_i64_deadline = 0;      // performance counter; the callback ends a wait past it
  // Across sessions.
  bool m_b_ever_open = false;
  int m_i_tries = 0;               // failed opens in a row
  int64_t m_i64_anchor_us = 0;     // wall time of the very first packet
  int64_t m_i64_video_n = 0, m_i64_audio_n = 0;
  SrvStreamClock m_clock;
};

namespace {

int64_t NowUs() { return static_cast<int64_t>((PlFileTimeUtc() - PL_UNIX_EPOCH_TICKS) / 10); }

void SetDeadline(SrvStreamState* p_av, int i_ms_av) {
  p_av->m_i64_deadline = PlPerfCounter() + PlPerfFrequency() * i_ms_av / 1000;
}

int OnInterrupt(void* p_av) {
  SrvStream* p_lv = static_cast<SrvStream*>(p_av);
  return p_lv->m_link.m_p_stop->IsSet() || PlPerfCounter() > p_lv->m_p_state->m_i64_deadline ? 1 : 0;
}

std::string AvError(int i_rc_av) {
  char s_lv[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(i_rc_av, s_lv, sizeof(s_lv));
  return s_lv;
}

void Line(const SrvStream* p_av, const std::string& s_av) {
  printf("writer-host: camera %s: %s\n", p_av->m_link.m_s_camera.c_str(), s_av.c_str());
}

bool IsAnnexB(const uint8_t* pb_av, int i_size_av) {
  return i_size_av >= 4 && pb_av[0] == 0 && pb_av[1] == 0 && (pb_av[2] == 1 || (pb_av[2] == 0 && pb_av[3] == 1));
}

uint32_t AudioFcc(AVCodecID id_av) {
  switch (id_av) {
    case AV_CODEC_ID_PCM_ALAW: return SrvFcc("PCMA");
    case AV_CODEC_ID_PCM_MULAW: return SrvFcc("PCMU");
    case AV_CODEC_ID_AAC: return SrvFcc("mp4a");
    case AV_CODEC_ID_MP3: return SrvFcc("MP3");
    case AV_CODEC_ID_ADPCM_G726: return SrvFcc("G726");
    case AV_CODEC_ID_AC3: return SrvFcc("AC3");
    default: return 0;
  }
}

void CloseState(SrvStreamState* p_av) {
  av_bsf_free(&p_av->m_p_bsf);
  av_packet_free(&p_av->m_p_pkt);
  av_packet_free(&p_av->m_p_out);
  avformat_close_input(&p_av->m_p_fmt);
  p_av->m_i_video = p_av->m_i_audio = -1;
}

// Length-prefixed H.264/H.265 (from MP4 or MKV) becomes Annex-B, as the
// archive stores and exports it; a stream that is Annex-B already passes.
bool SetUpVideo(SrvStream* p_av, AVStream* p_st_av, std::string* p_why_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  AVCodecParameters* p_par_lv = p_st_av->codecpar;
  bool b_hevc_lv = p_par_lv->codec_id == AV_CODEC_ID_HEVC;
  p_lv->m_ui_video_fcc = SrvFcc(b_hevc_lv ? "H265" : "H264");
  const uint8_t* pb_extra_lv = p_par_lv->extradata;
  int i_extra_lv = p_par_lv->extradata_size;
  if (i_extra_lv > 0 && !IsAnnexB(pb_extra_lv, i_extra_lv)) {
    const AVBitStreamFilter* p_filter_lv = av_bsf_get_by_name(b_hevc_lv ? "hevc_mp4toannexb" : "h264_mp4toannexb");
    int i_rc_lv = p_filter_lv == nullptr ? AVERROR_BSF_NOT_FOUND : av_bsf_alloc(p_filter_lv, &p_lv->m_p_bsf);
    if (i_rc_lv >= 0) i_rc_lv = avcodec_parameters_copy(p_lv->m_p_bsf->par_in, p_par_lv);
    if (i_rc_lv >= 0) {
      p_lv->m_p_bsf->time_base_in = p_st_av->time_base;
      i_rc_lv = av_bsf_init(p_lv->m_p_bsf);
    }
    if (i_rc_lv < 0) return *p_why_av = "cannot convert the video to Annex-B: " + AvError(i_rc_lv), false;
    pb_extra_lv = p_lv->m_p_bsf->par_out->extradata;
    i_extra_lv = p_lv->m_p_bsf->par_out->extradata_size;
  }
  if (i_extra_lv > 0 && IsAnnexB(pb_extra_lv, i_extra_lv))
    p_lv->m_video_extra.assign(pb_extra_lv, pb_extra_lv + i_extra_lv);
  else
    p_lv->m_video_extra.clear();
  return true;
}

// Picks the streams; false with the reason when nothing can be recorded.
bool PickStreams(SrvStream* p_av, std::string* p_why_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  p_lv->m_i_video = av_find_best_stream(p_lv->m_p_fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (p_lv->m_i_video < 0) return *p_why_av = "no video stream in it", false;
  AVStream* p_video_lv = p_lv->m_p_fmt->streams[p_lv->m_i_video];
  AVCodecID id_lv = p_video_lv->codecpar->codec_id;
  if (id_lv != AV_CODEC_ID_H264 && id_lv != AV_CODEC_ID_HEVC)
    return *p_why_av = std::string("video codec ") + avcodec_get_name(id_lv) +
                       " cannot be stored (H.264 and H.265 can)",
           false;
  if (!SetUpVideo(p_av, p_video_lv, p_why_av)) return false;
  p_lv->m_i_audio = -1;
  int i_audio_lv = p_av->m_cfg.m_b_audio ? av_find_best_stream(p_lv->m_p_fmt, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) : -1;
  if (i_audio_lv >= 0) {
    AVCodecParameters* p_par_lv = p_lv->m_p_fmt->streams[i_audio_lv]->codecpar;
    p_lv->m_ui_audio_fcc = AudioFcc(p_par_lv->codec_id);
    if (p_lv->m_ui_audio_fcc == 0) {
      if (!p_lv->m_b_ever_open)
        Line(p_av, std::string("audio codec ") + avcodec_get_name(p_par_lv->codec_id) + " is left out; video records");
    } else {
      p_lv->m_i_audio = i_audio_lv;
      p_lv->m_audio_extra.assign(p_par_lv->extradata, p_par_lv->extradata + p_par_lv->extradata_size);
    }
  }
  for (unsigned ui_lv = 0; ui_lv < p_lv->m_p_fmt->nb_streams; ui_lv++)
    if (static_cast<int>(ui_lv) != p_lv->m_i_video && static_cast<int>(ui_lv) != p_lv->m_i_audio)
      p_lv->m_p_fmt->streams[ui_lv]->discard = AVDISCARD_ALL;
  return true;
}

// One try at opening. False with the reason; *p_fatal_av when another try
// cannot help (no video, a codec the archive cannot store).
bool TryOpen(SrvStream* p_av, std::string* p_why_av, bool* p_fatal_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  *p_fatal_av = false;
  p_lv->m_p_fmt = avformat_alloc_context();
  p_lv->m_p_fmt->interrupt_callback.callback = &OnInterrupt;
  p_lv->m_p_fmt->interrupt_callback.opaque = p_av;
  AVDictionary* p_opts_lv = nullptr;
  if (p_av->m_b_live) av_dict_set(&p_opts_lv, "rtsp_transport", p_av->m_cfg.m_b_udp ? "udp" : "tcp", 0);
  SetDeadline(p_lv, p_av->m_cfg.m_i_connect_timeout_ms);
  int i_rc_lv = avformat_open_input(&p_lv->m_p_fmt, p_av->m_cfg.m_s_url.c_str(), nullptr, &p_opts_lv);
  av_dict_free(&p_opts_lv);
  if (i_rc_lv < 0) return *p_why_av = "cannot open " + p_av->m_cfg.m_s_url + ": " + AvError(i_rc_lv), false;
  p_lv->m_p_fmt->max_analyze_duration = 2 * AV_TIME_BASE;
  i_rc_lv = avformat_find_stream_info(p_lv->m_p_fmt, nullptr);
  if (i_rc_lv < 0) return *p_why_av = "cannot read " + p_av->m_cfg.m_s_url + ": " + AvError(i_rc_lv), false;
  if (!PickStreams(p_av, p_why_av)) return *p_fatal_av = true, false;
  p_lv->m_p_pkt = av_packet_alloc();
  p_lv->m_p_out = av_packet_alloc();
  return true;
}

// Waits out a pause; false when told to stop meanwhile.
bool Pause(SrvStream* p_av, int i_ms_av) { return p_av->m_link.m_p_stop->Wait(static_cast<uint32_t>(i_ms_av)) != PL_WAIT_OBJECT_0; }

// Opens the stream, trying again after a growing pause while a live camera
// is not there. False when the source ends.
bool Connect(SrvStream* p_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  while (!p_av->m_link.m_p_stop->IsSet()) {
    std::string s_why_lv;
    bool b_fatal_lv = false;
    if (TryOpen(p_av, &s_why_lv, &b_fatal_lv)) {
      if (p_lv->m_b_ever_open) {
        (*p_av->m_link.m_p_reconnects)++;
        Line(p_av, "stream back after " + std::to_string(p_lv->m_i_tries + 1) + " tries");
      }
      p_lv->m_b_ever_open = true;
      p_lv->m_i_tries = 0;
      p_lv->m_clock.m_b_started = false;
      return true;
    }
    CloseState(p_lv);
    if (p_av->m_link.m_p_stop->IsSet()) return false;
    if (!p_av->m_b_live || b_fatal_lv) {
      Line(p_av, s_why_lv + (p_av->m_b_live ? "; not retried" : ""));
      return false;
    }
    int i_pause_ms_lv = 500;
    for (int i_lv = 0; i_lv < p_lv->m_i_tries && i_pause_ms_lv < p_av->m_cfg.m_i_retry_max_ms; i_lv++) i_pause_ms_lv *= 2;
    if (i_pause_ms_lv > p_av->m_cfg.m_i_retry_max_ms) i_pause_ms_lv = p_av->m_cfg.m_i_retry_max_ms;
    p_lv->m_i_tries++;
    Line(p_av, s_why_lv + "; next try in " + std::to_string(i_pause_ms_lv) + " ms");
    if (!Pause(p_av, i_pause_ms_lv)) return false;
  }
  return false;
}

int64_t ToUs(int64_t i64_ts_av, AVRational tb_av) {
  return av_rescale_q(i64_ts_av, tb_av, AVRational{1, 1000000});
}

void FillFrame(SrvStream* p_av, const AVPacket* p_pkt_av, bool b_video_av, SrvMediaFrame* p_out_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  AVStream* p_st_lv = p_lv->m_p_fmt->streams[p_pkt_av->stream_index];
  *p_out_av = SrvMediaFrame();
  p_out_av->m_pb_data = p_pkt_av->data;
  p_out_av->m_ui_size = static_cast<uint32_t>(p_pkt_av->size);
  p_out_av->m_i_key = (p_pkt_av->flags & AV_PKT_FLAG_KEY) != 0 ? 1 : 0;
  const std::vector<uint8_t>& extra_lv = b_video_av ? p_lv->m_video_extra : p_lv->m_audio_extra;
  if (p_out_av->m_i_key && !extra_lv.empty()) {
    p_out_av->m_pb_extra = extra_lv.data();
    p_out_av->m_ui_extra_size = static_cast<uint32_t>(extra_lv.size());
  }
  p_out_av->m_i_width = b_video_av ? p_st_lv->codecpar->width : 0;
  p_out_av->m_i_height = b_video_av ? p_st_lv->codecpar->height : 0;
  p_out_av->m_ui_fcc = b_video_av ? p_lv->m_ui_video_fcc : p_lv->m_ui_audio_fcc;
  p_out_av->m_s_type = b_video_av ? "video" : "audio";
  p_out_av->m_i64_index = b_video_av ? p_lv->m_i64_video_n++ : p_lv->m_i64_audio_n++;
  // Decode order is the order frames are stored in, so the decode time
  // is what must never fall.
  int64_t i64_ts_lv = p_pkt_av->dts != AV_NOPTS_VALUE ? p_pkt_av->dts : p_pkt_av->pts;
  int64_t i64_dur_us_lv = p_pkt_av->duration > 0 ? ToUs(p_pkt_av->duration, p_st_lv->time_base) : 0;
  if (!p_lv->m_clock.m_b_started) {
    if (p_lv->m_i64_anchor_us == 0) p_lv->m_i64_anchor_us = NowUs();
    SrvStreamClockRestart(&p_lv->m_clock, p_av->m_b_live ? NowUs() - p_lv->m_i64_anchor_us : 0);
  }
  int64_t i64_ts_us_lv = i64_ts_lv == AV_NOPTS_VALUE ? (p_lv->m_clock.m_i64_last_us == INT64_MIN ? 0 : p_lv->m_clock.m_i64_last_us - p_lv->m_clock.m_i64_shift_us)
                                                     : ToUs(i64_ts_lv, p_st_lv->time_base);
  p_out_av->m_i64_offset_us = SrvStreamClockMap(&p_lv->m_clock, b_video_av ? 0 : 1, i64_ts_us_lv, i64_dur_us_lv);
  if (p_av->m_b_live) p_out_av->m_i64_time_us = p_lv->m_i64_anchor_us + p_out_av->m_i64_offset_us;
}

// A read failed: a live stream has dropped and is opened again; a file
// ends, or starts over when it loops. False when the source ends.
bool OnReadEnd(SrvStream* p_av, int i_rc_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  if (p_av->m_link.m_p_stop->IsSet()) return false;
  CloseState(p_lv);
  if (p_av->m_b_live) {
    (*p_av->m_link.m_p_drops)++;
    Line(p_av, "stream dropped (" + (i_rc_av == AVERROR_EXIT ? std::string("no packet within the read time-out") : AvError(i_rc_av)) + "); reconnecting");
    return Connect(p_av);
  }
  if (i_rc_av != AVERROR_EOF) {
    Line(p_av, "cannot read " + p_av->m_cfg.m_s_url + ": " + AvError(i_rc_av) + "; its source ends");
    return false;
  }
  if (!p_av->m_b_loop || p_lv->m_i64_video_n == 0) return false;
  return Connect(p_av);
}

}  // namespace

void SrvStreamClockRestart(SrvStreamClock* p_av, int64_t i64_at_us_av) {
  p_av->m_b_started = false;
  p_av->m_i64_restart_us = i64_at_us_av;
}

namespace {

bool OutOfLine(const SrvStreamClock& c_av, int i_medium_av, int64_t i64_off_av) {
  int64_t i64_medium_lv = c_av.m_i64_last_medium_us[i_medium_av];
  return (i64_medium_lv != INT64_MIN && i64_off_av < i64_medium_lv) || i64_off_av > c_av.m_i64_last_us + SrvStreamClock::JUMP_US;
}

}  // namespace

int64_t SrvStreamClockMap(SrvStreamClock* p_av, int i_medium_av, int64_t i64_ts_us_av, int64_t i64_dur_us_av) {
  // One step: the packet's own duration, else a frame at 25 a second.
  int64_t i64_step_lv = i64_dur_us_av > 0 && i64_dur_us_av < SrvStreamClock::JUMP_US ? i64_dur_us_av : 40000;
  bool b_any_lv = p_av->m_i64_last_us != INT64_MIN;
  // The first packet of a session lands where it is told: a long outage
  // of a live camera is a gap, not a seam.
  bool b_first_lv = !p_av->m_b_started;
  if (b_first_lv) {
    int64_t i64_at_lv = p_av->m_i64_restart_us;
    if (b_any_lv && i64_at_lv < p_av->m_i64_last_us + i64_step_lv) i64_at_lv = p_av->m_i64_last_us + i64_step_lv;
    p_av->m_i64_shift_us = i64_at_lv - i64_ts_us_av;
    for (int i_lv = 0; i_lv < 2; i_lv++) {
      p_av->m_i64_medium_shift_us[i_lv] = p_av->m_i64_shift_us;
      p_av->m_i_medium_epoch[i_lv] = p_av->m_i_epoch;
    }
    p_av->m_b_started = true;
  }
  int64_t i64_off_lv = i64_ts_us_av + p_av->m_i64_medium_shift_us[i_medium_av];
  if (b_any_lv && !b_first_lv && OutOfLine(*p_av, i_medium_av, i64_off_lv)) {
    // Both media of a stream jump together: the second to see a seam takes
    // the first one's shift, so that they stay in step.
    if (p_av->m_i_medium_epoch[i_medium_av] != p_av->m_i_epoch) {
      p_av->m_i64_medium_shift_us[i_medium_av] = p_av->m_i64_shift_us;
      p_av->m_i_medium_epoch[i_medium_av] = p_av->m_i_epoch;
      i64_off_lv = i64_ts_us_av + p_av->m_i64_shift_us;
    }
    if (OutOfLine(*p_av, i_medium_av, i64_off_lv)) {
      int64_t i64_medium_lv = p_av->m_i64_last_medium_us[i_medium_av];
      int64_t i64_from_lv = i64_medium_lv > p_av->m_i64_last_us ? i64_medium_lv : p_av->m_i64_last_us;
      i64_off_lv = i64_from_lv + i64_step_lv;
      p_av->m_i64_shift_us = p_av->m_i64_medium_shift_us[i_medium_av] = i64_off_lv - i64_ts_us_av;
      p_av->m_i_medium_epoch[i_medium_av] = ++p_av->m_i_epoch;
      p_av->m_i64_seams++;
    }
  }
  p_av->m_i64_last_medium_us[i_medium_av] = i64_off_lv;
  if (i64_off_lv > p_av->m_i64_last_us) p_av->m_i64_last_us = i64_off_lv;
  return i64_off_lv;
}

bool SrvStreamIsLive(const std::string& s_url_av) {
  return s_url_av.find("://") != std::string::npos && s_url_av.compare(0, 5, "file:") != 0;
}

bool SrvStreamOpen(SrvStream* p_av, const SrvSourceConfig& cfg_av, const SrvStreamLink& link_av, bool b_loop_av,
                   std::string* p_error_av) {
  if (cfg_av.m_s_url.empty()) return *p_error_av = "a stream source needs a URL", false;
  p_av->m_cfg = cfg_av;
  p_av->m_link = link_av;
  p_av->m_b_live = SrvStreamIsLive(cfg_av.m_s_url);
  p_av->m_b_loop = b_loop_av;
  p_av->m_p_state = new SrvStreamState();
  // FFmpeg's own lines would interleave with ours; its faults come back as
  // codes and are told per camera.
  av_log_set_level(AV_LOG_FATAL);
  avformat_network_init();
  return true;
}

bool SrvStreamNext(SrvStream* p_av, SrvMediaFrame* p_out_av) {
  SrvStreamState* p_lv = p_av->m_p_state;
  if (p_lv == nullptr) return false;
  if (p_lv->m_p_fmt == nullptr && (p_lv->m_b_ever_open || !Connect(p_av))) return false;
  for (;;) {
    if (p_av->m_link.m_p_stop->IsSet()) return false;
    av_packet_unref(p_lv->m_p_out);
    if (p_lv->m_p_bsf != nullptr && av_bsf_receive_packet(p_lv->m_p_bsf, p_lv->m_p_out) == 0) {
      FillFrame(p_av, p_lv->m_p_out, true, p_out_av);
      return true;
    }
    SetDeadline(p_lv, p_av->m_cfg.m_i_read_timeout_ms);
    int i_rc_lv = av_read_frame(p_lv->m_p_fmt, p_lv->m_p_pkt);
    if (i_rc_lv < 0) {
      if (!OnReadEnd(p_av, i_rc_lv)) return false;
      continue;
    }
    int i_index_lv = p_lv->m_p_pkt->stream_index;
    if (i_index_lv == p_lv->m_i_video && p_lv->m_p_bsf != nullptr) {
      if (av_bsf_send_packet(p_lv->m_p_bsf, p_lv->m_p_pkt) < 0) av_packet_unref(p_lv->m_p_pkt);
      continue;
    }
    if ((i_index_lv != p_lv->m_i_video && i_index_lv != p_lv->m_i_audio) || p_lv->m_p_pkt->size <= 0) {
      av_packet_unref(p_lv->m_p_pkt);
      continue;
    }
    av_packet_move_ref(p_lv->m_p_out, p_lv->m_p_pkt);
    FillFrame(p_av, p_lv->m_p_out, i_index_lv == p_lv->m_i_video, p_out_av);
    return true;
  }
}

void SrvStreamClose(SrvStream* p_av) {
  if (p_av->m_p_state == nullptr) return;
  CloseState(p_av->m_p_state);
  delete p_av->m_p_state;
  p_av->m_p_state = nullptr;
}
