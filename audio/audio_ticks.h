// Durations of audio in the monotonic tick unit blocks are stamped with.
#pragma once

#include "runtime/clock.h"

namespace tellora {

// Ticks per second, derived from the one conversion the clock publishes. A
// large probe keeps the result exact for nanosecond ticks.
inline double ticksPerSecond() {
  constexpr double probe = 1e9;
  return probe * 1000.0 / convertInMilicec(probe);
}

// Ticks spanned by `items` samples at `sampleRate`.
inline double ticksForItems(double items, double sampleRate) {
  return items * ticksPerSecond() / sampleRate;
}

}  // namespace tellora
