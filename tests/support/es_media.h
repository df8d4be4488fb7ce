// Real elementary streams as a packet-interface host hands them over: an
// Annex B H.264 stream without B-frames and an ADTS AAC stream made by the
// ffmpeg program, split into access units and frames, one host packet each.
// Also the H.264 byte-format helpers the tests share.
#ifndef ZEVA_TESTS_SUPPORT_ES_MEDIA_H
#define ZEVA_TESTS_SUPPORT_ES_MEDIA_H

#include <cstdint>
#include <string>
#include <vector>

namespace zeva::test {

using Bytes = std::vector<uint8_t>;

struct EsPacket {
  Bytes data;
  int64_t pts_us = 0;  // media time from 0
};

struct EsMedia {
  std::vector<EsPacket> video;  // one access unit each, key frame first
  std::vector<EsPacket> audio;  // one ADTS frame of 1024 samples each
  int width = 320, fps = 30, sample_rate = 44100;
  std::string error;  // set when the streams could not be made
};

// Two seconds of 320x240 testsrc2 video at 30 fps (libx264, one key frame a
// second) and a 440 Hz tone at 44100 Hz stereo, made once per process.
const EsMedia& TestStreams();

// The NAL units of an Annex B access unit, each behind a 4-byte big-endian
// size (start codes and the zeros before them dropped), as hardware
// encoders and MP4-minded hosts deliver H.264.
inline Bytes LengthPrefixed(const Bytes& b) {
  Bytes out;
  size_t start = 0;
  for (size_t i = 0; i <= b.size(); ++i) {
    const bool code = i + 3 <= b.size() && b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1;
    if (!code && i < b.size()) continue;
    size_t end = i;
    while (end > start && b[end - 1] == 0) --end;
    if (start > 0) {
      const auto n = static_cast<uint32_t>(end - start);
      out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
      out.insert(out.end(), b.begin() + long(start), b.begin() + long(end));
    }
    start = i + 3;
    i += 2;
  }
  return out;
}

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_ES_MEDIA_H
