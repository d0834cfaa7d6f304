// A loopback HTTP/1.1 server for tests (Boost.Beast), http:// or https://.
// It records every request and answers each one through a scriptable handler:
// a status and body, optionally after a delay, or misbehaviour (hanging up
// without an answer, raw bytes that are not HTTP).
//
//   tellora::testing::HttpTestServer server;                  // plain, already listening
//   server.setHandler([](const HttpRequestRecord& request) {  // runs on the server thread
//     if (request.target != "/register") return HttpReply::json(404, "{}");
//     return HttpReply::json(200, R"({"clientId":"a","clientSecret":"b"})");
//   });
//   ... POST to server.url("/register") ...
//   ASSERT_TRUE(server.waitFor([](const auto& log) { return log.requests.size() == 1; }));
//   EXPECT_EQ(server.requests()[0].header("Content-Type"), "application/json");
#pragma once

#include <ostream>

#include "tests/support/loopback_server.h"

namespace tellora::testing {

struct HttpRequestRecord : RecordedRequest {
  std::string body;
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

  // For test parameters: gtest would otherwise print the raw bytes, padding
  // included, which valgrind reports as uninitialised.
  friend void PrintTo(const HttpReply& reply, std::ostream* out) {
    *out << reply.status << " " << reply.body;
  }

  static HttpReply json(unsigned status, std::string body);
  static HttpReply hangUpAfter(std::chrono::milliseconds delay = {});
  static HttpReply rawBytes(std::string bytes);
};

struct HttpServerLog {
  std::vector<HttpRequestRecord> requests;  // in arrival order
  std::size_t failedTlsHandshakes = 0;      // e.g. a client that does not trust the server
};

class HttpTestServer : public LoggingLoopbackServer<HttpServerLog> {
 public:
  // Called on the server thread for each request; one that throws answers 500.
  using RequestHandler = std::function<HttpReply(const HttpRequestRecord&)>;

  // Starts listening at once.
  explicit HttpTestServer(std::shared_ptr<const TestCertificates> certificates = nullptr);
  ~HttpTestServer();

  // "http://127.0.0.1:<port><path>" or "https://...".
  std::string url(std::string_view path = "/", std::string_view host = "127.0.0.1") const {
    return urlWith("http", path, host);
  }

  // Replaces the handler. The default one answers 404 with an empty body.
  void setHandler(RequestHandler handler);
  // Answers every request with this reply from now on.
  void setReply(HttpReply reply);

  std::vector<HttpRequestRecord> requests() const { return log().requests; }

 private:
  std::shared_ptr<Watched<RequestHandler>> handler_ = std::make_shared<Watched<RequestHandler>>();
};

}  // namespace tellora::testing
