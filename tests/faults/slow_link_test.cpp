// A link that stops carrying replies, through a loopback proxy in front of the
// real server. The SDK warns the host ("low"), restarts the transport while
// replies keep taking more than 25 s, and after the sixth restart request
// gives up, reporting 103. A clock that jumps 30 s at every reading makes each
// reply "take" that long without the test waiting for it.
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "runtime/clock.h"
#include "server/server.h"
#include "tellora/host_fed_audio.h"
#include "tests/faults/facade_fixture.h"
#include "tests/support/tcp_proxy.h"

namespace tellora::faults {
namespace {

using namespace std::chrono_literals;

// The system clock, until told to jump: from then on every reading is 30 s
// later than the one before, so every reply is measured as a slow one.
class JumpingClock : public Clock {
 public:
  double wallSeconds() override {
    const double jumped = jumps_.fetch_add(jumping_ ? 1 : 0) * 30.0;
    return system_.wallSeconds() + jumped;
  }
  double monotonicTicks() override { return system_.monotonicTicks(); }
  void startJumping() { jumping_ = true; }

 private:
  Clock& system_ = clock();
  std::atomic<bool> jumping_{false};
  std::atomic<long> jumps_{0};
};

class SlowLink : public FacadeFaultTest {
 protected:
  void SetUp() override {
    FacadeFaultTest::SetUp();
    EventLoop::main().call([&] { setClockForTesting(&jumpingClock); });
    captureLog();
    observe(TLRTelloraNetworkSpeedStatusChanged, "speedStatus", speedStatuses);

    server::ServerOptions options;
    options.port = 0;
    options.databasePath = ":memory:";
    server = std::make_unique<server::Server>(options);
    server->start();
    proxy = std::make_unique<testing::TcpProxy>(server->port());
    // Checks the link ten times a second; retries a failed open quickly.
    createFacade(
        loopbackConfiguration("slow-link", audio->sourceFactory(), server->port(), proxy->port()),
        100ms, 300ms);
  }

  void TearDown() override {
    disconnect();
    proxy.reset();
    server->stop();
    FacadeFaultTest::TearDown();
    EventLoop::main().call([] { setClockForTesting(nullptr); });
  }

  JumpingClock jumpingClock;
  std::shared_ptr<Lines> speedStatuses = std::make_shared<Lines>();
  std::unique_ptr<server::Server> server;
  std::unique_ptr<testing::TcpProxy> proxy;
  std::shared_ptr<TLRHostFedAudio> audio = TLRHostFedAudio::create();
};

TEST_F(SlowLink, StalledRepliesWarnLowThenRestartsEndInGiveUp103) {
  ASSERT_TRUE(waitConnected());
  ASSERT_EQ(proxy->acceptedConnections(), 1u);

  // Nothing comes back: the search's first request ages past a second.
  proxy->stall();
  startSearching("stalled");
  ASSERT_TRUE(speedStatuses->waitFor("low"));
  // An overdue request holds the restart back, however long it waits.
  EXPECT_EQ(host->log.count("Tellora reconnect"), 0u);
  EXPECT_EQ(proxy->acceptedConnections(), 1u);
  EXPECT_EQ(host->startedCount(), 0);

  // The replies arrive, each 30 s late; a second start adds three more. From
  // five slow replies on, each restart's clock measurement keeps the count up.
  jumpingClock.startJumping();
  proxy->resume();
  ASSERT_TRUE(waitUntil([&] { return host->startedCount() == 1; }, 5s));
  EventLoop::main().call([&] {
    facade->stopSearching();
    facade->startSearchingWithPayload("slow");
  });

  ASSERT_TRUE(waitUntil([&] { return !host->stopsWithCode(103).empty(); }, 20s))
      << host->log.count("Tellora reconnect") << " restarts, " << proxy->acceptedConnections()
      << " connections";
  const auto giveUp = host->stopsWithCode(103).front().error;
  EXPECT_EQ(giveUp->domain, "com.tellora.quillmark.ErrorDomain");
  EXPECT_EQ(host->log.count("Tellora reconnect"), 5u);
  // The first connection and one per restart; none after the give-up.
  std::this_thread::sleep_for(1s);
  EXPECT_EQ(proxy->acceptedConnections(), 6u);
  EXPECT_EQ(host->stopsWithCode(103).size(), 1u);
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);
}

}  // namespace
}  // namespace tellora::faults
