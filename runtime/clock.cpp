#include "runtime/clock.h"

#include <time.h>

#include <atomic>
#include <chrono>

namespace tellora {

namespace {

class SystemClock final : public Clock {
 public:
  double wallSeconds() override {
    using Seconds = std::chrono::duration<double>;
    return std::chrono::duration_cast<Seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  }

  double monotonicTicks() override {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
  }
};

// Immortal, so that threads still reading the clock during exit never see a
// destroyed object.
SystemClock& systemClock() {
  static SystemClock* const instance = new SystemClock;
  return *instance;
}

std::atomic<Clock*> installedClock{nullptr};

}  // namespace

Clock& clock() {
  Clock* installed = installedClock.load(std::memory_order_acquire);
  return installed ? *installed : systemClock();
}

void setClockForTesting(Clock* clock) {
  installedClock.store(clock, std::memory_order_release);
}

double convertInMilicec(double ticks) {
  return ticks / 1e6;
}

}  // namespace tellora
