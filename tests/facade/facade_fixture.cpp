#include "tests/facade/facade_fixture.h"

#include <algorithm>

#include "tests/tools/test_audio.h"

namespace tellora::facade_test {

namespace {

double localMilliseconds() {
  using namespace std::chrono;
  return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

nlohmann::json parse(const std::string& text) {
  return nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
}

}  // namespace

MatchServer::MatchServer() {
  server_.setHandler([script = script_](const testing::WsFrame& frame) {
    std::vector<testing::WsReply> replies;
    const nlohmann::json request = parse(frame.payload);
    if (!request.is_object() || !request.contains("id")) return replies;
    nlohmann::json reply = {{"requestId", request["id"]}};
    std::lock_guard lock(script->mutex);
    switch (request.value("type", -1)) {
      case 2:
        reply["data"] = {{"nearby", script->nearby}};
        replies.push_back({reply.dump()});
        for (const auto& push : script->pushesAfterNearby) {
          replies.push_back({push, std::chrono::milliseconds(20)});
        }
        return replies;
      case 3:
        reply["data"] = {{"time", localMilliseconds() + script->clockOffset}};
        break;
      default:
        break;
    }
    replies.push_back({reply.dump()});
    return replies;
  });
}

void MatchServer::setClockOffset(double milliseconds) {
  std::lock_guard lock(script_->mutex);
  script_->clockOffset = milliseconds;
}

void MatchServer::setNearby(nlohmann::json nearby) {
  std::lock_guard lock(script_->mutex);
  script_->nearby = std::move(nearby);
}

void MatchServer::pushAfterNearbyRequest(std::vector<std::string> pushes) {
  std::lock_guard lock(script_->mutex);
  script_->pushesAfterNearby = std::move(pushes);
}

std::vector<nlohmann::json> MatchServer::requests() const {
  std::vector<nlohmann::json> parsed;
  for (const auto& frame : server_.log().frames)
    parsed.push_back(parse(frame.payload));
  return parsed;
}

std::vector<nlohmann::json> MatchServer::requestsOfType(int type) const {
  std::vector<nlohmann::json> matching;
  for (auto& request : requests()) {
    if (request.is_object() && request.value("type", -1) == type) matching.push_back(request);
  }
  return matching;
}

bool MatchServer::waitForRequestsOfType(int type, std::size_t count,
                                        std::chrono::milliseconds timeout) const {
  return testing::waitUntil([&] { return requestsOfType(type).size() >= count; }, timeout);
}

std::string MatchServer::foundPush(const std::string& clientID, const nlohmann::json& payload) {
  return nlohmann::json{{"type", 102}, {"data", {{"clientId", clientID}, {"payload", payload}}}}
      .dump();
}

void MatchServer::pushFound(const std::string& clientID, const nlohmann::json& payload) {
  server_.pushText(foundPush(clientID, payload));
}

void MatchServer::pushLost(const std::string& clientID) {
  server_.pushText(nlohmann::json{{"type", 103}, {"data", {{"clientId", clientID}}}}.dump());
}

std::vector<HostEvent> HostEvents::named(const std::string& name) const {
  std::vector<HostEvent> matching;
  for (auto& event : values()) {
    if (event.name == name) matching.push_back(std::move(event));
  }
  return matching;
}

int HostEvents::indexOf(const std::string& name) const {
  const auto all = values();
  auto it = std::find_if(all.begin(), all.end(), [&](const auto& e) { return e.name == name; });
  return it == all.end() ? -1 : static_cast<int>(it - all.begin());
}

void FacadeTest::SetUp() {
  // The server's clock runs a second ahead of ours.
  match_.setClockOffset(1000);

  for (const char* name : {TelloraWillStartSearchNotification, TelloraDidStartSearchNotification,
                           TelloraSearchWillStopNotification, TelloraSearchStopNotification,
                           TelloraClientFoundNotification, TelloraClientLostNotification}) {
    observers_.push_back(TLRNotificationCenter::defaultCenter().addObserver(
        name, [events = events_](const TLRNotification& n) {
          HostEvent event{n.name, std::nullopt, std::nullopt, n.hasUserInfo};
          if (auto it = n.userInfo.find("Error"); it != n.userInfo.end()) {
            if (const auto* error = std::get_if<TLRError>(&it->second)) event.error = *error;
          }
          if (auto it = n.userInfo.find("client"); it != n.userInfo.end()) {
            if (const auto* client = std::get_if<TLRClient>(&it->second)) event.client = *client;
          }
          events->add(std::move(event));
        }));
  }

  registrar_.setReply(testing::HttpReply::json(
      200, nlohmann::json{{"clientId", kClientID}, {"clientSecret", kClientSecret}, {"ignored", 1}}
               .dump()));
}

void FacadeTest::TearDown() {
  destroyFacade();
  // Lets posted tasks and their notifications run before the observers go.
  EventLoop::main().drain();
  EventLoop::main().drain();
  for (auto token : observers_)
    TLRNotificationCenter::defaultCenter().removeObserver(token);
}

TLRTelloraConfiguration FacadeTest::configuration() const {
  return {registrar_.url("/register"), match_.url(), 7, "app-secret", audio_->sourceFactory()};
}

void FacadeTest::attachHostCallbacks() {
  facade_->setHostCallbacks(
      [events = events_] {
        events->add({"started", std::nullopt, std::nullopt});
      },
      [events = events_](const TLRClient& c) {
        events->add({"found", c, std::nullopt});
      },
      [events = events_](const TLRClient& c) {
        events->add({"lost", c, std::nullopt});
      },
      [events = events_](const std::optional<TLRError>& e) {
        events->add({"stopped", std::nullopt, e, false, EventLoop::main().isCurrent()});
      });
}

void FacadeTest::createFacade() {
  destroyFacade();
  onLoop([&] {
    facade_ = TLRTelloraImpl::create();
    // Short timers: a failed open is retried quickly, a recorder start too.
    facade_->setTimings(Duration{}, 200ms, 50ms);
    attachHostCallbacks();
  });
}

void FacadeTest::setUpFacade(const TLRTelloraConfiguration& configuration) {
  if (!facade_) createFacade();
  onLoop([&] { facade_->setConfiguration(configuration); });
}

bool FacadeTest::waitUntilConnected() {
  // Five time requests answered, then the state is 4 and the offset stored
  // (the fifth reply has been handled once the offset is non-zero).
  return match_.waitForRequestsOfType(3, 5) &&
         waitUntil([&] { return telloraState() == TLRTelloraStateConnected; }) &&
         waitUntil([&] { return onLoop([&] { return facade_->timeDifference() != 0; }); });
}

void FacadeTest::startSearch(const std::string& payload) {
  onLoop([&] {
    attachHostCallbacks();
    facade_->startSearchingWithPayload(payload);
  });
}

void FacadeTest::startSearchAndWait(const std::string& payload) {
  setUpFacade();
  // A start while registering would connect (and register) a second time.
  ASSERT_TRUE(waitUntilConnected());
  startSearch(payload);
  ASSERT_TRUE(match_.waitForRequestsOfType(2, 1));
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("started") == 1; }));
}

void FacadeTest::destroyFacade() {
  if (!facade_) return;
  onLoop([&] {
    facade_->disconnect();
    facade_.reset();
  });
}

int64_t FacadeTest::telloraState() {
  return onLoop([&] { return facade_->telloraState(); });
}

int64_t FacadeTest::searchState() {
  return onLoop([&] { return facade_->searchState(); });
}

std::vector<TLRClient> FacadeTest::nearbyClients() {
  return onLoop([&] { return facade_->nearbyClients(); });
}

void FacadeTest::feedAudio(double seconds, double firstItemTicks) {
  constexpr uint32_t kBlock = 800;  // 100 ms at 8000 Hz
  const auto items = testaudio::toItems(testaudio::renderChord(8000, 0.0, seconds));
  for (size_t at = 0; at + kBlock <= items.size(); at += kBlock) {
    ASSERT_TRUE(audio_->push(items.data() + at, kBlock, firstItemTicks + at * 1e9 / 8000))
        << "item " << at << " dropped: the recorder is not running";
  }
}

}  // namespace tellora::facade_test
