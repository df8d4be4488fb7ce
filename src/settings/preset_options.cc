#include "settings/preset_options.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include "log/logger.h"
#include "zeva/movie_info.h"

namespace zeva {
namespace {

void set_option(AVCodecContext* ctx, const char* key, int value, int count, const char* name) {
  if (value < 0 || value > count) {
    ZEVA_LOG(kLogError, "--- invalid %s value %d, left unchanged", key, value);
    return;
  }
  // The empty name means "none": libx264 refuses to open with an empty
  // profile, so the encoder keeps its own default instead.
  if (*name == '\0') return;
  // Encoders without the option, or rejecting the value, stay as they were.
  (void)av_opt_set(ctx->priv_data, key, name, 0);
}

}  // namespace

void apply_preset_options(AVCodecContext* ctx, int preset, int profile, int tune) {
  if (ctx == nullptr || ctx->priv_data == nullptr) return;
  set_option(ctx, "preset", preset, QL_NONE, preset_to_str(static_cast<Quality_Level>(preset)));
  set_option(ctx, "profile", profile, PL_NONE, profile_to_str(static_cast<Profile_Level>(profile)));
  set_option(ctx, "tune", tune, TL_NONE, tune_to_str(static_cast<Tune_Level>(tune)));
}

}  // namespace zeva
