// What the recorder tells the objects above it.
#pragma once

#include <cstdint>

#include "tellora/error.h"

namespace tellora {

// Receives captured audio on the SDK's event loop. `data` is valid only during
// the call: the recorder reuses its buffers.
class TLRRecorderDelegate {
 public:
  virtual ~TLRRecorderDelegate() = default;
  // Mono signed 16-bit items; `time` is the monotonic tick of the first item
  // (runtime/clock.h: monotonicTicks(), convertInMilicec()).
  virtual void audioDataReceived(const int16_t* data, uint32_t itemsCount, double time) = 0;
};

// Receives the errors that end recording (for example 101, microphone not permitted).
class TLRRecorderErrorsHandlerDelegate {
 public:
  virtual ~TLRRecorderErrorsHandlerDelegate() = default;
  virtual void recordStoppedWithError(const TLRError& error) = 0;
};

}  // namespace tellora
