// A message service talking to a real loopback WebSocket server, with the
// service's callbacks, pushes, speed notifications and log lines recorded.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "messaging/message_service.h"
#include "runtime/event_loop.h"
#include "tellora/notifications.h"
#include "tests/support/ws_test_server.h"

namespace tellora::testing {

using namespace std::chrono_literals;

// Receives the pushes; read from the test thread, written on the loop.
class RecordingDelegate : public TLRMessageServiceDelegate {
 public:
  void nearbyAddedWithClientID(const std::string& clientID, const nlohmann::json& payload) override;
  void nearbyRemovedWithClientID(const std::string& clientID) override;

  std::vector<std::pair<std::string, nlohmann::json>> added() const;
  std::vector<std::string> removed() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, nlohmann::json>> added_;
  std::vector<std::string> removed_;
};

// Everything the service reported. Shared with the callbacks so that a late
// callback never reaches a finished fixture.
struct ServiceEvents {
  std::mutex mutex;
  int opened = 0;
  std::vector<std::optional<TLRError>> closed;
  std::vector<std::string> speedStatuses;
  std::vector<std::string> logLines;
};

// A reply to `request`: {"requestId": <its id>} merged with `extra`.
WsReply replyTo(const nlohmann::json& request, nlohmann::json extra = nlohmann::json::object(),
                std::chrono::milliseconds delay = 0ms);

class MessageServiceTest : public ::testing::Test {
 protected:
  using Script = std::function<std::vector<WsReply>(const nlohmann::json& request)>;

  void SetUp() override;
  void TearDown() override;

  // The service for the server's URL. The delay check is effectively off
  // unless a test asks for an interval.
  void createService(Duration checkInterval = std::chrono::hours(1));
  // Opens with recording callbacks and waits for the first open.
  void openAndWait();

  template <class F>
  static auto onLoop(F&& f) {
    return EventLoop::main().call(std::forward<F>(f));
  }
  // Polls until `condition` holds; false after the timeout.
  static bool waitUntil(const std::function<bool()>& condition,
                        std::chrono::milliseconds timeout = 5s);

  // Server side: answer every request with what `script` returns.
  void answerWith(Script script);
  // The requests the server received, parsed, in arrival order.
  std::vector<nlohmann::json> receivedRequests() const;

  void setDebug(bool enabled);
  int openedCount() const;
  std::vector<std::optional<TLRError>> closedErrors() const;
  std::vector<std::string> speedStatuses() const;
  std::vector<std::string> logLines() const;
  size_t countLogLines(const std::string& line) const;
  size_t countLogLinesStartingWith(const std::string& prefix) const;

  WsTestServer server_;
  std::shared_ptr<TLRMessageService> service_;
  std::shared_ptr<ServiceEvents> events_ = std::make_shared<ServiceEvents>();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();

 private:
  std::filesystem::path folder_;
  TLRNotificationCenter::ObserverToken speedObserver_ = 0;
};

}  // namespace tellora::testing
