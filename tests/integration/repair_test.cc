// Rebuilding broken recordings as a host does it, through <zeva/repair.h>
// and libzeva.so: a recorder process killed while it writes, a corpus of
// damaged inputs, and the asynchronous interface. ffprobe and ffmpeg judge
// every rebuilt file.
#include <zeva/repair.h>
#include <zeva/zeva.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/probe.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using zeva::test::DecodeErrors;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::ReadFile;
using zeva::test::TempDir;

void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

// Runs the recorder to its end, as fast as it goes.
void RecordFully(const std::string& dir, const std::string& name, const char* seconds,
                 const std::string& flag = "") {
  const std::string command = std::string(ZEVA_CRASH_RECORDER) + " " + dir + "/" + name + ".mp4 " + dir + "/" +
                              name + ".idx " + seconds + " 0 " + flag;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// The file up to its "moov" box: what a crash leaves of a finished MP4.
std::string WithoutTrailer(const std::string& mp4) {
  size_t at = 0;
  while (at + 8 <= mp4.size() && mp4.compare(at + 4, 4, "moov") != 0) {
    uint64_t size = 0;
    for (int i = 0; i < 4; ++i) size = size << 8 | uint8_t(mp4[at + i]);
    if (size < 8) return mp4;
    at += size;
  }
  return mp4.substr(0, std::min(at, mp4.size()));
}

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::string piece;
  std::istringstream in(text);
  while (std::getline(in, piece, sep)) out.push_back(piece);
  return out;
}

// The index as text, read apart from the library: the header line, the
// video line, the audio line, then record lines of "stream,pos,size,...;".
constexpr int kVideoLine = 1;
constexpr int kAudioLine = 2;
constexpr size_t kFirstRecordLine = 3;

// Per record line, where each record's bytes end in the broken file.
std::vector<std::vector<int64_t>> RecordEnds(const std::vector<std::string>& lines) {
  std::vector<std::vector<int64_t>> out;
  int64_t end = 0;
  for (size_t l = kFirstRecordLine; l < lines.size(); ++l) {
    out.emplace_back();
    for (const std::string& text : Split(lines[l].substr(0, lines[l].rfind(';')), ';')) {
      const std::vector<std::string> f = Split(text + ",", ',');
      if (f.size() != 7) continue;
      end = (f[1].empty() ? end : std::atoll(f[1].c_str())) + std::atoll(f[2].c_str());
      out.back().push_back(end);
    }
  }
  return out;
}

size_t CountRecords(const std::vector<std::vector<int64_t>>& lines, size_t first_lines = SIZE_MAX) {
  size_t n = 0;
  for (size_t i = 0; i < lines.size() && i < first_lines; ++i) n += lines[i].size();
  return n;
}

// A movie's packets per stream, as pts, dts and bytes, from one ffprobe run.
struct Packet {
  int64_t pts, dts;
  std::string bytes;
};
using Streams = std::vector<std::vector<Packet>>;

Streams PacketsOf(const std::string& path, const ProbeResult& r) {
  EXPECT_TRUE(r.ok) << path << ": " << r.errors;
  const std::string data = ReadFile(path);
  Streams streams(r.streams.size());
  for (const auto& p : r.packets) {
    streams.at(size_t(p.stream)).push_back({p.pts, p.dts, data.substr(size_t(p.pos), size_t(p.size))});
  }
  return streams;
}

// Every stream of `part` is the beginning of the same stream of `whole`:
// same pts and bytes, and the same dts where the original's equals its pts.
void ExpectPrefix(const Streams& part, const Streams& whole) {
  ASSERT_EQ(part.size(), whole.size());
  for (size_t s = 0; s < part.size(); ++s) {
    ASSERT_LE(part[s].size(), whole[s].size()) << "stream " << s;
    for (size_t i = 0; i < part[s].size(); ++i) {
      const Packet& a = part[s][i];
      const Packet& b = whole[s][i];
      ASSERT_TRUE(a.pts == b.pts && a.bytes == b.bytes && (b.dts != b.pts || a.dts == b.dts)) << s << ":" << i;
    }
  }
}

// Progress reports, which arrive on the repair's thread; `hook`, when set,
// runs there after each report.
struct Progress {
  static void Callback(double progress, int code, const char*, void* user) {
    auto* self = static_cast<Progress*>(user);
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      self->calls.push_back({progress, code});
    }
    if (self->hook) self->hook();
  }
  // Progress in 0..1 never goes back, and only the last report may be a
  // failure. Returns the last code.
  int ExpectWellFormed() {
    std::lock_guard<std::mutex> lock(mutex);
    double last = 0;
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_TRUE(calls[i].first >= last && calls[i].first <= 1.0) << "report " << i;
      EXPECT_TRUE(calls[i].second == 0 || i + 1 == calls.size()) << "report " << i;
      last = calls[i].first;
    }
    return calls.empty() ? INT_MIN : calls.back().second;
  }
  std::mutex mutex;
  std::vector<std::pair<double, int>> calls;
  std::function<void()> hook;
};

// A synchronous repair; its last report's code is the result.
int RepairCode(const std::string& broken, const std::string& index, const std::string& out,
               Progress* reports = nullptr) {
  Progress own;
  Progress& progress = reports != nullptr ? *reports : own;
  const bool ok = ZEVA_StartRepair_sync(broken.c_str(), index.c_str(), out.c_str(), &Progress::Callback, &progress);
  const int code = progress.ExpectWellFormed();
  EXPECT_EQ(ok, code == 0);
  return code;
}

// Recordings killed at random moments, with and without audio, rebuild as
// the beginning of the same recording run to its end.
TEST(RepairCrash, KilledRecordingsRebuildAsAPrefixOfTheirTwin) {
  unsigned seed = std::random_device{}();
  if (const char* env = std::getenv("ZEVA_CRASH_SEED")) seed = unsigned(std::strtoul(env, nullptr, 10));
  std::cout << "ZEVA_CRASH_SEED=" << seed << std::endl;
  std::mt19937 rng(seed);
  TempDir dir;
  for (const std::string flag : {"", "--no-audio"}) {
    SCOPED_TRACE("flag " + flag);
    ASSERT_NO_FATAL_FAILURE(RecordFully(dir.path(), "twin", "8", flag));
    const ProbeResult twin_probe = Probe(dir / "twin.mp4");
    const Streams twin = PacketsOf(dir / "twin.mp4", twin_probe);
    for (int round = 0; round < 2; ++round) {
      const int ms = std::uniform_int_distribution<int>(100, 500)(rng);
      SCOPED_TRACE("killed " + std::to_string(ms) + " ms after it started");
      const std::string broken = dir / "broken.mp4", index = dir / "broken.idx", out = dir / "out.mp4";
      // Eight seconds of media at twelve times real time: writing throughout,
      // a record line every 160 ms even without audio. Once the index file
      // is there, the output is open.
      fs::remove(index);
      const pid_t pid = fork();
      if (pid == 0) {
        execl(ZEVA_CRASH_RECORDER, ZEVA_CRASH_RECORDER, broken.c_str(), index.c_str(), "8", "12",
              flag.empty() ? nullptr : flag.c_str(), nullptr);
        _exit(127);
      }
      for (int i = 0; i < 2000 && !fs::exists(index); ++i) std::this_thread::sleep_for(milliseconds(10));
      std::this_thread::sleep_for(milliseconds(ms));
      kill(pid, SIGKILL);
      int status = 0;
      waitpid(pid, &status, 0);
      EXPECT_TRUE(WIFSIGNALED(status)) << "finished before it was killed";
      const auto broken_size = int64_t(fs::file_size(broken));
      size_t indexed = 0;
      for (const auto& line : RecordEnds(Split(ReadFile(index), '\n')))
        indexed += size_t(std::count_if(line.begin(), line.end(), [&](int64_t e) { return e <= broken_size; }));
      ASSERT_EQ(RepairCode(broken, index, out), 0);
      const ProbeResult r = Probe(out);
      EXPECT_GE(r.packets.size(), indexed);
      if (r.packets.empty()) continue;  // no record line reached the disk
      EXPECT_EQ(DecodeErrors(out), "");
      ExpectPrefix(PacketsOf(out, r), twin);
    }
  }
}

// Damaged inputs, one row per kind of damage: each ends with its code and,
// where one is written, an output ffprobe reads with the packets that could
// be rebuilt.
struct Inputs {
  std::vector<std::string> index;  // lines
  std::string broken;              // the broken movie's bytes
  std::vector<std::vector<int64_t>> ends;  // of the undamaged index's records
  size_t min_packets = 0, max_packets = 0;  // what the output must hold
  std::string log;                          // a text the library must log
};

enum class Output { kNone, kProbe, kClean };  // kClean: ffmpeg decodes it cleanly too

struct Case {
  const char* name;
  std::function<void(Inputs&)> damage;
  int code;
  Output output;
};

// Sets `key` of a stream line to `value` (JSON text).
std::function<void(Inputs&)> Member(int line, const std::string& key, const std::string& value) {
  return [=](Inputs& in) {
    std::string& text = in.index[size_t(line)];
    const size_t begin = text.find("\"" + key + "\":") + key.size() + 3;
    text.replace(begin, text.find_first_of(",}", begin) - begin, value);
  };
}

// Makes the third record of the second record line name stream `stream`:
// the packets from there on may be lost.
void SetStream(Inputs& in, const std::string& stream) {
  std::string& text = in.index[kFirstRecordLine + 1];
  const size_t begin = text.find(';', text.find(';') + 1) + 1;
  text.replace(begin, text.find(',', begin) - begin, stream);
  in.min_packets = CountRecords(in.ends, 1) + 2;
}

const Case kCases[] = {
    {"Intact", [](Inputs&) {}, 0, Output::kClean},
    {"BlankAudioExtradata", Member(kAudioLine, "ev", "\"\""), 0, Output::kClean},
    // Another stream type, a comment, a blank, a garbage and an overlong line.
    {"ForeignLines",
     [](Inputs& in) {
       in.index.insert(in.index.begin() + kFirstRecordLine + 1,
                       {"{\"type\":\"data\"}", "# a note", "", "not,a,record,x,y;", std::string(9000, 'x')});
     },
     0, Output::kClean},
    {"IndexCutMidRecord",
     [](Inputs& in) {
       in.index.resize(kFirstRecordLine + 2);
       std::string& last = in.index.back();
       last.resize(last.find(';', last.size() / 2) + 4);
       in.min_packets = in.max_packets = CountRecords(in.ends, 1) + size_t(std::count(last.begin(), last.end(), ';'));
     },
     0, Output::kClean},
    {"EmptyIndex", [](Inputs& in) { in.index.clear(); }, -2, Output::kNone},
    {"VideoExtradataNotBase64", Member(kVideoLine, "ev", "\"!!!!\""), -2, Output::kNone},
    // Without its audio line the movie has one stream: audio records name a
    // stream index equal to the stream count and are refused.
    {"AudioLineCut",
     [](Inputs& in) {
       in.index[kAudioLine].resize(60);
       in.min_packets = 0;
       in.log = "===> stream.idx=1 ";
     },
     0, Output::kProbe},
    {"StreamIndexEqualToStreamCount",
     [](Inputs& in) {
       SetStream(in, "2");
       in.log = "===> stream.idx=2 ";
     },
     0, Output::kProbe},
    // Exactly the packets whose bytes remain, up to the first cut, come back.
    {"BrokenCutMidMediaData",
     [](Inputs& in) {
       in.broken.resize(in.broken.size() / 2);
       in.max_packets = 0;
       for (const auto& line : in.ends)
         for (int64_t end : line) in.max_packets += end <= int64_t(in.broken.size());
       in.min_packets = in.max_packets;
     },
     0, Output::kClean},
    {"MissingBrokenFile", [](Inputs&) {}, -1, Output::kNone},
    {"OutputDirectoryMissing", [](Inputs&) {}, -10, Output::kNone},
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// One finished twenty-second recording (a few dozen record lines) and what
// a crash leaves of it, shared by the tests below.
const TempDir& Sample() {
  static TempDir dir;
  static const bool recorded = [] {
    RecordFully(dir.path(), "good", "20");
    WriteFile(dir / "broken.mp4", WithoutTrailer(ReadFile(dir / "good.mp4")));
    return true;
  }();
  EXPECT_TRUE(recorded);
  return dir;
}

class RepairMalformed : public ::testing::TestWithParam<Case> {};

TEST_P(RepairMalformed, EndsWithItsCodeAndAUsableOutput) {
  const Case& c = GetParam();
  TempDir dir;
  Inputs in;
  in.index = Split(ReadFile(Sample() / "good.idx"), '\n');
  ASSERT_GT(in.index.size(), kFirstRecordLine + 1) << "no sample recording";
  in.broken = ReadFile(Sample() / "broken.mp4");
  in.ends = RecordEnds(in.index);
  in.min_packets = in.max_packets = CountRecords(in.ends);
  c.damage(in);
  std::string text;
  for (size_t i = 0; i < in.index.size(); ++i) text += (i > 0 ? "\n" : "") + in.index[i];
  WriteFile(dir / "in.idx", text);
  if (c.code != -1) WriteFile(dir / "in.mp4", in.broken);
  const std::string out = dir / (c.code == -10 ? "nonesuch/out.mp4" : "out.mp4");

  if (!in.log.empty()) {
    // Records naming a stream the movie lacks are refused and logged; in a
    // child process, so that reading past the streams fails only this row.
    ASSERT_EXIT(
        {
          bool logged = false;
          ZEVA_Set_Log_Callback([&](const char*, int, const char*, int, const char* message) {
            logged = logged || std::string(message).find(in.log) != std::string::npos;
          });
          const int code = RepairCode(dir / "in.mp4", dir / "in.idx", out);
          _exit(code == c.code && logged ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
  }
  EXPECT_EQ(RepairCode(dir / "in.mp4", dir / "in.idx", out), c.code);
  if (c.output == Output::kNone) {
    EXPECT_FALSE(fs::exists(out)) << "an output was written";
  } else {
    const ProbeResult r = Probe(out);
    ASSERT_TRUE(r.ok) << r.errors;
    EXPECT_GE(r.packets.size(), in.min_packets);
    EXPECT_LE(r.packets.size(), in.max_packets);
    if (c.output == Output::kClean) {
      EXPECT_EQ(DecodeErrors(out), "");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, RepairMalformed, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Reports come every ten record lines and once at the end; a stop ends the
// repair after the line it is on, with a movie of the lines done; null
// arguments fail.
TEST(RepairApi, ReportsStopsAndRefusesNullArguments) {
  TempDir tmp;
  const std::string broken = Sample() / "broken.mp4", index = Sample() / "good.idx";
  const auto lines = RecordEnds(Split(ReadFile(index), '\n'));
  ASSERT_GE(lines.size(), 20u);
  Progress full;
  ASSERT_EQ(RepairCode(broken, index, tmp / "full.mp4", &full), 0);
  EXPECT_EQ(full.calls.size(), lines.size() / 10 + 1);
  EXPECT_EQ(full.calls.back().first, 1.0);

  // After ten lines the worker reports, then waits until the stop request
  // is under way: its log line comes once the stop flag is set.
  std::promise<void> reported, stop;
  std::shared_future<void> stopping = stop.get_future().share();
  ZEVA_Set_Log_Callback([&](const char*, int, const char*, int, const char* message) {
    if (std::string(message) == "repair: stop() ...") stop.set_value();
  });
  Progress progress;
  progress.hook = [&] {
    if (progress.calls.size() == 1) reported.set_value();
    stopping.wait_for(std::chrono::seconds(10));
  };
  void* handle = ZEVA_StartRepair_Async(broken.c_str(), index.c_str(), (tmp / "out.mp4").c_str(),
                                        &Progress::Callback, &progress);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(reported.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(ZEVA_Repair_IsRunning(handle));
  ZEVA_StopRepair(&handle);
  EXPECT_EQ(handle, nullptr);
  ZEVA_Set_Log_Callback(nullptr);
  EXPECT_EQ(progress.ExpectWellFormed(), 0);
  EXPECT_EQ(progress.calls.size(), 2u);  // the tenth line's report, then the final one
  EXPECT_EQ(DecodeErrors(tmp / "out.mp4"), "");
  EXPECT_EQ(Probe(tmp / "out.mp4").packets.size(), CountRecords(lines, 10));

  // Without a callback it runs all the same; a null path is one that cannot
  // be opened, and fails with the code of its step.
  const std::string out = tmp / "out.mp4";
  EXPECT_TRUE(ZEVA_StartRepair_sync(broken.c_str(), index.c_str(), out.c_str(), nullptr, nullptr));
  for (const auto& [args, code] : std::vector<std::pair<std::vector<const char*>, int>>{
           {{nullptr, index.c_str(), out.c_str()}, -1},
           {{broken.c_str(), nullptr, out.c_str()}, -2},
           {{broken.c_str(), index.c_str(), nullptr}, -10}}) {
    Progress progress;
    EXPECT_FALSE(ZEVA_StartRepair_sync(args[0], args[1], args[2], &Progress::Callback, &progress));
    EXPECT_EQ(progress.ExpectWellFormed(), code);
  }
  ZEVA_StopRepair(nullptr);
  void* none = nullptr;
  ZEVA_StopRepair(&none);
  EXPECT_FALSE(ZEVA_Repair_IsRunning(nullptr));
}

}  // namespace
