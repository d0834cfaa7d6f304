// Shared set-up for the registration tests: a real loopback HTTP server and a
// recorder for completions that checks each ran once and on the SDK's loop.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "registration/http_error.h"
#include "registration/registration_service.h"
#include "tellora/error.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/http_test_server.h"

namespace tellora::registration_test {

using namespace std::chrono_literals;
using enum TLRHTTPErrorCode;
using testing::HttpReply;
using testing::HttpRequestRecord;
using testing::HttpTestServer;

// Collects the values a completion is called with.
template <class T>
class CallRecorder {
 public:
  void record(T value) {
    if (!EventLoop::main().isCurrent()) offLoop_ = true;
    values_.add(std::move(value));
  }
  // Waits for `count` calls and a little longer for a stray extra one, and
  // expects exactly `count`, all on the loop.
  std::vector<T> expectCalls(std::size_t count) const {
    EXPECT_TRUE(
        testing::waitUntil([&] { return values_.size() >= count; }, 2 * testing::kDefaultWait))
        << "too few completions";
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(values_.size(), count) << "completion called more than once";
    EXPECT_FALSE(offLoop_) << "completion ran off the SDK's loop";
    return values_.values();
  }

 private:
  testing::Recorded<T> values_;
  std::atomic<bool> offLoop_{false};
};

struct RegistrationOutcome {
  std::optional<std::string> clientID;
  std::optional<std::string> clientSecret;
  std::optional<TLRError> error;
};

class RegistrationTest : public ::testing::Test {
 protected:
  RegistrationTest() { testing::RuntimeSandbox::setDebug(true); }

  // Registers against `url` (a device with a distinct value in every field)
  // and returns the one completion's outcome.
  static RegistrationOutcome registerAt(
      const std::string& url, int32_t appID = 7, const std::string& appSecret = "x",
      const TLRDeviceInfo& device = TLRDeviceInfo("Debian GNU/Linux", "12", "ThinkPad X1", "de-DE",
                                                  "com.example.host", "2.7.1")) {
    auto recorder = std::make_shared<CallRecorder<RegistrationOutcome>>();
    TLRRegistrationService::registerClientOnServer(
        url, appID, appSecret, device, [recorder](auto id, auto secret, auto error) {
          recorder->record({std::move(id), std::move(secret), std::move(error)});
        });
    const auto calls = recorder->expectCalls(1);
    return calls.empty() ? RegistrationOutcome{} : calls.front();
  }
  // Registers against the server, answering with `reply`.
  RegistrationOutcome registerAnswering(HttpReply reply) {
    server_->setReply(std::move(reply));
    return registerAt(server_->url("/register"));
  }

  testing::RuntimeSandbox sandbox_;
  std::unique_ptr<HttpTestServer> server_ = std::make_unique<HttpTestServer>();
};

}  // namespace tellora::registration_test
