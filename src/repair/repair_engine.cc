#include "repair/repair_engine.h"

#include <sys/stat.h>

#include <cinttypes>
#include <cstring>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/base64.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
#include <libavutil/timestamp.h>
}

#include "log/logger.h"
#include "platform/av_error.h"
#include "platform/av_ptr.h"
#include "platform/file.h"

namespace zeva {
namespace {

// Packets a recording of this library can hold are far below this; a record
// claiming more is corrupt, and allocating for it is refused.
constexpr int kMaxPacketBytes = 256 << 20;
constexpr int kReportEveryLines = 10;

// Decodes base64 `text` into newly allocated, zero-padded extradata.
bool SetExtradata(AVCodecParameters* par, const std::string& text) {
  if (text.empty()) return true;
  const size_t room = AV_BASE64_DECODE_SIZE(text.size());
  auto* data = static_cast<uint8_t*>(av_mallocz(room + AV_INPUT_BUFFER_PADDING_SIZE));
  if (data == nullptr) return false;
  const int n = av_base64_decode(data, text.c_str(), static_cast<int>(room));
  if (n < 0) {
    av_free(data);
    return true;  // unreadable extradata: the stream goes on without it
  }
  par->extradata = data;
  par->extradata_size = n;
  return true;
}

bool ValidTimeBase(int num, int den) { return num > 0 && den > 0; }

}  // namespace

RepairEngine::RepairEngine(ZEVA_RepairProgress progress, void* user)
    : progress_(progress), user_(user) {}

RepairEngine::~RepairEngine() {
  Stop();
  av_free(buffer_);
}

void RepairEngine::Report(double progress, int code, const char* message) {
  std::printf("progress:%.6lf\n", progress);
  std::fflush(stdout);
  if (progress_ != nullptr) progress_(progress, code, message, user_);
}

void RepairEngine::StartAsync(std::string broken, std::string index, std::string output) {
  running_ = true;  // visible before the worker even begins
  worker_ = std::thread([this, broken = std::move(broken), index = std::move(index),
                         output = std::move(output)] { Run(broken, index, output); });
}

void RepairEngine::Stop() {
  stopped_ = true;
  if (worker_.joinable()) {
    ZEVA_LOG(kLogDebug, "repair: stop() ...");
    worker_.join();
    ZEVA_LOG(kLogDebug, "repair: stop() success.");
  }
}

bool RepairEngine::Run(const std::string& broken, const std::string& index,
                       const std::string& output) {
  running_ = true;
  struct Clear {
    std::atomic<bool>& flag;
    ~Clear() { flag = false; }
  } clear{running_};
  if (stopped_) {
    Report(0.0, -5, "repair: already stopped.  can't recall this function...");
    return false;
  }
  FILE* file = platform::open_file(broken.c_str(), "rb");
  if (file == nullptr) {
    ZEVA_LOG(kLogError, "无法打开mdata文件: %s", broken.c_str());
    Report(0.0, -1, "cannot open broken_file...");
    return false;
  }
  struct stat st {};
  broken_size_ = fstat(fileno(file), &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
  at_end_ = false;
  bool ok = false;
  if (!parser_.parse(index.c_str())) {
    Report(0.0, -2, "parse moov file failed ...");
  } else {
    int r;
    try {
      r = Rebuild(file, output);
    } catch (const std::bad_alloc&) {
      r = AVERROR(ENOMEM);
    }
    ok = r >= 0 || r == AVERROR_EOF;
    if (!ok) {
      const char* text = av_error_text(r);
      ZEVA_LOG(kLogError, "Error occurred(%d): %s", r, text);
      Report(parser_.progress(), -10, text);
    }
  }
  parser_.reset();
  std::fclose(file);
  return ok;
}

int RepairEngine::Rebuild(FILE* broken, const std::string& output) {
  AVFormatContext* raw = nullptr;
  if (avformat_alloc_output_context2(&raw, nullptr, nullptr, output.c_str()) < 0 || raw == nullptr) {
    qel::err_print(stderr, "Could not create output context\n");
    return AVERROR_UNKNOWN;
  }
  OutputFormatPtr oc(raw);
  int r = AddStreams(oc.get());
  if (r < 0) return r;

  av_dump_format(oc.get(), 0, output.c_str(), 1);
  if (!(oc->oformat->flags & AVFMT_NOFILE)) {
    r = avio_open(&oc->pb, output.c_str(), AVIO_FLAG_WRITE);
    if (r < 0) {
      qel::err_print(stderr, "Could not open output file '%s'", output.c_str());
      return r;
    }
  }
  r = avformat_write_header(oc.get(), nullptr);
  if (r < 0) {
    qel::err_print(stderr, "Error occurred when opening output file\n");
    return r;
  }
  RecordLoop(oc.get(), broken);
  r = av_write_trailer(oc.get());
  if (!(oc->oformat->flags & AVFMT_NOFILE)) {
    const int closed = avio_closep(&oc->pb);
    if (r >= 0 && closed < 0) r = closed;  // a full disk shows here
  }
  return r;
}

int RepairEngine::AddStreams(AVFormatContext* oc) {
  for (const StreamKind kind : parser_.streams()) {
    AVStream* st = avformat_new_stream(oc, nullptr);
    if (st == nullptr) {
      qel::err_print(stderr, "Failed allocating output stream\n");
      return AVERROR_UNKNOWN;
    }
    AVCodecParameters* par = st->codecpar;
    const std::string* codec;
    const std::string* extradata;
    if (kind == StreamKind::kAudio) {
      const AudioDescription& a = parser_.audio();
      par->codec_type = AVMEDIA_TYPE_AUDIO;
      av_channel_layout_default(&par->ch_layout, a.channels);
      par->sample_rate = a.sample_rate;
      par->frame_size = a.frame_size;
      par->bit_rate = 64000;
      const AVSampleFormat fmt = av_get_sample_fmt(a.format.c_str());
      par->format = fmt == AV_SAMPLE_FMT_NONE ? AV_SAMPLE_FMT_FLTP : fmt;
      if (!ValidTimeBase(a.tb_num, a.tb_den)) return AVERROR_INVALIDDATA;
      st->time_base = {a.tb_num, a.tb_den};
      codec = &a.codec;
      extradata = &a.extradata_b64;
    } else {
      const VideoDescription& v = parser_.video();
      par->codec_type = AVMEDIA_TYPE_VIDEO;
      par->width = v.width;
      par->height = v.height;
      const AVPixelFormat fmt = av_get_pix_fmt(v.format.c_str());
      par->format = fmt == AV_PIX_FMT_NONE ? AV_PIX_FMT_YUV420P : fmt;
      par->bit_rate = 800000;
      if (!ValidTimeBase(v.tb_num, v.tb_den)) return AVERROR_INVALIDDATA;
      st->time_base = {v.tb_num, v.tb_den};
      codec = &v.codec;
      extradata = &v.extradata_b64;
    }
    const AVCodecDescriptor* desc = avcodec_descriptor_get_by_name(codec->c_str());
    if (desc == nullptr) {
      ZEVA_LOG(kLogError, "---> 找不到编码器：%s", codec->c_str());
      return AVERROR_DECODER_NOT_FOUND;
    }
    par->codec_id = desc->id;
    if (!SetExtradata(par, *extradata)) return AVERROR(ENOMEM);
  }
  return 0;
}

void RepairEngine::RecordLoop(AVFormatContext* oc, FILE* broken) {
  const int audio_index = parser_.has_audio() ? parser_.audio().index : -1;
  const int frame_size = parser_.has_audio() ? parser_.audio().frame_size : 0;
  decoder_ = std::make_unique<IndexRecordDecoder>(audio_index, frame_size);
  processed_lines_ = ignored_first_ = ignored_count_ = 0;
  int taken = 0;
  for (const char* line = parser_.next_line(); line != nullptr; line = parser_.next_line(), ++taken) {
    if (stopped_) {
      ZEVA_LOG(kLogError, "repair aborted .");
      break;
    }
    if (at_end_) {
      if (ignored_count_++ == 0) {
        ignored_first_ = taken;
        ZEVA_LOG(kLogError, ">> 损坏视频已经读取到末尾了,第一个忽略行 ========> %s", line);
      }
      continue;
    }
    ProcessLine(oc, broken, line);
    if (++processed_lines_ % kReportEveryLines == 0) Report(parser_.progress(), 0, "");
  }
  if (parser_.progress() >= 0.9) parser_.force_progress(1.0);
  Report(parser_.progress(), 0, "");
  ZEVA_LOG(kLogError, ">> 执行完成 %.6lf, （忽略索引: [%d ~ %d) 共%d行）", parser_.progress(),
           ignored_first_, ignored_first_ + ignored_count_, ignored_count_);
}

void RepairEngine::ProcessLine(AVFormatContext* oc, FILE* broken, const char* line) {
  const int version = parser_.version();
  if (version != 1 && version != 2) {
    std::printf("[ERROR] version=%d, parse failed\n", version);
    return;
  }
  PacketPtr pkt = NewPacket();
  if (!pkt) return;
  IndexRecord record;
  for (const char* p = line; p != nullptr;) {
    const char* rest = p;
    p = ReadIndexRecord(p, version, &record);
    if (p == nullptr) return;
    if (record.stream < 0 || record.stream > 4 ||
        static_cast<unsigned>(record.stream) >= oc->nb_streams) {
      ZEVA_LOG(kLogError, "===> stream.idx=%d 不合法，moov已处理 %d 行(%.6lf)：%s", record.stream,
               parser_.line_number(), parser_.progress(), rest);
      return;
    }
    const IndexPacket packet = decoder_->Decode(record);
    if (record.position != 0) {
      ZEVA_LOG(kLogDebug, "packet数据 seek fpos=%lld", static_cast<long long>(record.position));
      if (fseeko(broken, record.position, SEEK_SET) != 0) at_end_ = true;
    }
    if (!ReadPacket(broken, packet.position, packet.size)) return;

    const AVStream* st = oc->streams[packet.stream];
    const bool audio = st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    const AVRational src = audio ? AVRational{parser_.audio().tb_num, parser_.audio().tb_den}
                                 : AVRational{parser_.video().tb_num, parser_.video().tb_den};
    const auto rnd = static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX);
    av_packet_unref(pkt.get());
    pkt->data = buffer_;
    pkt->size = packet.size;
    pkt->stream_index = packet.stream;
    pkt->pts = av_rescale_q_rnd(packet.pts, src, st->time_base, rnd);
    pkt->dts = av_rescale_q_rnd(packet.dts, src, st->time_base, rnd);
    pkt->duration = av_rescale_q(packet.duration, src, st->time_base);
    pkt->flags = packet.key ? AV_PKT_FLAG_KEY : 0;
    pkt->pos = -1;
    // Index order is the recording's own interleaving: no reordering.
    const int r = av_write_frame(oc, pkt.get());
    if (r < 0) {
      char pts[AV_TS_MAX_STRING_SIZE], dts[AV_TS_MAX_STRING_SIZE], dur[AV_TS_MAX_STRING_SIZE];
      AVRational tb = st->time_base;
      av_ts_make_time_string(pts, pkt->pts, &tb);
      av_ts_make_time_string(dts, pkt->dts, &tb);
      av_ts_make_time_string(dur, pkt->duration, &tb);
      std::printf("pts:%" PRId64 " pts_time:%s dts:%" PRId64 " dts_time:%s duration:%" PRId64
                  " duration_time:%s stream_index:%d\n",
                  pkt->pts, pts, pkt->dts, dts, pkt->duration, dur, pkt->stream_index);
      std::fflush(stdout);
      ZEVA_LOG(kLogError, "@@ moov已处理 %d 行(%.6lf); write frame err: %s, next=%s",
               parser_.line_number(), parser_.progress(), av_error_text(r), p);
      if (parser_.progress() < 0.9) std::printf("error:ret=%d,msg=%s\n", r, av_error_text(r));
      pkt->data = nullptr;
      pkt->size = 0;
      return;
    }
    pkt->data = nullptr;  // the bytes are ours, not the packet's
    pkt->size = 0;
  }
}

bool RepairEngine::ReadPacket(FILE* broken, int64_t position, int size) {
  const int64_t at = ftello(broken);
  const int64_t left = at >= 0 && broken_size_ > at ? broken_size_ - at : 0;
  // Only what the file still holds is allocated and read, so a corrupt size
  // can never ask for gigabytes; a negative one reads on to the end.
  const int64_t want = size < 0 ? left : size;
  const int reachable = static_cast<int>(std::min(want, std::min<int64_t>(left, kMaxPacketBytes)));
  if (reachable + AV_INPUT_BUFFER_PADDING_SIZE > capacity_) {
    auto* grown = static_cast<uint8_t*>(av_realloc(buffer_, reachable + AV_INPUT_BUFFER_PADDING_SIZE));
    if (grown == nullptr) return false;
    buffer_ = grown;
    capacity_ = reachable + AV_INPUT_BUFFER_PADDING_SIZE;
  }
  const size_t got = reachable > 0 ? std::fread(buffer_, 1, static_cast<size_t>(reachable), broken) : 0;
  std::memset(buffer_ + got, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  if (size >= 0 && got == static_cast<size_t>(size)) return true;
  // Short: the broken file ends here (a negative size reads on to its end).
  at_end_ = true;
  ZEVA_LOG(kLogError, "读取packet数据 %d < %d(需求)，该行索引处理结束 (eof=%d, fpos=%lld) err_code=%d",
           static_cast<int>(got), size, at_end_ ? 1 : 0, static_cast<long long>(position),
           std::ferror(broken));
  return false;
}

}  // namespace zeva
