#include "output/zv_av_writer.h"

#include <pthread.h>

#include <algorithm>

extern "C" {
#include <libavformat/avformat.h>
}

#include "index/snapshot.h"
#include "log/logger.h"
#include "output/packet_writer.h"
#include "platform/av_error.h"

namespace ZV {

using zeva::kLogDebug;
using zeva::kLogError;
using zeva::kLogInfo;
using zeva::PacketQueue;
using zeva::WriterResult;

namespace {

// Further writers queue a little more than the one before them, so that a
// slow further output is not the first to hold the encoder back.
constexpr uint32_t kMaxStepPerWriter = 6;
constexpr uint32_t kInterleaveStepPerWriter = 3;
constexpr int64_t kNoTimestamp = -999999;

}  // namespace

ZV_AVWriter::ZV_AVWriter(uint32_t maxNpkt, uint32_t interleave, const char* url)
    : maxNpkt_(maxNpkt), interleave_(interleave), url_(url ? url : ""), has_url_(url != nullptr) {
  for (int64_t& ts : last_ts_) ts = kNoTimestamp;
}

ZV_AVWriter::~ZV_AVWriter() { stop(); }

void ZV_AVWriter::create_other_writers(const char* const* urls) {
  ZEVA_LOG(kLogDebug, "@@------------------ create other writers ---------");
  ZV_AVWriter* last = this;
  while (last->next_) last = last->next_.get();
  uint32_t max = maxNpkt_, room = interleave_;
  for (int i = 0; urls != nullptr && urls[i] != nullptr; ++i) {
    ZEVA_LOG(kLogDebug, "other_url: %s", urls[i]);
    max += kMaxStepPerWriter;
    room += kInterleaveStepPerWriter;
    last->next_ = std::make_unique<ZV_AVWriter>(max, room, urls[i]);
    last->next_->prev_ = last;
    last->next_->set_network_io(timeout_sec_, io_);
    last = last->next_.get();
  }
  ZEVA_LOG(kLogDebug, "@@------------------ create other writers -------OK");
}

WriterResult ZV_AVWriter::open(AVFormatContext* oc, const char* meta_info, const char* moov_url) {
  if (exited_) return {-20, "main writer already exited", true};
  if (oc_ == nullptr) {
    if (prev_ == nullptr) {
      oc_ = oc;
    } else {
      WriterResult r = zeva::CloneOutputContext(oc, has_url_ ? url_.c_str() : nullptr,
                                                timeout_sec_, io_, &own_oc_);
      if (r.failed) return r;
      oc_ = own_oc_.get();
    }
  }
  if (oc_ == nullptr) return {-1, "clone: invalid paramters", true};
  writer_ = std::make_unique<zeva::PacketWriter>(oc_);

  if (moov_url != nullptr && *moov_url != '\0' && zeva::EndsWithNoCase(url_.c_str(), ".mp4")) {
    auto snapshot = std::make_unique<zeva::Snapshot>();
    if (snapshot->open(moov_url)) {
      const bool attached = snapshot->attach(oc_);
      ZEVA_LOG(kLogError, "启动快照 (%s): %s", attached ? "success" : "failed", moov_url);
      if (attached) {
        snapshot_ = std::move(snapshot);
        writer_->set_snapshot(snapshot_.get());
      }
    } else {
      ZEVA_LOG(kLogError, "启动快照失败: %s", moov_url);
    }
  }

  WriterResult result = WriteHeaderWithMeta(oc_, meta_info, writer_.get());
  if (result.failed) return result;
  if (next_) {
    // The owner installs its report on the main writer; every output of the
    // chain reports there.
    next_->set_error_callback(error_cb_, user_);
    WriterResult r = next_->open(oc, meta_info, moov_url);
    if (r.failed) return r;
  }
  if (exited_) return {-21, "main writer already exited 2", true};
  return result;
}

bool ZV_AVWriter::start() {
  if (exited_) {
    ZEVA_LOG(kLogError, "main writer already exited ...");
    return false;
  }
  if (oc_ != nullptr && writer_ && !thread_.joinable()) {
    thread_ = std::thread([this] { WriteLoop(); });
  }
  return next_ ? next_->start() : true;
}

int ZV_AVWriter::write_packet(const AVRational& tb, AVPacket* pkt, int interleave) {
  if (pkt == nullptr) return 0;
  int result = -1;
  AVRational next_tb = tb;
  if (oc_ != nullptr) {
    const int idx = pkt->stream_index;
    if (idx < 0 || idx >= kMaxStreams || static_cast<unsigned>(idx) >= oc_->nb_streams) {
      ZEVA_LOG(kLogError, "*** ERROR: stream index %d out of range, packet refused", idx);
      return -1;
    }
    const AVStream* st = oc_->streams[idx];
    av_packet_rescale_ts(pkt, tb, st->time_base);
    next_tb = st->time_base;
    // Decode times must grow for the muxers to take a packet; equal to the
    // presentation time for every stream without reordered frames.
    const int64_t ts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;
    if (ts <= last_ts_[idx]) {
      ZEVA_LOG(kLogError, "*** ERROR:[streamIdx=%d] pkt->pts=%lld < last_pts(%lld), drop current",
               idx, static_cast<long long>(ts), static_cast<long long>(last_ts_[idx]));
      return 0;
    }
    last_ts_[idx] = ts;
    movie_time_ = static_cast<double>(ts) * av_q2d(st->time_base);
    // A failed put releases the packet it was given, so it gets a clone: the
    // caller's packet must survive to reach the further writers.
    zeva::PacketPtr clone(av_packet_clone(pkt));
    if (!clone) return -1;
    const int limit = static_cast<int>(maxNpkt_ + (interleave ? interleave_ : 0));
    result = queue_.put_bounded(clone.get(), limit, true);
    if (result < 0) return result;
  }
  if (next_) (void)next_->write_packet(next_tb, pkt, interleave);
  return oc_ != nullptr ? result : -1;
}

int ZV_AVWriter::write_trailer() {
  int r = -1;
  if (thread_.joinable()) r = queue_.put(PacketQueue::tailer());
  if (next_) (void)next_->write_trailer();
  return r;
}

void ZV_AVWriter::stop() {
  if (prev_ == nullptr) {
    for (ZV_AVWriter* w = this; w != nullptr; w = w->next_.get()) w->exited_ = true;
  }
  (void)write_trailer();
  if (thread_.joinable()) thread_.join();
  if (prev_ != nullptr) {
    writer_.reset();
    own_oc_.reset();  // closes its I/O unless the format does its own
    oc_ = nullptr;
  }
  if (next_) next_->stop();
  if (snapshot_) {
    if (writer_) writer_->set_snapshot(nullptr);
    snapshot_.reset();
    ZEVA_LOG(kLogInfo, "delete moov OK");
  }
}

void ZV_AVWriter::WriteLoop() {
  int depth = 0;
  for (const ZV_AVWriter* w = prev_; w != nullptr; w = w->prev_) ++depth;
  std::string thread_name = "zeva-out" + std::to_string(depth);
  thread_name.resize(std::min<size_t>(thread_name.size(), 15));  // the kernel's limit
  pthread_setname_np(pthread_self(), thread_name.c_str());

  int n = 0;
  for (;;) {
    zeva::PacketPtr pkt = zeva::NewPacket();
    if (!pkt) {
      ReportWriteError(AVERROR(ENOMEM));
      return;
    }
    if (queue_.get(pkt.get(), true) < 0) break;  // aborted: straight to the trailer
    if (PacketQueue::is_tailer(pkt.get())) {
      ZEVA_LOG(kLogError, "[writer](%s): n=%d (---tailer-pkt---)", name(), n);
      ++n;
      PacketQueue::safe_free(pkt.get());
      const int r = writer_->Flush();
      if (r < 0) {
        ReportWriteError(r);
        return;
      }
      break;
    }
    const int r = writer_->Write(std::move(pkt));
    if (r < 0) {
      ReportWriteError(r);
      return;
    }
    ++n;
  }
  ZEVA_LOG(kLogError, "[writer](%s): n=%d (---write-tailer---)", name(), n);
  const int r = writer_->WriteTrailer();
  if (r < 0) {
    ZEVA_LOG(kLogError, "*** write tailer pkt failed...");
    ReportWriteError(r);
    return;
  }
  trailer_written_ = true;
}

void ZV_AVWriter::ReportWriteError(int code) {
  // Later puts fail at once, so the producer learns of it and never blocks.
  queue_.abort();
  const char* text = zeva::av_error_text(code);
  ZEVA_LOG(kLogError, "[Write Pkt Err] (cache=%d, max=%d), err=%d, errmsg=%s", queue_.nb_packets(),
           static_cast<int>(maxNpkt_), code, text);
  // A recording may have four outputs: the report names the one that failed.
  const std::string message = std::string(text) + ", " + url_;
  if (error_cb_ != nullptr) error_cb_(code, message.c_str(), user_);
}

}  // namespace ZV
