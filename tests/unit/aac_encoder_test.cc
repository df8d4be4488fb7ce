#include "packet/aac_encoder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "support/tone.h"

namespace {

using namespace zeva;

struct Frame {
  std::vector<uint8_t> bytes;
  int64_t pts;
};

struct Row {
  const char* format;
  int rate;
  int channels;
  int sampling_index;
};

class AacEncoderFormats : public ::testing::TestWithParam<Row> {};

// Host PCM for `tone` on every channel, laid out as the format names it.
struct HostPcm {
  HostPcm(const Row& row, const std::vector<float>& tone) {
    const int ch = row.channels;
    const size_t n = tone.size();
    if (std::strcmp(row.format, "s16") == 0) {
      bytes.resize(n * ch * 2);
      auto* s = reinterpret_cast<int16_t*>(bytes.data());
      for (size_t i = 0; i < n; ++i)
        for (int c = 0; c < ch; ++c) s[i * ch + c] = static_cast<int16_t>(tone[i] * 32767);
      sample_bytes = 2 * ch;
    } else if (std::strcmp(row.format, "flt32") == 0) {
      bytes.resize(n * ch * 4);
      auto* f = reinterpret_cast<float*>(bytes.data());
      for (size_t i = 0; i < n; ++i)
        for (int c = 0; c < ch; ++c) f[i * ch + c] = tone[i];
      sample_bytes = 4 * ch;
    } else {  // planar float
      bytes.resize(n * ch * 4);
      for (int c = 0; c < ch; ++c) std::memcpy(&bytes[c * n * 4], tone.data(), n * 4);
      plane_bytes = n * 4;
      planar_channels = ch;
      sample_bytes = 4;
    }
  }
  // The plane pointers of samples [from, ...).
  std::vector<uint8_t*> planes(size_t from) {
    std::vector<uint8_t*> p;
    if (planar_channels == 0) return {bytes.data() + from * sample_bytes};
    for (int c = 0; c < planar_channels; ++c) p.push_back(bytes.data() + c * plane_bytes + from * 4);
    return p;
  }
  std::vector<uint8_t> bytes;
  size_t sample_bytes = 0;
  size_t plane_bytes = 0;
  int planar_channels = 0;
};

TEST_P(AacEncoderFormats, AdtsFramesCountSamplesAndDecodeToTheTone) {
  const Row row = GetParam();
  const int total = row.rate;  // one second
  const std::vector<float> tone = test::Sine(total, row.rate, 1000.0, 0.5);
  HostPcm pcm(row, tone);

  int code = 1;
  auto enc = AACEncoder::create({row.rate, row.channels, row.format, 96}, AACEncoder::kGlobalHeader,
                                &code);
  ASSERT_NE(enc, nullptr);
  EXPECT_EQ(code, 0);

  std::vector<Frame> frames;
  int ends = 0;
  auto sink = [&](const uint8_t* data, int nbytes, int64_t pts) {
    if (data == nullptr) {
      ++ends;
      EXPECT_EQ(nbytes, 0);
    } else {
      frames.push_back({{data, data + nbytes}, pts});
    }
    return true;
  };
  // Odd chunk sizes, so frames straddle host calls.
  for (int at = 0, chunk = 441; at < total; at += chunk) {
    const int n = std::min(chunk, total - at);
    ASSERT_TRUE(enc->encode(pcm.planes(at).data(), n, 123456789, sink));
  }
  ASSERT_TRUE(enc->encode(nullptr, 0, 0, sink));
  EXPECT_EQ(ends, 1);
  EXPECT_FALSE(enc->encode(pcm.planes(0).data(), 1024, 0, sink)) << "ended";
  // Every sample is in a frame, plus the encoder's one frame of priming.
  ASSERT_EQ(frames.size(), static_cast<size_t>((total + 1023) / 1024 + 1));

  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  CodecContextPtr dec(avcodec_alloc_context3(codec));
  ASSERT_EQ(avcodec_open2(dec.get(), codec, nullptr), 0);
  test::Decoded decoded(dec.get());
  for (size_t i = 0; i < frames.size(); ++i) {
    const std::vector<uint8_t>& b = frames[i].bytes;
    ASSERT_GT(b.size(), 7u);
    EXPECT_EQ(b[0], 0xFF);
    EXPECT_EQ(b[1], 0xF1) << "sync, MPEG-4, layer 0, no CRC";
    EXPECT_EQ(b[2] >> 6, 1) << "AAC LC";
    EXPECT_EQ((b[2] >> 2) & 0xF, row.sampling_index);
    EXPECT_EQ(((b[2] & 1) << 2) | (b[3] >> 6), row.channels);
    EXPECT_EQ(((b[3] & 3) << 11) | (b[4] << 3) | (b[5] >> 5), static_cast<int>(b.size()));
    EXPECT_EQ(frames[i].pts, static_cast<int64_t>(i) * 1024 * 1000000 / row.rate);
    ASSERT_TRUE(decoded.Feed(b.data(), static_cast<int>(b.size()))) << "frame " << i;
  }
  ASSERT_TRUE(decoded.Feed(nullptr, 0));
  EXPECT_EQ(decoded.rate, row.rate);
  EXPECT_EQ(decoded.channels, row.channels);
  EXPECT_GE(decoded.channel0.size(), static_cast<size_t>(total));
  const test::ToneMeasure m = test::Measure(decoded.channel0, row.rate, 4096, total - 8192);
  EXPECT_NEAR(m.freq, 1000.0, 5.0);
  EXPECT_NEAR(m.rms, 0.5 / std::sqrt(2.0), 0.05);
}

INSTANTIATE_TEST_SUITE_P(, AacEncoderFormats,
                         ::testing::Values(Row{"s16", 44100, 2, 4}, Row{"flt32p", 48000, 1, 3},
                                           Row{"flt32", 22050, 2, 7}),
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
}

TEST(AacEncoder, SamplingIndexFallsBackTo44100) {
  EXPECT_EQ(AdtsSamplingIndex(96000), 0);
  EXPECT_EQ(AdtsSamplingIndex(22050), 7);
  EXPECT_EQ(AdtsSamplingIndex(7350), 12);
  EXPECT_EQ(AdtsSamplingIndex(50000), 4);
}

// Frames are cut at 1024 samples whatever the host's call sizes; the
// encoder hands out a frame's packet once the frame after it is in.
TEST(AacEncoder, PacketsFollowFrameBoundaries) {
  auto enc = AACEncoder::create({48000, 1, "flt32", 64}, AACEncoder::kGlobalHeader);
  ASSERT_NE(enc, nullptr);
  const std::vector<float> tone = test::Sine(4096, 48000, 440.0, 0.3);
  std::vector<int64_t> pts;
  auto sink = [&](const uint8_t* data, int, int64_t p) {
    if (data) pts.push_back(p);
    return true;
  };
  auto feed = [&](int from, int n) {
    uint8_t* plane = const_cast<uint8_t*>(reinterpret_cast<const uint8_t*>(tone.data() + from));
    return enc->encode(&plane, n, 0, sink);
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
