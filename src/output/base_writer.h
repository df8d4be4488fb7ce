// The interface between the movie muxer and the outputs of a recording.
#ifndef ZEVA_OUTPUT_BASE_WRITER_H
#define ZEVA_OUTPUT_BASE_WRITER_H

#include <cstdint>

#include "output/output_url.h"

struct AVFormatContext;
struct AVPacket;
struct AVRational;

namespace zeva {

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
  AVFormatContext* context() const { return oc_; }
  // Presentation time in seconds of the last packet accepted.
  double movie_time() const { return movie_time_; }

 protected:
  // avformat_write_header with the metadata dictionary as options.
  WriterResult WriteHeaderWithMeta(AVFormatContext* oc, const char* meta_info,
                                   class PacketWriter* writer);

  WriterErrorCallback error_cb_ = nullptr;
  void* user_ = nullptr;
  AVFormatContext* oc_ = nullptr;
  double movie_time_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_OUTPUT_BASE_WRITER_H
