// Owners for FFmpeg objects. The structs are only forward-declared here, so
// headers holding these members need no FFmpeg include; the deleter bodies
// live in av_ptr.cc.
#ifndef ZEVA_PLATFORM_AV_PTR_H
#define ZEVA_PLATFORM_AV_PTR_H

#include <memory>

struct AVAudioFifo;
struct AVBSFContext;
struct AVCodecContext;
struct AVCodecParameters;
struct AVDictionary;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct SwrContext;
struct SwsContext;

namespace zeva {

struct PacketFree { void operator()(AVPacket* p) const noexcept; };
struct FrameFree { void operator()(AVFrame* f) const noexcept; };
struct CodecContextFree { void operator()(AVCodecContext* c) const noexcept; };
struct CodecParametersFree { void operator()(AVCodecParameters* p) const noexcept; };
// For output contexts: closes `pb` first unless the format does its own I/O
// (AVFMT_NOFILE, as RTSP). Writes no trailer; the stop steps do that.
struct OutputFormatFree { void operator()(AVFormatContext* f) const noexcept; };
// For contexts opened with avformat_open_input.
struct InputFormatFree { void operator()(AVFormatContext* f) const noexcept; };
// For custom I/O contexts made with avio_alloc_context: frees the buffer
// (possibly replaced by FFmpeg meanwhile), then the context.
struct IOContextFree { void operator()(AVIOContext* p) const noexcept; };
struct SwsFree { void operator()(SwsContext* s) const noexcept; };
struct SwrFree { void operator()(SwrContext* s) const noexcept; };
struct BsfFree { void operator()(AVBSFContext* b) const noexcept; };
struct AudioFifoFree { void operator()(AVAudioFifo* f) const noexcept; };
struct DictionaryFree { void operator()(AVDictionary* d) const noexcept; };

using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, CodecParametersFree>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatFree>;
using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatFree>;
using IOContextPtr = std::unique_ptr<AVIOContext, IOContextFree>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFree>;
using SwrPtr = std::unique_ptr<SwrContext, SwrFree>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFree>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoFree>;
using DictionaryPtr = std::unique_ptr<AVDictionary, DictionaryFree>;

// Allocators; each returns null when FFmpeg is out of memory.
PacketPtr NewPacket();
FramePtr NewFrame();

}  // namespace zeva

#endif  // ZEVA_PLATFORM_AV_PTR_H
