#include "packet/annexb_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/tone.h"

namespace {

using namespace zeva;
using test::Bytes;

// The NAL units of an Annex B buffer, start codes (3 or 4 bytes) stripped.
std::vector<Bytes> SplitAnnexB(const Bytes& b) {
  std::vector<size_t> starts;  // first byte after each start code
  for (size_t i = 0; i + 3 <= b.size(); ++i) {
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
      starts.push_back(i + 3);
      i += 2;
    }
  }
  std::vector<Bytes> nals;
  for (size_t k = 0; k < starts.size(); ++k) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : b.size();
    if (k + 1 < starts.size() && end > starts[k] && b[end - 1] == 0) --end;  // 4-byte code
    nals.emplace_back(b.begin() + starts[k], b.begin() + end);
  }
  return nals;
}

int NalType(const Bytes& nal) { return nal.empty() ? -1 : nal[0] & 0x1F; }

// Eight 64x64 pictures from libx264 with global headers: SPS and PPS only
// in the extradata, and each picture as 4-byte length-prefixed NAL units,
// as an MP4-minded host has them.
struct X264Stream {
  static constexpr int kFrames = 8;
  X264Stream() {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    CodecContextPtr c(avcodec_alloc_context3(codec));
    c->width = c->height = 64;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = {1, 25};
    c->gop_size = 4;
    c->thread_count = 1;
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    FramePtr f = NewFrame();
    PacketPtr pkt = NewPacket();
    f->width = f->height = 64;
    f->format = AV_PIX_FMT_YUV420P;
    if (avcodec_open2(c.get(), codec, nullptr) < 0 || av_frame_get_buffer(f.get(), 0) < 0) return;
    for (const Bytes& nal : SplitAnnexB(Bytes(c->extradata, c->extradata + c->extradata_size))) {
      if (NalType(nal) == 7) sps = nal;
      if (NalType(nal) == 8) pps = nal;
    }
    for (int i = 0; i <= kFrames; ++i) {
      if (i < kFrames) {
        if (av_frame_make_writable(f.get()) < 0) return;
        for (int p = 0; p < 3; ++p)
          for (int y = 0; y < (p ? 32 : 64); ++y)
            for (int x = 0; x < (p ? 32 : 64); ++x)
              f->data[p][y * f->linesize[p] + x] = static_cast<uint8_t>(x * 3 + y + i * 7 + p * 50);
        f->pts = i;
      }
      if (avcodec_send_frame(c.get(), i < kFrames ? f.get() : nullptr) < 0) return;
      while (avcodec_receive_packet(c.get(), pkt.get()) == 0) {
        Bytes prefixed;
        for (const Bytes& n : SplitAnnexB(Bytes(pkt->data, pkt->data + pkt->size))) {
          const uint32_t len = static_cast<uint32_t>(n.size());
          prefixed.insert(prefixed.end(), {uint8_t(len >> 24), uint8_t(len >> 16),
                                           uint8_t(len >> 8), uint8_t(len)});
          prefixed.insert(prefixed.end(), n.begin(), n.end());
        }
        packets.push_back(prefixed);
        av_packet_unref(pkt.get());
      }
    }
  }
  Bytes sps, pps;
  std::vector<Bytes> packets;
};

TEST(AnnexBFilter, RecordFromParameterSets) {
  Bytes sps(25), pps(4, 0xCC);
  for (size_t i = 0; i < sps.size(); ++i) sps[i] = static_cast<uint8_t>(0x60 + i);
  const Bytes rec = h264::AnnexBFilter::make_avcc(sps.data(), 25, pps.data(), 4);
  ASSERT_EQ(rec.size(), 40u);
  EXPECT_EQ(Bytes(rec.begin(), rec.begin() + 8), (Bytes{1, 0x61, 0x62, 0x63, 0xFF, 0xE1, 0, 25}));
  EXPECT_EQ(Bytes(rec.begin() + 8, rec.begin() + 33), sps);
  EXPECT_EQ(Bytes(rec.begin() + 33, rec.begin() + 36), (Bytes{1, 0, 4}));
  EXPECT_EQ(Bytes(rec.begin() + 36, rec.end()), pps);

  Bytes coded_sps{0, 0, 0, 1};
  coded_sps.insert(coded_sps.end(), sps.begin(), sps.end());
  EXPECT_EQ(h264::AnnexBFilter::make_avcc(coded_sps.data(), 29, pps.data(), 4), rec)
      << "a start code in front of the SPS is not part of it";
  EXPECT_EQ(h264::AnnexBFilter::create({nullptr, 0, nullptr, 0, nullptr, 0}), nullptr);
  EXPECT_EQ(h264::AnnexBFilter::create({sps.data(), 3, pps.data(), 4, nullptr, 0}), nullptr);
}

// Whether the host declares a configuration record or the raw SPS and PPS.
class AnnexBFilterStream : public ::testing::TestWithParam<bool> {};

TEST_P(AnnexBFilterStream, MakesADecodableAnnexBStream) {
  X264Stream in;
  ASSERT_FALSE(in.sps.empty());
  ASSERT_FALSE(in.pps.empty());
  ASSERT_EQ(in.packets.size(), static_cast<size_t>(X264Stream::kFrames));
  const int sps_len = int(in.sps.size()), pps_len = int(in.pps.size());
  const Bytes avcc = h264::AnnexBFilter::make_avcc(in.sps.data(), sps_len, in.pps.data(), pps_len);
  const ParameterSets sets = GetParam()
      ? ParameterSets{nullptr, 0, nullptr, 0, avcc.data(), int(avcc.size())}
      : ParameterSets{in.sps.data(), sps_len, in.pps.data(), pps_len, nullptr, 0};

  test::LogCapture log;
  auto filter = h264::AnnexBFilter::create(sets);
  ASSERT_NE(filter, nullptr);
  std::vector<Bytes> out;
  std::vector<int64_t> pts;
  auto sink = [&](const uint8_t* d, int n, int64_t p) {
    out.emplace_back(d, d + n);
    pts.push_back(p);
    return true;
  };
  // The last host packet holds the last two pictures.
  const int64_t kBase = 1000000, kStep = 40000;
  for (int i = 0; i < X264Stream::kFrames - 1; ++i) {
    Bytes host = in.packets[i];
    if (i == X264Stream::kFrames - 2) host.insert(host.end(), in.packets[i + 1].begin(),
                                                  in.packets[i + 1].end());
    ASSERT_TRUE(filter->filter(host.data(), int(host.size()), kBase + kStep * i, sink));
  }
  // One filtered packet per host packet: several pictures in one stay together.
  ASSERT_EQ(out.size(), static_cast<size_t>(X264Stream::kFrames - 1));
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(pts[i], kBase + kStep * static_cast<int64_t>(i));
    ASSERT_GE(out[i].size(), 4u);
    EXPECT_EQ(Bytes(out[i].begin(), out[i].begin() + 4), (Bytes{0, 0, 0, 1})) << "start code";
  }
  // SPS and PPS in front of the first IDR picture.
  std::vector<int> types;
  for (const Bytes& nal : SplitAnnexB(out[0])) types.push_back(NalType(nal));
  const auto idr = std::find(types.begin(), types.end(), 5);
  ASSERT_NE(idr, types.end());
  const auto sps_at = std::find(types.begin(), idr, 7);
  EXPECT_NE(sps_at, idr);
  EXPECT_NE(std::find(sps_at, idr, 8), idr);

  // Read as the raw "h264" input reads it: one byte stream, cut by the parser.
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  CodecContextPtr dec(avcodec_alloc_context3(codec));
  ASSERT_EQ(avcodec_open2(dec.get(), codec, nullptr), 0);
  Bytes stream;
  for (const Bytes& o : out) stream.insert(stream.end(), o.begin(), o.end());
  AVCodecParserContext* parser = av_parser_init(AV_CODEC_ID_H264);
  ASSERT_NE(parser, nullptr);
  std::vector<Bytes> access_units;
  for (size_t at = 0;;) {
    uint8_t* au = nullptr;
    int au_size = 0;
    const bool end = at == stream.size();
    at += av_parser_parse2(parser, dec.get(), &au, &au_size, end ? nullptr : stream.data() + at,
                           int(stream.size() - at), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (au_size > 0) access_units.emplace_back(au, au + au_size);
    if (end) break;
  }
  av_parser_close(parser);
  EXPECT_EQ(test::DecodeAll(dec.get(), access_units), X264Stream::kFrames);

  filter.reset();
  EXPECT_EQ(log.Count("4:~ bfilter()"), 1);
}

INSTANTIATE_TEST_SUITE_P(, AnnexBFilterStream, ::testing::Bool(), [](const auto& info) {
  return std::string(info.param ? "Extradata" : "SpsPps");
});

}  // namespace
