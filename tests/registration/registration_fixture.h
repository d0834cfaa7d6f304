// Shared set-up for the registration tests: a real loopback HTTP server and a
// recorder for completions that checks each ran once and on the SDK's loop.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "registration/registration_service.h"
#include "tellora/error.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/http_test_server.h"

namespace tellora::registration_test {

using namespace std::chrono_literals;
using testing::HttpReply;
using testing::HttpRequestRecord;
using testing::HttpTestServer;

template <class T>
struct Calls {
  std::vector<T> values;
  bool allOnLoop = true;
};

// Collects the values a completion is called with.
template <class T>
class CallRecorder : public testing::Watched<Calls<T>> {
 public:
  void record(T value) {
    const bool onLoop = EventLoop::main().isCurrent();
    this->update([&](Calls<T>& calls) {
      calls.values.push_back(std::move(value));
      calls.allOnLoop = calls.allOnLoop && onLoop;
    });
  }
  // Waits for `count` calls and a little longer for a stray extra one, and
  // expects exactly `count`, all on the loop.
  std::vector<T> expectCalls(std::size_t count) const {
    const bool arrived = this->waitUntil(
        [count](const Calls<T>& calls) { return calls.values.size() >= count; }, 10s);
    EXPECT_TRUE(arrived) << "too few completions";
    std::this_thread::sleep_for(50ms);
    const Calls<T> calls = this->get();
    EXPECT_EQ(calls.values.size(), count) << "completion called more than once";
    EXPECT_TRUE(calls.allOnLoop) << "completion ran off the SDK's loop";
    return calls.values;
  }
};

struct RegistrationOutcome {
  std::optional<std::string> clientID;
  std::optional<std::string> clientSecret;
  std::optional<TLRError> error;
};

class RegistrationTest : public ::testing::Test {
 protected:
  RegistrationTest() { testing::RuntimeSandbox::setDebug(true); }

  // A device description with a distinct value in every field.
  static TLRDeviceInfo sampleDevice() {
    return TLRDeviceInfo("Debian GNU/Linux", "12", "ThinkPad X1", "de-DE", "com.example.host",
                         "2.7.1");
  }

  // Registers against `url` and returns the one completion's outcome.
  static RegistrationOutcome registerAt(const std::string& url, int32_t appID = 7,
                                        const std::string& appSecret = "x",
                                        const TLRDeviceInfo& device = sampleDevice()) {
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
