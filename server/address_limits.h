// What one peer address may hold of the server: open connections, connections
// still in their handshake (TLS, the first HTTP request), and registrations
// (a token bucket). The application key ships inside every app, so these are
// the only limits an anonymous peer meets.
//
// IPv6 peers are counted by their /64, the block one host is usually given.
// Used on the server's thread only.
#pragma once

#include <boost/asio/ip/address.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>

namespace tellora::server {

class ManagedConnection;
struct ServerLimits;

class AddressLimits {
 public:
  using Clock = std::chrono::steady_clock;

  struct Settings {
    std::size_t maxConnections = 4096;
    std::size_t perAddress = 256;
    std::size_t pendingPerAddress = 64;
    double registrationBurst = 20;
    double registrationsPerSecond = 1;
  };
  // The shares of ServerLimits, with the automatic ones (0) worked out.
  static Settings from(const ServerLimits& limits);

  explicit AddressLimits(Settings settings);

  enum class Refusal { none, addressShare, pendingShare, serverFull };

  // Counts a new connection of `address` as pending, or says why not. At the
  // server's cap, the oldest pending connection of the address that holds the
  // most is shut down to make room for one from an address that holds fewer:
  // idle sockets cannot keep a well-behaved client out. Returns the slot id
  // (0 when refused).
  uint64_t admit(const boost::asio::ip::address& address, Refusal* why);
  // The slot's connection, for a shutdown when it is chosen to make room.
  void bind(uint64_t slot, std::weak_ptr<ManagedConnection> connection);
  // The connection has sent its first request: no longer pending.
  void handshakeDone(uint64_t slot);
  // The connection ended. Unknown or already released slots are ignored.
  void release(uint64_t slot);

  // Takes one registration from the address's bucket. nullopt when allowed,
  // else the time until a token is back.
  std::optional<std::chrono::seconds> takeRegistration(const boost::asio::ip::address& address,
                                                       Clock::time_point now = Clock::now());

  std::size_t connections() const { return slots_.size(); }
  // Pending connections shut down to make room so far.
  uint64_t displaced() const { return displaced_; }
  const Settings& settings() const { return settings_; }

 private:
  struct Key {
    uint64_t high = 0, low = 0;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& k) const {
      return std::hash<uint64_t>()(k.high * 0x9E3779B97F4A7C15ull ^ k.low);
    }
  };
  struct Holding {
    std::size_t connections = 0;
    std::map<uint64_t, std::weak_ptr<ManagedConnection>> pending;  // by slot id, oldest first
  };
  struct Slot {
    Key key;
    bool pending = true;
  };
  struct Bucket {
    double tokens = 0;
    Clock::time_point updated;
  };

  static Key keyOf(const boost::asio::ip::address& address);
  // Shuts down the oldest pending connection of the address holding the most,
  // when that is more than `holds`. False when there is none.
  bool makeRoom(std::size_t holds);
  void sweepBuckets(Clock::time_point now);

  Settings settings_;
  uint64_t nextSlot_ = 1;
  std::unordered_map<uint64_t, Slot> slots_;
  std::unordered_map<Key, Holding, KeyHash> holdings_;
  std::unordered_map<Key, Bucket, KeyHash> buckets_;
  Clock::time_point lastSweep_{};
  uint64_t displaced_ = 0;
};

}  // namespace tellora::server
