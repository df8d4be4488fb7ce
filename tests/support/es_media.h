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
  int width = 320, height = 240, fps = 0, sample_rate = 44100, channels = 2;
  std::string h264_path, aac_path;  // the streams as files, kept until the process ends
  std::string error;  // set when the streams could not be made
};

// `seconds` of 320x240 testsrc2 video at `fps` (libx264, one key frame a
// second) and a 440 Hz tone at 44100 Hz stereo. Made once per process and
// parameter set, in a temporary directory removed at exit.
const EsMedia& TestStreams(double seconds = 2.0, int fps = 30);

// The NAL units of an Annex B buffer, start codes (3 or 4 bytes) stripped.
inline std::vector<Bytes> NalUnits(const Bytes& b) {
  std::vector<Bytes> nals;
  size_t start = 0;
  bool open = false;
  auto close = [&](size_t end) {
    while (open && end > start && b[end - 1] == 0) --end;  // zeros belong to the next start code
    if (open) nals.emplace_back(b.begin() + long(start), b.begin() + long(end));
  };
  for (size_t i = 0; i + 3 <= b.size(); ++i) {
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
      close(i);
      start = i + 3;
      open = true;
      i += 2;
    }
  }
  close(b.size());
  return nals;
}

// The NAL units of an Annex B access unit, each behind a 4-byte big-endian
// size, as hardware encoders and MP4-minded hosts deliver H.264.
inline Bytes LengthPrefixed(const Bytes& annexb) {
  Bytes out;
  for (const Bytes& nal : NalUnits(annexb)) {
    const auto n = static_cast<uint32_t>(nal.size());
    out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    out.insert(out.end(), nal.begin(), nal.end());
  }
  return out;
}

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_ES_MEDIA_H
