#include "support/es_media.h"

#include <cstdlib>

#include "packet/es_splitter.h"
#include "support/files.h"

namespace zeva::test {
namespace {

// Splits `file` into host packets, the n-th stamped n·`num`/`den` µs.
template <typename Split>
std::vector<EsPacket> Packets(const std::string& file, Split split, int64_t num, int64_t den) {
  const std::string s = ReadFile(file);
  const auto* d = reinterpret_cast<const uint8_t*>(s.data());
  std::vector<EsPacket> out;
  for (const EsSpan& sp : split(d, s.size())) {
    out.push_back({Bytes(d + sp.offset, d + sp.offset + sp.size), int64_t(out.size()) * num / den});
  }
  return out;
}

EsMedia Make() {
  EsMedia m;
  const TempDir dir;
  const std::string v = dir / "v.h264", a = dir / "a.aac";
  const std::string cmd =
      "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=30 -f lavfi -i sine=frequency=440 "
      "-map 0:v -t 2 -c:v libx264 -preset ultrafast -bf 0 -g 30 -pix_fmt yuv420p -f h264 " + v +
      " -map 1:a -t 2 -c:a aac -ac 2 -b:a 128k -f adts " + a;
  if (std::system(cmd.c_str()) == 0) {
    m.video = Packets(v, SplitAnnexB, 1000000, m.fps);
    m.audio = Packets(a, SplitAdts, 1024000000, m.sample_rate);
  }
  if (m.video.empty() || m.audio.empty()) m.error = "ffmpeg could not make the streams: " + cmd;
  return m;
}

}  // namespace

const EsMedia& TestStreams() {
  static const EsMedia made = Make();
  return made;
}

}  // namespace zeva::test
