// Tables that depend only on the sample rate: the window, the 33 band-weight
// rows and the transform set-up. Built once per rate and shared read-only by
// every hash state in the process.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "fingerprint/audiohash/lane_fft.h"

namespace tellora::audiohash {

constexpr int kBands = 33;
constexpr int kBitsPerWord = 32;
// Band weights of one bin for all bands, padded for vector loads.
constexpr int kBandStride = 36;

extern const float kBandCentres[kBands];

struct HashTables {
  int sampleRate = 0;
  int log2N = 0;
  uint32_t N = 0;                   // frame length
  std::vector<float> window;        // N
  std::vector<float> weightStore;   // 33 rows of N/2, row-major
  std::vector<float*> weightRows;   // 33 pointers into weightStore (the hashst `wts` view)
  std::vector<float> weightsByBin;  // N/2 groups of kBandStride: weight of bin j for band b
  LaneFftPlan fft;
};

// The shared tables for a rate the hash accepts (sr >= 6000), or null when they
// cannot be allocated. Thread-safe; recently used rates stay cached.
std::shared_ptr<const HashTables> tablesForRate(int32_t sr);

// One band-weight row (nbins values) for band b at rate sr.
void computeBandWeights(int32_t sr, int32_t nbins, int band, const float* barkOfBin, float* row);
// The Bark value of every bin (nbins values).
void computeBarkOfBins(int32_t sr, int32_t nbins, float* bark);
// The Hamming window value of item i for a window of N items.
float hammingValue(uint32_t i, uint32_t N);

}  // namespace tellora::audiohash
