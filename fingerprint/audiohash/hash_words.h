// From band energies to hash words and toggle masks.
#pragma once

#include <cstdint>

namespace tellora::audiohash {

// Word w compares frames w and w + 2: bit 31 - m is set when the difference of
// bands m and m + 1 rose. With P > 0, toggles[w] marks the P bits whose rounded
// down difference was smallest. absdiffs (32) and sortidx (32) are scratch.
void computeHashWords(const float* const* frames, int32_t F, int32_t P, uint32_t* hashes,
                      uint32_t* toggles, float* absdiffs, uint8_t* sortidx);

}  // namespace tellora::audiohash
