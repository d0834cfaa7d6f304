#include "server/connection_registry.h"

#include <vector>

namespace tellora::server {

uint64_t ConnectionRegistry::add(std::weak_ptr<ManagedConnection> connection) {
  const uint64_t id = nextId_++;
  connections_.emplace(id, std::move(connection));
  return id;
}

void ConnectionRegistry::remove(uint64_t id) {
  connections_.erase(id);
}

void ConnectionRegistry::shutdownAll(uint16_t closeCode) {
  shutdownSome(connections_.size(), closeCode);
}

// Collected first: a connection may end, and leave the registry, inside shutdown().
std::size_t ConnectionRegistry::shutdownSome(std::size_t count, uint16_t closeCode) {
  std::vector<std::shared_ptr<ManagedConnection>> chosen;
  for (auto it = connections_.upper_bound(shutdownUpTo_);
       it != connections_.end() && chosen.size() < count; ++it) {
    shutdownUpTo_ = it->first;
    if (auto connection = it->second.lock()) chosen.push_back(std::move(connection));
  }
  for (const auto& connection : chosen)
    connection->shutdown(closeCode);
  return chosen.size();
}

}  // namespace tellora::server
