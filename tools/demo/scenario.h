// Who is in which room during the demo: the plan the timeline judges events by.
#pragma once

#include <string>
#include <vector>

namespace tellora::demo {

// From `fromSeconds` after its search started, a device hears `room`.
struct RoomVisit {
  double fromSeconds = 0;
  int room = 0;
};

struct DemoDevice {
  std::string label;              // "A"
  std::string payload;            // what the others receive, "alice"
  std::vector<RoomVisit> visits;  // in time order, the first from 0
};

// A and B share room 1 until A moves to room 3 `changeAtSeconds` into its
// search; C hears room 2 throughout.
std::vector<DemoDevice> demoDevices(double changeAtSeconds);

}  // namespace tellora::demo
