// What the fault tests share: waits on programs running in the background,
// what a host sees of an in-process SDK instance (recorded from SDK threads,
// read by the test thread), and the base fixture that drives such an
// instance: a private defaults store and a clean disconnect after every test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "facade/tellora_impl.h"
#include "runtime/event_loop.h"
#include "runtime/user_defaults.h"
#include "tellora/error.h"
#include "tellora/logging.h"
#include "tellora/notifications.h"
#include "tellora/tellora.h"
#include "tests/support/child_process.h"
#include "tests/support/watched.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::faults {

using testing::BackgroundProcess;
using Lines = testing::WatchedList<std::string>;

// Polls `condition` every 50 ms until it holds or `timeout` passes.
inline bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// The "listening on 127.0.0.1:P" port a tellora-server printed; 0 before that.
inline uint16_t listeningPort(const std::string& serverOutput) {
  const auto at = serverOutput.find("listening on ");
  const auto colon = serverOutput.find(':', at);
  if (at == std::string::npos || colon == std::string::npos ||
      serverOutput.find('\n', at) == std::string::npos)
    return 0;
  return static_cast<uint16_t>(std::atoi(serverOutput.c_str() + colon + 1));
}

struct HostLog {
  struct Stop {
    std::optional<TLRError> error;
    std::chrono::steady_clock::time_point at;
  };

  int startedCount() const { return starts.get(); }
  std::vector<Stop> stopsWithCode(int64_t code) const {
    auto matching = stops.get();
    std::erase_if(matching, [&](const Stop& s) { return !s.error || s.error->code != code; });
    return matching;
  }
  std::size_t countLogStartingWith(const std::string& prefix) const {
    const auto lines = log.get();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
  }

  testing::Watched<int> starts;
  testing::WatchedList<Stop> stops;
  Lines log;  // the SDK's log lines, once captureLog() ran
};

// A configuration for app 7 registering on `port` and opening its WebSocket on
// `wsPort` (the same port unless a proxy sits in between).
inline TLRTelloraConfiguration loopbackConfiguration(const std::string& appSecret,
                                                     TLRAudioSourceFactory audio, uint16_t port,
                                                     uint16_t wsPort = 0) {
  TLRTelloraConfiguration c;
  c.registrationServerURL = "http://127.0.0.1:" + std::to_string(port) + "/register";
  c.websocketServerURL = "ws://127.0.0.1:" + std::to_string(wsPort ? wsPort : port) + "/ws";
  c.appID = 7;
  c.appSecret = appSecret;
  c.audioSourceFactory = std::move(audio);
  return c;
}

class FacadeFaultTest : public ::testing::Test {
 protected:
  void SetUp() override { UserDefaults::setStandardPath(dir.file("defaults.json")); }

  void TearDown() override {
    disconnect();
    EventLoop::main().drain();
    EventLoop::main().drain();
    for (auto token : observers_)
      TLRNotificationCenter::defaultCenter().removeObserver(token);
    TLRSetLogSink({});
  }

  // The SDK's log lines go to host->log.
  void captureLog() {
    TLRSetLogSink([log = host](std::string_view line) { log->log.add(std::string(line)); });
  }
  // The string `key` of every `notification` goes to `into`.
  void observe(const std::string& notification, const std::string& key,
               std::shared_ptr<Lines> into) {
    observers_.push_back(TLRNotificationCenter::defaultCenter().addObserver(
        notification, [key, into](const TLRNotification& n) {
          const auto value = n.userInfo.find(key);
          const auto* text =
              value == n.userInfo.end() ? nullptr : std::get_if<std::string>(&value->second);
          into->add(text ? *text : "");
        }));
  }

  // Creates the instance; the host log hears of every start and stop.
  void createFacade(const TLRTelloraConfiguration& c, Duration linkCheckInterval,
                    Duration retryInterval) {
    facade = EventLoop::main().call([&, log = host] {
      auto created = TLRTelloraImpl::create();
      created->setTimings(linkCheckInterval, retryInterval, std::chrono::milliseconds(50));
      created->setHostCallbacks([log] { log->starts.update([](int& n) { ++n; }); }, nullptr,
                                nullptr,
                                [log](const std::optional<TLRError>& e) {
                                  log->stops.add({e, std::chrono::steady_clock::now()});
                                });
      created->setConfiguration(c);
      return created;
    });
  }

  void disconnect() {
    if (!facade) return;
    EventLoop::main().call([&] {
      facade->disconnect();
      facade.reset();
    });
  }

  int64_t telloraState() {
    return EventLoop::main().call([&] { return facade->telloraState(); });
  }
  bool waitConnected(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return waitUntil([&] { return telloraState() == TLRTelloraStateConnected; }, timeout);
  }
  void startSearching(const std::string& payload) {
    EventLoop::main().call([&] { facade->startSearchingWithPayload(payload); });
  }

  testtools::ScratchDir dir;
  std::shared_ptr<HostLog> host = std::make_shared<HostLog>();
  std::shared_ptr<TLRTelloraImpl> facade;

 private:
  std::vector<TLRNotificationCenter::ObserverToken> observers_;
};

}  // namespace tellora::faults
