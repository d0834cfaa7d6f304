#include "server/cluster/cluster_bus.h"

#include <hiredis/hiredis.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "runtime/log.h"

namespace tellora::server {

namespace {

constexpr const char* kNodeCounter = "tellora:node-ids";
constexpr const char* kNodeLeases = "tellora:nodes";
// Node numbers fit in 24 bits: a search key is the node's number above a
// 40-bit count of its searches.
constexpr long long kNodeIdSpace = (1 << 24) - 1;

// Redis's own clock times the leases, so the nodes' clocks need not agree.
// Leases expired for a minute are swept.
constexpr const char* kLeaseScript =
    "local t = redis.call('TIME') "
    "local now = tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000) "
    "redis.call('ZADD', KEYS[1], now + tonumber(ARGV[2]), ARGV[1]) "
    "redis.call('ZREMRANGEBYSCORE', KEYS[1], '-inf', '(' .. (now - 60000)) "
    "return redis.call('ZRANGEBYSCORE', KEYS[1], now, '+inf')";

constexpr std::chrono::milliseconds kPollInterval{100};
constexpr std::chrono::milliseconds kPublishTimeout{3000};

}  // namespace

std::string nodeChannel(uint64_t node) {
  return "tellora:node:" + std::to_string(node);
}

ClusterBus::ClusterBus(const RedisAddress& address, Callbacks callbacks)
    : address_(address), callbacks_(std::move(callbacks)) {
  RedisConnection redis(address_);
  const auto id = redis.command({"INCR", kNodeCounter});
  if (!id || id->kind != RedisValue::Kind::integer)
    throw std::runtime_error("cannot take a node number from redis at " + address.host + ":" +
                             std::to_string(address.port));
  nodeId_ = static_cast<uint64_t>((id->integer - 1) % kNodeIdSpace) + 1;
  nodes_ = {nodeId_};
}

ClusterBus::~ClusterBus() {
  stop();
}

void ClusterBus::start() {
  publisher_ = std::thread([this] { publishLoop(); });
  subscriber_ = std::thread([this] { subscribeLoop(); });
}

void ClusterBus::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_ = true;
  wake_.notify_all();
  if (publisher_.joinable()) publisher_.join();
  if (subscriber_.joinable()) subscriber_.join();
}

void ClusterBus::publish(uint64_t node, std::string_view message) {
  {
    std::lock_guard lock(mutex_);
    if (queuedBytes_ + message.size() > kMaxQueuedBytes) {
      dropped_ += message.size();
      return;
    }
    if (frames_.empty()) firstQueuedAt_ = std::chrono::steady_clock::now();
    queuedBytes_ += message.size();
    frames_[node].append(message);
    // The publisher waits out the batch delay by itself; it is woken only
    // for the first message and for a full batch.
    if (queuedBytes_ != message.size() && queuedBytes_ < kBatchBytes) return;
  }
  wake_.notify_one();
}

void ClusterBus::publishLoop() {
  // A thread of its own can wait out a Redis that stalls for a moment (a
  // loaded machine, a fork for a snapshot) rather than drop what it carries.
  RedisConnection redis(address_, kPublishTimeout);
  auto nextLease = std::chrono::steady_clock::now();
  for (;;) {
    std::map<uint64_t, std::string> frames;
    {
      // Messages wait up to kBatchDelay for company: one PUBLISH then carries
      // a node's messages of a few milliseconds, not one each.
      std::unique_lock lock(mutex_);
      for (;;) {
        if (stopping_) return;
        const auto now = std::chrono::steady_clock::now();
        if (now >= nextLease) break;
        if (!frames_.empty() &&
            (now >= firstQueuedAt_ + kBatchDelay || queuedBytes_ >= kBatchBytes))
          break;
        wake_.wait_until(
            lock, frames_.empty() ? nextLease : std::min(nextLease, firstQueuedAt_ + kBatchDelay));
      }
      frames.swap(frames_);
      queuedBytes_ = 0;
    }
    if (!frames.empty()) {
      std::vector<std::vector<std::string>> commands;
      std::size_t bytes = 0;
      for (auto& [node, frame] : frames) {
        bytes += frame.size();
        commands.push_back({"PUBLISH", nodeChannel(node), std::move(frame)});
      }
      if (!redis.pipeline(commands)) dropped_ += bytes;
    }
    if (std::chrono::steady_clock::now() >= nextLease) {
      renewLease(redis);
      nextLease = std::chrono::steady_clock::now() + kLeaseRenewal;
    }
  }
}

void ClusterBus::renewLease(RedisConnection& redis) {
  const auto reply = redis.command({"EVAL", kLeaseScript, "1", kNodeLeases, std::to_string(nodeId_),
                                    std::to_string(kLease.count())});
  const auto now = std::chrono::steady_clock::now();
  if (!reply || reply->kind != RedisValue::Kind::array) return;
  // After a gap in this node's renewals (Redis away or stalled, or this node
  // held up) the others' leases may have lapsed through no fault of theirs.
  if (now - lastRenewedAt_ > 2 * kLeaseRenewal) connectedSince_ = now;
  lastRenewedAt_ = now;
  std::vector<uint64_t> nodes{nodeId_};
  for (const auto& element : reply->elements) {
    try {
      nodes.push_back(std::stoull(element.string));
    } catch (const std::exception&) {
    }
  }
  // Just after Redis came back, the others may not have renewed yet.
  if (now - connectedSince_ < kLease) nodes.insert(nodes.end(), nodes_.begin(), nodes_.end());
  std::sort(nodes.begin(), nodes.end());
  nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
  reportNodes(std::move(nodes));
}

void ClusterBus::reportNodes(std::vector<uint64_t> nodes) {
  if (nodes == nodes_) return;
  nodes_ = nodes;
  if (callbacks_.membership) callbacks_.membership(std::move(nodes));
}

void ClusterBus::subscribeLoop() {
  RedisConnection redis(address_);
  const std::string channel = nodeChannel(nodeId_);
  while (!stopped_) {
    redisContext* context = redis.connected();
    if (!context) {
      std::this_thread::sleep_for(kPollInterval);
      continue;
    }
    auto* confirmed = static_cast<redisReply*>(
        redisCommand(context, "SUBSCRIBE %b", channel.data(), channel.size()));
    if (!confirmed) {
      redis.reset(context->errstr);
      continue;
    }
    freeReplyObject(confirmed);
    // Reads with a poll of our own, so that stop() is noticed within a
    // poll interval however quiet the channel is.
    while (!stopped_) {
      void* raw = nullptr;
      if (redisGetReplyFromReader(context, &raw) != REDIS_OK) {
        redis.reset("a malformed reply on the subscription");
        break;
      }
      if (raw) {
        const auto* reply = static_cast<redisReply*>(raw);
        if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 3 &&
            reply->element[2]->type == REDIS_REPLY_STRING && callbacks_.received)
          callbacks_.received(std::string(reply->element[2]->str, reply->element[2]->len));
        freeReplyObject(raw);
        continue;
      }
      pollfd readable{context->fd, POLLIN, 0};
      const int ready = ::poll(&readable, 1, static_cast<int>(kPollInterval.count()));
      if (ready < 0 && errno != EINTR) {
        redis.reset("poll failed on the subscription");
        break;
      }
      if (ready > 0 && redisBufferRead(context) != REDIS_OK) {
        redis.reset(context->errstr[0] ? context->errstr : "the subscription broke");
        break;
      }
    }
  }
}

}  // namespace tellora::server
