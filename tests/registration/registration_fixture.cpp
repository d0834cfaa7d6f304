#include "tests/registration/registration_fixture.h"

#include <stdlib.h>

#include <filesystem>
#include <string_view>
#include <system_error>

#include "runtime/event_loop.h"
#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora::registration_test {
namespace {

std::filesystem::path defaultsDirectory;
std::mutex logMutex;
std::vector<std::string> logLines;

}  // namespace

void RegistrationTest::SetUpTestSuite() {
  // A private defaults store with the debug switch on, so debug lines are visible.
  std::string pattern =
      (std::filesystem::temp_directory_path() / "tellora-registration-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  defaultsDirectory = pattern;
  UserDefaults::setStandardPath(defaultsDirectory / "defaults.json");
  UserDefaults::standard().setBool("debug", true);
  TLRSetLogSink([](std::string_view line) {
    std::lock_guard lock(logMutex);
    logLines.emplace_back(line);
  });
}

void RegistrationTest::TearDownTestSuite() {
  TLRSetLogSink({});
  std::error_code ignored;
  std::filesystem::remove_all(defaultsDirectory, ignored);
}

void RegistrationTest::TearDown() {
  server_.reset();
  std::lock_guard lock(logMutex);
  logLines.clear();
}

TLRDeviceInfo RegistrationTest::sampleDevice() {
  return TLRDeviceInfo("Debian GNU/Linux", "12", "ThinkPad X1", "de-DE", "com.example.host",
                       "2.7.1");
}

RegistrationOutcome RegistrationTest::registerAt(const std::string& url, int32_t appID,
                                                 const std::string& appSecret,
                                                 const TLRDeviceInfo& device) {
  auto recorder = std::make_shared<CallRecorder<RegistrationOutcome>>();
  TLRRegistrationService::registerClientOnServer(
      url, appID, appSecret, device,
      [recorder](std::optional<std::string> id, std::optional<std::string> secret,
                 std::optional<TLRError> error) {
        recorder->record({std::move(id), std::move(secret), std::move(error)},
                         EventLoop::main().isCurrent());
      });
  if (!recorder->waitForCalls(1)) {
    ADD_FAILURE() << "no completion for " << url;
    return {};
  }
  settle();
  EXPECT_EQ(recorder->calls().size(), 1u) << "completion called more than once";
  EXPECT_TRUE(recorder->allOnLoop()) << "completion ran off the SDK's loop";
  return recorder->calls().front();
}

RegistrationOutcome RegistrationTest::registerAnswering(HttpReply reply) {
  server_->setReply(std::move(reply));
  return registerAt(server_->url("/register"));
}

std::size_t RegistrationTest::logCount(const std::string& prefix) {
  std::lock_guard lock(logMutex);
  return static_cast<std::size_t>(
      std::count_if(logLines.begin(), logLines.end(),
                    [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }));
}

}  // namespace tellora::registration_test
