// A node's line to the other nodes, through Redis. The node takes a number
// of its own from Redis, announces itself every half second with a lease of
// two seconds, and learns which nodes hold a lease: a node that stops (or is
// killed) drops out of everyone's list within about 2.5 s. Frames published
// to a node's channel reach that node's subscriber.
//
// Two threads of its own, each with its own connection: a publisher (the
// queued frames, the lease and the list of nodes) and a subscriber. While
// Redis is unreachable, frames are dropped (counted) and the list of nodes is
// kept as it was: an outage of Redis must not look like the death of every
// other node. For a moment after Redis comes back (or after any gap in this
// node's renewals), nodes are only added, so that nodes which have not
// renewed their lease yet are not taken for dead.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "server/cluster/redis_connection.h"

namespace tellora::server {

class ClusterBus {
 public:
  struct Callbacks {
    // A frame for this node; on the subscriber thread.
    std::function<void(std::string frame)> received;
    // The nodes holding a lease (this one always among them), sorted; on the
    // publisher thread, whenever the list changes.
    std::function<void(std::vector<uint64_t> nodes)> membership;
  };
  // Takes this node's number from Redis. Throws std::runtime_error when Redis
  // cannot be reached.
  ClusterBus(const RedisAddress& address, Callbacks callbacks);
  ~ClusterBus();
  ClusterBus(const ClusterBus&) = delete;
  ClusterBus& operator=(const ClusterBus&) = delete;

  uint64_t nodeId() const { return nodeId_; }
  void start();
  // From any thread: queues `message` (already framed) for `node`. Queued
  // bytes beyond kMaxQueuedBytes are dropped.
  void publish(uint64_t node, std::string_view message);
  // Ends both threads; nothing is called back afterwards.
  void stop();

  uint64_t droppedBytes() const { return dropped_.load(); }
  static constexpr std::size_t kMaxQueuedBytes = std::size_t{64} << 20;
  static constexpr std::chrono::milliseconds kLeaseRenewal{500};
  static constexpr std::chrono::milliseconds kLease{2000};
  // A message waits at most this long for others to share its PUBLISH (a
  // client's part lasts 232 ms), or until this many bytes are queued.
  static constexpr std::chrono::milliseconds kBatchDelay{5};
  static constexpr std::size_t kBatchBytes = 256 << 10;

 private:
  void publishLoop();
  void subscribeLoop();
  void renewLease(RedisConnection& redis);
  void reportNodes(std::vector<uint64_t> nodes);

  RedisAddress address_;
  Callbacks callbacks_;
  uint64_t nodeId_ = 0;

  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<uint64_t, std::string> frames_;  // by node
  std::size_t queuedBytes_ = 0;
  std::chrono::steady_clock::time_point firstQueuedAt_{};
  bool stopping_ = false;
  std::atomic<bool> stopped_{false};
  std::atomic<uint64_t> dropped_{0};

  // Publisher thread only.
  std::vector<uint64_t> nodes_;
  std::chrono::steady_clock::time_point connectedSince_{};
  std::chrono::steady_clock::time_point lastRenewedAt_{};

  std::thread publisher_;
  std::thread subscriber_;
};

// The channel a node's subscriber listens on.
std::string nodeChannel(uint64_t node);

}  // namespace tellora::server
