#include "support/es_media.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

#include "packet/es_splitter.h"
#include "support/files.h"

namespace zeva::test {
namespace {

EsMedia Make(double seconds, int fps) {
  EsMedia m;
  m.fps = fps;
  char dir[] = "/tmp/zeva-es-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    m.error = "mkdtemp failed";
    return m;
  }
  m.h264_path = std::string(dir) + "/v.h264";
  m.aac_path = std::string(dir) + "/a.aac";
  char cmd[1024];
  std::snprintf(cmd, sizeof cmd,
                "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=%dx%d:rate=%d "
                "-f lavfi -i sine=frequency=440:sample_rate=%d "
                "-map 0:v -t %.3f -c:v libx264 -preset ultrafast -bf 0 -g %d -pix_fmt yuv420p "
                "-f h264 %s -map 1:a -t %.3f -c:a aac -ac 2 -b:a 128k -f adts %s",
                m.width, m.height, fps, m.sample_rate, seconds, fps, m.h264_path.c_str(), seconds,
                m.aac_path.c_str());
  const int status = std::system(cmd);
  const std::string h264 = ReadFile(m.h264_path), aac = ReadFile(m.aac_path);
  if (status != 0 || h264.empty() || aac.empty()) {
    m.error = std::string("ffmpeg could not make the streams: ") + cmd;
    return m;
  }
  const auto* v = reinterpret_cast<const uint8_t*>(h264.data());
  for (const EsSpan& unit : SplitAnnexB(v, h264.size())) {
    const int64_t pts = static_cast<int64_t>(m.video.size()) * 1000000 / fps;
    m.video.push_back({Bytes(v + unit.offset, v + unit.offset + unit.size), pts});
  }
  const auto* a = reinterpret_cast<const uint8_t*>(aac.data());
  for (const EsSpan& frame : SplitAdts(a, aac.size())) {
    const int64_t samples = static_cast<int64_t>(m.audio.size()) * 1024;
    m.audio.push_back({Bytes(a + frame.offset, a + frame.offset + frame.size),
                       samples * 1000000 / m.sample_rate});
  }
  return m;
}

// The streams made so far; their directories go with the process.
struct Made : std::map<std::pair<double, int>, EsMedia> {
  ~Made() {
    std::error_code ignored;
    for (const auto& m : *this) {
      std::filesystem::remove_all(std::filesystem::path(m.second.aac_path).parent_path(), ignored);
    }
  }
};

}  // namespace

const EsMedia& TestStreams(double seconds, int fps) {
  static std::mutex mu;
  static Made made;
  std::lock_guard<std::mutex> lock(mu);
  auto it = made.find({seconds, fps});
  if (it == made.end()) it = made.emplace(std::make_pair(seconds, fps), Make(seconds, fps)).first;
  return it->second;
}

}  // namespace zeva::test
