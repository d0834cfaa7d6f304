#include "tests/server/loopback_client.h"

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
// Shared with the handler, which may run after a wait for it gave up.
using Outcome = std::shared_ptr<std::optional<beast::error_code>>;

// Runs the context until the operation behind `outcome` ended or `timeout` passed.
bool runUntil(net::io_context& io, const Outcome& outcome, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  io.restart();
  while (!*outcome && io.run_one_until(deadline) > 0) {
  }
  return outcome->has_value();
}

// Starts an operation with `start(handler)` and waits for it: its error, or timed_out.
template <class Start>
beast::error_code await(net::io_context& io, Start&& start,
                        std::chrono::milliseconds timeout = 6s) {
  auto outcome = std::make_shared<std::optional<beast::error_code>>();
  start([outcome](beast::error_code ec, auto&&...) { *outcome = ec; });
  return runUntil(io, outcome, timeout) ? **outcome : net::error::timed_out;
}

ssl::context clientTls(const std::string& caFile) {
  ssl::context tls(ssl::context::tls_client);
  tls.load_verify_file(caFile);
  tls.set_verify_mode(ssl::verify_peer);
  return tls;
}

// Connects (and shakes hands over TLS); false on failure.
template <class Stream>
bool connect(net::io_context& io, Stream& stream, const Endpoint& endpoint) {
  auto& socket = beast::get_lowest_layer(stream).socket();
  beast::error_code ec;
  if (endpoint.receiveBufferBytes > 0 || !endpoint.sourceAddress.empty())
    socket.open(tcp::v4(), ec);
  if (!ec && endpoint.receiveBufferBytes > 0)
    socket.set_option(net::socket_base::receive_buffer_size(endpoint.receiveBufferBytes), ec);
  if (!ec && !endpoint.sourceAddress.empty()) {
    const auto source = net::ip::make_address(endpoint.sourceAddress, ec);
    if (!ec) socket.bind({source, 0}, ec);
  }
  const tcp::endpoint server(net::ip::make_address("127.0.0.1"), endpoint.port);
  if (ec || await(io, [&](auto handler) { socket.async_connect(server, handler); })) return false;
  if constexpr (std::is_same_v<Stream, TlsStream>)
    return !await(io, [&](auto h) { stream.async_handshake(ssl::stream_base::client, h); });
  return true;
}

template <class Stream>
HttpResult exchange(net::io_context& io, Stream& stream, const Endpoint& endpoint,
                    http::request<http::string_body>& request) {
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.skip(request.method() == http::verb::head);  // no body follows, whatever the length says
  if (!connect(io, stream, endpoint) ||
      await(io, [&](auto handler) { http::async_write(stream, request, handler); }) ||
      await(io, [&](auto handler) { http::async_read(stream, buffer, parser, handler); }))
    return {};
  const auto& response = parser.get();
  return {response.result_int(), response.body(), std::string(response[http::field::retry_after]),
          std::string(response[http::field::content_type]),
          std::string(response[http::field::content_length])};
}

template <class Stream>
class Session : public WsClient {
 public:
  explicit Session(const std::string& caFile) {
    if constexpr (std::is_same_v<Stream, TlsStream>) {
      tls_.emplace(clientTls(caFile));
      ws_.emplace(io_, *tls_);
    } else {
      ws_.emplace(io_);
    }
  }

  // 101 on success, else the refusal status (0: no HTTP answer).
  unsigned handshake(const Endpoint& endpoint, const Headers& headers, const std::string& target) {
    if (!connect(io_, ws_->next_layer(), endpoint)) return 0;
    ws_->set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
      for (const auto& [name, value] : headers)
        request.insert(name, value);
    }));
    websocket::response_type response;
    const std::string host = "127.0.0.1:" + std::to_string(endpoint.port);
    const auto ec =
        await(io_, [&](auto handler) { ws_->async_handshake(response, host, target, handler); });
    if (ec) return ec == websocket::error::upgrade_declined ? response.result_int() : 0;
    return 101;
  }

  bool send(const std::string& bytes, bool text) override {
    if (ended_) return false;
    ws_->text(text);
    return !await(io_, [&](auto handler) { ws_->async_write(net::buffer(bytes), handler); });
  }

  bool sendRaw(const std::string& bytes) override {
    return !await(io_, [&](auto handler) {
      net::async_write(beast::get_lowest_layer(*ws_), net::buffer(bytes), handler);
    });
  }

  std::optional<WsMessage> receive(std::chrono::milliseconds timeout) override {
    if (ended_) return WsMessage{true, closeCode_, false, {}};
    if (!read_) {
      read_ = std::make_shared<std::optional<beast::error_code>>();
      ws_->async_read(buffer_, [read = read_](beast::error_code ec, std::size_t) { *read = ec; });
    }
    if (!runUntil(io_, read_, timeout)) return std::nullopt;
    const beast::error_code ec = **std::exchange(read_, nullptr);
    if (!ec) {
      WsMessage message{false, 0, ws_->got_text(), beast::buffers_to_string(buffer_.data())};
      buffer_.consume(buffer_.size());
      return message;
    }
    ended_ = true;
    if (ec == websocket::error::closed) closeCode_ = ws_->reason().code;
    return WsMessage{true, closeCode_, false, {}};
  }

 private:
  // Declared first: the stream uses them.
  net::io_context io_;
  std::optional<ssl::context> tls_;
  std::optional<websocket::stream<Stream>> ws_;
  beast::flat_buffer buffer_;
  Outcome read_;  // the read in progress
  bool ended_ = false;
  uint16_t closeCode_ = 0;
};

template <class Stream>
std::unique_ptr<WsClient> openSession(const Endpoint& endpoint, const Headers& headers,
                                      unsigned* refusedStatus, const std::string& target) {
  auto session = std::make_unique<Session<Stream>>(endpoint.caFile);
  const unsigned status = session->handshake(endpoint, headers, target);
  if (refusedStatus) *refusedStatus = status == 101 ? 0 : status;
  return status == 101 ? std::move(session) : nullptr;
}

}  // namespace

HttpResult httpRequest(const Endpoint& endpoint, const std::string& method,
                       const std::string& target, const std::string& body) {
  http::request<http::string_body> request;
  request.method_string(method);
  request.target(target);
  request.set(http::field::host, "127.0.0.1:" + std::to_string(endpoint.port));
  request.set(http::field::content_type, "application/json");
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
  const nlohmann::json body = {{"device", {{"os", "Linux"}, {"appName", "server-test"}}},
                               {"app", {{"id", appId}, {"secretKey", appSecret}}}};
  const HttpResult result = httpRequest(endpoint, "POST", "/register", body.dump());
  const auto reply = nlohmann::json::parse(result.body, nullptr, false);
  if (result.status != 200 || !reply.is_object()) return {result.status, {}, {}};
  return {result.status, reply.value("clientId", ""), reply.value("clientSecret", "")};
}

std::unique_ptr<WsClient> WsClient::open(const Endpoint& endpoint, const Headers& headers,
                                         unsigned* refusedStatus, const std::string& target) {
  return endpoint.caFile.empty()
             ? openSession<PlainStream>(endpoint, headers, refusedStatus, target)
             : openSession<TlsStream>(endpoint, headers, refusedStatus, target);
}

std::unique_ptr<WsClient> WsClient::open(const Endpoint& endpoint, const Registration& identity,
                                         unsigned* refusedStatus) {
  return open(endpoint,
              {{"clientId", identity.clientId},
               {"clientSecret", identity.clientSecret},
               {"app_version", "1.0"}},
              refusedStatus);
}

std::optional<WsMessage> WsClient::receiveUntil(
    std::chrono::milliseconds timeout, const std::function<bool(const WsMessage&)>& wanted) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    auto message = receive(left);
    if (!message || message->closed || wanted(*message)) return message;
  }
}

std::optional<nlohmann::json> WsClient::request(int type, int64_t id,
                                                const std::optional<nlohmann::json>& data) {
  nlohmann::json message = {{"type", type}, {"id", id}};
  if (data) message["data"] = *data;
  std::optional<nlohmann::json> reply;
  if (!send(message.dump())) return reply;
  receiveUntil(5s, [&](const WsMessage& received) {
    if (!received.text) sawBinaryReply = true;
    auto json = nlohmann::json::parse(received.payload, nullptr, false);
    if (json.is_object() && json.contains("requestId") && json["requestId"] == id)
      reply = json;
    else if (json.is_object() && json.contains("type"))
      pushes.push_back(std::move(json));
    return reply.has_value();
  });
  return reply;
}

std::optional<uint16_t> WsClient::awaitClose(std::chrono::milliseconds timeout) {
  const auto last = receiveUntil(timeout, [](const WsMessage&) { return false; });
  return last && last->closed ? std::optional<uint16_t>(last->closeCode) : std::nullopt;
}

}  // namespace tellora::server_test
