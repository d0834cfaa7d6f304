// The audio hash of a sound, freed with the object; a fresh state per call,
// as the pipeline hashes each part.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fingerprint/part_fingerprint.h"
#include "fingerprint/pcm.h"
#include "tellora/audiohash.h"

namespace tellora::testing {

struct Hashed {
  explicit Hashed(const std::vector<float>& samples, int32_t P = 0, int32_t sr = 8000) {
    inithashst(&st);
    status = ::audiohash(samples.data(), static_cast<uint32_t>(samples.size()), &res, &st, P, sr);
  }
  // Recorded 16-bit items, read as the hasher reads them.
  explicit Hashed(std::span<const int16_t> items) : Hashed(floats(items)) {}
  ~Hashed() {
    if (status == 0) freehash(&res);
    freehashst(&st);
  }
  Hashed(const Hashed&) = delete;
  Hashed& operator=(const Hashed&) = delete;

  std::vector<uint32_t> words() const {
    if (status != 0 || res.nbhashes <= 0) return {};
    return {res.hashes, res.hashes + res.nbhashes};
  }
  // What the SDK sends for this sound.
  std::string fingerprint() const { return fingerprintFromWords(words()); }

  static std::vector<float> floats(std::span<const int16_t> items) {
    std::vector<float> samples(items.size());
    pcmItemsToFloats(items.data(), items.size(), samples.data());
    return samples;
  }

  int32_t status = -1;
  hashres res{};
  hashst st{};
};

}  // namespace tellora::testing
