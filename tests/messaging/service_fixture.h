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
inline WsReply replyTo(const nlohmann::json& request,
                       nlohmann::json extra = nlohmann::json::object(),
                       std::chrono::milliseconds delay = 0ms) {
  extra["requestId"] = request.value("id", int64_t{-1});
  return WsReply{extra.dump(), delay};
}

class MessageServiceTest : public ::testing::Test {
 protected:
  using Script = std::function<std::vector<WsReply>(const nlohmann::json& request)>;

  template <class F>
  static auto onLoop(F&& f) {
    return EventLoop::main().call(std::forward<F>(f));
  }

  void SetUp() override {
    speedObserver_ = TLRNotificationCenter::defaultCenter().addObserver(
        kTLRNetworkSpeedStatusChanged, [statuses = speedStatuses_](const TLRNotification& n) {
          statuses->add(std::get<std::string>(n.userInfo.at(kTLRSpeedStatusKey)));
        });
  }
  void TearDown() override {
    if (service_) {
      onLoop([this] {
        service_->setConnectionOpenedCallback({});
        service_->setConnectionClosedCallback({});
        service_->closeConnection();
        service_.reset();
      });
    }
    // Lets posted releases and notifications run before the observer goes.
    EventLoop::main().drain();
    EventLoop::main().drain();
    TLRNotificationCenter::defaultCenter().removeObserver(speedObserver_);
  }

  // Server side: answer every request with what `script` returns (by default
  // an empty reply at once).
  void answerWith(Script script) {
    server_.setHandler([script = std::move(script)](const WsFrame& frame) {
      nlohmann::json request = nlohmann::json::parse(frame.payload, nullptr, false);
      if (!request.is_object()) return std::vector<WsReply>{};
      return script ? script(request) : std::vector<WsReply>{replyTo(request)};
    });
  }
  // The service for the server's URL. The delay check is effectively off
  // unless a test asks for an interval.
  void createService(Duration checkInterval = std::chrono::hours(1)) {
    service_ = onLoop([&] {
      auto service = TLRMessageService::create(server_.url(), "client-1", "secret-1");
      service->setCheckInterval(checkInterval);
      service->setDelegate(delegate_);
      return service;
    });
  }
  // Opens with recording callbacks and waits for the first open.
  void connect(Script script = {}, Duration checkInterval = std::chrono::hours(1)) {
    answerWith(std::move(script));
    createService(checkInterval);
    onLoop([&] {
      service_->openConnectionWithOpenedCallback(
          [opened = opened_] { ++*opened; },
          [closed = closed_](const std::optional<TLRError>& error) { closed->add(error); });
    });
    ASSERT_TRUE(waitUntil([&] { return *opened_ == 1; }));
  }
  // Sends set-mode and waits for its reply.
  void roundTrip(int64_t mode = 3) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    onLoop([&] { service_->establishClientMode(mode, [done] { *done = true; }); });
    ASSERT_TRUE(waitUntil([&] { return done->load(); }));
  }
  // Sends a fingerprint and waits for its reply, however late.
  void addFingerprint() {
    auto done = std::make_shared<std::atomic<bool>>(false);
    onLoop([&] { service_->addFingerprint("AAAA", 1, 2, [done] { *done = true; }); });
    ASSERT_TRUE(waitUntil([&] { return done->load(); }, 2 * kDefaultWait));
  }

  uint64_t allMessages() {
    return onLoop([&] { return service_->allMessagesCount(); });
  }

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
