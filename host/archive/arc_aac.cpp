// G.711 to AAC for the container export (see arc_aac.h), on libavcodec's
// pcm_alaw/pcm_mulaw decoders, libswresample and FFmpeg's own AAC encoder.
#include "host/archive/arc_aac.h"

#include <algorithm>
#include <climits>
#include <cstring>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
#include <libswresample/swresample.h>
}

namespace {

std::string AvText(int i_rc_av) {
  char s_lv[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(i_rc_av, s_lv, sizeof(s_lv));
  return s_lv;
}

bool Fail(std::string* p_error_av, const std::string& s_what_av, int i_rc_av) {
  *p_error_av = s_what_av + ": " + AvText(i_rc_av);
  return false;
}

}  // namespace

ArcAacEncoder::~ArcAacEncoder() {
  avcodec_free_context(&m_p_dec);
  avcodec_free_context(&m_p_enc);
  swr_free(&m_p_swr);
  if (m_p_fifo != nullptr) av_audio_fifo_free(m_p_fifo);
  av_frame_free(&m_p_decoded);
  av_frame_free(&m_p_converted);
  av_packet_free(&m_p_pkt);
}

bool ArcAacEncoder::Open(AVCodecID codec_av, int i_rate_av, int i_channels_av, bool b_global_header_av,
                         std::string* p_error_av) {
  const AVCodec* p_decoder_lv = avcodec_find_decoder(codec_av);
  const AVCodec* p_encoder_lv = avcodec_find_encoder_by_name("aac");
  if (p_decoder_lv == nullptr || p_encoder_lv == nullptr)
    return *p_error_av = std::string("no ") + (p_decoder_lv == nullptr ? avcodec_get_name(codec_av) : "aac") +
                         " codec in this FFmpeg",
           false;
  m_i_rate = i_rate_av;
  m_p_dec = avcodec_alloc_context3(p_decoder_lv);
  m_p_dec->sample_rate = i_rate_av;
  av_channel_layout_default(&m_p_dec->ch_layout, i_channels_av);
  int i_rc_lv = avcodec_open2(m_p_dec, p_decoder_lv, nullptr);
  if (i_rc_lv < 0) return Fail(p_error_av, std::string("cannot open the ") + p_decoder_lv->name + " decoder", i_rc_lv);

  m_p_enc = avcodec_alloc_context3(p_encoder_lv);
  m_p_enc->sample_fmt = AV_SAMPLE_FMT_FLTP;  // the only one the AAC encoder takes
  m_p_enc->sample_rate = i_rate_av;
  av_channel_layout_default(&m_p_enc->ch_layout, i_channels_av);
  // About 4 bits a sample: 32 kbit/s for a camera's 8 kHz mono, well under
  // what AAC can carry at that rate.
  m_p_enc->bit_rate = 4LL * i_rate_av * i_channels_av;
  m_p_enc->time_base = AVRational{1, i_rate_av};
  if (b_global_header_av) m_p_enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  i_rc_lv = avcodec_open2(m_p_enc, p_encoder_lv, nullptr);
  if (i_rc_lv < 0) return Fail(p_error_av, "cannot open the AAC encoder", i_rc_lv);

  i_rc_lv = swr_alloc_set_opts2(&m_p_swr, &m_p_enc->ch_layout, m_p_enc->sample_fmt, i_rate_av, &m_p_dec->ch_layout,
                                m_p_dec->sample_fmt, i_rate_av, 0, nullptr);
  if (i_rc_lv >= 0) i_rc_lv = swr_init(m_p_swr);
  if (i_rc_lv < 0) return Fail(p_error_av, "cannot set up the sample conversion", i_rc_lv);
  m_p_fifo = av_audio_fifo_alloc(m_p_enc->sample_fmt, i_channels_av, m_p_enc->frame_size);
  m_p_decoded = av_frame_alloc();
  m_p_converted = av_frame_alloc();
  m_p_pkt = av_packet_alloc();
  if (m_p_fifo == nullptr || m_p_decoded == nullptr || m_p_converted == nullptr || m_p_pkt == nullptr)
    return *p_error_av = "out of memory for the AAC encoder", false;
  ShapeConverted();
  return true;
}

// swr_convert_frame() takes its output's shape from the frame, which an
// unref clears.
void ArcAacEncoder::ShapeConverted() {
  m_p_converted->format = m_p_enc->sample_fmt;
  m_p_converted->sample_rate = m_i_rate;
  av_channel_layout_copy(&m_p_converted->ch_layout, &m_p_enc->ch_layout);
}

bool ArcAacEncoder::CopyParameters(AVCodecParameters* p_par_av) const {
  return m_p_enc != nullptr && avcodec_parameters_from_context(p_par_av, m_p_enc) >= 0;
}

bool ArcAacEncoder::Put(const uint8_t* pb_data_av, size_t ui_size_av, int64_t i64_pos_av, const PacketFn& fn_av,
                        std::string* p_error_av) {
  if (ui_size_av == 0) return true;  // an empty frame has no samples to place
  if (ui_size_av > static_cast<size_t>(INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE))
    return *p_error_av = "an audio frame too large to decode", false;
  if (!Decode(pb_data_av, ui_size_av, p_error_av)) return false;
  int i_rc_lv = swr_convert_frame(m_p_swr, m_p_converted, m_p_decoded);
  if (i_rc_lv < 0) return Fail(p_error_av, "cannot convert audio samples", i_rc_lv);
  int i_samples_lv = m_p_converted->nb_samples;
  bool b_ok_lv = StartRunAt(i64_pos_av, i_samples_lv, fn_av, p_error_av);
  if (b_ok_lv && av_audio_fifo_write(m_p_fifo, reinterpret_cast<void**>(m_p_converted->extended_data), i_samples_lv) <
                     i_samples_lv)
    b_ok_lv = false, *p_error_av = "out of memory for audio samples";
  av_frame_unref(m_p_decoded);
  av_frame_unref(m_p_converted);
  ShapeConverted();
  return b_ok_lv && EncodeFrames(false, fn_av, p_error_av);
}

// A G.711 frame decodes to exactly one frame of samples.
bool ArcAacEncoder::Decode(const uint8_t* pb_data_av, size_t ui_size_av, std::string* p_error_av) {
  int i_rc_lv = av_new_packet(m_p_pkt, static_cast<int>(ui_size_av));
  if (i_rc_lv < 0) return Fail(p_error_av, "cannot hold an audio frame", i_rc_lv);
  memcpy(m_p_pkt->data, pb_data_av, ui_size_av);
  i_rc_lv = avcodec_send_packet(m_p_dec, m_p_pkt);
  av_packet_unref(m_p_pkt);
  if (i_rc_lv >= 0) i_rc_lv = avcodec_receive_frame(m_p_dec, m_p_decoded);
  if (i_rc_lv < 0) return Fail(p_error_av, "cannot decode a stored audio frame", i_rc_lv);
  return true;
}

// Where the samples of a frame go: on after the ones before, unless its
// time lies more than its own length ahead of them. Then the encoder frame
// begun is filled with silence up to that time (at most to its end), and
// the rest of the pause is left out: the next samples start at the frame's
// own time.
bool ArcAacEncoder::StartRunAt(int64_t i64_pos_av, int i_samples_av, const PacketFn& fn_av, std::string* p_error_av) {
  if (!m_b_run) {
    m_b_run = true;
    m_i64_fifo_pts = i64_pos_av;
    return true;
  }
  int i_queued_lv = av_audio_fifo_size(m_p_fifo);
  int64_t i64_gap_lv = i64_pos_av - (m_i64_fifo_pts + i_queued_lv);
  if (i64_gap_lv <= i_samples_av) return true;
  int i_fill_lv = i_queued_lv > 0 ? static_cast<int>(std::min<int64_t>(m_p_enc->frame_size - i_queued_lv, i64_gap_lv)) : 0;
  if (i_fill_lv > 0) {
    uint8_t** ppb_silence_lv = nullptr;
    int i_rc_lv = av_samples_alloc_array_and_samples(&ppb_silence_lv, nullptr, m_p_enc->ch_layout.nb_channels, i_fill_lv,
                                                     m_p_enc->sample_fmt, 0);
    if (i_rc_lv < 0) return Fail(p_error_av, "cannot hold silence", i_rc_lv);
    av_samples_set_silence(ppb_silence_lv, 0, i_fill_lv, m_p_enc->ch_layout.nb_channels, m_p_enc->sample_fmt);
    i_rc_lv = av_audio_fifo_write(m_p_fifo, reinterpret_cast<void**>(ppb_silence_lv), i_fill_lv);
    av_freep(&ppb_silence_lv[0]);
    av_freep(&ppb_silence_lv);
    if (i_rc_lv < i_fill_lv) return *p_error_av = "out of memory for audio samples", false;
    if (!EncodeFrames(false, fn_av, p_error_av)) return false;
  }
  if (av_audio_fifo_size(m_p_fifo) == 0) m_i64_fifo_pts = i64_pos_av;
  return true;
}

// Encodes whole encoder frames from the fifo; with b_all_av also the short
// last one.
bool ArcAacEncoder::EncodeFrames(bool b_all_av, const PacketFn& fn_av, std::string* p_error_av) {
  while (av_audio_fifo_size(m_p_fifo) >= m_p_enc->frame_size || (b_all_av && av_audio_fifo_size(m_p_fifo) > 0)) {
    int i_samples_lv = std::min(av_audio_fifo_size(m_p_fifo), m_p_enc->frame_size);
    AVFrame* p_frame_lv = av_frame_alloc();
    if (p_frame_lv == nullptr) return *p_error_av = "out of memory for an audio frame", false;
    p_frame_lv->nb_samples = i_samples_lv;
    p_frame_lv->format = m_p_enc->sample_fmt;
    p_frame_lv->sample_rate = m_i_rate;
    av_channel_layout_copy(&p_frame_lv->ch_layout, &m_p_enc->ch_layout);
    int i_rc_lv = av_frame_get_buffer(p_frame_lv, 0);
    if (i_rc_lv >= 0 &&
        av_audio_fifo_read(m_p_fifo, reinterpret_cast<void**>(p_frame_lv->extended_data), i_samples_lv) < i_samples_lv)
      i_rc_lv = AVERROR_BUG;
    p_frame_lv->pts = m_i64_fifo_pts;
    m_i64_fifo_pts += i_samples_lv;
    if (i_rc_lv >= 0) i_rc_lv = avcodec_send_frame(m_p_enc, p_frame_lv);
    av_frame_free(&p_frame_lv);
    if (i_rc_lv < 0) return Fail(p_error_av, "cannot encode audio", i_rc_lv);
    if (!Drain(fn_av, p_error_av)) return false;
  }
  return true;
}

bool ArcAacEncoder::Drain(const PacketFn& fn_av, std::string* p_error_av) {
  for (;;) {
    int i_rc_lv = avcodec_receive_packet(m_p_enc, m_p_pkt);
    if (i_rc_lv == AVERROR(EAGAIN) || i_rc_lv == AVERROR_EOF) return true;
    if (i_rc_lv < 0) return Fail(p_error_av, "cannot encode audio", i_rc_lv);
    bool b_ok_lv = fn_av(m_p_pkt);
    av_packet_unref(m_p_pkt);
    if (!b_ok_lv) return *p_error_av = "cannot write an audio frame", false;
  }
}

bool ArcAacEncoder::Finish(const PacketFn& fn_av, std::string* p_error_av) {
  if (m_p_enc == nullptr) return true;
  if (!EncodeFrames(true, fn_av, p_error_av)) return false;
  int i_rc_lv = avcodec_send_frame(m_p_enc, nullptr);
  if (i_rc_lv < 0 && i_rc_lv != AVERROR_EOF) return Fail(p_error_av, "cannot end the audio", i_rc_lv);
  return Drain(fn_av, p_error_av);
}
