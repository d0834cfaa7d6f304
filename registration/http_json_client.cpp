#include "registration/http_json_client.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "registration/http_error.h"
#include "registration/http_url.h"
#include "transport/tls_context.h"

namespace tellora {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

constexpr const char* kUserAgent = "Tellora/1.0";
// Interim 1xx responses (such as 103 Early Hints) skipped before giving up.
constexpr int kMaxInterimResponses = 8;
// Redirects followed before the last one counts as the failure it is.
constexpr int kMaxRedirects = 5;

bool isRedirect(unsigned status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Where a redirect leads: `location` resolved against `base`. Never from
// https down to plain http, and nowhere without a Location (an empty
// reference would resolve to the same URL again).
std::optional<std::string> redirectTarget(const std::string& base, std::string_view location) {
  if (location.find_first_not_of(" \t") == std::string_view::npos) return std::nullopt;
  auto from = boost::urls::parse_uri(base);
  auto reference = boost::urls::parse_uri_reference(location);
  if (!from || !reference) return std::nullopt;
  boost::urls::url target;
  if (!boost::urls::resolve(*from, *reference, target)) return std::nullopt;
  if (from->scheme() == "https" && target.scheme() != "https") return std::nullopt;
  target.remove_fragment();
  return std::string(target.buffer());
}

// What one exchange sends: where, how, and what is left of the redirects.
struct HttpRequestPlan {
  std::string url;
  http::verb method = http::verb::post;
  std::string body;
  HttpTimeouts timeouts;
  int redirectsLeft = kMaxRedirects;
};

void startRequest(net::io_context& context, HttpRequestPlan plan, HttpJsonCompletion completion);

std::string describe(const beast::error_code& ec) {
  return std::string(ec.category().name()) + ":" + std::to_string(ec.value()) + " " + ec.message();
}

bool isBlank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool isSuccess(unsigned status) {
  return status >= 200 && status <= 299;
}

TLRHTTPErrorCode readFailureCode(const beast::error_code& ec) {
  if (ec == http::error::body_limit || ec == http::error::header_limit ||
      ec == http::error::buffer_overflow) {
    return TLRHTTPErrorCode::ResponseTooLarge;
  }
  if (ec == http::error::end_of_stream || ec == http::error::partial_message ||
      ec == net::error::eof || ec == net::error::connection_reset ||
      ec == net::error::connection_aborted || ec == net::error::broken_pipe ||
      ec == ssl::error::stream_truncated) {
    return TLRHTTPErrorCode::NetworkConnectionLost;
  }
  // Every other parser error means the bytes were not an HTTP/1.x response.
  if (ec.category() == make_error_code(http::error::bad_version).category()) {
    return TLRHTTPErrorCode::BadServerResponse;
  }
  return TLRHTTPErrorCode::NetworkConnectionLost;
}

// One request and its response. Every step runs on the context's thread; the
// first outcome (a step's result or a deadline) wins and later ones are ignored.
template <bool Secure>
class Exchange final : public std::enable_shared_from_this<Exchange<Secure>> {
 public:
  using Stream =
      std::conditional_t<Secure, beast::ssl_stream<beast::tcp_stream>, beast::tcp_stream>;

  Exchange(net::io_context& context, HttpEndpoint endpoint, HttpRequestPlan plan,
           HttpJsonCompletion completion)
      : context_(context),
        endpoint_(std::move(endpoint)),
        timeouts_(plan.timeouts),
        plan_(std::move(plan)),
        completion_(std::move(completion)),
        resolver_(context),
        connectDeadline_(context),
        requestDeadline_(context) {
    if constexpr (Secure) {
      tls_ = std::make_unique<ssl::context>(makeClientTlsContext());
      stream_ = std::make_unique<Stream>(context, *tls_);
    } else {
      stream_ = std::make_unique<Stream>(context);
    }
    request_.method(plan_.method);
    request_.target(endpoint_.target);
    request_.version(11);
    request_.set(http::field::host, endpoint_.hostHeader);
    request_.set(http::field::user_agent, kUserAgent);
    request_.set(http::field::accept, "application/json");
    if (plan_.method == http::verb::post)
      request_.set(http::field::content_type, "application/json");
    request_.keep_alive(false);
    request_.body() = plan_.body;
    request_.prepare_payload();
  }

  void start() {
    arm(requestDeadline_, timeouts_.request, "The request timed out");
    arm(connectDeadline_, timeouts_.connect, "Connecting to the server timed out");
    resolver_.async_resolve(endpoint_.host, endpoint_.port,
                            [self = this->shared_from_this()](beast::error_code ec,
                                                              tcp::resolver::results_type results) {
                              self->onResolve(ec, std::move(results));
                            });
  }

 private:
  void arm(net::steady_timer& deadline, std::chrono::milliseconds limit, const char* message) {
    deadline.expires_after(limit);
    deadline.async_wait([self = this->shared_from_this(), message](beast::error_code ec) {
      if (ec) return;  // cancelled: the exchange ended or passed this stage
      self->fail(makeHTTPError(TLRHTTPErrorCode::TimedOut, message, self->status_));
    });
  }

  void onResolve(beast::error_code ec, tcp::resolver::results_type results) {
    if (finished_) return;
    if (ec) {
      return fail(makeHTTPError(TLRHTTPErrorCode::CannotFindHost,
                                "A server with the specified host name could not be found",
                                std::nullopt, describe(ec)));
    }
    beast::get_lowest_layer(*stream_).async_connect(
        results, [self = this->shared_from_this()](beast::error_code ec, tcp::endpoint) {
          self->onConnect(ec);
        });
  }

  void onConnect(beast::error_code ec) {
    if (finished_) return;
    if (ec) {
      return fail(makeHTTPError(TLRHTTPErrorCode::CannotConnectToHost,
                                "Could not connect to the server", std::nullopt, describe(ec)));
    }
    if constexpr (Secure) {
      if (auto error = prepareTlsClient(stream_->native_handle(), endpoint_.host)) {
        return fail(makeHTTPError(TLRHTTPErrorCode::SecureConnectionFailed,
                                  "A secure connection could not be set up", std::nullopt,
                                  describe(error)));
      }
      stream_->async_handshake(
          ssl::stream_base::client,
          [self = this->shared_from_this()](beast::error_code ec) { self->onTlsHandshake(ec); });
    } else {
      connectDeadline_.cancel();
      send();
    }
  }

  void onTlsHandshake(beast::error_code ec) {
    if (finished_) return;
    if (ec) {
      const long verification = SSL_get_verify_result(stream_->native_handle());
      if (verification != X509_V_OK) {
        return fail(makeHTTPError(TLRHTTPErrorCode::ServerCertificateUntrusted,
                                  std::string("The server's certificate is not trusted: ") +
                                      X509_verify_cert_error_string(verification),
                                  std::nullopt, describe(ec)));
      }
      return fail(makeHTTPError(TLRHTTPErrorCode::SecureConnectionFailed,
                                "The TLS handshake failed", std::nullopt, describe(ec)));
    }
    connectDeadline_.cancel();
    send();
  }

  void send() {
    http::async_write(
        *stream_, request_,
        [self = this->shared_from_this()](beast::error_code ec, std::size_t) { self->onSent(ec); });
  }

  void onSent(beast::error_code ec) {
    if (finished_) return;
    if (ec) {
      return fail(makeHTTPError(TLRHTTPErrorCode::NetworkConnectionLost,
                                "The connection was lost while sending the request", std::nullopt,
                                describe(ec)));
    }
    readHeader();
  }

  void readHeader() {
    parser_.emplace();
    parser_->body_limit(kHttpResponseBodyLimit);
    http::async_read_header(*stream_, buffer_, *parser_,
                            [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                              self->onHeader(ec);
                            });
  }

  void onHeader(beast::error_code ec) {
    if (finished_) return;
    // A Content-Length over the limit is refused once the whole header is in,
    // so the status is known and a refusal still counts as one.
    const bool declaredTooLarge = ec == http::error::body_limit;
    if (ec && !declaredTooLarge) {
      return fail(makeHTTPError(readFailureCode(ec), "No valid response header arrived",
                                std::nullopt, describe(ec)));
    }
    const unsigned status = parser_->get().result_int();
    if (status < 200) {
      if (status < 100 || status == 101 || ++interimResponses_ > kMaxInterimResponses) {
        return fail(makeHTTPError(TLRHTTPErrorCode::BadServerResponse,
                                  "Unexpected status " + std::to_string(status)));
      }
      return readHeader();
    }
    status_ = status;
    if (isRedirect(status) && plan_.redirectsLeft > 0) {
      const auto location = parser_->get()[http::field::location];
      if (auto target =
              redirectTarget(plan_.url, std::string_view(location.data(), location.size())))
        return followRedirect(std::move(*target), status);
    }
    // The body of a refusal carries nothing the caller reads.
    if (!isSuccess(status)) return fail(makeHTTPStatusError(status));
    if (declaredTooLarge) {
      return fail(makeHTTPError(TLRHTTPErrorCode::ResponseTooLarge,
                                "The response body is too large", status_, describe(ec)));
    }
    if (parser_->is_done()) return onBody({});
    http::async_read(
        *stream_, buffer_, *parser_,
        [self = this->shared_from_this()](beast::error_code ec, std::size_t) { self->onBody(ec); });
  }

  void onBody(beast::error_code ec) {
    if (finished_) return;
    if (ec) {
      return fail(makeHTTPError(readFailureCode(ec), "The response body could not be read", status_,
                                describe(ec)));
    }
    HttpJsonResponse response{*status_, nullptr};
    const std::string& text = parser_->get().body();
    if (!isBlank(text)) {
      response.body = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
      if (response.body.is_discarded()) {
        return fail(makeHTTPError(TLRHTTPErrorCode::CannotParseResponse,
                                  "The response body is not JSON", status_));
      }
    }
    finish(std::move(response));
  }

  void fail(TLRError error) { finish(std::move(error)); }

  // As the phone platform's HTTP library does: the request goes again to the
  // new place (an http -> https move, say). 303 means "fetch the result": a
  // GET without body; the others repeat the POST with its body.
  void followRedirect(std::string target, unsigned status) {
    HttpRequestPlan next = plan_;
    next.url = std::move(target);
    next.redirectsLeft = plan_.redirectsLeft - 1;
    if (status == 303) {
      next.method = http::verb::get;
      next.body.clear();
    }
    auto completion = std::move(completion_);
    completion_ = nullptr;
    finish(HttpJsonResponse{});  // closes this exchange; nobody hears of it
    startRequest(context_, std::move(next), std::move(completion));
  }

  void finish(HttpJsonResult result) {
    if (finished_) return;
    finished_ = true;
    connectDeadline_.cancel();
    requestDeadline_.cancel();
    resolver_.cancel();
    // Steps still in flight end with operation_aborted and find finished_ set.
    beast::error_code ignored;
    beast::get_lowest_layer(*stream_).socket().close(ignored);
    auto completion = std::move(completion_);
    completion_ = nullptr;
    if (completion) completion(std::move(result));
  }

  net::io_context& context_;
  const HttpEndpoint endpoint_;
  const HttpTimeouts timeouts_;
  const HttpRequestPlan plan_;
  HttpJsonCompletion completion_;
  tcp::resolver resolver_;
  net::steady_timer connectDeadline_;
  net::steady_timer requestDeadline_;
  std::unique_ptr<ssl::context> tls_;  // declared before stream_, which refers to it
  std::unique_ptr<Stream> stream_;
  http::request<http::string_body> request_;
  beast::flat_buffer buffer_;
  std::optional<http::response_parser<http::string_body>> parser_;
  std::optional<unsigned> status_;  // once a final response header arrived
  int interimResponses_ = 0;
  bool finished_ = false;
};

template <bool Secure>
void startExchange(net::io_context& context, HttpEndpoint endpoint, HttpRequestPlan plan,
                   HttpJsonCompletion completion) {
  auto exchange = std::make_shared<Exchange<Secure>>(context, std::move(endpoint), std::move(plan),
                                                     std::move(completion));
  net::post(context, [exchange] { exchange->start(); });
}

void startRequest(net::io_context& context, HttpRequestPlan plan, HttpJsonCompletion completion) {
  auto parsed = parseHttpUrl(plan.url);
  if (const auto* code = std::get_if<TLRHTTPErrorCode>(&parsed)) {
    TLRError error = makeHTTPError(*code, *code == TLRHTTPErrorCode::UnsupportedURL
                                              ? "The URL's scheme is not http or https"
                                              : "The URL is not valid");
    net::post(context, [completion = std::move(completion), error = std::move(error)]() mutable {
      if (completion) completion(std::move(error));
    });
    return;
  }
  auto& endpoint = std::get<HttpEndpoint>(parsed);
  if (endpoint.secure) {
    startExchange<true>(context, std::move(endpoint), std::move(plan), std::move(completion));
  } else {
    startExchange<false>(context, std::move(endpoint), std::move(plan), std::move(completion));
  }
}

}  // namespace

void postJson(net::io_context& context, const std::string& url, const nlohmann::json& body,
              HttpJsonCompletion completion, HttpTimeouts timeouts) {
  HttpRequestPlan plan;
  plan.url = url;
  // Strings that are not valid UTF-8 (from the environment, say) are sent
  // with replacement characters instead of failing the request.
  plan.body = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  plan.timeouts = timeouts;
  startRequest(context, std::move(plan), std::move(completion));
}

}  // namespace tellora
