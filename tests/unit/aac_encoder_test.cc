// The AAC encoder of host PCM and the Opus transcoder of stream outputs,
// chained: a tone encoded in each PCM layout and decoded, then transcoded to
// Opus and decoded again.
#include "packet/aac_encoder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "packet/aac_to_opus.h"
#include "packet/ff_resample.h"
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

TEST_P(AacEncoderFormats, EncodeToTheToneAndTranscodeToOpus) {
  const Row row = GetParam();
  const int total = row.rate, ch = row.channels;  // one second
  const std::vector<float> tone = test::Sine(total, row.rate, 1000.0, 0.5);
  // The tone on every channel, laid out as the format names it.
  const bool s16 = std::strcmp(row.format, "s16") == 0, planar = std::strcmp(row.format, "flt32p") == 0;
  const int bytes = s16 ? 2 : 4;
  Bytes pcm(size_t(total) * ch * bytes);
  for (size_t i = 0; i < size_t(total) * ch; ++i) {
    const float v = tone[planar ? i % total : i / ch];
    if (s16) reinterpret_cast<int16_t*>(pcm.data())[i] = static_cast<int16_t>(v * 32767);
    else reinterpret_cast<float*>(pcm.data())[i] = v;
  }
  auto enc = AACEncoder::create({row.rate, ch, row.format, 96}, AACEncoder::kGlobalHeader, nullptr);
  ASSERT_NE(enc, nullptr);
  std::vector<Bytes> frames;
  std::vector<int64_t> pts;
  auto sink = [&](const uint8_t* data, int nbytes, int64_t p) {
    if (data != nullptr) frames.emplace_back(data, data + nbytes), pts.push_back(p);
    return true;
  };
  // Odd call sizes, so frames straddle host calls; the host's time is ignored.
  for (int at = 0; at < total; at += 441) {
    uint8_t* planes[2] = {pcm.data() + size_t(at) * bytes * (planar ? 1 : ch), pcm.data() + size_t(total + at) * bytes};
    ASSERT_TRUE(enc->encode(planes, std::min(441, total - at), 123456789, sink));
  }
  ASSERT_TRUE(enc->encode(nullptr, 0, 0, sink));
  // Every sample is in a frame (the last one short), plus the priming frame,
  // each stamped by the samples before it.
  ASSERT_EQ(frames.size(), static_cast<size_t>((total + 1023) / 1024 + 1));
  for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(pts[i], int64_t(i) * 1024 * 1000000 / row.rate);
  const AVCodec* aac = avcodec_find_decoder(AV_CODEC_ID_AAC);
  CodecContextPtr dec(avcodec_alloc_context3(aac));
  ASSERT_EQ(avcodec_open2(dec.get(), aac, nullptr), 0);
  const std::vector<float> decoded = test::DecodeAll(dec.get(), frames);
  const auto [freq, rms] = test::Measure(decoded, row.rate, 4096, total - 8192);
  EXPECT_NEAR(freq, 1000.0, 10.0);
  EXPECT_NEAR(rms, 0.5 / std::sqrt(2.0), 0.05);

  // Stream outputs carry it as Opus at 48 kHz, stamped by samples from the
  // encoder's priming on (its decoding is checked on a live server).
  AacToOpus opus;
  CodecParametersPtr par(avcodec_parameters_alloc());
  ASSERT_GE(avcodec_parameters_from_context(par.get(), dec.get()), 0);
  ASSERT_TRUE(opus.init(par.get()).ok);
  int64_t next = -opus.encoder()->initial_padding;
  auto emit = [&](AVPacket* p, const AVRational&) {
    EXPECT_EQ(p->pts, next);
    next = p->pts + p->duration;
    return true;
  };
  for (size_t i = 0; i < frames.size(); ++i) {
    PacketPtr p = NewPacket();
    ASSERT_EQ(av_new_packet(p.get(), int(frames[i].size())), 0);
    std::memcpy(p->data, frames[i].data(), frames[i].size());
    p->pts = p->dts = pts[i];
    ASSERT_TRUE(opus.transcode(p.get(), AVRational{1, 1000000}, emit));
  }
  ASSERT_TRUE(opus.transcode(nullptr, AVRational{1, 1000000}, emit));
  EXPECT_NEAR(double(next) / 48000, double(total) / row.rate, 0.15);  // what was heard, in time
}

INSTANTIATE_TEST_SUITE_P(, AacEncoderFormats,
                         ::testing::Values(Row{"s16", 44100, 2}, Row{"flt32p", 48000, 2}, Row{"flt32", 22050, 1}),
                         [](const auto& info) { return std::string(info.param.format); });

// The resampler under both converts channel counts too.
TEST(FFResample, MonoToStereo) {
  FFResample r;
  ASSERT_TRUE(r.init(AV_SAMPLE_FMT_FLT, 48000, 1, AV_SAMPLE_FMT_FLTP, 48000, 2));
  FramePtr in = NewFrame();
  in->format = AV_SAMPLE_FMT_FLT;
  in->sample_rate = 48000;
  in->nb_samples = 960;
  av_channel_layout_default(&in->ch_layout, 1);
  ASSERT_EQ(av_frame_get_buffer(in.get(), 0), 0);
  std::fill_n(reinterpret_cast<float*>(in->data[0]), 960, 0.5f);
  ASSERT_TRUE(r.push(in.get()) && r.drain());
  const AVFrame* out = r.read(900);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->ch_layout.nb_channels, 2);
}

}  // namespace
