// Wall clock and monotonic ticks, behind one replaceable interface so that
// tests can stand a clock of their own in.
#pragma once

namespace tellora {

class Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since 1970-01-01 UTC, with sub-millisecond resolution.
  virtual double wallSeconds() = 0;
  // Monotonic host ticks (nanoseconds of CLOCK_MONOTONIC for the system clock).
  virtual double monotonicTicks() = 0;
};

// The clock the SDK reads. The system clock unless a test installed another.
Clock& clock();
// Installs a clock (nullptr restores the system clock). The caller keeps it
// alive while installed. Not for use while SDK threads run.
void setClockForTesting(Clock* clock);

inline double wallClockSeconds() {
  return clock().wallSeconds();
}
inline double monotonicTicks() {
  return clock().monotonicTicks();
}

// Host ticks to milliseconds (ticks are nanoseconds, so this divides by 1e6).
double convertInMilicec(double ticks);

}  // namespace tellora
