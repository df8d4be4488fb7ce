// Applies the tuning fields of MovieInfo to an encoder before it is opened.
#ifndef ZEVA_SETTINGS_PRESET_OPTIONS_H
#define ZEVA_SETTINGS_PRESET_OPTIONS_H

struct AVCodecContext;

namespace zeva {

// Sets the encoder's private options "preset", "profile" and "tune", in that
// order, to the names of `preset`, `profile` and `tune`; the *_NONE values
// leave that option at the encoder's default. An encoder without such an option, or one rejecting
// the value, is left as it was. A value outside its enumeration is not
// applied and is logged. Call before avcodec_open2; `ctx` may be null.
void apply_preset_options(AVCodecContext* ctx, int preset, int profile, int tune);

}  // namespace zeva

#endif  // ZEVA_SETTINGS_PRESET_OPTIONS_H
