#include "tests/fingerprint/hasher_fixture.h"

#include <algorithm>

#include "fingerprint/hash_queue.h"

namespace tellora::hashertest {

std::vector<int16_t> noise(size_t n, uint32_t seed, int amplitude) {
  std::vector<int16_t> items(n);
  uint32_t state = seed * 2654435761u + 1u;
  for (auto& item : items) {
    state = state * 1664525u + 1013904223u;
    item = static_cast<int16_t>(static_cast<int>(state >> 16) % (2 * amplitude + 1) - amplitude);
  }
  return items;
}

std::vector<int16_t> concat(std::initializer_list<std::span<const int16_t>> pieces) {
  std::vector<int16_t> all;
  for (auto piece : pieces)
    all.insert(all.end(), piece.begin(), piece.end());
  return all;
}

void HasherTest::SetUp() {
  clock_.wall = kWallSeconds;
  clock_.ticks = kNowTicks;
  setClockForTesting(&clock_);
  recorder_ = onLoop([] {
    return std::make_shared<TLRRecorder>(kRate, [] { return std::unique_ptr<TLRAudioSource>(); });
  });
}

void HasherTest::TearDown() {
  onLoop([this] {
    hasher_.reset();
    recorder_.reset();
  });
  waitForDeliveries();
  setClockForTesting(nullptr);
}

std::shared_ptr<TLRHasher> HasherTest::makeHasher(double partDuration, bool sending) {
  hasher_ = onLoop([this, partDuration, sending] {
    auto hasher = TLRHasher::create(recorder_, partDuration);
    hasher->setDelegate(delegate_);
    hasher->setSending(sending);
    return hasher;
  });
  return hasher_;
}

void HasherTest::feed(std::span<const int16_t> items, double firstTicks, uint32_t blockItems) {
  onLoop([&] {
    for (size_t offset = 0; offset < items.size(); offset += blockItems) {
      const auto count = static_cast<uint32_t>(std::min<size_t>(blockItems, items.size() - offset));
      const double ticks = firstTicks + static_cast<double>(offset) * 1e3 * kTicksPerMs / kRate;
      hasher_->audioDataReceived(items.data() + offset, count, ticks);
    }
  });
}

void HasherTest::feedNext(std::span<const int16_t> items, uint32_t blockItems) {
  feed(items, kFirstItemTicks + static_cast<double>(itemsFed_) * 1e3 * kTicksPerMs / kRate,
       blockItems);
  itemsFed_ += items.size();
}

void HasherTest::waitForDeliveries() {
  hashQueue().drain();
  EventLoop::main().drain();
}

std::vector<ReceivedPart> HasherTest::parts() {
  return onLoop([this] { return delegate_->parts; });
}

std::vector<int16_t> HasherTest::bufferContent() {
  return onLoop([this] {
    auto all = hasher_->buffer();
    return std::vector<int16_t>(all.begin(), all.begin() + hasher_->bufferItemsFill());
  });
}

double HasherTest::wallMsOfItem(uint64_t index) {
  return kTimeDifference + kFirstItemTicks / kTicksPerMs + static_cast<double>(index) * 1e3 / kRate;
}

}  // namespace tellora::hashertest
