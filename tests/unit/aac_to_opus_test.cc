#include "packet/aac_to_opus.h"

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "support/tone.h"

namespace {

using namespace zeva;
using test::Bytes;

constexpr int kAacRate = 44100;
constexpr int kToneHz = 440;

// One second of a tone on every channel, AAC-encoded by FFmpeg as an RTSP
// output's input stream would carry it.
struct AacStream {
  explicit AacStream(int channels) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    CodecContextPtr c(avcodec_alloc_context3(codec));
    c->sample_fmt = AV_SAMPLE_FMT_FLTP;
    c->sample_rate = kAacRate;
    c->time_base = {1, kAacRate};
    c->bit_rate = 128000;
    av_channel_layout_default(&c->ch_layout, channels);
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    par.reset(avcodec_parameters_alloc());
    if (avcodec_open2(c.get(), codec, nullptr) < 0 ||
        avcodec_parameters_from_context(par.get(), c.get()) < 0) {
      return;
    }
    const std::vector<float> tone = test::Sine(kAacRate, kAacRate, kToneHz, 0.5);
    FramePtr f = NewFrame();
    PacketPtr pkt = NewPacket();
    for (int at = 0;; at += c->frame_size) {
      const bool drain = at >= kAacRate;
      if (!drain) {
        f->format = c->sample_fmt;
        f->sample_rate = kAacRate;
        f->nb_samples = std::min(c->frame_size, kAacRate - at);
        av_channel_layout_copy(&f->ch_layout, &c->ch_layout);
        if (av_frame_get_buffer(f.get(), 0) < 0) return;
        for (int ch = 0; ch < channels; ++ch)
          std::copy_n(tone.begin() + at, f->nb_samples, reinterpret_cast<float*>(f->data[ch]));
        f->pts = at;
      }
      if (avcodec_send_frame(c.get(), drain ? nullptr : f.get()) < 0) return;
      av_frame_unref(f.get());
      while (avcodec_receive_packet(c.get(), pkt.get()) == 0) {
        packets.emplace_back(av_packet_clone(pkt.get()));
        av_packet_unref(pkt.get());
      }
      if (drain) break;
    }
  }
  CodecParametersPtr par;
  std::vector<PacketPtr> packets;
};

class AacToOpusChannels : public ::testing::TestWithParam<int> {};

TEST_P(AacToOpusChannels, TranscodesTheWholeStream) {
  AacStream aac(GetParam());
  ASSERT_GT(aac.packets.size(), 40u);
  AacToOpus t;
  const Status st = t.init(aac.par.get());
  ASSERT_TRUE(st.ok) << st.code << " " << st.message;
  ASSERT_NE(t.encoder(), nullptr);
  EXPECT_EQ(av_cmp_q(t.time_base(), AVRational{1, 48000}), 0);

  std::vector<Bytes> out;
  std::vector<int64_t> pts, duration;
  auto emit = [&](AVPacket* p, const AVRational& tb) {
    EXPECT_EQ(av_cmp_q(tb, AVRational{1, 48000}), 0);
    EXPECT_EQ(p->stream_index, -1);
    out.emplace_back(p->data, p->data + p->size);
    pts.push_back(p->pts);
    duration.push_back(p->duration);
    return true;
  };
  const AVRational aac_tb{1, kAacRate};
  for (const PacketPtr& p : aac.packets) ASSERT_TRUE(t.transcode(p.get(), aac_tb, emit));
  ASSERT_TRUE(t.transcode(nullptr, aac_tb, emit));
  ASSERT_GT(out.size(), 40u);
  // Timestamps count samples: from the encoder's priming offset on, each
  // packet follows the previous one.
  EXPECT_EQ(pts[0], -t.encoder()->initial_padding);
  for (size_t i = 1; i < out.size(); ++i) EXPECT_EQ(pts[i], pts[i - 1] + duration[i - 1]) << i;

  // Decoded, it lasts as long as the decoded AAC did (priming and padding
  // included) within two Opus frames, and it is still the tone.
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_OPUS);
  CodecContextPtr dec(avcodec_alloc_context3(codec));
  ASSERT_GE(avcodec_parameters_from_context(aac.par.get(), t.encoder()), 0);
  ASSERT_GE(avcodec_parameters_to_context(dec.get(), aac.par.get()), 0);
  ASSERT_EQ(avcodec_open2(dec.get(), codec, nullptr), 0);
  std::vector<float> decoded;
  ASSERT_GT(test::DecodeAll(dec.get(), out, &decoded), 0);
  EXPECT_EQ(dec->sample_rate, 48000);
  EXPECT_EQ(dec->ch_layout.nb_channels, 2);
  const double aac_samples = double(aac.packets.size()) * 1024 * 48000 / kAacRate;
  EXPECT_NEAR(double(decoded.size()) - t.encoder()->initial_padding, aac_samples,
              2 * t.encoder()->frame_size);
  const test::ToneMeasure m = test::Measure(decoded, 48000, 4800, 48000 - 9600);
  EXPECT_NEAR(m.freq, kToneHz, 3);
  EXPECT_GT(m.rms, 0.2);  // a mono tone of rms 0.35 spreads over two channels at -3 dB
}

INSTANTIATE_TEST_SUITE_P(, AacToOpusChannels, ::testing::Values(1, 2),
                         [](const auto& info) { return info.param == 1 ? "Mono" : "Stereo"; });

TEST(AacToOpus, RefusesAStreamItCannotDecode) {
  CodecParametersPtr par(avcodec_parameters_alloc());
  AacToOpus t;
  const Status st = t.init(par.get());
  EXPECT_FALSE(st.ok);
  EXPECT_EQ(st.code, -1);
  EXPECT_EQ(st.message, "AAC decoder not found (id=0).");
  EXPECT_EQ(t.encoder(), nullptr);
}

}  // namespace
