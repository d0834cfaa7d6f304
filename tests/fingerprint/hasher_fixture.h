// What the hasher tests share: a clock the test sets, a delegate that keeps the
// fingerprints it receives, test sounds, and running code on the SDK's loop.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "audio/recorder.h"
#include "fingerprint/hasher.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/runtime/runtime_sandbox.h"

namespace tellora::hashertest {

constexpr double kRate = 8000.0;
constexpr uint32_t kBlockItems = 800;
// Monotonic ticks are nanoseconds.
constexpr double kTicksPerMs = 1e6;

class FakeClock final : public Clock {
 public:
  double wallSeconds() override { return wall.load(); }
  double monotonicTicks() override { return ticks.load(); }

  std::atomic<double> wall{0.0};
  std::atomic<double> ticks{0.0};
};

struct ReceivedPart {
  std::string fingerprint;
  double start = 0;
  double end = 0;
  bool onLoop = false;
};

// Called on the loop; the test reads `parts` on the loop too (HasherTest::parts).
class CollectingDelegate final : public TLRHasherDelegate {
 public:
  void fingerprintGenerated(const std::string& fingerprint, double startTime,
                            double endTime) override {
    parts.push_back({fingerprint, startTime, endTime, EventLoop::main().isCurrent()});
    calls->fetch_add(1);
  }

  std::vector<ReceivedPart> parts;
  // Outlives the delegate, so a test can tell that a dead one was not called.
  std::shared_ptr<std::atomic<int>> calls = std::make_shared<std::atomic<int>>(0);
};

// Deterministic noise of n items in [-amplitude, amplitude].
std::vector<int16_t> noise(size_t n, uint32_t seed, int amplitude = 12000);

// The fingerprint of exactly these items, computed straight from the audio hash.
inline std::string expectedFingerprint(std::span<const int16_t> items) {
  return testing::Hashed(items).fingerprint();
}

std::vector<int16_t> concat(std::initializer_list<std::span<const int16_t>> pieces);

template <class F>
auto onLoop(F&& f) {
  return EventLoop::main().call(std::forward<F>(f));
}

// An 8000 Hz recorder that never records, and a hasher on it. The clock stands
// at kWallSeconds / kNowTicks, so timeDifference is kWallMs - kNowMs.
class HasherTest : public ::testing::Test {
 protected:
  static constexpr double kWallSeconds = 1'700'000'000.0;
  static constexpr double kNowTicks = 5e9;
  static constexpr double kTimeDifference = kWallSeconds * 1000.0 - kNowTicks / kTicksPerMs;
  // Tick of the first item the tests feed.
  static constexpr double kFirstItemTicks = 4e9;

  void SetUp() override;
  void TearDown() override;

  std::shared_ptr<TLRHasher> makeHasher(double partDuration = 0.5, bool sending = true);
  // Hands `items` to the hasher in blocks, as the recorder would, the first
  // item stamped `firstTicks` and every block stamped by its position.
  void feed(std::span<const int16_t> items, double firstTicks, uint32_t blockItems = kBlockItems);
  // Feeds items that continue the stream fed so far (from kFirstItemTicks on).
  void feedNext(std::span<const int16_t> items, uint32_t blockItems = kBlockItems);
  // Waits until every part cut so far has reached its delegate.
  static void waitForDeliveries();
  std::vector<ReceivedPart> parts();
  // The items the hasher holds for the next part.
  std::vector<int16_t> bufferContent();
  // Wall-clock ms of item `index` of the stream fed with feedNext.
  static double wallMsOfItem(uint64_t index);

  testing::RuntimeSandbox sandbox_;
  FakeClock clock_;
  std::shared_ptr<TLRRecorder> recorder_;
  std::shared_ptr<TLRHasher> hasher_;
  std::shared_ptr<CollectingDelegate> delegate_ = std::make_shared<CollectingDelegate>();
  uint64_t itemsFed_ = 0;
};

}  // namespace tellora::hashertest
