#include "fingerprint/audiohash/hash_words.h"

#include <cmath>

#include "tellora/audiohash.h"

namespace tellora::audiohash {

void computeHashWords(const float* const* frames, int32_t F, int32_t P, uint32_t* hashes,
                      uint32_t* toggles, float* absdiffs, uint8_t* sortidx) {
  int32_t w = 0;
  for (int32_t i = 1; i < F - 1; ++i, ++w) {
    const float* next = frames[i + 1];
    const float* prev = frames[i - 1];
    uint32_t word = 0;
    for (int m = 0; m < 32; ++m) {
      const float d = (next[m] - next[m + 1]) - (prev[m] - prev[m + 1]);
      sortidx[m] = static_cast<uint8_t>(m);
      word <<= 1;
      if (d > 0) word |= 1;
      absdiffs[m] = static_cast<float>(std::floor(std::fabs((double)d)));
    }
    if (P > 0) {
      sort_barkdiffs(absdiffs, sortidx, 32);
      uint32_t mask = 0;
      for (int32_t k = 0; k < P; ++k)
        mask |= 0x80000000u >> sortidx[k];
      toggles[w] = mask;
    }
    hashes[w] = word;
  }
}

}  // namespace tellora::audiohash
