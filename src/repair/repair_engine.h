// Rebuilds a finished movie from a recording without its trailer: the
// broken file's packet bytes, found through the crash-safe index, are written
// into a new output with their timestamps.
#ifndef ZEVA_REPAIR_REPAIR_ENGINE_H
#define ZEVA_REPAIR_REPAIR_ENGINE_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

#include <memory>

#include "index/index_record.h"
#include "index/moov_parser.h"
#include "zeva/repair.h"

struct AVFormatContext;

namespace zeva {

// One repair: run on the caller's thread (Run) or on a worker (StartAsync).
// Progress and failures reach the callback on the thread that runs it.
class RepairEngine {
 public:
  // `progress` may be null.
  RepairEngine(ZEVA_RepairProgress progress, void* user);
  ~RepairEngine();  // Stop()
  RepairEngine(const RepairEngine&) = delete;
  RepairEngine& operator=(const RepairEngine&) = delete;

  // Rebuilds `output` from `broken` and `index`. True when the output was
  // written and finished. Reports -5 at once after Stop().
  bool Run(const std::string& broken, const std::string& index, const std::string& output);

  // Run on a worker thread of this object's. Call once.
  void StartAsync(std::string broken, std::string index, std::string output);

  // Ends the repair after the index line it is on (its output is still
  // finished) and joins the worker. Not from inside the callback.
  void Stop();

  bool running() const { return running_.load(); }

 private:
  int Rebuild(FILE* broken, const std::string& output);
  int AddStreams(AVFormatContext* oc);
  void RecordLoop(AVFormatContext* oc, FILE* broken);
  void ProcessLine(AVFormatContext* oc, FILE* broken, const char* line);
  bool ReadPacket(FILE* broken, int64_t position, int size);
  void Report(double progress, int code, const char* message);

  ZEVA_RepairProgress progress_;
  void* user_;
  std::thread worker_;
  std::atomic<bool> stopped_{false};
  std::atomic<bool> running_{false};

  // State of one run.
  MoovParser parser_;
  std::unique_ptr<IndexRecordDecoder> decoder_;
  int processed_lines_ = 0;
  int ignored_first_ = 0;   // loop position of the first line ignored
  int ignored_count_ = 0;
  uint8_t* buffer_ = nullptr;  // packet bytes; grows to the largest packet
  int capacity_ = 0;
  int64_t broken_size_ = 0;
  bool at_end_ = false;        // the broken file has no more bytes to give
};

}  // namespace zeva

#endif  // ZEVA_REPAIR_REPAIR_ENGINE_H
