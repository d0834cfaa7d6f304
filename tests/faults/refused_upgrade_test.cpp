// A server that does not know the client's credentials refuses the WebSocket
// upgrade with 802. The SDK reports every refusal to the host and keeps
// retrying; once a server that knows the identity answers, it connects and
// the pending search runs, under the identity it already had.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "facade/tellora_impl.h"
#include "runtime/event_loop.h"
#include "runtime/user_defaults.h"
#include "server/server.h"
#include "tellora/host_fed_audio.h"
#include "tellora/tellora.h"
#include "tests/faults/host_log.h"
#include "tests/faults/process_waits.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::faults {
namespace {

using namespace std::chrono_literals;
constexpr auto kRetryInterval = 300ms;

class RefusedUpgrade : public ::testing::Test {
 protected:
  void SetUp() override { UserDefaults::setStandardPath(dir.file("defaults.json")); }

  void TearDown() override {
    if (facade) {
      EventLoop::main().call([&] {
        facade->disconnect();
        facade.reset();
      });
    }
    EventLoop::main().drain();
  }

  std::unique_ptr<server::Server> serveOn(uint16_t port, const std::string& database) {
    server::ServerOptions options;
    options.port = port;
    options.databasePath = database;
    options.apps = {{7, "refusal-secret"}};
    auto server = std::make_unique<server::Server>(options);
    server->start();
    return server;
  }

  void createFacade(uint16_t port) {
    TLRTelloraConfiguration c;
    const std::string base = "127.0.0.1:" + std::to_string(port);
    c.registrationServerURL = "http://" + base + "/register";
    c.websocketServerURL = "ws://" + base + "/ws";
    c.appID = 7;
    c.appSecret = "refusal-secret";
    c.audioSourceFactory = audio->sourceFactory();
    facade = EventLoop::main().call([&, host = host] {
      auto created = TLRTelloraImpl::create();
      created->setTimings(Duration{}, kRetryInterval, 50ms);
      created->setHostCallbacks([host] { host->started(); }, nullptr, nullptr,
                                [host](const std::optional<TLRError>& e) { host->stopped(e); });
      created->setConfiguration(c);
      return created;
    });
  }

  int64_t telloraState() {
    return EventLoop::main().call([&] { return facade->telloraState(); });
  }

  testtools::ScratchDir dir;
  std::shared_ptr<TLRHostFedAudio> audio = TLRHostFedAudio::create();
  std::shared_ptr<HostLog> host = std::make_shared<HostLog>();
  std::shared_ptr<TLRTelloraImpl> facade;
};

TEST_F(RefusedUpgrade, EveryRefusalReaches802ToTheHostUntilAServerKnowsTheClient) {
  const std::string knownIdentities = dir.file("clients.db");
  auto server = serveOn(0, knownIdentities);
  const uint16_t port = server->port();
  createFacade(port);
  ASSERT_TRUE(waitUntil([&] { return telloraState() == TLRTelloraStateConnected; }, 10s));
  const auto clientId = UserDefaults::standard().stringForKey(UDClientID);
  ASSERT_TRUE(clientId);

  // The same port now served by a server that has never issued that identity.
  server->stop();
  server.reset();
  server = serveOn(port, ":memory:");
  EventLoop::main().call([&] { facade->startSearchingWithPayload("refused"); });

  ASSERT_TRUE(waitUntil([&] { return host->stopsWithCode(802).size() >= 4; }, 10s))
      << host->stops().size() << " stops";
  const auto refusals = host->stopsWithCode(802);
  for (std::size_t i = 1; i < refusals.size(); ++i) {
    // Each refusal comes from a new attempt, started a retry interval after the last.
    EXPECT_GE(refusals[i].at - refusals[i - 1].at, kRetryInterval * 8 / 10) << "refusal " << i;
    EXPECT_EQ(refusals[i].error->domain, "com.tellora.quillmark.ErrorDomain");
  }
  EXPECT_EQ(host->startedCount(), 0);
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);

  // Back to the server that knows the identity: the next retry gets in and the
  // search requested during the refusals runs.
  server->stop();
  server.reset();
  server = serveOn(port, knownIdentities);
  EXPECT_TRUE(waitUntil([&] { return host->startedCount() == 1; }, 10s));
  EXPECT_EQ(telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(UserDefaults::standard().stringForKey(UDClientID), clientId);
  const auto refusalsBefore = host->stopsWithCode(802).size();
  std::this_thread::sleep_for(kRetryInterval * 3);
  EXPECT_EQ(host->stopsWithCode(802).size(), refusalsBefore) << "refused after connecting";
}

}  // namespace
}  // namespace tellora::faults
