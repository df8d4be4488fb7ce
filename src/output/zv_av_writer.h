// The outputs of a classic recording: a main writer and a chain of further
// writers, each with its own queue and writer thread.
#ifndef ZEVA_OUTPUT_ZV_AV_WRITER_H
#define ZEVA_OUTPUT_ZV_AV_WRITER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "output/base_writer.h"
#include "output/packet_queue.h"
#include "platform/av_ptr.h"

namespace zeva {
class PacketWriter;
class Snapshot;
}  // namespace zeva

namespace ZV {

// Call order for one recording: create_other_writers, open, start, any
// number of write_packet (one producer thread), stop, destruction. The main
// writer owns the chain. A failing further output never stops the others.
class ZV_AVWriter final : public zeva::BaseWriter {
 public:
  static constexpr int kMaxStreams = 8;

  // `maxNpkt` bounds the queue for packets written without interleaving;
  // `interleave` is the extra room for packets written with it. `url` is
  // copied (may be null).
  ZV_AVWriter(uint32_t maxNpkt, uint32_t interleave, const char* url);
  ~ZV_AVWriter() override;  // stop(), then frees the queue and the chain

  // Appends one further writer per URL of the null-terminated `urls`, the
  // k-th with limits raised by 6k and 3k. Call on the main writer, once.
  void create_other_writers(const char* const* urls) override;

  // Opens the chain. The main writer adopts `oc` (the muxer's, not owned);
  // further writers build their own context from it. Each ".mp4" writer with
  // a non-empty `moov_url` starts the crash-safe index (a failing index is
  // logged and the output goes on without). Writes every header. Returns
  // value 1, or the first failure: -20/-21 after stop, the clone codes -1..-6,
  // or FFmpeg's header error.
  zeva::WriterResult open(AVFormatContext* oc, const char* meta_info,
                          const char* moov_url) override;

  // Starts one writer thread per opened output. False after stop.
  bool start() override;

  // Rescales `pkt` in place from `tb` into its stream's time base, drops it
  // (result 0, logged) when its decode time does not grow, otherwise queues
  // a reference, blocking while the queue holds maxNpkt (plus the interleave
  // room when `interleave` is set) packets, and hands the packet down the
  // chain. The caller keeps `pkt`. Returns 0, -1 once the output failed or
  // when there is no context, -2 never (puts block). Producer thread only.
  int write_packet(const AVRational& tb, AVPacket* pkt, int interleave) override;

  // Queues the end-of-recording marker for this writer and those after it.
  // 0, or -1 when this writer's thread was never started.
  int write_trailer() override;

  // Main writer: marks the chain exited, queues the markers, joins every
  // thread in chain order, closes further outputs and the indexes. Idempotent.
  void stop() override;

  bool trailer_written() const { return trailer_written_.load(); }
  uint32_t max_packets() const { return maxNpkt_; }
  uint32_t interleave_room() const { return interleave_; }
  ZV_AVWriter* next() const { return next_.get(); }

 private:
  void WriteLoop();
  void ReportWriteError(int code);
  const char* name() const { return prev_ == nullptr ? "main" : "-"; }

  std::thread thread_;
  zeva::PacketQueue queue_;
  uint32_t maxNpkt_;
  uint32_t interleave_;
  std::atomic<bool> trailer_written_{false};
  std::string url_;
  bool has_url_;
  std::atomic<bool> exited_{false};
  int64_t last_ts_[kMaxStreams];
  std::unique_ptr<zeva::Snapshot> snapshot_;

  zeva::OutputFormatPtr own_oc_;  // further writers' context
  std::unique_ptr<zeva::PacketWriter> writer_;
  ZV_AVWriter* prev_ = nullptr;
  std::unique_ptr<ZV_AVWriter> next_;
};

}  // namespace ZV

#endif  // ZEVA_OUTPUT_ZV_AV_WRITER_H
