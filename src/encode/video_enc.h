// The video encoder of a classic recording.
#ifndef ZEVA_ENCODE_VIDEO_ENC_H
#define ZEVA_ENCODE_VIDEO_ENC_H

#include <cstdint>

#include "encode/enc_base.h"
#include "platform/av_ptr.h"

struct AVCodec;
struct AVDictionary;
struct AVFormatContext;
struct AVRational;

namespace zeva {

// Encodes the pictures of one video stream, converting those that are not in
// the codec's pixel format, and hands the packets to the writer. Also draws
// a moving colour pattern for hosts that test a recording chain. One thread
// at a time; see EncBase.
class VideoEnc : public EncBase {
 public:
  // Keeps `writer` (not owned). Allocates nothing.
  explicit VideoEnc(BaseWriter* writer);
  // Deletes the installed filter and frees the scalers. The stream's codec,
  // frames and packet stay with `OutputStream`'s owner.
  ~VideoEnc() override;

  // Copies `info`, opens `codec` on `ost->enc` (already configured) with a
  // copy of `opts` (left unchanged; may be null), copies the codec parameters
  // into `ost->st` and allocates `ost->frame` in the codec's format and size;
  // `ost->tmp_frame` is reset. `oc` is not used. Throws EncoderError with
  // "Could not open video codec: <FFmpeg's text>" or "Could not allocate
  // video frame".
  void open(AVFormatContext* oc, const AVCodec* codec, OutputStream* ost, AVDictionary* opts,
            const MovieInfo& info);

  // Encodes `frame` (not owned; its pts in the codec's time base), or drains
  // the codec when it is null. The installed filter sees the frame first; a
  // filter returning null drops it (result 0). A frame in another pixel format
  // is converted into `ost->frame` with a scaler made for the first such
  // frame's size and format; a later frame of another size or format is
  // refused (-2). Returns the number of packets handed to the writer; -1 when
  // `oc` is null (nothing else happens); -2 when the codec refuses the frame
  // (also after the drain); -3 when the writer refuses a packet. Opened only.
  int encode(AVFormatContext* oc, OutputStream* ost, AVFrame* frame);

  // Draws the next test picture into `ost->tmp_frame` (allocated on first use
  // in the source format and size of the settings) and stamps it in `tb`. The
  // pattern moves by one step per picture and restarts every 10 seconds of
  // this encoder's stream. Returns the frame (owned by `ost`, valid until the
  // next call), or null when it cannot be allocated or before open. Ends the
  // process when a scaler cannot be made or the picture cannot be written.
  AVFrame* generate_test_frame(OutputStream* ost, const AVRational& tb);

  // Installs `f` and takes ownership of it. A filter installed before is
  // forgotten: neither called nor deleted (the host installing it keeps it).
  void set_filter(FilterBase* f) { filter_ = f; }
  FilterBase* filter() const { return filter_; }

 private:
  FilterBase* filter_ = nullptr;
  // Pixel-format conversion before encoding, made for one source size and format.
  SwsPtr convert_;
  int convert_width_ = 0;
  int convert_height_ = 0;
  int convert_format_ = -1;
  // Test pattern, from YUV 4:2:0 into the source format.
  SwsPtr pattern_;
  // Test pattern state: the next restart, in seconds of stream time, and the step.
  int64_t pattern_period_s_ = 10;
  int pattern_step_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_VIDEO_ENC_H
