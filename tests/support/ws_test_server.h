// A loopback WebSocket server for tests (Boost.Beast), ws:// or wss://. It
// records every upgrade request and every frame a client sends, answers frames
// through a scriptable handler, and misbehaves on request: refuses upgrades
// with an HTTP status, closes with a close code, ends or drops the TCP connection.
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
#pragma once

#include "tests/support/loopback_server.h"

namespace tellora::testing {

namespace detail {
struct WsBehaviour;
}

struct WsUpgradeRequest : RecordedRequest {
  // The HTTP status it was refused with, or 0 when it was accepted.
  unsigned refusedWithStatus = 0;
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

struct WsServerLog {
  std::vector<WsUpgradeRequest> upgrades;  // accepted and refused ones, in order
  std::vector<WsFrame> frames;             // data frames from clients, in arrival order
  std::vector<uint16_t> clientCloseCodes;  // close frames the clients sent
  std::size_t acceptedConnections = 0;     // upgrades accepted in total
  std::size_t openConnections = 0;         // WebSocket sessions open right now (kept by clearLog)
  std::size_t endedConnections = 0;        // accepted sessions that have ended since
  std::size_t failedTlsHandshakes = 0;     // TLS handshakes that failed (e.g. untrusted)
};

class WsTestServer : public LoggingLoopbackServer<WsServerLog> {
 public:
  // Called on the server thread for each client frame; returns the replies.
  using FrameHandler = std::function<std::vector<WsReply>(const WsFrame&)>;

  // Starts listening at once.
  explicit WsTestServer(std::shared_ptr<const TestCertificates> certificates = nullptr);
  ~WsTestServer();

  // "ws://127.0.0.1:<port><path>" or "wss://...".
  std::string url(std::string_view path = "/ws", std::string_view host = "127.0.0.1") const {
    return urlWith("ws", path, host);
  }

  // Replaces the frame handler (the default one answers nothing).
  void setHandler(FrameHandler handler);
  // Refuses the next `count` upgrade requests (all of them by default) with
  // this HTTP status (e.g. 801).
  void refuseUpgrades(unsigned status, std::size_t count = SIZE_MAX);
  // Sends a text frame to every open connection; returns how many connections
  // it was queued on.
  std::size_t pushText(std::string text);
  // Starts the closing handshake with this close code on every open connection.
  std::size_t closeConnections(uint16_t code, std::string reason = {});
  // Ends the byte stream of every open connection (a FIN, no close frame).
  std::size_t endStreams();

  void clearLog();
  bool waitForFrames(std::size_t count, std::chrono::milliseconds timeout = kDefaultWait) const {
    return waitFor([=](const WsServerLog& log) { return log.frames.size() >= count; }, timeout);
  }
  bool waitForUpgrades(std::size_t count, std::chrono::milliseconds timeout = kDefaultWait) const {
    return waitFor([=](const WsServerLog& log) { return log.upgrades.size() >= count; }, timeout);
  }
  bool waitForOpenConnections(std::size_t count,
                              std::chrono::milliseconds timeout = kDefaultWait) const {
    return waitFor([=](const WsServerLog& log) { return log.openConnections == count; }, timeout);
  }
  bool waitForEndedConnections(std::size_t count,
                               std::chrono::milliseconds timeout = kDefaultWait) const {
    return waitFor([=](const WsServerLog& log) { return log.endedConnections >= count; }, timeout);
  }

 private:
  std::shared_ptr<Watched<detail::WsBehaviour>> behaviour_;
};

}  // namespace tellora::testing
