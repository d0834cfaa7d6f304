// Every open connection of the server, HTTP or WebSocket: counted against the
// connection cap and reachable for the shutdown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

namespace tellora::server {

class ManagedConnection {
 public:
  virtual ~ManagedConnection() = default;
  // The server stops: end the connection soon (a WebSocket with close code
  // 3002). Must not remove itself from the registry before returning.
  virtual void shutdown() = 0;
};

// Used on the server's thread only.
class ConnectionRegistry {
 public:
  uint64_t add(std::weak_ptr<ManagedConnection> connection);
  void remove(uint64_t id);
  std::size_t size() const { return connections_.size(); }
  void shutdownAll();

 private:
  uint64_t nextId_ = 1;
  std::unordered_map<uint64_t, std::weak_ptr<ManagedConnection>> connections_;
};

}  // namespace tellora::server
