#include "tests/support/ws_test_server.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <algorithm>
#include <cctype>
#include <deque>
#include <future>
#include <limits>
#include <map>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace tellora::testing {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

// Generous limits: the server must never be the side that times out first.
constexpr auto kIoTimeout = std::chrono::seconds(10);
constexpr std::size_t kInboundFrameLimit = 64u << 20;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// Something queued for a connection's writer: a data frame or the closing handshake.
struct Outgoing {
  enum class Kind { Text, Binary, Close } kind;
  std::string data;
  uint16_t closeCode = 0;
};

class Connection {
 public:
  virtual ~Connection() = default;
  virtual void start() = 0;
  virtual bool isOpen() const = 0;
  virtual void enqueue(Outgoing outgoing) = 0;
  virtual void drop() = 0;
};

}  // namespace

std::optional<std::string> WsUpgradeRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

std::size_t WsUpgradeRequest::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(headers.begin(), headers.end(), [&](const auto& f) {
    return equalsIgnoringCase(f.first, name);
  }));
}

namespace detail {

// Owns the io_context and its thread. Everything below the public API runs on
// that thread; the log and the behaviour settings are shared under mutexes.
class WsTestServerCore {
 public:
  using Security = WsTestServer::Security;
  using FrameHandler = WsTestServer::FrameHandler;

  WsTestServerCore(Security security, std::shared_ptr<const TestCertificates> certificates)
      : work_(net::make_work_guard(context_)) {
    if (security == Security::Tls) {
      tls_.emplace(ssl::context::tls_server);
      tls_->use_certificate_chain_file(certificates->certificateChainFile().string());
      tls_->use_private_key_file(certificates->privateKeyFile().string(), ssl::context::pem);
    }
    thread_ = std::thread([this] { context_.run(); });
    threadId_ = thread_.get_id();
    call([this] { listen(); });
  }

  ~WsTestServerCore() {
    call([this] { shutDown(); });
    work_.reset();
    context_.stop();
    thread_.join();
  }

  // Runs `f` on the server thread and returns its result.
  template <class F>
  auto call(F f) -> std::invoke_result_t<F> {
    if (std::this_thread::get_id() == threadId_) return f();
    std::packaged_task<std::invoke_result_t<F>()> task(std::move(f));
    auto result = task.get_future();
    net::post(context_, [&task] { task(); });
    return result.get();
  }

  // --- Server thread ---------------------------------------------------------
  void listen() {
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

  void accept() {
    acceptor_->async_accept([this](beast::error_code ec, tcp::socket socket) {
      if (ec) return;  // the listener was closed
      startConnection(std::move(socket));
      if (acceptor_) accept();
    });
  }

  void startConnection(tcp::socket socket);

  void shutDown() {
    if (acceptor_) {
      beast::error_code ignored;
      acceptor_->close(ignored);
      acceptor_.reset();
    }
    for (auto& [id, weak] : connections_) {
      if (auto connection = weak.lock()) connection->drop();
    }
    connections_.clear();
    for (auto& weak : timers_) {
      if (auto timer = weak.lock()) timer->cancel();
    }
    timers_.clear();
  }

  std::size_t forEachOpen(const std::function<void(Connection&)>& action) {
    std::size_t count = 0;
    for (auto& [id, weak] : connections_) {
      auto connection = weak.lock();
      if (connection && connection->isOpen()) {
        action(*connection);
        ++count;
      }
    }
    return count;
  }

  void forget(uint64_t id) { connections_.erase(id); }

  void scheduleReplies(const std::weak_ptr<Connection>& weak, std::vector<WsReply> replies) {
    for (auto& reply : replies) {
      if (reply.delay.count() <= 0) {
        if (auto connection = weak.lock())
          connection->enqueue({Outgoing::Kind::Text, std::move(reply.text)});
        continue;
      }
      auto timer = std::make_shared<net::steady_timer>(context_, reply.delay);
      timers_.push_back(timer);
      timer->async_wait([weak, timer, text = std::move(reply.text)](beast::error_code ec) mutable {
        if (ec) return;
        if (auto connection = weak.lock())
          connection->enqueue({Outgoing::Kind::Text, std::move(text)});
      });
    }
    std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
  }

  // --- Any thread --------------------------------------------------------------
  template <class F>
  void updateLog(F change) {
    {
      std::lock_guard lock(logMutex_);
      change(log_);
    }
    logChanged_.notify_all();
  }

  unsigned takeRefusal() {
    std::lock_guard lock(behaviourMutex_);
    if (refusalsLeft_ == 0) return 0;
    if (refusalsLeft_ != kForever) --refusalsLeft_;
    return refusalStatus_;
  }

  FrameHandler handler() {
    std::lock_guard lock(behaviourMutex_);
    return handler_;
  }

  static constexpr std::size_t kForever = std::numeric_limits<std::size_t>::max();

  // Before the io_context: connections that still wait in it use the context.
  std::optional<ssl::context> tls_;
  net::io_context context_;
  net::executor_work_guard<net::io_context::executor_type> work_;
  std::thread thread_;
  std::thread::id threadId_;
  std::optional<tcp::acceptor> acceptor_;
  std::atomic<uint16_t> port_{0};
  uint64_t nextConnectionId_ = 1;
  std::map<uint64_t, std::weak_ptr<Connection>> connections_;
  std::vector<std::weak_ptr<net::steady_timer>> timers_;

  mutable std::mutex logMutex_;
  mutable std::condition_variable logChanged_;
  WsServerLog log_;

  std::mutex behaviourMutex_;
  FrameHandler handler_;
  unsigned refusalStatus_ = 0;
  std::size_t refusalsLeft_ = 0;
};

}  // namespace detail

namespace {

// One client connection: optional TLS handshake, the HTTP upgrade request
// (accepted or refused), then frames until either side ends it.
template <class NextLayer>
class BasicConnection : public Connection,
                        public std::enable_shared_from_this<BasicConnection<NextLayer>> {
 public:
  static constexpr bool kTls = !std::is_same_v<NextLayer, beast::tcp_stream>;
  using Core = detail::WsTestServerCore;

  template <class... Args>
  BasicConnection(Core& core, uint64_t id, Args&&... args)
      : core_(core), id_(id), ws_(std::forward<Args>(args)...) {}

  void start() override {
    beast::get_lowest_layer(ws_).expires_after(kIoTimeout);
    if constexpr (kTls) {
      ws_.next_layer().async_handshake(
          ssl::stream_base::server,
          [self = this->shared_from_this()](beast::error_code ec) { self->onTlsHandshake(ec); });
    } else {
      readRequest();
    }
  }

  bool isOpen() const override { return open_; }

  void enqueue(Outgoing outgoing) override {
    if (!open_) return;
    outbox_.push_back(std::move(outgoing));
    if (!writing_) writeNext();
  }

  void drop() override {
    beast::error_code ignored;
    auto& socket = beast::get_lowest_layer(ws_).socket();
    socket.set_option(net::socket_base::linger(true, 0), ignored);  // RST, not FIN
    socket.close(ignored);
  }

 private:
  void onTlsHandshake(beast::error_code ec) {
    if (ec) {
      core_.updateLog([](WsServerLog& log) { ++log.failedTlsHandshakes; });
      return end();
    }
    readRequest();
  }

  void readRequest() {
    http::async_read(ws_.next_layer(), buffer_, request_,
                     [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                       self->onRequest(ec);
                     });
  }

  void onRequest(beast::error_code ec) {
    if (ec) return end();
    WsUpgradeRequest record;
    record.connectionId = id_;
    record.method = std::string(request_.method_string());
    record.target = std::string(request_.target());
    for (const auto& field : request_)
      record.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    unsigned refusal = core_.takeRefusal();
    if (refusal == 0 && !websocket::is_upgrade(request_)) refusal = 400;
    record.refusedWithStatus = refusal;
    core_.updateLog([&](WsServerLog& log) { log.upgrades.push_back(std::move(record)); });
    if (refusal != 0) return refuse(refusal);

    beast::get_lowest_layer(ws_).expires_never();
    websocket::stream_base::timeout timeouts =
        websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.handshake_timeout = kIoTimeout;
    ws_.set_option(timeouts);
    ws_.read_message_max(kInboundFrameLimit);
    ws_.async_accept(
        request_, [self = this->shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
  }

  void refuse(unsigned status) {
    response_.result(status);
    response_.reason("Refused by the test server");
    response_.version(request_.version());
    response_.keep_alive(false);
    response_.prepare_payload();
    http::async_write(ws_.next_layer(), response_,
                      [self = this->shared_from_this()](beast::error_code, std::size_t) {
                        // FIN rather than RST, so the client surely reads the response.
                        beast::error_code ignored;
                        auto& socket = beast::get_lowest_layer(self->ws_).socket();
                        socket.shutdown(tcp::socket::shutdown_send, ignored);
                        self->end();
                      });
  }

  void onAccept(beast::error_code ec) {
    if (ec) return end();
    open_ = true;
    core_.updateLog([](WsServerLog& log) {
      ++log.acceptedConnections;
      ++log.openConnections;
    });
    read();
  }

  void read() {
    buffer_.clear();
    ws_.async_read(buffer_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
      self->onRead(ec);
    });
  }

  void onRead(beast::error_code ec) {
    if (ec) {
      if (ec == websocket::error::closed) {
        const uint16_t code = ws_.reason().code;
        core_.updateLog([code](WsServerLog& log) { log.clientCloseCodes.push_back(code); });
      }
      return end();
    }
    WsFrame frame{id_, beast::buffers_to_string(buffer_.data()), ws_.got_binary()};
    core_.updateLog([&](WsServerLog& log) { log.frames.push_back(frame); });
    if (auto handler = core_.handler()) {
      core_.scheduleReplies(this->weak_from_this(), handler(frame));
    }
    read();
  }

  void writeNext() {
    if (outbox_.empty() || !open_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    Outgoing& next = outbox_.front();
    auto self = this->shared_from_this();
    if (next.kind == Outgoing::Kind::Close) {
      ws_.async_close(
          websocket::close_reason(static_cast<websocket::close_code>(next.closeCode), next.data),
          [self](beast::error_code) {
            self->outbox_.clear();
            self->writing_ = false;
          });
      return;
    }
    ws_.binary(next.kind == Outgoing::Kind::Binary);
    ws_.async_write(net::buffer(next.data), [self](beast::error_code ec, std::size_t) {
      self->outbox_.pop_front();
      if (ec) {
        self->writing_ = false;
        return;  // the read side sees the failure and ends the connection
      }
      self->writeNext();
    });
  }

  void end() {
    if (ended_) return;
    ended_ = true;
    if (open_) {
      open_ = false;
      core_.updateLog([](WsServerLog& log) {
        --log.openConnections;
        ++log.endedConnections;
      });
    }
    core_.forget(id_);
  }

  Core& core_;
  const uint64_t id_;
  websocket::stream<NextLayer> ws_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
  std::deque<Outgoing> outbox_;
  bool writing_ = false;
  bool open_ = false;
  bool ended_ = false;
};

}  // namespace

void detail::WsTestServerCore::startConnection(tcp::socket socket) {
  const uint64_t id = nextConnectionId_++;
  std::shared_ptr<Connection> connection;
  if (tls_) {
    connection = std::make_shared<BasicConnection<beast::ssl_stream<beast::tcp_stream>>>(
        *this, id, std::move(socket), *tls_);
  } else {
    connection = std::make_shared<BasicConnection<beast::tcp_stream>>(*this, id, std::move(socket));
  }
  connections_[id] = connection;
  connection->start();
}

WsTestServer::WsTestServer(Security security, std::shared_ptr<const TestCertificates> certificates)
    : certificates_(security == Security::Tls && !certificates ? TestCertificates::create()
                                                               : std::move(certificates)) {
  if (security == Security::Plain) certificates_.reset();
  core_ = std::make_shared<detail::WsTestServerCore>(security, certificates_);
}

WsTestServer::~WsTestServer() = default;

uint16_t WsTestServer::port() const {
  return core_->port_;
}

std::string WsTestServer::url(std::string_view path, std::string_view host) const {
  return std::string(certificates_ ? "wss://" : "ws://") + std::string(host) + ":" +
         std::to_string(port()) + std::string(path);
}

void WsTestServer::stop() {
  core_->call([this] { core_->shutDown(); });
}

void WsTestServer::start() {
  core_->call([this] { core_->listen(); });
}

bool WsTestServer::isRunning() const {
  return core_->call([this] { return core_->acceptor_.has_value(); });
}

void WsTestServer::setHandler(FrameHandler handler) {
  std::lock_guard lock(core_->behaviourMutex_);
  core_->handler_ = std::move(handler);
}

void WsTestServer::refuseUpgrades(unsigned status, std::size_t count) {
  std::lock_guard lock(core_->behaviourMutex_);
  core_->refusalStatus_ = status;
  core_->refusalsLeft_ = count;
}

void WsTestServer::refuseAllUpgrades(unsigned status) {
  refuseUpgrades(status, detail::WsTestServerCore::kForever);
}

void WsTestServer::acceptUpgrades() {
  refuseUpgrades(0, 0);
}

std::size_t WsTestServer::pushText(std::string text) {
  return core_->call([this, &text] {
    return core_->forEachOpen([&](Connection& connection) {
      connection.enqueue({Outgoing::Kind::Text, text});
    });
  });
}

std::size_t WsTestServer::pushBinary(std::string bytes) {
  return core_->call([this, &bytes] {
    return core_->forEachOpen([&](Connection& connection) {
      connection.enqueue({Outgoing::Kind::Binary, bytes});
    });
  });
}

std::size_t WsTestServer::closeConnections(uint16_t code, std::string reason) {
  return core_->call([this, code, &reason] {
    return core_->forEachOpen([&](Connection& connection) {
      connection.enqueue({Outgoing::Kind::Close, reason, code});
    });
  });
}

std::size_t WsTestServer::dropConnections() {
  return core_->call(
      [this] { return core_->forEachOpen([](Connection& connection) { connection.drop(); }); });
}

WsServerLog WsTestServer::log() const {
  std::lock_guard lock(core_->logMutex_);
  return core_->log_;
}

void WsTestServer::clearLog() {
  std::lock_guard lock(core_->logMutex_);
  const std::size_t open = core_->log_.openConnections;
  core_->log_ = WsServerLog{};
  core_->log_.openConnections = open;
}

bool WsTestServer::waitFor(const std::function<bool(const WsServerLog&)>& predicate,
                           std::chrono::milliseconds timeout) const {
  std::unique_lock lock(core_->logMutex_);
  return core_->logChanged_.wait_for(lock, timeout, [&] { return predicate(core_->log_); });
}

bool WsTestServer::waitForFrames(std::size_t count, std::chrono::milliseconds timeout) const {
  return waitFor([count](const WsServerLog& log) { return log.frames.size() >= count; }, timeout);
}

bool WsTestServer::waitForUpgrades(std::size_t count, std::chrono::milliseconds timeout) const {
  return waitFor([count](const WsServerLog& log) { return log.upgrades.size() >= count; }, timeout);
}

bool WsTestServer::waitForOpenConnections(std::size_t count,
                                          std::chrono::milliseconds timeout) const {
  return waitFor([count](const WsServerLog& log) { return log.openConnections == count; }, timeout);
}

bool WsTestServer::waitForEndedConnections(std::size_t count,
                                           std::chrono::milliseconds timeout) const {
  return waitFor([count](const WsServerLog& log) { return log.endedConnections >= count; },
                 timeout);
}

}  // namespace tellora::testing
