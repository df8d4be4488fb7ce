// libFuzzer target for the index file readers: the input becomes an index
// file, which MoovParser reads; every record line it hands out then goes
// through the record reader in each syntax version (the unknown ones
// included) and the decoder.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "index/index_record.h"
#include "index/moov_parser.h"
#include "log/logger.h"

namespace {

// The index file, created once per process and rewritten by every run,
// preferably in memory: rewriting a file on disk costs more than the parse.
// Removed at exit.
struct IndexFile {
  std::string path;
  int fd = -1;
};

IndexFile& File() {
  static IndexFile file = [] {
    IndexFile f;
    for (const char* dir : {"/dev/shm", "/tmp"}) {
      std::string pattern = std::string(dir) + "/zeva-index-fuzz-XXXXXX";
      f.fd = mkstemp(pattern.data());
      if (f.fd >= 0) {
        f.path = pattern;
        break;
      }
    }
    if (f.fd < 0) abort();
    return f;
  }();
  return file;
}

void RemoveIndexFile() { unlink(File().path.c_str()); }

void SetUpOnce() {
  static const bool done = [] {
    // Messages are still formatted, but not written: the log would dwarf
    // the run.
    qel::Logger::instance(nullptr)->set_callback(
        [](const char*, int, const char*, int, const char*) {});
    File();
    atexit(RemoveIndexFile);
    return true;
  }();
  static_cast<void>(done);
}

void Rewrite(const uint8_t* data, size_t size) {
  const IndexFile& f = File();
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(f.fd, data + done, size - done, static_cast<off_t>(done));
    if (n <= 0) abort();
    done += static_cast<size_t>(n);
  }
  if (ftruncate(f.fd, static_cast<off_t>(size)) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SetUpOnce();
  Rewrite(data, size);

  zeva::MoovParser parser;
  if (!parser.parse(File().path.c_str())) return 0;
  const int audio_stream = parser.has_audio() ? parser.audio().index : -1;
  zeva::IndexRecordDecoder decoders[] = {{audio_stream, parser.audio().frame_size},
                                         {audio_stream, parser.audio().frame_size}};
  for (const char* line; (line = parser.next_line()) != nullptr;) {
    for (int version = 0; version <= 3; ++version) {
      zeva::IndexRecord record;
      for (const char* p = line; (p = zeva::ReadIndexRecord(p, version, &record)) != nullptr;) {
        if (version == 1 || version == 2) decoders[version - 1].Decode(record);
      }
    }
    if (parser.progress() < 0.0 || parser.progress() > 1.0) abort();
  }
  if (parser.progress() != 1.0) abort();
  return 0;
}
