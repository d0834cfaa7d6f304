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

void ConnectionRegistry::shutdownAll() {
  std::vector<std::shared_ptr<ManagedConnection>> open;
  for (const auto& [id, weak] : connections_) {
    if (auto connection = weak.lock()) open.push_back(std::move(connection));
  }
  for (const auto& connection : open)
    connection->shutdown();
}

}  // namespace tellora::server
