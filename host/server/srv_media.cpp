// Frames of the synthetic camera and of H.264 files (see srv_media.h).
// Called on a source's thread, one frame at a time.
#include "host/server/srv_media.h"

#include <cmath>

uint32_t SrvFcc(const char* s_av) {
  uint32_t ui_lv = 0;
  for (int i_lv = 0; i_lv < 4 && s_av[i_lv] != 0; i_lv++)
    ui_lv |= static_cast<uint32_t>(static_cast<uint8_t>(s_av[i_lv])) << (8 * i_lv);
  return ui_lv;
}

uint8_t SrvALaw(int16_t i_sample_av) {
  int i_lv = i_sample_av >> 3;  // 13-bit magnitude
  uint8_t ui_sign_lv = 0x80;
  if (i_lv < 0) {
    ui_sign_lv = 0;
    i_lv = -i_lv - 1;
  }
  int i_seg_lv = 0;
  for (int i_top_lv = 0x1F; i_lv > i_top_lv && i_seg_lv < 8; i_top_lv = (i_top_lv << 1) | 1) i_seg_lv++;
  uint8_t ui_lv;
  if (i_seg_lv >= 8)
    ui_lv = 0x7F;
  else
    ui_lv = static_cast<uint8_t>((i_seg_lv << 4) | ((i_seg_lv < 2 ? i_lv >> 1 : i_lv >> i_seg_lv) & 0x0F));
  return static_cast<uint8_t>((ui_lv | ui_sign_lv) ^ 0x55);
}

namespace {

void PutU32(std::vector<uint8_t>* p_av, size_t ui_at_av, uint32_t ui_av) {
  for (int i_lv = 0; i_lv < 4; i_lv++) (*p_av)[ui_at_av + i_lv] = static_cast<uint8_t>(ui_av >> (8 * i_lv));
}

int64_t KeyEvery(const SrvSynthetic& s_av) {
  int64_t i64_lv = std::llround(s_av.m_d_fps * s_av.m_cfg.m_i_key_interval_ms / 1000.0);
  return i64_lv < 1 ? 1 : i64_lv;
}

void NextVideo(SrvSynthetic* p_av, SrvMediaFrame* p_out_av) {
  int64_t i64_n_lv = p_av->m_i64_video_n++;
  bool b_key_lv = i64_n_lv % KeyEvery(*p_av) == 0;
  uint32_t ui_size_lv = static_cast<uint32_t>(p_av->m_cfg.m_i_frame_bytes) * (b_key_lv ? 4 : 1);
  SrvSyntheticVideoBytes(p_av->m_ui_seed, i64_n_lv, ui_size_lv, &p_av->m_video);
  p_out_av->m_pb_data = p_av->m_video.data();
  p_out_av->m_ui_size = ui_size_lv;
  // A key frame brings the stream's set-up, as a real camera's would.
  p_out_av->m_pb_extra = b_key_lv ? p_av->m_extra.data() : nullptr;
  p_out_av->m_ui_extra_size = b_key_lv ? static_cast<uint32_t>(p_av->m_extra.size()) : 0;
  p_out_av->m_i_key = b_key_lv ? 1 : 0;
  p_out_av->m_i_width = p_av->m_cfg.m_i_width;
  p_out_av->m_i_height = p_av->m_cfg.m_i_height;
  p_out_av->m_ui_fcc = SrvFcc("KMM2");
  p_out_av->m_s_type = "video";
  p_out_av->m_i64_index = i64_n_lv;
  p_out_av->m_i64_offset_us = std::llround(i64_n_lv * 1e6 / p_av->m_d_fps);
}

// A steady 440 Hz tone at 8 kHz repeats every 200 samples (440 / 8000 is
// 11 / 200): one period of it in A-law, made once, instead of a sine and a
// conversion per sample of every audio frame.
const size_t TONE_PERIOD = 200;
struct ToneTable {
  uint8_t m_ui_sample[TONE_PERIOD];
  ToneTable() {
    for (size_t ui_lv = 0; ui_lv < TONE_PERIOD; ui_lv++)
      m_ui_sample[ui_lv] = SrvALaw(static_cast<int16_t>(8000.0 * std::sin(2.0 * M_PI * 11.0 * ui_lv / 200.0)));
  }
};
const ToneTable g_tone;

void NextAudio(SrvSynthetic* p_av, SrvMediaFrame* p_out_av) {
  int64_t i64_n_lv = p_av->m_i64_audio_n++;
  size_t ui_samples_lv = static_cast<size_t>(8 * p_av->m_cfg.m_i_audio_frame_ms);
  p_av->m_audio.resize(ui_samples_lv);
  // Continuous from frame to frame.
  size_t ui_phase_lv = static_cast<size_t>(static_cast<uint64_t>(i64_n_lv) * ui_samples_lv % TONE_PERIOD);
  uint8_t* pb_lv = p_av->m_audio.data();
  for (size_t ui_lv = 0; ui_lv < ui_samples_lv; ui_lv++) {
    pb_lv[ui_lv] = g_tone.m_ui_sample[ui_phase_lv];
    if (++ui_phase_lv == TONE_PERIOD) ui_phase_lv = 0;
  }
  *p_out_av = SrvMediaFrame();
  p_out_av->m_pb_data = p_av->m_audio.data();
  p_out_av->m_ui_size = static_cast<uint32_t>(ui_samples_lv);
  p_out_av->m_ui_fcc = SrvFcc("PCMA");
  p_out_av->m_s_type = "audio";
  p_out_av->m_i64_index = i64_n_lv;
  p_out_av->m_i64_offset_us = i64_n_lv * p_av->m_cfg.m_i_audio_frame_ms * 1000;
}

}  // namespace

void SrvSyntheticVideoBytes(uint32_t ui_seed_av, int64_t i64_n_av, uint32_t ui_size_av, std::vector<uint8_t>* p_out_av) {
  p_out_av->resize(ui_size_av);
  // Through a plain pointer: a store through the vector's operator[] may
  // alias its own data pointer, which keeps the compiler from vectorising.
  uint8_t* pb_lv = p_out_av->data();
  uint32_t ui_add_lv = static_cast<uint32_t>(i64_n_av) * 7u + ui_seed_av;
  for (uint32_t ui_lv = 16; ui_lv < ui_size_av; ui_lv++) pb_lv[ui_lv] = static_cast<uint8_t>(ui_lv * 131u + ui_add_lv);
  (*p_out_av)[0] = 'S';
  (*p_out_av)[1] = 'Y';
  (*p_out_av)[2] = 'N';
  (*p_out_av)[3] = 'V';
  PutU32(p_out_av, 4, ui_seed_av);
  PutU32(p_out_av, 8, static_cast<uint32_t>(i64_n_av));
  PutU32(p_out_av, 12, ui_size_av);
}

void SrvSyntheticInit(SrvSynthetic* p_av, const SrvSourceConfig& cfg_av, uint32_t ui_seed_av) {
  p_av->m_cfg = cfg_av;
  p_av->m_ui_seed = ui_seed_av;
  p_av->m_d_fps = cfg_av.m_d_fps > 0 ? cfg_av.m_d_fps : 25;
  p_av->m_extra.assign(16, 0);
  p_av->m_extra[0] = 'S';
  p_av->m_extra[1] = 'Y';
  p_av->m_extra[2] = 'N';
  p_av->m_extra[3] = 'X';
  PutU32(&p_av->m_extra, 4, ui_seed_av);
  PutU32(&p_av->m_extra, 8, static_cast<uint32_t>(cfg_av.m_i_width));
  PutU32(&p_av->m_extra, 12, static_cast<uint32_t>(cfg_av.m_i_height));
}

void SrvSyntheticNext(SrvSynthetic* p_av, SrvMediaFrame* p_out_av) {
  bool b_video_lv = p_av->m_cfg.m_b_video;
  if (b_video_lv && p_av->m_cfg.m_b_audio) {
    double d_video_us_lv = p_av->m_i64_video_n * 1e6 / p_av->m_d_fps;
    double d_audio_us_lv = static_cast<double>(p_av->m_i64_audio_n) * p_av->m_cfg.m_i_audio_frame_ms * 1000.0;
    b_video_lv = d_video_us_lv <= d_audio_us_lv;
  }
  if (b_video_lv)
    NextVideo(p_av, p_out_av);
  else
    NextAudio(p_av, p_out_av);
}
