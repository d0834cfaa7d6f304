// The facade's tests run against real loopback servers: registration over
// HTTP, the matching protocol over WebSocket (MatchServer), audio pushed by the
// test. FacadeTest gives each test a fresh facade, a user-defaults file of its
// own, and everything the host would see (callbacks, notifications, log lines)
// recorded for the test thread.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "facade/tellora_impl.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "tellora/host_fed_audio.h"
#include "tellora/notifications.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/http_test_server.h"
#include "tests/support/ws_test_server.h"
#include "tests/tools/test_audio.h"

namespace tellora::facade_test {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::waitUntil;

// A loopback matching server speaking the SDK's WebSocket protocol: it answers
// every request by its "id", reads its clock a second ahead of the local one,
// hands out a scripted nearby list, and pushes found/lost on demand.
class MatchServer {
 public:
  MatchServer() {
    server_.setHandler([script = script_](const testing::WsFrame& frame) {
      const json request = json::parse(frame.payload, nullptr, false);
      if (!request.is_object() || !request.contains("id")) return std::vector<testing::WsReply>{};
      json reply = {{"requestId", request["id"]}};
      std::vector<std::string> pushes;
      std::lock_guard lock(script->mutex);
      if (request.value("type", -1) == 2) {
        reply["data"] = {{"nearby", script->nearby}};
        pushes = script->pushesAfterNearby;
      }
      if (request.value("type", -1) == 3)
        reply["data"] = {{"time", wallClockSeconds() * 1000 + 1000}};
      std::vector<testing::WsReply> replies = {{reply.dump()}};
      for (const auto& push : pushes)
        replies.push_back({push, 20ms});
      return replies;
    });
  }

  testing::WsTestServer& ws() { return server_; }
  std::string url() const { return server_.url("/ws"); }

  // The "nearby" list of every get-all-nearby reply.
  void setNearby(json nearby) {
    std::lock_guard lock(script_->mutex);
    script_->nearby = std::move(nearby);
  }
  // Pushed (after the reply) whenever a get-all-nearby request comes in.
  void pushAfterNearbyRequest(std::vector<std::string> pushes) {
    std::lock_guard lock(script_->mutex);
    script_->pushesAfterNearby = std::move(pushes);
  }

  // Every request of this type the clients sent, parsed, in arrival order
  // (all of them, unparseable ones as null, for type -1).
  std::vector<json> requests(int type = -1) const {
    std::vector<json> matching;
    for (const auto& frame : server_.log().frames) {
      json request = json::parse(frame.payload, nullptr, false);
      if (type == -1 || (request.is_object() && request.value("type", -1) == type))
        matching.push_back(std::move(request));
    }
    return matching;
  }
  bool waitForRequests(int type, std::size_t count,
                       std::chrono::milliseconds timeout = testing::kDefaultWait) const {
    return waitUntil([&] { return requests(type).size() >= count; }, timeout);
  }

  static std::string foundPush(const std::string& clientID, const json& payload) {
    return json{{"type", 102}, {"data", {{"clientId", clientID}, {"payload", payload}}}}.dump();
  }
  void pushFound(const std::string& clientID, const json& payload) {
    server_.pushText(foundPush(clientID, payload));
  }
  void pushLost(const std::string& clientID) {
    server_.pushText(json{{"type", 103}, {"data", {{"clientId", clientID}}}}.dump());
  }

 private:
  struct Script {
    std::mutex mutex;
    json nearby = json::array();
    std::vector<std::string> pushesAfterNearby;
  };
  std::shared_ptr<Script> script_ = std::make_shared<Script>();
  testing::WsTestServer server_;
};

// One thing the host saw: a callback ("started", "found", "lost", "stopped")
// or a notification (by its name).
struct HostEvent {
  std::string name;
  std::optional<TLRClient> client{};  // of "found"/"lost", or a notification's "client"
  std::optional<TLRError> error{};    // of "stopped", or a notification's "Error"
  bool hasUserInfo = false;
  bool onLoop = false;
};

class HostEvents : public testing::Recorded<HostEvent> {
 public:
  std::vector<HostEvent> named(const std::string& name) const {
    auto all = values();
    std::erase_if(all, [&](const HostEvent& e) { return e.name != name; });
    return all;
  }
  size_t countOf(const std::string& name) const { return named(name).size(); }
  // The position of the first such event; -1 when absent.
  int indexOf(const std::string& name) const {
    const auto all = values();
    auto it = std::find_if(all.begin(), all.end(), [&](const auto& e) { return e.name == name; });
    return it == all.end() ? -1 : static_cast<int>(it - all.begin());
  }
};

class FacadeTest : public ::testing::Test {
 protected:
  static constexpr const char* kClientID = "client-7";
  static constexpr const char* kClientSecret = "secret-7";

  void SetUp() override {
    for (const char* name : {TelloraWillStartSearchNotification, TelloraDidStartSearchNotification,
                             TelloraSearchWillStopNotification, TelloraSearchStopNotification,
                             TelloraClientFoundNotification, TelloraClientLostNotification}) {
      observers_.push_back(TLRNotificationCenter::defaultCenter().addObserver(
          name, [events = events_](const TLRNotification& n) {
            HostEvent event{n.name, std::nullopt, std::nullopt, n.hasUserInfo};
            if (auto it = n.userInfo.find("Error"); it != n.userInfo.end())
              if (const auto* error = std::get_if<TLRError>(&it->second)) event.error = *error;
            if (auto it = n.userInfo.find("client"); it != n.userInfo.end())
              if (const auto* client = std::get_if<TLRClient>(&it->second)) event.client = *client;
            events->add(std::move(event));
          }));
    }
    registrar_.setReply(testing::HttpReply::json(
        200, json{{"clientId", kClientID}, {"clientSecret", kClientSecret}}.dump()));
  }
  void TearDown() override {
    destroyFacade();
    // Lets posted tasks and their notifications run before the observers go.
    EventLoop::main().drain();
    EventLoop::main().drain();
    for (auto token : observers_)
      TLRNotificationCenter::defaultCenter().removeObserver(token);
  }

  template <class F>
  static auto onLoop(F&& f) {
    return EventLoop::main().call(std::forward<F>(f));
  }
  // Calls `member` of the facade on the loop.
  template <class M, class... A>
  auto call(M member, const A&... args) {
    return onLoop([&] { return (facade_.get()->*member)(args...); });
  }

  // Both servers, host-fed audio, app id 7 and secret "app-secret".
  TLRTelloraConfiguration configuration() const {
    return {registrar_.url("/register"), match_.url(), 7, "app-secret", audio_->sourceFactory()};
  }
  // A fresh facade (replacing the previous one) whose host callbacks record
  // into events_. Nothing connects yet.
  void createFacade() {
    destroyFacade();
    onLoop([&] {
      facade_ = TLRTelloraImpl::create();
      // Short timers: a failed open is retried quickly, a recorder start too.
      facade_->setTimings(Duration{}, 200ms, 50ms);
      attachHostCallbacks();
    });
  }
  void setUpFacade(const TLRTelloraConfiguration& configuration) {
    if (!facade_) createFacade();
    call(&TLRTelloraImpl::setConfiguration, configuration);
  }
  // Five time requests answered, then the state is connected and the offset
  // stored (the fifth reply has been handled once the offset is non-zero).
  bool waitUntilConnected() {
    return match_.waitForRequests(3, 5) &&
           waitUntil([&] { return telloraState() == TLRTelloraStateConnected; }) &&
           waitUntil([&] { return call(&TLRTelloraImpl::timeDifference) != 0; });
  }
  // As the public entry point does: replaces the host callbacks, then starts.
  void startSearch(const std::string& payload) {
    onLoop([&] {
      attachHostCallbacks();
      facade_->startSearchingWithPayload(payload);
    });
  }
  // Sets up and waits for the connection (a search started while registering
  // would register a second time).
  void setUpAndConnect(const TLRTelloraConfiguration& configuration) {
    setUpFacade(configuration);
    ASSERT_TRUE(waitUntilConnected());
  }
  // Then starts a search and waits for the nearby request that ends the
  // search sequence.
  void startSearchAndWait(const std::string& payload = "my-payload") {
    setUpAndConnect(configuration());
    startSearch(payload);
    ASSERT_TRUE(match_.waitForRequests(2, 1));
    ASSERT_TRUE(waitUntil([&] { return events_->countOf("started") == 1; }));
  }
  void stopSearch() { call(&TLRTelloraImpl::stopSearching); }
  // Releases the facade on the loop (as its last owner must) after closing
  // its connection.
  void destroyFacade() {
    if (!facade_) return;
    onLoop([&] {
      facade_->disconnect();
      facade_.reset();
    });
  }

  int64_t telloraState() { return call(&TLRTelloraImpl::telloraState); }
  int64_t searchState() { return call(&TLRTelloraImpl::searchState); }
  // The facade's recording flag, and whether its recorder runs.
  std::pair<bool, bool> recording() {
    return onLoop([&] {
      return std::pair(facade_->isRecording(), facade_->recorder() && facade_->recorder()->isRec());
    });
  }
  std::vector<TLRClient> nearbyClients() { return call(&TLRTelloraImpl::nearbyClients); }
  // Pushes `seconds` (whole tenths) of a test sound in 100 ms blocks, starting
  // at the monotonic clock's now and following without gaps.
  void feedAudio(double seconds) {
    constexpr uint32_t kBlock = 800;  // 100 ms at 8000 Hz
    const double firstItemTicks = monotonicTicks();
    const auto items = testaudio::toItems(testaudio::renderChord(8000, 0.0, seconds));
    for (size_t at = 0; at + kBlock <= items.size(); at += kBlock) {
      ASSERT_TRUE(audio_->push(items.data() + at, kBlock, firstItemTicks + at * 1e9 / 8000))
          << "item " << at << " dropped: the recorder is not running";
    }
  }

  testing::RuntimeSandbox sandbox_;
  testing::HttpTestServer registrar_;
  MatchServer match_;
  std::shared_ptr<TLRHostFedAudio> audio_ = TLRHostFedAudio::create();
  std::shared_ptr<HostEvents> events_ = std::make_shared<HostEvents>();
  std::shared_ptr<TLRTelloraImpl> facade_;

 private:
  void attachHostCallbacks() {  // on the loop
    facade_->setHostCallbacks(
        [events = events_] { events->add({"started"}); },
        [events = events_](const TLRClient& c) {
          events->add({"found", c});
        },
        [events = events_](const TLRClient& c) {
          events->add({"lost", c});
        },
        [events = events_](const std::optional<TLRError>& e) {
          events->add({"stopped", std::nullopt, e, false, EventLoop::main().isCurrent()});
        });
  }
  std::vector<TLRNotificationCenter::ObserverToken> observers_;
};

}  // namespace tellora::facade_test
