// The inputs of a packet recording: one InputQueue each for H.264 (Annex B)
// and AAC (ADTS) host packets, the in-memory "h264" and "aac" demuxers that
// read them, and the demux loop that hands every demuxed packet on with its
// host timestamp.
//
// Every packet leaves with pts = dts = the host's timestamp (smoothed), so
// streams whose decode order differs from presentation order (B-frames) are
// outside what this path reproduces.
#ifndef ZEVA_PACKET_INPUT_CONTEXT_H
#define ZEVA_PACKET_INPUT_CONTEXT_H

#include <string>

#include "packet/input_queue.h"
#include "packet/status.h"
#include "platform/av_ptr.h"

struct AVFormatContext;
struct AVPacket;
struct AVRational;

namespace zeva {

// Receives each demuxed packet (time base 1/1000000, stream_index -1, `name`
// "h264" or "aac"), and once at the end a null packet named "tailer". The
// packet is unreferenced after the call; take a reference to keep it.
// Returns >= 0, or a negative FFmpeg error code, which ends the loop.
using DeliverFn = int (*)(AVPacket* packet, const AVRational& time_base, const char* name,
                          void* user);

class InputContext {
 public:
  // One opened demuxer over a custom I/O context; the demuxer closes first.
  struct Demuxer {
    IOContextPtr io;
    InputFormatPtr ic;
  };

  InputContext() = default;
  // clear() when an input is still open. The demux loop must have ended.
  ~InputContext();
  InputContext(const InputContext&) = delete;
  InputContext& operator=(const InputContext&) = delete;

  // Names the inputs before the host's threads push into them, so that the
  // demuxing thread's open_inputs need not rename them under their feet.
  void name_inputs(const char* audio_format, const char* video_format) {
    if (audio_format != nullptr) audio.name = audio_format;
    if (video_format != nullptr) video.name = video_format;
  }

  // Opens the audio input, then the video input, for the formats named
  // (null or empty: not used). Blocks until each has seen enough data for
  // its stream parameters, or 3000 ms without data. A failing input is
  // logged and left closed; the result is an error (-23, "no aac, no h264")
  // only when neither opened. The demuxing thread, once.
  Status open_inputs(const char* audio_format, const char* video_format);

  // Opens the demuxer `format` over `queue` with custom I/O, finds its
  // stream information (bounded, see the .cc) and marks the queue probed.
  // On failure nothing stays open and the result carries the code and text.
  static Status open_input(InputQueue& queue, const char* format, Demuxer& out);

  // Reads both opened inputs until each reaches end of stream (after
  // que_abort) or an error, giving each packet the next host timestamp of
  // its input, smoothed; then calls `deliver` with the tailer. The
  // demuxing thread, after open_inputs.
  void run_demux(DeliverFn deliver, void* user);

  // Ends both inputs: a null node after the data already queued, so each
  // demuxer reaches end of stream once it has read everything. Any thread.
  void que_abort();

  // que_abort(), then closes both demuxers. After the demux loop ended.
  void clear();

  // The opened demuxers (their streams' codec parameters), or null.
  AVFormatContext* video_ic() const { return video_in_.ic.get(); }
  AVFormatContext* audio_ic() const { return audio_in_.ic.get(); }

  InputQueue video;
  InputQueue audio;

 private:
  Demuxer video_in_;
  Demuxer audio_in_;
  std::string video_name_;
  std::string audio_name_;
};

}  // namespace zeva

#endif  // ZEVA_PACKET_INPUT_CONTEXT_H
