#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include "encode/audio_enc.h"
#include "encode/output_stream.h"
#include "encode/video_enc.h"
#include "output/base_writer.h"
#include "support/log_capture.h"
#include "zeva/filter_base.h"

namespace {

using namespace zeva;

// Keeps what the encoders hand on; refuses every packet on request.
struct CaptureWriter : BaseWriter {
  struct Seen { AVRational tb; int64_t pts; int stream; int interleave; };
  int write_packet(const AVRational& tb, AVPacket* pkt, int interleave) override {
    seen.push_back({tb, pkt->pts, pkt->stream_index, interleave});
    return refuse ? AVERROR(EIO) : 0;
  }
  std::vector<Seen> seen;
  bool refuse = false;
};

// One stream of a Matroska context, set up for `codec_name`: 64x48 YUV 4:2:0
// at 25 fps for video, stereo at 48 kHz in `fmt` for audio.
struct Stream {
  explicit Stream(const char* codec_name, AVSampleFormat fmt = AV_SAMPLE_FMT_NONE) {
    AVFormatContext* raw = nullptr;
    avformat_alloc_output_context2(&raw, nullptr, "matroska", nullptr);
    oc.reset(raw);
    codec = avcodec_find_encoder_by_name(codec_name);
    ost.st = avformat_new_stream(raw, nullptr);
    ost.enc.reset(avcodec_alloc_context3(codec));
    ost.pkt = NewPacket();
    AVCodecContext* c = ost.enc.get();
    if (fmt == AV_SAMPLE_FMT_NONE) {
      c->width = 64;
      c->height = 48;
      c->pix_fmt = AV_PIX_FMT_YUV420P;
      c->time_base = {1, 25};
      c->thread_count = 1;
    } else {
      c->sample_fmt = fmt;
      c->sample_rate = 48000;
      c->time_base = {1, 48000};
      av_channel_layout_default(&c->ch_layout, 2);
    }
  }
  OutputFormatPtr oc;
  const AVCodec* codec = nullptr;
  OutputStream ost;
};

// A grey 64x48 picture.
FramePtr Picture(AVPixelFormat fmt, int64_t pts) {
  FramePtr f = NewFrame();
  f->format = fmt;
  f->width = 64;
  f->height = 48;
  f->pts = pts;
  EXPECT_EQ(av_frame_get_buffer(f.get(), 0), 0);
  for (AVBufferRef* b : f->buf) if (b) std::memset(b->data, 128, b->size);
  return f;
}

// Passes pictures through, except that pts 2 is swapped for one of its own.
struct SwapFilter : FilterBase {
  using FilterBase::filter;
  AVFrame* filter(AVFrame* frame) override { return frame->pts == 2 ? own.get() : frame; }
  FramePtr own = Picture(AV_PIX_FMT_YUV420P, 5);
};

struct PacketSizes : FilterBase {
  using FilterBase::filter;
  void filter(AVPacket* pkt) override { sizes.push_back(pkt->size); }
  std::vector<int> sizes;
};

TEST(VideoEncTest, EncodesConvertsFiltersAndFlushes) {
  test::LogCapture log;
  CaptureWriter writer;
  Stream s("libx264");
  AVFormatContext* oc = s.oc.get();
  MovieInfo info{};
  info.width = info.src_width = 64;
  info.height = info.src_height = 48;
  info.fps = 25;
  VideoEnc enc(&writer);
  enc.open(oc, s.codec, &s.ost, nullptr, info);
  enc.set_filter(new SwapFilter);

  // x264 holds pictures back for its look-ahead, so these give no packet
  // yet; the BGRA one is converted, the one at pts 2 swapped by the filter.
  FramePtr yuv = Picture(AV_PIX_FMT_YUV420P, 0), bgra = Picture(AV_PIX_FMT_BGRA, 1);
  FramePtr swapped = Picture(AV_PIX_FMT_YUV420P, 2);
  for (AVFrame* f : {yuv.get(), bgra.get(), swapped.get()}) EXPECT_EQ(enc.encode(oc, &s.ost, f), 0);
  EXPECT_TRUE(writer.seen.empty());
  EXPECT_EQ(enc.encode(oc, &s.ost, nullptr), 3);
  std::set<int64_t> pts;
  for (const CaptureWriter::Seen& p : writer.seen) {
    pts.insert(p.pts);
    EXPECT_TRUE(av_cmp_q(p.tb, {1, 25}) == 0 && p.stream == s.ost.st->index && p.interleave == 1);
  }
  EXPECT_EQ(pts, (std::set<int64_t>{0, 1, 5}));
}

TEST(AudioEncTest, FiltersPacketsAndSizesFrames) {
  test::LogCapture log;
  CaptureWriter writer;
  Stream pcm("pcm_s16le", AV_SAMPLE_FMT_S16);
  AVFormatContext* oc = pcm.oc.get();
  AudioEnc enc(&writer);
  PacketSizes sizes;
  enc.set_filter(&sizes);  // borrowed: the encoder must not delete it
  enc.open(oc, pcm.codec, &pcm.ost, nullptr, MovieInfo{});
  AVFrame* frame = pcm.ost.frame.get();
  ASSERT_EQ(frame->nb_samples, 10000);  // the codec takes any frame size
  std::memset(frame->data[0], 0, frame->linesize[0]);

  frame->pts = 0;
  EXPECT_EQ(enc.encode(oc, &pcm.ost, frame), 1);
  EXPECT_EQ(sizes.sizes, std::vector<int>{40000});
  ASSERT_EQ(writer.seen.size(), 1u);
  writer.refuse = true;
  frame->pts = 10000;
  EXPECT_EQ(enc.encode(oc, &pcm.ost, frame), -3);
}

}  // namespace
