// The settings record of the classic recording interface and the encoder
// tuning names. MovieInfo crosses the library's interface by value and is
// copied with one memory copy, so its layout is fixed: field order, array
// lengths and widths must never change (the library checks them at build time).
#ifndef ZEVA_MOVIE_INFO_H
#define ZEVA_MOVIE_INFO_H

#include "zeva/export.h"

// x264 speed presets, fastest first. QL_NONE maps to the empty string.
enum Quality_Level : int {
  QL_ULTRAFAST = 0,
  QL_SUPERFAST,
  QL_VERYFAST,
  QL_FASTER,
  QL_FAST,
  QL_MEDIUM,
  QL_SLOW,
  QL_SLOWER,
  QL_VERYSLOW,
  QL_PLACEBO,
  QL_NONE
};

// H.264 profiles. PL_NONE maps to the empty string.
enum Profile_Level : int {
  PL_BASELINE = 0,
  PL_MAIN,
  PL_HIGH,
  PL_HIGH10,
  PL_HIGH422,
  PL_HIGH444,
  PL_NONE
};

// x264 tunings. TL_NONE maps to the empty string.
enum Tune_Level : int {
  TL_FILM = 0,
  TL_ANIMATION,
  TL_GRAIN,
  TL_STILLIMAGE,
  TL_PSNR,
  TL_SSIM,
  TL_FASTDECODE,
  TL_ZEROLATENCY,
  TL_NONE
};

// Start from a zero-filled record (`MovieInfo info{};` does that and sets the
// two defaults below) and set every field the recording relies on.
struct MovieInfo {
  char url[512] = {};          // main output: file path, "rtmp://..." or "rtsp://..."
  char moov_url[512] = {};     // crash-safe index path for an ".mp4" output; "" for none
  char meta_info[256] = {};    // container metadata: "key:value;key:value"
  const char* other_urls[4] = {};  // further outputs, null-terminated: at most 3, the host's strings
  bool disable_audio = false;  // no audio stream; PCM is refused
  int audio_bitrate = 0;       // kbit/s
  int src_sample_rate = 0;     // rate of the host's PCM
  int sample_rate = 0;         // encoded rate; replaced by a supported one on start
  int channels = 0;            // channel count of the host's PCM (default layout)
  int sample_fmt = 0;          // AVSampleFormat of the host's PCM
  bool disable_video = false;  // no video stream; pictures are refused
  int rc_mode = 0;             // 0 average bit rate, 1 constant bit rate, 3 constant quantiser, else VBR
  int video_bitrate = 0;       // kbit/s; 0 chooses automatically
  int width = 0;               // encoded picture
  int height = 0;
  int src_width = 0;           // host pictures
  int src_height = 0;
  int fps = 0;                 // frame rate; replaced by the nearest supported one
  int gop_size = 0;            // key frame distance in frames
  int src_pix_fmt = 0;         // AVPixelFormat of the host's pictures
  int pix_fmt = 0;             // AVPixelFormat of the encoded picture
  int color_primaries = 0;     // applied when not 0
  int color_trc = 0;           // applied when not 0
  int colorspace = 0;          // applied when not 2 (unspecified)
  int color_range = 0;         // applied when not 0
  Quality_Level preset = QL_ULTRAFAST;
  Profile_Level profile = PL_BASELINE;
  Tune_Level tune = TL_FILM;
  bool hardware = false;       // try hardware H.264 encoders; on return: whether one was taken
  int crf = 23;                // constant rate factor for constant bit rate, when in 1..51
  int qp = 20;                 // quantiser for constant-quantiser mode, when in 1..51
  int timeout_sec = 0;         // network time-out of rtmp/rtsp outputs, when > 0
};

// Name to value, exact and case-sensitive. An unknown name gives the settings
// of a low-latency live recording: "veryfast", "baseline", "zerolatency".
// `s` must not be null.
ZEVA_API Quality_Level preset_from_str(const char* s);
ZEVA_API Profile_Level profile_from_str(const char* s);
ZEVA_API Tune_Level tune_from_str(const char* s);

// Value to name; the *_NONE value gives "". A value outside the enumeration is
// a caller error: the result is then "" as well. Strings are static.
ZEVA_API const char* preset_to_str(Quality_Level q);
ZEVA_API const char* profile_to_str(Profile_Level p);
ZEVA_API const char* tune_to_str(Tune_Level t);

#endif  // ZEVA_MOVIE_INFO_H
