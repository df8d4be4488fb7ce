#include "packet/annexb_filter.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/mem.h>
}

#include "log/logger.h"
#include "platform/av_error.h"

namespace zeva::h264 {
namespace {

// Skips an Annex B start code (00 00 01 or 00 00 00 01) in front of a set.
void SkipStartCode(const uint8_t*& p, int& len) {
  if (p == nullptr) return;
  if (len >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1) {
    p += 4;
    len -= 4;
  } else if (len >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1) {
    p += 3;
    len -= 3;
  }
}

void PutBe16(std::vector<uint8_t>& out, int v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

}  // namespace

std::vector<uint8_t> AnnexBFilter::make_avcc(const uint8_t* sps, int sps_len, const uint8_t* pps,
                                             int pps_len) {
  SkipStartCode(sps, sps_len);
  SkipStartCode(pps, pps_len);
  if (pps == nullptr) pps_len = 0;
  if (sps == nullptr || sps_len < 4 || sps_len > 0xFFFF || pps_len < 0 || pps_len > 0xFFFF) {
    return {};
  }
  std::vector<uint8_t> r;
  r.reserve(6 + 2 + sps_len + 1 + 2 + pps_len);
  r.push_back(1);                         // configurationVersion
  r.insert(r.end(), sps + 1, sps + 4);    // profile, compatibility, level
  r.push_back(0xFF);                      // 4-byte NAL lengths
  r.push_back(0xE1);                      // one SPS
  PutBe16(r, sps_len);
  r.insert(r.end(), sps, sps + sps_len);
  if (pps_len > 0) {
    r.push_back(1);  // one PPS
    PutBe16(r, pps_len);
    r.insert(r.end(), pps, pps + pps_len);
  } else {
    r.push_back(0);
  }
  return r;
}

std::unique_ptr<AnnexBFilter> AnnexBFilter::create(const ParameterSets& sets) {
  std::vector<uint8_t> record;
  if (sets.extradata != nullptr && sets.extradata_len > 0) {
    record.assign(sets.extradata, sets.extradata + sets.extradata_len);
  } else if (sets.sps != nullptr && sets.sps_len > 0) {
    record = make_avcc(sets.sps, sets.sps_len, sets.pps, sets.pps_len);
  }
  if (record.empty()) {
    ZEVA_LOG(kLogError, "AnnexBFilter: no usable parameter sets");
    return nullptr;
  }

  const AVBitStreamFilter* bsf = av_bsf_get_by_name("h264_mp4toannexb");
  if (bsf == nullptr) {
    ZEVA_LOG(kLogError, "AnnexBFilter: no 'h264_mp4toannexb' filter");
    return nullptr;
  }
  std::unique_ptr<AnnexBFilter> self(new AnnexBFilter());
  AVBSFContext* raw = nullptr;
  int r = av_bsf_alloc(bsf, &raw);
  self->bsf_.reset(raw);
  self->pkt_ = NewPacket();
  if (r < 0 || self->pkt_ == nullptr) {
    ZEVA_LOG(kLogError, "AnnexBFilter: %s", av_error_text(r < 0 ? r : AVERROR(ENOMEM)));
    return nullptr;
  }
  // The filter owns its input parameters; the record gets FFmpeg's zeroed
  // read-ahead padding behind it.
  AVCodecParameters* par = raw->par_in;
  par->codec_type = AVMEDIA_TYPE_VIDEO;
  par->codec_id = AV_CODEC_ID_H264;
  par->extradata = static_cast<uint8_t*>(av_mallocz(record.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (par->extradata == nullptr) {
    ZEVA_LOG(kLogError, "AnnexBFilter: out of memory");
    return nullptr;
  }
  std::memcpy(par->extradata, record.data(), record.size());
  par->extradata_size = static_cast<int>(record.size());
  r = av_bsf_init(raw);
  if (r < 0) {
    ZEVA_LOG(kLogError, "AnnexBFilter: init: %s", av_error_text(r));
    return nullptr;
  }
  return self;
}

AnnexBFilter::~AnnexBFilter() { ZEVA_LOG(kLogInfo, "~ bfilter()"); }

bool AnnexBFilter::filter(const uint8_t* data, int nbytes, int64_t usec,
                          const std::function<bool(const uint8_t*, int, int64_t)>& sink) {
  if (data == nullptr || nbytes <= 0) return false;
  AVPacket* pkt = pkt_.get();
  int r = av_new_packet(pkt, nbytes);  // padded and zeroed behind the data
  if (r < 0) {
    ZEVA_LOG(kLogError, "AnnexBFilter: %s", av_error_text(r));
    return false;
  }
  std::memcpy(pkt->data, data, nbytes);
  pkt->pts = pkt->dts = usec;
  r = av_bsf_send_packet(bsf_.get(), pkt);  // takes the reference on success
  if (r < 0) {
    av_packet_unref(pkt);
    ZEVA_LOG(kLogError, "AnnexBFilter: send packet: %s", av_error_text(r));
    return false;
  }
  for (int64_t pts = usec;; ++pts) {
    r = av_bsf_receive_packet(bsf_.get(), pkt);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return true;
    if (r < 0) {
      ZEVA_LOG(kLogError, "AnnexBFilter: receive packet: %s", av_error_text(r));
      return false;
    }
    const bool ok = sink(pkt->data, pkt->size, pts);
    av_packet_unref(pkt);
    if (!ok) return false;
  }
}

}  // namespace zeva::h264
