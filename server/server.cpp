#include "server/server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <csignal>
#include <exception>
#include <optional>
#include <stdexcept>
#include <thread>

#include "runtime/log.h"
#include "server/listener.h"
#include "server/server_context.h"

namespace tellora::server {

namespace net = boost::asio;
namespace ssl = net::ssl;

namespace {

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
        store(options.databasePath),
        addressLimits(AddressLimits::from(options.limits)),
        context{options, store, hub, registry, addressLimits, limitLogs, tls ? &*tls : nullptr},
        io(1),
        tick(io),
        stopTimer(io) {
    const net::ip::tcp::endpoint endpoint(net::ip::make_address(options.bindAddress), options.port);
    listener = std::make_shared<Listener>(io, endpoint, context);
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
        logf("matching failed: %s", e.what());
      }
      scheduleTick();
    });
  }

  void beginShutdown() {
    if (stopping) return;
    stopping = true;
    logf("shutting down: closing %zu connections", registry.size());
    listener->stop();
    tick.cancel();
    if (signals) signals->cancel();
    registry.shutdownAll();
    stopDeadline = std::chrono::steady_clock::now() + options.limits.shutdownGrace;
    awaitSessionsEnd();
  }

  // Stops the io_context once every connection has ended, or at the deadline
  // with those that did not.
  void awaitSessionsEnd() {
    if (registry.size() == 0 || std::chrono::steady_clock::now() >= stopDeadline) {
      if (registry.size() != 0) logf("%zu connections did not close in time", registry.size());
      io.stop();
      return;
    }
    stopTimer.expires_after(std::chrono::milliseconds(20));
    stopTimer.async_wait([this](boost::system::error_code) { awaitSessionsEnd(); });
  }

  ServerOptions options;
  std::optional<ssl::context> tls;
  ClientStore store;
  Hub hub;
  ConnectionRegistry registry;
  AddressLimits addressLimits;
  LimitLogs limitLogs;
  ServerContext context;
  net::io_context io;
  std::shared_ptr<Listener> listener;
  net::steady_timer tick;
  net::steady_timer stopTimer;
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
  net::post(core_->io, [core = core_.get()] { core->beginShutdown(); });
  if (core_->thread.joinable() && std::this_thread::get_id() != core_->thread.get_id())
    core_->thread.join();
}

void Server::stopOnSignals() {
  core_->signals.emplace(core_->io, SIGINT, SIGTERM);
  core_->signals->async_wait([core = core_.get()](boost::system::error_code ec, int signal) {
    if (ec) return;
    logf("signal %d: stopping", signal);
    core->beginShutdown();
  });
}

}  // namespace tellora::server
