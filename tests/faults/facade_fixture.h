// Base fixture of the fault tests that drive an in-process SDK instance: a
// private defaults store, the host's view of the instance, and a clean
// disconnect after every test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "facade/tellora_impl.h"
#include "runtime/event_loop.h"
#include "runtime/user_defaults.h"
#include "tellora/tellora.h"
#include "tests/faults/host_log.h"
#include "tests/faults/process_waits.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::faults {

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
  }

  // Creates the instance; the host log hears of every start and stop.
  void createFacade(const TLRTelloraConfiguration& c, Duration linkCheckInterval,
                    Duration retryInterval) {
    facade = EventLoop::main().call([&, log = host] {
      auto created = TLRTelloraImpl::create();
      created->setTimings(linkCheckInterval, retryInterval, std::chrono::milliseconds(50));
      created->setHostCallbacks([log] { log->started(); }, nullptr, nullptr,
                                [log](const std::optional<TLRError>& e) { log->stopped(e); });
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
};

}  // namespace tellora::faults
