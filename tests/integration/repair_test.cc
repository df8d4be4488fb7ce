// Rebuilding broken recordings as a host does it, through <zeva/repair.h>
// and libzeva.so: a recorder process killed while it writes, a corpus of
// damaged inputs, and the asynchronous interface. ffprobe and ffmpeg judge
// every rebuilt file.
#include <zeva/repair.h>
#include <zeva/zeva.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
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

// A scratch directory for one test, kept for a look when the test failed.
class TempDir {
 public:
  TempDir() : path_(MakeTempDir()) {}
  ~TempDir() {
    if (::testing::Test::HasFailure()) {
      std::cout << "files kept in " << path_ << "\n";
    } else {
      fs::remove_all(path_);
    }
  }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The recorder host as a child process; its standard output on a pipe, its
// standard error in `log`.
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
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    if (out_ >= 0) close(out_);
  }

  // Whether the recorder printed "started" within `ms`.
  bool WaitStarted(int ms) {
    const auto deadline = Clock::now() + milliseconds(ms);
    std::string got;
    while (got.find("started\n") == std::string::npos) {
      const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
      pollfd p{out_, POLLIN, 0};
      if (left <= 0 || poll(&p, 1, int(left)) <= 0) return false;
      char buf[256];
      const ssize_t n = read(out_, buf, sizeof buf);
      if (n <= 0) return false;
      got.append(buf, size_t(n));
    }
    return true;
  }

  void Kill() { kill(pid_, SIGKILL); }

  // Its wait status once it ended; killed when it takes longer than `ms`.
  int Wait(int ms = 60000) {
    const auto deadline = Clock::now() + milliseconds(ms);
    int status = -1;
    while (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) Kill();
      std::this_thread::sleep_for(milliseconds(5));
    }
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

// Runs the recorder to its end with `args` (what follows the program name).
void RecordFully(const std::vector<std::string>& args, const std::string& log) {
  Recorder r(args, log);
  const int status = r.Wait();
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "recorder status " << status << "\n"
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

// ---- The index as text, read independently of the library.

// The head of an index: the header line, the video line, the audio line.
constexpr int kVideoLine = 1;
constexpr int kAudioLine = 2;
constexpr int kFirstRecordLine = 3;
const std::string kBuiltInVideoExtradata = "AAAAAWdCwCjaAeAIn5YQAAADABAAAAMCiPGDKgAAAAFozg/I";

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::string piece;
  std::istringstream in(text);
  while (std::getline(in, piece, sep)) out.push_back(piece);
  return out;
}

// The lines of an index file; a finished index has no line feed at its end.
struct IndexText {
  std::vector<std::string> lines;
  std::string line_end = "\n";

  std::string Text() const {
    std::string out;
    for (size_t i = 0; i < lines.size(); ++i) out += (i > 0 ? line_end : "") + lines[i];
    return out;
  }
  std::vector<std::string> RecordLines() const {
    auto first = lines.begin();
    while (first != lines.end() && !first->empty() && (first->front() == '#' || first->front() == '{'))
      ++first;
    return {first, lines.end()};
  }
};

// A record and where its bytes lie in the broken file.
struct Record {
  int stream;
  int64_t pos, size;
};

std::vector<std::vector<Record>> RecordsByLine(const IndexText& index) {
  std::vector<std::vector<Record>> out;
  int64_t end = 0;
  for (const std::string& line : index.RecordLines()) {
    out.emplace_back();
    for (const std::string& text : Split(line.substr(0, line.rfind(';')), ';')) {
      const std::vector<std::string> f = Split(text + ",", ',');
      if (f.size() != 7) continue;
      const int64_t pos = f[1].empty() ? end : std::atoll(f[1].c_str());
      out.back().push_back({std::atoi(f[0].c_str()), pos, std::atoll(f[2].c_str())});
      end = pos + out.back().back().size;
    }
  }
  return out;
}

size_t CountRecords(const std::vector<std::vector<Record>>& lines, size_t first_lines = SIZE_MAX) {
  size_t n = 0;
  for (size_t i = 0; i < lines.size() && i < first_lines; ++i) n += lines[i].size();
  return n;
}

// Replaces the value of `key` in a compact JSON stream line.
void SetMember(std::string& line, const std::string& key, const std::string& value) {
  const size_t at = line.find("\"" + key + "\":");
  ASSERT_NE(at, std::string::npos) << key;
  const size_t begin = at + key.size() + 3;
  line.replace(begin, line.find_first_of(",}", begin) - begin, value);
}

// ---- Movies as ffprobe sees them, with each packet's bytes.

struct Packet {
  int64_t pts, dts, pos;
  int size;
  std::string bytes;
};
using Streams = std::vector<std::vector<Packet>>;

Streams PacketsOf(const std::string& path) {
  const ProbeResult r = Probe(path);
  EXPECT_TRUE(r.ok) << path << ": " << r.errors;
  const std::string data = ReadFile(path);
  Streams streams(r.streams.size());
  for (const auto& p : r.packets) {
    if (p.stream < 0 || size_t(p.stream) >= streams.size() || p.pos < 0 ||
        size_t(p.pos) + size_t(p.size) > data.size()) {
      ADD_FAILURE() << path << ": packet of stream " << p.stream << " at " << p.pos;
      continue;
    }
    streams[size_t(p.stream)].push_back(
        {p.pts, p.dts, p.pos, p.size, data.substr(size_t(p.pos), size_t(p.size))});
  }
  return streams;
}

size_t Count(const Streams& s) {
  size_t n = 0;
  for (const auto& v : s) n += v.size();
  return n;
}

// Every stream of `part` is the beginning of the same stream of `whole`:
// same pts, size and bytes, and the same dts where the original's equals its
// pts. (Durations are not compared: on reading, the edit list of the AAC
// priming trims the last packet of a stream to the movie's millisecond clock.)
void ExpectPrefix(const Streams& part, const Streams& whole) {
  ASSERT_EQ(part.size(), whole.size());
  for (size_t s = 0; s < part.size(); ++s) {
    ASSERT_LE(part[s].size(), whole[s].size()) << "stream " << s;
    for (size_t i = 0; i < part[s].size(); ++i) {
      const Packet& a = part[s][i];
      const Packet& b = whole[s][i];
      if (a.pts != b.pts || a.size != b.size || a.bytes != b.bytes || (b.dts == b.pts && a.dts != b.dts)) {
        ADD_FAILURE() << "stream " << s << " packet " << i << ": pts " << a.pts << "/" << b.pts << " dts "
                      << a.dts << "/" << b.dts << " size " << a.size << "/" << b.size
                      << (a.bytes == b.bytes ? "" : ", other bytes");
        return;
      }
    }
  }
}

// ---- Progress reports.

struct Call {
  double progress;
  int code;
  std::string message;
};

// Collects a repair's reports, which arrive on the repair's thread; `hook`,
// when set, runs on that thread after each.
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
  // Waits for the last report of a repair: a failure, or progress 1.0.
  bool WaitFinal(int ms = 20000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, milliseconds(ms), [&] {
      return !calls_.empty() && (calls_.back().code != 0 || calls_.back().progress >= 1.0);
    });
  }

  std::function<void(const Call&)> hook;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
};

// Failures before the output exists: code, text (progress is 0).
const std::map<int, std::string> kFailureTexts = {
    {-1, "cannot open broken_file..."},
    {-2, "parse moov file failed ..."},
    {-5, "repair: already stopped.  can't recall this function..."},
};

// Progress in 0..1 never goes back; only the last report may be a failure,
// and failures carry their documented text.
void ExpectWellFormed(const std::vector<Call>& calls) {
  ASSERT_FALSE(calls.empty());
  double last = 0;
  for (size_t i = 0; i < calls.size(); ++i) {
    const Call& c = calls[i];
    SCOPED_TRACE("report " + std::to_string(i) + " code " + std::to_string(c.code));
    EXPECT_TRUE(c.progress >= 0 && c.progress <= 1.0) << c.progress;
    if (i + 1 < calls.size()) {
      EXPECT_EQ(c.code, 0);
    }
    if (c.code == 0) {
      EXPECT_GE(c.progress, last);
      EXPECT_EQ(c.message, "");
      last = c.progress;
    } else if (c.code == -10) {
      EXPECT_NE(c.message, "");  // FFmpeg's text
    } else {
      const auto text = kFailureTexts.find(c.code);
      ASSERT_NE(text, kFailureTexts.end()) << "unknown code";
      EXPECT_EQ(c.message, text->second);
      EXPECT_EQ(c.progress, 0.0);
    }
  }
}

// A one-way signal between threads, waited for with a deadline.
class Latch {
 public:
  void Set() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      set_ = true;
    }
    changed_.notify_all();
  }
  bool Wait(int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, milliseconds(ms), [&] { return set_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool set_ = false;
};

struct Outcome {
  bool ok = false;
  std::vector<Call> calls;
  int code() const { return calls.empty() ? INT_MIN : calls.back().code; }
};

Outcome RepairSync(const char* broken, const char* index, const char* out) {
  Progress progress;
  Outcome o;
  o.ok = ZEVA_StartRepair_sync(broken, index, out, &Progress::Callback, &progress);
  o.calls = progress.calls();
  ExpectWellFormed(o.calls);
  EXPECT_EQ(o.ok, o.code() == 0);
  return o;
}
Outcome RepairSync(const std::string& broken, const std::string& index, const std::string& out) {
  return RepairSync(broken.c_str(), index.c_str(), out.c_str());
}

// ---- A recorder killed at random moments.

TEST(RepairCrash, KilledRecordingsRebuildAsAPrefixOfTheirTwin) {
  unsigned seed = std::random_device{}();
  if (const char* env = std::getenv("ZEVA_CRASH_SEED")) seed = unsigned(std::strtoul(env, nullptr, 10));
  std::cout << "ZEVA_CRASH_SEED=" << seed << std::endl;
  RecordProperty("ZEVA_CRASH_SEED", std::to_string(seed));
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> kill_after_ms(100, 800);
  TempDir dir;
  const std::string log = dir / "recorder.log";
  struct Config {
    const char* name;
    std::vector<std::string> flags;
  };
  for (const Config& config : {Config{"audio", {}}, Config{"no audio", {"--no-audio"}}}) {
    SCOPED_TRACE(config.name);
    // The twin: the same recording, run to its end as fast as it goes.
    std::vector<std::string> twin_args = {dir / "twin.mp4", dir / "twin.idx", "16", "--pace", "0"};
    twin_args.insert(twin_args.end(), config.flags.begin(), config.flags.end());
    ASSERT_NO_FATAL_FAILURE(RecordFully(twin_args, log));
    const Streams twin = PacketsOf(dir / "twin.mp4");

    for (int round = 0; round < 6; ++round) {
      const int ms = kill_after_ms(rng);
      SCOPED_TRACE("killed " + std::to_string(ms) + " ms after it started");
      const std::string name = std::string(config.flags.empty() ? "av" : "v") + std::to_string(round);
      const std::string broken = dir / (name + ".mp4"), index = dir / (name + ".idx"),
                        out = dir / (name + "-repaired.mp4");
      {
        // Sixteen seconds of media at twelve times real time: writing throughout,
        // a record line every 160 ms even without audio.
        std::vector<std::string> args = {broken, index, "16", "--pace", "12"};
        args.insert(args.end(), config.flags.begin(), config.flags.end());
        Recorder recorder(args, log);
        ASSERT_TRUE(recorder.WaitStarted(20000)) << ReadFile(log);
        std::this_thread::sleep_for(milliseconds(ms));
        recorder.Kill();
        EXPECT_TRUE(WIFSIGNALED(recorder.Wait())) << "finished before it was killed";
      }
      const auto broken_size = int64_t(fs::file_size(broken));
      size_t indexed = 0;
      for (const auto& line : RecordsByLine(IndexText{Split(ReadFile(index), '\n')}))
        for (const Record& r : line) indexed += r.pos + r.size <= broken_size;

      const Outcome o = RepairSync(broken, index, out);
      ASSERT_TRUE(o.ok);
      EXPECT_EQ(o.calls.back().progress, 1.0);
      const Streams got = PacketsOf(out);
      EXPECT_GE(Count(got), indexed);
      // The broken file is the twin's beginning; of the packets it holds,
      // only those whose records were still buffered may be missing: fewer
      // than 960 bytes of records at 16 or more bytes each, plus the last.
      size_t in_file = 0;
      for (const auto& stream : twin)
        for (const Packet& p : stream) in_file += p.pos + p.size <= broken_size;
      EXPECT_LE(in_file, Count(got) + 61);
      std::cout << config.name << ", killed after " << ms << " ms: " << Count(got) << " of " << in_file
                << " packets rebuilt\n";
      if (Count(got) == 0) continue;  // no record line reached the disk: an empty movie
      EXPECT_EQ(DecodeErrors(out), "");
      ExpectPrefix(got, twin);
    }
  }
}

// ---- Video extradata missing from the index.

TEST(RepairExtradata, BlankVideoExtradataFallsBackToBaseline1080p) {
  TempDir dir;
  // libx264 with the recorder's settings (Constrained Baseline, quantiser
  // 23) at 1920x1080 and 20 fps writes the very parameter sets the repair
  // falls back on; at 30 fps only the VUI time scale differs (60, not 40).
  ASSERT_NO_FATAL_FAILURE(RecordFully({dir / "hd.mp4", dir / "hd.idx", "1", "--no-audio", "--size",
                                       "1920x1080", "--fps", "20", "--pace", "0"},
                                      dir / "recorder.log"));
  IndexText index{Split(ReadFile(dir / "hd.idx"), '\n')};
  ASSERT_FALSE(index.RecordLines().empty());
  std::string& video = index.lines[kVideoLine];
  EXPECT_NE(video.find("\"ev\":\"" + kBuiltInVideoExtradata + "\""), std::string::npos) << video;
  SetMember(video, "ev", "\"\"");
  WriteFile(dir / "blank.idx", index.Text());
  WriteFile(dir / "broken.mp4", WithoutTrailer(ReadFile(dir / "hd.mp4")));

  const Outcome o = RepairSync(dir / "broken.mp4", dir / "blank.idx", dir / "repaired.mp4");
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(DecodeErrors(dir / "repaired.mp4"), "");
  const ProbeResult r = Probe(dir / "repaired.mp4");
  ASSERT_EQ(r.streams.size(), 1u);
  EXPECT_EQ(r.streams[0].codec_name, "h264");
  EXPECT_EQ(r.streams[0].width, 1920);
  EXPECT_EQ(r.streams[0].height, 1080);
  const Streams whole = PacketsOf(dir / "hd.mp4"), got = PacketsOf(dir / "repaired.mp4");
  EXPECT_EQ(Count(got) + 1, Count(whole));  // all but the last, which has no record
  ExpectPrefix(got, whole);
}

// ---- Damaged inputs.

// The inputs of one repair, made from a good sample and then damaged.
struct Inputs {
  IndexText index;
  std::string broken;  // the broken movie's bytes
  std::string index_path, broken_path, output_path;
  bool write_index = true, write_broken = true;
  size_t min_packets = 0, max_packets = 0;   // what the output must hold
  std::vector<std::vector<Record>> records;  // of the undamaged index
  std::string dir;
};

// Replaces field `field` of record `record` of record line `line` (counted
// from the first record line) with `value`. Packets from that record on may
// be lost.
void SetField(Inputs& in, size_t line, size_t record, int field, const std::string& value) {
  std::string& text = in.index.lines[kFirstRecordLine + line];
  std::vector<std::string> records = Split(text, ';');
  ASSERT_LT(record, records.size());
  std::vector<std::string> fields = Split(records[record] + ",", ',');
  ASSERT_EQ(fields.size(), 7u);
  fields[size_t(field)] = value;
  std::string joined;
  for (size_t i = 0; i < fields.size(); ++i) joined += (i > 0 ? "," : "") + fields[i];
  records[record] = joined;
  text.clear();
  for (const std::string& r : records) text += r + ";";
  in.min_packets = CountRecords(in.records, line) + record;
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

constexpr size_t kDamagedLine = 1;  // the second record line, so the first survives
constexpr size_t kDamagedRecord = 2;

// Sets `key` of a stream line to `value` (JSON text).
Damage Member(int line, const std::string& key, const std::string& value) {
  return [=](Inputs& in) { SetMember(in.index.lines[size_t(line)], key, value); };
}
// Sets a field of a record of the second record line.
Damage Field(int field, const std::string& value) {
  return [=](Inputs& in) { SetField(in, kDamagedLine, kDamagedRecord, field, value); };
}
// Replaces the header line with one that lets no record be read.
Damage Header(const std::string& text) {
  return [=](Inputs& in) {
    in.index.lines[0] = text;
    in.min_packets = in.max_packets = 0;
  };
}
// Writes the output to `name` in the test's directory.
Damage OutputTo(const std::string& name) {
  return [=](Inputs& in) { in.output_path = in.dir + "/" + name; };
}

const Case kCases[] = {
    {"Intact", [](Inputs&) {}, 0, Output::kClean},
    {"CrLfLineEnds", [](Inputs& in) { in.index.line_end = "\r\n"; }, 0, Output::kClean},
    {"MatroskaOutput", OutputTo("out.mkv"), 0, Output::kClean},
    {"BlankAudioExtradata", Member(kAudioLine, "ev", "\"\""), 0, Output::kClean},
    {"UnknownPixelAndSampleFormats",
     [](Inputs& in) {
       Member(kVideoLine, "format", "\"nonesuch\"")(in);
       Member(kAudioLine, "format", "\"nonesuch\"")(in);
     },
     0, Output::kClean},
    {"OtherStreamTypeAndCommentLines",
     [](Inputs& in) {
       in.index.lines.insert(in.index.lines.begin() + kFirstRecordLine,
                             {"{\"type\":\"data\",\"index\":2}", "# a note"});
     },
     0, Output::kClean},
    {"BlankAndGarbageRecordLines",
     [](Inputs& in) {
       in.index.lines.insert(in.index.lines.begin() + kFirstRecordLine + 1,
                             {"", "not,a,record,at,all,x,y;", std::string(9000, 'x')});
     },
     0, Output::kClean},
    {"IndexCutMidRecord",
     [](Inputs& in) {
       in.index.lines.resize(kFirstRecordLine + 2);
       std::string& last = in.index.lines.back();
       const size_t cut = last.find(';', last.size() / 2) + 4;
       ASSERT_LT(cut, last.size());
       last.resize(cut);
       in.min_packets = in.max_packets =
           CountRecords(in.records, 1) + size_t(std::count(last.begin(), last.end(), ';'));
     },
     0, Output::kClean},
    {"RecordLinesJoinedPast8192Bytes",
     [](Inputs& in) {
       std::string joined;
       for (const std::string& line : in.index.RecordLines()) joined += line;
       ASSERT_GT(joined.size(), 8200u);
       in.index.lines.resize(kFirstRecordLine);
       in.index.lines.push_back(joined);
       // Read as two lines: the records before the cut at least.
       in.min_packets = size_t(std::count(joined.begin(), joined.begin() + 8000, ';'));
     },
     0, Output::kProbe},
    {"Version1",
     [](Inputs& in) {
       in.index.lines[0] = "## version=1, zeva";
       in.min_packets = 0;
     },
     0, Output::kProbe},
    {"Version3", Header("## version=3, zeva"), 0, Output::kProbe},
    {"NoVersionInHeader", Header("## zeva"), 0, Output::kProbe},
    {"NoHeaderLine",
     [](Inputs& in) {
       in.index.lines.erase(in.index.lines.begin());
       in.min_packets = in.max_packets = 0;
     },
     0, Output::kProbe},
    {"EmptyIndex", [](Inputs& in) { in.index.lines.clear(); }, -2, Output::kNone},
    {"MissingIndex", [](Inputs& in) { in.write_index = false; }, -2, Output::kNone},
    {"IndexIsADirectory",
     [](Inputs& in) {
       in.index_path = in.dir;
       in.write_index = false;
     },
     -2, Output::kNone},
    {"HeaderOnly", [](Inputs& in) { in.index.lines.resize(1); }, -2, Output::kNone},
    {"IndexOfRandomBytes",
     [](Inputs& in) {
       std::mt19937 rng(7);
       std::string junk(5000, '\0');
       for (char& c : junk) c = char(rng());
       in.index.lines = {junk};
     },
     -2, Output::kNone},
    {"VideoLineCut", [](Inputs& in) { in.index.lines[kVideoLine].resize(60); }, -2, Output::kNone},
    {"StreamLinesWithoutType",
     [](Inputs& in) { in.index.lines[kVideoLine] = in.index.lines[kAudioLine] = "{}"; }, -2, Output::kNone},
    {"VideoExtradataNotBase64", Member(kVideoLine, "ev", "\"!!!!\""), -2, Output::kNone},
    // An AVC configuration record of the fallback parameter sets: no start codes.
    {"VideoExtradataWithoutStartCodes",
     Member(kVideoLine, "ev", "\"AULAKP/hABhnQsAo2gHgCJ+WEAAAAwAQAAADAojxgyoBAARozg/I\""), -2, Output::kNone},
    {"AudioLineCut",
     [](Inputs& in) {
       in.index.lines[kAudioLine].resize(60);
       in.min_packets = 0;
     },
     0, Output::kProbe},
    {"StringWhereANumberBelongs", Member(kVideoLine, "w", "\"160\""), kAnyCode, Output::kAny},
    {"UnknownCodec", Member(kVideoLine, "codec", "\"nonesuch\""), -10, Output::kAny},
    {"ZeroWidth", Member(kVideoLine, "w", "0"), -10, Output::kAny},
    {"ZeroTimeBase", Member(kVideoLine, "tb.den", "0"), -10, Output::kAny},  // nothing to rescale from
    {"StreamIndexPastFour", Field(0, "7"), 0, Output::kProbe},
    {"StreamIndexWithoutStream", Field(0, "3"), 0, Output::kProbe},
    {"SizePastEndOfFile",
     [](Inputs& in) {
       Field(2, "100000000")(in);
       in.max_packets = in.min_packets;  // the read falls short, and the rest is ignored
     },
     0, Output::kProbe},
    {"SizeHuge", Field(2, "2147483647"), 0, Output::kProbe},
    {"SizeNegative", Field(2, "-5"), 0, Output::kProbe},
    {"SizeZero", Field(2, ""), 0, Output::kProbe},
    {"PtsDeltaHuge", Field(3, "9223372036854775807"), 0, Output::kProbe},
    {"PtsDeltaNegative", Field(3, "-100000"), 0, Output::kProbe},
    {"NumbersPastTheirRange",
     [](Inputs& in) {
       SetField(in, kDamagedLine + 1, 0, 3, "-99999999999999999999999");
       Field(0, "99999999999999999999")(in);
     },
     0, Output::kProbe},
    {"DurationNegative", Field(5, "-5"), 0, Output::kProbe},
    {"NulInsideRecordLine",
     [](Inputs& in) {
       std::string& line = in.index.lines[kFirstRecordLine + kDamagedLine];
       line[line.find(';')] = '\0';
       in.min_packets = CountRecords(in.records, kDamagedLine);
     },
     0, Output::kProbe},
    {"FirstPositionPastEnd",
     [](Inputs& in) {
       SetField(in, 0, 0, 1, "999999999");
       in.max_packets = 0;
     },
     0, Output::kProbe},
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
    {"IndexOfAnotherRecording",
     [](Inputs& in) {
       const std::string other = in.dir + "/other.mp4";
       RecordFully({other, in.dir + "/other.idx", "1", "--no-audio", "--size", "160x120", "--pace", "0"},
                   in.dir + "/recorder.log");
       in.broken = WithoutTrailer(ReadFile(other));
       in.min_packets = 0;
     },
     0, Output::kProbe},
    {"OutputDirectoryMissing", OutputTo("nonesuch/out.mp4"), -10, Output::kNone},
    {"OutputIsADirectory",
     [](Inputs& in) {
       OutputTo("dir.mp4")(in);
       fs::create_directory(in.output_path);
     },
     -10, Output::kAny},
    {"OutputOfUnknownContainer", OutputTo("out.nonesuch"), -10, Output::kNone},
    {"OutputPathEmpty", [](Inputs& in) { in.output_path = ""; }, -10, Output::kNone},
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class RepairMalformed : public ::testing::TestWithParam<Case> {
 protected:
  // A finished seven-second recording, taken apart as a crash leaves it.
  static void SetUpTestSuite() {
    dir_ = MakeTempDir();
    RecordFully({dir_ + "/good.mp4", dir_ + "/good.idx", "7", "--size", "160x120", "--pace", "0"},
                dir_ + "/recorder.log");
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }

  static std::string dir_;
};
std::string RepairMalformed::dir_;

TEST_P(RepairMalformed, EndsWithItsCodeAndAUsableOutput) {
  const Case& c = GetParam();
  TempDir dir;
  Inputs in;
  in.index.lines = Split(ReadFile(dir_ + "/good.idx"), '\n');
  ASSERT_GT(in.index.lines.size(), kFirstRecordLine + kDamagedLine) << "no sample recording";
  in.broken = WithoutTrailer(ReadFile(dir_ + "/good.mp4"));
  in.records = RecordsByLine(in.index);
  in.min_packets = in.max_packets = CountRecords(in.records);
  in.dir = dir.path();
  in.index_path = dir / "in.idx";
  in.broken_path = dir / "in.mp4";
  in.output_path = dir / "out.mp4";
  ASSERT_NO_FATAL_FAILURE(c.damage(in));
  if (in.write_index) WriteFile(in.index_path, in.index.Text());
  if (in.write_broken) WriteFile(in.broken_path, in.broken);

  const Outcome o = RepairSync(in.broken_path, in.index_path, in.output_path);
  if (c.code != kAnyCode) {
    EXPECT_EQ(o.code(), c.code);
  }
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
    RecordFully({dir_ + "/long.mp4", dir_ + "/long.idx", "20", "--size", "160x120", "--pace", "0"},
                dir_ + "/recorder.log");
    WriteFile(broken(), WithoutTrailer(ReadFile(dir_ + "/long.mp4")));
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }
  static std::string broken() { return dir_ + "/broken.mp4"; }
  static std::string index() { return dir_ + "/long.idx"; }
  static std::vector<std::vector<Record>> records() {
    return RecordsByLine(IndexText{Split(ReadFile(index()), '\n')});
  }
  void* Start(const std::string& out, Progress* progress) {
    return ZEVA_StartRepair_Async(broken().c_str(), index().c_str(), out.c_str(), &Progress::Callback,
                                  progress);
  }

  static std::string dir_;
  TempDir tmp_;
};
std::string RepairApi::dir_;

TEST_F(RepairApi, ReportsEveryTenLinesWhileRunningAndOnceAtTheEnd) {
  const size_t lines = records().size();
  ASSERT_GE(lines, 20u);
  Progress progress;
  Latch reported, checked;
  // The worker waits in its first report until the running flag was seen.
  progress.hook = [&](const Call&) {
    reported.Set();
    checked.Wait(5000);
  };
  void* handle = Start(tmp_ / "out.mp4", &progress);
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(reported.Wait(10000));
  EXPECT_TRUE(ZEVA_Repair_IsRunning(handle));
  checked.Set();
  EXPECT_TRUE(progress.WaitFinal());
  const auto deadline = Clock::now() + milliseconds(5000);  // the worker returns after its last report
  while (ZEVA_Repair_IsRunning(handle) && Clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(1));
  EXPECT_FALSE(ZEVA_Repair_IsRunning(handle));

  const auto t0 = Clock::now();
  ZEVA_StopRepair(&handle);  // finished already: releases without waiting
  EXPECT_LT(Clock::now() - t0, milliseconds(500));
  EXPECT_EQ(handle, nullptr);

  const std::vector<Call> calls = progress.calls();
  ExpectWellFormed(calls);
  EXPECT_EQ(calls.size(), lines / 10 + 1);
  EXPECT_EQ(calls.back().code, 0);
  EXPECT_EQ(calls.back().progress, 1.0);
  for (size_t i = 0; i + 1 < calls.size(); ++i) EXPECT_LT(calls[i].progress, calls[i + 1].progress);
  const Streams got = PacketsOf(tmp_ / "out.mp4");
  EXPECT_EQ(Count(got), CountRecords(records()));
  EXPECT_EQ(DecodeErrors(tmp_ / "out.mp4"), "");
}

TEST_F(RepairApi, StopEndsTheRepairAfterTheLineItIsOn) {
  // After ten lines the worker reports, then waits until the stop request
  // is under way: its log line comes once the stop flag is set.
  Latch reported, stopping;
  ZEVA_Set_Log_Callback([&](const char*, int, const char*, int, const char* message) {
    if (std::strcmp(message, "repair: stop() ...") == 0) stopping.Set();
  });
  Progress progress;
  progress.hook = [&](const Call&) {
    reported.Set();
    EXPECT_TRUE(stopping.Wait(5000));
  };
  void* handle = Start(tmp_ / "out.mp4", &progress);
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(reported.Wait(10000));
  const auto t0 = Clock::now();
  ZEVA_StopRepair(&handle);
  EXPECT_LT(Clock::now() - t0, milliseconds(2000));
  EXPECT_EQ(handle, nullptr);
  ZEVA_Set_Log_Callback(nullptr);

  const std::vector<Call> calls = progress.calls();
  ExpectWellFormed(calls);
  EXPECT_EQ(calls.size(), 2u);  // the tenth line's report, then the final one
  EXPECT_LT(calls.back().progress, 0.9);
  // A finished movie holding exactly the first ten lines' packets.
  EXPECT_EQ(DecodeErrors(tmp_ / "out.mp4"), "");
  const Streams got = PacketsOf(tmp_ / "out.mp4");
  EXPECT_EQ(Count(got), CountRecords(records(), 10));
  ExpectPrefix(got, PacketsOf(dir_ + "/long.mp4"));
}

TEST_F(RepairApi, NullCallbackAndNullPaths) {
  EXPECT_TRUE(
      ZEVA_StartRepair_sync(broken().c_str(), index().c_str(), (tmp_ / "out.mp4").c_str(), nullptr, nullptr));
  EXPECT_EQ(Count(PacketsOf(tmp_ / "out.mp4")), CountRecords(records()));
  // A null path is one that cannot be opened.
  const std::string out = tmp_ / "null.mp4";
  EXPECT_EQ(RepairSync(nullptr, index().c_str(), out.c_str()).code(), -1);
  EXPECT_EQ(RepairSync(broken().c_str(), nullptr, out.c_str()).code(), -2);
  EXPECT_EQ(RepairSync(broken().c_str(), index().c_str(), nullptr).code(), -10);
}

TEST_F(RepairApi, LinesPastTheEndOfTheBrokenFileAreIgnoredAndReported) {
  // The broken file ends inside a packet of record line k: that line is cut
  // short there, and every later line is counted as ignored.
  const auto lines = records();
  const size_t k = lines.size() / 2, cut_record = lines[k].size() / 2;
  WriteFile(tmp_ / "cut.mp4", ReadFile(broken()).substr(0, size_t(lines[k][cut_record].pos) + 1));
  std::mutex m;
  std::vector<std::string> log;
  ZEVA_Set_Log_Callback([&](const char*, int, const char*, int, const char* message) {
    std::lock_guard<std::mutex> lock(m);
    log.emplace_back(message);
  });
  const Outcome o = RepairSync(tmp_ / "cut.mp4", index(), tmp_ / "out.mp4");
  ZEVA_Set_Log_Callback(nullptr);
  EXPECT_TRUE(o.ok);
  EXPECT_EQ(o.calls.back().progress, 1.0);
  const std::string range = "（忽略索引: [" + std::to_string(k + 1) + " ~ " + std::to_string(lines.size()) +
                            ") 共" + std::to_string(lines.size() - k - 1) + "行）";
  EXPECT_TRUE(std::any_of(log.begin(), log.end(), [&](const std::string& line) {
    return line.rfind(">> 执行完成 ", 0) == 0 && line.find(range) != std::string::npos;
  })) << range;
  EXPECT_EQ(DecodeErrors(tmp_ / "out.mp4"), "");
  const Streams got = PacketsOf(tmp_ / "out.mp4");
  EXPECT_EQ(Count(got), CountRecords(lines, k) + cut_record);
  ExpectPrefix(got, PacketsOf(dir_ + "/long.mp4"));
}

TEST_F(RepairApi, StopRightAfterStartEndsConsistently) {
  ZEVA_StopRepair(nullptr);
  void* none = nullptr;
  ZEVA_StopRepair(&none);
  EXPECT_FALSE(ZEVA_Repair_IsRunning(nullptr));

  int refused = 0;
  for (int i = 0; i < 20; ++i) {
    SCOPED_TRACE("attempt " + std::to_string(i));
    Progress progress;
    void* handle = Start(tmp_ / "out.mp4", &progress);
    ASSERT_NE(handle, nullptr);
    ZEVA_StopRepair(&handle);
    EXPECT_EQ(handle, nullptr);
    // Either the worker saw the stop before it began, or it ran (part of)
    // the repair and finished normally.
    const std::vector<Call> calls = progress.calls();
    ExpectWellFormed(calls);
    if (!calls.empty() && calls.back().code == -5) {
      EXPECT_EQ(calls.size(), 1u);
      ++refused;
    } else if (!calls.empty()) {
      EXPECT_EQ(calls.back().code, 0);
      EXPECT_TRUE(Probe(tmp_ / "out.mp4").ok);
    }
  }
  std::cout << refused << " of 20 repairs stopped before they began\n";
}

TEST_F(RepairApi, ConcurrentRepairsWriteTheSameMovie) {
  constexpr int kRepairs = 3;
  Progress progress[kRepairs];
  void* handles[kRepairs];
  for (int i = 0; i < kRepairs; ++i) {
    handles[i] = Start(tmp_ / ("out" + std::to_string(i) + ".mp4"), &progress[i]);
    ASSERT_NE(handles[i], nullptr);
  }
  for (int i = 0; i < kRepairs; ++i) {
    EXPECT_TRUE(progress[i].WaitFinal());
    ZEVA_StopRepair(&handles[i]);
    ExpectWellFormed(progress[i].calls());
  }
  const std::string first = ReadFile(tmp_ / "out0.mp4");
  EXPECT_FALSE(first.empty());
  for (int i = 1; i < kRepairs; ++i)
    EXPECT_TRUE(ReadFile(tmp_ / ("out" + std::to_string(i) + ".mp4")) == first);
}

}  // namespace
