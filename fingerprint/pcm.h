// Converting recorded 16-bit items to the floats the audio hash reads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tellora {

// item / 32767 in float, clamped to [-1, 1]: only -32768 is clamped, to -1.
inline float pcmItemToFloat(int16_t item) {
  float v = static_cast<float>(item) / 32767.0f;
  if (v < -1.0f) v = -1.0f;
  if (v > 1.0f) v = 1.0f;
  return v;
}

inline void pcmItemsToFloats(const int16_t* items, size_t count, float* out) {
  for (size_t i = 0; i < count; ++i)
    out[i] = pcmItemToFloat(items[i]);
}

}  // namespace tellora
