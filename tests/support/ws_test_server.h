// A loopback WebSocket server for tests (Boost.Beast).
//
// It listens on 127.0.0.1 on an ephemeral port, plain (ws://) or TLS (wss://),
// on a thread and io_context of its own. It records every upgrade request and
// every frame a client sends, answers frames through a scriptable handler, and
// can misbehave on request: refuse upgrades with an HTTP status, close with a
// close code, drop the TCP connection, go away and come back on the same port.
//
// Typical use:
//
//   tellora::testing::WsTestServer server;                // plain ws://, already listening
//   server.setHandler([](const WsFrame& frame) {          // runs on the server thread
//     return std::vector<WsReply>{{"{\"requestId\":0}", std::chrono::milliseconds(50)}};
//   });
//   ... connect a client to server.url() ...
//   ASSERT_TRUE(server.waitForFrames(1));
//   EXPECT_TRUE(server.log().frames[0].binary);
//   server.pushText("{\"type\":103,\"data\":{\"clientId\":\"a\"}}");
//   server.closeConnections(3001);
//
// Every public member is thread-safe and may be called from any thread,
// including from inside the handler (which runs on the server thread).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/test_certificates.h"

namespace tellora::testing {

namespace detail {
class WsTestServerCore;
}

// One HTTP upgrade request as the server received it.
struct WsUpgradeRequest {
  uint64_t connectionId = 0;
  std::string method;
  std::string target;  // path and query, e.g. "/ws"
  // Every header field in the order received, names as spelled by the client.
  std::vector<std::pair<std::string, std::string>> headers;
  // The HTTP status it was refused with, or 0 when it was accepted.
  unsigned refusedWithStatus = 0;

  // The value of the first field with this name (case-insensitive), if any.
  std::optional<std::string> header(std::string_view name) const;
  // How many fields carry this name (case-insensitive).
  std::size_t headerCount(std::string_view name) const;
};

// One data frame (a whole message) received from a client.
struct WsFrame {
  uint64_t connectionId = 0;
  std::string payload;
  bool binary = false;
};

// One scripted reply: a text frame sent back on the connection the frame came
// from, after `delay`.
struct WsReply {
  std::string text;
  std::chrono::milliseconds delay{0};
};

// A snapshot of what the server has seen since it was created or last cleared.
struct WsServerLog {
  std::vector<WsUpgradeRequest> upgrades;  // accepted and refused ones, in order
  std::vector<WsFrame> frames;             // data frames from clients, in arrival order
  std::vector<uint16_t> clientCloseCodes;  // close frames the clients sent
  std::size_t acceptedConnections = 0;     // upgrades accepted in total
  std::size_t openConnections = 0;         // WebSocket sessions open right now
  std::size_t endedConnections = 0;        // accepted sessions that have ended since
  std::size_t failedTlsHandshakes = 0;     // TLS handshakes that failed (e.g. untrusted)
};

class WsTestServer {
 public:
  enum class Security { Plain, Tls };
  // Called on the server thread for each client frame; returns the replies.
  using FrameHandler = std::function<std::vector<WsReply>(const WsFrame&)>;

  // Starts listening at once. Tls without certificates generates a fresh set.
  explicit WsTestServer(Security security = Security::Plain,
                        std::shared_ptr<const TestCertificates> certificates = nullptr);
  ~WsTestServer();
  WsTestServer(const WsTestServer&) = delete;
  WsTestServer& operator=(const WsTestServer&) = delete;

  uint16_t port() const;
  // "ws://127.0.0.1:<port><path>" or "wss://...". Pass host "localhost" to test
  // name-based certificate checks.
  std::string url(std::string_view path = "/ws", std::string_view host = "127.0.0.1") const;
  // The TLS material in use (null for a plain server).
  std::shared_ptr<const TestCertificates> certificates() const { return certificates_; }

  // Goes away: closes the listener and drops every connection without a
  // close frame. Connecting then fails until start().
  void stop();
  // Comes back on the same port. No effect while running.
  void start();
  bool isRunning() const;

  // --- Behaviour -------------------------------------------------------------
  // Replaces the frame handler (the default one answers nothing).
  void setHandler(FrameHandler handler);
  // Refuses the next `count` upgrade requests with this HTTP status (e.g. 801).
  void refuseUpgrades(unsigned status, std::size_t count = 1);
  // Refuses every upgrade request from now on, until acceptUpgrades().
  void refuseAllUpgrades(unsigned status);
  void acceptUpgrades();
  // Sends a text (or binary) frame to every open connection; returns how many
  // connections it was queued on.
  std::size_t pushText(std::string text);
  std::size_t pushBinary(std::string bytes);
  // Starts the closing handshake with this close code on every open connection.
  std::size_t closeConnections(uint16_t code, std::string reason = {});
  // Resets every open connection at the TCP level (no close frame).
  std::size_t dropConnections();

  // --- What happened ---------------------------------------------------------
  WsServerLog log() const;
  void clearLog();
  // Waits until the predicate holds on the log (checked under the log's lock,
  // keep it short) or the timeout passes; returns whether it held.
  bool waitFor(const std::function<bool(const WsServerLog&)>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  bool waitForFrames(std::size_t count,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  bool waitForUpgrades(std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  bool waitForOpenConnections(std::size_t count,
                              std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  bool waitForEndedConnections(std::size_t count,
                               std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

 private:
  std::shared_ptr<const TestCertificates> certificates_;
  std::shared_ptr<detail::WsTestServerCore> core_;
};

}  // namespace tellora::testing
