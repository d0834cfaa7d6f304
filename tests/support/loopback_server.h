// What the loopback test servers (HttpTestServer, WsTestServer) share: a
// listener on 127.0.0.1 on an ephemeral port, plain or TLS, on a thread and
// io_context of its own, that can go away and come back on the same port; the
// request it records; and a log of what it saw that tests wait on.
//
// Every public member is thread-safe and may be called from any thread,
// including from inside a server's handler (which runs on the server thread).
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
#include "tests/support/watched.h"

namespace tellora::testing {

namespace detail {
class LoopbackListener;
}

// One HTTP request (or upgrade request) as the server received it.
struct RecordedRequest {
  uint64_t connectionId = 0;
  std::string method;  // "POST"
  std::string target;  // path and query, e.g. "/register"
  // Every header field in the order received, names as spelled by the client.
  std::vector<std::pair<std::string, std::string>> headers;

  // The value of the first field with this name (case-insensitive), if any.
  std::optional<std::string> header(std::string_view name) const;
  // How many fields carry this name (case-insensitive).
  std::size_t headerCount(std::string_view name) const;
};

class LoopbackServer {
 public:
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  uint16_t port() const;
  // The TLS material in use (null for a plain server).
  std::shared_ptr<const TestCertificates> certificates() const { return certificates_; }

  // Goes away: closes the listener and resets every connection (no goodbye of
  // any kind); connecting then fails (connection refused) until start().
  void stop();
  // Comes back on the same port. No effect while running.
  void start();

 protected:
  // TLS with these certificates when given, plain otherwise. The subclass
  // starts the listener once its own state exists.
  explicit LoopbackServer(std::shared_ptr<const TestCertificates> certificates);
  ~LoopbackServer();
  // "<scheme>://<host>:<port><path>", the scheme gaining an "s" under TLS.
  // Pass host "localhost" to test name-based certificate checks.
  std::string urlWith(std::string_view scheme, std::string_view path, std::string_view host) const;

  std::shared_ptr<const TestCertificates> certificates_;
  std::unique_ptr<detail::LoopbackListener> listener_;
};

// A loopback server with a log of type `Log`: a snapshot of what it has seen
// since it was created or last cleared.
template <class Log>
class LoggingLoopbackServer : public LoopbackServer {
 public:
  Log log() const { return log_->get(); }
  void clearLog() {
    log_->update([](Log& log) { log = Log{}; });
  }
  // Waits until the predicate holds on the log (checked under the log's lock,
  // keep it short) or the timeout passes; returns whether it held.
  bool waitFor(const std::function<bool(const Log&)>& predicate,
               std::chrono::milliseconds timeout = kDefaultWait) const {
    return log_->waitUntil(predicate, timeout);
  }

 protected:
  using LoopbackServer::LoopbackServer;
  // Shared with the connections, which may outlive this object by a moment.
  std::shared_ptr<Watched<Log>> log_ = std::make_shared<Watched<Log>>();
};

}  // namespace tellora::testing
