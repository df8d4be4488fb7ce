#include "support/index_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavutil/base64.h>
}

#include "support/probe.h"

namespace zeva::test {
namespace {

using Json = nlohmann::ordered_json;

// The members of a stream line, in their order.
const char kVideoKeys[] = "type,index,codec,format,h,w,tb.num,tb.den,ev,";
const char kAudioKeys[] = "type,index,codec,format,channels,frame_size,sample_rate,tb.num,tb.den,ev,";

// Differences of timestamps that may be missing (INT64_MIN) without overflow.
int64_t Minus(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

void CheckStreamLine(const std::string& line, int index, const ProbedStream& probed) {
  SCOPED_TRACE("stream line " + std::to_string(index) + ": " + line);
  const Json j = Json::parse(line, nullptr, false);
  ASSERT_TRUE(j.is_object());
  EXPECT_EQ(j.dump(), line) << "not compact JSON";
  std::string keys;
  for (const auto& item : j.items()) keys += item.key() + ",";
  const std::string type = j.value("type", "");
  EXPECT_EQ(type, probed.codec_type);
  EXPECT_EQ(keys, type == "audio" ? kAudioKeys : kVideoKeys);
  EXPECT_EQ(j.value("index", -1), index);
  EXPECT_EQ(j.value("codec", ""), probed.codec_name);
  EXPECT_EQ(std::to_string(j.value("tb.num", 0)) + "/" + std::to_string(j.value("tb.den", 0)),
            probed.time_base);
  const std::string ev = j.value("ev", "?");
  std::vector<uint8_t> bytes(ev.size() + 1);
  EXPECT_TRUE(ev.empty() || av_base64_decode(bytes.data(), ev.c_str(), int(bytes.size())) > 0) << "ev";
  if (type == "video") {
    EXPECT_EQ(j.value("w", 0), probed.width);
    EXPECT_EQ(j.value("h", 0), probed.height);
  } else {
    EXPECT_EQ(j.value("sample_rate", 0), probed.sample_rate);
    EXPECT_GT(j.value("channels", 0), 0);
  }
}

}  // namespace

IndexFile ReadIndexFile(const std::string& path) {
  IndexFile f;
  std::ifstream in(path, std::ios::binary);
  if (!in) return f;
  f.ok = true;
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  in.clear();
  in.seekg(-1, std::ios::end);
  f.last_line_ended = in.get() == '\n';
  size_t i = 0;
  if (i < lines.size() && lines[i].rfind('#', 0) == 0) {
    f.header = lines[i++];
    const size_t v = f.header.find("version=");
    if (v != std::string::npos) f.version = std::atoi(f.header.c_str() + v + 8);
  }
  for (; i < lines.size() && lines[i].rfind('{', 0) == 0; ++i) {
    f.stream_lines.push_back(lines[i]);
    const Json j = Json::parse(lines[i], nullptr, false);
    if (j.is_object() && j.value("type", "") == "audio") {
      f.audio_stream = j.value("index", -1);
      f.audio_frame_size = j.value("frame_size", 0);
    }
  }
  f.record_lines.assign(lines.begin() + static_cast<long>(i), lines.end());

  IndexRecordDecoder decoder(f.audio_stream, f.audio_frame_size);
  for (const std::string& line : f.record_lines) {
    IndexRecord r;
    for (const char* p = line.c_str(); (p = ReadIndexRecord(p, f.version, &r)) != nullptr;) {
      f.records.push_back(r);
      f.packets.push_back(decoder.Decode(r));
    }
  }
  return f;
}

void ExpectIndexMatchesProbe(const std::string& mp4, const std::string& index,
                             bool any_video_duration) {
  SCOPED_TRACE("movie " + mp4 + ", index " + index);
  const ProbeResult probe = Probe(mp4);
  ASSERT_TRUE(probe.ok) << probe.errors;
  const IndexFile f = ReadIndexFile(index);
  ASSERT_TRUE(f.ok);

  EXPECT_EQ(f.header.rfind("## version=2, ", 0), 0u) << f.header;
  ASSERT_EQ(f.stream_lines.size(), probe.streams.size());
  for (size_t s = 0; s < f.stream_lines.size(); ++s) {
    CheckStreamLine(f.stream_lines[s], static_cast<int>(s), probe.streams[s]);
  }

  // Full lines are written once the buffered records pass 960 characters;
  // the closing remainder has no line feed and at most 960.
  for (size_t l = 0; l < f.record_lines.size(); ++l) {
    const size_t n = f.record_lines[l].size();
    if (l + 1 < f.record_lines.size() || f.last_line_ended) {
      EXPECT_TRUE(n > 960 && n < 1024) << "record line " << l << " has " << n << " characters";
    } else {
      EXPECT_TRUE(n > 0 && n <= 960) << "last record line has " << n << " characters";
    }
  }

  std::vector<ProbedPacket> packets = probe.packets;
  std::stable_sort(packets.begin(), packets.end(),
                   [](const ProbedPacket& a, const ProbedPacket& b) { return a.pos < b.pos; });
  ASSERT_EQ(f.packets.size(), packets.empty() ? 0 : packets.size() - 1)
      << "one record per packet but the last";

  // The writer's running values per class, taken from ffprobe's packets.
  struct Last {
    int64_t pts = 0, dts = 0;
  } audio, video;
  int reported = 0;
  for (size_t i = 0; i < f.packets.size() && reported < 5; ++i) {
    const ProbedPacket& p = packets[i];
    const IndexRecord& r = f.records[i];
    const IndexPacket& d = f.packets[i];
    const bool is_audio = p.stream == f.audio_stream;
    Last& last = is_audio ? audio : video;
    const int64_t pts_delta = Minus(p.pts, last.pts);
    const int64_t dts_delta = Minus(p.dts, last.dts);
    last = {p.pts, p.dts};
    // The duration is left out before an audio packet when it equals the
    // frame size; only audio records get the frame size back. A video record
    // of duration 0 had none (libx264 sets none); the muxer then derived the
    // one ffprobe shows from the next dts.
    int64_t duration = p.duration;
    if (packets[i + 1].stream == f.audio_stream && p.duration == f.audio_frame_size) {
      duration = is_audio ? f.audio_frame_size : 0;
    }
    const bool same = d.stream == p.stream && d.position == p.pos && d.size == p.size &&
                      d.pts == p.pts && (p.dts != p.pts || d.dts == p.dts) &&
                      r.dts_delta == (dts_delta == pts_delta ? 0 : dts_delta) &&
                      (d.duration == duration || (!is_audio && (d.duration == 0 || any_video_duration))) && d.key == p.key;
    if (!same) {
      ++reported;
      ADD_FAILURE() << "packet " << i << " of " << packets.size() << "\n  ffprobe: stream " << p.stream
                    << " pos " << p.pos << " size " << p.size << " pts " << p.pts << " dts " << p.dts
                    << " duration " << duration << " key " << p.key << "\n  index:   stream " << d.stream
                    << " pos " << d.position << " size " << d.size << " pts " << d.pts << " dts " << d.dts
                    << " duration " << d.duration << " key " << d.key << " (dts field " << r.dts_delta << ")";
    }
  }
}

}  // namespace zeva::test
