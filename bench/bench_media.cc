#include "bench_media.h"

#include <algorithm>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/mathematics.h>
}

namespace zeva::bench {

// The clip's packets repeated with shifted timestamps until there are `n`,
// in decode order across streams.
std::vector<PacketPtr> RepeatPackets(const test::EncodedMedia& m, size_t n) {
  std::vector<size_t> order(m.packets.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  auto dts_us = [&](size_t i) {
    const AVPacket* p = m.packets[i].pkt.get();
    return av_rescale_q(p->dts, m.streams[p->stream_index].time_base, {1, 1000000});
  };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return dts_us(a) < dts_us(b); });
  int64_t span_us = 0;
  for (size_t i : order) span_us = std::max(span_us, dts_us(i) + 100000);

  std::vector<PacketPtr> out;
  out.reserve(n);
  for (int64_t round = 0; out.size() < n; ++round) {
    for (size_t i : order) {
      if (out.size() == n) break;
      PacketPtr p = test::ClonePacket(m, i);
      const AVRational tb = m.streams[p->stream_index].time_base;
      const int64_t shift = av_rescale_q(round * span_us, {1, 1000000}, tb);
      p->pts += shift;
      p->dts += shift;
      if (round > 0 && p->stream_index == m.video_index) p->flags &= ~AV_PKT_FLAG_KEY;
      if (round > 0 && p->stream_index == m.video_index && i == order.front()) p->flags |= AV_PKT_FLAG_KEY;
      out.push_back(std::move(p));
    }
  }
  return out;
}

}  // namespace zeva::bench
