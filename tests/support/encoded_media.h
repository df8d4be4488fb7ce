// Real encoded media for tests: a few seconds of libx264 video and AAC audio
// encoded in memory, in the order an encoding thread would hand them on.
#ifndef ZEVA_TESTS_SUPPORT_ENCODED_MEDIA_H
#define ZEVA_TESTS_SUPPORT_ENCODED_MEDIA_H

#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "platform/av_ptr.h"

namespace zeva::test {

// 320x240 video at 30 fps, one key frame a second; 48 kHz stereo audio.
struct MediaOptions {
  double seconds = 2.0;
  bool video = true;
  bool audio = true;
  bool b_frames = false;  // reordered video (dts != pts)
};

struct EncodedStream {
  CodecParametersPtr par;
  AVRational time_base;  // the encoder's; packet timestamps are in it
};

struct EncodedPacket {
  int stream;
  PacketPtr pkt;
};

struct EncodedMedia {
  std::vector<EncodedStream> streams;  // video first when present
  std::vector<EncodedPacket> packets;  // encoder output order, video and audio mixed by time
  int video_index = -1;
  int audio_index = -1;
};

// Encodes the generated picture (a moving gradient) and tone. Fails the
// current test (and returns what it has) when an encoder cannot be opened.
EncodedMedia EncodeTestMedia(const MediaOptions& options);

// A fresh reference to packet `i` of `media`.
PacketPtr ClonePacket(const EncodedMedia& media, size_t i);

// Adds one output stream per encoded stream to `oc`, in order, with the
// codec parameters and the encoder time base. False on failure.
bool AddStreams(AVFormatContext* oc, const EncodedMedia& media);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_ENCODED_MEDIA_H
