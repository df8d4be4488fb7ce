#include "encode/audio_enc.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
}

#include "encode/output_stream.h"
#include "log/logger.h"
#include "platform/av_error.h"
#include "zeva/filter_base.h"

namespace zeva {
namespace {

// Samples per frame for codecs that take frames of any size.
constexpr int kVariableFrameSamples = 10000;
// 2 * pi * 110: the tone starts at 110 Hz.
constexpr double kToneStep = 691.1503837897545;

// An audio frame with room for `nb_samples` (none for 0). Null only when the
// layout cannot be copied; running out of memory otherwise ends the process.
FramePtr AllocAudioFrame(int sample_fmt, const AVChannelLayout* layout, int sample_rate,
                         int nb_samples) {
  FramePtr frame = NewFrame();
  if (frame == nullptr) ExitProcess("Error allocating an audio frame\n");
  frame->format = sample_fmt;
  if (av_channel_layout_copy(&frame->ch_layout, layout) < 0) return nullptr;
  frame->sample_rate = sample_rate;
  frame->nb_samples = nb_samples;
  if (nb_samples != 0 && av_frame_get_buffer(frame.get(), 0) < 0) {
    ExitProcess("[C++] Error allocating an audio buffer\n");
  }
  return frame;
}

}  // namespace

AudioEnc::AudioEnc(BaseWriter* writer) : EncBase(writer) {}

AudioEnc::~AudioEnc() { filter_ = nullptr; }

void AudioEnc::open(AVFormatContext*, const AVCodec* codec, OutputStream* ost, AVDictionary* opts,
                    const MovieInfo& info) {
  OpenCodec(codec, ost, opts, info, "audio");
  AVCodecContext* enc = ost->enc.get();

  t_ = 0;
  PrimeTone(enc->sample_rate);
  ost->tmp_frame.reset();

  const int nb_samples = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE)
                             ? kVariableFrameSamples
                             : enc->frame_size;
  ost->frame = AllocAudioFrame(enc->sample_fmt, &enc->ch_layout, enc->sample_rate, nb_samples);
  if (ost->frame == nullptr) throw EncoderError("Could not allocate audio frame");
}

void AudioEnc::PrimeTone(int sample_rate) {
  const double step = kToneStep / sample_rate;
  tincr_ = static_cast<float>(step);
  tincr2_ = static_cast<float>(step / sample_rate);
}

int AudioEnc::encode(AVFormatContext* oc, OutputStream* ost, AVFrame* frame) {
  if (oc == nullptr) return -1;
  av_packet_unref(ost->pkt.get());
  return SendAndReceive(ost, frame, "audio", filter_);
}

AVFrame* AudioEnc::generate_test_frame(OutputStream* ost, const AVRational& tb) {
  const AVCodecContext* enc = ost->enc.get();
  if (enc == nullptr || ost->frame == nullptr) return nullptr;
  const MovieInfo& s = settings_;

  if (ost->tmp_frame == nullptr) {
    // As many source samples as fill one encoder frame after resampling.
    const int64_t nb_samples = av_rescale_rnd(ost->frame->nb_samples, s.src_sample_rate,
                                              s.sample_rate, AV_ROUND_UP);
    if (s.channels > 0 && nb_samples >= 0 && nb_samples <= INT_MAX) {
      AVChannelLayout layout;
      av_channel_layout_default(&layout, s.channels);
      ost->tmp_frame = AllocAudioFrame(s.sample_fmt, &layout, s.src_sample_rate,
                                       static_cast<int>(nb_samples));
      av_channel_layout_uninit(&layout);
    }
    if (ost->tmp_frame == nullptr) {
      qel::err_print(stderr, "Could not allocate temporary audio samples\n");
      return nullptr;
    }
  }

  if (av_compare_ts(ost->next_pts, enc->time_base, tone_period_s_, AVRational{1, 1}) >= 0) {
    tone_period_s_ += 10;
    t_ = 0;
    PrimeTone(enc->sample_rate);
  }

  AVFrame* out = ost->tmp_frame.get();
  // The frame may have gone to the codec as it is, which may still hold it.
  if (out->buf[0] != nullptr && av_frame_make_writable(out) < 0) ExitProcess(nullptr);
  // One sample per channel of the codec. The scratch frame is sized by the
  // settings' channel count and format, so writing stops where its first
  // plane ends.
  int16_t* q = reinterpret_cast<int16_t*>(out->data[0]);
  const int64_t room = q != nullptr ? out->linesize[0] / static_cast<int64_t>(sizeof *q) : 0;
  const int channels = enc->ch_layout.nb_channels;
  int64_t written = 0;
  for (int j = 0; j < out->nb_samples; ++j) {
    const int16_t v = static_cast<int16_t>(static_cast<int>(std::sin(double{t_}) * 10000));
    for (int c = 0; c < channels && written < room; ++c) q[written++] = v;
    t_ += tincr_;
    tincr_ += tincr2_;
  }

  out->pts = av_rescale_q(ost->next_pts, AVRational{1, s.src_sample_rate}, tb);
  ost->next_pts += out->nb_samples;
  return out;
}

}  // namespace zeva
