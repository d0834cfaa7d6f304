#include "tests/messaging/service_fixture.h"

#include <stdlib.h>

#include <algorithm>
#include <thread>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora::testing {

namespace fs = std::filesystem;

void RecordingDelegate::nearbyAddedWithClientID(const std::string& clientID,
                                                const nlohmann::json& payload) {
  std::lock_guard lock(mutex_);
  added_.emplace_back(clientID, payload);
}

void RecordingDelegate::nearbyRemovedWithClientID(const std::string& clientID) {
  std::lock_guard lock(mutex_);
  removed_.push_back(clientID);
}

std::vector<std::pair<std::string, nlohmann::json>> RecordingDelegate::added() const {
  std::lock_guard lock(mutex_);
  return added_;
}

std::vector<std::string> RecordingDelegate::removed() const {
  std::lock_guard lock(mutex_);
  return removed_;
}

void MessageServiceTest::SetUp() {
  std::string pattern = (fs::temp_directory_path() / "tellora-messaging-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  folder_ = pattern;
  // The debug switch lives in the standard store; keep it away from the real one.
  UserDefaults::setStandardPath(folder_ / "defaults.json");

  auto events = events_;
  TLRSetLogSink([events](std::string_view line) {
    std::lock_guard lock(events->mutex);
    events->logLines.emplace_back(line);
  });
  speedObserver_ = TLRNotificationCenter::defaultCenter().addObserver(
      kTLRNetworkSpeedStatusChanged, [events](const TLRNotification& notification) {
        auto found = notification.userInfo.find(kTLRSpeedStatusKey);
        const std::string* status = found == notification.userInfo.end()
                                        ? nullptr
                                        : std::get_if<std::string>(&found->second);
        std::lock_guard lock(events->mutex);
        events->speedStatuses.push_back(status ? *status : "<missing>");
      });
}

void MessageServiceTest::TearDown() {
  if (service_) {
    onLoop([this] {
      service_->setConnectionOpenedCallback({});
      service_->setConnectionClosedCallback({});
      service_->closeConnection();
      service_.reset();
    });
  }
  // Lets posted releases and notifications run before the observers go.
  EventLoop::main().drain();
  EventLoop::main().drain();
  TLRNotificationCenter::defaultCenter().removeObserver(speedObserver_);
  TLRSetLogSink({});
  fs::remove_all(folder_);
}

void MessageServiceTest::createService(Duration checkInterval) {
  service_ = onLoop([&] {
    auto service = TLRMessageService::create(server_.url(), "client-1", "secret-1");
    service->setCheckInterval(checkInterval);
    service->setDelegate(delegate_);
    return service;
  });
}

void MessageServiceTest::openAndWait() {
  auto events = events_;
  onLoop([&] {
    service_->openConnectionWithOpenedCallback(
        [events] {
          std::lock_guard lock(events->mutex);
          ++events->opened;
        },
        [events](const std::optional<TLRError>& error) {
          std::lock_guard lock(events->mutex);
          events->closed.push_back(error);
        });
  });
  ASSERT_TRUE(waitUntil([&] { return openedCount() == 1; }));
}

bool MessageServiceTest::waitUntil(const std::function<bool()>& condition,
                                   std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

void MessageServiceTest::answerWith(Script script) {
  server_.setHandler([script = std::move(script)](const WsFrame& frame) {
    nlohmann::json request = nlohmann::json::parse(frame.payload, nullptr, false);
    if (!request.is_object()) return std::vector<WsReply>{};
    return script(request);
  });
}

WsReply replyTo(const nlohmann::json& request, nlohmann::json extra,
                std::chrono::milliseconds delay) {
  nlohmann::json reply = std::move(extra);
  reply["requestId"] = request.value("id", int64_t{-1});
  return WsReply{reply.dump(), delay};
}

std::vector<nlohmann::json> MessageServiceTest::receivedRequests() const {
  std::vector<nlohmann::json> requests;
  for (const auto& frame : server_.log().frames) {
    requests.push_back(nlohmann::json::parse(frame.payload, nullptr, false));
  }
  return requests;
}

void MessageServiceTest::setDebug(bool enabled) {
  UserDefaults::standard().setBool("debug", enabled);
}

int MessageServiceTest::openedCount() const {
  std::lock_guard lock(events_->mutex);
  return events_->opened;
}

std::vector<std::optional<TLRError>> MessageServiceTest::closedErrors() const {
  std::lock_guard lock(events_->mutex);
  return events_->closed;
}

std::vector<std::string> MessageServiceTest::speedStatuses() const {
  std::lock_guard lock(events_->mutex);
  return events_->speedStatuses;
}

std::vector<std::string> MessageServiceTest::logLines() const {
  std::lock_guard lock(events_->mutex);
  return events_->logLines;
}

size_t MessageServiceTest::countLogLines(const std::string& line) const {
  auto lines = logLines();
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

size_t MessageServiceTest::countLogLinesStartingWith(const std::string& prefix) const {
  auto lines = logLines();
  return static_cast<size_t>(std::count_if(
      lines.begin(), lines.end(), [&](const auto& line) { return line.rfind(prefix, 0) == 0; }));
}

}  // namespace tellora::testing
