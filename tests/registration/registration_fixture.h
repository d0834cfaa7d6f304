// Shared set-up for the registration tests: a real loopback HTTP server, a
// recorder for completions (with the thread they ran on), and the SDK's log
// lines with the debug switch on.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "registration/registration_service.h"
#include "tellora/error.h"
#include "tests/support/http_test_server.h"

namespace tellora::registration_test {

using namespace std::chrono_literals;
using testing::HttpReply;
using testing::HttpRequestRecord;
using testing::HttpTestServer;

constexpr auto kWait = 10s;

// Collects the values a completion is called with, and whether each call ran
// on the SDK's loop.
template <class T>
class CallRecorder {
 public:
  void record(T value, bool onLoop) {
    {
      std::lock_guard lock(mutex_);
      calls_.push_back(std::move(value));
      allOnLoop_ = allOnLoop_ && onLoop;
    }
    changed_.notify_all();
  }
  bool waitForCalls(std::size_t count, std::chrono::milliseconds timeout = kWait) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return calls_.size() >= count; });
  }
  std::vector<T> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  bool allOnLoop() const {
    std::lock_guard lock(mutex_);
    return allOnLoop_;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<T> calls_;
  bool allOnLoop_ = true;
};

struct RegistrationOutcome {
  std::optional<std::string> clientID;
  std::optional<std::string> clientSecret;
  std::optional<TLRError> error;
};

class RegistrationTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void TearDown() override;

  // A device description with a distinct value in every field.
  static TLRDeviceInfo sampleDevice();

  // Registers against `url` and waits for the one completion, checking that it
  // ran on the loop and came once only.
  RegistrationOutcome registerAt(const std::string& url, int32_t appID = 7,
                                 const std::string& appSecret = "x",
                                 const TLRDeviceInfo& device = sampleDevice());
  // Registers against the server, answering with `reply`.
  RegistrationOutcome registerAnswering(HttpReply reply);

  // Long enough for a stray second completion to show up.
  static void settle() { std::this_thread::sleep_for(50ms); }

  static std::size_t logCount(const std::string& prefix);

  std::unique_ptr<HttpTestServer> server_ = std::make_unique<HttpTestServer>();
};

}  // namespace tellora::registration_test
