// What the video and audio encoders of a classic recording share.
#ifndef ZEVA_ENCODE_ENC_BASE_H
#define ZEVA_ENCODE_ENC_BASE_H

#include <stdexcept>

#include "zeva/movie_info.h"

class FilterBase;
struct AVCodec;
struct AVDictionary;
struct AVFrame;

namespace zeva {

class BaseWriter;
struct OutputStream;

// Thrown by the encoders' open when the codec or the encoder's frame cannot be
// set up; what() is the text the muxer reports. Never crosses the library's
// interface: the muxer catches it while starting.
class EncoderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Prints `message` (when not null) to standard error and ends the process
// with exit code 1. Reserved for the encoders' allocation failures after
// which the recording cannot go on.
[[noreturn]] void ExitProcess(const char* message);

// The settings and the output of one encoder. An encoder is used from one
// thread at a time (the muxer serialises its calls).
class EncBase {
 public:
  // Keeps `writer` (not owned, not null; it must outlive the encoder), which
  // receives every encoded packet. The settings stay zero-filled until open.
  explicit EncBase(BaseWriter* writer);
  virtual ~EncBase();
  EncBase(const EncBase&) = delete;
  EncBase& operator=(const EncBase&) = delete;

  // The settings copied at open time.
  const MovieInfo& settings() const { return settings_; }

 protected:
  // Copies `info`, opens `codec` on `ost->enc` with a copy of `opts` (the
  // caller's dictionary is left as it was) and copies the codec parameters
  // into `ost->st`. `kind` is "video" or "audio". Throws EncoderError with
  // "Could not open <kind> codec: <FFmpeg's text>", logged as well.
  void OpenCodec(const AVCodec* codec, OutputStream* ost, AVDictionary* opts,
                 const MovieInfo& info, const char* kind);

  // Sends `frame` (null drains the codec) to the codec of `ost` and hands
  // every packet it gives back to the writer, in the codec's time base with
  // interleaving, after `packet_filter` (when not null) has seen it. `kind` is
  // "video" or "audio", for the log. Returns the number of packets written;
  // -2 when the codec fails; -3 when the writer refuses a packet.
  int SendAndReceive(OutputStream* ost, AVFrame* frame, const char* kind,
                     FilterBase* packet_filter);

  MovieInfo settings_{};
  BaseWriter* writer_;
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_ENC_BASE_H
