// The identities of a service of several nodes, in Redis: any node
// authenticates a client that registered on any other. One hash per client
// ("tellora:client:<clientId>": key, secret digest, application, device,
// registration time) and one counter for the matcher's client keys.
// Redis must persist them (appendonly yes): the server warns at start when
// it does not.
#pragma once

#include "server/client_store.h"
#include "server/cluster/redis_connection.h"

namespace tellora::server {

class RedisClientStore final : public ClientStore {
 public:
  explicit RedisClientStore(const RedisAddress& address);

  std::optional<IssuedIdentity> issue(int64_t appId, std::string_view device) override;
  Authentication authenticate(std::string_view clientId, std::string_view clientSecret) override;

 private:
  RedisConnection redis_;
};

}  // namespace tellora::server
