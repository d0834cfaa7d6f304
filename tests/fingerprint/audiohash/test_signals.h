// Deterministic test audio.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace tellora::testing {

// Uniform noise in [-amplitude, amplitude] from a fixed-seed generator.
inline std::vector<float> noise(size_t n, uint32_t seed, float amplitude = 0.5f) {
  std::vector<float> out(n);
  uint32_t s = seed * 2654435761u + 1;
  for (auto& v : out) {
    s = s * 1664525u + 1013904223u;
    v = amplitude * (static_cast<float>(s >> 8) / 8388608.0f - 1.0f);
  }
  return out;
}

// A sine sweep from f0 to f1 Hz at rate sr.
inline std::vector<float> sweep(size_t n, double f0, double f1, int sr, float amplitude = 0.7f) {
  std::vector<float> out(n);
  double phase = 0;
  for (size_t i = 0; i < n; ++i) {
    const double f = f0 + (f1 - f0) * static_cast<double>(i) / static_cast<double>(n);
    phase += 2 * M_PI * f / sr;
    out[i] = amplitude * static_cast<float>(std::sin(phase));
  }
  return out;
}

// Noise shaped by a syllable-like envelope over a few tones: speech-ish.
inline std::vector<float> babble(size_t n, uint32_t seed, int sr) {
  auto out = noise(n, seed, 0.2f);
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / sr;
    const double envelope = 0.5 + 0.5 * std::sin(2 * M_PI * 4.0 * t + seed);
    const double tones = 0.3 * std::sin(2 * M_PI * 220 * t) + 0.2 * std::sin(2 * M_PI * 1330 * t) +
                         0.1 * std::sin(2 * M_PI * 2710 * t);
    out[i] = static_cast<float>(envelope * (out[i] + tones));
  }
  return out;
}

}  // namespace tellora::testing
