// A message service talking to a real loopback WebSocket server, with the
// service's callbacks, pushes, speed notifications and log lines recorded.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "messaging/message_service.h"
#include "runtime/event_loop.h"
#include "tellora/notifications.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/ws_test_server.h"

namespace tellora::testing {

using namespace std::chrono_literals;

// Receives the pushes on the loop, for the test thread to read.
struct RecordingDelegate : TLRMessageServiceDelegate {
  void nearbyAddedWithClientID(const std::string& id, const nlohmann::json& payload) override {
    added.add({id, payload});
  }
  void nearbyRemovedWithClientID(const std::string& id) override { removed.add(id); }

  Recorded<std::pair<std::string, nlohmann::json>> added;
  Recorded<std::string> removed;
};

// A reply to `request`: {"requestId": <its id>} merged with `extra`.
WsReply replyTo(const nlohmann::json& request, nlohmann::json extra = nlohmann::json::object(),
                std::chrono::milliseconds delay = 0ms);

class MessageServiceTest : public ::testing::Test {
 protected:
  using Script = std::function<std::vector<WsReply>(const nlohmann::json& request)>;

  void SetUp() override;
  void TearDown() override;

  // Server side: answer every request with what `script` returns.
  void answerWith(Script script);
  // The service for the server's URL. The delay check is effectively off
  // unless a test asks for an interval.
  void createService(Duration checkInterval = std::chrono::hours(1));
  // Opens with recording callbacks and waits for the first open.
  void openAndWait();
  // All three; by default every request is answered at once.
  void connect(Script script = {}, Duration checkInterval = std::chrono::hours(1));
  // Sends set-mode and waits for its reply.
  void roundTrip(int64_t mode = 3);

  template <class F>
  static auto onLoop(F&& f) {
    return EventLoop::main().call(std::forward<F>(f));
  }
  uint64_t allMessages() {
    return onLoop([&] { return service_->allMessagesCount(); });
  }
  // The requests the server received, parsed, in arrival order.
  std::vector<nlohmann::json> receivedRequests() const;

  RuntimeSandbox sandbox_;
  WsTestServer server_;
  std::shared_ptr<TLRMessageService> service_;
  // Shared with the service's callbacks, which may outlive the test.
  std::shared_ptr<std::atomic<int>> opened_ = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<Recorded<std::optional<TLRError>>> closed_ =
      std::make_shared<Recorded<std::optional<TLRError>>>();
  std::shared_ptr<Recorded<std::string>> speedStatuses_ = std::make_shared<Recorded<std::string>>();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();

 private:
  TLRNotificationCenter::ObserverToken speedObserver_ = 0;
};

}  // namespace tellora::testing
