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

MovieInfo PatternInfo(int src_pix_fmt) {
  MovieInfo info{};
  info.width = info.src_width = 64;
  info.height = info.src_height = 48;
  info.src_pix_fmt = src_pix_fmt;
  info.fps = 25;
  return info;
}

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
  VideoEnc enc(&writer);
  enc.open(oc, s.codec, &s.ost, nullptr, PatternInfo(AV_PIX_FMT_YUV420P));
  FilterBase replaced;  // forgotten when replaced; deleting it would be a fault
  enc.set_filter(&replaced);
  enc.set_filter(new SwapFilter);

  // x264 holds pictures back for its look-ahead, so these give no packet
  // yet; the BGRA one is converted, the one at pts 2 swapped by the filter.
  FramePtr yuv = Picture(AV_PIX_FMT_YUV420P, 0), bgra = Picture(AV_PIX_FMT_BGRA, 1);
  FramePtr swapped = Picture(AV_PIX_FMT_YUV420P, 2);
  for (AVFrame* f : {yuv.get(), bgra.get(), swapped.get()}) EXPECT_EQ(enc.encode(oc, &s.ost, f), 0);
  EXPECT_EQ(enc.encode(nullptr, &s.ost, nullptr), -1);
  EXPECT_TRUE(writer.seen.empty());
  EXPECT_EQ(enc.encode(oc, &s.ost, nullptr), 3);
  std::set<int64_t> pts;
  for (const CaptureWriter::Seen& p : writer.seen) {
    pts.insert(p.pts);
    EXPECT_TRUE(av_cmp_q(p.tb, {1, 25}) == 0 && p.stream == s.ost.st->index && p.interleave == 1);
  }
  EXPECT_EQ(pts, (std::set<int64_t>{0, 1, 5}));
  // The codec is at end of stream now and refuses more.
  EXPECT_EQ(enc.encode(oc, &s.ost, nullptr), -2);
  EXPECT_EQ(log.Count("2:[video] enc frame failed: End of file"), 1);
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
  EXPECT_EQ(av_cmp_q(writer.seen[0].tb, AVRational{1, 48000}), 0);
  writer.refuse = true;
  frame->pts = 10000;
  EXPECT_EQ(enc.encode(oc, &pcm.ost, frame), -3);
  EXPECT_EQ(log.Count("2:[write-packet] error while writing audio frame: ret=-5, "
                      "Input/output error"), 1);
  EXPECT_EQ(enc.encode(nullptr, &pcm.ost, frame), -1);

  Stream aac("aac", AV_SAMPLE_FMT_FLTP);
  AudioEnc fixed(&writer);
  fixed.open(aac.oc.get(), aac.codec, &aac.ost, nullptr, MovieInfo{});
  EXPECT_EQ(aac.ost.frame->nb_samples, 1024);
}

// The test signals restart every 10 seconds of each encoder's own stream,
// and a second recording starts from the beginning, whatever the first did.
TEST(TestSignalTest, RestartPerEncoderAndEveryTenSeconds) {
  CaptureWriter writer;
  MovieInfo info = PatternInfo(AV_PIX_FMT_YUV420P);
  info.src_sample_rate = 44100;
  info.sample_rate = 48000;
  info.channels = 2;
  info.sample_fmt = AV_SAMPLE_FMT_S16;
  std::vector<int64_t> seen[2];  // per run: pts and a sample of chosen frames
  for (auto& s : seen) {
    Stream v("libx264"), a("pcm_s16le", AV_SAMPLE_FMT_S16);
    VideoEnc venc(&writer);
    AudioEnc aenc(&writer);
    venc.open(v.oc.get(), v.codec, &v.ost, nullptr, info);
    aenc.open(a.oc.get(), a.codec, &a.ost, nullptr, info);
    for (int i = 0; i <= 250; ++i) {  // 250: the first frame at 10 s
      const AVFrame* f = venc.generate_test_frame(&v.ost, AVRational{1, 1000});
      ASSERT_NE(f, nullptr);
      if (i < 2 || i == 250) s.insert(s.end(), {f->pts, f->data[0][2 * f->linesize[0] + 3]});
    }
    for (int k = 0; k <= 53; ++k) {  // 53: the first frame past 10 s of codec time
      const AVFrame* f = aenc.generate_test_frame(&a.ost, AVRational{1, 1000});
      ASSERT_NE(f, nullptr);
      ASSERT_EQ(f->nb_samples, 9188);  // 10000 samples at 48 kHz, taken at 44.1 kHz
      if (k < 2 || k == 53) s.insert(s.end(), {f->pts, reinterpret_cast<const int16_t*>(f->data[0])[2]});
    }
  }
  EXPECT_EQ(seen[0], seen[1]);
  ASSERT_EQ(seen[0].size(), 12u);
  EXPECT_EQ(std::vector<int64_t>(seen[0].begin(), seen[0].begin() + 4), (std::vector<int64_t>{0, 5, 40, 8}));
  EXPECT_EQ(seen[0][4], 10000);
  EXPECT_EQ(seen[0][5], seen[0][1]);  // the pattern's first step again
  EXPECT_EQ(seen[0][8], 208);         // 9188 / 44.1
  EXPECT_EQ(seen[0][11], seen[0][7]);  // the tone's start again
  // Other source formats go through a scaler.
  Stream s("libx264");
  VideoEnc enc(&writer);
  enc.open(s.oc.get(), s.codec, &s.ost, nullptr, PatternInfo(AV_PIX_FMT_BGRA));
  EXPECT_EQ(enc.generate_test_frame(&s.ost, AVRational{1, 25})->format, AV_PIX_FMT_BGRA);
}

TEST(EncoderOpenTest, FailureThrowsTheCodecsText) {
  test::LogCapture log;
  CaptureWriter writer;
  Stream video("libx264");
  video.ost.enc->width = 0;
  VideoEnc venc(&writer);
  std::string what;
  try {
    venc.open(video.oc.get(), video.codec, &video.ost, nullptr, MovieInfo{});
  } catch (const EncoderError& e) {
    what = e.what();
  }
  EXPECT_EQ(what.rfind("Could not open video codec: ", 0), 0u) << what;
  EXPECT_EQ(log.Count("2:" + what), 1);
}

}  // namespace
