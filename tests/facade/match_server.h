// A loopback matching server speaking the SDK's WebSocket protocol: it answers
// every request by its "id", reads its clock with a chosen offset from the
// local one, hands out a scripted nearby list, and pushes found/lost on demand.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/ws_test_server.h"

namespace tellora::facade_test {

class MatchServer {
 public:
  MatchServer();
  MatchServer(const MatchServer&) = delete;
  MatchServer& operator=(const MatchServer&) = delete;

  testing::WsTestServer& ws() { return server_; }
  std::string url() const { return server_.url("/ws"); }

  // The server's clock = the local wall clock + this (ms).
  void setClockOffset(double milliseconds);
  // The "nearby" list of every get-all-nearby reply.
  void setNearby(nlohmann::json nearby);
  // Pushed (after the reply) whenever a get-all-nearby request comes in.
  void pushAfterNearbyRequest(std::vector<std::string> pushes);

  // Every request the clients sent, parsed, in arrival order (unparseable
  // frames as null).
  std::vector<nlohmann::json> requests() const;
  std::vector<nlohmann::json> requestsOfType(int type) const;
  bool waitForRequestsOfType(int type, std::size_t count,
                             std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

  void pushFound(const std::string& clientID, const nlohmann::json& payload);
  void pushLost(const std::string& clientID);

  static std::string foundPush(const std::string& clientID, const nlohmann::json& payload);

 private:
  struct Script {
    std::mutex mutex;
    double clockOffset = 0;
    nlohmann::json nearby = nlohmann::json::array();
    std::vector<std::string> pushesAfterNearby;
  };

  std::shared_ptr<Script> script_ = std::make_shared<Script>();
  testing::WsTestServer server_;
};

}  // namespace tellora::facade_test
