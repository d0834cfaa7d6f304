#include "server/http_session.h"

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "runtime/log.h"
#include "server/json_input.h"
#include "server/metrics.h"
#include "server/registration.h"
#include "server/server_context.h"
#include "server/ws_session.h"

namespace tellora::server {

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;

// The upgrade was refused: unknown client identifier or wrong secret.
constexpr unsigned kStatusUnknownClient = 802;
constexpr std::size_t kHeaderLimit = 16 << 10;

std::string describePeer(const tcp::endpoint& endpoint) {
  return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

// A header value fit for one log line: printable ASCII, at most 64 characters.
std::string forLog(std::string_view value) {
  std::string text;
  for (char c : value.substr(0, 64))
    text.push_back(c >= 0x20 && c < 0x7f ? c : '?');
  if (value.size() > 64) text += "...";
  return text;
}

std::string_view pathOf(std::string_view target) {
  return target.substr(0, target.find('?'));
}

std::string reasonFor(unsigned status) {
  switch (status) {
    case kStatusUnknownApplication:
      return "Unknown Application";
    case kStatusUnknownClient:
      return "Unknown Client";
    default:
      return std::string(http::obsolete_reason(http::int_to_status(status)));
  }
}

using Response = http::response<http::string_body>;

template <class Stream>
class HttpSession : public ManagedConnection,
                    public std::enable_shared_from_this<HttpSession<Stream>> {
 public:
  static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

  HttpSession(Stream stream, const tcp::endpoint& peer, uint64_t slot, ServerContext& context)
      : stream_(std::move(stream)),
        address_(peer.address()),
        peer_(describePeer(peer)),
        slot_(slot),
        context_(context) {}

  ~HttpSession() override {
    context_.registry.remove(registryId_);
    context_.addressLimits.release(slot_);
  }

  void start() {
    registryId_ = context_.registry.add(this->weak_from_this());
    context_.addressLimits.bind(slot_, this->weak_from_this());
    if constexpr (kTls) {
      lowest().expires_after(context_.options.limits.httpTimeout);
      stream_.async_handshake(
          ssl::stream_base::server,
          [self = this->shared_from_this()](beast::error_code ec) { self->onHandshake(ec); });
    } else {
      readRequest();
    }
  }

  void shutdown(uint16_t) override {
    beast::error_code ignored;
    lowest().socket().close(ignored);
  }

 private:
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

  void onHandshake(beast::error_code ec) {
    if (ec) return;  // scanners, plain-text clients, timeouts: nothing to say
    readRequest();
  }

  void readRequest() {
    parser_.emplace();
    parser_->body_limit(context_.options.limits.maxBodyBytes);
    parser_->header_limit(kHeaderLimit);
    lowest().expires_after(context_.options.limits.httpTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                       self->onRequest(ec);
                     });
  }

  void onRequest(beast::error_code ec) {
    if (ec == http::error::end_of_stream) return closeGracefully();
    if (ec == http::error::body_limit) {
      if (pathOf(parser_->get().target()) == "/register") context_.metrics.countRegistration(413);
      return respond(413, "the body is too large", false);
    }
    if (ec == http::error::header_limit) return respond(431, "the header is too large", false);
    if (ec && ec.category() == http::make_error_code(http::error::bad_target).category())
      return respond(400, "not an HTTP/1.1 request", false);
    if (ec) return;  // timed out or reset
    context_.addressLimits.handshakeDone(slot_);
    UpgradeRequest request = parser_->release();
    if (websocket::is_upgrade(request)) return upgrade(std::move(request));
    const std::string_view path = pathOf(request.target());
    if (path == "/register") {
      if (request.method() != http::verb::post)
        return respond(405, "use POST", request.keep_alive());
      return registration(request);
    }
    if (path == "/ws") return respond(426, "a WebSocket upgrade is expected", false);
    if (path == kHealthPath || path == kMetricsPath) return operatorEndpoint(request, path);
    respond(404, "no such endpoint", request.keep_alive());
  }

  void registration(const UpgradeRequest& request) {
    if (const auto wait = context_.addressLimits.takeRegistration(address_)) {
      context_.limitLogs.registrations.hit(peer_);
      context_.metrics.countRegistration(429);
      return respond(429, "too many registrations from this address", false, false,
                     static_cast<unsigned>(wait->count()));
    }
    const auto issue = [this](const RegistrationRequest& r) {
      return context_.store.issue(r.appId, dumpJson(r.device));
    };
    RegistrationReply reply = handleRegistration(request.body(), context_.options.apps, issue,
                                                 context_.options.limits.maxDeviceBytes);
    context_.metrics.countRegistration(reply.status);
    if (reply.status == 413)
      context_.limitLogs.devices.hit(peer_);
    else
      logf("%s from %s", reply.logLine.c_str(), peer_.c_str());
    respond(reply.status, std::move(reply.body), request.keep_alive(), true);
  }

  void upgrade(UpgradeRequest request) {
    if (pathOf(request.target()) != "/ws") return respond(404, "no such endpoint", false);
    const std::string clientId(request["clientId"]);
    const std::string secret(request["clientSecret"]);
    const auto found = context_.store.authenticate(clientId, secret);
    if (found.verdict == ClientStore::Verdict::unavailable) {
      // Not the client's fault: it must keep its identity and come back.
      logf("upgrade refused (503) from %s: the identity store is unavailable", peer_.c_str());
      return respond(503, "the identity store is unavailable", false, false, 1);
    }
    if (found.verdict != ClientStore::Verdict::accepted) {
      const bool unknown = found.verdict == ClientStore::Verdict::unknownClient;
      logf("upgrade refused (%u) from %s: %s \"%s\"", kStatusUnknownClient, peer_.c_str(),
           unknown ? "unknown client" : "wrong secret for client", forLog(clientId).c_str());
      return respond(kStatusUnknownClient, "unknown client or wrong secret", false);
    }
    SessionClient client{found.key, found.appId,
                         clientId,  forLog(request["app_version"]),
                         peer_,     std::exchange(slot_, 0)};
    lowest().expires_never();
    startWsSession(std::move(stream_), std::move(request), std::move(client), context_);
  }

  // /healthz and /metrics take no credentials: operators firewall them.
  void operatorEndpoint(const UpgradeRequest& request, std::string_view path) {
    const bool head = request.method() == http::verb::head;
    if (!head && request.method() != http::verb::get)
      return respond(405, "use GET or HEAD", request.keep_alive(), false, 0, "GET, HEAD");
    OperatorReply reply = *operatorReply(path, context_);
    auto response =
        makeResponse(reply.status, reply.contentType, std::move(reply.body), request.keep_alive());
    response->set(http::field::cache_control, "no-store");
    if (head) response->body().clear();  // Content-Length stays that of the GET
    write(std::move(response));
  }

  // Bodies are JSON: `body` as it is when `isJson`, else {"error": body}.
  void respond(unsigned status, std::string body, bool keepAlive, bool isJson = false,
               unsigned retryAfterSeconds = 0, std::string_view allow = "POST") {
    auto response = makeResponse(status, "application/json",
                                 isJson ? std::move(body) : dumpJson({{"error", body}}), keepAlive);
    if (status == 405) response->set(http::field::allow, allow);
    if (retryAfterSeconds != 0)
      response->set(http::field::retry_after, std::to_string(retryAfterSeconds));
    write(std::move(response));
  }

  static std::shared_ptr<Response> makeResponse(unsigned status, std::string_view contentType,
                                                std::string body, bool keepAlive) {
    auto response = std::make_shared<Response>();
    response->result(status);
    response->reason(reasonFor(status));
    response->version(11);
    response->set(http::field::server, kServerName);
    response->set(http::field::content_type, contentType);
    response->keep_alive(keepAlive);
    response->body() = std::move(body);
    response->prepare_payload();
    return response;
  }

  void write(std::shared_ptr<Response> response) {
    lowest().expires_after(context_.options.limits.httpTimeout);
    http::async_write(
        stream_, *response,
        [self = this->shared_from_this(), response](beast::error_code ec, std::size_t) {
          if (ec) return;
          if (!response->keep_alive()) return self->closeGracefully();
          self->readRequest();
        });
  }

  // FIN rather than RST, so that the client surely reads the last response.
  void closeGracefully() {
    if constexpr (kTls) {
      lowest().expires_after(context_.options.limits.httpTimeout);
      stream_.async_shutdown([self = this->shared_from_this()](beast::error_code) {});
    } else {
      beast::error_code ignored;
      lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
    }
  }

  Stream stream_;
  boost::asio::ip::address address_;
  std::string peer_;
  uint64_t slot_ = 0;  // the connection's count in the address limits
  ServerContext& context_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  uint64_t registryId_ = 0;
};

}  // namespace

void startHttpSession(tcp::socket socket, const tcp::endpoint& peer, uint64_t slot,
                      ServerContext& context) {
  if (context.tls) {
    std::make_shared<HttpSession<TlsStream>>(TlsStream(std::move(socket), *context.tls), peer, slot,
                                             context)
        ->start();
  } else {
    std::make_shared<HttpSession<PlainStream>>(PlainStream(std::move(socket)), peer, slot, context)
        ->start();
  }
}

}  // namespace tellora::server
