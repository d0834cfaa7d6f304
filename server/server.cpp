#include "server/server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <csignal>
#include <exception>
#include <optional>
#include <stdexcept>
#include <thread>

#include "runtime/log.h"
#include "server/cluster/cluster_matching.h"
#include "server/cluster/redis_client_store.h"
#include "server/listener.h"
#include "server/matching/matching_threads.h"
#include "server/server_context.h"

namespace tellora::server {

namespace net = boost::asio;
namespace ssl = net::ssl;

namespace {

// The drain closes a share of the sessions every slice.
constexpr std::chrono::milliseconds kDrainSlice{100};

const ServerOptions& checked(const ServerOptions& options) {
  if (options.limits.maxBodyBytes < options.limits.maxDeviceBytes)
    throw std::invalid_argument("the body limit is below the device record limit");
  return options;
}

std::optional<ssl::context> makeTlsContext(const ServerOptions& options) {
  const bool certificate = !options.tlsCertificateChainFile.empty();
  const bool key = !options.tlsPrivateKeyFile.empty();
  if (certificate != key) throw std::invalid_argument("TLS needs both a certificate and a key");
  if (!certificate) return std::nullopt;
  std::optional<ssl::context> tls(std::in_place, ssl::context::tls_server);
  tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                   ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 |
                   ssl::context::single_dh_use);
  tls->use_certificate_chain_file(options.tlsCertificateChainFile);
  tls->use_private_key_file(options.tlsPrivateKeyFile, ssl::context::pem);
  return tls;
}

std::optional<RedisAddress> redisOf(const ServerOptions& options) {
  if (options.redisAddress.empty()) return std::nullopt;
  auto address = parseRedisAddress(options.redisAddress);
  if (!address)
    throw std::invalid_argument("the Redis address \"" + options.redisAddress +
                                "\" is not HOST:PORT");
  return address;
}

std::unique_ptr<ClientStore> makeStore(const ServerOptions& options) {
  if (const auto redis = redisOf(options)) return std::make_unique<RedisClientStore>(*redis);
  return std::make_unique<SqliteClientStore>(options.databasePath);
}

}  // namespace

// Member order matters: what the sessions use (store, hub, registry, TLS)
// outlives the io_context, whose destruction may destroy the last sessions.
// Handlers hold the core by plain pointer: they live in its io_context, so
// they cannot outlive it.
class Server::Core {
 public:
  explicit Core(ServerOptions o)
      : options(checked(o)),
        tls(makeTlsContext(options)),
        store(makeStore(options)),
        addressLimits(AddressLimits::from(options.limits)),
        context{options, *store, hub, registry, addressLimits, limitLogs, tls ? &*tls : nullptr},
        io(1),
        tick(io),
        stopTimer(io),
        drainTimer(io) {
    const net::ip::tcp::endpoint endpoint(net::ip::make_address(options.bindAddress), options.port);
    listener = std::make_shared<Listener>(io, endpoint, context);
    if (auto matching = makeMatching()) hub.replaceMatching(std::move(matching));
  }

  // Stops the matching threads first: their events are posted to `io`.
  ~Core() { hub.stopMatching(); }

  std::unique_ptr<MatchingEngine> makeMatching() {
    if (const auto redis = redisOf(options)) return makeClusterMatching(*redis);
    if (options.limits.matchingThreads == 0) return nullptr;
    return makeLocalMatching([this](std::vector<MatchEvent> events) {
      net::post(io, [this, events = std::move(events)] { hub.deliver(events); });
    });
  }

  std::unique_ptr<MatchingEngine> makeLocalMatching(MatchEventsDelivery deliver) {
    if (options.limits.matchingThreads == 0)
      return std::make_unique<InlineMatching>(MatcherConfig{});
    return std::make_unique<MatchingThreads>(MatcherConfig{}, options.limits.matchingThreads,
                                             options.limits.matchTick, serverClockMs,
                                             std::move(deliver));
  }

  std::unique_ptr<MatchingEngine> makeClusterMatching(const RedisAddress& redis) {
    ClusterMatching::Reports reports{
        [this](const std::vector<MatchEvent>& events) { hub.deliver(events); },
        [this](const ClusterMessage& news) {
          using Kind = ClusterMessage::Kind;
          if (news.kind == Kind::found)
            hub.partnerFound(news.key, news.partner, news.clientId, news.payload);
          else if (news.kind == Kind::lost)
            hub.partnerLost(news.key, news.partner);
          else if (news.kind == Kind::partnerPayload)
            hub.partnerPayload(news.key, news.partner, news.payload);
        },
        [this](const std::set<uint64_t>& nodes) {
          hub.partnersGone([&](ClientKey key) { return nodes.contains(nodeOfSearch(key)); });
        },
        [this](ClientKey key) { hub.reconfirmPairsOf(key, kReconfirmMs); }};
    auto cluster = std::make_unique<ClusterMatching>(
        redis,
        [this](MatchEventsDelivery deliver) { return makeLocalMatching(std::move(deliver)); },
        [this](std::function<void()> work) { net::post(io, std::move(work)); }, std::move(reports));
    hub.setFirstSearchKey(cluster->firstSearchKey());
    return cluster;
  }

  void begin() {
    listener->start();
    scheduleTick();
  }

  void scheduleTick() {
    tick.expires_after(options.limits.matchTick);
    tick.async_wait([this](boost::system::error_code ec) {
      if (ec || stopping) return;
      try {
        hub.tick();
      } catch (const std::exception& e) {
        errorf("matching failed: %s", e.what());
      }
      scheduleTick();
    });
  }

  // Ends serving now: every WebSocket session is closed with `closeCode`
  // (3002 unless a drain came first) and gets a short grace to finish.
  void beginShutdown(uint16_t closeCode) {
    if (stopping) return;
    stopping = true;
    context.metrics.draining = true;
    logf("shutting down: closing %zu connections", registry.size());
    stopAccepting();
    drainTimer.cancel();
    if (signals) signals->cancel();
    registry.shutdownAll(closeCode);
    stopDeadline = std::chrono::steady_clock::now() + options.limits.shutdownGrace;
    awaitSessionsEnd();
  }

  // Stops accepting and closes the sessions with 1001 ("going away", no error
  // for the SDK) a slice at a time over the drain time, so that the clients'
  // reconnections reach the other nodes spread out rather than as one burst.
  void beginDrain() {
    if (stopping || draining) return;
    draining = true;
    context.metrics.draining = true;
    stopAccepting();
    const auto drainTime = options.limits.drainTime;
    const std::size_t open = registry.size();
    logf("draining: closing %zu connections over %.1f s", open,
         std::chrono::duration<double>(drainTime).count());
    const auto slices = std::max<int64_t>(1, drainTime / kDrainSlice);
    drainPerSlice = std::max<std::size_t>(1, (open + slices - 1) / slices);
    drainNextSlice();
  }

  void drainNextSlice() {
    if (stopping) return;
    registry.shutdownSome(drainPerSlice, kCloseGoingAway);
    if (registry.size() == 0) return beginShutdown(kCloseGoingAway);
    drainTimer.expires_after(kDrainSlice);
    drainTimer.async_wait([this](boost::system::error_code ec) {
      if (!ec) drainNextSlice();
    });
  }

  // The first signal drains, a second one stops at once.
  void awaitSignal() {
    signals->async_wait([this](boost::system::error_code ec, int signal) {
      if (ec) return;
      if (draining) {
        logf("signal %d while draining: stopping now", signal);
        return beginShutdown(kCloseGoingAway);
      }
      logf("signal %d: draining", signal);
      beginDrain();
      awaitSignal();
    });
  }

  void stopAccepting() {
    listener->stop();
    tick.cancel();
  }

  // Stops the io_context once every connection has ended, or at the deadline
  // with those that did not.
  void awaitSessionsEnd() {
    if (registry.size() == 0 || std::chrono::steady_clock::now() >= stopDeadline) {
      if (registry.size() != 0) warnf("%zu connections did not close in time", registry.size());
      io.stop();
      return;
    }
    stopTimer.expires_after(std::chrono::milliseconds(20));
    stopTimer.async_wait([this](boost::system::error_code) { awaitSessionsEnd(); });
  }

  ServerOptions options;
  std::optional<ssl::context> tls;
  std::unique_ptr<ClientStore> store;
  Hub hub;
  ConnectionRegistry registry;
  AddressLimits addressLimits;
  LimitLogs limitLogs;
  ServerContext context;
  net::io_context io;
  std::shared_ptr<Listener> listener;
  net::steady_timer tick;
  net::steady_timer stopTimer;
  net::steady_timer drainTimer;
  std::size_t drainPerSlice = 1;
  bool draining = false;
  std::optional<net::signal_set> signals;
  std::chrono::steady_clock::time_point stopDeadline{};
  bool stopping = false;
  std::thread thread;
};

Server::Server(ServerOptions options) : core_(std::make_unique<Core>(std::move(options))) {}

Server::~Server() {
  stop();
}

uint16_t Server::port() const {
  return core_->listener->port();
}

void Server::run() {
  core_->begin();
  core_->io.run();
}

void Server::start() {
  core_->begin();
  core_->thread = std::thread([core = core_.get()] { core->io.run(); });
}

void Server::stop() {
  net::post(core_->io, [core = core_.get()] { core->beginShutdown(kCloseShuttingDown); });
  if (core_->thread.joinable() && std::this_thread::get_id() != core_->thread.get_id())
    core_->thread.join();
}

void Server::drain() {
  net::post(core_->io, [core = core_.get()] { core->beginDrain(); });
}

void Server::stopOnSignals() {
  core_->signals.emplace(core_->io, SIGINT, SIGTERM);
  core_->awaitSignal();
}

}  // namespace tellora::server
