// What the fault tests share: waits on programs running in the background,
// what a host sees of an in-process SDK instance (recorded from SDK threads,
// read by the test thread), and the base fixture that drives such an
// instance: a private defaults store, captured log lines and a clean
// disconnect after every test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "facade/tellora_impl.h"
#include "runtime/event_loop.h"
#include "tellora/host_fed_audio.h"
#include "tellora/notifications.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/child_process.h"

namespace tellora::faults {

using namespace std::chrono_literals;
using testing::BackgroundProcess;
using testing::waitUntil;
using Lines = testing::WatchedList<std::string>;

// The "listening on 127.0.0.1:P" port a tellora-server printed; 0 before that.
inline uint16_t listeningPort(const std::string& serverOutput) {
  constexpr std::string_view kListening = "listening on 127.0.0.1:";
  const auto at = serverOutput.find(kListening);
  if (at == std::string::npos || serverOutput.find('\n', at) == std::string::npos) return 0;
  return static_cast<uint16_t>(std::atoi(serverOutput.c_str() + at + kListening.size()));
}

struct HostLog {
  struct Stop {
    std::optional<TLRError> error;
    std::chrono::steady_clock::time_point at;
  };
  std::vector<Stop> stopsWithCode(int64_t code) const {
    auto matching = stops.get();
    std::erase_if(matching, [&](const Stop& s) { return !s.error || s.error->code != code; });
    return matching;
  }

  testing::Watched<int> starts;
  testing::WatchedList<Stop> stops;
};

// A configuration for app 7 registering on `port` and opening its WebSocket on
// `wsPort` (the same port unless a proxy sits in between).
inline TLRTelloraConfiguration loopbackConfiguration(const std::string& appSecret,
                                                     TLRAudioSourceFactory audio, uint16_t port,
                                                     uint16_t wsPort = 0) {
  const std::string base = "127.0.0.1:";
  return {"http://" + base + std::to_string(port) + "/register",
          "ws://" + base + std::to_string(wsPort ? wsPort : port) + "/ws", 7, appSecret,
          std::move(audio)};
}

class FacadeFaultTest : public ::testing::Test {
 protected:
  void TearDown() override {
    disconnect();
    EventLoop::main().drain();
    EventLoop::main().drain();
    for (auto token : observers_)
      TLRNotificationCenter::defaultCenter().removeObserver(token);
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
      created->setTimings(linkCheckInterval, retryInterval, 50ms);
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
  bool waitConnected(std::chrono::milliseconds timeout = 10s) {
    return waitUntil([&] { return telloraState() == TLRTelloraStateConnected; }, timeout);
  }
  void startSearching(const std::string& payload) {
    EventLoop::main().call([&] { facade->startSearchingWithPayload(payload); });
  }

  testing::RuntimeSandbox sandbox;  // the defaults store and the SDK's log lines
  std::shared_ptr<HostLog> host = std::make_shared<HostLog>();
  std::shared_ptr<TLRHostFedAudio> audio = TLRHostFedAudio::create();
  std::shared_ptr<TLRTelloraImpl> facade;

 private:
  std::vector<TLRNotificationCenter::ObserverToken> observers_;
};

}  // namespace tellora::faults
