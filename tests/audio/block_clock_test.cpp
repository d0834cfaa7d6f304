// Block stamps against the true capture times of a simulated device: ten
// minutes of 100 ms blocks from a clock that runs off the nominal rate, with
// callbacks late by up to 15 ms and an input overflow that drops 300 ms.
#include "audio/block_clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace tellora {
namespace {

constexpr double kTicksPerSecond = 1e9;
constexpr double kMs = kTicksPerSecond / 1000;

struct DeviceCase {
  const char* name;
  double ppm;             // the device's real rate is 8000 * (1 + ppm / 1e6)
  bool overflow;          // 300 ms dropped before the block at minute five
  uint64_t maxReanchors;  // drift corrections a steady stream may need
};

class BlockClockTest : public ::testing::TestWithParam<DeviceCase> {};

TEST_P(BlockClockTest, StampsStayWithin20MsOfTheSoundForTenMinutes) {
  const DeviceCase device = GetParam();
  const double realRate = 8000.0 * (1 + device.ppm / 1e6);
  TLRBlockClock clock(8000.0, kTicksPerSecond);
  std::mt19937 random(7);
  std::uniform_real_distribution<double> lateness(0, 15 * kMs);

  const double origin = 4.2e12;
  double itemsCaptured = 0, dropped = 0, worst = 0;
  for (int block = 0; block < 6000; ++block) {
    const bool overflow = device.overflow && block == 3000;
    if (overflow) dropped += 0.3 * kTicksPerSecond;
    const double truth = origin + itemsCaptured / realRate * kTicksPerSecond + dropped;
    const double stamp = clock.stamp(800, truth + lateness(random), overflow);
    worst = std::max(worst, std::abs(stamp - truth));
    itemsCaptured += 800;
  }
  EXPECT_LE(worst, 20 * kMs);
  EXPECT_EQ(clock.overflows(), device.overflow ? 1u : 0u);
  EXPECT_NEAR(clock.lostTicks(), device.overflow ? 300 * kMs : 0, 20 * kMs);
  // Jitter alone must not move the stamps: blocks stay evenly spaced.
  EXPECT_LE(clock.reanchors(), device.maxReanchors);
}

// 200 ppm is 0.2 ms a second, so about one 4 ms correction every 20 seconds.
INSTANTIATE_TEST_SUITE_P(Devices, BlockClockTest,
                         ::testing::Values(DeviceCase{"fast", 200, true, 40},
                                           DeviceCase{"slow", -200, true, 40},
                                           DeviceCase{"exact", 0, false, 3}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tellora
