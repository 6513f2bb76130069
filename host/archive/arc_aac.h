// G.711 audio (A-law or mu-law) re-encoded as AAC, for containers that
// cannot hold G.711 (MP4): the stored frames are decoded, converted to the
// encoder's sample format and cut into the encoder's frame size. A stored
// frame whose time jumps ahead of the samples so far starts a new run at
// its own time, so a pause in the recording stays a pause in the file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

struct AVAudioFifo;
struct SwrContext;

class ArcAacEncoder {
 public:
  // Gets each encoded packet, its times in 1/rate seconds; false stops.
  typedef std::function<bool(AVPacket*)> PacketFn;

  ArcAacEncoder() = default;
  ~ArcAacEncoder();
  ArcAacEncoder(const ArcAacEncoder&) = delete;
  ArcAacEncoder& operator=(const ArcAacEncoder&) = delete;

  // codec_av is AV_CODEC_ID_PCM_ALAW or AV_CODEC_ID_PCM_MULAW. With
  // b_global_header_av the AAC set-up goes into the stream's parameters
  // rather than each packet (what MP4 wants). False with a message.
  bool Open(AVCodecID codec_av, int i_rate_av, int i_channels_av, bool b_global_header_av, std::string* p_error_av);
  // The encoder's parameters, for the output stream.
  bool CopyParameters(AVCodecParameters* p_par_av) const;
  int Rate() const { return m_i_rate; }

  // One stored frame starting i64_pos_av samples after the file's start.
  bool Put(const uint8_t* pb_data_av, size_t ui_size_av, int64_t i64_pos_av, const PacketFn& fn_av,
           std::string* p_error_av);
  // Encodes what is left and drains the encoder.
  bool Finish(const PacketFn& fn_av, std::string* p_error_av);

 private:
  void ShapeConverted();
  bool Decode(const uint8_t* pb_data_av, size_t ui_size_av, std::string* p_error_av);
  bool StartRunAt(int64_t i64_pos_av, int i_samples_av, const PacketFn& fn_av, std::string* p_error_av);
  bool EncodeFrames(bool b_all_av, const PacketFn& fn_av, std::string* p_error_av);
  bool Drain(const PacketFn& fn_av, std::string* p_error_av);

  AVCodecContext* m_p_dec = nullptr;
  AVCodecContext* m_p_enc = nullptr;
  SwrContext* m_p_swr = nullptr;
  AVAudioFifo* m_p_fifo = nullptr;
  AVFrame* m_p_decoded = nullptr;
  AVFrame* m_p_converted = nullptr;
  AVPacket* m_p_pkt = nullptr;
  int m_i_rate = 0;
  bool m_b_run = false;       // samples were put since the start
  int64_t m_i64_fifo_pts = 0;  // the position of the first sample in the fifo
};
