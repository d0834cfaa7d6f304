#include "fingerprint/audiohash/hash_tables.h"

#include <cmath>
#include <list>
#include <mutex>
#include <new>

#include "tellora/audiohash.h"

namespace tellora::audiohash {

const float kBandCentres[kBands] = {50,   75,   100,  125,  150,  200,  250,  300,  350,
                                    400,  450,  510,  570,  635,  700,  770,  840,  920,
                                    1000, 1085, 1170, 1270, 1370, 1485, 1600, 1725, 1850,
                                    2000, 2150, 2325, 2500, 2700, 2900};

namespace {

// 6 * asinh(f / 600) with the rounding steps the hash fixes: the quotient in
// float, its square in float, the rest in double.
float barkOfFrequencyQuotient(float g) {
  return static_cast<float>(6.0 * std::log((double)g + std::sqrt((double)(g * g) + 1.0)));
}

std::shared_ptr<HashTables> buildTables(int32_t sr) {
  auto t = std::make_shared<HashTables>();
  t->sampleRate = sr;
  t->log2N = getexpframelength(sr, 0.4f);
  if (t->log2N < 1 || t->log2N > 30) return nullptr;
  t->N = 1u << t->log2N;
  const uint32_t N = t->N;
  const uint32_t bins = N / 2;

  t->window.resize(N);
  for (uint32_t i = 0; i < N; ++i)
    t->window[i] = hammingValue(i, N);

  std::vector<float> bark(bins);
  computeBarkOfBins(sr, static_cast<int32_t>(bins), bark.data());
  t->weightStore.resize(static_cast<size_t>(kBands) * bins);
  t->weightRows.resize(kBands);
  for (int b = 0; b < kBands; ++b) {
    t->weightRows[b] = t->weightStore.data() + static_cast<size_t>(b) * bins;
    computeBandWeights(sr, static_cast<int32_t>(bins), b, bark.data(), t->weightRows[b]);
  }
  t->weightsByBin.assign(static_cast<size_t>(bins) * kBandStride, 0.0f);
  for (uint32_t j = 0; j < bins; ++j)
    for (int b = 0; b < kBands; ++b)
      t->weightsByBin[j * kBandStride + b] = t->weightRows[b][j];

  if (!t->fft.init(static_cast<int>(N))) return nullptr;
  return t;
}

}  // namespace

float hammingValue(uint32_t i, uint32_t N) {
  return static_cast<float>(0.54 - 0.46 * std::cos((6.283185307179586 * i) / (N - 1)));
}

void computeBarkOfBins(int32_t sr, int32_t nbins, float* bark) {
  const float half = static_cast<float>(sr / 2);
  for (int32_t j = 0; j < nbins; ++j) {
    float f = ((float)j * half) / (float)nbins;
    float g = static_cast<float>((double)f / 600.0);
    bark[j] = barkOfFrequencyQuotient(g);
  }
}

void computeBandWeights(int32_t, int32_t nbins, int band, const float* barkOfBin, float* row) {
  const float gc = static_cast<float>((double)kBandCentres[band] / 600.0);
  const float zc = barkOfFrequencyQuotient(gc);
  for (int32_t j = 0; j < nbins; ++j) {
    float t = barkOfBin[j] - zc;
    float u = t / 1.06f;
    float lo = static_cast<float>(-2.5 * ((double)u - 0.5));
    float hi = static_cast<float>((double)u + 0.5);
    float e = lo < hi ? lo : hi;
    e = e < 0 ? e : 0.0f;
    row[j] = static_cast<float>(std::pow(10.0, (double)e));
  }
}

std::shared_ptr<const HashTables> tablesForRate(int32_t sr) {
  // A handful of rates at most in practice (one); keep the few most recent.
  constexpr size_t kCachedRates = 4;
  static std::mutex mutex;
  static auto* cache = new std::list<std::shared_ptr<const HashTables>>();  // immortal

  std::lock_guard<std::mutex> lock(mutex);
  for (auto it = cache->begin(); it != cache->end(); ++it) {
    if ((*it)->sampleRate == sr) {
      cache->splice(cache->begin(), *cache, it);
      return cache->front();
    }
  }
  std::shared_ptr<const HashTables> tables;
  try {
    tables = buildTables(sr);
  } catch (const std::bad_alloc&) {
    return nullptr;
  } catch (const std::length_error&) {
    return nullptr;
  }
  if (!tables) return nullptr;
  cache->push_front(tables);
  if (cache->size() > kCachedRates) cache->pop_back();
  return tables;
}

}  // namespace tellora::audiohash
