// Rebuilding broken recordings as a host does it, through <zeva/repair.h>
// and libzeva.so: a recorder process killed while it writes, a corpus of
// damaged inputs, and the asynchronous interface. ffprobe and ffmpeg judge
// every rebuilt file.
#include <zeva/repair.h>
#include <zeva/zeva.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <map>
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
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using zeva::test::DecodeErrors;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::ReadFile;

void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

std::string MakeTempDir() {
  char pattern[] = "/tmp/zeva-repair-XXXXXX";
  return mkdtemp(pattern) != nullptr ? pattern : "";
}

// A scratch directory for one test.
struct TempDir {
  ~TempDir() { fs::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string path_ = MakeTempDir();
};

// The recorder host as a child process; its standard output on a pipe, its
// standard error in `log`. Killed, if still running, when destroyed.
class Recorder {
 public:
  Recorder(std::vector<std::string> args, const std::string& log) {
    args.insert(args.begin(), ZEVA_CRASH_RECORDER);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {  // only async-signal-safe calls until exec
      dup2(fds[1], 1);
      const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (err >= 0) dup2(err, 2);
      close(fds[0]);
      close(fds[1]);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(fds[1]);
    out_ = fds[0];
  }
  ~Recorder() {
    Kill();
    Wait();
    close(out_);
  }

  // Whether it printed "started"; it either does or ends, closing the pipe.
  bool WaitStarted() {
    std::string got;
    char c;
    while (got.find("started\n") == std::string::npos && read(out_, &c, 1) == 1) got += c;
    return got.find("started\n") != std::string::npos;
  }
  void Kill() {
    if (pid_ > 0) kill(pid_, SIGKILL);
  }
  int Wait() {
    int status = -1;
    if (pid_ > 0) waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

// Runs the recorder to its end, as fast as it goes, with `args` after the
// program name.
void RecordFully(std::vector<std::string> args, const std::string& log) {
  args.insert(args.end(), {"--pace", "0"});
  const int status = Recorder(args, log).Wait();
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n"
                                                             << ReadFile(log);
}

// The file up to its "moov" box: what a crash leaves of a finished MP4.
std::string WithoutTrailer(const std::string& mp4) {
  size_t at = 0;
  while (at + 8 <= mp4.size() && mp4.compare(at + 4, 4, "moov") != 0) {
    uint64_t size = 0;
    for (int i = 0; i < 4; ++i) size = size << 8 | uint8_t(mp4[at + i]);
    if (size == 1 && at + 16 <= mp4.size()) {
      size = 0;
      for (int i = 8; i < 16; ++i) size = size << 8 | uint8_t(mp4[at + i]);
    }
    if (size < 8) return mp4;
    at += size;
  }
  return mp4.substr(0, std::min(at, mp4.size()));
}

// ---- The index as text, read independently of the library: the header
// line, the video line, the audio line, then the record lines.

constexpr int kVideoLine = 1;
constexpr int kAudioLine = 2;
constexpr int kFirstRecordLine = 3;

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::string piece;
  std::istringstream in(text);
  while (std::getline(in, piece, sep)) out.push_back(piece);
  return out;
}

// A record and where its bytes lie in the broken file, per record line.
struct Record {
  int stream;
  int64_t pos, size;
};
using RecordLines = std::vector<std::vector<Record>>;

RecordLines RecordsOf(const std::vector<std::string>& lines) {
  RecordLines out;
  int64_t end = 0;
  for (size_t l = kFirstRecordLine; l < lines.size(); ++l) {
    out.emplace_back();
    for (const std::string& text : Split(lines[l].substr(0, lines[l].rfind(';')), ';')) {
      const std::vector<std::string> f = Split(text + ",", ',');
      if (f.size() != 7) continue;
      const int64_t pos = f[1].empty() ? end : std::atoll(f[1].c_str());
      out.back().push_back({std::atoi(f[0].c_str()), pos, std::atoll(f[2].c_str())});
      end = pos + out.back().back().size;
    }
  }
  return out;
}
RecordLines RecordsOf(const std::string& index) { return RecordsOf(Split(ReadFile(index), '\n')); }

size_t CountRecords(const RecordLines& lines, size_t first_lines = SIZE_MAX) {
  size_t n = 0;
  for (size_t i = 0; i < lines.size() && i < first_lines; ++i) n += lines[i].size();
  return n;
}

// ---- Movies as ffprobe sees them, with each packet's bytes.

struct Packet {
  int64_t pts, dts, pos;
  std::string bytes;
};
using Streams = std::vector<std::vector<Packet>>;

Streams PacketsOf(const std::string& path, size_t* count) {
  const ProbeResult r = Probe(path);
  EXPECT_TRUE(r.ok) << path << ": " << r.errors;
  const std::string data = ReadFile(path);
  Streams streams(r.streams.size());
  for (const auto& p : r.packets) {
    if (p.stream < 0 || size_t(p.stream) >= streams.size() || p.pos < 0 || size_t(p.pos + p.size) > data.size()) {
      ADD_FAILURE() << path << ": packet of stream " << p.stream << " at " << p.pos;
      continue;
    }
    streams[size_t(p.stream)].push_back({p.pts, p.dts, p.pos, data.substr(size_t(p.pos), size_t(p.size))});
  }
  *count = r.packets.size();
  return streams;
}

// Every stream of `part` is the beginning of the same stream of `whole`:
// same pts and bytes, and the same dts where the original's equals its pts.
// (Durations are not compared: on reading, the edit list of the AAC priming
// trims the last packet of a stream to the movie's millisecond clock.)
void ExpectPrefix(const Streams& part, const Streams& whole) {
  ASSERT_EQ(part.size(), whole.size());
  for (size_t s = 0; s < part.size(); ++s) {
    ASSERT_LE(part[s].size(), whole[s].size()) << "stream " << s;
    for (size_t i = 0; i < part[s].size(); ++i) {
      const Packet& a = part[s][i];
      const Packet& b = whole[s][i];
      ASSERT_TRUE(a.pts == b.pts && a.bytes == b.bytes && (b.dts != b.pts || a.dts == b.dts))
          << "stream " << s << " packet " << i << ": pts " << a.pts << "/" << b.pts << " dts " << a.dts << "/"
          << b.dts << (a.bytes == b.bytes ? "" : ", other bytes");
    }
  }
}

// ---- Progress reports, which arrive on the repair's thread.

struct Call {
  double progress;
  int code;
  std::string message;
};

// `hook`, when set, runs on the repair's thread after each report.
class Progress {
 public:
  static void Callback(double progress, int code, const char* message, void* user) {
    auto* self = static_cast<Progress*>(user);
    const Call call{progress, code, message != nullptr ? message : "(null)"};
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->calls_.push_back(call);
    }
    self->changed_.notify_all();
    if (self->hook) self->hook(call);
  }
  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  // Waits for a first report, or with `final` for the last one: a failure,
  // or progress 1.0.
  bool Wait(bool final) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, milliseconds(20000), [&] {
      return !calls_.empty() && (!final || calls_.back().code != 0 || calls_.back().progress >= 1.0);
    });
  }

  std::function<void(const Call&)> hook;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
};

// Progress in 0..1 never goes back; only the last report may be a failure,
// and failures carry their documented text (FFmpeg's for -10); those before
// the output exists report progress 0.
void ExpectWellFormed(const std::vector<Call>& calls) {
  static const std::map<int, std::string> kFailureTexts = {
      {-1, "cannot open broken_file..."},
      {-2, "parse moov file failed ..."},
      {-5, "repair: already stopped.  can't recall this function..."},
  };
  ASSERT_FALSE(calls.empty());
  double last = 0;
  for (size_t i = 0; i < calls.size(); ++i) {
    const Call& c = calls[i];
    SCOPED_TRACE("report " + std::to_string(i) + " code " + std::to_string(c.code));
    EXPECT_TRUE(c.progress >= last && c.progress <= 1.0) << c.progress;
    EXPECT_TRUE(c.code == 0 || i + 1 == calls.size());
    if (c.code == 0) {
      EXPECT_EQ(c.message, "");
      last = c.progress;
    } else if (c.code == -10) {
      EXPECT_NE(c.message, "");
    } else {
      EXPECT_EQ(c.message, kFailureTexts.count(c.code) ? kFailureTexts.at(c.code) : "unknown code");
      EXPECT_EQ(c.progress, 0.0);
    }
  }
}

// A synchronous repair's reports; the last one's code is the result.
std::vector<Call> RepairSync(const char* broken, const char* index, const char* out) {
  Progress progress;
  const bool ok = ZEVA_StartRepair_sync(broken, index, out, &Progress::Callback, &progress);
  const std::vector<Call> calls = progress.calls();
  ExpectWellFormed(calls);
  EXPECT_EQ(ok, !calls.empty() && calls.back().code == 0);
  return calls;
}
int RepairCode(const std::string& broken, const std::string& index, const std::string& out) {
  const std::vector<Call> calls = RepairSync(broken.c_str(), index.c_str(), out.c_str());
  return calls.empty() ? INT_MIN : calls.back().code;
}

// Log lines of the library while it lives.
struct LogLines {
  LogLines() {
    ZEVA_Set_Log_Callback([this](const char*, int, const char*, int, const char* message) {
      std::lock_guard<std::mutex> lock(mutex);
      lines.emplace_back(message);
    });
  }
  ~LogLines() { ZEVA_Set_Log_Callback(nullptr); }
  bool Has(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
  }
  std::mutex mutex;
  std::vector<std::string> lines;
};

// ---- Recordings killed at random moments, with and without audio, rebuild
// as the beginning of the same recording run to its end.

TEST(RepairCrash, KilledRecordingsRebuildAsAPrefixOfTheirTwin) {
  unsigned seed = std::random_device{}();
  if (const char* env = std::getenv("ZEVA_CRASH_SEED")) seed = unsigned(std::strtoul(env, nullptr, 10));
  std::cout << "ZEVA_CRASH_SEED=" << seed << std::endl;
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> kill_after_ms(100, 500);
  TempDir dir;
  const std::string log = dir / "recorder.log";
  for (const std::vector<std::string>& flags : {std::vector<std::string>{}, {"--no-audio"}}) {
    SCOPED_TRACE(flags.empty() ? "audio" : "no audio");
    std::vector<std::string> twin_args = {dir / "twin.mp4", dir / "twin.idx", "8", "--size", "160x120"};
    twin_args.insert(twin_args.end(), flags.begin(), flags.end());
    ASSERT_NO_FATAL_FAILURE(RecordFully(twin_args, log));
    size_t twin_count = 0;
    const Streams twin = PacketsOf(dir / "twin.mp4", &twin_count);
    for (int round = 0; round < 3; ++round) {
      const int ms = kill_after_ms(rng);
      SCOPED_TRACE("killed " + std::to_string(ms) + " ms after it started");
      const std::string broken = dir / "broken.mp4", index = dir / "broken.idx", out = dir / "out.mp4";
      {
        // Eight seconds of media at twelve times real time: writing
        // throughout, a record line every 160 ms even without audio.
        std::vector<std::string> args = {broken, index, "8", "--size", "160x120", "--pace", "12"};
        args.insert(args.end(), flags.begin(), flags.end());
        Recorder recorder(args, log);
        ASSERT_TRUE(recorder.WaitStarted()) << ReadFile(log);
        std::this_thread::sleep_for(milliseconds(ms));
        recorder.Kill();
        EXPECT_TRUE(WIFSIGNALED(recorder.Wait())) << "finished before it was killed";
      }
      const auto broken_size = int64_t(fs::file_size(broken));
      size_t indexed = 0, in_file = 0, count = 0;
      for (const auto& line : RecordsOf(index))
        for (const Record& r : line) indexed += r.pos + r.size <= broken_size;
      ASSERT_EQ(RepairCode(broken, index, out), 0);
      const Streams got = PacketsOf(out, &count);
      EXPECT_GE(count, indexed);
      // Of the packets the broken file holds, only those whose records were
      // still buffered may be missing: fewer than 960 bytes of records at 16
      // or more bytes each, plus the last.
      for (const auto& stream : twin)
        for (const Packet& p : stream) in_file += p.pos + int64_t(p.bytes.size()) <= broken_size;
      EXPECT_LE(in_file, count + 61);
      if (count == 0) continue;  // no record line reached the disk: an empty movie
      EXPECT_EQ(DecodeErrors(out), "");
      ExpectPrefix(got, twin);
    }
  }
}

TEST(RepairCrash, BlankVideoExtradataFallsBackToBaseline1080p) {
  TempDir dir;
  // libx264 with the recorder's settings (Constrained Baseline, quantiser
  // 23) at 1920x1080 and 20 fps writes the very parameter sets the repair
  // falls back on.
  ASSERT_NO_FATAL_FAILURE(RecordFully(
      {dir / "hd.mp4", dir / "hd.idx", "0.5", "--no-audio", "--size", "1920x1080", "--fps", "20"},
      dir / "recorder.log"));
  std::string index = ReadFile(dir / "hd.idx");
  const std::string ev = "\"ev\":\"AAAAAWdCwCjaAeAIn5YQAAADABAAAAMCiPGDKgAAAAFozg/I\"";
  ASSERT_NE(index.find(ev), std::string::npos) << index;
  WriteFile(dir / "blank.idx", index.replace(index.find(ev), ev.size(), "\"ev\":\"\""));
  WriteFile(dir / "broken.mp4", WithoutTrailer(ReadFile(dir / "hd.mp4")));

  ASSERT_EQ(RepairCode(dir / "broken.mp4", dir / "blank.idx", dir / "repaired.mp4"), 0);
  EXPECT_EQ(DecodeErrors(dir / "repaired.mp4"), "");
  const ProbeResult r = Probe(dir / "repaired.mp4");
  ASSERT_EQ(r.streams.size(), 1u);
  EXPECT_EQ(r.streams[0].width, 1920);
  EXPECT_EQ(r.streams[0].height, 1080);
  size_t whole_count = 0, count = 0;
  const Streams whole = PacketsOf(dir / "hd.mp4", &whole_count), got = PacketsOf(dir / "repaired.mp4", &count);
  EXPECT_EQ(count + 1, whole_count);  // all but the last, which has no record
  ExpectPrefix(got, whole);
}

// ---- Damaged inputs: each ends with its code and, where one is written, an
// output ffprobe reads with the packets that could be rebuilt.

// The inputs of one repair, made from a good sample and then damaged.
struct Inputs {
  std::vector<std::string> index;  // lines
  std::string line_end = "\n";
  std::string broken;  // the broken movie's bytes
  std::string dir, index_path, broken_path, output_path;
  bool write_index = true, write_broken = true;
  size_t min_packets = 0, max_packets = 0;  // what the output must hold
  RecordLines records;                      // of the undamaged index
  std::string log;                          // a text the library must log
};

constexpr size_t kDamagedLine = 1;  // the second record line, so the first survives
constexpr size_t kDamagedRecord = 2;

// Sets field `field` of record 2 of record line 1 to `value`: packets from
// that record on may be lost.
void SetField(Inputs& in, int field, const std::string& value) {
  std::string& text = in.index[kFirstRecordLine + kDamagedLine];
  std::vector<std::string> records = Split(text, ';');
  std::vector<std::string> fields = Split(records[kDamagedRecord] + ",", ',');
  ASSERT_EQ(fields.size(), 7u);
  fields[size_t(field)] = value;
  records[kDamagedRecord].clear();
  for (size_t i = 0; i < fields.size(); ++i) records[kDamagedRecord] += (i > 0 ? "," : "") + fields[i];
  text.clear();
  for (const std::string& r : records) text += r + ";";
  in.min_packets = CountRecords(in.records, kDamagedLine) + kDamagedRecord;
}

// Cuts the broken movie to `size` bytes: exactly the packets whose bytes
// remain, up to the first that was cut, can be rebuilt.
void CutBroken(Inputs& in, size_t size) {
  in.broken.resize(size);
  size_t whole = 0;
  bool cut = false;
  for (const auto& line : in.records)
    for (const Record& r : line) {
      cut = cut || size_t(r.pos + r.size) > size;
      whole += !cut;
    }
  in.min_packets = in.max_packets = whole;
}

enum class Output {
  kNone,   // no file is written
  kAny,    // whatever is left is not looked at
  kProbe,  // ffprobe reads it; min..max packets
  kClean,  // and ffmpeg decodes it without a complaint
};
constexpr int kAnyCode = 1;  // the row only asks for a consistent end

using Damage = std::function<void(Inputs&)>;

struct Case {
  const char* name;
  Damage damage;
  int code;
  Output output;
};

// Sets `key` of a stream line to `value` (JSON text).
Damage Member(int line, const std::string& key, const std::string& value) {
  return [=](Inputs& in) {
    std::string& text = in.index[size_t(line)];
    const size_t begin = text.find("\"" + key + "\":") + key.size() + 3;
    ASSERT_GT(begin, key.size() + 2) << key;
    text.replace(begin, text.find_first_of(",}", begin) - begin, value);
  };
}
Damage Field(int field, const std::string& value) {
  return [=](Inputs& in) { SetField(in, field, value); };
}
// Replaces the header line with one that lets no record be read.
Damage Header(const std::string& text) {
  return [=](Inputs& in) {
    in.index[0] = text;
    in.min_packets = in.max_packets = 0;
  };
}
Damage OutputTo(const std::string& name, bool make_directory = false) {
  return [=](Inputs& in) {
    in.output_path = in.dir + "/" + name;
    if (make_directory) fs::create_directory(in.output_path);
  };
}

const Case kCases[] = {
    {"Intact", [](Inputs&) {}, 0, Output::kClean},
    {"CrLfLineEnds", [](Inputs& in) { in.line_end = "\r\n"; }, 0, Output::kClean},
    {"MatroskaOutput", OutputTo("out.mkv"), 0, Output::kClean},
    {"BlankAudioExtradata", Member(kAudioLine, "ev", "\"\""), 0, Output::kClean},
    {"UnknownPixelFormat", Member(kVideoLine, "format", "\"nonesuch\""), 0, Output::kClean},
    {"UnknownSampleFormat", Member(kAudioLine, "format", "\"nonesuch\""), 0, Output::kClean},
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
       in.min_packets = in.max_packets =
           CountRecords(in.records, 1) + size_t(std::count(last.begin(), last.end(), ';'));
     },
     0, Output::kClean},
    {"RecordLinesJoinedPast8192Bytes",
     [](Inputs& in) {
       std::string joined;
       for (size_t l = kFirstRecordLine; l < in.index.size(); ++l) joined += in.index[l];
       in.index.resize(kFirstRecordLine);
       in.index.push_back(joined);
       // Read as two lines: the records before the cut at least.
       in.min_packets = size_t(std::count(joined.begin(), joined.begin() + 8000, ';'));
     },
     0, Output::kProbe},
    {"Version1", Header("## version=1, zeva"), 0, Output::kProbe},
    {"NoVersionInHeader", Header("## zeva"), 0, Output::kProbe},
    {"EmptyIndex", [](Inputs& in) { in.index.clear(); }, -2, Output::kNone},
    {"MissingIndex", [](Inputs& in) { in.write_index = false; }, -2, Output::kNone},
    {"HeaderOnly", [](Inputs& in) { in.index.resize(1); }, -2, Output::kNone},
    {"VideoLineCut", [](Inputs& in) { in.index[kVideoLine].resize(60); }, -2, Output::kNone},
    {"StreamLinesWithoutType", [](Inputs& in) { in.index[kVideoLine] = in.index[kAudioLine] = "{}"; }, -2,
     Output::kNone},
    {"VideoExtradataNotBase64", Member(kVideoLine, "ev", "\"!!!!\""), -2, Output::kNone},
    // An AVC configuration record of the fallback parameter sets: no start codes.
    {"VideoExtradataWithoutStartCodes",
     Member(kVideoLine, "ev", "\"AULAKP/hABhnQsAo2gHgCJ+WEAAAAwAQAAADAojxgyoBAARozg/I\""), -2, Output::kNone},
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
       SetField(in, 0, "2");
       in.log = "===> stream.idx=2 ";
     },
     0, Output::kProbe},
    {"StreamIndexPastFour", Field(0, "7"), 0, Output::kProbe},
    {"StringWhereANumberBelongs", Member(kVideoLine, "w", "\"160\""), kAnyCode, Output::kAny},
    {"UnknownCodec", Member(kVideoLine, "codec", "\"nonesuch\""), -10, Output::kAny},
    {"ZeroWidth", Member(kVideoLine, "w", "0"), -10, Output::kAny},
    {"ZeroTimeBase", Member(kVideoLine, "tb.den", "0"), -10, Output::kAny},  // nothing to rescale from
    {"SizePastEndOfFile", Field(2, "100000000"), 0, Output::kProbe},
    {"SizeHuge", Field(2, "2147483647"), 0, Output::kProbe},
    {"SizeNegative", Field(2, "-5"), 0, Output::kProbe},
    {"PtsDeltaHuge", Field(3, "9223372036854775807"), 0, Output::kProbe},
    {"DurationNegative", Field(5, "-5"), 0, Output::kProbe},
    {"EmptyBrokenFile", [](Inputs& in) { CutBroken(in, 0); }, 0, Output::kProbe},
    {"BrokenCutBeforeFirstPacket", [](Inputs& in) { CutBroken(in, size_t(in.records[0][0].pos) - 8); }, 0,
     Output::kProbe},
    {"BrokenCutMidMediaData", [](Inputs& in) { CutBroken(in, in.broken.size() / 2); }, 0, Output::kClean},
    {"MissingBrokenFile", [](Inputs& in) { in.write_broken = false; }, -1, Output::kNone},
    {"BrokenOfRandomBytes",
     [](Inputs& in) {
       std::mt19937 rng(11);
       for (char& c : in.broken) c = char(rng());
     },
     0, Output::kProbe},
    {"OutputDirectoryMissing", OutputTo("nonesuch/out.mp4"), -10, Output::kNone},
    {"OutputIsADirectory", OutputTo("dir.mp4", true), -10, Output::kAny},
    {"OutputOfUnknownContainer", OutputTo("out.nonesuch"), -10, Output::kNone},
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// Shares one finished seven-second recording, taken apart as a crash leaves
// it.
class RepairMalformed : public ::testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    dir_ = MakeTempDir();
    RecordFully({dir_ + "/good.mp4", dir_ + "/good.idx", "7", "--size", "160x120"}, dir_ + "/recorder.log");
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }

  static std::string dir_;
};
std::string RepairMalformed::dir_;

TEST_P(RepairMalformed, EndsWithItsCodeAndAUsableOutput) {
  const Case& c = GetParam();
  TempDir dir;
  Inputs in;
  in.index = Split(ReadFile(dir_ + "/good.idx"), '\n');
  ASSERT_GT(in.index.size(), kFirstRecordLine + kDamagedLine) << "no sample recording";
  in.broken = WithoutTrailer(ReadFile(dir_ + "/good.mp4"));
  in.records = RecordsOf(in.index);
  in.min_packets = in.max_packets = CountRecords(in.records);
  in.dir = dir.path_;
  in.index_path = dir / "in.idx";
  in.broken_path = dir / "in.mp4";
  in.output_path = dir / "out.mp4";
  ASSERT_NO_FATAL_FAILURE(c.damage(in));
  std::string text;
  for (size_t i = 0; i < in.index.size(); ++i) text += (i > 0 ? in.line_end : "") + in.index[i];
  if (in.write_index) WriteFile(in.index_path, text);
  if (in.write_broken) WriteFile(in.broken_path, in.broken);

  if (!in.log.empty()) {
    // Records naming a stream the movie lacks must be refused and logged:
    // checked apart first, so that reading past the streams fails this row
    // instead of taking the suite down.
    ASSERT_EXIT(
        {
          LogLines log;
          const int code = RepairCode(in.broken_path, in.index_path, in.output_path);
          std::exit(code == c.code && log.Has(in.log) ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
  }
  LogLines log;
  const int code = RepairCode(in.broken_path, in.index_path, in.output_path);
  EXPECT_TRUE(c.code == kAnyCode || code == c.code) << code;
  EXPECT_TRUE(in.log.empty() || log.Has(in.log)) << in.log;
  if (c.output == Output::kNone) {
    EXPECT_FALSE(fs::exists(in.output_path)) << "an output was written";
  } else if (c.output != Output::kAny) {
    const ProbeResult r = Probe(in.output_path);
    ASSERT_TRUE(r.ok) << r.errors;
    EXPECT_GE(r.packets.size(), in.min_packets);
    EXPECT_LE(r.packets.size(), in.max_packets);
    if (c.output == Output::kClean) {
      EXPECT_EQ(DecodeErrors(in.output_path), "");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, RepairMalformed, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- The interface: asynchronous repairs, stop, arguments, the end report.

class RepairApi : public ::testing::Test {
 protected:
  // Twenty seconds of small pictures and sound: a few dozen record lines.
  static void SetUpTestSuite() {
    dir_ = MakeTempDir();
    RecordFully({dir_ + "/long.mp4", dir_ + "/long.idx", "20", "--size", "160x120"}, dir_ + "/recorder.log");
    WriteFile(broken(), WithoutTrailer(ReadFile(dir_ + "/long.mp4")));
    size_t count = 0;
    whole_ = PacketsOf(dir_ + "/long.mp4", &count);
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }
  static std::string broken() { return dir_ + "/broken.mp4"; }
  static std::string index() { return dir_ + "/long.idx"; }
  void* Start(const std::string& out, Progress* progress) {
    return ZEVA_StartRepair_Async(broken().c_str(), index().c_str(), out.c_str(), &Progress::Callback,
                                  progress);
  }
  // The rebuilt movie decodes cleanly, is the original's beginning, and
  // holds `packets` packets.
  void ExpectRebuilt(const std::string& out, size_t packets) {
    EXPECT_EQ(DecodeErrors(out), "");
    size_t count = 0;
    const Streams got = PacketsOf(out, &count);
    EXPECT_EQ(count, packets);
    ExpectPrefix(got, whole_);
  }

  static std::string dir_;
  static Streams whole_;  // the finished movie's packets
  TempDir tmp_;
};
std::string RepairApi::dir_;
Streams RepairApi::whole_;

TEST_F(RepairApi, ReportsEveryTenLinesWhileRunningAndOnceAtTheEnd) {
  const RecordLines lines = RecordsOf(index());
  ASSERT_GE(lines.size(), 20u);
  // The worker waits in its first report until the running flag was seen.
  std::promise<void> checked;
  std::shared_future<void> seen = checked.get_future().share();
  Progress progress;
  progress.hook = [&](const Call&) { seen.wait_for(std::chrono::seconds(10)); };
  void* handle = Start(tmp_ / "out.mp4", &progress);
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(progress.Wait(false));
  EXPECT_TRUE(ZEVA_Repair_IsRunning(handle));
  checked.set_value();
  EXPECT_TRUE(progress.Wait(true));
  const auto deadline = Clock::now() + milliseconds(5000);  // the worker returns after its last report
  while (ZEVA_Repair_IsRunning(handle) && Clock::now() < deadline) std::this_thread::sleep_for(milliseconds(1));
  EXPECT_FALSE(ZEVA_Repair_IsRunning(handle));
  ZEVA_StopRepair(&handle);  // finished already: releases at once
  EXPECT_EQ(handle, nullptr);

  const std::vector<Call> calls = progress.calls();
  ExpectWellFormed(calls);
  EXPECT_EQ(calls.size(), lines.size() / 10 + 1);
  EXPECT_EQ(calls.back().progress, 1.0);
  ExpectRebuilt(tmp_ / "out.mp4", CountRecords(lines));
}

TEST_F(RepairApi, StopEndsTheRepairAfterTheLineItIsOn) {
  // After ten lines the worker reports, then waits until the stop request
  // is under way: its log line comes once the stop flag is set.
  std::promise<void> stop;
  std::shared_future<void> stopping = stop.get_future().share();
  ZEVA_Set_Log_Callback([&](const char*, int, const char*, int, const char* message) {
    if (std::string(message) == "repair: stop() ...") stop.set_value();
  });
  Progress progress;
  progress.hook = [&](const Call&) { stopping.wait_for(std::chrono::seconds(10)); };
  void* handle = Start(tmp_ / "out.mp4", &progress);
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(progress.Wait(false));
  ZEVA_StopRepair(&handle);
  EXPECT_EQ(handle, nullptr);
  ZEVA_Set_Log_Callback(nullptr);

  const std::vector<Call> calls = progress.calls();
  ExpectWellFormed(calls);
  EXPECT_EQ(calls.size(), 2u);  // the tenth line's report, then the final one
  EXPECT_LT(calls.back().progress, 0.9);
  ExpectRebuilt(tmp_ / "out.mp4", CountRecords(RecordsOf(index()), 10));
}

TEST_F(RepairApi, LinesPastTheEndOfTheBrokenFileAreIgnoredAndReported) {
  // The broken file ends inside a packet of record line k: that line is cut
  // short there, and every later line is counted as ignored.
  const RecordLines lines = RecordsOf(index());
  const size_t k = lines.size() / 2, cut_record = lines[k].size() / 2;
  WriteFile(tmp_ / "cut.mp4", ReadFile(broken()).substr(0, size_t(lines[k][cut_record].pos) + 1));
  LogLines log;
  EXPECT_EQ(RepairCode(tmp_ / "cut.mp4", index(), tmp_ / "out.mp4"), 0);
  EXPECT_TRUE(log.Has("（忽略索引: [" + std::to_string(k + 1) + " ~ " + std::to_string(lines.size()) + ") 共" +
                      std::to_string(lines.size() - k - 1) + "行）"));
  ExpectRebuilt(tmp_ / "out.mp4", CountRecords(lines, k) + cut_record);
}

TEST_F(RepairApi, NullArgumentsEarlyStopsAndConcurrentRepairsEndConsistently) {
  EXPECT_TRUE(ZEVA_StartRepair_sync(broken().c_str(), index().c_str(), (tmp_ / "out0.mp4").c_str(), nullptr,
                                    nullptr));
  // A null path is one that cannot be opened.
  const std::string out = tmp_ / "null.mp4";
  EXPECT_EQ(RepairSync(nullptr, index().c_str(), out.c_str()).back().code, -1);
  EXPECT_EQ(RepairSync(broken().c_str(), nullptr, out.c_str()).back().code, -2);
  EXPECT_EQ(RepairSync(broken().c_str(), index().c_str(), nullptr).back().code, -10);
  ZEVA_StopRepair(nullptr);
  void* none = nullptr;
  ZEVA_StopRepair(&none);
  EXPECT_FALSE(ZEVA_Repair_IsRunning(nullptr));
  for (int i = 0; i < 5; ++i) {
    // Either the worker saw the stop before it began (-5, its only report),
    // or it ran (part of) the repair and finished normally.
    Progress progress;
    void* handle = Start(tmp_ / "stopped.mp4", &progress);
    ASSERT_NE(handle, nullptr);
    ZEVA_StopRepair(&handle);
    EXPECT_EQ(handle, nullptr);
    const std::vector<Call> calls = progress.calls();
    ExpectWellFormed(calls);
    EXPECT_TRUE(calls.empty() || calls.back().code == 0 || calls.size() == 1u);
  }
  // Repairs side by side write the same movie as the one alone.
  Progress progress[2];
  void* handles[2];
  for (int i = 0; i < 2; ++i) handles[i] = Start(tmp_ / ("out" + std::to_string(i + 1) + ".mp4"), &progress[i]);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(progress[i].Wait(true));
    ZEVA_StopRepair(&handles[i]);
    ExpectWellFormed(progress[i].calls());
  }
  const std::string first = ReadFile(tmp_ / "out0.mp4");
  ExpectRebuilt(tmp_ / "out0.mp4", CountRecords(RecordsOf(index())));
  for (int i = 1; i <= 2; ++i) EXPECT_TRUE(ReadFile(tmp_ / ("out" + std::to_string(i) + ".mp4")) == first);
}

}  // namespace
