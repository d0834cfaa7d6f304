// An audio device that fails to start, and one that goes away in the middle
// of a search, behind the facade with the real server. The recorder retries
// with a growing delay and announces each retry ("audioError"); the host's
// search is not stopped, and fingerprints flow again once the device is back.
#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "runtime/clock.h"
#include "server/server.h"
#include "tellora/audio_source.h"
#include "tests/faults/facade_fixture.h"

namespace tellora::faults {
namespace {

using namespace std::chrono_literals;

// The device as the test controls it: it refuses to start a number of times,
// and it can be unplugged (blocks stop, starts fail) and plugged back in.
struct Device {
  std::atomic<int> failuresLeft{0};
  std::atomic<bool> unplugged{false};
  std::atomic<int> starts{0};
};

// A live source over `Device`: 100 ms blocks of a tone from a thread of its own.
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
  void feed(const TLRAudioSourceFormat& format, const BlockSink& sink) {
    std::vector<int16_t> items(format.itemsPerBlock);
    uint64_t item = 0;
    while (!stopping_) {
      if (!device_->unplugged) {
        for (auto& value : items) {
          const double t = static_cast<double>(item++) / format.sampleRate;
          value = static_cast<int16_t>(6000 * std::sin(2 * M_PI * 440 * t) +
                                       3000 * std::sin(2 * M_PI * 1234 * t * t));
        }
        sink(items.data(), static_cast<uint32_t>(items.size()), monotonicTicks());
      }
      std::this_thread::sleep_for(100ms);
    }
  }

  std::shared_ptr<Device> device_;
  std::atomic<bool> stopping_{false};
  std::thread feeder_;
};

class AudioDeviceFaults : public FacadeFaultTest {
 protected:
  void SetUp() override {
    FacadeFaultTest::SetUp();
    // Debug logging shows every fingerprint the search sends.
    UserDefaults::standard().setBool("debug", true);
    captureLog();
    observe(TLRAudioErrorNotification, "message", audioErrors);
    server::ServerOptions options;
    options.port = 0;
    options.databasePath = ":memory:";
    server = std::make_unique<server::Server>(options);
    server->start();
  }

  void TearDown() override {
    disconnect();
    server->stop();
    FacadeFaultTest::TearDown();
  }

  // Sets up, waits for the connection and starts a search; the recorder
  // retries after 50, 100, 150 ms...
  void search() {
    createFacade(
        loopbackConfiguration(
            "audio-faults", [device = device] { return std::make_unique<DeviceSource>(device); },
            server->port()),
        Duration{}, 300ms);
    ASSERT_TRUE(waitConnected());
    startSearching("listening");
    ASSERT_TRUE(waitUntil([&] { return host->startedCount() == 1; }, 5s));
  }

  int64_t searchState() {
    return EventLoop::main().call([&] { return facade->searchState(); });
  }
  std::size_t fingerprintsSent() { return host->countLogStartingWith("startTime == "); }
  bool fingerprintsFlowAfter(std::size_t sentBefore) {
    return waitUntil([&] { return fingerprintsSent() >= sentBefore + 3; }, 10s);
  }

  std::shared_ptr<Device> device = std::make_shared<Device>();
  std::shared_ptr<Lines> audioErrors = std::make_shared<Lines>();
  std::unique_ptr<server::Server> server;
};

TEST_F(AudioDeviceFaults, DeviceThatFailsToStartIsRetriedUntilItRuns) {
  device->failuresLeft = 3;
  search();
  ASSERT_TRUE(waitUntil([&] { return device->starts == 1; }, 5s));
  EXPECT_EQ(audioErrors->get(),
            (std::vector<std::string>{
                "Error with code -9999 occure - Pa_StartStream attemptCount == 2",
                "Error with code -9999 occure - Pa_StartStream attemptCount == 3",
                "Error with code -9999 occure - Pa_StartStream attemptCount == 4"}));
  EXPECT_TRUE(fingerprintsFlowAfter(0));
  // A failed start is the recorder's business: the host's search goes on.
  EXPECT_TRUE(host->stops.get().empty());
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
}

TEST_F(AudioDeviceFaults, DeviceThatVanishesMidSearchIsPickedUpAgain) {
  search();
  ASSERT_TRUE(fingerprintsFlowAfter(0));
  ASSERT_TRUE(audioErrors->get().empty());

  device->unplugged = true;
  // The silence is noticed, then every start fails while the device is gone.
  ASSERT_TRUE(audioErrors->waitForSize(3));
  const auto messages = audioErrors->get();
  EXPECT_EQ(messages[0], "Error with code -9987 occure - audioDataReceived attemptCount == 2");
  EXPECT_EQ(messages[1], "Error with code -9996 occure - Pa_OpenStream attemptCount == 3");
  EXPECT_EQ(telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);

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
