#include "tests/messaging/service_fixture.h"

namespace tellora::testing {

void MessageServiceTest::SetUp() {
  speedObserver_ = TLRNotificationCenter::defaultCenter().addObserver(
      kTLRNetworkSpeedStatusChanged, [statuses = speedStatuses_](const TLRNotification& n) {
        auto found = n.userInfo.find(kTLRSpeedStatusKey);
        const auto* status =
            found == n.userInfo.end() ? nullptr : std::get_if<std::string>(&found->second);
        statuses->add(status ? *status : "<missing>");
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
  // Lets posted releases and notifications run before the observer goes.
  EventLoop::main().drain();
  EventLoop::main().drain();
  TLRNotificationCenter::defaultCenter().removeObserver(speedObserver_);
}

void MessageServiceTest::answerWith(Script script) {
  server_.setHandler([script = std::move(script)](const WsFrame& frame) {
    nlohmann::json request = nlohmann::json::parse(frame.payload, nullptr, false);
    if (!request.is_object()) return std::vector<WsReply>{};
    return script ? script(request) : std::vector<WsReply>{replyTo(request)};
  });
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
  onLoop([&] {
    service_->openConnectionWithOpenedCallback(
        [opened = opened_] { ++*opened; },
        [closed = closed_](const std::optional<TLRError>& error) { closed->add(error); });
  });
  ASSERT_TRUE(waitUntil([&] { return *opened_ == 1; }));
}

void MessageServiceTest::connect(Script script, Duration checkInterval) {
  answerWith(std::move(script));
  createService(checkInterval);
  openAndWait();
}

void MessageServiceTest::roundTrip(int64_t mode) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  onLoop([&] { service_->establishClientMode(mode, [done] { *done = true; }); });
  ASSERT_TRUE(waitUntil([&] { return done->load(); }));
}

WsReply replyTo(const nlohmann::json& request, nlohmann::json extra,
                std::chrono::milliseconds delay) {
  extra["requestId"] = request.value("id", int64_t{-1});
  return WsReply{extra.dump(), delay};
}

std::vector<nlohmann::json> MessageServiceTest::receivedRequests() const {
  std::vector<nlohmann::json> requests;
  for (const auto& frame : server_.log().frames)
    requests.push_back(nlohmann::json::parse(frame.payload, nullptr, false));
  return requests;
}

}  // namespace tellora::testing
