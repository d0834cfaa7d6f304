// The exported hash-comparison functions.
#include <algorithm>
#include <cmath>
#include <new>
#include <vector>

#include "tellora/audiohash.h"

extern "C" {

int32_t ph_bitcount(uint32_t v) {
  int32_t length = 0;
  while (v) {
    v >>= 1;
    ++length;
  }
  return length;
}

float ph_compare_blocks(const uint32_t* a, const uint32_t* toggles, const uint32_t* b, int32_t n) {
  float s = 0;
  for (int32_t k = 0; k < n; ++k) {
    const uint32_t m = toggles ? toggles[k] : 0;
    s = static_cast<float>((double)s + (double)ph_bitcount((a[k] ^ b[k]) & ~m));
  }
  return static_cast<float>((double)s / (double)(static_cast<int64_t>(n) * 32));
}

float get_offset_secs(int32_t sr, uint32_t index) {
  const int32_t log2N = getexpframelength(sr, 0.4f);
  if (log2N < 0) return 0.0f;
  const auto shiftedIndex = static_cast<int32_t>(index << log2N);
  const auto shiftedRate = static_cast<int32_t>(static_cast<uint32_t>(sr) << 5);
  return static_cast<float>(shiftedIndex) / static_cast<float>(shiftedRate);
}

int32_t audio_distance_ber(const hashres* A, const hashres* B, uint32_t bs, uint32_t* best_index,
                           float* best_conf, float threshold) {
  if (!A || !B || !best_index || !best_conf || bs == 0) return -1;
  const int32_t N1 = A->nbhashes, N2 = B->nbhashes;
  if (N1 < 0 || N2 < 0 || N1 > N2) return -1;
  if ((N1 > 0 && !A->hashes) || (N2 > 0 && !B->hashes)) return -1;
  const auto block = static_cast<int32_t>(bs > INT32_MAX ? INT32_MAX : bs);

  // Block distances persist from one offset to the next: entries an offset does
  // not reach keep the previous offset's values (new entries start at 0).
  std::vector<float> dist;
  uint32_t bestIndex = 0xFFFFFFFFu;
  float bestConf = -1.0f;
  try {
    for (int32_t i = 0; i <= N2 - N1; ++i) {
      const int nb = static_cast<int>(std::floor((double)std::min(N1, N2 - i) / (double)bs));
      dist.resize(static_cast<size_t>(nb));
      const uint32_t* pa = A->hashes;
      const uint32_t* pb = B->hashes + i;
      const uint32_t* pt = A->toggles;
      int32_t k = 0, j = i, c = 0;
      while (k < N1 - block && j < N2 - block) {
        dist[c] = ph_compare_blocks(pa, pt, pb, block);
        pa += block;
        pb += block;
        if (pt) pt += block;
        k += block;
        j += block;
        ++c;
      }
      double close = 0, far = 0;
      for (int e = 0; e < nb; ++e) {
        const float d = dist[e];
        if (d <= threshold)
          close += 1.0f - d;
        else
          far += 1.0f - d;
      }
      const float score = static_cast<float>(0.5 * (1 + close / nb - far / nb));
      if (score > bestConf) {
        bestConf = score;
        bestIndex = static_cast<uint32_t>(i);
      }
    }
  } catch (const std::bad_alloc&) {
    return -1;
  }
  *best_index = bestIndex;
  *best_conf = bestConf;
  return 0;
}

}  // extern "C"
