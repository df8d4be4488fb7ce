// A host that records a deterministic movie through the classic interface,
// with a crash-safe index beside it, so that a test can kill it at any moment
// and compare what the repair rebuilds with the same recording run to its end.
//
//   zeva_crash_recorder OUT INDEX SECONDS PACE [--no-audio]
//
// Pictures and tone depend only on the frame and sample counters, and every
// frame is stamped with the library's clock at start plus its media time, so
// two runs hand the encoders identical input. PACE feeds PACE seconds of
// media per second of real time (0 feeds as fast as it can).
// Pictures are 160x120 at 30 fps.
#include <zeva/zeva.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

namespace {

constexpr int kSampleRate = 48000;

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const double seconds = std::atof(argv[3]);
  const double pace = std::atof(argv[4]);
  const bool audio = argc < 6 || std::strcmp(argv[5], "--no-audio") != 0;
  const int width = 160, height = 120, fps = 30;

  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", argv[1]);
  std::snprintf(info.moov_url, sizeof info.moov_url, "%s", argv[2]);
  info.disable_audio = !audio;
  info.audio_bitrate = 128;
  info.src_sample_rate = info.sample_rate = kSampleRate;
  info.channels = 2;
  info.sample_fmt = AV_SAMPLE_FMT_S16;
  // A constant quantiser: with zerolatency's sliced threads, x264's
  // bit-rate control (VBV) decides row by row from the other slices'
  // progress, so its output would depend on thread timing.
  info.rc_mode = 3;
  info.qp = 23;
  info.width = info.src_width = width;
  info.height = info.src_height = height;
  info.fps = fps;
  info.gop_size = fps;
  info.src_pix_fmt = AV_PIX_FMT_BGRA;
  info.pix_fmt = AV_PIX_FMT_YUV420P;
  info.colorspace = 2;
  info.preset = QL_ULTRAFAST;
  info.profile = PL_BASELINE;
  info.tune = TL_ZEROLATENCY;

  // The first report, or the first failure after it.
  int status = -1000;
  auto report = [](int code, const char*, void* user) {
    int* s = static_cast<int*>(user);
    if (*s == -1000 || code != 0) *s = code;
  };
  void* h = ZEVA_start(info, report, &status, nullptr, false);
  if (status != 0) {
    std::fprintf(stderr, "start failed: %d\n", status);
    ZEVA_stop(&h);
    return 1;
  }

  const int stride = width * 4;
  std::vector<uint8_t> picture(static_cast<size_t>(stride) * height, 16);
  const int chunk = kSampleRate / 100;  // 10 ms of PCM per call
  std::vector<int16_t> pcm(static_cast<size_t>(chunk) * 2);
  const int64_t base = ZEVA_current_sys_usec();
  const auto wall0 = std::chrono::steady_clock::now();
  const int64_t end_us = static_cast<int64_t>(seconds * 1e6);
  int64_t frames = 0, samples = 0;
  while (true) {
    const int64_t next_video = frames * 1000000 / fps;
    const int64_t next_audio = audio ? samples * 1000000 / kSampleRate : INT64_MAX;
    const int64_t next = std::min(next_video, next_audio);
    if (next >= end_us) break;
    if (pace > 0) {
      std::this_thread::sleep_until(wall0 + std::chrono::microseconds(static_cast<int64_t>(next / pace)));
    }
    if (next_video <= next_audio) {
      // A moving ramp plus a block that changes every frame: real motion for
      // the encoder, cheap to draw at any size.
      for (size_t i = 0; i < picture.size(); i += 61) picture[i] = uint8_t(i / 61 + 5 * frames);
      const int64_t row = (frames * 7) % height;
      std::memset(&picture[static_cast<size_t>(row) * stride], int(frames * 13 % 256),
                  static_cast<size_t>(stride));
      ZEVA_write_video_bgra(h, picture.data(), int(picture.size()), base + next_video, stride);
      ++frames;
    } else {
      for (int i = 0; i < chunk; ++i) {
        const double t = double(samples + i) / kSampleRate;
        const auto v = int16_t(5000 * std::sin(2 * M_PI * (330.0 + 110.0 * std::floor(t * 4)) * t));
        pcm[2 * i] = v;
        pcm[2 * i + 1] = int16_t(-v);
      }
      ZEVA_write_audio_pcm(h, pcm.data(), int(pcm.size() * sizeof(int16_t)), base + next_audio);
      samples += chunk;
    }
  }
  ZEVA_stop(&h);
  return status == 0 ? 0 : 1;
}
