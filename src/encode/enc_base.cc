#include "encode/enc_base.h"

#include <cstdio>
#include <cstdlib>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "encode/output_stream.h"
#include "log/logger.h"
#include "output/base_writer.h"
#include "platform/av_error.h"
#include "zeva/filter_base.h"

namespace zeva {

EncBase::EncBase(BaseWriter* writer) : writer_(writer) {}

EncBase::~EncBase() = default;

void EncBase::OpenCodec(const AVCodec* codec, OutputStream* ost, AVDictionary* opts,
                        const MovieInfo& info, const char* kind) {
  settings_ = info;
  AVCodecContext* enc = ost->enc.get();
  // The codec replaces the dictionary it is given by what it did not take,
  // freeing the original, so it gets a copy and the caller's stays whole.
  AVDictionary* copy = nullptr;
  int r = av_dict_copy(&copy, opts, 0);
  if (r >= 0) r = avcodec_open2(enc, codec, &copy);
  av_dict_free(&copy);
  if (r < 0) {
    const char* text = av_error_text(r);
    ZEVA_LOG(kLogError, "Could not open %s codec: %s", kind, text);
    throw EncoderError(std::string("Could not open ") + kind + " codec: " + text);
  }
  r = avcodec_parameters_from_context(ost->st->codecpar, enc);
  if (r < 0) {
    const char* text = av_error_text(r);
    ZEVA_LOG(kLogError, "Could not copy the %s stream parameters: %s", kind, text);
    throw EncoderError(std::string("Could not copy the ") + kind + " stream parameters: " + text);
  }
}

int EncBase::SendAndReceive(OutputStream* ost, AVFrame* frame, const char* kind,
                            FilterBase* packet_filter) {
  AVCodecContext* enc = ost->enc.get();
  AVPacket* pkt = ost->pkt.get();
  int r = avcodec_send_frame(enc, frame);
  if (r < 0) {
    ZEVA_LOG(kLogError, "[%s] enc frame failed: %s", kind, av_error_text(r));
    return -2;
  }
  int count = 0;
  for (;;) {
    r = avcodec_receive_packet(enc, pkt);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return count;  // wants input / drained
    if (r < 0) {
      // A codec error leaves no packet; writing it would hand on garbage.
      ZEVA_LOG(kLogError, "[%s] enc frame failed: %s", kind, av_error_text(r));
      return -2;
    }
    ++count;
    // Some encoders (libx264) leave the duration empty; a video packet lasts
    // one frame (the time base is 1/fps), so the last frame of a movie keeps
    // its length instead of ending where it starts.
    if (pkt->duration == 0 && enc->codec_type == AVMEDIA_TYPE_VIDEO) pkt->duration = 1;
    if (packet_filter != nullptr) packet_filter->filter(pkt);
    pkt->stream_index = ost->st->index;
    r = writer_->write_packet(enc->time_base, pkt, 1);
    av_packet_unref(pkt);
    if (r < 0) {
      ZEVA_LOG(kLogError, "[write-packet] error while writing %s frame: ret=%d, %s", kind, r,
               av_error_text(r));
      return -3;
    }
  }
}

void ExitProcess(const char* message) {
  if (message != nullptr) qel::err_print(stderr, "%s", message);
  std::fflush(stderr);
  std::exit(1);
}

}  // namespace zeva
