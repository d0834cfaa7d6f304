#include "tests/transport/transport_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora::transport_test {
namespace {

std::mutex logMutex;
std::condition_variable logChanged;
std::vector<std::string> logLines;
std::filesystem::path defaultsDirectory;

}  // namespace

void RecordingDelegate::connectionClosedWithError(const std::optional<TLRError>& error) {
  {
    std::lock_guard lock(mutex_);
    closeErrors_.push_back(error);
  }
  record(error ? "closed:" + std::to_string(error->code) : "closed");
}

void RecordingDelegate::didReceiveMessage(const std::string& message) {
  record("message:" + message);
}

void RecordingDelegate::record(std::string event) {
  {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  changed_.notify_all();
}

std::vector<std::string> RecordingDelegate::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::vector<std::optional<TLRError>> RecordingDelegate::closeErrors() const {
  std::lock_guard lock(mutex_);
  return closeErrors_;
}

bool RecordingDelegate::waitForEvents(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
}

std::size_t RecordingDelegate::count(const std::string& event) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event));
}

bool RecordingDelegate::waitFor(const std::string& event, std::size_t times,
                                std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event)) >= times;
  });
}

void TransportTest::SetUpTestSuite() {
  // A private defaults store with the debug switch on, so debug lines are visible.
  std::string pattern =
      (std::filesystem::temp_directory_path() / "tellora-transport-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  defaultsDirectory = pattern;
  UserDefaults::setStandardPath(defaultsDirectory / "defaults.json");
  UserDefaults::standard().setBool("debug", true);
  TLRSetLogSink([](std::string_view line) {
    {
      std::lock_guard lock(logMutex);
      logLines.emplace_back(line);
    }
    logChanged.notify_all();
  });
}

void TransportTest::TearDownTestSuite() {
  TLRSetLogSink({});
  std::error_code ignored;
  std::filesystem::remove_all(defaultsDirectory, ignored);
}

void TransportTest::TearDown() {
  destroyTransport();
  server_.reset();
  std::lock_guard lock(logMutex);
  logLines.clear();
}

void TransportTest::makeTransport(const std::string& url, const std::string& clientID,
                                  const std::string& clientSecret) {
  transport_ = onLoop([&] {
    auto transport = std::make_unique<TLRTransport>(url, clientID, clientSecret, delegate_);
    transport->setRetryInterval(
        std::chrono::duration_cast<std::chrono::milliseconds>(kRetryInterval));
    return transport;
  });
}

void TransportTest::open() {
  onLoop([this] { transport_->open(); });
}

void TransportTest::close() {
  onLoop([this] { transport_->close(); });
}

bool TransportTest::isOpen() {
  return onLoop([this] { return transport_->isConnectionOpened(); });
}

void TransportTest::destroyTransport() {
  onLoop([this] { transport_.reset(); });
}

std::size_t TransportTest::logCount(const std::string& line) {
  std::lock_guard lock(logMutex);
  return static_cast<std::size_t>(std::count(logLines.begin(), logLines.end(), line));
}

bool TransportTest::waitForLog(const std::string& line, std::size_t times,
                               std::chrono::milliseconds timeout) {
  std::unique_lock lock(logMutex);
  return logChanged.wait_for(lock, timeout, [&] {
    return static_cast<std::size_t>(std::count(logLines.begin(), logLines.end(), line)) >= times;
  });
}

}  // namespace tellora::transport_test
