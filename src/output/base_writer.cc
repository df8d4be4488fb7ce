#include "output/base_writer.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include "output/packet_writer.h"
#include "platform/av_error.h"

namespace zeva {

void BaseWriter::create_other_writers(const char* const*) {}

bool BaseWriter::start() { return false; }

void BaseWriter::stop() {}

WriterResult BaseWriter::open(AVFormatContext* oc, const char* meta_info, const char*) {
  oc_ = oc;
  return WriteHeaderWithMeta(oc, meta_info, nullptr);
}

WriterResult BaseWriter::WriteHeaderWithMeta(AVFormatContext* oc, const char* meta_info,
                                             PacketWriter* writer) {
  ParseMetaInfo(meta_info, &oc->metadata);
  // The metadata dictionary doubles as the options: pairs that name muxer
  // options (say "movflags:faststart") configure the muxer and leave it.
  const int r = writer ? writer->WriteHeader(&oc->metadata) : avformat_write_header(oc, &oc->metadata);
  // Named by its URL: a further output's failure fails the whole start.
  if (r < 0) return {r, std::string(av_error_text(r)) + ", " + (oc->url ? oc->url : ""), true};
  return {1, "", false};
}

int BaseWriter::write_packet(const AVRational& tb, AVPacket* pkt, int) {
  if (pkt == nullptr) return 0;
  if (oc_ == nullptr) return -1;
  const AVStream* st = oc_->streams[pkt->stream_index];
  av_packet_rescale_ts(pkt, tb, st->time_base);
  movie_time_ = static_cast<double>(pkt->pts) * av_q2d(st->time_base);
  return av_interleaved_write_frame(oc_, pkt);
}

int BaseWriter::write_trailer() { return oc_ ? av_write_trailer(oc_) : -1; }

}  // namespace zeva
