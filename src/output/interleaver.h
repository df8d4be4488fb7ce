// Orders an output's packets across streams by DTS before they reach the
// muxer. Outputs write with av_write_frame, which keeps no queue of its own,
// so this is the only buffer between the encoders and the file.
#ifndef ZEVA_OUTPUT_INTERLEAVER_H
#define ZEVA_OUTPUT_INTERLEAVER_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

namespace zeva {

// FFmpeg's per-DTS interleaving on microsecond timestamps. Entries are kept
// in DTS order across streams (equal DTS: lower stream index first; within a
// stream: arrival order). The earliest entry is released when every stream has
// an entry waiting, or when the newest DTS queued on some stream is more than
// `max_delta_us` past the earliest one (so a stalled stream cannot hold the
// others forever), or at the end through Drain().
//
// Each stream has its own FIFO; the streams' heads are the only candidates for
// release, so picking one costs a pass over the streams, and the deques reuse
// their blocks instead of allocating per entry. Payloads are only moved.
//
// Not thread-safe: one thread (the output's writer) owns an instance.
template <typename Payload>
class Interleaver {
 public:
  struct Entry {
    int stream;
    int64_t dts_us;
    Payload payload;
  };

  // An empty interleaver for streams 0 .. nb_streams-1. `max_delta_us` is the
  // span in microseconds past which the earliest entry is released without
  // waiting for every stream; a value <= 0 turns that rule off, so a stream
  // that never delivers holds everything until Drain().
  Interleaver(int nb_streams, int64_t max_delta_us)
      : queues_(nb_streams > 0 ? static_cast<size_t>(nb_streams) : 0),
        max_delta_us_(max_delta_us) {}

  // Queues `payload`, taking it over. Requires 0 <= stream < nb_streams.
  // A stream's DTS should not decrease; a repeated DTS keeps arrival order.
  // Entries stay until PopReady() or Drain() returns them; nothing is dropped.
  void Push(int stream, int64_t dts_us, Payload payload) {
    assert(stream >= 0 && static_cast<size_t>(stream) < queues_.size());
    std::deque<Entry>& q = queues_[static_cast<size_t>(stream)];
    if (q.empty()) ++waiting_streams_;
    q.push_back(Entry{stream, dts_us, std::move(payload)});
    ++size_;
  }

  // The earliest queued entry if it may be written now (every stream has one
  // waiting, or the queued span exceeds the bound), else nullopt and nothing
  // changes. Call it until nullopt after each Push(): one Push() can release
  // several entries. O(number of streams).
  std::optional<Entry> PopReady() {
    const int earliest = Earliest();
    if (earliest < 0) return std::nullopt;
    const bool all_waiting = static_cast<size_t>(waiting_streams_) == queues_.size();
    if (!all_waiting && !SpanExceedsBound(queues_[static_cast<size_t>(earliest)].front().dts_us)) {
      return std::nullopt;
    }
    return PopFrom(earliest);
  }

  // The earliest queued entry whatever the other streams hold; nullopt once
  // empty. For the end of a recording (or a failed output discarding its
  // queue): call until nullopt. O(number of streams).
  std::optional<Entry> Drain() {
    const int earliest = Earliest();
    if (earliest < 0) return std::nullopt;
    return PopFrom(earliest);
  }

  // Entries queued on all streams.
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  // Index of the stream whose head comes first, or -1 when all are empty.
  // Scanning upwards with a strict comparison gives ties to the lower index.
  int Earliest() const {
    int best = -1;
    int64_t best_dts = 0;
    for (size_t i = 0; i < queues_.size(); ++i) {
      if (queues_[i].empty()) continue;
      const int64_t dts = queues_[i].front().dts_us;
      if (best < 0 || dts < best_dts) {
        best = static_cast<int>(i);
        best_dts = dts;
      }
    }
    return best;
  }

  // Whether some stream's newest DTS lies more than the bound past `top_us`,
  // the earliest queued DTS. Written as a comparison against top + bound,
  // guarded against overflow, so extreme timestamps cannot wrap the span.
  bool SpanExceedsBound(int64_t top_us) const {
    if (max_delta_us_ <= 0) return false;
    if (top_us > std::numeric_limits<int64_t>::max() - max_delta_us_) return false;
    const int64_t limit_us = top_us + max_delta_us_;
    for (const std::deque<Entry>& q : queues_) {
      if (!q.empty() && q.back().dts_us > limit_us) return true;
    }
    return false;
  }

  std::optional<Entry> PopFrom(int stream) {
    std::deque<Entry>& q = queues_[static_cast<size_t>(stream)];
    std::optional<Entry> out(std::move(q.front()));
    q.pop_front();
    if (q.empty()) --waiting_streams_;
    --size_;
    return out;
  }

  std::vector<std::deque<Entry>> queues_;
  const int64_t max_delta_us_;
  int waiting_streams_ = 0;  // streams with at least one entry queued
  size_t size_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_OUTPUT_INTERLEAVER_H
