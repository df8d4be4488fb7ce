// What ffprobe, an independent reader, says about a written file.
#ifndef ZEVA_TESTS_SUPPORT_PROBE_H
#define ZEVA_TESTS_SUPPORT_PROBE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zeva::test {

struct ProbedPacket {
  int stream = -1;
  int64_t pts = INT64_MIN;  // INT64_MIN when ffprobe reports none
  int64_t dts = INT64_MIN;
  int64_t duration = 0;
  int64_t pos = -1;
  int size = 0;
  bool key = false;
};

struct ProbedStream {
  std::string codec_type;  // "video", "audio"
  std::string codec_name;
  int width = 0, height = 0;
  int sample_rate = 0;
  std::string time_base;    // "1/15360"
  double avg_frame_rate = 0;
};

struct ProbeResult {
  bool ok = false;           // ffprobe ran and printed JSON
  std::string errors;        // what ffprobe said on standard error
  double duration = 0;       // seconds
  std::map<std::string, std::string> tags;  // container metadata
  std::vector<ProbedStream> streams;
  std::vector<ProbedPacket> packets;  // file order
};

// Runs `ffprobe -show_format -show_streams -show_packets` on `path`.
ProbeResult Probe(const std::string& path);

// Packets of stream `index`, in file order.
std::vector<ProbedPacket> PacketsOf(const ProbeResult& r, int index);

// What `ffmpeg -v error` says while decoding every packet of `path`; empty
// when it decodes cleanly.
std::string DecodeErrors(const std::string& path);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_PROBE_H
