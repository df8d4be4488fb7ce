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

// The index file: created once per process, in memory where it can be
// (rewriting a file on disk costs more than the parse), rewritten by every
// run and removed at exit. The log is silenced: it would dwarf the run.
struct IndexFile {
  IndexFile() {
    qel::Logger::instance(nullptr)->set_callback([](const char*, int, const char*, int, const char*) {});
    for (const char* dir : {"/dev/shm", "/tmp"}) {
      path = std::string(dir) + "/zeva-index-fuzz-XXXXXX";
      fd = mkstemp(path.data());
      if (fd >= 0) break;
    }
    if (fd < 0) abort();
  }
  ~IndexFile() { unlink(path.c_str()); }
  void Rewrite(const uint8_t* data, size_t size) const {
    if (pwrite(fd, data, size, 0) != static_cast<ssize_t>(size) || ftruncate(fd, off_t(size)) != 0) abort();
  }
  std::string path;
  int fd = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const IndexFile file;
  file.Rewrite(data, size);

  zeva::MoovParser parser;
  if (!parser.parse(file.path.c_str())) return 0;
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
