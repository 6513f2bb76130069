// The media a source sends: frames of a synthetic camera (deterministic
// content, so that tests can check bytes) or the access units of an H.264
// file, each with its time offset from the start of the stream. Used by
// srv_source, one producer per source thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
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
  // A live source's own wall time for the frame (microseconds since 1970
  // UTC); such a frame goes out when it arrives. 0: start + offset, paced.
  int64_t m_i64_time_us = 0;
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

// An H.264 Annex-B file as access units at the file's frame rate, read in
// pieces as it is sent: memory holds one piece and the unit being cut,
// whatever the file's size.
struct SrvH264File {
  FILE* m_p_file = nullptr;
  std::string m_s_path;
  // Bytes read and not yet given, from m_ui_pos to m_ui_size. Left
  // uninitialised where nothing was read: zeroing each piece before reading
  // into it was a pass over every byte of the stream.
  std::unique_ptr<uint8_t[]> m_p_buf;
  size_t m_ui_cap = 0;
  size_t m_ui_size = 0;
  size_t m_ui_pos = 0;
  size_t m_ui_chunk = 1 << 20;  // bytes read at a time
  bool m_b_eof = false;
  SrvSpsInfo m_sps;
  double m_d_fps = 25;
  bool m_b_loop = false;
  int64_t m_i64_n = 0;          // frames given, across loops
  std::string m_s_error;        // why the file ended early, for the source's line
};
// Opens the file and reads its set-up from the first piece. False with a
// message.
bool SrvH264FileOpen(SrvH264File* p_av, const SrvSourceConfig& cfg_av, bool b_loop_av, std::string* p_error_av);
// The next access unit; false at the end of a file that does not loop, or
// on a read error or a unit too large to be a picture (then m_s_error says
// which). The frame's data stays valid until the next call.
bool SrvH264FileNext(SrvH264File* p_av, SrvMediaFrame* p_out_av);
void SrvH264FileClose(SrvH264File* p_av);
