// The interface between the movie muxer and the outputs of a recording.
#ifndef ZEVA_OUTPUT_BASE_WRITER_H
#define ZEVA_OUTPUT_BASE_WRITER_H

#include <cstdint>

#include "output/output_url.h"

struct AVFormatContext;
struct AVPacket;
struct AVRational;

namespace zeva {

class IoInterrupt;

// Reports an output's failure: (code, message, user).
using WriterErrorCallback = void (*)(int code, const char* message, void* user);

// An output that writes packets straight into its context, on the caller's
// thread. ZV::ZV_AVWriter overrides every operation to write on threads.
class BaseWriter {
 public:
  BaseWriter() = default;
  virtual ~BaseWriter() = default;
  BaseWriter(const BaseWriter&) = delete;
  BaseWriter& operator=(const BaseWriter&) = delete;

  // Builds further outputs for the null-terminated `urls`. Base: nothing.
  virtual void create_other_writers(const char* const* urls);
  // Starts writing. Base: false (it has nothing to start).
  virtual bool start();
  // Ends writing. Base: nothing.
  virtual void stop();
  // Writes the header into `oc` (not owned) with the metadata `meta_info`
  // ("key:value;..."; pairs naming muxer options act as options). `moov_url`
  // is the index path. Value 1 on success, else FFmpeg's code and text.
  virtual WriterResult open(AVFormatContext* oc, const char* meta_info, const char* moov_url);
  // Rescales `pkt` in place from `tb` to its stream's time base and writes it
  // with FFmpeg's interleaving. Null `pkt`: 0. -1 without a context.
  virtual int write_packet(const AVRational& tb, AVPacket* pkt, int interleave);
  // av_write_trailer; -1 without a context.
  virtual int write_trailer();

  // Installs the failure report; call before start.
  void set_error_callback(WriterErrorCallback cb, void* user) {
    error_cb_ = cb;
    user_ = user;
  }
  // The network time-out of the recording (seconds, 0 for none) and the hook
  // that aborts its network I/O (not owned; must outlive every output), for
  // the outputs this writer opens itself. Call before create_other_writers.
  void set_network_io(int timeout_sec, IoInterrupt* io) {
    timeout_sec_ = timeout_sec;
    io_ = io;
  }
  AVFormatContext* context() const { return oc_; }
  // Presentation time in seconds of the last packet accepted.
  double movie_time() const { return movie_time_; }

 protected:
  // avformat_write_header with the metadata dictionary as options.
  WriterResult WriteHeaderWithMeta(AVFormatContext* oc, const char* meta_info,
                                   class PacketWriter* writer);

  WriterErrorCallback error_cb_ = nullptr;
  void* user_ = nullptr;
  int timeout_sec_ = 0;
  IoInterrupt* io_ = nullptr;
  AVFormatContext* oc_ = nullptr;
  double movie_time_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_OUTPUT_BASE_WRITER_H
