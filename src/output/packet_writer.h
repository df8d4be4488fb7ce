// Writes one output context: the header, packets interleaved by decode time,
// the trailer. Every output of the library writes through this class, and the
// crash-safe index sees each packet here, just before it reaches the muxer.
#ifndef ZEVA_OUTPUT_PACKET_WRITER_H
#define ZEVA_OUTPUT_PACKET_WRITER_H

#include <cstdint>
#include <memory>

#include "output/interleaver.h"
#include "platform/av_ptr.h"

struct AVDictionary;
struct AVFormatContext;

namespace zeva {

class Snapshot;

// Used by one thread at a time: the output's writer thread once started.
class PacketWriter {
 public:
  // `oc` (not owned) must have all its streams; it must outlive the writer.
  explicit PacketWriter(AVFormatContext* oc);
  ~PacketWriter();  // frees packets still buffered
  PacketWriter(const PacketWriter&) = delete;
  PacketWriter& operator=(const PacketWriter&) = delete;

  // The index to tell of the header and of every packet (not owned; null for
  // none). Set before WriteHeader; it must outlive the last write.
  void set_snapshot(Snapshot* snapshot) { snapshot_ = snapshot; }

  // avformat_write_header with `options` (may be null); on success the index
  // writes its stream lines. Returns FFmpeg's result.
  [[nodiscard]] int WriteHeader(AVDictionary** options);

  // Takes `pkt` (timestamps in its stream's time base, stream index valid),
  // buffers it and writes every packet the interleaving rule releases.
  // Returns 0, or the first negative FFmpeg error of a write.
  [[nodiscard]] int Write(PacketPtr pkt);

  // Writes every buffered packet in decode order. Returns 0 or an FFmpeg error.
  [[nodiscard]] int Flush();

  // Flush, then av_write_trailer. Returns the first failure.
  [[nodiscard]] int WriteTrailer();

  int64_t packets_written() const { return written_; }
  size_t buffered() const { return interleaver_.size(); }

 private:
  // Hands `pkt` (decode time `dts_us`, for the log) to the muxer.
  int WriteNow(PacketPtr pkt, int64_t dts_us);

  AVFormatContext* oc_;
  Snapshot* snapshot_ = nullptr;
  Interleaver<PacketPtr> interleaver_;
  int64_t written_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_OUTPUT_PACKET_WRITER_H
