#include "support/elementary_stream.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "packet/es_splitter.h"
#include "support/files.h"

namespace zeva::test {
namespace {

std::vector<std::string> Split(const std::string& bytes, bool video) {
  const auto* d = reinterpret_cast<const uint8_t*>(bytes.data());
  const std::vector<EsSpan> spans = video ? SplitAnnexB(d, bytes.size()) : SplitAdts(d, bytes.size());
  std::vector<std::string> out;
  for (const EsSpan& s : spans) out.push_back(bytes.substr(s.offset, s.size));
  return out;
}

}  // namespace

ElementaryStreams MakeElementaryStreams(const std::string& dir, double seconds) {
  const std::string t = std::to_string(seconds);
  const std::string h264 = dir + "/video.h264";
  const std::string aac = dir + "/audio.aac";
  const std::string video_cmd =
      "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=30 -t " + t +
      " -c:v libx264 -bf 0 -pix_fmt yuv420p -bsf:v h264_metadata=aud=insert -f h264 '" + h264 + "'";
  const std::string audio_cmd = "ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000 -t " +
                                t + " -ac 2 -c:a aac -f adts '" + aac + "'";
  ElementaryStreams es;
  EXPECT_EQ(std::system(video_cmd.c_str()), 0) << video_cmd;
  EXPECT_EQ(std::system(audio_cmd.c_str()), 0) << audio_cmd;
  es.video = Split(ReadFile(h264), true);
  es.audio = Split(ReadFile(aac), false);
  return es;
}

}  // namespace zeva::test
