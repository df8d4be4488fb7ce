#include "output/packet_writer.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include "index/snapshot.h"
#include "log/logger.h"

namespace zeva {
namespace {

constexpr AVRational kMicros{1, 1000000};
// The most verbose level: one line per packet, formatted only when a log
// callback or a threshold of 6 asks for it.
constexpr int kLogPerPacket = 6;

}  // namespace

PacketWriter::PacketWriter(AVFormatContext* oc)
    : oc_(oc),
      interleaver_(static_cast<int>(oc->nb_streams), oc->max_interleave_delta) {}

PacketWriter::~PacketWriter() = default;

int PacketWriter::WriteHeader(AVDictionary** options) {
  const int r = avformat_write_header(oc_, options);
  if (r >= 0 && snapshot_ != nullptr) snapshot_->on_header(oc_);
  return r;
}

int PacketWriter::Write(PacketPtr pkt) {
  const int stream = pkt->stream_index;
  const AVStream* st = oc_->streams[stream];
  const int64_t dts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;
  const int64_t dts_us =
      dts == AV_NOPTS_VALUE ? INT64_MIN : av_rescale_q(dts, st->time_base, kMicros);
  interleaver_.Push(stream, dts_us, std::move(pkt));
  while (auto ready = interleaver_.PopReady()) {
    const int r = WriteNow(std::move(ready->payload), ready->dts_us);
    if (r < 0) return r;
  }
  return 0;
}

int PacketWriter::Flush() {
  int first_error = 0;
  while (auto next = interleaver_.Drain()) {
    const int r = WriteNow(std::move(next->payload), next->dts_us);
    if (r < 0 && first_error == 0) first_error = r;
  }
  return first_error;
}

int PacketWriter::WriteTrailer() {
  const int flushed = Flush();
  const int r = av_write_trailer(oc_);
  return flushed < 0 ? flushed : r;
}

int PacketWriter::WriteNow(PacketPtr pkt, int64_t dts_us) {
  ZEVA_LOG(kLogPerPacket, "write packet: stream=%d, dts=%lld us", pkt->stream_index,
           static_cast<long long>(dts_us));
  if (snapshot_ != nullptr) snapshot_->on_packet(oc_, pkt.get());
  // av_write_frame leaves the packet with us; the owner frees it.
  const int r = av_write_frame(oc_, pkt.get());
  if (r >= 0) ++written_;
  return r;
}

}  // namespace zeva
