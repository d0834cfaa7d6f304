// Monotonic timestamps of captured blocks that follow the sound, not the
// nominal rate: the device's clock drifts from the host's, and an input
// overflow drops items that a plain count would never see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace tellora {

// Stamps are the anchor (the monotonic tick of one item) plus the items since
// it at the nominal rate, so consecutive blocks stay evenly spaced. Each block
// also comes with the backend's own estimate of when its first item was
// heard; that estimate only ever errs late (a callback runs late, never
// early), so the lowest error over the last blocks measures the drift, and
// the anchor moves when that passes the tolerance. An overflow re-anchors on
// the block's estimate at once, which counts the dropped stretch.
// Not thread-safe: one backend thread feeds it.
class TLRBlockClock {
 public:
  // `ticksPerSecond`: of the monotonic clock the estimates and stamps are in.
  TLRBlockClock(double sampleRate, double ticksPerSecond);

  // The stamp of a block's first item. `heardAt`: the backend's estimate of
  // that moment on the monotonic clock. `overflowed`: items were dropped
  // before this block.
  double stamp(uint32_t items, double heardAt, bool overflowed);

  uint64_t overflows() const { return overflows_; }
  // Ticks of sound the overflows dropped, as far as the estimates tell.
  double lostTicks() const { return lostTicks_; }
  // Moves of the anchor for drift (overflows not counted).
  uint64_t reanchors() const { return reanchors_; }

 private:
  void anchorAt(double ticks);

  double ticksPerItem_;
  double tolerance_;        // ticks the stamps may stray before the anchor moves
  std::size_t windowSize_;  // blocks the lowest error is taken over
  bool anchored_ = false;
  double anchor_ = 0;
  double itemsSinceAnchor_ = 0;
  std::deque<double> errors_;  // estimate minus stamp, newest last
  uint64_t overflows_ = 0;
  double lostTicks_ = 0;
  uint64_t reanchors_ = 0;
};

}  // namespace tellora
