// One blocking connection to Redis, owned by one thread. Every call has a
// time limit, so an unreachable Redis costs a caller at most that long; after
// a failure the connection is rebuilt on the next call, but not more often
// than once per retry interval, so callers fail fast while Redis is down.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct redisContext;
struct redisReply;

namespace tellora::server {

// "host:port", "[v6]:port" or "host" (port 6379).
struct RedisAddress {
  std::string host;
  uint16_t port = 6379;
};
std::optional<RedisAddress> parseRedisAddress(std::string_view text);

// A reply reduced to what the server uses: nil, an integer, a string (bulk,
// status) or an array of those; `error` for a Redis error reply.
struct RedisValue {
  enum class Kind { nil, integer, string, array, error } kind = Kind::nil;
  long long integer = 0;
  std::string string;
  std::vector<RedisValue> elements;
};

class RedisConnection {
 public:
  explicit RedisConnection(RedisAddress address,
                           std::chrono::milliseconds timeout = std::chrono::milliseconds(1000));
  ~RedisConnection();
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  // One command; nullopt when Redis could not be reached or the connection
  // broke (the reason is logged once per outage).
  std::optional<RedisValue> command(const std::vector<std::string>& args);
  // Several commands in one round trip; nullopt unless every reply arrived.
  std::optional<std::vector<RedisValue>> pipeline(
      const std::vector<std::vector<std::string>>& commands);

  // The connection for a subscriber that reads with its own poll(); null
  // while it cannot connect.
  redisContext* connected();
  // Drops the connection after an error seen by such a reader.
  void reset(const char* why);

  const RedisAddress& address() const { return address_; }

 private:
  std::optional<std::vector<RedisValue>> exchange(
      const std::vector<std::vector<std::string>>& commands);

  RedisAddress address_;
  std::chrono::milliseconds timeout_;
  redisContext* context_ = nullptr;
  std::chrono::steady_clock::time_point retryAt_{};
  bool outageLogged_ = false;
};

RedisValue toRedisValue(const redisReply& reply);

}  // namespace tellora::server
