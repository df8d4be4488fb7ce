#include "support/encoded_media.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <unistd.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace zeva::test {
namespace {

constexpr int kFps = 30;
constexpr int kSampleRate = 48000;

CodecContextPtr OpenVideo(const MediaOptions& o) {
  const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
  if (codec == nullptr) return nullptr;
  CodecContextPtr c(avcodec_alloc_context3(codec));
  c->width = 320;
  c->height = 240;
  c->pix_fmt = AV_PIX_FMT_YUV420P;
  c->time_base = {1, kFps};
  c->framerate = {kFps, 1};
  c->gop_size = kFps;
  c->bit_rate = 500000;
  c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  c->max_b_frames = o.b_frames ? 2 : 0;
  av_opt_set(c->priv_data, "preset", o.b_frames ? "veryfast" : "ultrafast", 0);
  if (!o.b_frames) av_opt_set(c->priv_data, "tune", "zerolatency", 0);
  av_opt_set(c->priv_data, "x264-params", "log=-1", 0);
  if (avcodec_open2(c.get(), codec, nullptr) < 0) return nullptr;
  return c;
}

CodecContextPtr OpenAudio() {
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) return nullptr;
  CodecContextPtr c(avcodec_alloc_context3(codec));
  c->sample_fmt = AV_SAMPLE_FMT_FLTP;
  c->sample_rate = kSampleRate;
  av_channel_layout_default(&c->ch_layout, 2);
  c->bit_rate = 128000;
  c->time_base = {1, kSampleRate};
  c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (avcodec_open2(c.get(), codec, nullptr) < 0) return nullptr;
  return c;
}

// Sends `frame` (null: drain) and collects every packet the encoder returns.
void Encode(AVCodecContext* c, AVFrame* frame, int stream, EncodedMedia* media) {
  if (avcodec_send_frame(c, frame) < 0) {
    ADD_FAILURE() << "avcodec_send_frame failed";
    return;
  }
  for (;;) {
    PacketPtr pkt = NewPacket();
    const int r = avcodec_receive_packet(c, pkt.get());
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
    if (r < 0) {
      ADD_FAILURE() << "avcodec_receive_packet failed";
      return;
    }
    pkt->stream_index = stream;
    media->packets.push_back({stream, std::move(pkt)});
  }
}

void FillPicture(AVFrame* f, int n) {
  for (int y = 0; y < f->height; ++y)
    for (int x = 0; x < f->width; ++x)
      f->data[0][y * f->linesize[0] + x] = static_cast<uint8_t>(x + y + 3 * n);
  for (int p = 1; p < 3; ++p)
    for (int y = 0; y < f->height / 2; ++y)
      for (int x = 0; x < f->width / 2; ++x)
        f->data[p][y * f->linesize[p] + x] = static_cast<uint8_t>(128 + p * 20 + n);
}

void FillTone(AVFrame* f, int64_t first_sample) {
  for (int ch = 0; ch < f->ch_layout.nb_channels; ++ch) {
    auto* s = reinterpret_cast<float*>(f->data[ch]);
    for (int i = 0; i < f->nb_samples; ++i)
      s[i] = 0.2f * std::sin(2 * M_PI * 440.0 * (first_sample + i) / f->sample_rate);
  }
}

void AddStream(EncodedMedia* media, AVCodecContext* c) {
  EncodedStream s{CodecParametersPtr(avcodec_parameters_alloc()), c->time_base};
  avcodec_parameters_from_context(s.par.get(), c);
  media->streams.push_back(std::move(s));
}

}  // namespace

EncodedMedia EncodeTestMedia(const MediaOptions& o) {
  EncodedMedia media;
  CodecContextPtr video = o.video ? OpenVideo(o) : nullptr;
  CodecContextPtr audio = o.audio ? OpenAudio() : nullptr;
  if ((o.video && !video) || (o.audio && !audio)) {
    ADD_FAILURE() << "cannot open the test encoders";
    return media;
  }
  if (video) {
    media.video_index = static_cast<int>(media.streams.size());
    AddStream(&media, video.get());
  }
  if (audio) {
    media.audio_index = static_cast<int>(media.streams.size());
    AddStream(&media, audio.get());
  }

  FramePtr vf = NewFrame(), af = NewFrame();
  if (video) {
    vf->format = video->pix_fmt;
    vf->width = video->width;
    vf->height = video->height;
    av_frame_get_buffer(vf.get(), 0);
  }
  if (audio) {
    af->format = audio->sample_fmt;
    af->sample_rate = audio->sample_rate;
    av_channel_layout_copy(&af->ch_layout, &audio->ch_layout);
    af->nb_samples = audio->frame_size;
    av_frame_get_buffer(af.get(), 0);
  }

  const int frames = static_cast<int>(o.seconds * kFps);
  const int64_t total_samples = static_cast<int64_t>(o.seconds * kSampleRate);
  int64_t next_sample = 0;
  for (int n = 0; n < frames || (audio && next_sample < total_samples); ++n) {
    // Audio up to this video frame's time, then the frame itself.
    const int64_t until = audio ? std::min<int64_t>(total_samples,
                                                     (n + 1) * int64_t{kSampleRate} / kFps)
                                : 0;
    while (audio && next_sample < until) {
      av_frame_make_writable(af.get());
      FillTone(af.get(), next_sample);
      af->pts = next_sample;
      Encode(audio.get(), af.get(), media.audio_index, &media);
      next_sample += audio->frame_size;
    }
    if (video && n < frames) {
      av_frame_make_writable(vf.get());
      FillPicture(vf.get(), n);
      vf->pts = n;
      Encode(video.get(), vf.get(), media.video_index, &media);
    }
  }
  if (video) Encode(video.get(), nullptr, media.video_index, &media);
  if (audio) Encode(audio.get(), nullptr, media.audio_index, &media);
  return media;
}

PacketPtr ClonePacket(const EncodedMedia& media, size_t i) {
  return PacketPtr(av_packet_clone(media.packets.at(i).pkt.get()));
}

bool AddStreams(AVFormatContext* oc, const EncodedMedia& media) {
  for (const EncodedStream& s : media.streams) {
    AVStream* st = avformat_new_stream(oc, nullptr);
    if (st == nullptr || avcodec_parameters_copy(st->codecpar, s.par.get()) < 0) return false;
    st->time_base = s.time_base;
    st->codecpar->codec_tag = 0;
  }
  return true;
}

}  // namespace zeva::test
