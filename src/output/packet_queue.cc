#include "output/packet_queue.h"

#include <cstdint>
#include <new>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/mem.h>
}

#include "log/logger.h"

namespace zeva {

// Nodes are plain C memory from av_mallocz, released with av_free; the packet
// is held by value so a get can hand it over without another allocation.
// size() counts a node's size beside each queued payload.
struct PacketQueue::PacketNode {
  AVPacket pkt;
  PacketNode* next;
};

namespace {

// The end-of-recording marker: zero everywhere except `data`, which points at
// the packet itself so that copies of it can be recognised. It owns no buffer.
AVPacket g_tailer;
std::once_flag g_tailer_once;

void init_tailer() {
  std::call_once(g_tailer_once, [] { g_tailer.data = reinterpret_cast<uint8_t*>(&g_tailer); });
}

}  // namespace

PacketQueue::PacketQueue() { init_tailer(); }

PacketQueue::~PacketQueue() {
  PacketNode* node = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    node = first_;
    first_ = last_ = nullptr;
    nb_packets_ = 0;
    size_ = 0;
  }
  while (node != nullptr) {
    PacketNode* next = node->next;
    safe_free(&node->pkt);
    av_free(node);
    node = next;
  }
}

PacketQueue::PacketNode* PacketQueue::new_node(const AVPacket* pkt) {
  void* mem = av_mallocz(sizeof(PacketNode));
  if (mem == nullptr) return nullptr;
  auto* node = new (mem) PacketNode{};
  if (is_tailer(pkt)) {
    node->pkt = *pkt;
  } else if (av_packet_ref(&node->pkt, pkt) < 0) {
    // av_packet_ref leaves its destination blank when it fails.
    av_free(node);
    return nullptr;
  }
  return node;
}

void PacketQueue::free_node(PacketNode* node) {
  if (!is_tailer(&node->pkt)) av_packet_unref(&node->pkt);
  av_free(node);
}

void PacketQueue::append_locked(PacketNode* node) {
  if (last_ == nullptr) {
    first_ = node;
  } else {
    last_->next = node;
  }
  last_ = node;
  ++nb_packets_;
  size_ += node->pkt.size + static_cast<int>(sizeof(PacketNode));
  not_empty_.notify_one();
}

PacketQueue::PacketNode* PacketQueue::pop_locked() {
  PacketNode* node = first_;
  first_ = node->next;
  if (first_ == nullptr) last_ = nullptr;
  --nb_packets_;
  size_ -= static_cast<int>(sizeof(PacketNode)) + node->pkt.size;
  return node;
}

int PacketQueue::put(AVPacket* pkt) {
  PacketNode* node = new_node(pkt);
  if (node == nullptr) return -1;
  std::lock_guard<std::mutex> lock(mutex_);
  append_locked(node);
  return 0;
}

int PacketQueue::put_bounded(AVPacket* pkt, int maxNpkt, bool block) {
  PacketNode* node = new_node(pkt);
  if (node == nullptr) return -1;
  int result = 0;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (abort_request_.load()) result = -1;
    while (result == 0 && nb_packets_ >= maxNpkt) {
      ZEVA_LOG(kLogDebug, "write full: maxNpkt=%d, have=%d", maxNpkt, nb_packets_);
      if (!block) {
        result = -2;
        break;
      }
      not_full_.wait(lock);
      if (abort_request_.load()) result = -1;
    }
    if (result == 0) {
      append_locked(node);
      return 0;
    }
  }
  // The caller gave its packet up with the call, so it is released here too,
  // together with the reference the node took.
  safe_free(pkt);
  free_node(node);
  return result;
}

int PacketQueue::get(AVPacket* pkt, bool block) {
  PacketNode* node = nullptr;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (abort_request_.load()) return -1;
    while (first_ == nullptr) {
      if (!block) return 0;
      not_empty_.wait(lock);
      if (abort_request_.load()) return -1;
    }
    node = pop_locked();
    not_full_.notify_one();
  }
  // The node's reference passes to the caller; nothing is unreferenced.
  *pkt = node->pkt;
  av_free(node);
  return 1;
}

void PacketQueue::abort() {
  if (abort_request_.load()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  abort_request_.store(true);
  not_empty_.notify_all();
  not_full_.notify_all();
}

bool PacketQueue::aborted() const { return abort_request_.load(); }

int PacketQueue::nb_packets() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return nb_packets_;
}

int PacketQueue::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return size_;
}

AVPacket* PacketQueue::tailer() {
  init_tailer();
  return &g_tailer;
}

bool PacketQueue::is_tailer(const AVPacket* pkt) {
  return pkt != nullptr && pkt->data == reinterpret_cast<const uint8_t*>(&g_tailer);
}

void PacketQueue::safe_free(AVPacket* pkt) {
  if (pkt == nullptr) return;
  if (is_tailer(pkt)) {
    ZEVA_LOG(kLogDebug, "************ safe-free-packet(): pkt is tailer *****");
    return;
  }
  av_packet_unref(pkt);
}

}  // namespace zeva
