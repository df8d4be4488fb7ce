#include "support/probe.h"

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "support/files.h"

namespace zeva::test {
namespace {

// What `cmd` prints on standard output; its exit status to `*status`.
std::string Run(const std::string& cmd, int* status = nullptr) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return out;
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  const int st = pclose(p);
  if (status != nullptr) *status = st;
  return out;
}

int64_t Int(const nlohmann::json& j, const char* key, int64_t fallback) {
  auto it = j.find(key);
  if (it == j.end()) return fallback;
  if (it->is_number()) return it->get<int64_t>();
  if (it->is_string()) return std::strtoll(it->get<std::string>().c_str(), nullptr, 10);
  return fallback;
}

double Rate(const std::string& r) {
  int num = 0, den = 0;
  if (std::sscanf(r.c_str(), "%d/%d", &num, &den) == 2 && den != 0) return double(num) / den;
  return 0;
}

}  // namespace

ProbeResult Probe(const std::string& path) {
  ProbeResult r;
  const std::string err_file = path + ".probe-err";
  const std::string json = Run("ffprobe -v error -of json -show_format -show_streams -show_packets '" +
                               path + "' 2>'" + err_file + "'");
  r.errors = ReadFile(err_file);
  std::remove(err_file.c_str());
  const auto j = nlohmann::json::parse(json, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return r;
  r.ok = true;
  if (j.contains("format")) {
    r.duration = std::atof(j["format"].value("duration", "0").c_str());
    if (j["format"].contains("tags"))
      for (const auto& [k, v] : j["format"]["tags"].items())
        if (v.is_string()) r.tags[k] = v.get<std::string>();
  }
  if (j.contains("streams") && j["streams"].is_array())
  for (const auto& s : j["streams"]) {
    ProbedStream ps;
    ps.codec_type = s.value("codec_type", "");
    ps.codec_name = s.value("codec_name", "");
    ps.width = static_cast<int>(Int(s, "width", 0));
    ps.height = static_cast<int>(Int(s, "height", 0));
    ps.sample_rate = static_cast<int>(Int(s, "sample_rate", 0));
    ps.time_base = s.value("time_base", "");
    ps.avg_frame_rate = Rate(s.value("avg_frame_rate", "0/0"));
    r.streams.push_back(ps);
  }
  if (j.contains("packets") && j["packets"].is_array())
  for (const auto& p : j["packets"]) {
    ProbedPacket pp;
    pp.stream = static_cast<int>(Int(p, "stream_index", -1));
    pp.pts = Int(p, "pts", INT64_MIN);
    pp.dts = Int(p, "dts", INT64_MIN);
    pp.duration = Int(p, "duration", 0);
    pp.pos = Int(p, "pos", -1);
    pp.size = static_cast<int>(Int(p, "size", 0));
    pp.key = p.value("flags", "").find('K') != std::string::npos;
    r.packets.push_back(pp);
  }
  return r;
}

std::string DecodeErrors(const std::string& path) {
  int status = 0;
  const std::string out = Run("ffmpeg -nostdin -v error -i '" + path + "' -f null - 2>&1", &status);
  return status != 0 && out.empty() ? "ffmpeg failed" : out;
}

std::vector<ProbedPacket> PacketsOf(const ProbeResult& r, int index) {
  std::vector<ProbedPacket> out;
  for (const auto& p : r.packets)
    if (p.stream == index) out.push_back(p);
  return out;
}

}  // namespace zeva::test
