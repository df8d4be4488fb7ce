#include "packet/annexb_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "support/log_capture.h"

namespace {

using namespace zeva;
using Bytes = std::vector<uint8_t>;

// The NAL units of an Annex B buffer, start codes stripped.
std::vector<Bytes> SplitAnnexB(const Bytes& b) {
  std::vector<Bytes> nals;
  size_t i = 0, start = 0;
  bool in_nal = false;
  while (i + 3 <= b.size()) {
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
      if (in_nal) {
        size_t end = i;
        while (end > start && b[end - 1] == 0) --end;  // the 4-byte code's leading zero
        nals.emplace_back(b.begin() + start, b.begin() + end);
      }
      i += 3;
      start = i;
      in_nal = true;
    } else {
      ++i;
    }
  }
  if (in_nal) nals.emplace_back(b.begin() + start, b.end());
  return nals;
}

Bytes LengthPrefixed(const std::vector<Bytes>& nals) {
  Bytes out;
  for (const Bytes& n : nals) {
    const uint32_t len = static_cast<uint32_t>(n.size());
    out.insert(out.end(), {uint8_t(len >> 24), uint8_t(len >> 16), uint8_t(len >> 8), uint8_t(len)});
    out.insert(out.end(), n.begin(), n.end());
  }
  return out;
}

int NalType(const Bytes& nal) { return nal.empty() ? -1 : nal[0] & 0x1F; }

// Eight 64x64 frames from libx264 with global headers: SPS and PPS only in
// the extradata, as an MP4-minded host has them, and each picture as
// length-prefixed NAL units.
struct X264Stream {
  X264Stream() {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    CodecContextPtr c(avcodec_alloc_context3(codec));
    c->width = c->height = 64;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = {1, 25};
    c->gop_size = 4;
    c->max_b_frames = 0;
    c->thread_count = 1;
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (avcodec_open2(c.get(), codec, nullptr) < 0) return;
    for (const Bytes& nal : SplitAnnexB(Bytes(c->extradata, c->extradata + c->extradata_size))) {
      if (NalType(nal) == 7) sps = nal;
      if (NalType(nal) == 8) pps = nal;
    }
    FramePtr f = NewFrame();
    f->width = f->height = 64;
    f->format = AV_PIX_FMT_YUV420P;
    if (av_frame_get_buffer(f.get(), 0) < 0) return;
    PacketPtr pkt = NewPacket();
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
        packets.push_back(LengthPrefixed(SplitAnnexB(Bytes(pkt->data, pkt->data + pkt->size))));
        av_packet_unref(pkt.get());
      }
    }
  }
  static constexpr int kFrames = 8;
  Bytes sps, pps;
  std::vector<Bytes> packets;
};

// Decodes Annex B packets and counts the pictures.
int DecodedPictures(const std::vector<Bytes>& packets) {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  CodecContextPtr dec(avcodec_alloc_context3(codec));
  if (avcodec_open2(dec.get(), codec, nullptr) < 0) return -1;
  PacketPtr pkt = NewPacket();
  FramePtr frame = NewFrame();
  int pictures = 0;
  for (size_t i = 0; i <= packets.size(); ++i) {
    if (i < packets.size()) {
      if (av_new_packet(pkt.get(), static_cast<int>(packets[i].size())) < 0) return -1;
      std::copy(packets[i].begin(), packets[i].end(), pkt->data);
    }
    const int r = avcodec_send_packet(dec.get(), i < packets.size() ? pkt.get() : nullptr);
    av_packet_unref(pkt.get());
    if (r < 0) return -1;
    while (avcodec_receive_frame(dec.get(), frame.get()) == 0) {
      ++pictures;
      av_frame_unref(frame.get());
    }
  }
  return pictures;
}

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
  EXPECT_TRUE(h264::AnnexBFilter::make_avcc(sps.data(), 3, pps.data(), 4).empty());
}

TEST(AnnexBFilter, NeedsParameterSets) {
  const uint8_t sps[] = {0x67, 0x42};
  EXPECT_EQ(h264::AnnexBFilter::create({nullptr, 0, nullptr, 0, nullptr, 0}), nullptr);
  EXPECT_EQ(h264::AnnexBFilter::create({sps, 2, nullptr, 0, nullptr, 0}), nullptr);
}

// How the host declares its parameter sets.
enum class Declared { kExtradata, kSpsPps };

class AnnexBFilterStream : public ::testing::TestWithParam<Declared> {};

TEST_P(AnnexBFilterStream, MakesADecodableAnnexBStream) {
  X264Stream in;
  ASSERT_FALSE(in.sps.empty());
  ASSERT_FALSE(in.pps.empty());
  ASSERT_EQ(in.packets.size(), static_cast<size_t>(X264Stream::kFrames));

  // The record written out by hand, as a host's MP4 tooling hands it over.
  Bytes avcc{1, in.sps[1], in.sps[2], in.sps[3], 0xFF, 0xE1,
             uint8_t(in.sps.size() >> 8), uint8_t(in.sps.size())};
  avcc.insert(avcc.end(), in.sps.begin(), in.sps.end());
  avcc.insert(avcc.end(), {1, uint8_t(in.pps.size() >> 8), uint8_t(in.pps.size())});
  avcc.insert(avcc.end(), in.pps.begin(), in.pps.end());
  ParameterSets sets{nullptr, 0, nullptr, 0, nullptr, 0};
  if (GetParam() == Declared::kExtradata) {
    sets.extradata = avcc.data();
    sets.extradata_len = static_cast<int>(avcc.size());
  } else {
    sets.sps = in.sps.data();
    sets.sps_len = static_cast<int>(in.sps.size());
    sets.pps = in.pps.data();
    sets.pps_len = static_cast<int>(in.pps.size());
  }

  test::LogCapture log;
  auto filter = h264::AnnexBFilter::create(sets);
  ASSERT_NE(filter, nullptr);
  std::vector<Bytes> out;
  std::vector<int64_t> pts;
  for (size_t i = 0; i < in.packets.size(); ++i) {
    ASSERT_TRUE(filter->filter(in.packets[i].data(), static_cast<int>(in.packets[i].size()),
                               1000000 + 40000 * static_cast<int64_t>(i),
                               [&](const uint8_t* d, int n, int64_t p) {
                                 out.emplace_back(d, d + n);
                                 pts.push_back(p);
                                 return true;
                               }));
  }
  ASSERT_EQ(out.size(), in.packets.size());
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(pts[i], 1000000 + 40000 * static_cast<int64_t>(i));
    ASSERT_GE(out[i].size(), 4u);
    EXPECT_EQ(Bytes(out[i].begin(), out[i].begin() + 4), (Bytes{0, 0, 0, 1})) << "start code";
  }
  // The first picture is an IDR with SPS and PPS in front of it.
  std::vector<int> types;
  for (const Bytes& nal : SplitAnnexB(out[0])) types.push_back(NalType(nal));
  const auto idr = std::find(types.begin(), types.end(), 5);
  ASSERT_NE(idr, types.end());
  const auto sps_at = std::find(types.begin(), idr, 7);
  EXPECT_NE(sps_at, idr);
  EXPECT_NE(std::find(sps_at, idr, 8), idr);
  EXPECT_EQ(DecodedPictures(out), X264Stream::kFrames);

  filter.reset();
  EXPECT_EQ(log.Count("4:~ bfilter()"), 1);
}

INSTANTIATE_TEST_SUITE_P(, AnnexBFilterStream,
                         ::testing::Values(Declared::kExtradata, Declared::kSpsPps),
                         [](const auto& info) {
                           return std::string(info.param == Declared::kExtradata ? "Extradata"
                                                                                 : "SpsPps");
                         });

// Two pictures in one host packet: what comes out carries both, stamped
// from the host's time.
TEST(AnnexBFilter, SeveralPicturesInOneHostPacket) {
  X264Stream in;
  ASSERT_GE(in.packets.size(), 3u);
  auto filter = h264::AnnexBFilter::create(
      {in.sps.data(), int(in.sps.size()), in.pps.data(), int(in.pps.size()), nullptr, 0});
  ASSERT_NE(filter, nullptr);
  Bytes joined = in.packets[1];
  joined.insert(joined.end(), in.packets[2].begin(), in.packets[2].end());
  std::vector<int64_t> pts;
  size_t nals = 0;
  ASSERT_TRUE(filter->filter(joined.data(), static_cast<int>(joined.size()), 5000,
                             [&](const uint8_t* d, int n, int64_t p) {
                               pts.push_back(p);
                               nals += SplitAnnexB(Bytes(d, d + n)).size();
                               return true;
                             }));
  ASSERT_FALSE(pts.empty());
  for (size_t i = 0; i < pts.size(); ++i) EXPECT_EQ(pts[i], 5000 + static_cast<int64_t>(i));
  EXPECT_GE(nals, 2u);
}

}  // namespace
