#include "tests/facade/match_server.h"

#include "tests/runtime/runtime_sandbox.h"

namespace tellora::facade_test {

namespace {

double localMilliseconds() {
  using namespace std::chrono;
  return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

nlohmann::json parse(const std::string& text) {
  return nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
}

}  // namespace

MatchServer::MatchServer() {
  server_.setHandler([script = script_](const testing::WsFrame& frame) {
    std::vector<testing::WsReply> replies;
    const nlohmann::json request = parse(frame.payload);
    if (!request.is_object() || !request.contains("id")) return replies;
    nlohmann::json reply = {{"requestId", request["id"]}};
    std::lock_guard lock(script->mutex);
    switch (request.value("type", -1)) {
      case 2:
        reply["data"] = {{"nearby", script->nearby}};
        replies.push_back({reply.dump()});
        for (const auto& push : script->pushesAfterNearby) {
          replies.push_back({push, std::chrono::milliseconds(20)});
        }
        return replies;
      case 3:
        reply["data"] = {{"time", localMilliseconds() + script->clockOffset}};
        break;
      default:
        break;
    }
    replies.push_back({reply.dump()});
    return replies;
  });
}

void MatchServer::setClockOffset(double milliseconds) {
  std::lock_guard lock(script_->mutex);
  script_->clockOffset = milliseconds;
}

void MatchServer::setNearby(nlohmann::json nearby) {
  std::lock_guard lock(script_->mutex);
  script_->nearby = std::move(nearby);
}

void MatchServer::pushAfterNearbyRequest(std::vector<std::string> pushes) {
  std::lock_guard lock(script_->mutex);
  script_->pushesAfterNearby = std::move(pushes);
}

std::vector<nlohmann::json> MatchServer::requests() const {
  std::vector<nlohmann::json> parsed;
  for (const auto& frame : server_.log().frames)
    parsed.push_back(parse(frame.payload));
  return parsed;
}

std::vector<nlohmann::json> MatchServer::requestsOfType(int type) const {
  std::vector<nlohmann::json> matching;
  for (auto& request : requests()) {
    if (request.is_object() && request.value("type", -1) == type) matching.push_back(request);
  }
  return matching;
}

bool MatchServer::waitForRequestsOfType(int type, std::size_t count,
                                        std::chrono::milliseconds timeout) const {
  return testing::waitUntil([&] { return requestsOfType(type).size() >= count; }, timeout);
}

std::string MatchServer::foundPush(const std::string& clientID, const nlohmann::json& payload) {
  return nlohmann::json{{"type", 102}, {"data", {{"clientId", clientID}, {"payload", payload}}}}
      .dump();
}

void MatchServer::pushFound(const std::string& clientID, const nlohmann::json& payload) {
  server_.pushText(foundPush(clientID, payload));
}

void MatchServer::pushLost(const std::string& clientID) {
  server_.pushText(nlohmann::json{{"type", 103}, {"data", {{"clientId", clientID}}}}.dump());
}

}  // namespace tellora::facade_test
