// Elementary streams as a packet-API host hands them over: the ffmpeg CLI
// writes Annex B H.264 and ADTS AAC files, which are split into access units
// and frames, one host packet each.
#ifndef ZEVA_TESTS_SUPPORT_ELEMENTARY_STREAM_H
#define ZEVA_TESTS_SUPPORT_ELEMENTARY_STREAM_H

#include <string>
#include <vector>

namespace zeva::test {

struct ElementaryStreams {
  std::vector<std::string> video;  // H.264 access units, each opened by an AUD
  std::vector<std::string> audio;  // ADTS frames of 1024 samples
};

// `seconds` of testsrc2 at 320x240, 30 fps, libx264 without B-frames and of
// a stereo 48 kHz sine as AAC, written into `dir` and split. Fails the
// current test (and returns what it has) when ffmpeg fails.
ElementaryStreams MakeElementaryStreams(const std::string& dir, double seconds);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_ELEMENTARY_STREAM_H
