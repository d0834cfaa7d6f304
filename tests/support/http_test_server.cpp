#include "tests/support/http_test_server.h"

#include <boost/asio/write.hpp>

#include <array>
#include <exception>

#include "tests/support/loopback_listener.h"

namespace tellora::testing {
namespace {

using namespace detail;
namespace http = beast::http;

constexpr std::size_t kRequestBodyLimit = 16u << 20;

// What the connections share with the server object (which may go first).
struct HttpState {
  std::shared_ptr<Watched<HttpServerLog>> log;
  std::shared_ptr<Watched<HttpTestServer::RequestHandler>> handler;

  // A throwing handler gets a 500 instead of taking the test binary down.
  HttpReply replyTo(const HttpRequestRecord& request) const {
    const auto answer = handler->get();
    if (!answer) return HttpReply::json(404, "");
    try {
      return answer(request);
    } catch (const std::exception& error) {
      return HttpReply::json(500, error.what());
    }
  }
};

// One client connection: an optional TLS handshake, then requests and their
// replies until the client or a reply ends it.
template <class Stream>
struct HttpConnection : StreamConnection<HttpConnection<Stream>, HttpState, Stream> {
  using StreamConnection<HttpConnection, HttpState, Stream>::StreamConnection;

  void serve() { readRequest(); }

  void readRequest() {
    parser_.emplace();
    parser_->body_limit(kRequestBodyLimit);
    this->lowest().expires_after(kServerIoTimeout);
    http::async_read(this->stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                       self->onRequest(ec);
                     });
  }

  void onRequest(beast::error_code ec) {
    if (ec) return end();  // includes a client that closed between requests
    const auto& request = parser_->get();
    HttpRequestRecord record;
    recordRequest(record, this->id_, request);
    record.body = request.body();
    keepAlive_ = request.keep_alive();
    version_ = request.version();
    this->state_.log->update([&](HttpServerLog& log) { log.requests.push_back(record); });

    HttpReply reply = this->state_.replyTo(record);
    if (reply.delay.count() <= 0) return respond(std::move(reply));
    this->lowest().expires_never();
    this->listener_.after(reply.delay,
                          [self = this->shared_from_this(), reply] { self->respond(reply); });
  }

  void respond(HttpReply reply) {
    if (reply.hangUp) return closeGracefully();
    auto self = this->shared_from_this();
    this->lowest().expires_after(kServerIoTimeout);
    if (reply.raw) {
      raw_ = std::move(*reply.raw);
      net::async_write(this->stream_, net::buffer(raw_),
                       [self](beast::error_code, std::size_t) { self->closeGracefully(); });
      return;
    }
    try {
      response_ = format(std::move(reply));
    } catch (const std::exception& error) {  // e.g. a status over 999, a body on a 204
      response_ = format(HttpReply::json(500, error.what()));
    }
    http::async_write(this->stream_, response_, [self](beast::error_code ec, std::size_t) {
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
    this->lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
    drain();
  }

  void drain() {
    this->lowest().expires_after(kServerIoTimeout);
    this->lowest().async_read_some(
        net::buffer(drainBuffer_),
        [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
          if (ec) return self->end();
          self->drain();
        });
  }

  void end() {
    if (ended_) return;
    ended_ = true;
    beast::error_code ignored;
    this->lowest().socket().close(ignored);
    this->listener_.forget(this->id_);
  }

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

HttpTestServer::HttpTestServer(std::shared_ptr<const TestCertificates> certificates)
    : LoggingLoopbackServer(std::move(certificates)) {
  listener_ = std::make_unique<LoopbackListener>(
      certificates_, [state = HttpState{log_, handler_}](LoopbackListener& listener, uint64_t id,
                                                         tcp::socket socket) {
        return makeConnection<HttpConnection>(listener, state, id, std::move(socket));
      });
}

HttpTestServer::~HttpTestServer() = default;

void HttpTestServer::setHandler(RequestHandler handler) {
  handler_->update([&](RequestHandler& current) { current = std::move(handler); });
}

void HttpTestServer::setReply(HttpReply reply) {
  setHandler([reply = std::move(reply)](const HttpRequestRecord&) { return reply; });
}

}  // namespace tellora::testing
