// The machinery under the loopback test servers and the TCP proxy: an
// io_context on a thread of its own, a listener on 127.0.0.1 that hands each
// accepted socket to a factory, and the connections it made, which it can
// reset at once. Everything but the constructor, the destructor and call()
// runs on the listener's thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/loopback_server.h"

namespace tellora::testing::detail {

namespace net = boost::asio;
namespace ssl = net::ssl;
namespace beast = boost::beast;
using tcp = net::ip::tcp;

// Generous limits: a test server must never be the side that gives up first.
inline const std::chrono::milliseconds kServerIoTimeout = std::chrono::seconds(10) * waitScale();

class LoopbackConnection {
 public:
  virtual ~LoopbackConnection() = default;
  virtual void start() = 0;
  // Resets the connection at once (RST, not FIN).
  virtual void drop() = 0;
};

class LoopbackListener {
 public:
  using Factory = std::function<std::shared_ptr<LoopbackConnection>(LoopbackListener&, uint64_t id,
                                                                    tcp::socket)>;

  // Starts listening at once; TLS when `certificates` is set.
  LoopbackListener(const std::shared_ptr<const TestCertificates>& certificates, Factory factory);
  ~LoopbackListener();

  // Runs `f` on the listener's thread and returns its result.
  template <class F>
  auto call(F f) -> std::invoke_result_t<F> {
    if (std::this_thread::get_id() == threadId_) return f();
    std::packaged_task<std::invoke_result_t<F>()> task(std::move(f));
    auto result = task.get_future();
    net::post(context_, [&task] { task(); });
    return result.get();
  }

  uint16_t port() const { return port_; }
  net::io_context& context() { return context_; }
  ssl::context* tls() { return tls_ ? &*tls_ : nullptr; }

  void listen();
  bool isListening() const { return acceptor_.has_value(); }
  // Closes the listener, resets every connection, cancels pending after()s.
  void shutDown();
  // Resets every connection; returns how many there were.
  std::size_t dropConnections();
  // A connection that ended removes itself; until then it is kept here.
  void forget(uint64_t id) { connections_.erase(id); }
  // The connections that have not ended, as type C (the factory's type).
  template <class C>
  std::vector<std::shared_ptr<C>> connections() const {
    std::vector<std::shared_ptr<C>> live;
    for (const auto& [id, connection] : connections_)
      live.push_back(std::static_pointer_cast<C>(connection));
    return live;
  }
  // Runs `action` after `delay` unless the server shuts down first.
  void after(std::chrono::milliseconds delay, std::function<void()> action);

 private:
  void accept();

  // Before the io_context: connections destroyed with it still use it.
  std::optional<ssl::context> tls_;
  net::io_context context_;
  net::executor_work_guard<net::io_context::executor_type> work_;
  std::thread thread_;
  std::thread::id threadId_;
  Factory factory_;
  std::optional<tcp::acceptor> acceptor_;
  std::atomic<uint16_t> port_{0};
  uint64_t nextConnectionId_ = 1;
  std::map<uint64_t, std::shared_ptr<LoopbackConnection>> connections_;
  std::vector<std::weak_ptr<net::steady_timer>> timers_;
};

// What the connections of both test servers share: their stream (`Stream`
// is its plain or TLS layer), the TLS handshake that opens a TLS one, and a
// hard reset. `Self` provides serve() and end(); `Layer` is the one under TLS.
template <class Self, class State, class Stream, class Layer = Stream,
          class Base = LoopbackConnection>
class StreamConnection : public Base, public std::enable_shared_from_this<Self> {
 public:
  template <class... Args>
  StreamConnection(LoopbackListener& listener, State state, uint64_t id, Args&&... args)
      : listener_(listener),
        state_(std::move(state)),
        id_(id),
        stream_(std::forward<Args>(args)...) {}

  void start() override {
    lowest().expires_after(kServerIoTimeout);
    if constexpr (std::is_same_v<Layer, beast::tcp_stream>) {
      static_cast<Self*>(this)->serve();
    } else {
      layer().async_handshake(
          ssl::stream_base::server, [self = this->shared_from_this()](beast::error_code ec) {
            if (!ec) return self->serve();
            self->state_.log->update([](auto& log) { ++log.failedTlsHandshakes; });
            self->end();
          });
    }
  }

  void drop() override {
    beast::error_code ignored;
    lowest().socket().set_option(net::socket_base::linger(true, 0), ignored);
    lowest().socket().close(ignored);
  }

  beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }
  Layer& layer() {
    if constexpr (std::is_same_v<Layer, Stream>) {
      return stream_;
    } else {
      return stream_.next_layer();
    }
  }

  LoopbackListener& listener_;
  const State state_;
  const uint64_t id_;
  Stream stream_;
};

// A connection of template `Connection` over a plain or a TLS Beast stream,
// as the listener's TLS setting says.
template <template <class> class Connection, class State>
std::shared_ptr<LoopbackConnection> makeConnection(LoopbackListener& listener, State state,
                                                   uint64_t id, tcp::socket socket) {
  if (auto* tls = listener.tls()) {
    return std::make_shared<Connection<beast::ssl_stream<beast::tcp_stream>>>(
        listener, std::move(state), id, std::move(socket), *tls);
  }
  return std::make_shared<Connection<beast::tcp_stream>>(listener, std::move(state), id,
                                                         std::move(socket));
}

// Copies what a request carries into a record.
template <class Fields>
void recordRequest(RecordedRequest& record, uint64_t id,
                   const boost::beast::http::request_header<Fields>& request) {
  record.connectionId = id;
  record.method = std::string(request.method_string());
  record.target = std::string(request.target());
  for (const auto& field : request)
    record.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
}

}  // namespace tellora::testing::detail
