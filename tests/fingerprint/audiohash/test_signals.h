// Deterministic test audio in the shapes the hash tests and benchmarks ask
// for, from the shared test sounds.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/tools/test_audio.h"

namespace tellora::testing {

// Uniform noise in [-amplitude, amplitude] from a fixed-seed generator.
inline std::vector<float> noise(size_t n, uint32_t seed, float amplitude = 0.5f) {
  std::vector<float> out(n);
  testaudio::addNoise(out, amplitude, seed);
  return out;
}

// A chord of drifting partials, `seed` seconds into it: rich, never steady.
inline std::vector<float> babble(size_t n, uint32_t seed, int sr = 8000) {
  return testaudio::renderChord(sr, seed, static_cast<double>(n) / sr);
}

}  // namespace tellora::testing
