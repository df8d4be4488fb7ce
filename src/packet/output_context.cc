#include "packet/output_context.h"

#include <climits>
#include <cstdio>

extern "C" {
#include <libavformat/avformat.h>
#include <libavcodec/avcodec.h>
}

#include "index/snapshot.h"
#include "log/logger.h"
#include "platform/text.h"
#include "output/output_url.h"
#include "output/packet_writer.h"
#include "packet/aac_to_opus.h"
#include "platform/av_error.h"

namespace zeva {
namespace {

constexpr int32_t kUnbounded = INT32_MAX;


const AVOutputFormat* GuessFormat(const std::string& url) {
  if (StartsWithNoCase(url.c_str(), "rtmp://")) return av_guess_format("flv", nullptr, nullptr);
  if (StartsWithNoCase(url.c_str(), "rtsp://")) return av_guess_format("rtsp", nullptr, nullptr);
  const AVOutputFormat* f = av_guess_format(nullptr, url.c_str(), nullptr);
  return f != nullptr ? f : av_guess_format("mp4", url.c_str(), nullptr);
}

}  // namespace

OutputContext::OutputContext() {
  packets_.set_disposer([](AVPacket*& p) { av_packet_free(&p); });
}

OutputContext::~OutputContext() { close(); }

Status OutputContext::open(const AVStream* video_stream, const AVStream* audio_stream,
                           const char* url, const char* snapshot_path, const char* meta,
                           int timeout_sec, ErrorHandler on_error) {
  url_ = url != nullptr ? url : "";
  on_error_ = std::move(on_error);
  ZEVA_LOG(kLogInfo, "Output: %s", url_.c_str());
  const bool rtsp = StartsWithNoCase(url_.c_str(), "rtsp://");
  network_ = IsNetworkUrl(url_.c_str());
  if (timeout_sec <= 0) timeout_sec = kDefaultTimeoutSec;
  timeout_us_ = int64_t{timeout_sec} * 1000000;

  if (snapshot_path != nullptr && *snapshot_path != '\0') {
    ZEVA_LOG(kLogInfo, "Create Snapshot for '%s': '%s'", url_.c_str(), snapshot_path);
    snapshot_ = std::make_unique<Snapshot>();
    if (!snapshot_->open(snapshot_path)) {
      snapshot_.reset();
      return Status::Error(-7, StringPrintf("Snapshot open failed: %s", snapshot_path));
    }
  }

  const AVOutputFormat* format = GuessFormat(url_);
  if (format == nullptr) {
    return Status::Error(AVERROR_UNKNOWN,
                         StringPrintf("could not find suitable output format: %s", url_.c_str()));
  }
  // With the format's private options allocated, so that the RTSP muxer's
  // transport and time-out can be set before it connects.
  AVFormatContext* raw = nullptr;
  avformat_alloc_output_context2(&raw, format, nullptr, url_.c_str());
  if (raw == nullptr) return Status::Error(AVERROR(ENOMEM), "out of memory: " + url_);
  oc_.reset(raw);

  // The metadata dictionary doubles as the header's options: what the muxer
  // does not consume stays as metadata.
  ParseMetaInfo(meta, &oc_->metadata);
  if ((rtsp || force_opus_) && audio_stream != nullptr &&
      audio_stream->codecpar->codec_id == AV_CODEC_ID_AAC) {
    transcoder_ = std::make_unique<AacToOpus>();
    Status s = transcoder_->init(audio_stream->codecpar);
    if (!s.ok) {
      transcoder_.reset();
      return s;
    }
  }

  for (const AVStream* in : {video_stream, audio_stream}) {
    if (in == nullptr) continue;
    const AVCodecParameters* par = in->codecpar;
    const bool video = par->codec_type == AVMEDIA_TYPE_VIDEO && par->codec_id == AV_CODEC_ID_H264;
    const bool audio = par->codec_type == AVMEDIA_TYPE_AUDIO && par->codec_id == AV_CODEC_ID_AAC;
    if (!video && !audio) continue;
    AVStream* st = avformat_new_stream(oc_.get(), nullptr);
    if (st == nullptr) return Status::Error(AVERROR(ENOMEM), "out of memory: " + url_);
    int r;
    if (audio && transcoder_) {
      r = avcodec_parameters_from_context(st->codecpar, transcoder_->encoder());
      st->time_base = transcoder_->time_base();
    } else {
      r = avcodec_parameters_copy(st->codecpar, par);
      // Packets carry the host's microseconds. Asking the muxer for that
      // time base (MP4 takes it as the track's timescale) keeps timestamps
      // and durations exact instead of rounding each one on its own.
      st->time_base = AVRational{1, 1000000};
    }
    if (r < 0) return Status::Error(r, "stream parameters: " + url_);
    st->codecpar->codec_tag = 0;
    (video ? video_index_ : audio_index_) = st->index;
  }

  av_dump_format(oc_.get(), 0, url_.c_str(), 1);

  // Connecting and every later read or write of a network output wait at
  // most the time-out; close() can cut the drain short through io_.
  if (const int r = OpenOutputIo(oc_.get(), url_.c_str(), timeout_sec, &io_); r < 0) {
    ZEVA_LOG(kLogError, "(%d)%s", r, av_error_text(r));
    return Status::Error(-32, StringPrintf("Failed to open I/O for '%s'", url_.c_str()));
  }

  writer_ = std::make_unique<PacketWriter>(oc_.get());
  if (snapshot_) {
    const bool attached = snapshot_->attach(oc_.get());
    ZEVA_LOG(kLogError, "启动快照 (%s): %s", attached ? "success" : "failed", snapshot_path);
    if (attached) writer_->set_snapshot(snapshot_.get());
  }

  const int r = writer_->WriteHeader(&oc_->metadata);
  if (r < 0) {
    return Status::Error(-33, StringPrintf("Failed to write header for '%s' (%d)%s", url_.c_str(), r,
                                     av_error_text(r)));
  }
  thread_ = std::thread(&OutputContext::WriterLoop, this);
  return Status::Ok();
}

bool OutputContext::enqueue(const AVPacket* packet, const AVRational& time_base,
                            int stream_index) {
  AVPacket* clone = nullptr;
  if (packet != nullptr) {
    if (stream_index < 0) return true;  // this output does not carry that stream
    clone = av_packet_clone(packet);
    if (clone == nullptr) return false;
    av_packet_rescale_ts(clone, time_base, oc_->streams[stream_index]->time_base);
    clone->stream_index = stream_index;
  }
  if (packets_.push(clone, kUnbounded, false, 0) != qel::Ok) {
    ZEVA_LOG(kLogError, "*** '%s' enque failed, aborted (stream_idx=%d).", url_.c_str(),
             stream_index);
    av_packet_free(&clone);
    return false;
  }
  return true;
}

void OutputContext::WriterLoop() {
  for (;;) {
    AVPacket* raw = nullptr;
    if (packets_.pop(raw, true, 0, true) != qel::Ok) break;
    if (raw == nullptr) {
      ZEVA_LOG(kLogDebug, "-- pkt == nullptr, EOF");
      break;
    }
    const int r = writer_->Write(PacketPtr(raw));
    if (r < 0) {
      const std::string text =
          StringPrintf("Output thread Error(%d, %s): abort! %s", r, av_error_text(r), url_.c_str());
      ZEVA_LOG(kLogError, "%s", text.c_str());
      failed_ = true;
      packets_.abort();
      // A stream that failed once gets no grace for its trailer.
      if (network_) io_.Trigger();
      if (on_error_) on_error_(r, text);
      break;
    }
  }
  const int r = writer_->WriteTrailer();
  if (r < 0 && !failed_) {
    const std::string text =
        StringPrintf("write trailer failed (%d, %s): %s", r, av_error_text(r), url_.c_str());
    ZEVA_LOG(kLogError, "%s", text.c_str());
    failed_ = true;
    if (on_error_) on_error_(r, text);
  }
  ZEVA_LOG(kLogInfo, "write thread finished: %s", url_.c_str());
}

void OutputContext::close() {
  if (thread_.joinable()) {
    AVPacket* end = nullptr;
    (void)packets_.push(end, kUnbounded, false, 0);
    // A stream that cannot drain within its time-out is cut off.
    if (network_) io_.TriggerAfter(timeout_us_);
    thread_.join();
  }
  transcoder_.reset();
  writer_.reset();
  if (oc_) {
    ZEVA_LOG(kLogInfo, "close ofmt");
    oc_.reset();
  }
  snapshot_.reset();
}

int route(const AVPacket* packet, const AVRational& time_base, const char* name,
          OutputList& outputs, bool skip_failed) {
  const bool video = name != nullptr && name[0] == 'h';
  const bool audio = name != nullptr && name[0] == 'a';
  if (!video && !audio) {
    ZEVA_LOG(kLogInfo, "recieve frame: '%s', ignore", name != nullptr ? name : "");
    return 0;
  }
  const int error = video ? -101 : -102;
  int delivered = 0;
  for (auto& out : outputs) {
    if (skip_failed && out->failed()) continue;
    bool ok;
    if (video) {
      ok = out->enqueue(packet, time_base, out->video_index());
    } else if (out->transcoder() != nullptr) {
      OutputContext* o = out.get();
      ok = out->transcoder()->transcode(
          packet, time_base,
          [o](AVPacket* p, const AVRational& tb) { return o->enqueue(p, tb, o->audio_index()); });
    } else {
      ok = out->enqueue(packet, time_base, out->audio_index());
    }
    if (ok) {
      ++delivered;
    } else if (!skip_failed) {
      return error;
    }
  }
  return delivered > 0 || outputs.empty() ? 0 : error;
}

}  // namespace zeva
