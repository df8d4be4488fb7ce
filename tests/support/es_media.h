// Real elementary streams for the packet interface's tests: an Annex B H.264
// stream without B-frames and an ADTS AAC stream made by the ffmpeg program,
// split into the access units and frames a host's encoders would hand over.
#ifndef ZEVA_TESTS_SUPPORT_ES_MEDIA_H
#define ZEVA_TESTS_SUPPORT_ES_MEDIA_H

#include <cstdint>
#include <string>
#include <vector>

namespace zeva::test {

struct EsPacket {
  std::vector<uint8_t> data;
  int64_t pts_us = 0;  // media time from 0
};

struct EsMedia {
  std::vector<EsPacket> video;  // one access unit each, key frame first
  std::vector<EsPacket> audio;  // one ADTS frame each
  int width = 0, height = 0, fps = 0, sample_rate = 0, channels = 0;
  std::string h264_path, aac_path;  // the streams as files, kept until the process ends
  std::string error;  // set when the streams could not be made
};

// `seconds` of 320x240 testsrc2 video at `fps` (libx264, one key frame a
// second) and a 440 Hz tone at 44100 Hz stereo. Made once per process and
// parameter set, in a temporary directory removed at exit.
const EsMedia& TestStreams(double seconds = 2.0, int fps = 30);

// Runs `command` through the shell and returns what it printed on standard
// output and error together.
std::string RunCommand(const std::string& command);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_ES_MEDIA_H
