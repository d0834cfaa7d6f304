#include "tools/demo/scenario.h"

namespace tellora::demo {

std::vector<DemoDevice> demoDevices(double changeAtSeconds) {
  return {
      {"A", "alice", {{0, 1}, {changeAtSeconds, 3}}},
      {"B", "bob", {{0, 1}}},
      {"C", "carol", {{0, 2}}},
  };
}

}  // namespace tellora::demo
