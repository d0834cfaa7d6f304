#include "server/cluster/redis_client_store.h"

#include <chrono>
#include <cstring>

#include "runtime/log.h"
#include "server/credentials.h"

namespace tellora::server {

namespace {

constexpr size_t kClientIdBytes = 16;  // as issued: 32 hex digits

// One round trip, and never a half-written identity: the key and the record
// are taken together, and an identifier that exists already is not reused.
constexpr const char* kIssueScript =
    "if redis.call('EXISTS', KEYS[1]) == 1 then return 0 end "
    "local key = redis.call('INCR', KEYS[2]) "
    "redis.call('HSET', KEYS[1], 'key', key, 'secret', ARGV[1], 'app', ARGV[2], "
    "'device', ARGV[3], 'registered', ARGV[4]) "
    "return key";

constexpr const char* kClientKeyCounter = "tellora:client-keys";

std::string recordOf(std::string_view clientId) {
  return "tellora:client:" + std::string(clientId);
}

std::string nowMsText() {
  using namespace std::chrono;
  return std::to_string(
      duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

RedisClientStore::RedisClientStore(const RedisAddress& address) : redis_(address) {
  const auto config = redis_.command({"CONFIG", "GET", "appendonly"});
  if (!config)
    throw std::runtime_error("cannot reach redis at " + address.host + ":" +
                             std::to_string(address.port));
  if (config->kind == RedisValue::Kind::array && config->elements.size() == 2 &&
      config->elements[1].string == "no")
    warnf(
        "redis %s:%u has appendonly off: identities issued since its last snapshot are lost "
        "when it restarts",
        address.host.c_str(), unsigned{address.port});
}

std::optional<IssuedIdentity> RedisClientStore::issue(int64_t appId, std::string_view device) {
  auto fresh = freshIdentity();
  if (!fresh) return std::nullopt;
  const auto* clientId = &fresh->clientId;
  const auto& digest = fresh->secretDigest;
  const auto reply =
      redis_.command({"EVAL", kIssueScript, "2", recordOf(*clientId), kClientKeyCounter,
                      std::string(reinterpret_cast<const char*>(digest.data()), digest.size()),
                      std::to_string(appId), std::string(device), nowMsText()});
  if (!reply || reply->kind != RedisValue::Kind::integer || reply->integer <= 0) {
    errorf("client store: redis did not store the identity%s%s", reply ? ": " : "",
           reply ? reply->string.c_str() : "");
    return std::nullopt;
  }
  return IssuedIdentity{static_cast<ClientKey>(reply->integer), std::move(fresh->clientId),
                        std::move(fresh->clientSecret)};
}

ClientStore::Authentication RedisClientStore::authenticate(std::string_view clientId,
                                                           std::string_view clientSecret) {
  // Identifiers are hex tokens; anything else cannot name a record, and must
  // not reach Redis as part of a key.
  if (clientId.empty() || clientId.size() > 2 * kClientIdBytes ||
      clientId.find_first_not_of("0123456789abcdef") != std::string_view::npos)
    return {Verdict::unknownClient};
  const auto reply = redis_.command({"HMGET", recordOf(clientId), "key", "secret", "app"});
  if (!reply) return {Verdict::unavailable};
  if (reply->kind != RedisValue::Kind::array || reply->elements.size() != 3 ||
      reply->elements[0].kind != RedisValue::Kind::string)
    return {Verdict::unknownClient};
  const auto& fields = reply->elements;
  Sha256 stored{};
  if (fields[1].string.size() != stored.size()) return {Verdict::wrongSecret};
  std::memcpy(stored.data(), fields[1].string.data(), stored.size());
  if (!sameDigest(stored, sha256(clientSecret))) return {Verdict::wrongSecret};
  try {
    return {Verdict::accepted, static_cast<ClientKey>(std::stoull(fields[0].string)),
            std::stoll(fields[2].string)};
  } catch (const std::exception&) {
    errorf("client store: a malformed record in redis for client %.32s",
           std::string(clientId).c_str());
    return {Verdict::unknownClient};
  }
}

}  // namespace tellora::server
