// The encoding engine of a classic recording: chooses container and codecs
// from the settings, sets up the encoders and the writer chain, feeds the
// encoders and closes everything in a fixed order.
#ifndef ZEVA_ENCODE_MOVIE_MUXER_H
#define ZEVA_ENCODE_MOVIE_MUXER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

extern "C" {
#include <libavutil/rational.h>
}

#include "encode/movie_base.h"
#include "encode/output_stream.h"
#include "output/network_io.h"
#include "zeva/movie_info.h"

struct AVCodec;
struct AVDictionary;
struct AVFormatContext;
struct AVFrame;

namespace zeva {

class AudioEnc;
class VideoEnc;

// Reports the outcome of a start and later failures: (code, message, user).
// Code 0 "start OK" when the output is open. May run on a library thread.
using StatusCallback = void (*)(int code, const char* message, void* user);

// Frames and stop come from one host thread at a time; the start may run on
// a thread of the muxer's own.
class MovieMuxer : public MovieBase {
 public:
  // Takes ownership of `writer` (null: a plain BaseWriter).
  explicit MovieMuxer(BaseWriter* writer);
  ~MovieMuxer() override;  // stop() if needed, then the encoders and the writer

  // Opens the output for `info`: synchronously, or on the start thread with
  // `async`. Returns 0; the outcome reaches `cb` (code 0 "start OK", or the
  // failure's code and message). Call once.
  int start(const MovieInfo& info, StatusCallback cb, void* user, bool async);

  // Encodes `frame` (null: flush) after rescaling its pts from `tb` (null:
  // already in the codec time base). Video whose pts does not grow is
  // refused. Returns the encoder's result, or 0 when ignored (not running,
  // no such stream, refused). Host thread.
  int write_video_frame(AVFrame* frame, const AVRational* tb);
  int write_audio_frame(AVFrame* frame, const AVRational* tb);

  // Flushes the encoders, stops the writer chain (trailers written, threads
  // joined) and closes the output. Overtakes a start still running: that
  // start gives up, and a network connect it is blocked in is interrupted.
  // Network outputs get `timeout_sec` (5 s when 0) to deliver what is
  // queued; then their I/O is aborted, so stop never hangs on a server.
  // Files always get their trailer. Returns true. Host thread.
  bool stop();

  // The working settings: those given to start, replaced by the ones the
  // encoders really use once the start succeeded. Any thread.
  MovieInfo effective() const {
    std::lock_guard<std::mutex> lock(effective_mu_);
    return effective_;
  }
  bool running() const { return !not_running_.load(); }
  bool has_video() const { return has_video_; }
  bool has_audio() const { return has_audio_; }
  OutputStream& video_stream() { return video_st_; }
  OutputStream& audio_stream() { return audio_st_; }
  VideoEnc* video_enc() const { return video_enc_.get(); }
  AudioEnc* audio_enc() const { return audio_enc_.get(); }
  // Last timestamps handed to the encoders, in microseconds; -1 before any.
  int64_t last_video_us() const;
  int64_t last_audio_us() const;

 private:
  struct StartRecord;

  void RunStart();
  void Open(MovieInfo& info);
  const AVCodec* AddStream(int codec_id, OutputStream* ost, MovieInfo& info);
  // `hw_name` names the hardware encoder taken, or is null for software.
  void ConfigureVideo(AVCodecContext* c, const AVCodec* codec, MovieInfo& info,
                      const char* hw_name);
  void ConfigureAudio(AVCodecContext* c, const AVCodec* codec, MovieInfo& info);

  std::unique_ptr<AudioEnc> audio_enc_;
  std::unique_ptr<VideoEnc> video_enc_;
  OutputStream video_st_;
  OutputStream audio_st_;
  AVFormatContext* oc_ = nullptr;  // owned; freed by stop
  bool has_video_ = false;
  bool has_audio_ = false;
  AVDictionary* opts_ = nullptr;   // always empty: options go to the codecs directly
  mutable std::mutex effective_mu_;
  MovieInfo effective_{};
  AVRational video_tb_{0, 1};  // codec time bases, kept past stop
  AVRational audio_tb_{0, 1};
  std::atomic<bool> not_running_{true};
  IoInterrupt io_;  // every network output of the recording
  int64_t last_video_pts_ = -1;  // codec time base
  int64_t last_audio_pts_ = -1;
  std::unique_ptr<StartRecord> start_;
  bool network_ = false;
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_MOVIE_MUXER_H
