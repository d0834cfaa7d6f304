#include "bench/discovery/device_fingerprints.h"

#include "fingerprint/pcm.h"
#include "tellora/audiohash.h"

namespace tellora::scenes {

std::vector<Part> fingerprintParts(const std::vector<int16_t>& items, double clockErrorMs,
                                   double latencyMs) {
  constexpr size_t kPart = 3968, kAdvance = 1856;
  constexpr double kItemsPerMs = 8.0;
  std::vector<Part> parts;
  std::vector<float> floats(kPart);
  for (size_t start = 0; start + kPart <= items.size(); start += kAdvance) {
    pcmItemsToFloats(items.data() + start, kPart, floats.data());
    hashst st;
    hashres res{};
    inithashst(&st);
    if (audiohash(floats.data(), kPart, &res, &st, 0, 8000) == 0 && res.nbhashes > 0) {
      Part p;
      p.stimeMs = start / kItemsPerMs + clockErrorMs;
      p.arrivalMs = (start + kPart) / kItemsPerMs + latencyMs;
      p.words.assign(res.hashes, res.hashes + res.nbhashes);
      parts.push_back(std::move(p));
      freehash(&res);
    }
    freehashst(&st);
  }
  return parts;
}

}  // namespace tellora::scenes
