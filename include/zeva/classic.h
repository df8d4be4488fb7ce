// The classic recording interface: the host hands raw pictures (BGRA or any
// FFmpeg pixel format) and PCM, or ready AVFrames, stamped with the library's
// clock; the library encodes and writes them to a file or stream and to up to
// three further outputs.
//
// Every function accepts a null handle and then returns the neutral value
// (false, 0, null). The host serialises the calls for one handle: writes,
// pause, resume and stop must not run concurrently on it.
#ifndef ZEVA_CLASSIC_H
#define ZEVA_CLASSIC_H

#include <cstdint>

#include "zeva/export.h"
#include "zeva/filter_base.h"
#include "zeva/movie_info.h"

struct AVFrame;
struct AVRational;

// Status of a recording: code 0 "start OK" once the output is open; a start
// failure (10 output context, 11 URL cannot be opened, 12 no container, 21
// writer or encoder failure) or a write failure of an output (an FFmpeg error
// code). May be called on a library thread.
typedef void (*ZEVA_StatusCallback)(int code, const char* message, void* user);

// Creates a recording for `info` and opens its outputs: before returning, or
// with `async` on a thread of the library's (for streams that may block while
// connecting). `effective`, when not null, receives the settings really used
// (sample rate, fps, pixel format, rate control, hardware). Never null: a
// failure reaches `cb`, and ZEVA_get_mInfo then reports not started.
ZEVA_API void* ZEVA_start(const MovieInfo& info, ZEVA_StatusCallback cb, void* user,
                          MovieInfo* effective, bool async);

// Flushes the encoders, writes every trailer, closes the outputs and frees
// the recording; sets `*handle` to null. A null handle only logs.
ZEVA_API void ZEVA_stop(void** handle);

// Pause cuts the time until resume out of the movie: the host keeps stamping
// with ZEVA_current_sys_usec. False before the output is open.
ZEVA_API bool ZEVA_pause(void* h);
ZEVA_API bool ZEVA_resume(void* h);
ZEVA_API bool ZEVA_is_paused(void* h);

// Movie time in microseconds of the latest accepted input (video preferred).
ZEVA_API int64_t ZEVA_movie_time(void* h);
// Time in microseconds of the last packet handed to the writer (audio
// preferred), -1 with neither stream.
ZEVA_API int64_t ZEVA_last_usec_pts(void* h);
// The library's clock, in microseconds; stamp every frame with it.
ZEVA_API int64_t ZEVA_current_sys_usec();

// One picture in `info.src_pix_fmt` of `src_width` x `src_height`, first line
// stride `stride` bytes; `size` is not used. True when a converted frame
// reached the encoder; false when refused (not open yet, paused, video
// disabled). The bytes are read during the call only.
ZEVA_API bool ZEVA_write_video_bgra(void* h, void* data, int size, int64_t pts_us, int stride);
// PCM in `info.sample_fmt`, `channels`, `src_sample_rate`. Null `data` asks
// for silence from the previous audio time up to `pts_us`. True when at least
// one encoder frame was completed; false while it only buffered or refused.
ZEVA_API bool ZEVA_write_audio_pcm(void* h, void* data, int bytes, int64_t pts_us);
// Ready frames; `frame->pts` is in `tb`, in the library's clock. The frame
// stays the caller's.
ZEVA_API bool ZEVA_write_video_frame(void* h, AVFrame* frame, const AVRational& tb);
ZEVA_API bool ZEVA_write_audio_frame(void* h, AVFrame* frame, const AVRational& tb);

// The encoders' own destination frames, for hosts that fill them directly.
ZEVA_API AVFrame* ZEVA_video_dst_frame(void* h);
ZEVA_API AVFrame* ZEVA_audio_dst_frame(void* h);

// Installs a filter into the video encoder (which takes ownership and deletes
// it) or the audio encoder (which does not). Call after the start succeeded.
// True for any non-null handle, also when that stream does not exist.
ZEVA_API bool ZEVA_add_video_filter(void* h, FilterBase* f);
ZEVA_API bool ZEVA_add_audio_filter(void* h, FilterBase* f);

// A generated test picture / tone frame in the host's format, stamped in
// `tb`; owned by the recording, valid until the next call. Null without that
// stream.
ZEVA_API AVFrame* ZEVA_generate_testing_vFrame(void* h, const AVRational& tb);
ZEVA_API AVFrame* ZEVA_generate_testing_aFrame(void* h, const AVRational& tb);

// Copies the recording's working settings into `out` (not null) and returns
// whether its output is open.
ZEVA_API bool ZEVA_get_mInfo(void* h, MovieInfo* out);

#endif  // ZEVA_CLASSIC_H
