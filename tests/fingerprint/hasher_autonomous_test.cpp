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
    makeHasher(0.5);
    for (uint32_t k = 0; k < 6; ++k)
      blocks_.push_back(noise(kBlockItems, 100 + k));
  }
  // Hands block k to the hasher as the recorder would, stamped k * 100 ms on.
  void receive(const std::vector<int16_t>& block, int k) {
    onLoop([&] {
      hasher_->audioDataReceived(block.data(), static_cast<uint32_t>(block.size()),
                                 kFirstItemTicks + k * 1e8);
    });
  }
  void setSending(bool sending) {
    onLoop([&] { hasher_->setSending(sending); });
  }
  std::vector<int16_t> bufferContent() {
    return onLoop([this] {
      auto all = hasher_->buffer();
      return std::vector<int16_t>(all.begin(), all.begin() + hasher_->bufferItemsFill());
    });
  }

  std::vector<std::vector<int16_t>> blocks_;
};

TEST_F(AutonomousBufferTest, BlocksWaitWhileNotSending) {
  for (int k = 0; k < 6; ++k)
    receive(blocks_[k], k);
  waitForDeliveries();
  EXPECT_TRUE(parts().empty());
  EXPECT_TRUE(bufferContent().empty());
}

TEST_F(AutonomousBufferTest, SwitchingOnReplaysTheLastFourBlocksOldestFirst) {
  for (int k = 0; k < 6; ++k)
    receive(blocks_[k], k);
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({blocks_[2], blocks_[3], blocks_[4], blocks_[5]}));
}

TEST_F(AutonomousBufferTest, FewerBlocksThanSlotsReplayOnlyThoseBlocks) {
  receive(blocks_[0], 0);
  receive(blocks_[1], 1);
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({blocks_[0], blocks_[1]}));
}

TEST_F(AutonomousBufferTest, EverySwitchOnReplaysTheSameBlocksAgain) {
  receive(blocks_[0], 0);
  receive(blocks_[1], 1);
  setSending(true);
  setSending(true);  // already on: replays all the same
  EXPECT_EQ(bufferContent(), concat({blocks_[0], blocks_[1], blocks_[0], blocks_[1]}));
}

TEST_F(AutonomousBufferTest, BlocksReceivedWhileSendingAreNotRemembered) {
  receive(blocks_[0], 0);
  setSending(true);
  receive(blocks_[1], 1);
  setSending(false);
  setSending(true);
  EXPECT_EQ(bufferContent(), concat({blocks_[0], blocks_[1], blocks_[0]}));
}

TEST_F(AutonomousBufferTest, RememberedItemsAreCopiedFromTheRecordersBuffer) {
  // The recorder refills the same buffer with newer audio after the call.
  std::vector<int16_t> recorderBuffer = blocks_[0];
  receive(recorderBuffer, 0);
  recorderBuffer = blocks_[1];
  setSending(true);
  EXPECT_EQ(bufferContent(), blocks_[0]);
}

TEST_F(AutonomousBufferTest, ReplayedBlocksKeepTheirOwnTimes) {
  // Four blocks of 1000 items: the replay itself cuts a part at item 3968,
  // item 968 of the last remembered block, stamped 3 s after the first.
  std::vector<std::vector<int16_t>> longBlocks;
  for (int k = 0; k < 4; ++k)
    longBlocks.push_back(noise(1000, 200 + k));
  for (int k = 0; k < 4; ++k) {
    onLoop(
        [&] { hasher_->audioDataReceived(longBlocks[k].data(), 1000, kFirstItemTicks + k * 1e9); });
  }
  clock_.ticks = kNowTicks + 60e9;  // the switch comes a minute later
  clock_.wall = kWallSeconds + 60.0;
  setSending(true);
  waitForDeliveries();

  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  const double end = kTimeDifference + (kFirstItemTicks + 3e9) / kTicksPerMs + 968.0 / 8.0;
  EXPECT_NEAR(received[0].end, end, 1e-3);
  EXPECT_NEAR(received[0].start, end - 496.0, 1e-3);
  const auto all = concat({longBlocks[0], longBlocks[1], longBlocks[2], longBlocks[3]});
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(std::span(all).first(3968)));
}

}  // namespace
}  // namespace tellora::hashertest
