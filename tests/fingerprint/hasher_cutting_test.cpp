// How the hasher sizes its parts, cuts them from the stream and times them.
#include <gtest/gtest.h>

#include <vector>

#include "fingerprint/hasher.h"
#include "tests/fingerprint/hasher_fixture.h"

namespace tellora::hashertest {
namespace {

// Items of the first part, the first item that does not fit, and so on.
constexpr uint32_t kPartItems = 3968;
constexpr uint32_t kKeptItems = 2048 + 64;
constexpr uint32_t kCutEvery = 1856;  // 1855 new items plus the dropped one
constexpr double kPartMs = 496.0;
// The wall-clock values are near 1.7e12 ms, where one ulp is 0.24 us.
constexpr double kTimeTolerance = 1e-3;

TEST(HasherGeometry, FrameLengthTruncatesTheProductBeforeTakingItsHighestBit) {
  EXPECT_EQ(TLRHasher::calcFrameLengthWithDuration(0.4, 8000.0), 2048u);
  EXPECT_EQ(TLRHasher::calcFrameLengthWithDuration(0.4, 6000.0), 2048u);
  EXPECT_EQ(TLRHasher::calcFrameLengthWithDuration(0.4, 16000.0), 4096u);
  // 1023.98 truncates to 1023, whose highest bit is 512.
  EXPECT_EQ(TLRHasher::calcFrameLengthWithDuration(0.5, 2047.96), 512u);
  EXPECT_EQ(TLRHasher::calcFrameLengthWithDuration(0.4, 0.0), 0u);
  EXPECT_EQ(TLRHasher::calcFrameLengthWithDuration(-0.4, 8000.0), 0u);
}

TEST_F(HasherTest, PartsAreWholeStepsAndNeverShorterThanOneHashWord) {
  // 0.3 s is 2400 items: 37 whole steps of 64.
  const std::vector<std::pair<double, uint32_t>> sizes = {{0.5, 3968}, {0.3, 2368}, {1.0, 8000},
                                                          {0.1, 2176}, {0.0, 2176}, {-1.0, 2176}};
  for (const auto& [duration, partItems] : sizes)
    EXPECT_EQ(makeHasher(duration)->bufferItemsCount(), partItems) << duration;

  const auto items = noise(2176 + 1, 3);
  feedNext(items);
  waitForDeliveries();
  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  // One word: 4 bytes, 8 Base64 characters.
  EXPECT_EQ(received[0].fingerprint.size(), 8u);
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(std::span(items).first(2176)));
  EXPECT_NEAR(received[0].end - received[0].start, 272.0, kTimeTolerance);
}

class HasherCuttingTest : public HasherTest {
 protected:
  void SetUp() override {
    HasherTest::SetUp();
    makeHasher(0.5);
  }

  const std::vector<int16_t> stream_ = noise(80000, 11);
  std::span<const int16_t> items(size_t from, size_t to) const {
    return std::span(stream_).subspan(from, to - from);
  }
};

TEST_F(HasherCuttingTest, TheItemThatFindsTheBufferFullCutsThePartAndIsDropped) {
  feedNext(items(0, kPartItems));
  waitForDeliveries();
  EXPECT_TRUE(parts().empty()) << "a full buffer waits for the next item";

  const uint32_t secondCut = kPartItems + kCutEvery;
  feedNext(items(kPartItems, secondCut + 1));
  waitForDeliveries();
  const auto received = parts();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].fingerprint.size(), 156u);
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(items(0, kPartItems)));
  // It ends at the dropped item and starts 496 ms before, at the first item.
  EXPECT_NEAR(received[0].end, wallMsOfItem(kPartItems), kTimeTolerance);
  EXPECT_NEAR(received[0].start, received[0].end - kPartMs, kTimeTolerance);
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

TEST_F(HasherCuttingTest, PartsFollowEvery1856ItemsIn232MsStepsOnTheLoopInOrder) {
  feedNext(stream_);
  waitForDeliveries();

  const auto received = parts();
  // Cuts at items 3968 + 1856 k below 80000.
  ASSERT_EQ(received.size(), 41u);
  for (size_t k = 0; k < received.size(); ++k) {
    EXPECT_EQ(received[k].fingerprint.size(), 156u) << k;
    EXPECT_NEAR(received[k].end, wallMsOfItem(kPartItems + kCutEvery * k), kTimeTolerance) << k;
    EXPECT_NEAR(received[k].end - received[k].start, kPartMs, kTimeTolerance) << k;
    EXPECT_TRUE(received[k].onLoop) << k;
  }
}

TEST_F(HasherCuttingTest, BlocksOfAnySizeCutTheSameParts) {
  feedNext(items(0, 10000), 1);
  waitForDeliveries();
  const auto byItem = parts();
  onLoop([this] { delegate_->parts.clear(); });
  makeHasher(0.5);
  itemsFed_ = 0;
  feedNext(items(0, 10000), 4096);
  waitForDeliveries();
  const auto byBlock = parts();
  ASSERT_EQ(byBlock.size(), 4u);
  ASSERT_EQ(byItem.size(), byBlock.size());
  for (size_t k = 0; k < byBlock.size(); ++k) {
    EXPECT_EQ(byItem[k].fingerprint, byBlock[k].fingerprint) << k;
    EXPECT_NEAR(byItem[k].end, byBlock[k].end, kTimeTolerance) << k;
  }
}

TEST_F(HasherCuttingTest, BlockTimesComeFromTheirOwnStampsNotFromTheCount) {
  // Blocks stamped a full second apart (a gap in capture): the part ends at
  // the dropped item's own block time.
  for (int k = 0; k < 5; ++k)
    feed(items(0, kBlockItems), kFirstItemTicks + k * 1e9);
  waitForDeliveries();
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
TEST_F(HasherCuttingTest, FullScaleItemsReachTheHashAsPlusAndMinusOne) {
  std::vector<int16_t> part(kPartItems);
  const auto shape = noise(128, 5, 30000);
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
  feedNext(items(0, 1));
  waitForDeliveries();
  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].fingerprint, expected);
}

}  // namespace
}  // namespace tellora::hashertest
