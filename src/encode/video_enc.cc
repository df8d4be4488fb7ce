#include "encode/video_enc.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libswscale/swscale.h>
}

#include "encode/output_stream.h"
#include "log/logger.h"
#include "platform/av_error.h"
#include "zeva/filter_base.h"

namespace zeva {
namespace {

// A picture with buffers. Null when the frame itself cannot be allocated; a
// failed buffer allocation is printed and leaves a frame without buffers,
// which the callers' writability checks then catch.
FramePtr AllocPicture(int pix_fmt, int width, int height) {
  FramePtr picture = NewFrame();
  if (picture == nullptr) return nullptr;
  picture->format = pix_fmt;
  picture->width = width;
  picture->height = height;
  if (av_frame_get_buffer(picture.get(), 0) < 0) {
    qel::err_print(stderr, "Could not allocate frame data.\n");
  }
  return picture;
}

// The test pattern for step `i` over `width` x `height` of a YUV 4:2:0 picture.
void DrawPattern(AVFrame* picture, int width, int height, int i) {
  for (int y = 0; y < height; ++y) {
    uint8_t* row = picture->data[0] + y * picture->linesize[0];
    for (int x = 0; x < width; ++x) row[x] = static_cast<uint8_t>(x + y + i * 3);
  }
  for (int y = 0; y < height / 2; ++y) {
    uint8_t* cb = picture->data[1] + y * picture->linesize[1];
    uint8_t* cr = picture->data[2] + y * picture->linesize[2];
    for (int x = 0; x < width / 2; ++x) {
      cb[x] = static_cast<uint8_t>(128 + y + i * 2);
      cr[x] = static_cast<uint8_t>(64 + x + i * 5);
    }
  }
}

}  // namespace

VideoEnc::VideoEnc(BaseWriter* writer) : EncBase(writer) {}

VideoEnc::~VideoEnc() { delete filter_; }

void VideoEnc::open(AVFormatContext*, const AVCodec* codec, OutputStream* ost, AVDictionary* opts,
                    const MovieInfo& info) {
  OpenCodec(codec, ost, opts, info, "video");
  AVCodecContext* enc = ost->enc.get();

  ost->frame = AllocPicture(enc->pix_fmt, enc->width, enc->height);
  if (ost->frame == nullptr) {
    qel::err_print(stderr, "Could not allocate video frame\n");
    throw EncoderError("Could not allocate video frame");
  }
  ost->tmp_frame.reset();
}

int VideoEnc::encode(AVFormatContext* oc, OutputStream* ost, AVFrame* frame) {
  if (oc == nullptr) return -1;
  av_packet_unref(ost->pkt.get());

  if (frame != nullptr) {
    if (filter_ != nullptr) {
      frame = filter_->filter(frame);
      // Null here must not reach the codec, where it would end the stream.
      if (frame == nullptr) return 0;
    }
    AVCodecContext* enc = ost->enc.get();
    if (frame->format != enc->pix_fmt) {
      if (convert_ == nullptr) {
        convert_.reset(sws_getContext(frame->width, frame->height,
                                      static_cast<AVPixelFormat>(frame->format), enc->width,
                                      enc->height, enc->pix_fmt, SWS_BICUBIC, nullptr, nullptr,
                                      nullptr));
        if (convert_ == nullptr) ExitProcess("Could not initialize the conversion context\n");
        convert_width_ = frame->width;
        convert_height_ = frame->height;
        convert_format_ = frame->format;
      }
      // The scaler is made once. A picture of another size or format would
      // make it read outside the picture, so it is refused.
      int r = AVERROR(EINVAL);
      if (frame->width == convert_width_ && frame->height == convert_height_ &&
          frame->format == convert_format_) {
        // The codec may still hold a reference to the previous picture.
        r = av_frame_make_writable(ost->frame.get());
      }
      if (r >= 0) {
        r = sws_scale(convert_.get(), frame->data, frame->linesize, 0, frame->height,
                      ost->frame->data, ost->frame->linesize);
      }
      if (r < 0) {
        ZEVA_LOG(kLogError, "[video] enc frame failed: %s", av_error_text(r));
        return -2;
      }
      ost->frame->pts = frame->pts;
      ost->frame->colorspace = frame->colorspace;
      ost->frame->color_range = frame->color_range;
      qel::err_print(stderr, "---------- V pts: %" PRId64 "\n", ost->frame->pts);
      std::fflush(stderr);
      frame = ost->frame.get();
    }
  }
  return SendAndReceive(ost, frame, "video", nullptr);
}

AVFrame* VideoEnc::generate_test_frame(OutputStream* ost, const AVRational& tb) {
  const AVCodecContext* enc = ost->enc.get();
  if (enc == nullptr || ost->frame == nullptr) return nullptr;
  if (av_compare_ts(ost->next_pts, enc->time_base, pattern_period_s_, AVRational{1, 1}) >= 0) {
    pattern_step_ = 0;
    pattern_period_s_ += 10;
  }

  const MovieInfo& s = settings_;
  if (ost->tmp_frame == nullptr) {
    ost->tmp_frame = AllocPicture(s.src_pix_fmt, s.src_width, s.src_height);
    if (ost->tmp_frame == nullptr) {
      qel::err_print(stderr, "Could not allocate temporary picture\n");
      return nullptr;
    }
  }
  AVFrame* out = ost->tmp_frame.get();
  if (av_frame_make_writable(out) < 0) ExitProcess(nullptr);

  // The pattern is drawn at the encoded size, never past the scratch
  // picture's own size.
  if (s.src_pix_fmt == AV_PIX_FMT_YUV420P) {
    DrawPattern(out, std::min(enc->width, out->width), std::min(enc->height, out->height),
                pattern_step_);
  } else {
    if (pattern_ == nullptr) {
      pattern_.reset(sws_getContext(s.src_width, s.src_height, AV_PIX_FMT_YUV420P,
                                    std::min(s.width, out->width), std::min(s.height, out->height),
                                    static_cast<AVPixelFormat>(s.src_pix_fmt), SWS_BICUBIC,
                                    nullptr, nullptr, nullptr));
      if (pattern_ == nullptr) ExitProcess("Could not initialize the conversion context\n");
    }
    FramePtr yuv = AllocPicture(AV_PIX_FMT_YUV420P, s.src_width, s.src_height);
    if (yuv == nullptr) return nullptr;
    if (av_frame_make_writable(yuv.get()) < 0) ExitProcess(nullptr);
    DrawPattern(yuv.get(), s.src_width, s.src_height, pattern_step_);
    if (sws_scale(pattern_.get(), yuv->data, yuv->linesize, 0, s.src_height, out->data,
                  out->linesize) < 0) {
      return nullptr;
    }
  }
  ++pattern_step_;
  out->pts = av_rescale_q(ost->next_pts++, AVRational{1, s.fps}, tb);
  return out;
}

}  // namespace zeva
