#include "packet/aac_encoder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/tone.h"

namespace {

using namespace zeva;
using test::Bytes;

struct Row {
  const char* format;
  int rate;
  int channels;
  int sampling_index;
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
  std::vector<int64_t> pts;
  int ends = 0;
  auto sink = [&](const uint8_t* data, int nbytes, int64_t p) {
    if (data == nullptr) return ++ends, true;
    frames.emplace_back(data, data + nbytes);
    pts.push_back(p);
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

  for (size_t i = 0; i < frames.size(); ++i) {
    const Bytes& b = frames[i];
    ASSERT_GT(b.size(), 7u);
    EXPECT_EQ(b[0], 0xFF);
    EXPECT_EQ(b[1], 0xF1) << "sync, MPEG-4, layer 0, no CRC";
    EXPECT_EQ(b[2] >> 6, 1) << "AAC LC";
    EXPECT_EQ((b[2] >> 2) & 0xF, row.sampling_index);
    EXPECT_EQ(((b[2] & 1) << 2) | (b[3] >> 6), ch);
    EXPECT_EQ(((b[3] & 3) << 11) | (b[4] << 3) | (b[5] >> 5), static_cast<int>(b.size()));
    EXPECT_EQ(pts[i], static_cast<int64_t>(i) * 1024 * 1000000 / row.rate);
  }
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  CodecContextPtr dec(avcodec_alloc_context3(codec));
  ASSERT_EQ(avcodec_open2(dec.get(), codec, nullptr), 0);
  std::vector<float> decoded;
  ASSERT_EQ(test::DecodeAll(dec.get(), frames, &decoded), static_cast<int>(frames.size()));
  EXPECT_EQ(dec->sample_rate, row.rate);
  EXPECT_EQ(dec->ch_layout.nb_channels, ch);
  const test::ToneMeasure m = test::Measure(decoded, row.rate, 4096, total - 8192);
  EXPECT_NEAR(m.freq, 1000.0, 5.0);
  EXPECT_NEAR(m.rms, 0.5 / std::sqrt(2.0), 0.05);
}

INSTANTIATE_TEST_SUITE_P(, AacEncoderFormats,
                         ::testing::Values(Row{"s16", 44100, 2, 4}, Row{"flt32p", 48000, 2, 3},
                                           Row{"flt32", 22050, 1, 7}),
                         [](const auto& info) { return std::string(info.param.format); });

TEST(AacEncoder, RefusesWhatItCannotEncode) {
  struct Bad { AacSettings settings; int code; };
  const Bad rows[] = {
      {{44100, 2, "flt", 96}, -23},
      {{44100, 2, nullptr, 96}, -23},
      {{44100, 0, "s16", 96}, -24},
      {{50000, 2, "s16", 96}, -25},  // not an AAC sampling rate
  };
  for (const Bad& b : rows) {
    int code = 0;
    EXPECT_EQ(AACEncoder::create(b.settings, AACEncoder::kGlobalHeader, &code), nullptr);
    EXPECT_EQ(code, b.code) << b.settings.sample_rate << " " << b.settings.channels;
  }
  EXPECT_EQ(AdtsSamplingIndex(50000), 4) << "header of a rate outside the table";
}

// Frames are cut at 1024 samples whatever the host's call sizes; the
// encoder hands out a frame's packet once the frame after it is in.
TEST(AacEncoder, PacketsFollowFrameBoundaries) {
  auto enc = AACEncoder::create({48000, 1, "flt32", 64}, AACEncoder::kGlobalHeader);
  ASSERT_NE(enc, nullptr);
  std::vector<float> tone = test::Sine(4096, 48000, 440.0, 0.3);
  std::vector<int64_t> pts;
  auto feed = [&](int from, int n) {
    uint8_t* plane = reinterpret_cast<uint8_t*>(tone.data() + from);
    return enc->encode(&plane, n, 0, [&](const uint8_t* d, int, int64_t p) {
      if (d) pts.push_back(p);
      return true;
    });
  };
  ASSERT_TRUE(feed(0, 1000));
  ASSERT_TRUE(feed(1000, 100));  // completes the first frame
  ASSERT_TRUE(feed(1100, 947));  // one sample short of the second
  EXPECT_TRUE(pts.empty());
  ASSERT_TRUE(feed(2047, 1));
  EXPECT_EQ(pts, std::vector<int64_t>{0});
  ASSERT_TRUE(feed(2048, 1024));
  EXPECT_EQ(pts, (std::vector<int64_t>{0, 21333}));
}

}  // namespace
