// String tables of the tuning enumerations, and the layout guarantees of
// MovieInfo that hosts compiled against earlier headers depend on.
#include "zeva/movie_info.h"

#include <cstddef>
#include <cstring>

namespace {

// Field offsets and size follow from natural alignment on a 64-bit target.
static_assert(sizeof(void*) == 8, "MovieInfo's layout is defined for 64-bit targets");
static_assert(sizeof(Quality_Level) == 4 && sizeof(Profile_Level) == 4 &&
              sizeof(Tune_Level) == 4, "enumerations are stored as 32-bit integers");
static_assert(offsetof(MovieInfo, url) == 0);
static_assert(offsetof(MovieInfo, moov_url) == 512);
static_assert(offsetof(MovieInfo, meta_info) == 1024);
static_assert(offsetof(MovieInfo, other_urls) == 1280);
static_assert(offsetof(MovieInfo, disable_audio) == 1312);
static_assert(offsetof(MovieInfo, audio_bitrate) == 1316);
static_assert(offsetof(MovieInfo, src_sample_rate) == 1320);
static_assert(offsetof(MovieInfo, sample_rate) == 1324);
static_assert(offsetof(MovieInfo, channels) == 1328);
static_assert(offsetof(MovieInfo, sample_fmt) == 1332);
static_assert(offsetof(MovieInfo, disable_video) == 1336);
static_assert(offsetof(MovieInfo, rc_mode) == 1340);
static_assert(offsetof(MovieInfo, video_bitrate) == 1344);
static_assert(offsetof(MovieInfo, width) == 1348);
static_assert(offsetof(MovieInfo, height) == 1352);
static_assert(offsetof(MovieInfo, src_width) == 1356);
static_assert(offsetof(MovieInfo, src_height) == 1360);
static_assert(offsetof(MovieInfo, fps) == 1364);
static_assert(offsetof(MovieInfo, gop_size) == 1368);
static_assert(offsetof(MovieInfo, src_pix_fmt) == 1372);
static_assert(offsetof(MovieInfo, pix_fmt) == 1376);
static_assert(offsetof(MovieInfo, color_primaries) == 1380);
static_assert(offsetof(MovieInfo, color_trc) == 1384);
static_assert(offsetof(MovieInfo, colorspace) == 1388);
static_assert(offsetof(MovieInfo, color_range) == 1392);
static_assert(offsetof(MovieInfo, preset) == 1396);
static_assert(offsetof(MovieInfo, profile) == 1400);
static_assert(offsetof(MovieInfo, tune) == 1404);
static_assert(offsetof(MovieInfo, hardware) == 1408);
static_assert(offsetof(MovieInfo, crf) == 1412);
static_assert(offsetof(MovieInfo, qp) == 1416);
static_assert(offsetof(MovieInfo, timeout_sec) == 1420);
static_assert(sizeof(MovieInfo) == 1424);

// Each table's rows are indexed by the enumeration value; the last row, the
// empty string, is the value count and is never matched by a lookup.
constexpr const char* kPresets[] = {"ultrafast", "superfast", "veryfast", "faster",
                                    "fast",      "medium",    "slow",     "slower",
                                    "veryslow",  "placebo",   ""};
constexpr const char* kProfiles[] = {"baseline", "main",    "high", "high10",
                                     "high422",  "high444", ""};
constexpr const char* kTunes[] = {"film", "animation",  "grain",       "stillimage",
                                  "psnr", "ssim",       "fastdecode",  "zerolatency",
                                  ""};
static_assert(sizeof(kPresets) / sizeof(*kPresets) == QL_NONE + 1);
static_assert(sizeof(kProfiles) / sizeof(*kProfiles) == PL_NONE + 1);
static_assert(sizeof(kTunes) / sizeof(*kTunes) == TL_NONE + 1);

// Index of `s` among the first `named` rows, or `fallback`.
int Lookup(const char* const* table, int named, const char* s, int fallback) {
  for (int i = 0; i < named; ++i) {
    if (std::strcmp(table[i], s) == 0) return i;
  }
  return fallback;
}

// Row `v`, or the empty row when `v` is outside the table.
const char* Name(const char* const* table, int rows, int v) {
  return v >= 0 && v < rows ? table[v] : table[rows - 1];
}

}  // namespace

Quality_Level preset_from_str(const char* s) {
  return static_cast<Quality_Level>(Lookup(kPresets, QL_NONE, s, QL_VERYFAST));
}
Profile_Level profile_from_str(const char* s) {
  return static_cast<Profile_Level>(Lookup(kProfiles, PL_NONE, s, PL_BASELINE));
}
Tune_Level tune_from_str(const char* s) {
  return static_cast<Tune_Level>(Lookup(kTunes, TL_NONE, s, TL_ZEROLATENCY));
}
const char* preset_to_str(Quality_Level q) { return Name(kPresets, QL_NONE + 1, q); }
const char* profile_to_str(Profile_Level p) { return Name(kProfiles, PL_NONE + 1, p); }
const char* tune_to_str(Tune_Level t) { return Name(kTunes, TL_NONE + 1, t); }
