// A sine tone for audio tests, the means to decode encoded audio back, and a
// rough measure of what survived.
#ifndef ZEVA_TESTS_SUPPORT_TONE_H
#define ZEVA_TESTS_SUPPORT_TONE_H

#include <cmath>
#include <algorithm>
#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include "platform/av_ptr.h"

namespace zeva::test {

// `n` samples of amp·sin(2π·freq·t) at `rate`.
inline std::vector<float> Sine(int n, int rate, double freq, double amp) {
  std::vector<float> s(n);
  for (int i = 0; i < n; ++i) s[i] = static_cast<float>(amp * std::sin(2 * M_PI * freq * i / rate));
  return s;
}

struct ToneMeasure {
  double freq;  // Hz, from rising zero crossings
  double rms;
};

// Measures `count` samples of `x` from `skip` on (past a codec's start-up,
// before its end).
inline ToneMeasure Measure(const std::vector<float>& x, int rate, size_t skip, size_t count) {
  if (x.size() < skip + count || count < 2) return {0, 0};
  int first = -1, last = -1, crossings = 0;
  double energy = 0;
  for (size_t i = skip + 1; i < skip + count; ++i) {
    energy += double(x[i]) * x[i];
    if (x[i - 1] < 0 && x[i] >= 0) {
      if (first < 0) first = static_cast<int>(i);
      last = static_cast<int>(i);
      ++crossings;
    }
  }
  const double rms = std::sqrt(energy / double(count - 1));
  if (crossings < 2) return {0, rms};
  return {double(crossings - 1) * rate / (last - first), rms};
}

// Decodes packets with an opened decoder; collects channel 0 as float and
// counts the samples per channel. Works for planar or interleaved float.
class Decoded {
 public:
  explicit Decoded(AVCodecContext* dec) : dec_(dec), frame_(NewFrame()), pkt_(NewPacket()) {}

  // Sends one packet's bytes (null/0 drains) and takes every frame out.
  // False on a decoder error.
  bool Feed(const uint8_t* data, int size) {
    int r;
    if (data != nullptr) {
      if (av_new_packet(pkt_.get(), size) < 0) return false;
      std::copy(data, data + size, pkt_->data);
      r = avcodec_send_packet(dec_, pkt_.get());
      av_packet_unref(pkt_.get());
    } else {
      r = avcodec_send_packet(dec_, nullptr);
    }
    if (r < 0) return false;
    for (;;) {
      r = avcodec_receive_frame(dec_, frame_.get());
      if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return true;
      if (r < 0) return false;
      AVFrame* f = frame_.get();
      const int stride = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(f->format))
                             ? 1 : f->ch_layout.nb_channels;
      const float* p = reinterpret_cast<const float*>(f->extended_data[0]);
      if (f->format == AV_SAMPLE_FMT_FLT || f->format == AV_SAMPLE_FMT_FLTP) {
        for (int i = 0; i < f->nb_samples; ++i) channel0.push_back(p[i * stride]);
      }
      rate = f->sample_rate;
      channels = f->ch_layout.nb_channels;
      av_frame_unref(f);
    }
  }

  std::vector<float> channel0;
  int rate = 0;
  int channels = 0;

 private:
  AVCodecContext* dec_;
  FramePtr frame_;
  PacketPtr pkt_;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_TONE_H
