#include "server/address_limits.h"

#include <algorithm>
#include <cmath>

#include "server/connection_registry.h"
#include "server/server_options.h"

namespace tellora::server {

namespace {

// Buckets of this many addresses at most; past it (after dropping the full
// ones) new addresses wait. Full buckets are dropped, so only addresses that
// registered within the last burst/rate seconds are held.
constexpr std::size_t kMaxBuckets = 1 << 17;

}  // namespace

AddressLimits::Settings AddressLimits::from(const ServerLimits& limits) {
  Settings s;
  s.maxConnections = limits.maxConnections;
  s.perAddress = limits.maxConnectionsPerAddress != 0
                     ? limits.maxConnectionsPerAddress
                     : std::max<std::size_t>(8, limits.maxConnections / 16);
  s.pendingPerAddress = limits.maxPendingPerAddress != 0
                            ? limits.maxPendingPerAddress
                            : std::max<std::size_t>(4, s.perAddress / 4);
  s.registrationBurst = limits.registrationBurst;
  s.registrationsPerSecond = limits.registrationsPerSecond;
  return s;
}

AddressLimits::AddressLimits(Settings settings) : settings_(settings) {}

AddressLimits::Key AddressLimits::keyOf(const boost::asio::ip::address& address) {
  if (address.is_v4()) return {0, address.to_v4().to_uint()};
  const auto v6 = address.to_v6();
  if (v6.is_v4_mapped())
    return {0, boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, v6).to_uint()};
  const auto bytes = v6.to_bytes();
  Key key{1, 0};
  for (int i = 0; i < 8; ++i)
    key.low = key.low << 8 | bytes[i];
  return key;
}

uint64_t AddressLimits::admit(const boost::asio::ip::address& address, Refusal* why) {
  const Key key = keyOf(address);
  auto found = holdings_.find(key);
  const std::size_t holds = found == holdings_.end() ? 0 : found->second.connections;
  const std::size_t pending = found == holdings_.end() ? 0 : found->second.pending.size();
  Refusal refusal = Refusal::none;
  if (holds >= settings_.perAddress) {
    refusal = Refusal::addressShare;
  } else if (pending >= settings_.pendingPerAddress) {
    refusal = Refusal::pendingShare;
  } else if (slots_.size() >= settings_.maxConnections && !makeRoom(holds)) {
    refusal = Refusal::serverFull;
  }
  if (why) *why = refusal;
  if (refusal != Refusal::none) return 0;
  const uint64_t id = nextSlot_++;
  slots_.emplace(id, Slot{key, true});
  Holding& holding = holdings_[key];
  ++holding.connections;
  holding.pending.emplace(id, std::weak_ptr<ManagedConnection>());
  return id;
}

bool AddressLimits::makeRoom(std::size_t holds) {
  Holding* heaviest = nullptr;
  for (auto& [key, holding] : holdings_) {
    if (!holding.pending.empty() && (!heaviest || holding.connections > heaviest->connections))
      heaviest = &holding;
  }
  // Only an address holding more than the newcomer would gives way, so that
  // addresses of equal standing cannot push each other out in turn.
  if (!heaviest || heaviest->connections <= holds + 1) return false;
  const auto [slot, connection] = *heaviest->pending.begin();
  auto victim = connection.lock();
  release(slot);
  ++displaced_;
  if (victim) victim->shutdown(kCloseGoingAway);  // still pending: no WebSocket yet
  return true;
}

void AddressLimits::bind(uint64_t slot, std::weak_ptr<ManagedConnection> connection) {
  const auto it = slots_.find(slot);
  if (it == slots_.end() || !it->second.pending) return;
  holdings_[it->second.key].pending[slot] = std::move(connection);
}

void AddressLimits::handshakeDone(uint64_t slot) {
  const auto it = slots_.find(slot);
  if (it == slots_.end() || !it->second.pending) return;
  it->second.pending = false;
  holdings_[it->second.key].pending.erase(slot);
}

void AddressLimits::release(uint64_t slot) {
  const auto it = slots_.find(slot);
  if (it == slots_.end()) return;
  const auto holding = holdings_.find(it->second.key);
  if (holding != holdings_.end()) {
    holding->second.pending.erase(slot);
    if (--holding->second.connections == 0) holdings_.erase(holding);
  }
  slots_.erase(it);
}

std::optional<std::chrono::seconds> AddressLimits::takeRegistration(
    const boost::asio::ip::address& address, Clock::time_point now) {
  const double burst = std::max(1.0, settings_.registrationBurst);
  const double rate = settings_.registrationsPerSecond;
  // At most once a second: a table full of live buckets would otherwise be
  // scanned again on every registration.
  if (now - lastSweep_ >= std::chrono::seconds(1)) sweepBuckets(now);
  const Key key = keyOf(address);
  auto it = buckets_.find(key);
  if (it == buckets_.end()) {
    if (buckets_.size() >= kMaxBuckets) return std::chrono::seconds(1);
    it = buckets_.emplace(key, Bucket{burst, now}).first;
  }
  Bucket& bucket = it->second;
  const double elapsed = std::chrono::duration<double>(now - bucket.updated).count();
  bucket.tokens = std::min(burst, bucket.tokens + std::max(0.0, elapsed) * rate);
  bucket.updated = now;
  if (bucket.tokens >= 1) {
    bucket.tokens -= 1;
    return std::nullopt;
  }
  const double wait = rate > 0 ? (1 - bucket.tokens) / rate : 86400;
  return std::chrono::seconds(static_cast<int64_t>(std::ceil(std::min(wait, 86400.0))));
}

void AddressLimits::sweepBuckets(Clock::time_point now) {
  lastSweep_ = now;
  const double burst = std::max(1.0, settings_.registrationBurst);
  std::erase_if(buckets_, [&](const auto& entry) {
    const double elapsed = std::chrono::duration<double>(now - entry.second.updated).count();
    return entry.second.tokens + elapsed * settings_.registrationsPerSecond >= burst;
  });
}

}  // namespace tellora::server
