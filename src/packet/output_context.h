// One destination of a packet recording (a file, an RTMP or an RTSP stream)
// with its own muxer context, packet queue and writer thread, so that a slow
// network output does not hold up the others.
#ifndef ZEVA_PACKET_OUTPUT_CONTEXT_H
#define ZEVA_PACKET_OUTPUT_CONTEXT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "output/network_io.h"
#include "packet/blocking_queue.h"
#include "packet/status.h"
#include "platform/av_ptr.h"

struct AVPacket;
struct AVRational;
struct AVStream;

namespace zeva {

class AacToOpus;
class PacketWriter;
class Snapshot;

class OutputContext {
 public:
  // Told once, on the writer thread, when this output's writes fail: the
  // FFmpeg code and a message naming the URL.
  using ErrorHandler = std::function<void(int code, const std::string& message)>;

  // Network time-out (connect, each write, the drain at close) of rtmp:// and
  // rtsp:// outputs when the caller gives none.
  static constexpr int kDefaultTimeoutSec = 5;

  OutputContext();
  ~OutputContext();  // close()
  OutputContext(const OutputContext&) = delete;
  OutputContext& operator=(const OutputContext&) = delete;

  // Re-encodes AAC audio as Opus, as every rtsp:// output does. Call before
  // open; for containers that take Opus.
  void transcode_audio_to_opus() { force_opus_ = true; }

  // Opens `url` with one stream per usable input stream (H.264 video, AAC
  // audio, each chosen by its codec; either may be null), writes the header
  // and starts the writer thread. With a non-empty `snapshot_path` the
  // crash-safe index is written beside it. `meta` ("key:value;...") may be
  // null. Network outputs connect and write under `timeout_sec` (0: the
  // default). Blocks while connecting. Call once; on failure the caller
  // destroys the output. Codes: -7 index, AVERROR_UNKNOWN no format, -32 I/O,
  // -33 header, or the Opus transcoder's.
  Status open(const AVStream* video_stream, const AVStream* audio_stream, const char* url,
              const char* snapshot_path, const char* meta, int timeout_sec,
              ErrorHandler on_error);

  // Queues a clone of `packet` (null: the end-of-stream marker) rescaled
  // from `time_base` to output stream `stream_index`. Never blocks. False
  // once the output failed or was closed. The worker thread only.
  bool enqueue(const AVPacket* packet, const AVRational& time_base, int stream_index);

  // Lets the writer drain what was queued and write the trailer, joins it
  // and frees the muxer context. A network output still draining after its
  // time-out is interrupted. Idempotent; never from the writer thread.
  void close();

  const std::string& url() const { return url_; }
  int video_index() const { return video_index_; }
  int audio_index() const { return audio_index_; }
  AacToOpus* transcoder() const { return transcoder_.get(); }
  // True once the writer thread gave up on a write error.
  bool failed() const { return failed_.load(); }

 private:
  void WriterLoop();

  std::string url_;
  OutputFormatPtr oc_;
  int video_index_ = -1;
  int audio_index_ = -1;
  std::unique_ptr<AacToOpus> transcoder_;
  std::thread thread_;
  qel::BlockingQueue<AVPacket*> packets_;
  std::unique_ptr<Snapshot> snapshot_;
  std::unique_ptr<PacketWriter> writer_;
  ErrorHandler on_error_;
  bool network_ = false;
  bool force_opus_ = false;
  int64_t timeout_us_ = 0;
  IoInterrupt io_;  // installed on network outputs only
  std::atomic<bool> failed_{false};
};

// The outputs of one recording, in URL order.
using OutputList = std::vector<std::unique_ptr<OutputContext>>;

// Hands one demuxed packet (time base `time_base`) to every output: "h264"
// packets as video, "aac" packets as audio (through an output's Opus
// transcoder when it has one); any other name, such as the final "tailer"
// call, is ignored. Returns 0, -101 (video) or -102 (audio) at the first
// output that refuses it; with `skip_failed`, outputs whose writer failed
// are passed over instead, and the error comes only when none is left.
int route(const AVPacket* packet, const AVRational& time_base, const char* name,
          OutputList& outputs, bool skip_failed);

}  // namespace zeva

#endif  // ZEVA_PACKET_OUTPUT_CONTEXT_H
