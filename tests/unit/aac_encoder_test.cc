// The AAC encoder of host PCM and the Opus transcoder of stream outputs,
// chained: a tone encoded in each PCM layout, checked frame by frame and
// decoded, then transcoded to Opus and decoded again.
#include "packet/aac_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "packet/aac_to_opus.h"
#include "support/tone.h"

namespace {

using namespace zeva;
using test::Bytes;

struct Row {
  const char* format;
  int rate;
  int channels;
};

class AacEncoderFormats : public ::testing::TestWithParam<Row> {};

TEST_P(AacEncoderFormats, AdtsFramesCountSamplesAndDecodeToTheTone) {
  const Row row = GetParam();
  const int total = row.rate, ch = row.channels;  // one second
  const std::vector<float> tone = test::Sine(total, row.rate, 1000.0, 0.5);
  // The tone on every channel, laid out as the format names it.
  const bool s16 = std::strcmp(row.format, "s16") == 0;
  const bool planar = std::strcmp(row.format, "flt32p") == 0;
  const int bytes = s16 ? 2 : 4;
  Bytes pcm(size_t(total) * ch * bytes);
  for (int i = 0; i < total; ++i) {
    for (int c = 0; c < ch; ++c) {
      const size_t at = planar ? size_t(c) * total + i : size_t(i) * ch + c;
      if (s16) reinterpret_cast<int16_t*>(pcm.data())[at] = static_cast<int16_t>(tone[i] * 32767);
      else reinterpret_cast<float*>(pcm.data())[at] = tone[i];
    }
  }
  auto planes = [&](int from) {
    std::vector<uint8_t*> p;
    for (int c = 0; c < (planar ? ch : 1); ++c)
      p.push_back(pcm.data() + (planar ? size_t(c) * total + from : size_t(from) * ch) * bytes);
    return p;
  };

  int code = 1;
  auto enc = AACEncoder::create({row.rate, ch, row.format, 96}, AACEncoder::kGlobalHeader, &code);
  ASSERT_NE(enc, nullptr);
  EXPECT_EQ(code, 0);
  std::vector<Bytes> frames;
  std::vector<PacketPtr> packets;  // the same frames, stamped in microseconds
  int ends = 0;
  auto sink = [&](const uint8_t* data, int nbytes, int64_t p) {
    if (data == nullptr) return ++ends, true;
    frames.emplace_back(data, data + nbytes);
    packets.push_back(NewPacket());
    av_new_packet(packets.back().get(), nbytes);
    std::memcpy(packets.back()->data, data, size_t(nbytes));
    packets.back()->pts = packets.back()->dts = p;
    return true;
  };
  // Odd call sizes, so frames straddle host calls; the host's time is ignored.
  for (int at = 0; at < total; at += 441) {
    ASSERT_TRUE(enc->encode(planes(at).data(), std::min(441, total - at), 123456789, sink));
  }
  ASSERT_TRUE(enc->encode(nullptr, 0, 0, sink));
  EXPECT_EQ(ends, 1);
  EXPECT_FALSE(enc->encode(planes(0).data(), 1024, 0, sink)) << "ended";
  // Every sample is in a frame (the last one short), plus the encoder's priming frame.
  ASSERT_EQ(frames.size(), static_cast<size_t>((total + 1023) / 1024 + 1));
  // Each frame is one ADTS frame (its header fields are the decoder's to
  // judge), stamped by the samples before it.
  for (size_t i = 0; i < frames.size(); ++i) {
    ASSERT_GT(frames[i].size(), 7u);
    EXPECT_EQ(frames[i][0], 0xFF);
    EXPECT_EQ(((frames[i][3] & 3) << 11) | (frames[i][4] << 3) | (frames[i][5] >> 5), int(frames[i].size()));
    EXPECT_EQ(packets[i]->pts, static_cast<int64_t>(i) * 1024 * 1000000 / row.rate);
  }
  const AVCodec* aac = avcodec_find_decoder(AV_CODEC_ID_AAC);
  CodecContextPtr dec(avcodec_alloc_context3(aac));
  ASSERT_EQ(avcodec_open2(dec.get(), aac, nullptr), 0);
  std::vector<float> decoded;
  ASSERT_EQ(test::DecodeAll(dec.get(), frames, &decoded), static_cast<int>(frames.size()));
  EXPECT_EQ(dec->sample_rate, row.rate);
  EXPECT_EQ(dec->ch_layout.nb_channels, ch);
  test::ToneMeasure m = test::Measure(decoded, row.rate, 4096, total - 8192);
  EXPECT_NEAR(m.freq, 1000.0, 5.0);
  EXPECT_NEAR(m.rms, 0.5 / std::sqrt(2.0), 0.05);

  // Stream outputs carry it as Opus, 48 kHz stereo whatever came in; the
  // timestamps count samples from the Opus encoder's priming on.
  AacToOpus opus;
  CodecParametersPtr par(avcodec_parameters_alloc());
  ASSERT_GE(avcodec_parameters_from_context(par.get(), dec.get()), 0);
  const Status st = opus.init(par.get());
  ASSERT_TRUE(st.ok) << st.code << " " << st.message;
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
  for (const PacketPtr& p : packets) ASSERT_TRUE(opus.transcode(p.get(), AVRational{1, 1000000}, emit));
  ASSERT_TRUE(opus.transcode(nullptr, AVRational{1, 1000000}, emit));
  ASSERT_GT(out.size(), 40u);
  EXPECT_EQ(pts[0], -opus.encoder()->initial_padding);
  for (size_t i = 1; i < out.size(); ++i) EXPECT_EQ(pts[i], pts[i - 1] + duration[i - 1]) << i;
  // Decoded, it lasts as long as the decoded AAC did (priming and padding
  // included) within two Opus frames, and it is still the tone.
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_OPUS);
  CodecContextPtr opus_dec(avcodec_alloc_context3(codec));
  ASSERT_GE(avcodec_parameters_from_context(par.get(), opus.encoder()), 0);
  ASSERT_GE(avcodec_parameters_to_context(opus_dec.get(), par.get()), 0);
  ASSERT_EQ(avcodec_open2(opus_dec.get(), codec, nullptr), 0);
  std::vector<float> left;
  ASSERT_GT(test::DecodeAll(opus_dec.get(), out, &left), 0);
  EXPECT_EQ(opus_dec->sample_rate, 48000);
  EXPECT_EQ(opus_dec->ch_layout.nb_channels, 2);
  EXPECT_NEAR(double(left.size()) - opus.encoder()->initial_padding,
              double(decoded.size()) * 48000 / row.rate, 2 * opus.encoder()->frame_size);
  m = test::Measure(left, 48000, 4800, 48000 - 9600);
  EXPECT_NEAR(m.freq, 1000.0, 5.0);
  EXPECT_GT(m.rms, 0.2);  // a mono tone of rms 0.35 spreads over two channels at -3 dB
}

INSTANTIATE_TEST_SUITE_P(, AacEncoderFormats,
                         ::testing::Values(Row{"s16", 44100, 2}, Row{"flt32p", 48000, 2}, Row{"flt32", 22050, 1}),
                         [](const auto& info) { return std::string(info.param.format); });

// The resampler under the encoder converts between channel counts too: a
// mono tone comes out the same on both channels of a stereo output.
TEST(FFResample, MonoToStereo) {
  FFResample r;
  ASSERT_TRUE(r.init(AV_SAMPLE_FMT_FLT, 48000, 1, AV_SAMPLE_FMT_FLTP, 48000, 2));
  FramePtr in = NewFrame();
  in->format = AV_SAMPLE_FMT_FLT;
  in->sample_rate = 48000;
  in->nb_samples = 960;
  av_channel_layout_default(&in->ch_layout, 1);
  ASSERT_EQ(av_frame_get_buffer(in.get(), 0), 0);
  const std::vector<float> tone = test::Sine(960, 48000, 1000.0, 0.5);
  std::copy(tone.begin(), tone.end(), reinterpret_cast<float*>(in->data[0]));
  ASSERT_TRUE(r.push(in.get()));
  ASSERT_TRUE(r.drain());
  ASSERT_GE(r.size(), 900);
  const AVFrame* out = r.read(900);
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(out->ch_layout.nb_channels, 2);
  const auto* left = reinterpret_cast<const float*>(out->data[0]);
  const auto* right = reinterpret_cast<const float*>(out->data[1]);
  EXPECT_EQ(std::vector<float>(left, left + 900), std::vector<float>(right, right + 900));
  EXPECT_GT(test::Measure(std::vector<float>(left, left + 900), 48000, 0, 900).rms, 0.2);
}

TEST(AacEncoder, RefusesWhatItCannotEncode) {
  struct Bad {
    AacSettings settings;
    int code;
  };
  for (const Bad& b : {Bad{{44100, 2, "flt", 96}, -23}, Bad{{44100, 2, nullptr, 96}, -23},
                       Bad{{44100, 0, "s16", 96}, -24}, Bad{{50000, 2, "s16", 96}, -25}}) {
    int code = 0;
    EXPECT_EQ(AACEncoder::create(b.settings, AACEncoder::kGlobalHeader, &code), nullptr);
    EXPECT_EQ(code, b.code) << b.settings.sample_rate << " " << b.settings.channels;
  }
}

}  // namespace
