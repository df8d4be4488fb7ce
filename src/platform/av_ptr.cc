#include "platform/av_ptr.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace zeva {

void PacketFree::operator()(AVPacket* p) const noexcept { av_packet_free(&p); }
void FrameFree::operator()(AVFrame* f) const noexcept { av_frame_free(&f); }
void CodecContextFree::operator()(AVCodecContext* c) const noexcept {
  avcodec_free_context(&c);
}
void CodecParametersFree::operator()(AVCodecParameters* p) const noexcept {
  avcodec_parameters_free(&p);
}
void OutputFormatFree::operator()(AVFormatContext* f) const noexcept {
  if (f == nullptr) return;
  if (f->oformat != nullptr && !(f->oformat->flags & AVFMT_NOFILE)) avio_closep(&f->pb);
  avformat_free_context(f);
}
void InputFormatFree::operator()(AVFormatContext* f) const noexcept {
  avformat_close_input(&f);
}
void IOContextFree::operator()(AVIOContext* p) const noexcept {
  av_freep(&p->buffer);
  avio_context_free(&p);
}
void SwsFree::operator()(SwsContext* s) const noexcept { sws_freeContext(s); }
void SwrFree::operator()(SwrContext* s) const noexcept { swr_free(&s); }
void BsfFree::operator()(AVBSFContext* b) const noexcept { av_bsf_free(&b); }
void AudioFifoFree::operator()(AVAudioFifo* f) const noexcept { av_audio_fifo_free(f); }
void DictionaryFree::operator()(AVDictionary* d) const noexcept { av_dict_free(&d); }

PacketPtr NewPacket() { return PacketPtr(av_packet_alloc()); }
FramePtr NewFrame() { return FramePtr(av_frame_alloc()); }

}  // namespace zeva
