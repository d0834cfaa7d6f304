// A loopback HTTP/1.1 server for tests (Boost.Beast).
//
// It listens on 127.0.0.1 on an ephemeral port, plain (http://) or TLS
// (https://), on a thread and io_context of its own. It records every request
// (method, target, header fields, body) and answers each one through a
// scriptable handler: a status and body, optionally after a delay, or
// misbehaviour (hanging up without an answer, raw bytes that are not HTTP).
//
// Typical use:
//
//   tellora::testing::HttpTestServer server;                  // plain, already listening
//   server.setHandler([](const HttpRequestRecord& request) {  // runs on the server thread
//     if (request.target != "/register") return HttpReply::json(404, "{}");
//     return HttpReply::json(200, R"({"clientId":"a","clientSecret":"b"})");
//   });
//   ... POST to server.url("/register") ...
//   ASSERT_TRUE(server.waitForRequests(1));
//   EXPECT_EQ(server.requests()[0].header("Content-Type"), "application/json");
//
// Every public member is thread-safe and may be called from any thread,
// including from inside the handler.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/test_certificates.h"

namespace tellora::testing {

namespace detail {
class HttpTestServerCore;
}

// One request as the server received it.
struct HttpRequestRecord {
  uint64_t connectionId = 0;
  std::string method;  // "POST"
  std::string target;  // path and query, e.g. "/register"
  // Every header field in the order received, names as spelled by the client.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // The value of the first field with this name (case-insensitive), if any.
  std::optional<std::string> header(std::string_view name) const;
  // How many fields carry this name (case-insensitive).
  std::size_t headerCount(std::string_view name) const;
};

// How the server answers one request.
struct HttpReply {
  unsigned status = 200;
  std::string body;
  // The Content-Type field; empty sends none.
  std::string contentType = "application/json";
  // Further header fields, added in order.
  std::vector<std::pair<std::string, std::string>> headers;
  // Waits this long before answering (without blocking other connections).
  std::chrono::milliseconds delay{0};
  // Instead of a response: closes the connection without a word.
  bool hangUp = false;
  // Instead of a formatted response: exactly these bytes, then the connection closes.
  std::optional<std::string> raw;

  static HttpReply json(unsigned status, std::string body);
  static HttpReply hangUpAfter(std::chrono::milliseconds delay = {});
  static HttpReply rawBytes(std::string bytes);
};

// A snapshot of what the server has seen since it was created or last cleared.
struct HttpServerLog {
  std::vector<HttpRequestRecord> requests;  // in arrival order
  std::size_t acceptedConnections = 0;      // TCP connections accepted
  std::size_t failedTlsHandshakes = 0;      // e.g. a client that does not trust the server
};

class HttpTestServer {
 public:
  enum class Security { Plain, Tls };
  // Called on the server thread for each request.
  using RequestHandler = std::function<HttpReply(const HttpRequestRecord&)>;

  // Starts listening at once. Tls without certificates generates a fresh set.
  explicit HttpTestServer(Security security = Security::Plain,
                          std::shared_ptr<const TestCertificates> certificates = nullptr);
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  uint16_t port() const;
  // "http://127.0.0.1:<port><path>" or "https://...". Pass host "localhost" to
  // test name-based certificate checks.
  std::string url(std::string_view path = "/", std::string_view host = "127.0.0.1") const;
  // The TLS material in use (null for a plain server).
  std::shared_ptr<const TestCertificates> certificates() const { return certificates_; }

  // Goes away: closes the listener and drops every connection; connecting then
  // fails (connection refused) until start().
  void stop();
  // Comes back on the same port. No effect while running.
  void start();
  bool isRunning() const;

  // Replaces the handler. The default one answers 404 with an empty body.
  void setHandler(RequestHandler handler);
  // Answers every request with this reply from now on.
  void setReply(HttpReply reply);

  HttpServerLog log() const;
  std::vector<HttpRequestRecord> requests() const;
  void clearLog();
  // Waits until the predicate holds on the log (checked under the log's lock,
  // keep it short) or the timeout passes; returns whether it held.
  bool waitFor(const std::function<bool(const HttpServerLog&)>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

 private:
  std::shared_ptr<const TestCertificates> certificates_;
  std::shared_ptr<detail::HttpTestServerCore> core_;
};

}  // namespace tellora::testing
