#include "support/es_media.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <utility>

#include "packet/es_splitter.h"
#include "support/files.h"

namespace zeva::test {

std::string RunCommand(const std::string& command) {
  std::string out;
  if (FILE* p = popen((command + " 2>&1").c_str(), "r")) {
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    pclose(p);
  }
  return out;
}

namespace {

EsMedia Make(double seconds, int fps) {
  EsMedia m;
  m.width = 320;
  m.height = 240;
  m.fps = fps;
  m.sample_rate = 44100;
  m.channels = 2;
  char dir[] = "/tmp/zeva-es-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    m.error = "mkdtemp failed";
    return m;
  }
  const std::string base(dir);
  char cmd[1024];
  std::snprintf(cmd, sizeof cmd,
                "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=%dx%d:rate=%d "
                "-f lavfi -i sine=frequency=440:sample_rate=%d "
                "-map 0:v -t %.3f -c:v libx264 -preset ultrafast -bf 0 -g %d -pix_fmt yuv420p "
                "-f h264 %s/v.h264 -map 1:a -t %.3f -c:a aac -ac 2 -b:a 128k -f adts %s/a.aac",
                m.width, m.height, fps, m.sample_rate, seconds, fps, base.c_str(), seconds,
                base.c_str());
  const std::string said = RunCommand(cmd);
  m.h264_path = base + "/v.h264";
  m.aac_path = base + "/a.aac";
  const std::string h264 = ReadFile(m.h264_path), aac = ReadFile(m.aac_path);
  if (h264.empty() || aac.empty()) {
    m.error = "ffmpeg could not make the streams: " + said;
    return m;
  }
  const auto* v = reinterpret_cast<const uint8_t*>(h264.data());
  for (const zeva::EsSpan& unit : zeva::SplitAnnexB(v, h264.size())) {
    const int64_t pts = static_cast<int64_t>(m.video.size()) * 1000000 / fps;
    m.video.push_back({std::vector<uint8_t>(v + unit.offset, v + unit.offset + unit.size), pts});
  }
  const auto* a = reinterpret_cast<const uint8_t*>(aac.data());
  int64_t samples = 0;
  for (const zeva::EsSpan& frame : zeva::SplitAdts(a, aac.size())) {
    m.audio.push_back({std::vector<uint8_t>(a + frame.offset, a + frame.offset + frame.size),
                       samples * 1000000 / m.sample_rate});
    samples += 1024;
  }
  return m;
}

}  // namespace

// The streams made so far; their directories go with the process.
struct Made : std::map<std::pair<double, int>, EsMedia> {
  ~Made() {
    for (const auto& m : *this) {
      if (!m.second.h264_path.empty()) {
        std::filesystem::remove_all(std::filesystem::path(m.second.h264_path).parent_path());
      }
    }
  }
};

const EsMedia& TestStreams(double seconds, int fps) {
  static std::mutex mu;
  static Made made;
  std::lock_guard<std::mutex> lock(mu);
  auto it = made.find({seconds, fps});
  if (it == made.end()) it = made.emplace(std::make_pair(seconds, fps), Make(seconds, fps)).first;
  return it->second;
}

}  // namespace zeva::test
