#include "encode/movie_muxer.h"

#include <cinttypes>
#include <cstring>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include "encode/audio_enc.h"
#include "encode/enc_base.h"
#include "encode/hardware_encoder.h"
#include "encode/video_enc.h"
#include "encode/zv_exception.h"
#include "log/logger.h"
#include "output/output_url.h"
#include "platform/av_error.h"
#include "settings/preset_options.h"

namespace zeva {
namespace {

// Whether the main URL or a further one starts with `scheme`.
bool AnyUrlStartsWith(const MovieInfo& info, const char* scheme) {
  if (StartsWithNoCase(info.url, scheme)) return true;
  for (const char* other : info.other_urls)
    if (StartsWithNoCase(other, scheme)) return true;
  return false;
}

bool IsNetworked(const MovieInfo& info) {
  return AnyUrlStartsWith(info, "rtsp://") || AnyUrlStartsWith(info, "rtmp://");
}

// How long a stop waits for network outputs without a time-out of their
// own to deliver what is queued.
constexpr int kStopGraceSec = 5;

template <typename T, typename Pred>
bool ListContains(const T* list, T end, Pred match) {
  for (const T* p = list; p != nullptr && *p != end; ++p)
    if (match(*p)) return true;
  return false;
}

}  // namespace

struct MovieMuxer::StartRecord {
  std::atomic<bool> exited{false};
  std::atomic<bool> finished{false};  // the start thread is done, whatever the outcome
  MovieInfo info{};
  StatusCallback cb = nullptr;
  void* user = nullptr;
  std::thread thread;
};

MovieMuxer::MovieMuxer(BaseWriter* writer) : MovieBase(writer) {}

MovieMuxer::~MovieMuxer() {
  stop();
  ZEVA_LOG(kLogInfo, "~movie muxer ...");
  audio_enc_.reset();
  ZEVA_LOG(kLogInfo, "delete audio OK");
  video_enc_.reset();
  ZEVA_LOG(kLogInfo, "delete video OK");
  av_dict_free(&opts_);
  ZEVA_LOG(kLogInfo, "~movie muxer OK");
}

int MovieMuxer::start(const MovieInfo& info, StatusCallback cb, void* user, bool async) {
  not_running_ = true;
  if (IsNetworked(info) && !network_) {
    avformat_network_init();
    network_ = true;
  }
  {
    std::lock_guard<std::mutex> lock(effective_mu_);
    effective_ = info;
  }
  start_ = std::make_unique<StartRecord>();
  start_->info = info;
  start_->cb = cb;
  start_->user = user;
  if (async) {
    start_->thread = std::thread([this] { RunStart(); });
  } else {
    RunStart();
  }
  return 0;
}

void MovieMuxer::RunStart() {
  StartRecord& rec = *start_;
  struct Finish {
    StartRecord& rec;
    ~Finish() { rec.finished = true; }
  } finish{rec};
  if (rec.exited) {
    ZEVA_LOG(kLogError, "=^= running begin: already exited,  exit thread");
    return;
  }
  try {
    Open(rec.info);
  } catch (const ZVException& e) {
    ZEVA_LOG(kLogError, " ---- catch error --- : %s", e.what());
    if (rec.exited) {
      ZEVA_LOG(kLogError, "=#= catch exception: already exited, ignore ...");
      return;
    }
    if (e.code() == 20) {
      ZEVA_LOG(kLogError, "== catch exception: already exited, ignore ...");
      return;
    }
    if (rec.cb != nullptr) rec.cb(e.code(), e.what(), rec.user);
  } catch (...) {
    ZEVA_LOG(kLogError, " ---- catch error --- : Unknow\n");
  }
}

void MovieMuxer::Open(MovieInfo& info) {
  StartRecord& rec = *start_;
  const bool rtmp = StartsWithNoCase(info.url, "rtmp://");
  const bool rtsp = StartsWithNoCase(info.url, "rtsp://");

  // Container.
  const AVOutputFormat* fmt = rtmp   ? av_guess_format("flv", nullptr, nullptr)
                              : rtsp ? av_guess_format("rtsp", nullptr, nullptr)
                                     : av_guess_format(nullptr, info.url, nullptr);
  if (fmt == nullptr) fmt = av_guess_format("mp4", nullptr, nullptr);
  if (fmt == nullptr) throw ZVException(12, "@ av_guess_format(...) is NULL");
  if (avformat_alloc_output_context2(&oc_, fmt, nullptr, info.url) < 0) {
    throw ZVException(10, "@ alloc context failed ...");
  }
  if (oc_ == nullptr) {
    ZEVA_LOG(kLogError, "Could not alloc output context ...");
    avformat_alloc_output_context2(&oc_, nullptr, "mpeg", info.url);
  }
  if (oc_ == nullptr) {
    if (rec.cb != nullptr) rec.cb(10, "output context is NULL", rec.user);
    return;
  }
  // Codecs.
  AVCodecID video_codec = oc_->oformat->video_codec;
  AVCodecID audio_codec = oc_->oformat->audio_codec;
  if (rtmp || rtsp) {
    video_codec = AV_CODEC_ID_H264;
    audio_codec = rtmp ? AV_CODEC_ID_AAC : AV_CODEC_ID_OPUS;
  }
  // The transport and the time-outs of network outputs are set where the
  // output is opened (OpenOutputIo).
  if (rtsp) oc_->max_interleave_delta = 1000000;
  if (info.disable_video) video_codec = AV_CODEC_ID_NONE;
  if (info.disable_audio) audio_codec = AV_CODEC_ID_NONE;

  writer_->set_network_io(info.timeout_sec, &io_);
  writer_->create_other_writers(info.other_urls);

  try {
    const AVCodec* vcodec = nullptr;
    const AVCodec* acodec = nullptr;
    if (video_codec != AV_CODEC_ID_NONE) {
      video_enc_ = std::make_unique<VideoEnc>(writer_.get());
      vcodec = AddStream(video_codec, &video_st_, info);
      has_video_ = vcodec != nullptr;
    }
    if (audio_codec != AV_CODEC_ID_NONE) {
      audio_enc_ = std::make_unique<AudioEnc>(writer_.get());
      acodec = AddStream(audio_codec, &audio_st_, info);
      has_audio_ = acodec != nullptr;
    }
    if (has_video_) video_enc_->open(oc_, vcodec, &video_st_, opts_, info);
    if (has_audio_) audio_enc_->open(oc_, acodec, &audio_st_, opts_, info);
  } catch (const EncoderError& e) {
    info.hardware = false;
    audio_enc_.reset();
    video_enc_.reset();
    throw ZVException(21, e.what());
  }
  if (!has_video_) video_enc_.reset();
  if (!has_audio_) audio_enc_.reset();

  av_dump_format(oc_, 0, info.url, 1);
  // Opens the file or connects to the server, under the time-out; a stop
  // that overtakes the start interrupts a connect in progress.
  const int opened_io = OpenOutputIo(oc_, info.url, info.timeout_sec, &io_);
  if (opened_io < 0) {
    ZEVA_LOG(kLogError, "Could not open '%s': %s", info.url, av_error_text(opened_io));
    throw ZVException(11, "Could not open url");
  }

  ZEVA_LOG(kLogError, "@@-- moov: %s", info.moov_url);
  const WriterResult opened = writer_->open(oc_, info.meta_info, info.moov_url);
  if (opened.failed) {
    ZEVA_LOG(kLogError, "(%d) %s", static_cast<int>(opened.value), opened.message.c_str());
    throw ZVException(21, opened.message);
  }
  {
    std::lock_guard<std::mutex> lock(effective_mu_);
    effective_ = info;
  }
  if (has_video_) video_tb_ = video_st_.enc->time_base;
  if (has_audio_) audio_tb_ = audio_st_.enc->time_base;
  if (!writer_->start()) throw ZVException(21, "start failed ...");
  not_running_ = false;
  if (rec.cb != nullptr) rec.cb(0, "start OK", rec.user);
}

const AVCodec* MovieMuxer::AddStream(int codec_id, OutputStream* ost, MovieInfo& info) {
  const auto id = static_cast<AVCodecID>(codec_id);
  const AVCodec* codec = nullptr;
  const char* hw_name = nullptr;
  if (id == AV_CODEC_ID_H264 && info.hardware) {
    size_t count = 0;
    const HwEncoder* table = hw_encoders(&count);
    for (size_t i = 0; i < count && codec == nullptr; ++i) {
      if (!probe_hw_encoder(&table[i], info.width, info.height, AV_PIX_FMT_NV12)) continue;
      codec = avcodec_find_encoder_by_name(table[i].name);
      hw_name = table[i].name;
      if (info.pix_fmt != AV_PIX_FMT_NV12) {
        info.pix_fmt = AV_PIX_FMT_NV12;
        ZEVA_LOG(kLogError, "*** hardware force pix-fmt: nv12");
      }
    }
    info.hardware = codec != nullptr;
  }
  if (id == AV_CODEC_ID_MP3) {
    codec = avcodec_find_encoder_by_name("libmp3lame");
    ZEVA_LOG(kLogError, "win,mp3, find codec: 'libmp3lame': %s", codec ? "ok" : "failed");
  }
  if (codec == nullptr) codec = avcodec_find_encoder(id);
  if (codec == nullptr) {
    ZEVA_LOG(kLogError, "Could not find encoder for '%s'", avcodec_get_name(id));
    return nullptr;
  }
  AVStream* st = avformat_new_stream(oc_, nullptr);
  if (st == nullptr) {
    ZEVA_LOG(kLogError, "Could not allocate stream");
    return nullptr;
  }
  st->id = static_cast<int>(oc_->nb_streams) - 1;
  CodecContextPtr c(avcodec_alloc_context3(codec));
  if (!c) {
    ZEVA_LOG(kLogError, "Could not alloc an encoding context");
    return nullptr;
  }
  if (codec->type == AVMEDIA_TYPE_VIDEO) {
    ConfigureVideo(c.get(), codec, info, hw_name);
  } else {
    ConfigureAudio(c.get(), codec, info);
  }
  st->time_base = c->time_base;
  if (oc_->oformat->flags & AVFMT_GLOBALHEADER) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  apply_preset_options(c.get(), info.preset, info.profile, info.tune);
  ost->st = st;
  ost->enc = std::move(c);
  ost->pkt = NewPacket();
  return codec;
}

void MovieMuxer::ConfigureVideo(AVCodecContext* c, const AVCodec* codec, MovieInfo& info,
                                const char* hw_name) {
  const bool hardware = hw_name != nullptr;
  if (hw_name != nullptr && std::strcmp(hw_name, "h264_mf") == 0) {
    av_opt_set_int(c->priv_data, "hw_encoding", 1, 0);
  }
  int64_t bitrate = int64_t{info.video_bitrate} * 1000;
  if (bitrate == 0) {
    if (hardware) {
      if (info.rc_mode != 3) info.rc_mode = 3;
      ZEVA_LOG(kLogDebug, "[auto] zero bitrate, CQP enable, qp=%d", info.qp);
    } else if (codec->id != AV_CODEC_ID_H264) {
      bitrate = static_cast<int64_t>(double(info.fps) * info.height * info.width * 32 * 0.003);
      ZEVA_LOG(kLogDebug, "[auto] zero bitrate, force bitrate=%d kBps",
               static_cast<int>(bitrate / 1024));
    }
  }
  switch (info.rc_mode) {
    case 0:
      qel::err_print(stderr, "ABR\n");
      c->bit_rate = bitrate;
      break;
    case 1:
      qel::err_print(stderr, "CBR\n");
      c->bit_rate = c->rc_max_rate = c->rc_min_rate = bitrate;
      c->bit_rate_tolerance = static_cast<int>(bitrate);
      c->rc_buffer_size = static_cast<int>(bitrate);
      c->rc_initial_buffer_occupancy = static_cast<int>(bitrate * 3 / 4);
      if (info.crf >= 1 && info.crf <= 51) {
        qel::err_print(stderr, "CBR,  crf=%d\n", info.crf);
        av_opt_set(c, "crf", std::to_string(info.crf).c_str(), AV_OPT_SEARCH_CHILDREN);
      }
      break;
    case 3:
      qel::err_print(stderr, "CQP\n");
      if (info.qp >= 1 && info.qp <= 51) {
        qel::err_print(stderr, "CQP,  qp=%d\n", info.qp);
        av_opt_set(c, "qp", std::to_string(info.qp).c_str(), AV_OPT_SEARCH_CHILDREN);
      }
      break;
    default: {
      qel::err_print(stderr, "VBR\n");
      const int64_t k = bitrate / 1000;
      c->rc_min_rate = std::max<int64_t>(k - 200, 10) * 1000;
      c->flags |= AV_CODEC_FLAG_QSCALE;
      c->rc_max_rate = k * 1000 + 10000;
      c->bit_rate = k * 1000;
      break;
    }
  }
  std::fflush(stderr);

  c->width = info.width;
  c->height = info.height;
  if (info.color_primaries != 0) c->color_primaries = static_cast<AVColorPrimaries>(info.color_primaries);
  if (info.color_trc != 0) c->color_trc = static_cast<AVColorTransferCharacteristic>(info.color_trc);
  if (info.colorspace != 2) c->colorspace = static_cast<AVColorSpace>(info.colorspace);
  if (info.color_range != 0) c->color_range = static_cast<AVColorRange>(info.color_range);

  AVRational rate{info.fps, 1};
  if (codec->supported_framerates != nullptr) {
    const int idx = av_find_nearest_q_idx(rate, codec->supported_framerates);
    const AVRational nearest = codec->supported_framerates[idx];
    if (nearest.num != info.fps) {
      ZEVA_LOG(kLogError, "-->reset fps: %d --> %d", info.fps, nearest.num);
      info.fps = nearest.num;
    }
    rate = nearest;
  }
  c->framerate = rate;
  c->time_base = {1, info.fps};
  c->gop_size = info.gop_size;

  const auto wanted = static_cast<AVPixelFormat>(info.pix_fmt);
  if (codec->pix_fmts == nullptr ||
      ListContains(codec->pix_fmts, AV_PIX_FMT_NONE, [&](AVPixelFormat f) { return f == wanted; })) {
    c->pix_fmt = wanted;
  } else {
    c->pix_fmt = codec->pix_fmts[0];
    info.pix_fmt = c->pix_fmt;
  }
  c->max_b_frames = codec->id == AV_CODEC_ID_MPEG2VIDEO ? 2 : 0;
  if (codec->id == AV_CODEC_ID_MPEG1VIDEO) c->mb_decision = 2;
}

void MovieMuxer::ConfigureAudio(AVCodecContext* c, const AVCodec* codec, MovieInfo& info) {
  const auto wanted_fmt = static_cast<AVSampleFormat>(info.sample_fmt);
  if (codec->sample_fmts != nullptr &&
      !ListContains(codec->sample_fmts, AV_SAMPLE_FMT_NONE,
                    [&](AVSampleFormat f) { return f == wanted_fmt; })) {
    c->sample_fmt = codec->sample_fmts[0];
  } else {
    c->sample_fmt = wanted_fmt;
  }
  c->bit_rate = int64_t{info.audio_bitrate} * 1000;

  int rate = info.sample_rate;
  const int* rates = codec->supported_samplerates;
  const bool flv = EndsWithNoCase(info.url, ".flv");
  if (rates != nullptr) {
    if (flv || !ListContains(rates, 0, [&](int r) { return r == info.sample_rate; })) rate = rates[0];
  } else if (flv) {
    ZEVA_LOG(kLogError, "--> codec('%s') supported_samplerates is null array.", codec->name);
  }
  if (rate != info.sample_rate) {
    ZEVA_LOG(kLogError, "-->reset sample_rate_dst: %d --> %d", info.sample_rate, rate);
    info.sample_rate = rate;
  }
  c->sample_rate = rate;

  const AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
  const AVChannelLayout* layout = &stereo;
  if (codec->ch_layouts != nullptr && codec->ch_layouts[0].nb_channels != 0) {
    bool has_stereo = false;
    for (const AVChannelLayout* l = codec->ch_layouts; l->nb_channels != 0; ++l)
      has_stereo |= av_channel_layout_compare(l, &stereo) == 0;
    if (!has_stereo) layout = &codec->ch_layouts[0];
  }
  av_channel_layout_copy(&c->ch_layout, layout);
  qel::err_print(stderr, "layout = %lld\n",
                 static_cast<long long>(c->ch_layout.order == AV_CHANNEL_ORDER_NATIVE
                                            ? c->ch_layout.u.mask
                                            : 0));
  std::fflush(stderr);
  c->time_base = {1, rate};
  if (c->frame_size == 0) c->frame_size = 1024;
}

int64_t MovieMuxer::last_video_us() const {
  if (last_video_pts_ < 0 || video_tb_.num == 0) return -1;
  return av_rescale_q(last_video_pts_, video_tb_, {1, 1000000});
}

int64_t MovieMuxer::last_audio_us() const {
  if (last_audio_pts_ < 0 || audio_tb_.num == 0) return -1;
  return av_rescale_q(last_audio_pts_, audio_tb_, {1, 1000000});
}

int MovieMuxer::write_video_frame(AVFrame* frame, const AVRational* tb) {
  if (not_running_ || !video_enc_) return 0;
  if (frame == nullptr) return video_enc_->encode(oc_, &video_st_, nullptr);
  if (tb != nullptr) frame->pts = av_rescale_q(frame->pts, *tb, video_st_.enc->time_base);
  if (frame->pts <= last_video_pts_) {
    ZEVA_LOG(kLogDebug, "@@@ V pts: %lld  (frame->pts <= g_last_v_pts %lld)",
             static_cast<long long>(frame->pts), static_cast<long long>(last_video_pts_));
    return 0;
  }
  last_video_pts_ = frame->pts;
  return video_enc_->encode(oc_, &video_st_, frame);
}

int MovieMuxer::write_audio_frame(AVFrame* frame, const AVRational* tb) {
  if (not_running_ || !audio_enc_) return 0;
  if (frame == nullptr) return audio_enc_->encode(oc_, &audio_st_, nullptr);
  if (tb != nullptr) frame->pts = av_rescale_q(frame->pts, *tb, audio_st_.enc->time_base);
  last_audio_pts_ = frame->pts;
  return audio_enc_->encode(oc_, &audio_st_, frame);
}

bool MovieMuxer::stop() {
  if (!start_) return true;  // never started, or stopped already
  ZEVA_LOG(kLogInfo, "begin ...");
  start_->exited = true;
  // The start thread gives up at its next check; a connect it is blocked in
  // is interrupted, for as long as we wait for it. Outputs it has opened
  // meanwhile still get their trailers below. A start that finished long
  // ago is joined without the interrupt: its writers are busy delivering.
  if (start_->thread.joinable()) {
    const bool overtaking = !start_->finished;
    if (overtaking) io_.Trigger();
    start_->thread.join();
    if (overtaking) io_.Reset();
  }
  AVFormatContext* oc = oc_;
  if (oc == nullptr) {
    start_.reset();
    return true;
  }
  if (not_running_) ZEVA_LOG(kLogInfo, "end begin... ======  maybe start rtmp thread blocking ..");
  not_running_ = true;
  // Network outputs may deliver what is queued, the trailer and the goodbye
  // to the server; a server gone silent cannot hold stop (or the flush,
  // which may wait for room in a queue) any longer.
  const int timeout_sec = start_->info.timeout_sec;
  io_.TriggerAfter(int64_t{timeout_sec > 0 ? timeout_sec : kStopGraceSec} * 1000000);

  if (audio_enc_) (void)audio_enc_->encode(oc, &audio_st_, nullptr);
  if (video_enc_) (void)video_enc_->encode(oc, &video_st_, nullptr);

  ZEVA_LOG(kLogInfo, "before write stop ...");
  writer_->stop();
  ZEVA_LOG(kLogInfo, "write stop ok");

  if (has_video_) {
    video_st_ = OutputStream{};
    ZEVA_LOG(kLogInfo, "--- close video OK.");
  }
  if (has_audio_) {
    audio_st_ = OutputStream{};
    ZEVA_LOG(kLogInfo, "--- close audio OK.");
  }
  if (!(oc->oformat->flags & AVFMT_NOFILE)) {
    avio_closep(&oc->pb);
    ZEVA_LOG(kLogInfo, "--- close io OK.");
  }
  if (network_) {
    ZEVA_LOG(kLogInfo, "--- has rtmp .");
    avformat_network_deinit();
    network_ = false;
  }
  avformat_free_context(oc);
  oc_ = nullptr;
  io_.Reset();
  ZEVA_LOG(kLogInfo, "--- free ctx OK.");
  start_.reset();
  return true;
}

}  // namespace zeva
