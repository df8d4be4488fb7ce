// One elementary-stream input of a packet recording: the host's packets in
// pooled memory, released in timestamp order to the demuxer that reads them
// as a byte stream, and their timestamps beside them.
#ifndef ZEVA_PACKET_INPUT_QUEUE_H
#define ZEVA_PACKET_INPUT_QUEUE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "packet/blocking_queue.h"
#include "packet/zv_packet_queue.h"

namespace zeva {

class InputQueue : public qel::ZVPacketQueue {
 public:
  // Packets held back for sorting.
  static constexpr int kSortDepth = 5;

  InputQueue();
  // Releases the packets still being sorted, then every queued one.
  ~InputQueue() override;

  // Takes a copy of one host packet of `nbytes` bytes stamped `usec`
  // (microseconds) into the sort queue, then passes the oldest packets on to
  // the demuxer's queue until kSortDepth remain; null `data` or `nbytes` < 1
  // passes all of them on. Equal stamps become unique in +1 µs steps. A
  // packet the demuxer's queue has no room for within 50 ms is dropped with
  // a log line. False only when no node could be had (aborted, or out of
  // memory). One host thread per input: calls must not overlap.
  bool push_data(const uint8_t* data, int32_t nbytes, int64_t usec);

  // FFmpeg's read callback over an InputQueue (`opaque`): fills `buffer`
  // with up to `size` bytes and returns their count; AVERROR_EOF once the
  // queue is aborted; AVERROR_STREAM_NOT_FOUND when no data came for
  // 3000 ms before the input was probed, and at once on every later call
  // until it is probed (FFmpeg retries a failed read; the input has had its
  // chance). Blocks until data, abort or that time-out. The demuxing thread.
  static int read_packet(void* opaque, uint8_t* buffer, int size);

  // The timestamps of the packets passed on, in the same order.
  qel::BlockingQueue<int64_t> pts_queue;
  // "uninit" until the input opens, then the input format's name. Set
  // before the demuxing thread starts.
  std::string name = "uninit";
  // Set once stream information was found; from then on reads wait without
  // limit.
  std::atomic<bool> probed{false};

  // Packets in the sort queue; for tests. The host thread.
  int sort_size() const { return sorted_; }

 private:
  struct Sorted {
    int64_t key;
    qel::ZVMemNode* node;
  };

  bool sorted_contains(int64_t key) const;
  void sorted_insert(int64_t key, qel::ZVMemNode* node);

  // Ascending by key; one more slot than kept, for the packet just pushed.
  // A fixed array, so pushing allocates nothing but the pooled node.
  std::array<Sorted, kSortDepth + 1> sort_queue_{};
  int sorted_ = 0;
  bool gave_up_ = false;  // the read callback timed out while probing
};

}  // namespace zeva

#endif  // ZEVA_PACKET_INPUT_QUEUE_H
