// Every open connection of the server, HTTP or WebSocket: counted against the
// connection cap and reachable for the shutdown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace tellora::server {

// The close code of a drain: the server goes away, the client may reconnect
// (to another node) at once.
constexpr uint16_t kCloseGoingAway = 1001;

class ManagedConnection {
 public:
  virtual ~ManagedConnection() = default;
  // The server stops or drains: end the connection soon, a WebSocket with
  // `closeCode`. Must not remove itself from the registry before returning.
  virtual void shutdown(uint16_t closeCode) = 0;
};

// Used on the server's thread only.
class ConnectionRegistry {
 public:
  uint64_t add(std::weak_ptr<ManagedConnection> connection);
  void remove(uint64_t id);
  std::size_t size() const { return connections_.size(); }
  void shutdownAll(uint16_t closeCode);
  // Ends up to `count` connections not asked before, the oldest first;
  // returns how many.
  std::size_t shutdownSome(std::size_t count, uint16_t closeCode);

 private:
  uint64_t nextId_ = 1;
  uint64_t shutdownUpTo_ = 0;  // every id up to here has been asked to end
  std::map<uint64_t, std::weak_ptr<ManagedConnection>> connections_;  // by age
};

}  // namespace tellora::server
