#include "audio/block_clock.h"

#include <algorithm>

namespace tellora {

namespace {

// A few ms keep the stamps well inside one hash frame step (8 ms at 8 kHz)
// without chasing the backend's jitter.
constexpr double kToleranceSeconds = 0.004;
// Two seconds of 100 ms blocks: long enough that one of them ran on time,
// short enough that drift (200 ppm is 0.4 ms in that time) cannot hide.
constexpr double kWindowSeconds = 2.0;
constexpr double kTypicalBlockSeconds = 0.1;

}  // namespace

TLRBlockClock::TLRBlockClock(double sampleRate, double ticksPerSecond)
    : ticksPerItem_(ticksPerSecond / sampleRate),
      tolerance_(kToleranceSeconds * ticksPerSecond),
      windowSize_(static_cast<std::size_t>(kWindowSeconds / kTypicalBlockSeconds)) {}

void TLRBlockClock::anchorAt(double ticks) {
  anchored_ = true;
  anchor_ = ticks;
  itemsSinceAnchor_ = 0;
  errors_.clear();
}

double TLRBlockClock::stamp(uint32_t items, double heardAt, bool overflowed) {
  if (!anchored_) {
    anchorAt(heardAt);
  } else if (overflowed) {
    ++overflows_;
    lostTicks_ += std::max(0.0, heardAt - (anchor_ + itemsSinceAnchor_ * ticksPerItem_));
    anchorAt(heardAt);
  }

  double stamp = anchor_ + itemsSinceAnchor_ * ticksPerItem_;
  errors_.push_back(heardAt - stamp);
  if (errors_.size() > windowSize_) errors_.pop_front();
  const double lowest = *std::min_element(errors_.begin(), errors_.end());
  // An estimate earlier than the stamp proves the stamps late at once; late
  // estimates prove them early only once a whole window of them agrees.
  const bool early = lowest > tolerance_ && errors_.size() == windowSize_;
  if (lowest < -tolerance_ || early) {
    anchor_ += lowest;
    stamp += lowest;
    for (double& error : errors_)
      error -= lowest;
    ++reanchors_;
  }
  itemsSinceAnchor_ += items;
  return stamp;
}

}  // namespace tellora
