// Test helpers for codecs: a sine tone, a decoder run over encoded packets,
// and a rough measure of the tone that survived.
#ifndef ZEVA_TESTS_SUPPORT_TONE_H
#define ZEVA_TESTS_SUPPORT_TONE_H

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
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

// Decodes `packets` with the opened float-output decoder `dec`, then drains
// it; returns its first channel, empty on a decoder error.
inline std::vector<float> DecodeAll(AVCodecContext* dec, const std::vector<Bytes>& packets) {
  std::vector<float> ch0;
  FramePtr f = NewFrame();
  for (size_t i = 0; i <= packets.size(); ++i) {
    PacketPtr pkt = NewPacket();
    if (i < packets.size() && av_new_packet(pkt.get(), int(packets[i].size())) == 0) {
      std::copy(packets[i].begin(), packets[i].end(), pkt->data);
    }
    if (avcodec_send_packet(dec, i < packets.size() ? pkt.get() : nullptr) < 0) return {};
    while (avcodec_receive_frame(dec, f.get()) == 0) {
      const int step = f->format == AV_SAMPLE_FMT_FLT ? f->ch_layout.nb_channels : 1;
      const auto* p = reinterpret_cast<const float*>(f->extended_data[0]);
      for (int s = 0; s < f->nb_samples; ++s) ch0.push_back(p[s * step]);
    }
  }
  return ch0;
}

// The frequency (from rising zero crossings, to about rate/count Hz) and
// rms of `count` samples of `x` from `skip` on.
inline std::pair<double, double> Measure(const std::vector<float>& x, int rate, size_t skip, size_t count) {
  int crossings = 0;
  double energy = 0;
  for (size_t i = skip + 1; i < skip + count && i < x.size(); ++i) {
    energy += double(x[i]) * x[i];
    crossings += x[i - 1] < 0 && x[i] >= 0;
  }
  return {double(crossings) * rate / double(count), std::sqrt(energy / double(count))};
}

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_TONE_H
