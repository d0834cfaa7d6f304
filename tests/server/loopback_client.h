// Blocking clients of a tellora-server on 127.0.0.1 for tests: one HTTP
// request, or a WebSocket session that sends requests and reads what comes
// back. Every wait has a time limit, so a server that never answers fails the
// test instead of hanging it. Plain or TLS (trusting the given CA file).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace tellora::server_test {

using namespace std::chrono_literals;
using Headers = std::vector<std::pair<std::string, std::string>>;

struct Endpoint {
  uint16_t port = 0;
  std::string caFile;          // set: TLS, trusting this CA
  int receiveBufferBytes = 0;  // set: SO_RCVBUF of the client's socket
  std::string sourceAddress;   // set: connect from this address (e.g. 127.0.0.2)
};

struct HttpResult {
  unsigned status = 0;  // 0: no response (refused, reset, timed out)
  std::string body;
  std::string retryAfter;  // the Retry-After header, when there was one
  std::string contentType;
  std::string contentLength;
};
HttpResult httpRequest(const Endpoint& endpoint, const std::string& method,
                       const std::string& target, const std::string& body = {});

// POST /register with application `appId`/`appSecret`; the identity is empty unless 200.
struct Registration {
  unsigned status = 0;
  std::string clientId;
  std::string clientSecret;
};
Registration registerClient(const Endpoint& endpoint, int64_t appId, const std::string& appSecret);

// One received message, or how the session ended.
struct WsMessage {
  bool closed = false;
  uint16_t closeCode = 0;  // when closed by a close frame
  bool text = false;
  std::string payload;
};

class WsClient {
 public:
  // Opens `target` with the headers. On refusal returns null and sets
  // `refusedStatus` to the HTTP status (0 when there was no HTTP answer).
  static std::unique_ptr<WsClient> open(const Endpoint& endpoint, const Headers& headers,
                                        unsigned* refusedStatus = nullptr,
                                        const std::string& target = "/ws");
  // Opens /ws with the identity headers the SDK sends.
  static std::unique_ptr<WsClient> open(const Endpoint& endpoint, const Registration& identity,
                                        unsigned* refusedStatus = nullptr);
  virtual ~WsClient() = default;

  virtual bool send(const std::string& bytes, bool text = false) = 0;
  // Writes the bytes straight to the TCP stream, below the WebSocket layer.
  virtual bool sendRaw(const std::string& bytes) = 0;
  // The next message, or nullopt when none came within `timeout`.
  virtual std::optional<WsMessage> receive(std::chrono::milliseconds timeout = 5s) = 0;

  // Sends {"type","id","data"} as the SDK does (binary) and returns the reply
  // carrying "requestId" == id, keeping the pushes that arrive on the way.
  std::optional<nlohmann::json> request(int type, int64_t id,
                                        const std::optional<nlohmann::json>& data = std::nullopt);
  // Reads until the session ends; its close code, or nullopt after `timeout`.
  std::optional<uint16_t> awaitClose(std::chrono::milliseconds timeout = 5s);

  std::vector<nlohmann::json> pushes;  // kept by request()
  bool sawBinaryReply = false;         // the server must answer in text frames

 private:
  // Receives until `wanted` accepts a message or the session ends; the last
  // message, or nullopt after `timeout`.
  std::optional<WsMessage> receiveUntil(std::chrono::milliseconds timeout,
                                        const std::function<bool(const WsMessage&)>& wanted);
};

}  // namespace tellora::server_test
