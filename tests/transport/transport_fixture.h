// Shared set-up for the transport tests: a real loopback server and a delegate
// that records what the transport reports.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "runtime/event_loop.h"
#include "tellora/error.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/ws_test_server.h"
#include "transport/transport.h"

namespace tellora::transport_test {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using testing::WsServerLog;
using testing::WsTestServer;

constexpr auto kRetryInterval = 150ms;

// What the delegate heard, in order: "opened", "closed" (no error),
// "closed:<code>", "message:<text>", and whatever a test adds itself.
class RecordingDelegate : public TLRTransportDelegate, public testing::WatchedList<std::string> {
 public:
  void connectionOpened() override { add("opened"); }
  void connectionClosedWithError(const std::optional<TLRError>& error) override {
    closeErrors.add(error);
    add(error ? "closed:" + std::to_string(error->code) : "closed");
  }
  void didReceiveMessage(const std::string& message) override { add("message:" + message); }

  testing::WatchedList<std::optional<TLRError>> closeErrors;
};

class TransportTest : public ::testing::Test {
 protected:
  TransportTest() { testing::RuntimeSandbox::setDebug(true); }  // the transport's lines are debug
  void TearDown() override {
    destroyTransport();
    EventLoop::main().drain();  // a burst of keepSending() queued meanwhile has run
    server_.reset();
  }

  template <class F>
  static auto onLoop(F f) {
    return EventLoop::main().call(std::move(f));
  }
  std::size_t logCount(const std::string& line) const { return sandbox_.countLog(line); }
  bool waitForLog(const std::string& line, std::size_t times = 1) const {
    return testing::waitUntil([&] { return logCount(line) >= times; });
  }

  // Makes the transport under test (on the loop), retrying every kRetryInterval.
  void makeTransport(const std::string& url, const std::string& clientID = "client-1",
                     const std::string& clientSecret = "secret-1") {
    transport_ = onLoop([&] {
      auto transport = std::make_unique<TLRTransport>(url, clientID, clientSecret, delegate_);
      transport->setRetryInterval(kRetryInterval);
      return transport;
    });
  }
  void open() {
    onLoop([this] { transport_->open(); });
  }
  void openAndWait() {
    open();
    ASSERT_TRUE(delegate_->waitFor("opened"));
    ASSERT_TRUE(server_->waitForOpenConnections(1));
  }
  void close() {
    onLoop([this] { transport_->close(); });
  }
  bool isOpen() {
    return onLoop([this] { return transport_->isConnectionOpened(); });
  }
  uint64_t attempts() {
    return onLoop([this] { return transport_->connectionAttempCounter(); });
  }
  void destroyTransport() {
    onLoop([this] { transport_.reset(); });
  }
  std::optional<std::string> lastFailure() {
    return onLoop([this] { return transport_->lastFailureDescription(); });
  }
  // Keeps the client writing while the connection is open: a burst of frames
  // on every loop turn, `frames` in all, so that whatever the server does
  // meets writes in flight.
  void keepSending(int frames = 2000) {
    onLoop([this, frames] { sendBurst(std::make_shared<int>(frames)); });
  }
  // Waits past a few retry intervals so that anything scheduled would have run.
  static void settle() { std::this_thread::sleep_for(kRetryInterval * 4); }

  void sendBurst(std::shared_ptr<int> left) {
    if (!transport_ || !transport_->isConnectionOpened()) return;
    for (int i = 0; i < 8 && *left > 0; ++i, --*left)
      transport_->sendMessage(std::string(8192, 'f'));
    if (*left > 0) EventLoop::main().post([this, left] { sendBurst(left); });
  }

  testing::RuntimeSandbox sandbox_;
  std::unique_ptr<WsTestServer> server_ = std::make_unique<WsTestServer>();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::unique_ptr<TLRTransport> transport_;
};

}  // namespace tellora::transport_test
