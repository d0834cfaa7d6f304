#include "server/cluster/redis_connection.h"

#include <hiredis/hiredis.h>

#include <sys/time.h>
#include <charconv>

#include "runtime/log.h"

namespace tellora::server {

namespace {

// After a failed connect, calls fail at once for this long.
constexpr std::chrono::milliseconds kRetryInterval{500};

timeval toTimeval(std::chrono::milliseconds ms) {
  return timeval{static_cast<time_t>(ms.count() / 1000),
                 static_cast<suseconds_t>((ms.count() % 1000) * 1000)};
}

void appendArgv(redisContext* context, const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  for (const auto& arg : args) {
    argv.push_back(arg.data());
    lengths.push_back(arg.size());
  }
  redisAppendCommandArgv(context, static_cast<int>(args.size()), argv.data(), lengths.data());
}

}  // namespace

std::optional<RedisAddress> parseRedisAddress(std::string_view text) {
  RedisAddress address;
  std::string_view host = text, port;
  if (text.starts_with('[')) {
    const auto close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = text.substr(1, close - 1);
    const auto rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (!rest.starts_with(':')) return std::nullopt;
      port = rest.substr(1);
    }
  } else if (const auto colon = text.rfind(':'); colon != std::string_view::npos) {
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  if (host.empty()) return std::nullopt;
  address.host = std::string(host);
  if (!port.empty() || text.ends_with(':')) {
    unsigned value = 0;
    const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (ec != std::errc{} || end != port.data() + port.size() || value == 0 || value > 65535)
      return std::nullopt;
    address.port = static_cast<uint16_t>(value);
  }
  return address;
}

RedisValue toRedisValue(const redisReply& reply) {
  RedisValue value;
  switch (reply.type) {
    case REDIS_REPLY_INTEGER:
      value.kind = RedisValue::Kind::integer;
      value.integer = reply.integer;
      break;
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
      value.kind = RedisValue::Kind::string;
      value.string.assign(reply.str, reply.len);
      break;
    case REDIS_REPLY_ERROR:
      value.kind = RedisValue::Kind::error;
      value.string.assign(reply.str, reply.len);
      break;
    case REDIS_REPLY_ARRAY:
      value.kind = RedisValue::Kind::array;
      for (size_t i = 0; i < reply.elements; ++i)
        value.elements.push_back(toRedisValue(*reply.element[i]));
      break;
    default:
      break;
  }
  return value;
}

RedisConnection::RedisConnection(RedisAddress address, std::chrono::milliseconds timeout)
    : address_(std::move(address)), timeout_(timeout) {}

RedisConnection::~RedisConnection() {
  if (context_) redisFree(context_);
}

redisContext* RedisConnection::connected() {
  if (context_) return context_;
  const auto now = std::chrono::steady_clock::now();
  if (now < retryAt_) return nullptr;
  context_ = redisConnectWithTimeout(address_.host.c_str(), address_.port, toTimeval(timeout_));
  if (!context_ || context_->err) {
    reset(context_ ? context_->errstr : "out of memory");
    return nullptr;
  }
  redisSetTimeout(context_, toTimeval(timeout_));
  if (outageLogged_)
    logf("redis %s:%u: connected again", address_.host.c_str(), unsigned{address_.port});
  outageLogged_ = false;
  return context_;
}

void RedisConnection::reset(const char* why) {
  if (!outageLogged_) warnf("redis %s:%u: %s", address_.host.c_str(), unsigned{address_.port}, why);
  outageLogged_ = true;
  if (context_) redisFree(context_);
  context_ = nullptr;
  retryAt_ = std::chrono::steady_clock::now() + kRetryInterval;
}

std::optional<RedisValue> RedisConnection::command(const std::vector<std::string>& args) {
  auto replies = pipeline({args});
  if (!replies) return std::nullopt;
  return std::move(replies->front());
}

std::optional<std::vector<RedisValue>> RedisConnection::pipeline(
    const std::vector<std::vector<std::string>>& commands) {
  // A connection that sat idle may have been closed by a Redis restart since:
  // that costs one retry on a fresh connection, not a failure.
  const bool reused = context_ != nullptr;
  auto replies = exchange(commands);
  if (!replies && reused) {
    retryAt_ = {};
    replies = exchange(commands);
  }
  return replies;
}

std::optional<std::vector<RedisValue>> RedisConnection::exchange(
    const std::vector<std::vector<std::string>>& commands) {
  redisContext* context = connected();
  if (!context) return std::nullopt;
  for (const auto& args : commands)
    appendArgv(context, args);
  std::vector<RedisValue> values;
  values.reserve(commands.size());
  for (size_t i = 0; i < commands.size(); ++i) {
    void* raw = nullptr;
    if (redisGetReply(context, &raw) != REDIS_OK || !raw) {
      reset(context->errstr[0] ? context->errstr : "no reply");
      return std::nullopt;
    }
    auto* reply = static_cast<redisReply*>(raw);
    values.push_back(toRedisValue(*reply));
    freeReplyObject(reply);
  }
  return values;
}

}  // namespace tellora::server
