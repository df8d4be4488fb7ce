#include "index/snapshot.h"

#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/base64.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include "index/index_record.h"
#include "log/logger.h"
#include "platform/text.h"
#include "platform/file.h"

namespace zeva {
namespace {

// Names the producer in the header line; readers ignore it.
constexpr char kSiteText[] = "zeva";

// pkt timestamps may be AV_NOPTS_VALUE; the deltas then wrap instead of
// overflowing, as they would in the muxer's own arithmetic.
int64_t WrapSub(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}


// Standard base64 ("A-Za-z0-9+/", "=" padding) of the stream's extradata;
// empty when there is none.
std::string ExtradataBase64(const AVCodecParameters* par) {
  if (par->extradata == nullptr || par->extradata_size <= 0) return {};
  std::vector<char> text(AV_BASE64_SIZE(static_cast<size_t>(par->extradata_size)));
  if (av_base64_encode(text.data(), static_cast<int>(text.size()), par->extradata,
                       par->extradata_size) == nullptr) {
    return {};
  }
  return text.data();
}

const char* OrEmpty(const char* s) { return s != nullptr ? s : ""; }

// Compact JSON, members in the order the readers' documentation lists them.
// No value can hold a quote or a backslash, so nothing is escaped.
std::string VideoStreamLine(int index, const AVStream* st) {
  const AVCodecParameters* par = st->codecpar;
  return StringPrintf(
      "{\"type\":\"video\",\"index\":%d,\"codec\":\"%s\",\"format\":\"%s\",\"h\":%d,\"w\":%d,"
      "\"tb.num\":%d,\"tb.den\":%d,\"ev\":\"%s\"}",
      index, avcodec_get_name(par->codec_id),
      OrEmpty(av_get_pix_fmt_name(static_cast<AVPixelFormat>(par->format))), par->height,
      par->width, st->time_base.num, st->time_base.den, ExtradataBase64(par).c_str());
}

std::string AudioStreamLine(int index, const AVStream* st) {
  const AVCodecParameters* par = st->codecpar;
  return StringPrintf(
      "{\"type\":\"audio\",\"index\":%d,\"codec\":\"%s\",\"format\":\"%s\",\"channels\":%d,"
      "\"frame_size\":%d,\"sample_rate\":%d,\"tb.num\":%d,\"tb.den\":%d,\"ev\":\"%s\"}",
      index, avcodec_get_name(par->codec_id),
      OrEmpty(av_get_sample_fmt_name(static_cast<AVSampleFormat>(par->format))),
      par->ch_layout.nb_channels, par->frame_size, par->sample_rate, st->time_base.num,
      st->time_base.den, ExtradataBase64(par).c_str());
}

}  // namespace

Snapshot::Snapshot() { line_[0] = '\0'; }

Snapshot::~Snapshot() {
  if (file_ == nullptr) return;
  if (line_length_ > 0) std::fwrite(line_, 1, line_length_, file_);
  std::fclose(file_);
}

bool Snapshot::open(const char* index_path) {
  if (file_ != nullptr) {
    ZEVA_LOG(kLogError, "already opened !");
    return false;
  }
  file_ = platform::open_file(index_path, "wt");
  return file_ != nullptr;
}

bool Snapshot::attach(AVFormatContext* oc) {
  if (file_ == nullptr) {
    ZEVA_LOG(kLogError, "---> moov: fp is nullptr!");
    return false;
  }
  if (oc == nullptr) {
    ZEVA_LOG(kLogError, "---> moov: oc==null");
    return false;
  }
  if (oc->pb == nullptr) {
    ZEVA_LOG(kLogError, "---> moov: pb==null, not support");
    return false;
  }
  oc_ = oc;
  return true;
}

void Snapshot::on_header(AVFormatContext* oc) {
  if (oc == nullptr || oc != oc_ || file_ == nullptr) return;
  WriteHeaderLines(oc);
}

void Snapshot::WriteHeaderLines(AVFormatContext* oc) {
  std::fprintf(file_, "## version=%d, %s\n", kIndexVersion, kSiteText);
  std::fflush(file_);
  // A stream that is neither audio nor video repeats the line before it (an
  // empty one when it comes first), so that there is one line per stream.
  std::string line;
  for (unsigned i = 0; i < oc->nb_streams; ++i) {
    const AVStream* st = oc->streams[i];
    const int index = static_cast<int>(i);
    switch (st->codecpar->codec_type) {
      case AVMEDIA_TYPE_AUDIO:
        audio_stream_ = index;
        audio_frame_size_ = st->codecpar->frame_size;
        line = AudioStreamLine(index, st);
        break;
      case AVMEDIA_TYPE_VIDEO:
        line = VideoStreamLine(index, st);
        break;
      default:
        break;
    }
    std::fprintf(file_, "%s\n", line.c_str());
    std::fflush(file_);
  }
}

void Snapshot::on_packet(AVFormatContext* oc, const AVPacket* pkt) {
  if (oc == nullptr || oc != oc_ || pkt == nullptr || file_ == nullptr || oc->pb == nullptr) {
    return;
  }
  // The buffered write position: where this packet's bytes will begin.
  const int64_t position = avio_tell(oc->pb);

  if (packets_seen_ > 0) {
    IndexRecord record;
    record.stream = prev_stream_;
    record.position = packets_seen_ == 1 ? prev_position_ : 0;
    // 32-bit, as the record's size field is.
    record.size = static_cast<int32_t>(static_cast<uint32_t>(position) -
                                       static_cast<uint32_t>(prev_position_));
    record.pts_delta = prev_pts_delta_;
    record.dts_delta = prev_dts_delta_;
    record.duration = prev_duration_;
    record.key = prev_key_;
    // Decided on the packet that follows, not on the recorded one: readers
    // restore the frame size for audio records only.
    const bool empty_duration = audio_stream_ >= 0 && pkt->stream_index == audio_stream_ &&
                                prev_duration_ == audio_frame_size_;
    if (!AppendIndexRecord(line_, sizeof line_, &line_length_, record, empty_duration)) {
      // Only absurd values make a record too long for the room above the
      // line limit. It starts a line of its own rather than being cut; an
      // empty buffer always holds one record.
      FlushRecordLine(oc);
      static_cast<void>(
          AppendIndexRecord(line_, sizeof line_, &line_length_, record, empty_duration));
    }
    if (line_length_ > kLineLimit) FlushRecordLine(oc);
  }

  ++packets_seen_;
  prev_stream_ = pkt->stream_index;
  prev_key_ = pkt->flags & AV_PKT_FLAG_KEY;
  prev_position_ = position;
  prev_duration_ = pkt->duration;
  ClassTimes& last = audio_stream_ >= 0 && pkt->stream_index == audio_stream_ ? audio_ : video_;
  prev_pts_delta_ = WrapSub(pkt->pts, last.pts);
  prev_dts_delta_ = WrapSub(pkt->dts, last.dts);
  last.pts = pkt->pts;
  last.dts = pkt->dts;
}

void Snapshot::FlushRecordLine(AVFormatContext* oc) {
  // The movie's buffered bytes go first: a record on disk then always
  // describes bytes the operating system already holds.
  avio_flush(oc->pb);
  std::fwrite(line_, 1, line_length_, file_);
  std::fputc('\n', file_);
  std::fflush(file_);
  line_length_ = 0;
  line_[0] = '\0';
}

}  // namespace zeva
