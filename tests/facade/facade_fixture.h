// The facade's tests run against real loopback servers: registration over
// HTTP, the matching protocol over WebSocket (MatchServer), audio pushed by the
// test. FacadeTest gives each test a fresh facade, a user-defaults file of its
// own, and everything the host would see (callbacks, notifications, log lines)
// recorded for the test thread.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "facade/tellora_impl.h"
#include "runtime/event_loop.h"
#include "tellora/host_fed_audio.h"
#include "tellora/notifications.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/http_test_server.h"
#include "tests/support/ws_test_server.h"

namespace tellora::facade_test {

using namespace std::chrono_literals;
using testing::waitUntil;

// A loopback matching server speaking the SDK's WebSocket protocol: it answers
// every request by its "id", reads its clock with a chosen offset from the
// local one, hands out a scripted nearby list, and pushes found/lost on demand.
class MatchServer {
 public:
  MatchServer();
  MatchServer(const MatchServer&) = delete;
  MatchServer& operator=(const MatchServer&) = delete;

  testing::WsTestServer& ws() { return server_; }
  std::string url() const { return server_.url("/ws"); }

  // The server's clock = the local wall clock + this (ms).
  void setClockOffset(double milliseconds);
  // The "nearby" list of every get-all-nearby reply.
  void setNearby(nlohmann::json nearby);
  // Pushed (after the reply) whenever a get-all-nearby request comes in.
  void pushAfterNearbyRequest(std::vector<std::string> pushes);

  // Every request the clients sent, parsed, in arrival order (unparseable
  // frames as null).
  std::vector<nlohmann::json> requests() const;
  std::vector<nlohmann::json> requestsOfType(int type) const;
  bool waitForRequestsOfType(int type, std::size_t count,
                             std::chrono::milliseconds timeout = testing::kDefaultWait) const;

  void pushFound(const std::string& clientID, const nlohmann::json& payload);
  void pushLost(const std::string& clientID);

  static std::string foundPush(const std::string& clientID, const nlohmann::json& payload);

 private:
  struct Script {
    std::mutex mutex;
    double clockOffset = 0;
    nlohmann::json nearby = nlohmann::json::array();
    std::vector<std::string> pushesAfterNearby;
  };

  std::shared_ptr<Script> script_ = std::make_shared<Script>();
  testing::WsTestServer server_;
};

// One thing the host saw: a callback ("started", "found", "lost", "stopped")
// or a notification (by its name).
struct HostEvent {
  std::string name;
  std::optional<TLRClient> client;  // of "found"/"lost", or a notification's "client"
  std::optional<TLRError> error;    // of "stopped", or a notification's "Error"
  bool hasUserInfo = false;
  bool onLoop = false;
};

class HostEvents : public testing::Recorded<HostEvent> {
 public:
  std::vector<HostEvent> named(const std::string& name) const;
  size_t countOf(const std::string& name) const { return named(name).size(); }
  // The position of the first such event; -1 when absent.
  int indexOf(const std::string& name) const;
};

class FacadeTest : public ::testing::Test {
 protected:
  static constexpr const char* kClientID = "client-7";
  static constexpr const char* kClientSecret = "secret-7";

  void SetUp() override;
  void TearDown() override;

  template <class F>
  static auto onLoop(F&& f) {
    return EventLoop::main().call(std::forward<F>(f));
  }

  // Both servers, host-fed audio, app id 7 and secret "app-secret".
  TLRTelloraConfiguration configuration() const;
  // A fresh facade (replacing the previous one) whose host callbacks record
  // into events_. Nothing connects yet.
  void createFacade();
  void setUpFacade(const TLRTelloraConfiguration& configuration);
  void setUpFacade() { setUpFacade(configuration()); }
  // The facade has measured the clock after the connection opened.
  bool waitUntilConnected();
  // As the public entry point does: replaces the host callbacks, then starts.
  void startSearch(const std::string& payload);
  // Sets up, waits for the connection, starts a search and waits for the
  // nearby request that ends the search sequence.
  void startSearchAndWait(const std::string& payload = "my-payload");
  // Releases the facade on the loop (as its last owner must) after closing
  // its connection.
  void destroyFacade();

  int64_t telloraState();
  int64_t searchState();
  std::vector<TLRClient> nearbyClients();
  // Pushes `seconds` (whole tenths) of a test sound in 100 ms blocks whose first item is
  // stamped `firstItemTicks` and the rest follow without gaps.
  void feedAudio(double seconds, double firstItemTicks);
  std::string defaultsFile() const { return sandbox_.folder.file("defaults.json"); }

  testing::RuntimeSandbox sandbox_;
  testing::HttpTestServer registrar_;
  MatchServer match_;
  std::shared_ptr<TLRHostFedAudio> audio_ = TLRHostFedAudio::create();
  std::shared_ptr<HostEvents> events_ = std::make_shared<HostEvents>();
  std::shared_ptr<TLRTelloraImpl> facade_;

 private:
  void attachHostCallbacks();  // on the loop
  std::vector<TLRNotificationCenter::ObserverToken> observers_;
};

}  // namespace tellora::facade_test
