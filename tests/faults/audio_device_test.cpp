// An audio device that fails to start, and one that goes away in the middle
// of a search, behind the facade with the real server. The recorder retries
// with a growing delay and announces each retry ("audioError"); the host's
// search is not stopped, and fingerprints flow again once the device is back.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "audio/recorder.h"
#include "facade/tellora_impl.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "runtime/user_defaults.h"
#include "server/server.h"
#include "tellora/audio_source.h"
#include "tellora/logging.h"
#include "tellora/notifications.h"
#include "tellora/tellora.h"
#include "tests/faults/host_log.h"
#include "tests/faults/process_waits.h"
#include "tests/tools/scratch_dir.h"

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

class AudioDeviceFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    UserDefaults::setStandardPath(dir.file("defaults.json"));
    // Debug logging shows every fingerprint the search sends.
    UserDefaults::standard().setBool("debug", true);
    auto log = host;
    TLRSetLogSink([log](std::string_view line) { log->logLine(std::string(line)); });
    auto& center = TLRNotificationCenter::defaultCenter();
    auto messages = audioErrors;
    observers.push_back(
        center.addObserver(TLRAudioErrorNotification, [messages](const TLRNotification& n) {
          auto message = n.userInfo.find("message");
          const auto* text =
              message == n.userInfo.end() ? nullptr : std::get_if<std::string>(&message->second);
          std::lock_guard lock(messages->mutex);
          messages->texts.push_back(text ? *text : "");
        }));

    server::ServerOptions options;
    options.port = 0;
    options.databasePath = ":memory:";
    server = std::make_unique<server::Server>(options);
    server->start();
  }

  void TearDown() override {
    if (facade) {
      EventLoop::main().call([&] {
        facade->disconnect();
        facade.reset();
      });
    }
    server->stop();
    EventLoop::main().drain();
    EventLoop::main().drain();
    for (auto token : observers)
      TLRNotificationCenter::defaultCenter().removeObserver(token);
    TLRSetLogSink({});
  }

  // Sets up, waits for the connection and starts a search.
  void search() {
    TLRTelloraConfiguration c;
    const std::string base = "127.0.0.1:" + std::to_string(server->port());
    c.registrationServerURL = "http://" + base + "/register";
    c.websocketServerURL = "ws://" + base + "/ws";
    c.appID = 7;
    c.appSecret = "audio-faults";
    c.audioSourceFactory = [device = device] { return std::make_unique<DeviceSource>(device); };
    facade = EventLoop::main().call([&, log = host] {
      auto created = TLRTelloraImpl::create();
      created->setTimings(Duration{}, 300ms, 50ms);  // recorder retries after 50, 100, 150 ms...
      created->setHostCallbacks([log] { log->started(); }, nullptr, nullptr,
                                [log](const std::optional<TLRError>& e) { log->stopped(e); });
      created->setConfiguration(c);
      return created;
    });
    ASSERT_TRUE(waitUntil([&] { return state() == TLRTelloraStateConnected; }, 10s));
    EventLoop::main().call([&] { facade->startSearchingWithPayload("listening"); });
    ASSERT_TRUE(waitUntil([&] { return host->startedCount() == 1; }, 5s));
  }

  int64_t state() {
    return EventLoop::main().call([&] { return facade->telloraState(); });
  }
  int64_t searchState() {
    return EventLoop::main().call([&] { return facade->searchState(); });
  }
  std::vector<std::string> audioErrorMessages() {
    std::lock_guard lock(audioErrors->mutex);
    return audioErrors->texts;
  }
  std::size_t fingerprintsSent() { return host->countLogStartingWith("startTime == "); }
  bool fingerprintsFlowAfter(std::size_t sentBefore) {
    return waitUntil([&] { return fingerprintsSent() >= sentBefore + 3; }, 10s);
  }

  struct Messages {
    std::mutex mutex;
    std::vector<std::string> texts;
  };
  testtools::ScratchDir dir;
  std::shared_ptr<Device> device = std::make_shared<Device>();
  std::shared_ptr<Messages> audioErrors = std::make_shared<Messages>();
  std::shared_ptr<HostLog> host = std::make_shared<HostLog>();
  std::vector<TLRNotificationCenter::ObserverToken> observers;
  std::unique_ptr<server::Server> server;
  std::shared_ptr<TLRTelloraImpl> facade;
};

TEST_F(AudioDeviceFaults, DeviceThatFailsToStartIsRetriedUntilItRuns) {
  device->failuresLeft = 3;
  search();
  ASSERT_TRUE(waitUntil([&] { return device->starts == 1; }, 5s));
  EXPECT_EQ(audioErrorMessages(),
            (std::vector<std::string>{
                "Error with code -9999 occure - Pa_StartStream attemptCount == 2",
                "Error with code -9999 occure - Pa_StartStream attemptCount == 3",
                "Error with code -9999 occure - Pa_StartStream attemptCount == 4"}));
  EXPECT_TRUE(fingerprintsFlowAfter(0));
  // A failed start is the recorder's business: the host's search goes on.
  EXPECT_TRUE(host->stops().empty());
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
}

TEST_F(AudioDeviceFaults, DeviceThatVanishesMidSearchIsPickedUpAgain) {
  search();
  ASSERT_TRUE(fingerprintsFlowAfter(0));
  ASSERT_TRUE(audioErrorMessages().empty());

  device->unplugged = true;
  // The silence is noticed, then every start fails while the device is gone.
  ASSERT_TRUE(waitUntil([&] { return audioErrorMessages().size() >= 3; }, 5s));
  const auto messages = audioErrorMessages();
  EXPECT_EQ(messages[0], "Error with code -9987 occure - audioDataReceived attemptCount == 2");
  EXPECT_EQ(messages[1], "Error with code -9996 occure - Pa_OpenStream attemptCount == 3");
  EXPECT_EQ(state(), TLRTelloraStateConnected);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);

  const auto sentWhileGone = fingerprintsSent();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(fingerprintsSent(), sentWhileGone) << "fingerprints without a device";
  device->unplugged = false;
  ASSERT_TRUE(waitUntil([&] { return device->starts == 2; }, 5s));
  EXPECT_TRUE(fingerprintsFlowAfter(sentWhileGone));
  EXPECT_TRUE(host->stops().empty());
}

}  // namespace
}  // namespace tellora::faults
