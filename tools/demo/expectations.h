// What must and must not happen in the demo, judged from what the clients
// reported. Times are seconds on the demo's clock.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/demo/scenario.h"

namespace tellora::demo {

// One device reporting another found or lost.
struct Sighting {
  double at = 0;
  size_t observer = 0;
  size_t other = 0;
  bool found = true;  // false: lost
};

struct Observations {
  std::vector<std::optional<double>> searchStartedAt;  // per device
  std::vector<Sighting> sightings;
  std::vector<std::string> problems;  // stops with errors, failed exits, strangers
  // The first client to stop ends the run: the losses its leaving causes say
  // nothing about rooms.
  std::optional<double> endedAt;
};

// Room plans are relative to each device's own search start, which is when
// its file started playing.
class RoomPlan {
 public:
  RoomPlan(std::vector<DemoDevice> devices, std::vector<std::optional<double>> searchStartedAt);

  std::optional<double> startOf(size_t device) const;
  std::optional<int> roomOf(size_t device, double at) const;
  bool share(size_t a, size_t b, double at) const;
  // Every moment either device of the pair changes rooms, in order.
  std::vector<double> changes(size_t a, size_t b) const;
  // The last room change of either device at or before `at`, if any.
  struct Change {
    double at;
    size_t device;
  };
  std::optional<Change> lastChange(size_t a, size_t b, double at) const;

 private:
  std::vector<DemoDevice> devices_;
  std::vector<std::optional<double>> startedAt_;
};

// Matching takes a moment, and the demo's clock sees a file start a few
// milliseconds after it did.
struct Tolerance {
  double foundLate = 2.5;  // a pair may still be found this long after it parted
  double lostEarly = 0.5;  // and lost this long before
  double settle = 6.0;     // a parting this close to the end is not judged
};

// Empty when the sighting fits the room plan, else why not.
std::optional<std::string> unexpectedBecause(const RoomPlan& plan, const Sighting& s,
                                             const Tolerance& tolerance);

struct Check {
  bool passed = false;
  std::string what;    // "A found B"
  std::string detail;  // "after 1.7 s", "never"
};

struct Verdict {
  std::vector<Check> checks;
  bool passed() const;
};

Verdict judge(const std::vector<DemoDevice>& devices, const Observations& observations,
              const Tolerance& tolerance = {});

}  // namespace tellora::demo
