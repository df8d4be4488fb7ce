// The bounded packet queue between the encoding thread and one output's
// writer thread, and the process-wide "tailer" packet that marks the end of a
// recording in it.
#ifndef ZEVA_OUTPUT_PACKET_QUEUE_H
#define ZEVA_OUTPUT_PACKET_QUEUE_H

#include <atomic>
#include <condition_variable>
#include <mutex>

struct AVPacket;

namespace zeva {

// First-in-first-out list of encoded packets. Nodes share the packets'
// reference-counted buffers, so no payload is ever copied. Limits are counts
// of packets, given by each bounded put; the byte size is only reported.
//
// Threads: one producer puts (the encoding thread; the thread stopping the
// recording puts the tailer), one consumer gets (the writer thread); abort()
// and the counters may be called from any thread. Every list and counter
// change happens under one mutex; putters wait on `not_full_`, getters on
// `not_empty_`.
class PacketQueue {
 public:
  // An empty, open queue. The first queue of the process also sets up the
  // tailer packet. Any thread; never blocks.
  PacketQueue();
  // Releases every queued packet (tailers are left alone, with a log line)
  // and frees the nodes. No other thread may still use the queue: the writer
  // thread has been joined and the producer has stopped.
  ~PacketQueue();
  PacketQueue(const PacketQueue&) = delete;
  PacketQueue& operator=(const PacketQueue&) = delete;

  // Appends `pkt` (not null) whatever the count and even after abort(), so
  // the end of a recording can always be queued; meant for the tailer. A
  // tailer is copied as it is; any other packet gets a new reference, the
  // caller keeping its own. Producer thread; never waits for room. Returns 0,
  // or -1 when out of memory (the caller's packet is untouched).
  int put(AVPacket* pkt);

  // Appends a new reference to `pkt` (not null; the caller keeps its own, a
  // tailer is copied as it is) while fewer than `maxNpkt` packets are queued.
  // When the queue is full it logs "write full" and, with `block`, waits until
  // a get makes room or abort() is called; each wake-up that still finds it
  // full logs again. Producer thread. Returns 0 on success; -2 when full and
  // not blocking; -1 when aborted (before or while waiting). After -2 or -1
  // the caller's packet has been released (safe_free) and must not be used
  // again, except when the -1 means that no node could be allocated: then it
  // is untouched.
  int put_bounded(AVPacket* pkt, int maxNpkt, bool block);

  // Moves the oldest packet into `*pkt`, which must not be null and must hold
  // no reference (fresh or unreferenced): its previous content is overwritten,
  // not released. The caller then owns the packet's reference; a tailer owns
  // none (release it with safe_free). With `block` it waits while the queue is
  // empty. Consumer thread. Returns 1 with a packet; 0 when empty and not
  // blocking; -1 once the queue is aborted, even if packets remain, leaving
  // `*pkt` alone.
  int get(AVPacket* pkt, bool block);

  // Marks the queue aborted, for good, and wakes every waiting putter and
  // getter; later bounded puts and gets return -1. Queued packets stay until
  // destruction. Any thread, any number of times; never blocks for long.
  void abort();

  // Whether abort() has been called. Any thread.
  bool aborted() const;

  // Packets queued now. Any thread; takes the lock.
  int nb_packets() const;
  // Bytes queued now: each packet's payload size plus the size of its node.
  // Any thread; takes the lock.
  int size() const;

  // The process-wide end-of-recording marker. It owns no buffer; its `data`
  // points at the packet itself. Never unreference or free it.
  static AVPacket* tailer();
  // True when `pkt` is the tailer or a bitwise copy of it (its `data` is the
  // tailer's address). False for null.
  static bool is_tailer(const AVPacket* pkt);
  // Unreferences `pkt` unless it is a tailer, which is only logged. Null is
  // ignored. Any thread.
  static void safe_free(AVPacket* pkt);

 private:
  struct PacketNode;

  // A node holding a new reference to `pkt`, or the tailer copied as it is;
  // null when out of memory.
  static PacketNode* new_node(const AVPacket* pkt);
  // Frees a node that was never queued, with the reference it holds.
  static void free_node(PacketNode* node);
  // Links `node` after the last one and wakes a getter. The lock is held.
  void append_locked(PacketNode* node);
  // Unlinks and returns the oldest node. The lock is held; the list is not
  // empty.
  PacketNode* pop_locked();

  PacketNode* first_ = nullptr;
  PacketNode* last_ = nullptr;
  int nb_packets_ = 0;
  int size_ = 0;
  // Written under the lock; read without it by abort() and aborted().
  std::atomic<bool> abort_request_{false};
  mutable std::mutex mutex_;
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
};

}  // namespace zeva

#endif  // ZEVA_OUTPUT_PACKET_QUEUE_H
