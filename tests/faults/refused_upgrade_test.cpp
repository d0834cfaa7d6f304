// A server that does not know the client's credentials refuses the WebSocket
// upgrade with 802. The SDK reports every refusal to the host and keeps
// retrying; once a server that knows the identity answers, it connects and
// the pending search runs, under the identity it already had.
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "server/server.h"
#include "tellora/host_fed_audio.h"
#include "tests/faults/facade_fixture.h"

namespace tellora::faults {
namespace {

using namespace std::chrono_literals;
constexpr auto kRetryInterval = 300ms;

class RefusedUpgrade : public FacadeFaultTest {
 protected:
  std::unique_ptr<server::Server> serveOn(uint16_t port, const std::string& database) {
    server::ServerOptions options;
    options.port = port;
    options.databasePath = database;
    options.apps = {{7, "refusal-secret"}};
    auto server = std::make_unique<server::Server>(options);
    server->start();
    return server;
  }

  std::shared_ptr<TLRHostFedAudio> audio = TLRHostFedAudio::create();
};

TEST_F(RefusedUpgrade, EveryRefusalReaches802ToTheHostUntilAServerKnowsTheClient) {
  const std::string knownIdentities = dir.file("clients.db");
  auto server = serveOn(0, knownIdentities);
  const uint16_t port = server->port();
  createFacade(loopbackConfiguration("refusal-secret", audio->sourceFactory(), port), Duration{},
               kRetryInterval);
  ASSERT_TRUE(waitConnected());
  const auto clientId = UserDefaults::standard().stringForKey(UDClientID);
  ASSERT_TRUE(clientId);

  // The same port now served by a server that has never issued that identity.
  server->stop();
  server.reset();
  server = serveOn(port, ":memory:");
  startSearching("refused");

  ASSERT_TRUE(waitUntil([&] { return host->stopsWithCode(802).size() >= 4; }, 10s))
      << host->stops.get().size() << " stops";
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
