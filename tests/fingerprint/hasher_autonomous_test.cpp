// The autonomous buffer: blocks remembered while not sending, replayed when
// sending is switched on.
#include <gtest/gtest.h>

#include <vector>

#include "tests/fingerprint/hasher_fixture.h"

namespace tellora::hashertest {
namespace {

class AutonomousBufferTest : public HasherTest {
 protected:
  void SetUp() override {
    HasherTest::SetUp();
    makeHasher(0.5, false);
    for (uint32_t k = 0; k < 6; ++k)
      blocks_.push_back(noise(kBlockItems, 100 + k));
  }
  // Hands block k to the hasher as the recorder would, stamped k * 100 ms on.
  void receive(int k) { feed(blocks_[k], kFirstItemTicks + k * 1e8); }
  void setSending(bool sending) {
    onLoop([&] { hasher_->setSending(sending); });
  }

  std::vector<std::vector<int16_t>> blocks_;
};

TEST_F(AutonomousBufferTest, BlocksWaitWhileNotSendingAndTheLastFourReplayOldestFirst) {
  for (int k = 0; k < 6; ++k)
    receive(k);
  waitForDeliveries();
  EXPECT_TRUE(parts().empty());
  EXPECT_TRUE(bufferContent().empty());
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({blocks_[2], blocks_[3], blocks_[4], blocks_[5]}));
}

TEST_F(AutonomousBufferTest, EverySwitchOnReplaysOnlyTheBlocksRememberedBeforeSending) {
  receive(0);
  setSending(true);
  EXPECT_EQ(bufferContent(), blocks_[0]);
  setSending(true);  // already on: replays all the same
  receive(1);        // not remembered: sending
  setSending(false);
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({blocks_[0], blocks_[0], blocks_[1], blocks_[0]}));
}

TEST_F(AutonomousBufferTest, RememberedItemsAreCopiedFromTheRecordersBuffer) {
  // The recorder refills the same buffer with newer audio after the call.
  std::vector<int16_t> recorderBuffer = blocks_[0];
  feed(recorderBuffer, kFirstItemTicks);
  recorderBuffer = blocks_[1];
  setSending(true);
  EXPECT_EQ(bufferContent(), blocks_[0]);
}

TEST_F(AutonomousBufferTest, ReplayedBlocksKeepTheirOwnTimes) {
  // Four blocks of 1000 items: the replay itself cuts a part at item 3968,
  // item 968 of the last remembered block, stamped 3 s after the first.
  const auto all = noise(4000, 200);
  for (int k = 0; k < 4; ++k)
    feed(std::span(all).subspan(k * 1000, 1000), kFirstItemTicks + k * 1e9, 1000);
  clock_.ticks = kNowTicks + 60e9;  // the switch comes a minute later
  clock_.wall = kWallSeconds + 60.0;
  setSending(true);
  waitForDeliveries();

  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  const double end = kTimeDifference + (kFirstItemTicks + 3e9) / kTicksPerMs + 968.0 / 8.0;
  EXPECT_NEAR(received[0].end, end, 1e-3);
  EXPECT_NEAR(received[0].start, end - 496.0, 1e-3);
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(std::span(all).first(3968)));
}

}  // namespace
}  // namespace tellora::hashertest
