// Shared set-up for the transport tests: a real loopback server, a delegate
// that records what the transport reports, and captured debug lines.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "runtime/event_loop.h"
#include "tellora/error.h"
#include "tests/support/ws_test_server.h"
#include "transport/transport.h"

namespace tellora::transport_test {

using namespace std::chrono_literals;
using testing::WsServerLog;
using testing::WsTestServer;

constexpr auto kRetryInterval = 150ms;
constexpr auto kWait = 5s;

// What the delegate heard, in order: "opened", "closed" (no error),
// "closed:<code>", "message:<text>", and "block" for an openWithBlock callback.
class RecordingDelegate : public TLRTransportDelegate {
 public:
  void connectionOpened() override { record("opened"); }
  void connectionClosedWithError(const std::optional<TLRError>& error) override;
  void didReceiveMessage(const std::string& message) override;
  void record(std::string event);

  std::vector<std::string> events() const;
  std::vector<std::optional<TLRError>> closeErrors() const;
  bool waitForEvents(std::size_t count, std::chrono::milliseconds timeout = kWait) const;
  std::size_t count(const std::string& event) const;
  // Waits until `event` has been recorded `times` times.
  bool waitFor(const std::string& event, std::size_t times = 1,
               std::chrono::milliseconds timeout = kWait) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> events_;
  std::vector<std::optional<TLRError>> closeErrors_;
};

class TransportTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void TearDown() override;

  // Makes the transport under test (on the loop), retrying every kRetryInterval.
  void makeTransport(const std::string& url, const std::string& clientID = "client-1",
                     const std::string& clientSecret = "secret-1");
  // Runs `f` on the SDK's loop and returns its result.
  template <class F>
  auto onLoop(F f) {
    return EventLoop::main().call(std::move(f));
  }
  void open();
  void close();
  bool isOpen();
  void destroyTransport();
  // Waits past a few retry intervals so that anything scheduled would have run.
  static void settle() { std::this_thread::sleep_for(kRetryInterval * 4); }

  // Debug log lines seen since the test began.
  static std::size_t logCount(const std::string& line);
  static bool waitForLog(const std::string& line, std::size_t times = 1,
                         std::chrono::milliseconds timeout = kWait);

  std::unique_ptr<WsTestServer> server_ = std::make_unique<WsTestServer>();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::unique_ptr<TLRTransport> transport_;
};

}  // namespace tellora::transport_test
