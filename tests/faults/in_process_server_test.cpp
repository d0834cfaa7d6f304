// Faults against a tellora-server running in this process, reached by the
// facade: refused upgrades, a stalled link, failing audio devices.
#include <atomic>
#include <thread>

#include "runtime/clock.h"
#include "server/server.h"
#include "tellora/audio_source.h"
#include "tests/faults/facade_fixture.h"
#include "tests/support/tcp_proxy.h"
#include "tests/tools/test_audio.h"

namespace tellora::faults {
namespace {

std::unique_ptr<server::Server> serve(uint16_t port = 0, const std::string& database = ":memory:") {
  server::ServerOptions options;
  options.port = port;
  options.databasePath = database;
  auto server = std::make_unique<server::Server>(options);
  server->start();
  return server;
}

// --- Refused upgrades ------------------------------------------------------------

// A server that does not know the client's credentials refuses the WebSocket
// upgrade with 802. The SDK reports every refusal to the host and keeps
// retrying; once a server that knows the identity answers, it connects and
// the pending search runs, under the identity it already had.

constexpr auto kRetryInterval = 300ms;

using RefusedUpgrade = FacadeFaultTest;

TEST_F(RefusedUpgrade, EveryRefusalReaches802ToTheHostUntilAServerKnowsTheClient) {
  const std::string knownIdentities = sandbox.folder.file("clients.db");
  auto server = serve(0, knownIdentities);
  const uint16_t port = server->port();
  createFacade(loopbackConfiguration("refusal-secret", audio->sourceFactory(), port), Duration{},
               kRetryInterval);
  ASSERT_TRUE(waitConnected());
  const auto clientId = UserDefaults::standard().stringForKey(UDClientID);
  ASSERT_TRUE(clientId);

  // The same port now served by a server that has never issued that identity.
  server.reset();
  server = serve(port, ":memory:");
  startSearching("refused");

  ASSERT_TRUE(waitUntil([&] { return host->stopsWithCode(802).size() >= 4; }, 10s))
      << host->stops.get().size() << " stops";
  const auto refusals = host->stopsWithCode(802);
  // Each refusal comes from a new attempt, started a retry interval after the last.
  for (std::size_t i = 1; i < refusals.size(); ++i)
    EXPECT_GE(refusals[i].at - refusals[i - 1].at, kRetryInterval * 8 / 10) << "refusal " << i;
  EXPECT_EQ(host->starts.get(), 0);
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);

  // Back to the server that knows the identity: the next retry gets in and the
  // search requested during the refusals runs.
  server.reset();
  server = serve(port, knownIdentities);
  EXPECT_TRUE(waitUntil([&] { return host->starts.get() == 1; }, 10s));
  EXPECT_EQ(telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(UserDefaults::standard().stringForKey(UDClientID), clientId);
  const auto refusalsBefore = host->stopsWithCode(802).size();
  std::this_thread::sleep_for(kRetryInterval * 3);
  EXPECT_EQ(host->stopsWithCode(802).size(), refusalsBefore) << "refused after connecting";
}

// --- A stalled link ---------------------------------------------------------------

// A link that stops carrying replies, through a loopback proxy in front of the
// real server. The SDK warns the host ("low"), restarts the transport while
// replies keep taking more than 25 s, and after the sixth restart request
// gives up, reporting 103. A clock that jumps 30 s at every reading makes each
// reply "take" that long without the test waiting for it.

// The system clock, until told to jump: from then on every reading is 30 s
// later than the one before, so every reply is measured as a slow one. It is
// the SDK's clock while it lives.
class JumpingClock : public Clock {
 public:
  JumpingClock() {
    EventLoop::main().call([this] { setClockForTesting(this); });
  }
  ~JumpingClock() override {
    EventLoop::main().call([] { setClockForTesting(nullptr); });
  }
  double wallSeconds() override {
    return system_.wallSeconds() + jumps_.fetch_add(jumping_ ? 1 : 0) * 30.0;
  }
  double monotonicTicks() override { return system_.monotonicTicks(); }
  void startJumping() { jumping_ = true; }

 private:
  Clock& system_ = clock();
  std::atomic<bool> jumping_{false};
  std::atomic<long> jumps_{0};
};

// Members go in this order so that the facade (gone in TearDown) goes first,
// then the proxy, the server and last the clock.
class SlowLink : public FacadeFaultTest {
 protected:
  JumpingClock jumpingClock;
  std::unique_ptr<server::Server> server = serve();
  testing::TcpProxy proxy{server->port()};
};

TEST_F(SlowLink, StalledRepliesWarnLowThenRestartsEndInGiveUp103) {
  const auto speedStatuses = std::make_shared<Lines>();
  observe(TLRTelloraNetworkSpeedStatusChanged, "speedStatus", speedStatuses);
  // Checks the link ten times a second; retries a failed open quickly.
  createFacade(
      loopbackConfiguration("slow-link", audio->sourceFactory(), server->port(), proxy.port()),
      100ms, 300ms);
  ASSERT_TRUE(waitConnected());
  ASSERT_EQ(proxy.acceptedConnections(), 1u);

  // Nothing comes back: the search's first request ages past a second.
  proxy.stall();
  startSearching("stalled");
  ASSERT_TRUE(speedStatuses->waitFor("low"));
  // An overdue request holds the restart back, however long it waits.
  EXPECT_EQ(sandbox.countLog("Tellora reconnect"), 0u);
  EXPECT_EQ(proxy.acceptedConnections(), 1u);
  EXPECT_EQ(host->starts.get(), 0);

  // The replies arrive, each 30 s late; a second start adds three more. From
  // five slow replies on, each restart's clock measurement keeps the count up.
  jumpingClock.startJumping();
  proxy.resume();
  ASSERT_TRUE(waitUntil([&] { return host->starts.get() == 1; }, 5s));
  EventLoop::main().call([&] {
    facade->stopSearching();
    facade->startSearchingWithPayload("slow");
  });

  ASSERT_TRUE(waitUntil([&] { return !host->stopsWithCode(103).empty(); }, 20s))
      << sandbox.countLog("Tellora reconnect") << " restarts, " << proxy.acceptedConnections()
      << " connections";
  EXPECT_EQ(sandbox.countLog("Tellora reconnect"), 5u);
  // The first connection and one per restart; none after the give-up.
  std::this_thread::sleep_for(1s);
  EXPECT_EQ(proxy.acceptedConnections(), 6u);
  EXPECT_EQ(host->stopsWithCode(103).size(), 1u);
  EXPECT_EQ(telloraState(), TLRTelloraStateDisconnected);
}

// --- Failing audio devices ---------------------------------------------------------

// An audio device that fails to start, and one that goes away in the middle
// of a search. The recorder retries
// with a growing delay and announces each retry ("audioError"); the host's
// search is not stopped, and fingerprints flow again once the device is back.

// The device as the test controls it: it refuses to start a number of times,
// and it can be unplugged (blocks stop, starts fail) and plugged back in.
struct Device {
  std::atomic<int> failuresLeft{0};
  std::atomic<bool> unplugged{false};
  std::atomic<int> starts{0};
};

// A live source over `Device`: 100 ms blocks of sound from a thread of its own.
class DeviceSource : public TLRAudioSource {
 public:
  explicit DeviceSource(std::shared_ptr<Device> device) : device_(std::move(device)) {}
  ~DeviceSource() override { stop(); }
  TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) override {
    if (device_->unplugged) return TLRAudioStartResult::failure(-9996, "Pa_OpenStream");
    if (device_->failuresLeft.fetch_sub(1) > 0)
      return TLRAudioStartResult::failure(-9999, "Pa_StartStream");
    ++device_->starts;
    feeder_ = std::thread([this, format, sink = std::move(sink)] { feed(format, sink); });
    return TLRAudioStartResult::success();
  }
  void stop() override {
    stopping_ = true;
    if (feeder_.joinable()) feeder_.join();
  }
  std::optional<std::chrono::milliseconds> stallTimeout() const override { return 400ms; }

 private:
  // The same 100 ms of sound over and over.
  void feed(const TLRAudioSourceFormat& format, const BlockSink& sink) {
    auto block =
        testaudio::toItems(testaudio::renderChord(static_cast<int>(format.sampleRate), 0.0, 0.1));
    block.resize(format.itemsPerBlock);
    for (; !stopping_; std::this_thread::sleep_for(100ms))
      if (!device_->unplugged)
        sink(block.data(), static_cast<uint32_t>(block.size()), monotonicTicks());
  }

  std::shared_ptr<Device> device_;
  std::atomic<bool> stopping_{false};
  std::thread feeder_;
};

using AudioDeviceFaults = FacadeFaultTest;

TEST_F(AudioDeviceFaults, ADeviceThatFailsToStartOrVanishesIsRetriedUntilItRunsAgain) {
  const auto device = std::make_shared<Device>();
  device->failuresLeft = 3;
  const auto audioErrors = std::make_shared<Lines>();
  observe(TLRAudioErrorNotification, "message", audioErrors);
  // Debug logging shows every fingerprint the search sends.
  testing::RuntimeSandbox::setDebug(true);
  const auto fingerprintsSent = [&] { return sandbox.countLogStartingWith("startTime == "); };
  const auto fingerprintsFlowAfter = [&](std::size_t sentBefore) {
    return waitUntil([&] { return fingerprintsSent() >= sentBefore + 3; }, 10s);
  };
  const auto server = serve();
  // The recorder retries after 50, 100, 150 ms...
  createFacade(loopbackConfiguration(
                   "audio-faults", [device] { return std::make_unique<DeviceSource>(device); },
                   server->port()),
               Duration{}, 300ms);
  ASSERT_TRUE(waitConnected());
  startSearching("listening");
  ASSERT_TRUE(waitUntil([&] { return host->starts.get() == 1; }, 5s));
  ASSERT_TRUE(waitUntil([&] { return device->starts == 1; }, 5s));
  EXPECT_EQ(audioErrors->get(),
            (std::vector<std::string>{
                "Error with code -9999 occure - Pa_StartStream attemptCount == 2",
                "Error with code -9999 occure - Pa_StartStream attemptCount == 3",
                "Error with code -9999 occure - Pa_StartStream attemptCount == 4"}));
  ASSERT_TRUE(fingerprintsFlowAfter(0));

  device->unplugged = true;
  // The silence is noticed, then every start fails while the device is gone.
  ASSERT_TRUE(audioErrors->waitForSize(6));
  const auto messages = audioErrors->get();
  EXPECT_EQ(messages[3], "Error with code -9987 occure - audioDataReceived attemptCount == 2");
  EXPECT_EQ(messages[4], "Error with code -9996 occure - Pa_OpenStream attemptCount == 3");
  // A failing device is the recorder's business: the host's search goes on.
  EXPECT_EQ(telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(EventLoop::main().call([&] { return facade->searchState(); }), TLRSearchStateSearching);
  const auto sentWhileGone = fingerprintsSent();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(fingerprintsSent(), sentWhileGone) << "fingerprints without a device";

  device->unplugged = false;
  ASSERT_TRUE(waitUntil([&] { return device->starts == 2; }, 5s));
  EXPECT_TRUE(fingerprintsFlowAfter(sentWhileGone));
  EXPECT_TRUE(host->stops.get().empty());
}

}  // namespace
}  // namespace tellora::faults
