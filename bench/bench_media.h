// Media for the benchmarks: many packets from one short real clip.
#ifndef ZEVA_BENCH_BENCH_MEDIA_H
#define ZEVA_BENCH_BENCH_MEDIA_H

#include <cstddef>
#include <vector>

#include "platform/av_ptr.h"
#include "support/encoded_media.h"

namespace zeva::bench {

// The clip's packets repeated with shifted timestamps until there are `n`,
// in decode order across streams, each timestamp in its stream's encoder
// time base.
std::vector<PacketPtr> RepeatPackets(const test::EncodedMedia& m, size_t n);

}  // namespace zeva::bench

#endif  // ZEVA_BENCH_BENCH_MEDIA_H
