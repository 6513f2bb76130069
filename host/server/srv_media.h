// The media a source sends: frames of a synthetic camera (deterministic
// content, so that tests can check bytes) or the access units of an H.264
// file, each with its time offset from the start of the stream. Used by
// srv_source, one producer per source thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/server/srv_config.h"
#include "host/server/srv_h264.h"

struct SrvMediaFrame {
  const uint8_t* m_pb_data = nullptr;
  uint32_t m_ui_size = 0;
  const uint8_t* m_pb_extra = nullptr;
  uint32_t m_ui_extra_size = 0;
  int32_t m_i_key = 0;
  int32_t m_i_width = 0;
  int32_t m_i_height = 0;
  uint32_t m_ui_fcc = 0;
  const char* m_s_type = "video";
  int64_t m_i64_index = 0;       // per medium, from 0
  int64_t m_i64_offset_us = 0;   // from the start of the stream
};

// Four-character code, first character in the low byte.
uint32_t SrvFcc(const char* s_av);
// One 16-bit sample to G.711 A-law.
uint8_t SrvALaw(int16_t i_sample_av);

// Synthetic camera: video at a rate with a key frame every interval, and
// PCMA audio beside it, in time order. Frame n of a camera always has the
// same bytes.
struct SrvSynthetic {
  SrvSourceConfig m_cfg;
  uint32_t m_ui_seed = 0;
  double m_d_fps = 25;
  int64_t m_i64_video_n = 0;
  int64_t m_i64_audio_n = 0;
  std::vector<uint8_t> m_video;
  std::vector<uint8_t> m_extra;
  std::vector<uint8_t> m_audio;
};
void SrvSyntheticInit(SrvSynthetic* p_av, const SrvSourceConfig& cfg_av, uint32_t ui_seed_av);
// The next frame in time order; its buffers stay valid until the next call.
void SrvSyntheticNext(SrvSynthetic* p_av, SrvMediaFrame* p_out_av);
// The bytes of synthetic video frame n, as SrvSyntheticNext gives them.
void SrvSyntheticVideoBytes(uint32_t ui_seed_av, int64_t i64_n_av, uint32_t ui_size_av, std::vector<uint8_t>* p_out_av);

// An H.264 Annex-B file as access units at the file's frame rate.
struct SrvH264File {
  std::vector<uint8_t> m_bytes;
  std::vector<SrvAccessUnit> m_units;
  SrvSpsInfo m_sps;
  double m_d_fps = 25;
  bool m_b_loop = false;
  size_t m_ui_next = 0;
  int64_t m_i64_n = 0;  // frames given, across loops
};
// Reads and cuts the file. False with a message.
bool SrvH264FileOpen(SrvH264File* p_av, const SrvSourceConfig& cfg_av, bool b_loop_av, std::string* p_error_av);
// The next access unit; false at the end of a file that does not loop.
bool SrvH264FileNext(SrvH264File* p_av, SrvMediaFrame* p_out_av);
