#include "packet/input_context.h"

#include <cinttypes>
#include <cstdio>
#include <limits>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include "log/logger.h"
#include "platform/text.h"
#include "packet/pts_smoother.h"
#include "platform/av_error.h"

namespace zeva {
namespace {

constexpr int kIoBufferSize = 8192;
constexpr AVRational kMicros{1, 1000000};
constexpr int32_t kUnbounded = std::numeric_limits<int32_t>::max();

// Stream analysis of the in-memory inputs. The demuxed packets get the
// host's timestamps, so neither the frame-rate estimate (20 or more frames'
// intervals) nor the wait for a first demuxer timestamp (max_ts_probe, 50
// packets: raw H.264 and ADTS carry none) is of any use; without them the
// analysis ends as soon as the codec parameters are known, after the first
// decoded picture (SPS, PPS and extradata with it) or AAC frame. The
// duration bound caps a stream whose parameters come late at one second of
// its data; probesize stays FFmpeg's 5 MB, a byte cap above any key frame.
constexpr int kFpsProbeFrames = 0;
constexpr int kMaxTsProbePackets = 0;
constexpr int64_t kMaxAnalyzeUs = 1000000;


// Per-input state of the demux loop.
struct InputSlot {
  const char* name;
  bool eof = false;
  AVFormatContext* ic;
  InputQueue* queue;
  int64_t last_pts = 0;
  PtsSmoother smoother;
};

// Whether the first stream has what an output needs to describe it.
bool has_stream_parameters(const AVFormatContext* ic) {
  if (ic->nb_streams < 1) return false;
  const AVCodecParameters* par = ic->streams[0]->codecpar;
  switch (par->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
      return par->width > 0 && par->height > 0;
    case AVMEDIA_TYPE_AUDIO:
      return par->sample_rate > 0 && par->ch_layout.nb_channels > 0;
    default:
      return false;
  }
}

}  // namespace

InputContext::~InputContext() {
  if (video_in_.ic != nullptr || audio_in_.ic != nullptr) clear();
}

Status InputContext::open_input(InputQueue& queue, const char* format, Demuxer& out) {
  auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
  AVIOContext* raw_io = buffer == nullptr ? nullptr
                                          : avio_alloc_context(buffer, kIoBufferSize, 0, &queue,
                                                               &InputQueue::read_packet, nullptr,
                                                               nullptr);
  if (raw_io == nullptr) {
    av_free(buffer);
    return Status::Error(-12, StringPrintf("failed to allocate io for '%s'", format));
  }
  IOContextPtr io(raw_io);
  io->seekable = 0;

  const AVInputFormat* fmt = av_find_input_format(format);
  if (fmt == nullptr) {
    return Status::Error(AVERROR_MUXER_NOT_FOUND,
                         StringPrintf("could not find input format '%s'", format));
  }
  AVFormatContext* raw_ic = avformat_alloc_context();
  if (raw_ic == nullptr) {
    return Status::Error(AVERROR(ENOMEM), StringPrintf("failed to allocate io for '%s'", format));
  }
  raw_ic->pb = io.get();
  raw_ic->flags = AVFMT_FLAG_CUSTOM_IO;
  raw_ic->fps_probe_size = kFpsProbeFrames;
  raw_ic->max_ts_probe = kMaxTsProbePackets;
  raw_ic->max_analyze_duration = kMaxAnalyzeUs;
  // On failure avformat_open_input frees the context (not our I/O).
  int r = avformat_open_input(&raw_ic, nullptr, fmt, nullptr);
  if (r < 0) {
    return Status::Error(
        r, StringPrintf("Could not open input '%s': %s", format, av_error_text(r)));
  }
  InputFormatPtr ic(raw_ic);
  r = avformat_find_stream_info(ic.get(), nullptr);
  // FFmpeg 5.1 takes a failed read (no data within the time-out) as an end
  // of stream and still reports success, and takes garbage for a stream with
  // no parameters: neither is an input.
  if (r >= 0 && io->error < 0) r = io->error;
  if (r >= 0 && !has_stream_parameters(ic.get())) r = AVERROR_INVALIDDATA;
  if (r < 0) {
    return Status::Error(r, StringPrintf("could not find stream information for '%s'", format));
  }
  queue.probed = true;
  ZEVA_LOG(kLogError, "===> find input stream '%s' success.", queue.name.c_str());
  av_dump_format(ic.get(), 0, format, 0);
  out.ic = std::move(ic);  // closed before its I/O by Demuxer's member order
  out.io = std::move(io);
  return Status::Ok();
}

Status InputContext::open_inputs(const char* audio_format, const char* video_format) {
  if (audio_format != nullptr && audio_format[0] != '\0') {
    ZEVA_LOG(kLogInfo, "==> open audio input: %s", audio_format);
    if (audio.name != audio_format) audio.name = audio_format;
    audio_name_ = audio_format;
    const Status s = open_input(audio, audio_format, audio_in_);
    if (!s.ok) ZEVA_LOG(kLogError, "input 'aac' error(%d): %s", s.code, s.message.c_str());
  }
  if (video_format != nullptr && video_format[0] != '\0') {
    ZEVA_LOG(kLogInfo, "==> open video input: %s", video_format);
    if (video.name != video_format) video.name = video_format;
    video_name_ = video_format;
    const Status s = open_input(video, video_format, video_in_);
    if (!s.ok) ZEVA_LOG(kLogError, "input 'h264' error(%d): %s", s.code, s.message.c_str());
  }
  if (video_in_.ic == nullptr && audio_in_.ic == nullptr) return Status::Error(-23, "no aac, no h264");
  return Status::Ok();
}

void InputContext::run_demux(DeliverFn deliver, void* user) {
  InputSlot slots[2] = {{"h264", false, video_in_.ic.get(), &video, 0, {}},
                        {"aac", false, audio_in_.ic.get(), &audio, 0, {}}};
  InputSlot& vslot = slots[0];
  InputSlot& aslot = slots[1];
  const int inputs = (vslot.ic != nullptr) + (aslot.ic != nullptr);
  int at_eof = 0;
  PacketPtr pkt = NewPacket();
  if (pkt == nullptr && inputs > 0) {
    ZEVA_LOG(kLogError, "[%s] error reading frame: %s", vslot.ic != nullptr ? vslot.name : aslot.name,
             av_error_text(AVERROR(ENOMEM)));
  }

  while (pkt != nullptr && inputs > 0) {
    InputSlot* slot;
    if (inputs == 2) {
      // The input with more data waiting is read first; ties go to video.
      if (video.size() < audio.size()) {
        slot = aslot.eof ? &vslot : &aslot;
      } else {
        slot = vslot.eof ? &aslot : &vslot;
      }
    } else {
      slot = vslot.ic != nullptr ? &vslot : &aslot;
    }

    int r = av_read_frame(slot->ic, pkt.get());
    if (r == AVERROR_EOF) {
      ZEVA_LOG(kLogInfo, "reached EOF for '%s'", slot->name);
      if (!slot->eof) {
        slot->eof = true;
        ++at_eof;
      }
      if (at_eof >= inputs) break;
      continue;
    }
    if (r < 0) {
      ZEVA_LOG(kLogError, "[%s] error reading frame: %s", slot->name, av_error_text(r));
      break;
    }

    // The n-th demuxed packet of a stream gets the n-th host timestamp. The
    // timestamps stay readable after the packet queue ended, so the packets
    // the demuxer still holds at end of stream get theirs too.
    int64_t pts = 0;
    if (slot->queue->pts_queue.pop(pts, false, 0, true) == qel::Ok) {
      ZEVA_LOG(kLogDebug, "[%s] --- get pts from que: pkt_pts=%lld,  (pts_q.size=%d)", slot->name,
               static_cast<long long>(pts), slot->queue->pts_queue.size());
    } else {
      ZEVA_LOG(kLogError, "[%s] --- get pts from queue failed. (last_pts=%lld) +1", slot->name,
               static_cast<long long>(slot->last_pts));
      pts = slot->last_pts + 1;
    }
    pts = slot->smoother.smooth(pts);
    pkt->pts = pts;
    pkt->dts = pts;
    pkt->pos = -1;
    pkt->stream_index = -1;
    pkt->duration = pts - slot->last_pts;
    slot->last_pts = pts;

    r = deliver(pkt.get(), kMicros, slot->name, user);
    av_packet_unref(pkt.get());
    if (r < 0) {
      ZEVA_LOG(kLogError, "[%s] error muxing packet: %s", slot->name, av_error_text(r));
      break;
    }
    if (at_eof >= inputs) break;
  }

  const int r = deliver(nullptr, kMicros, "tailer", user);
  if (r < 0) ZEVA_LOG(kLogError, "error writing trailer: %s", av_error_text(r));
}

void InputContext::que_abort() {
  ZEVA_LOG(kLogInfo, "que abort");
  audio.push(nullptr, kUnbounded, false, 0);
  video.push(nullptr, kUnbounded, false, 0);
}

void InputContext::clear() {
  ZEVA_LOG(kLogInfo, "clear");
  que_abort();
  if (video_in_.ic != nullptr) {
    ZEVA_LOG(kLogInfo, "close ic: h264");
    video_in_.ic.reset();  // the demuxer before the I/O it reads
    video_in_.io.reset();
  }
  if (audio_in_.ic != nullptr) {
    ZEVA_LOG(kLogInfo, "close ic: aac");
    audio_in_.ic.reset();
    audio_in_.io.reset();
  }
}

}  // namespace zeva
