// The packet recording interface: the host hands H.264 and AAC packets it has
// already encoded (or PCM, which the library encodes to AAC), each stamped
// with its own clock in microseconds; the library records them without
// re-encoding into a file or stream and up to four further outputs.
//
// Timing: every packet is recorded with pts = dts = the host's timestamp,
// rebased so that each stream starts at 0. A video stream with B-frames
// (whose decode order differs from its display order) is therefore outside
// this interface's contract: encode with B-frames off. Packets are kept in a
// small sorting window, so timestamps may arrive slightly out of order.
//
// Every function accepts a null handle and returns its neutral value. Each
// write function must be called from one thread at a time, and ZEVA2_stop
// must not race with writes on the same handle.
#ifndef ZEVA_PACKET_H
#define ZEVA_PACKET_H

#include <cstdint>

#include "zeva/export.h"

// Settings of a packet recording, copied whole by ZEVA2_start. The further
// URLs are copied too; the parameter sets are read during ZEVA2_start only.
// Start from a zero-filled record (`MovieInfo2 info{};`). Its layout is fixed:
// field order and widths never change, and later options take bytes from the
// reserved tail, where zero always keeps the earlier behaviour.
struct MovieInfo2 {
  char url[512];                  // main output: file path, "rtmp://..." or "rtsp://..."
  char moov[512];                 // crash-safe index for the first ".mp4" output; "" for none
  char meta[256];                 // container metadata: "key:value;key:value"
  const char* others[4];          // further output URLs; null entries are skipped
  int32_t vcodec;                 // 1: the host writes H.264 packets; other: no video
  int32_t acodec;                 // 1: AAC packets (ADTS); 2: PCM, encoded to AAC; other: no audio
  int32_t sample_rate;            // PCM (acodec 2): rate in Hz
  int32_t channels;               // PCM: channel count
  const char* sample_format;      // PCM: "s16", "flt32p" or "flt32"
  int32_t bitrate;                // PCM: AAC bit rate in kbit/s
  const uint8_t* pps;             // H.264 parameter sets for length-prefixed packets
  const uint8_t* sps;
  int32_t pps_len;
  int32_t sps_len;
  const uint8_t* extradata;       // or an avcC record; with it or an SPS, packets are
  int32_t extradata_len;          // taken as length-prefixed and converted to Annex B
  // 0: an output that fails ends the whole recording. 1: a failed output is
  // closed and reported through the status callback, and the others record
  // on (a host that records while it streams keeps its file).
  int32_t keep_recording_on_output_error;
  // Network time-out of rtmp:// and rtsp:// outputs in seconds: connecting,
  // each write, and the drain at stop. 0 means 5 s.
  int32_t timeout_sec;
  char reserved[148];             // zero
};

// Status codes: 0 "start success" when the recording starts; -10 the AAC
// encoder or -11 the Annex B filter could not be created (ZEVA2_start then
// returns null); -23 no input stream could be opened; -33 no output could be
// opened (or an output's header failed); -7 the index file could not be
// created; -32 an output's I/O could not be opened; an FFmpeg error code when
// an output fails while recording. Messages name the output they concern.
// May be called on a library thread.
typedef void (*ZEVA2_StatusCallback)(int code, const char* message, void* user);

// Starts a recording. Outputs open on the library's worker thread once enough
// packets arrived to know the streams (normally the first key frame); until
// then packets are held. Null when the PCM encoder or the Annex B filter
// cannot be created (the callback has the reason).
ZEVA_API void* ZEVA2_start(const MovieInfo2& info, ZEVA2_StatusCallback status_cb, void* user);

// Flushes what the host wrote, ends the inputs, waits until every output has
// written its trailer (network outputs at most their time-out), frees the
// recording and sets `*handle` to null.
ZEVA_API void ZEVA2_stop(void** handle);

// Pause cuts the time until resume out of both streams' timelines; PCM
// written while paused is dropped. Resume is false when not paused.
ZEVA_API bool ZEVA2_pause(void* handle);
ZEVA_API bool ZEVA2_resume(void* handle);
ZEVA_API bool ZEVA2_is_paused(void* handle);

// The last rebased timestamp in microseconds: video's when it has one, else
// audio's; -1 for a null handle.
ZEVA_API int64_t ZEVA2_movie_time(void* handle);

// One H.264 access unit (Annex B, or length-prefixed when parameter sets were
// given) or one ADTS AAC frame, copied before the call returns. `usec` on the
// host's clock. False when the recording was stopped or failed, or that
// stream is not part of it. A null `data` with `nbytes` 0 releases packets
// still held for sorting.
ZEVA_API bool ZEVA2_write_video_packet(void* handle, void* data, int nbytes, int64_t usec);
ZEVA_API bool ZEVA2_write_audio_packet(void* handle, void* data, int nbytes, int64_t usec);

// PCM in the declared format: `planes` as FFmpeg frame data pointers (one for
// interleaved formats, one per channel for planar, at most four). AAC
// timestamps count samples from the first call, so audio must be contiguous.
ZEVA_API bool ZEVA2_write_audio_pcm(void* handle, uint8_t* const* planes, int nb_samples,
                                    int64_t usec);

#endif  // ZEVA_PACKET_H
