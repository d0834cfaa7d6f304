#include "tests/server/loopback_client.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <type_traits>

namespace tellora::server_test {

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// Runs the context until `done` or the timeout; true when done.
bool runUntil(net::io_context& io, const bool& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  io.restart();
  while (!done) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return false;
    if (io.run_one_for(left) == 0 && io.stopped()) io.restart();
  }
  return true;
}

ssl::context clientTls(const std::string& caFile) {
  ssl::context tls(ssl::context::tls_client);
  tls.load_verify_file(caFile);
  tls.set_verify_mode(ssl::verify_peer);
  return tls;
}

// Connects (and shakes hands over TLS) with a time limit; false on failure.
template <class Stream>
bool connectStream(net::io_context& io, Stream& stream, const Endpoint& endpoint) {
  bool done = false;
  beast::error_code result;
  auto& lowest = beast::get_lowest_layer(stream);
  if (endpoint.receiveBufferBytes > 0) {
    lowest.socket().open(tcp::v4(), result);
    lowest.socket().set_option(net::socket_base::receive_buffer_size(endpoint.receiveBufferBytes),
                               result);
    if (result) return false;
  }
  lowest.expires_after(5s);
  lowest.async_connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), endpoint.port),
                       [&](beast::error_code ec) { result = ec, done = true; });
  if (!runUntil(io, done, 6s) || result) return false;
  if constexpr (std::is_same_v<Stream, TlsStream>) {
    done = false;
    stream.async_handshake(ssl::stream_base::client,
                           [&](beast::error_code ec) { result = ec, done = true; });
    if (!runUntil(io, done, 6s) || result) return false;
  }
  lowest.expires_never();
  return true;
}

template <class Stream>
HttpResult exchange(net::io_context& io, Stream& stream, const Endpoint& endpoint,
                    http::request<http::string_body>& request) {
  HttpResult result;
  if (!connectStream(io, stream, endpoint)) return result;
  bool done = false;
  beast::error_code ec;
  beast::get_lowest_layer(stream).expires_after(5s);
  http::async_write(stream, request,
                    [&](beast::error_code e, std::size_t) { ec = e, done = true; });
  if (!runUntil(io, done, 6s) || ec) return result;
  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  done = false;
  http::async_read(stream, buffer, response,
                   [&](beast::error_code e, std::size_t) { ec = e, done = true; });
  if (!runUntil(io, done, 6s) || ec) return result;
  return {response.result_int(), std::string(response.reason()), response.body()};
}

template <class Stream>
class BasicWsClient : public WsClient {
 public:
  explicit BasicWsClient(const std::string& caFile) {
    if constexpr (std::is_same_v<Stream, TlsStream>) {
      tls_.emplace(clientTls(caFile));
      ws_.emplace(io_, *tls_);
    } else {
      ws_.emplace(io_);
    }
  }

  // 101 on success, else the refusal status (0: no HTTP answer).
  unsigned handshake(const Endpoint& endpoint, const Headers& headers, const std::string& target) {
    if (!connectStream(io_, ws_->next_layer(), endpoint)) return 0;
    ws_->set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
      for (const auto& [name, value] : headers)
        request.insert(name, value);
    }));
    websocket::response_type response;
    bool done = false;
    beast::error_code ec;
    ws_->async_handshake(response, "127.0.0.1:" + std::to_string(endpoint.port), target,
                         [&](beast::error_code e) { ec = e, done = true; });
    if (!runUntil(io_, done, 6s)) return 0;
    if (ec) return ec == websocket::error::upgrade_declined ? response.result_int() : 0;
    ws_->binary(true);
    return 101;
  }

  bool sendBinary(const std::string& bytes) override { return write(bytes, true); }
  bool sendText(const std::string& text) override { return write(text, false); }

  std::optional<WsMessage> receive(std::chrono::milliseconds timeout) override {
    if (ended_) return closedMessage();
    if (!reading_) {
      reading_ = true;
      readDone_ = false;
      ws_->async_read(buffer_, [this](beast::error_code ec, std::size_t) {
        readError_ = ec;
        readDone_ = true;
      });
    }
    if (!runUntil(io_, readDone_, timeout)) return std::nullopt;
    reading_ = false;
    if (readError_) {
      ended_ = true;
      if (readError_ == websocket::error::closed) closeCode_ = ws_->reason().code;
      return closedMessage();
    }
    WsMessage message;
    message.text = ws_->got_text();
    message.payload = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    return message;
  }

  void close() override {
    if (ended_) return;
    bool done = false;
    ws_->async_close(websocket::close_code::normal, [&](beast::error_code) { done = true; });
    runUntil(io_, done, 3s);
    // The pending read (if any) ends with the close.
    if (reading_) runUntil(io_, readDone_, 3s);
    ended_ = true;
  }

 private:
  WsMessage closedMessage() const {
    WsMessage message;
    message.closed = true;
    message.closeCode = closeCode_;
    return message;
  }

  bool write(const std::string& bytes, bool binary) {
    if (ended_) return false;
    ws_->binary(binary);
    bool done = false;
    beast::error_code ec;
    ws_->async_write(net::buffer(bytes), [&](beast::error_code e, std::size_t) {
      ec = e;
      done = true;
    });
    return runUntil(io_, done, 5s) && !ec;
  }

  // Declared first: the stream uses them.
  net::io_context io_;
  std::optional<ssl::context> tls_;
  std::optional<websocket::stream<Stream>> ws_;
  beast::flat_buffer buffer_;
  beast::error_code readError_;
  bool reading_ = false;
  bool readDone_ = false;
  bool ended_ = false;
  uint16_t closeCode_ = 0;
};

}  // namespace

HttpResult httpRequest(const Endpoint& endpoint, const std::string& method,
                       const std::string& target, const std::string& body, const Headers& headers) {
  http::request<http::string_body> request;
  request.method_string(method);
  request.target(target);
  request.version(11);
  request.set(http::field::host, "127.0.0.1:" + std::to_string(endpoint.port));
  request.set(http::field::content_type, "application/json");
  for (const auto& [name, value] : headers)
    request.insert(name, value);
  request.body() = body;
  request.prepare_payload();
  request.keep_alive(false);
  net::io_context io;
  if (endpoint.caFile.empty()) {
    PlainStream stream(io);
    return exchange(io, stream, endpoint, request);
  }
  ssl::context tls = clientTls(endpoint.caFile);
  TlsStream stream(io, tls);
  return exchange(io, stream, endpoint, request);
}

Registration registerClient(const Endpoint& endpoint, int64_t appId, const std::string& appSecret) {
  const nlohmann::json body = {{"device",
                                {{"os", "Linux"},
                                 {"osVersion", "6"},
                                 {"hardware", "test"},
                                 {"language", "en"},
                                 {"appName", "server-test"},
                                 {"appVersion", "1.0"}}},
                               {"app", {{"id", appId}, {"secretKey", appSecret}}}};
  const HttpResult result = httpRequest(endpoint, "POST", "/register", body.dump());
  Registration registration;
  registration.status = result.status;
  if (result.status != 200) return registration;
  const auto reply = nlohmann::json::parse(result.body, nullptr, false);
  if (!reply.is_object()) return registration;
  registration.clientId = reply.value("clientId", "");
  registration.clientSecret = reply.value("clientSecret", "");
  return registration;
}

std::unique_ptr<WsClient> WsClient::open(const Endpoint& endpoint, const Headers& headers,
                                         unsigned* refusedStatus, const std::string& target) {
  unsigned status = 0;
  std::unique_ptr<WsClient> client;
  if (endpoint.caFile.empty()) {
    auto plain = std::make_unique<BasicWsClient<PlainStream>>(endpoint.caFile);
    status = plain->handshake(endpoint, headers, target);
    client = std::move(plain);
  } else {
    auto secure = std::make_unique<BasicWsClient<TlsStream>>(endpoint.caFile);
    status = secure->handshake(endpoint, headers, target);
    client = std::move(secure);
  }
  if (refusedStatus) *refusedStatus = status == 101 ? 0 : status;
  return status == 101 ? std::move(client) : nullptr;
}

std::unique_ptr<WsClient> WsClient::open(const Endpoint& endpoint, const Registration& identity,
                                         unsigned* refusedStatus) {
  return open(endpoint,
              {{"clientId", identity.clientId},
               {"clientSecret", identity.clientSecret},
               {"app_version", "1.0"}},
              refusedStatus);
}

std::optional<nlohmann::json> WsClient::request(int type, int64_t id,
                                                const std::optional<nlohmann::json>& data,
                                                std::chrono::milliseconds timeout) {
  nlohmann::json message = {{"type", type}, {"id", id}};
  if (data) message["data"] = *data;
  if (!sendBinary(message.dump())) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    const auto received = receive(left);
    if (!received || received->closed) return std::nullopt;
    if (!received->text) sawBinaryReply = true;
    auto json = nlohmann::json::parse(received->payload, nullptr, false);
    if (json.is_object() && json.contains("requestId") && json["requestId"] == id) return json;
    if (json.is_object() && json.contains("type")) pushes.push_back(std::move(json));
  }
}

std::optional<uint16_t> WsClient::awaitClose(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    const auto received = receive(left);
    if (!received) return std::nullopt;
    if (received->closed) return received->closeCode;
  }
}

std::optional<nlohmann::json> WsClient::awaitPush(int type, std::chrono::milliseconds timeout) {
  for (auto it = pushes.begin(); it != pushes.end(); ++it) {
    if ((*it)["type"] == type) {
      auto push = std::move(*it);
      pushes.erase(it);
      return push;
    }
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    const auto received = receive(left);
    if (!received || received->closed) return std::nullopt;
    auto json = nlohmann::json::parse(received->payload, nullptr, false);
    if (json.is_object() && json.value("type", -1) == type) return json;
    if (json.is_object() && json.contains("type")) pushes.push_back(std::move(json));
  }
}

}  // namespace tellora::server_test
