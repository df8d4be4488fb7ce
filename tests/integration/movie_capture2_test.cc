// The capture's time line with an injected clock: anchoring, pauses and
// movie time to the microsecond, without sleeping.
#include "classic/movie_capture2.h"

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "output/zv_av_writer.h"
#include "support/files.h"

namespace {

TEST(MovieCapture2, TimeLineAnchorsAtTheFirstOfferAndCutsPauses) {
  const zeva::test::TempDir dir;
  const std::string url = dir / "t.mp4";
  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
  info.disable_audio = true;
  info.width = info.src_width = info.height = info.src_height = 64;
  info.fps = 25;
  info.src_pix_fmt = AV_PIX_FMT_BGRA;
  info.preset = QL_ULTRAFAST;

  zeva::FakeClock clock(1000);
  std::vector<uint8_t> picture(64 * 64 * 4, 128);
  {
    zeva::MovieCapture2 capture(new ZV::ZV_AVWriter(60, 1000, url.c_str()), &clock);
    // Offered before the start: refused, yet it anchors the time line.
    EXPECT_FALSE(capture.write_bgra(picture.data(), 0, 5000000, 256));
    capture.start(&info, nullptr, nullptr, false);

    EXPECT_TRUE(capture.write_bgra(picture.data(), 0, 5040000, 256));

    // Pausing twice restamps the pause: only the last second is cut.
    clock.SetUs(10000000);
    EXPECT_TRUE(capture.pause());
    clock.SetUs(11000000);
    EXPECT_TRUE(capture.pause());
    clock.SetUs(12000000);
    EXPECT_TRUE(capture.resume());
    EXPECT_TRUE(capture.write_bgra(picture.data(), 0, 13000000, 256));
    EXPECT_EQ(capture.movie_time(), 13000000 - 1000000 - 5000000);

    // A second pause adds to the first.
    clock.SetUs(14000000);
    EXPECT_TRUE(capture.pause());
    clock.SetUs(16500000);
    EXPECT_TRUE(capture.resume());
    EXPECT_TRUE(capture.write_bgra(picture.data(), 0, 17000000, 256));
    EXPECT_EQ(capture.movie_time(), 17000000 - 3500000 - 5000000);
  }
}

}  // namespace
