// The hasher: how it sizes, cuts and times its parts; the autonomous buffer
// (blocks remembered while not sending, replayed when sending is switched on);
// and delivery through the hash queue, also when the hasher or its delegate
// goes away meanwhile. The recorder feeding it is wired up in the facade's tests.
#include "fingerprint/hasher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <vector>

#include "audio/recorder.h"
#include "fingerprint/hash_queue.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/fingerprint/audiohash/test_signals.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/tools/test_audio.h"

namespace tellora {
namespace {

constexpr double kRate = 8000.0;
constexpr uint32_t kBlockItems = 800;
constexpr double kTicksPerMs = 1e6;  // monotonic ticks are nanoseconds
// Items of the first part, the first item that does not fit, and so on.
constexpr uint32_t kPartItems = 3968;
constexpr uint32_t kKeptItems = 2048 + 64;
constexpr uint32_t kCutEvery = 1856;  // 1855 new items plus the dropped one
constexpr double kPartMs = 496.0;
// The wall-clock values are near 1.7e12 ms, where one ulp is 0.24 us.
constexpr double kTimeTolerance = 1e-3;

struct FakeClock final : Clock {
  double wallSeconds() override { return wall.load(); }
  double monotonicTicks() override { return ticks.load(); }
  std::atomic<double> wall{0.0}, ticks{0.0};
};

struct ReceivedPart {
  std::string fingerprint;
  double start = 0, end = 0;
  bool onLoop = false;
};

// Called on the loop; the test reads `parts` on the loop too.
struct CollectingDelegate final : TLRHasherDelegate {
  void fingerprintGenerated(const std::string& fingerprint, double startTime,
                            double endTime) override {
    parts.push_back({fingerprint, startTime, endTime, EventLoop::main().isCurrent()});
    calls->fetch_add(1);
  }
  std::vector<ReceivedPart> parts;
  // Outlives the delegate, so a test can tell that a dead one was not called.
  std::shared_ptr<std::atomic<int>> calls = std::make_shared<std::atomic<int>>(0);
};

// Deterministic noise of n items, peaks at `amplitude` of full scale.
std::vector<int16_t> noise(size_t n, uint32_t seed, float amplitude = 0.37f) {
  return testaudio::toItems(testing::noise(n, seed, amplitude));
}

std::vector<int16_t> concat(std::initializer_list<std::span<const int16_t>> pieces) {
  std::vector<int16_t> all;
  for (auto piece : pieces)
    all.insert(all.end(), piece.begin(), piece.end());
  return all;
}

// The fingerprint of exactly these items, computed straight from the audio hash.
std::string expectedFingerprint(std::span<const int16_t> items) {
  return testing::Hashed(items).fingerprint();
}

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

  void SetUp() override {
    clock_.wall = kWallSeconds;
    clock_.ticks = kNowTicks;
    setClockForTesting(&clock_);
    recorder_ = onLoop([] {
      return std::make_shared<TLRRecorder>(kRate, [] { return std::unique_ptr<TLRAudioSource>(); });
    });
  }
  void TearDown() override {
    onLoop([this] {
      hasher_.reset();
      recorder_.reset();
    });
    waitForDeliveries();
    setClockForTesting(nullptr);
  }

  std::shared_ptr<TLRHasher> makeHasher(double partDuration = 0.5, bool sending = true) {
    hasher_ = onLoop([this, partDuration, sending] {
      auto hasher = TLRHasher::create(recorder_, partDuration);
      hasher->setDelegate(delegate_);
      hasher->setSending(sending);
      return hasher;
    });
    return hasher_;
  }
  // Hands `items` to the hasher in blocks, as the recorder would, the first
  // item stamped `firstTicks` and every block stamped by its position.
  void feed(std::span<const int16_t> items, double firstTicks, uint32_t blockItems = kBlockItems) {
    onLoop([&] {
      for (size_t offset = 0; offset < items.size(); offset += blockItems) {
        const auto count =
            static_cast<uint32_t>(std::min<size_t>(blockItems, items.size() - offset));
        const double ticks = firstTicks + static_cast<double>(offset) * 1e3 * kTicksPerMs / kRate;
        hasher_->audioDataReceived(items.data() + offset, count, ticks);
      }
    });
  }
  // Feeds items that continue the stream fed so far (from kFirstItemTicks on).
  void feedNext(std::span<const int16_t> items, uint32_t blockItems = kBlockItems) {
    feed(items, kFirstItemTicks + static_cast<double>(itemsFed_) * 1e3 * kTicksPerMs / kRate,
         blockItems);
    itemsFed_ += items.size();
  }
  // Waits until every part cut so far has reached its delegate.
  static void waitForDeliveries() {
    hashQueue().drain();
    EventLoop::main().drain();
  }
  std::vector<ReceivedPart> parts() {
    waitForDeliveries();
    return onLoop([this] { return delegate_->parts; });
  }
  // The items the hasher holds for the next part.
  std::vector<int16_t> bufferContent() {
    return onLoop([this] {
      auto all = hasher_->buffer();
      return std::vector<int16_t>(all.begin(), all.begin() + hasher_->bufferItemsFill());
    });
  }
  // Wall-clock ms of item `index` of the stream fed with feedNext.
  static double wallMsOfItem(uint64_t index) {
    return kTimeDifference + kFirstItemTicks / kTicksPerMs +
           static_cast<double>(index) * 1e3 / kRate;
  }
  void setSending(bool sending) {
    onLoop([&] { hasher_->setSending(sending); });
  }

  testing::RuntimeSandbox sandbox_;
  FakeClock clock_;
  std::shared_ptr<TLRRecorder> recorder_;
  std::shared_ptr<TLRHasher> hasher_;
  std::shared_ptr<CollectingDelegate> delegate_ = std::make_shared<CollectingDelegate>();
  uint64_t itemsFed_ = 0;
  const std::vector<int16_t> stream_ = noise(10000, 11);
};

TEST_F(HasherTest, PartsAreWholeStepsAndNeverShorterThanOneHashWord) {
  // 0.3 s is 2400 items: 37 whole steps of 64.
  const std::vector<std::pair<double, uint32_t>> sizes = {{0.5, 3968}, {0.3, 2368}, {1.0, 8000},
                                                          {0.1, 2176}, {0.0, 2176}, {-1.0, 2176}};
  for (const auto& [duration, partItems] : sizes)
    EXPECT_EQ(makeHasher(duration)->bufferItemsCount(), partItems) << duration;

  feedNext(std::span(stream_).first(2176 + 1));
  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  // One word: 4 bytes, 8 Base64 characters.
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(std::span(stream_).first(2176)));
  EXPECT_EQ(received[0].fingerprint.size(), 8u);
  EXPECT_NEAR(received[0].end - received[0].start, 272.0, kTimeTolerance);
}

TEST_F(HasherTest, TheItemThatFindsTheBufferFullCutsThePartAndIsDropped) {
  makeHasher();
  const auto items = [&](size_t from, size_t to) {
    return std::span(stream_).subspan(from, to - from);
  };
  feedNext(items(0, kPartItems));
  EXPECT_TRUE(parts().empty()) << "a full buffer waits for the next item";

  const uint32_t secondCut = kPartItems + kCutEvery;
  feedNext(items(kPartItems, secondCut + 1));
  const auto received = parts();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(items(0, kPartItems)));
  // It ends at the dropped item and starts 496 ms before, at the first item.
  EXPECT_NEAR(received[0].end, wallMsOfItem(kPartItems), kTimeTolerance);
  EXPECT_NEAR(received[0].start, wallMsOfItem(0), kTimeTolerance);

  // The next part: the last frame and step of the first, then the stale item
  // at 2112 (left from the first part), then the items after the dropped one.
  const auto secondPart =
      concat({items(kPartItems - kKeptItems, kPartItems), items(kKeptItems, kKeptItems + 1),
              items(kPartItems + 1, secondCut)});
  ASSERT_EQ(secondPart.size(), kPartItems);
  EXPECT_EQ(received[1].fingerprint, expectedFingerprint(secondPart));
  EXPECT_NEAR(received[1].end, wallMsOfItem(secondCut), kTimeTolerance);
  EXPECT_NEAR(received[1].start, received[1].end - kPartMs, kTimeTolerance);
}

TEST_F(HasherTest, PartsFollowEvery1856ItemsOnTheLoopInOrderWhateverTheBlockSize) {
  std::vector<ReceivedPart> first;
  for (uint32_t blockItems : {kBlockItems, 1u, 4096u}) {
    onLoop([this] { delegate_->parts.clear(); });
    makeHasher();
    itemsFed_ = 0;
    feedNext(stream_, blockItems);
    const auto received = parts();
    if (first.empty()) first = received;
    // Cuts at items 3968 + 1856 k below 10000.
    ASSERT_EQ(received.size(), 4u) << blockItems;
    for (size_t k = 0; k < received.size(); ++k) {
      EXPECT_EQ(received[k].fingerprint, first[k].fingerprint) << blockItems << " part " << k;
      EXPECT_NEAR(received[k].end, wallMsOfItem(kPartItems + kCutEvery * k), kTimeTolerance);
      EXPECT_NEAR(received[k].end - received[k].start, kPartMs, kTimeTolerance);
      EXPECT_TRUE(received[k].onLoop);
    }
  }
}

TEST_F(HasherTest, BlockTimesComeFromTheirOwnStampsNotFromTheCount) {
  makeHasher();
  // Blocks stamped a full second apart (a gap in capture): the part ends at
  // the dropped item's own block time.
  for (int k = 0; k < 5; ++k)
    feed(std::span(stream_).first(kBlockItems), kFirstItemTicks + k * 1e9);
  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  // Item 3968 is item 768 of the fifth block.
  const double end = kTimeDifference + (kFirstItemTicks + 4e9) / kTicksPerMs + 768.0 / 8.0;
  EXPECT_NEAR(received[0].end, end, kTimeTolerance);
  EXPECT_NEAR(received[0].start, end - kPartMs, kTimeTolerance);
}

// A waveform repeating every two steps gives equal frames two steps apart,
// hence all-zero words; scaling only its negative half-waves in the second
// half of the part breaks that symmetry unless -32768 and -32767 both become
// exactly -1.0 and 32767 becomes exactly 1.0.
TEST_F(HasherTest, FullScaleItemsReachTheHashAsPlusAndMinusOne) {
  makeHasher();
  std::vector<int16_t> part(kPartItems);
  const auto shape = noise(128, 5, 0.92f);
  for (size_t i = 0; i < part.size(); ++i) {
    const int16_t v = shape[i % shape.size()];
    part[i] = static_cast<int16_t>(v > 15000             ? 32767
                                   : v >= -15000         ? v
                                   : i < part.size() / 2 ? -32767
                                                         : -32768);
  }
  std::vector<float> asPlusMinusOne(part.size());
  std::vector<float> unclamped(part.size());
  for (size_t i = 0; i < part.size(); ++i) {
    unclamped[i] = static_cast<float>(part[i]) / 32767.0f;
    asPlusMinusOne[i] = std::max(unclamped[i], -1.0f);
  }
  // The test means something only if the two readings hash differently.
  const std::string expected = testing::Hashed(asPlusMinusOne).fingerprint();
  ASSERT_NE(testing::Hashed(unclamped).fingerprint(), expected);

  feedNext(part);
  feedNext(std::span(stream_).first(1));
  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].fingerprint, expected);
}

// What happens on the loop while three cut parts wait in the hash queue.
class PartsInFlightTest : public HasherTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(PartsInFlightTest, GoToTheDelegateSetWhenTheyArriveIfItStillLives) {
  makeHasher();
  const auto calls = delegate_->calls;
  const auto newer = std::make_shared<CollectingDelegate>();
  // Holds the hash queue, so that the parts wait in it. No assertion may end
  // the test before the gate opens.
  std::promise<void> gate;
  hashQueue().post([opened = gate.get_future().share()] { opened.wait(); });
  feedNext(std::span(stream_).first(kPartItems + 2 * kCutEvery + 1));  // three parts
  const std::weak_ptr<TLRHasher> hasher = hasher_;
  onLoop([&] {
    if (GetParam() == "DelegateReplaced") return hasher_->setDelegate(newer);
    hasher_.reset();
    if (GetParam() == "HasherDestroyed") return recorder_.reset();
    delegate_.reset();
  });
  EXPECT_EQ(hasher.expired(), GetParam() != "DelegateReplaced");
  gate.set_value();
  waitForDeliveries();
  EXPECT_EQ(calls->load(), GetParam() == "HasherDestroyed" ? 3 : 0);
  EXPECT_EQ(onLoop([&] { return newer->parts.size(); }),
            GetParam() == "DelegateReplaced" ? 3u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Cases, PartsInFlightTest,
                         ::testing::Values("HasherDestroyed", "DelegateDestroyed",
                                           "DelegateReplaced"),
                         [](const auto& info) { return info.param; });

class AutonomousBufferTest : public HasherTest {
 protected:
  void SetUp() override {
    HasherTest::SetUp();
    makeHasher(0.5, false);
  }
  // Hands block k over as the recorder would: from its one buffer, refilled
  // for every block (so what is remembered must be a copy), stamped k * 100 ms on.
  void receive(int k) {
    std::ranges::copy(block(k), recorderBuffer_.begin());
    feed(recorderBuffer_, kFirstItemTicks + k * 1e8);
  }
  std::span<const int16_t> block(int k) const {
    return std::span(stream_).subspan(k * kBlockItems, kBlockItems);
  }
  std::vector<int16_t> recorderBuffer_ = std::vector<int16_t>(kBlockItems);
};

TEST_F(AutonomousBufferTest, BlocksWaitWhileNotSendingAndTheLastFourReplayOldestFirst) {
  for (int k = 0; k < 6; ++k)
    receive(k);
  EXPECT_TRUE(parts().empty());
  EXPECT_TRUE(bufferContent().empty());
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({block(2), block(3), block(4), block(5)}));
}

TEST_F(AutonomousBufferTest, EverySwitchOnReplaysOnlyTheBlocksRememberedBeforeSending) {
  receive(0);
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({block(0)}));
  setSending(true);  // already on: replays all the same
  receive(1);        // not remembered: sending
  setSending(false);
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({block(0), block(0), block(1), block(0)}));
}

TEST_F(AutonomousBufferTest, ReplayedBlocksKeepTheirOwnTimes) {
  // Four blocks of 1000 items: the replay itself cuts a part at item 3968,
  // item 968 of the last remembered block, stamped 3 s after the first.
  for (int k = 0; k < 4; ++k)
    feed(std::span(stream_).subspan(k * 1000, 1000), kFirstItemTicks + k * 1e9, 1000);
  clock_.ticks = kNowTicks + 60e9;  // the switch comes a minute later
  clock_.wall = kWallSeconds + 60.0;
  setSending(true);

  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  const double end = kTimeDifference + (kFirstItemTicks + 3e9) / kTicksPerMs + 968.0 / 8.0;
  EXPECT_NEAR(received[0].end, end, kTimeTolerance);
  EXPECT_NEAR(received[0].start, end - kPartMs, kTimeTolerance);
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(std::span(stream_).first(3968)));
}

}  // namespace
}  // namespace tellora
