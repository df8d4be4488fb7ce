// Test helpers for codecs: a sine tone, a decoder run over encoded packets,
// and a rough measure of the tone that survived.
#ifndef ZEVA_TESTS_SUPPORT_TONE_H
#define ZEVA_TESTS_SUPPORT_TONE_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include "platform/av_ptr.h"

namespace zeva::test {

using Bytes = std::vector<uint8_t>;

// `n` samples of amp·sin(2π·freq·t) at `rate`.
inline std::vector<float> Sine(int n, int rate, double freq, double amp) {
  std::vector<float> s(n);
  for (int i = 0; i < n; ++i) s[i] = static_cast<float>(amp * std::sin(2 * M_PI * freq * i / rate));
  return s;
}

// Decodes `packets` and then drains, with `dec` opened. Returns the number of
// frames, -1 on a decoder error. For float audio, channel 0 is appended to
// `*channel0` when given.
inline int DecodeAll(AVCodecContext* dec, const std::vector<Bytes>& packets,
                     std::vector<float>* channel0 = nullptr) {
  PacketPtr pkt = NewPacket();
  FramePtr f = NewFrame();
  int frames = 0;
  for (size_t i = 0; i <= packets.size(); ++i) {
    const bool drain = i == packets.size();
    if (!drain) {
      if (av_new_packet(pkt.get(), static_cast<int>(packets[i].size())) < 0) return -1;
      std::copy(packets[i].begin(), packets[i].end(), pkt->data);
    }
    const int r = avcodec_send_packet(dec, drain ? nullptr : pkt.get());
    av_packet_unref(pkt.get());
    if (r < 0) return -1;
    while (avcodec_receive_frame(dec, f.get()) == 0) {
      ++frames;
      if (channel0 && (f->format == AV_SAMPLE_FMT_FLT || f->format == AV_SAMPLE_FMT_FLTP)) {
        const int step = f->format == AV_SAMPLE_FMT_FLT ? f->ch_layout.nb_channels : 1;
        const float* p = reinterpret_cast<const float*>(f->extended_data[0]);
        for (int s = 0; s < f->nb_samples; ++s) channel0->push_back(p[s * step]);
      }
      av_frame_unref(f.get());
    }
  }
  return frames;
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

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_TONE_H
