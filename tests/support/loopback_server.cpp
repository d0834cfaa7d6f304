#include "tests/support/loopback_server.h"

#include <algorithm>

#include "tests/support/loopback_listener.h"

namespace tellora::testing {

using boost::beast::iequals;

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (iequals(key, name)) return value;
  }
  return std::nullopt;
}

std::size_t RecordedRequest::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(
      headers.begin(), headers.end(), [&](const auto& f) { return iequals(f.first, name); }));
}

// Out of line: the listener's type is complete only here.
LoopbackServer::LoopbackServer(std::shared_ptr<const TestCertificates> certificates)
    : certificates_(std::move(certificates)) {}

LoopbackServer::~LoopbackServer() = default;

uint16_t LoopbackServer::port() const {
  return listener_->port();
}

std::string LoopbackServer::urlWith(std::string_view scheme, std::string_view path,
                                    std::string_view host) const {
  return std::string(scheme) + (certificates_ ? "s://" : "://") + std::string(host) + ":" +
         std::to_string(port()) + std::string(path);
}

void LoopbackServer::stop() {
  listener_->call([this] { listener_->shutDown(); });
}

void LoopbackServer::start() {
  listener_->call([this] { listener_->listen(); });
}

namespace detail {

LoopbackListener::LoopbackListener(const std::shared_ptr<const TestCertificates>& certificates,
                                   Factory factory)
    : work_(net::make_work_guard(context_)), factory_(std::move(factory)) {
  if (certificates) {
    tls_.emplace(ssl::context::tls_server);
    tls_->use_certificate_chain_file(certificates->certificateChainFile().string());
    tls_->use_private_key_file(certificates->privateKeyFile().string(), ssl::context::pem);
  }
  thread_ = std::thread([this] { context_.run(); });
  threadId_ = thread_.get_id();
  call([this] { listen(); });
}

LoopbackListener::~LoopbackListener() {
  call([this] { shutDown(); });
  work_.reset();
  context_.stop();
  thread_.join();
}

void LoopbackListener::listen() {
  if (acceptor_) return;
  acceptor_.emplace(context_);
  const tcp::endpoint endpoint(net::ip::make_address_v4("127.0.0.1"), port_);
  acceptor_->open(endpoint.protocol());
  acceptor_->set_option(net::socket_base::reuse_address(true));
  acceptor_->bind(endpoint);
  acceptor_->listen();
  port_ = acceptor_->local_endpoint().port();
  accept();
}

void LoopbackListener::accept() {
  acceptor_->async_accept([this](beast::error_code ec, tcp::socket socket) {
    if (ec) return;  // the listener was closed
    const uint64_t id = nextConnectionId_++;
    auto connection = factory_(*this, id, std::move(socket));
    connections_[id] = connection;
    connection->start();
    if (acceptor_) accept();
  });
}

void LoopbackListener::shutDown() {
  if (acceptor_) {
    beast::error_code ignored;
    acceptor_->close(ignored);
    acceptor_.reset();
  }
  dropConnections();
  for (auto& weak : timers_) {
    if (auto timer = weak.lock()) timer->cancel();
  }
  timers_.clear();
}

std::size_t LoopbackListener::dropConnections() {
  const auto live = connections<LoopbackConnection>();
  for (const auto& connection : live)
    connection->drop();
  connections_.clear();
  return live.size();
}

void LoopbackListener::after(std::chrono::milliseconds delay, std::function<void()> action) {
  auto timer = std::make_shared<net::steady_timer>(context_, delay);
  std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
  timers_.push_back(timer);
  timer->async_wait([timer, action = std::move(action)](beast::error_code ec) {
    if (!ec) action();
  });
}

}  // namespace detail
}  // namespace tellora::testing
