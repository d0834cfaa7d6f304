#include "tests/support/http_test_server.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <type_traits>

namespace tellora::testing {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

// Generous limits: the server must never be the side that gives up first.
constexpr auto kIoTimeout = std::chrono::seconds(10);
constexpr std::size_t kRequestBodyLimit = 16u << 20;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

class Connection {
 public:
  virtual ~Connection() = default;
  virtual void start() = 0;
  // Resets the connection at once (RST) and cancels a pending delayed reply.
  virtual void drop() = 0;
};

}  // namespace

std::optional<std::string> HttpRequestRecord::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

std::size_t HttpRequestRecord::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(headers.begin(), headers.end(), [&](const auto& f) {
    return equalsIgnoringCase(f.first, name);
  }));
}

HttpReply HttpReply::json(unsigned status, std::string body) {
  HttpReply reply;
  reply.status = status;
  reply.body = std::move(body);
  return reply;
}

HttpReply HttpReply::hangUpAfter(std::chrono::milliseconds delay) {
  HttpReply reply;
  reply.hangUp = true;
  reply.delay = delay;
  return reply;
}

HttpReply HttpReply::rawBytes(std::string bytes) {
  HttpReply reply;
  reply.raw = std::move(bytes);
  return reply;
}

namespace detail {

// Owns the io_context and its thread. Connections run on that thread; the log
// and the handler are shared with the test thread under mutexes.
class HttpTestServerCore {
 public:
  using Security = HttpTestServer::Security;
  using RequestHandler = HttpTestServer::RequestHandler;

  HttpTestServerCore(Security security, const std::shared_ptr<const TestCertificates>& certificates)
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

  ~HttpTestServerCore() {
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
      updateLog([](HttpServerLog& log) { ++log.acceptedConnections; });
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
  }

  void forget(uint64_t id) { connections_.erase(id); }

  // --- Any thread --------------------------------------------------------------
  template <class F>
  void updateLog(F change) {
    {
      std::lock_guard lock(logMutex_);
      change(log_);
    }
    logChanged_.notify_all();
  }

  // The reply to one request; a throwing handler gets a 500 instead of taking
  // the test binary down on the server thread.
  HttpReply replyTo(const HttpRequestRecord& request) {
    RequestHandler handler;
    {
      std::lock_guard lock(handlerMutex_);
      handler = handler_;
    }
    if (!handler) return HttpReply::json(404, "");
    try {
      return handler(request);
    } catch (const std::exception& error) {
      return HttpReply::json(500, error.what());
    }
  }

  net::io_context context_;
  net::executor_work_guard<net::io_context::executor_type> work_;
  std::thread thread_;
  std::thread::id threadId_;
  std::optional<ssl::context> tls_;
  std::optional<tcp::acceptor> acceptor_;
  std::atomic<uint16_t> port_{0};
  uint64_t nextConnectionId_ = 1;
  std::map<uint64_t, std::weak_ptr<Connection>> connections_;

  mutable std::mutex logMutex_;
  mutable std::condition_variable logChanged_;
  HttpServerLog log_;

  std::mutex handlerMutex_;
  RequestHandler handler_;
};

}  // namespace detail

namespace {

// One client connection: an optional TLS handshake, then requests and their
// replies until the client or a reply ends it.
template <class Stream>
class BasicConnection : public Connection,
                        public std::enable_shared_from_this<BasicConnection<Stream>> {
 public:
  static constexpr bool kTls = !std::is_same_v<Stream, beast::tcp_stream>;
  using Core = detail::HttpTestServerCore;

  template <class... Args>
  BasicConnection(Core& core, uint64_t id, Args&&... args)
      : core_(core), id_(id), stream_(std::forward<Args>(args)...), delay_(core.context_) {}

  void start() override {
    if constexpr (kTls) {
      lowest().expires_after(kIoTimeout);
      stream_.async_handshake(
          ssl::stream_base::server, [self = this->shared_from_this()](beast::error_code ec) {
            if (ec) {
              self->core_.updateLog([](HttpServerLog& log) { ++log.failedTlsHandshakes; });
              return self->end();
            }
            self->readRequest();
          });
    } else {
      readRequest();
    }
  }

  void drop() override {
    delay_.cancel();
    beast::error_code ignored;
    lowest().socket().set_option(net::socket_base::linger(true, 0), ignored);  // RST, not FIN
    lowest().socket().close(ignored);
  }

 private:
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

  void readRequest() {
    parser_.emplace();
    parser_->body_limit(kRequestBodyLimit);
    lowest().expires_after(kIoTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                       self->onRequest(ec);
                     });
  }

  void onRequest(beast::error_code ec) {
    if (ec) return end();  // includes a client that closed between requests
    const auto& request = parser_->get();
    HttpRequestRecord record;
    record.connectionId = id_;
    record.method = std::string(request.method_string());
    record.target = std::string(request.target());
    for (const auto& field : request)
      record.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    record.body = request.body();
    keepAlive_ = request.keep_alive();
    version_ = request.version();
    core_.updateLog([&](HttpServerLog& log) { log.requests.push_back(record); });

    HttpReply reply = core_.replyTo(record);
    if (reply.delay.count() <= 0) return respond(std::move(reply));
    lowest().expires_never();
    delay_.expires_after(reply.delay);
    delay_.async_wait(
        [self = this->shared_from_this(), reply = std::move(reply)](beast::error_code ec) mutable {
          if (ec) return self->end();
          self->respond(std::move(reply));
        });
  }

  void respond(HttpReply reply) {
    if (reply.hangUp) return closeGracefully();
    auto self = this->shared_from_this();
    lowest().expires_after(kIoTimeout);
    if (reply.raw) {
      raw_ = std::move(*reply.raw);
      net::async_write(stream_, net::buffer(raw_),
                       [self](beast::error_code, std::size_t) { self->closeGracefully(); });
      return;
    }
    try {
      response_ = format(std::move(reply));
    } catch (const std::exception& error) {  // e.g. a status over 999, a body on a 204
      response_ = format(HttpReply::json(500, error.what()));
    }
    http::async_write(stream_, response_, [self](beast::error_code ec, std::size_t) {
      if (ec) return self->end();
      if (self->keepAlive_) return self->readRequest();
      self->closeGracefully();
    });
  }

  http::response<http::string_body> format(HttpReply reply) const {
    http::response<http::string_body> response;
    response.result(reply.status);
    if (http::int_to_status(reply.status) == http::status::unknown)
      response.reason("Custom Status");
    response.version(version_);
    response.keep_alive(keepAlive_);
    if (!reply.contentType.empty()) response.set(http::field::content_type, reply.contentType);
    for (const auto& [name, value] : reply.headers)
      response.insert(name, value);
    response.body() = std::move(reply.body);
    response.prepare_payload();
    return response;
  }

  // FIN, then reads until the client closes too, so that nothing the client
  // still sends turns the close into a reset that could swallow the reply.
  void closeGracefully() {
    beast::error_code ignored;
    lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
    drain();
  }

  void drain() {
    lowest().expires_after(kIoTimeout);
    lowest().async_read_some(net::buffer(drainBuffer_),
                             [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                               if (ec) return self->end();
                               self->drain();
                             });
  }

  void end() {
    if (ended_) return;
    ended_ = true;
    beast::error_code ignored;
    lowest().socket().close(ignored);
    core_.forget(id_);
  }

  Core& core_;
  const uint64_t id_;
  Stream stream_;
  net::steady_timer delay_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> response_;
  std::string raw_;
  std::array<char, 4096> drainBuffer_{};
  unsigned version_ = 11;
  bool keepAlive_ = false;
  bool ended_ = false;
};

}  // namespace

void detail::HttpTestServerCore::startConnection(tcp::socket socket) {
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

HttpTestServer::HttpTestServer(Security security,
                               std::shared_ptr<const TestCertificates> certificates)
    : certificates_(security == Security::Tls && !certificates ? TestCertificates::create()
                                                               : std::move(certificates)) {
  if (security == Security::Plain) certificates_.reset();
  core_ = std::make_shared<detail::HttpTestServerCore>(security, certificates_);
}

HttpTestServer::~HttpTestServer() = default;

uint16_t HttpTestServer::port() const {
  return core_->port_;
}

std::string HttpTestServer::url(std::string_view path, std::string_view host) const {
  return std::string(certificates_ ? "https://" : "http://") + std::string(host) + ":" +
         std::to_string(port()) + std::string(path);
}

void HttpTestServer::stop() {
  core_->call([this] { core_->shutDown(); });
}

void HttpTestServer::start() {
  core_->call([this] { core_->listen(); });
}

bool HttpTestServer::isRunning() const {
  return core_->call([this] { return core_->acceptor_.has_value(); });
}

void HttpTestServer::setHandler(RequestHandler handler) {
  std::lock_guard lock(core_->handlerMutex_);
  core_->handler_ = std::move(handler);
}

void HttpTestServer::setReply(HttpReply reply) {
  setHandler([reply = std::move(reply)](const HttpRequestRecord&) { return reply; });
}

HttpServerLog HttpTestServer::log() const {
  std::lock_guard lock(core_->logMutex_);
  return core_->log_;
}

std::vector<HttpRequestRecord> HttpTestServer::requests() const {
  std::lock_guard lock(core_->logMutex_);
  return core_->log_.requests;
}

void HttpTestServer::clearLog() {
  std::lock_guard lock(core_->logMutex_);
  core_->log_ = HttpServerLog{};
}

bool HttpTestServer::waitFor(const std::function<bool(const HttpServerLog&)>& predicate,
                             std::chrono::milliseconds timeout) const {
  std::unique_lock lock(core_->logMutex_);
  return core_->logChanged_.wait_for(lock, timeout, [&] { return predicate(core_->log_); });
}

bool HttpTestServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  return waitFor([count](const HttpServerLog& log) { return log.requests.size() >= count; },
                 timeout);
}

}  // namespace tellora::testing
