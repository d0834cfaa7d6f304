// Fingerprints arrive through the recorder, and safely when the hasher or its
// delegate goes away meanwhile.
#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "fingerprint/hash_queue.h"
#include "tellora/host_fed_audio.h"
#include "tests/fingerprint/hasher_fixture.h"

namespace tellora::hashertest {
namespace {

constexpr uint32_t kThreeParts = 3968 + 2 * 1856 + 1;

// Holds the hash queue until opened (or destroyed), so that the test decides
// what happens while parts are in flight.
class HashQueueGate {
 public:
  HashQueueGate() {
    hashQueue().post([opened = opened_.get_future().share()] { opened.wait(); });
  }
  ~HashQueueGate() { open(); }
  void open() {
    if (!isOpen_) opened_.set_value();
    isOpen_ = true;
  }

 private:
  std::promise<void> opened_;
  bool isOpen_ = false;
};

using HasherDeliveryTest = HasherTest;

TEST_F(HasherDeliveryTest, BlocksFromARecordingRecorderReachTheHasher) {
  const auto feedSource = TLRHostFedAudio::create();
  onLoop([&] {
    recorder_ = std::make_shared<TLRRecorder>(kRate, feedSource->sourceFactory());
    hasher_ = TLRHasher::create(recorder_, 0.5);
    hasher_->setDelegate(delegate_);
    hasher_->setSending(true);
    recorder_->startRecording();
    EXPECT_TRUE(recorder_->isRec());
  });
  const auto items = noise(5 * kBlockItems, 22);
  for (uint32_t k = 0; k < 5; ++k) {
    EXPECT_TRUE(
        feedSource->push(items.data() + k * kBlockItems, kBlockItems, kFirstItemTicks + k * 1e8));
  }
  EventLoop::main().drain();  // the recorder hands pushed blocks over on the loop
  waitForDeliveries();
  onLoop([this] { recorder_->stopRecording(); });

  const auto received = parts();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].fingerprint, expectedFingerprint(std::span(items).first(3968)));
  EXPECT_NEAR(received[0].end, wallMsOfItem(3968), 1e-3);
}

TEST_F(HasherDeliveryTest, PartsCutBeforeTheHasherIsDestroyedStillArrive) {
  makeHasher();
  HashQueueGate gate;
  feedNext(noise(kThreeParts, 23));
  std::weak_ptr<TLRHasher> gone = hasher_;
  onLoop([this] {
    hasher_.reset();
    recorder_.reset();
  });
  EXPECT_TRUE(gone.expired());
  gate.open();
  waitForDeliveries();
  EXPECT_EQ(parts().size(), 3u);
}

TEST_F(HasherDeliveryTest, ADelegateDestroyedWhilePartsAreInFlightIsNotCalled) {
  makeHasher();
  const auto calls = delegate_->calls;
  HashQueueGate gate;
  feedNext(noise(kThreeParts, 24));
  onLoop([this] {
    hasher_.reset();
    delegate_.reset();
  });
  gate.open();
  waitForDeliveries();
  EXPECT_EQ(calls->load(), 0);
  delegate_ = std::make_shared<CollectingDelegate>();  // for TearDown
}

TEST_F(HasherDeliveryTest, PartsInFlightGoToTheDelegateSetWhenTheyArrive) {
  makeHasher();
  HashQueueGate gate;
  feedNext(noise(kThreeParts, 25));
  const auto newer = std::make_shared<CollectingDelegate>();
  onLoop([&] { hasher_->setDelegate(newer); });
  gate.open();
  waitForDeliveries();
  EXPECT_TRUE(parts().empty());
  EXPECT_EQ(onLoop([&] { return newer->parts.size(); }), 3u);
}

}  // namespace
}  // namespace tellora::hashertest
