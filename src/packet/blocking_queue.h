// A bounded blocking queue: the hand-over between the host's threads, the
// packet recording's worker thread and its writer threads.
#ifndef ZEVA_PACKET_BLOCKING_QUEUE_H
#define ZEVA_PACKET_BLOCKING_QUEUE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace qel {

enum QueueResult : int32_t {
  Ok = 0,
  Aborted = 1,
  Empty = 2,  // nothing to pop within the allowed wait; also `read` at end of stream
  Full = 3,   // no room within the allowed wait; the caller keeps the item
  Invalid = 5,
  Interrupted = 6,
};

class iWaitable;

// Told of every push, pop and abort of a queue it watches. Called with the
// queue's lock held: it must not call back into the queue.
class iWaiter {
 public:
  virtual ~iWaiter() = default;
  virtual void on_queue_changed(iWaitable* queue) = 0;
};

class iWaitable {
 public:
  virtual ~iWaitable() = default;
  virtual void set_waiter(iWaiter* waiter) = 0;
  // Number of queued items; takes the queue's lock.
  virtual int32_t size() = 0;
};

// Any number of producers and consumers. The capacity is an argument of each
// push, not a property of the queue. abort() is one-way: later pushes and
// pops return Aborted at once, and queued items stay until destruction, when
// the disposer gets each of them.
template <typename T>
class BlockingQueue : public iWaitable {
 public:
  using Disposer = std::function<void(T&)>;

  BlockingQueue() = default;
  // Disposes of every queued item. A derived queue whose on_clear matters
  // calls clear_items() in its own destructor, while it is still itself.
  ~BlockingQueue() override { clear_items(); }
  BlockingQueue(const BlockingQueue&) = delete;
  BlockingQueue& operator=(const BlockingQueue&) = delete;

  // Applied to items still queued at destruction. Set before use.
  void set_disposer(Disposer disposer) { disposer_ = std::move(disposer); }

  void set_waiter(iWaiter* waiter) override {
    std::lock_guard<std::mutex> lock(mutex_);
    waiter_ = waiter;
  }

  int32_t size() override {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int32_t>(items_.size());
  }

  // Whether abort() was called. Takes the queue's lock.
  bool aborted() {
    std::lock_guard<std::mutex> lock(mutex_);
    return aborted_;
  }

  // Appends `item` while fewer than `capacity` items are queued. When full:
  // with `wait_forever` waits for room; otherwise returns Full at once when `timeout_ms` is 0,
  // or waits once for at most `timeout_ms`. Aborted before or while waiting.
  // On any result but Ok the caller still owns `item`. Any thread.
  QueueResult push(const T& item, int32_t capacity, bool wait_forever, uint32_t timeout_ms) {
    if (aborted_fast_) return Aborted;
    std::unique_lock<std::mutex> lock(mutex_);
    if (aborted_) return Aborted;
    while (static_cast<int64_t>(items_.size()) >= capacity) {
      if (wait_forever) {
        not_full_.wait(lock);
      } else {
        if (timeout_ms == 0) return Full;
        if (not_full_.wait_for(lock, std::chrono::milliseconds(timeout_ms)) ==
            std::cv_status::timeout) {
          if (static_cast<int64_t>(items_.size()) >= capacity && !aborted_) return Full;
        }
        timeout_ms = 0;  // a second pass never waits again
      }
      if (aborted_) return Aborted;
    }
    T& pushed = items_.push_back(item);
    on_pushed(pushed);
    not_empty_.notify_one();
    after_push(pushed);
    if (waiter_ != nullptr) waiter_->on_queue_changed(this);
    return Ok;
  }

  // Copies the front item into `out`; with `remove` takes it off the queue.
  // When empty: with `wait_forever` waits for an item; otherwise Empty at once when
  // `timeout_ms` is 0, or after one wait of at most `timeout_ms`. Aborted
  // before or while waiting, even when items remain. Any thread.
  QueueResult pop(T& out, bool wait_forever, uint32_t timeout_ms, bool remove) {
    if (aborted_fast_) return Aborted;
    std::unique_lock<std::mutex> lock(mutex_);
    if (aborted_) return Aborted;
    while (items_.empty()) {
      if (wait_forever) {
        not_empty_.wait(lock);
      } else {
        if (timeout_ms == 0) return Empty;
        if (not_empty_.wait_for(lock, std::chrono::milliseconds(timeout_ms)) ==
            std::cv_status::timeout) {
          if (items_.empty() && !aborted_) return Empty;
        }
        timeout_ms = 0;
      }
      if (aborted_) return Aborted;
    }
    out = items_.front();
    if (!remove) return Ok;
    items_.pop_front();
    on_popped(out);
    not_full_.notify_one();
    after_pop(out);
    if (waiter_ != nullptr) waiter_->on_queue_changed(this);
    return Ok;
  }

  // Marks the queue aborted for good and wakes every waiter at once. Any
  // thread, any number of times.
  void abort() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      aborted_ = true;
      aborted_fast_ = true;
      on_abort();
      if (waiter_ != nullptr) waiter_->on_queue_changed(this);
    }
    not_empty_.notify_all();
    not_full_.notify_all();
  }

 protected:
  // Hooks, called with the lock held; they must not call back into the queue.
  virtual void on_popped(T&) {}
  virtual void after_pop(T&) {}
  virtual void on_pushed(T&) {}
  virtual void after_push(T&) {}
  virtual void on_clear() {}
  virtual void on_abort() {}

  // Disposes of every queued item front to back, then on_clear(). Idempotent.
  void clear_items() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (disposer_) {
      for (size_t i = 0; i < items_.size(); ++i) disposer_(items_.at(i));
    }
    items_.clear();
    on_clear();
    if (waiter_ != nullptr) waiter_->on_queue_changed(this);
    not_full_.notify_all();
  }

  std::mutex mutex_;

 private:
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  // A ring over storage that grows by doubling and never shrinks: after
  // warm-up, pushes and pops allocate nothing (std::deque frees and allocates
  // a chunk every few dozen items). The start resets to 0 whenever it empties.
  class Ring {
   public:
    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    T& front() { return slots_[start_]; }
    T& at(size_t i) { return slots_[(start_ + i) % slots_.size()]; }
    T& push_back(const T& item) {
      if (count_ == slots_.size()) grow();
      T& slot = slots_[(start_ + count_) % slots_.size()];
      slot = item;
      ++count_;
      return slot;
    }
    void pop_front() {
      slots_[start_] = T();
      start_ = (start_ + 1) % slots_.size();
      if (--count_ == 0) start_ = 0;
    }
    void clear() {
      while (count_ > 0) pop_front();
    }

   private:
    void grow() {
      std::vector<T> bigger(slots_.empty() ? 16 : slots_.size() * 2);
      for (size_t i = 0; i < count_; ++i) bigger[i] = std::move(at(i));
      slots_.swap(bigger);
      start_ = 0;
    }

    std::vector<T> slots_;
    size_t start_ = 0;
    size_t count_ = 0;
  };

  Ring items_;
  Disposer disposer_;
  iWaiter* waiter_ = nullptr;
  bool aborted_ = false;
  // Read without the lock as a fast path; aborted_ under the lock decides.
  std::atomic<bool> aborted_fast_{false};
};

}  // namespace qel

#endif  // ZEVA_PACKET_BLOCKING_QUEUE_H
