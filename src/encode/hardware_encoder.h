// The hardware H.264 encoders a recording may use, and the process-wide probe
// that finds out which of them open on this machine.
#ifndef ZEVA_ENCODE_HARDWARE_ENCODER_H
#define ZEVA_ENCODE_HARDWARE_ENCODER_H

#include <cstddef>

namespace zeva {

// One row of the hardware encoder table: its id (the row index) and the
// FFmpeg encoder name.
struct HwEncoder {
  int id;
  const char* name;
};

// The hardware H.264 encoders, in the order they are tried: h264_nvenc,
// h264_amf, h264_qsv, h264_mf. Returns the constant table and stores its
// length in `*count` (when not null). Any thread.
const HwEncoder* hw_encoders(size_t* count);

// True when the encoder of `entry` opens a throw-away H.264 context of
// `width` x `height` in `pix_fmt` (an AVPixelFormat value). A null `entry` or
// a side below 4 gives false without probing, caching or logging. Otherwise
// the answer is found out once per (id, width, height, pix_fmt) for the life
// of the process, logged at error level (the failure, then the enable line),
// and cached; later calls with the same key return the cached answer at the
// cost of a lookup. Every failure, including an encoder this FFmpeg lacks,
// gives false. Safe from any thread: concurrent calls with the same key wait
// for the one probe; calls with different keys probe in parallel. Blocks for
// as long as opening the encoder takes.
bool probe_hw_encoder(const HwEncoder* entry, int width, int height, int pix_fmt);

}  // namespace zeva

#endif  // ZEVA_ENCODE_HARDWARE_ENCODER_H
