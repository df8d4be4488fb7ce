// The record of one stream of a classic recording.
#ifndef ZEVA_ENCODE_OUTPUT_STREAM_H
#define ZEVA_ENCODE_OUTPUT_STREAM_H

#include <cstdint>

#include "platform/av_ptr.h"

struct AVStream;

namespace zeva {

// One stream of the movie: owned by the muxer; the encoders read and fill it.
struct OutputStream {
  CodecContextPtr enc;        // configured by the muxer before the encoder opens
  AVStream* st = nullptr;     // owned by the output context
  int64_t next_pts = 0;       // test generators only
  FramePtr frame;             // the encoder's own frame
  FramePtr tmp_frame;         // test generators' scratch frame
  PacketPtr pkt;              // reused for every received packet
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_OUTPUT_STREAM_H
