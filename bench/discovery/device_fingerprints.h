// A device's fingerprints as the SDK makes them: parts of 3968 items every
// 1856 items, each hashed alone, stamped with the device's (erring) clock.
#pragma once

#include <cstdint>
#include <vector>

namespace tellora::scenes {

struct Part {
  double stimeMs;    // part start on the server clock as the device believes it
  double arrivalMs;  // when the server receives it (true time)
  std::vector<uint32_t> words;
};

// clockErrorMs: the device's offset error after clock sync; latencyMs: the
// delay from the part's last item to its arrival at the server.
std::vector<Part> fingerprintParts(const std::vector<int16_t>& items, double clockErrorMs,
                                   double latencyMs);

}  // namespace tellora::scenes
