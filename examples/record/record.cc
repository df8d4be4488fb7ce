// Records 5 seconds of a generated picture and tone into an MP4 file, with
// the crash-safe index beside it, through ZEVALib's classic interface.
//
//   record [OUT.mp4 [INDEX]]     (default: example.mp4 example.moov)
//
// The host owns the clock: every picture and every block of sound carries a
// time stamp in microseconds on the library's clock (ZEVA_current_sys_usec).
// This program stamps them as if they were captured live, but does not wait
// between them, so the 5 s movie is written as fast as it can be encoded.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <zeva/zeva.h>

namespace {

// MovieInfo stores FFmpeg's format numbers as plain ints, so a host need not
// include FFmpeg's headers. These are the values of FFmpeg 5.1.
constexpr int kPixFmtYuv420p = 0;   // AV_PIX_FMT_YUV420P
constexpr int kPixFmtBgra = 28;     // AV_PIX_FMT_BGRA
constexpr int kSampleFmtS16 = 1;    // AV_SAMPLE_FMT_S16 (interleaved 16-bit)
constexpr int kColorspaceNone = 2;  // AVCOL_SPC_UNSPECIFIED

constexpr int kWidth = 640, kHeight = 360, kFps = 30, kSeconds = 5;
constexpr int kSampleRate = 44100, kChannels = 2;

// Called once the output is open (code 0) and on any failure, possibly on
// one of the library's threads.
void OnStatus(int code, const char* message, void* /*user*/) {
  std::fprintf(stderr, "status %d: %s\n", code, message != nullptr ? message : "");
}

// A horizontal gradient that scrolls with the frame number.
void DrawFrame(int n, std::vector<uint8_t>& bgra) {
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      uint8_t* px = &bgra[(static_cast<size_t>(y) * kWidth + x) * 4];
      px[0] = static_cast<uint8_t>(x + 4 * n);  // blue
      px[1] = static_cast<uint8_t>(y);          // green
      px[2] = 128;                              // red
      px[3] = 255;                              // alpha
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const char* out = argc > 1 ? argv[1] : "example.mp4";
  const char* index = argc > 2 ? argv[2] : "example.moov";
  std::printf("ZEVALib %s\n", ZEVA_VERSION_STRING);

  // The library logs to standard error; show warnings as well as errors.
  ZEVA_Log_Level(3);

  // 1. Describe the recording: what the host hands in and what to encode.
  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", out);
  std::snprintf(info.moov_url, sizeof info.moov_url, "%s", index);
  info.src_width = info.width = kWidth;
  info.src_height = info.height = kHeight;
  info.src_pix_fmt = kPixFmtBgra;  // the host's pictures
  info.pix_fmt = kPixFmtYuv420p;   // the encoded pictures
  info.fps = kFps;
  info.gop_size = 2 * kFps;
  info.video_bitrate = 2000;  // kbit/s
  info.colorspace = kColorspaceNone;
  info.preset = QL_VERYFAST;
  info.profile = PL_MAIN;
  info.tune = TL_NONE;
  info.src_sample_rate = kSampleRate;  // the host's sound
  info.sample_rate = 48000;            // the encoded sound
  info.channels = kChannels;
  info.sample_fmt = kSampleFmtS16;
  info.audio_bitrate = 128;  // kbit/s

  // 2. Start: opens the file before returning (async = false).
  void* rec = ZEVA_start(info, OnStatus, nullptr, nullptr, /*async=*/false);
  if (!ZEVA_get_mInfo(rec, &info)) {
    std::fprintf(stderr, "could not start recording to %s\n", out);
    ZEVA_stop(&rec);
    return 1;
  }

  // 3. Feed pictures and sound in time order: one frame, then the sound up to
  //    the next frame.
  const int64_t t0 = ZEVA_current_sys_usec();
  std::vector<uint8_t> picture(static_cast<size_t>(kWidth) * kHeight * 4);
  std::vector<int16_t> pcm;
  int64_t samples = 0;
  for (int n = 0; n < kFps * kSeconds; ++n) {
    DrawFrame(n, picture);
    ZEVA_write_video_bgra(rec, picture.data(), static_cast<int>(picture.size()),
                          t0 + int64_t{n} * 1000000 / kFps, kWidth * 4);

    const int64_t until = int64_t{n + 1} * kSampleRate / kFps;
    const int count = static_cast<int>(until - samples);
    pcm.resize(static_cast<size_t>(count) * kChannels);
    for (int i = 0; i < count; ++i) {  // a 440 Hz tone on both channels
      const double s = 0.25 * std::sin(2 * M_PI * 440 * double(samples + i) / kSampleRate);
      pcm[2 * i] = pcm[2 * i + 1] = static_cast<int16_t>(s * 32767);
    }
    ZEVA_write_audio_pcm(rec, pcm.data(), count * kChannels * 2,
                         t0 + samples * 1000000 / kSampleRate);
    samples = until;
  }

  // 4. Stop: flushes the encoders, finishes the file and frees the recording.
  ZEVA_stop(&rec);
  std::printf("wrote %s and its index %s\n", out, index);
  return 0;
}
