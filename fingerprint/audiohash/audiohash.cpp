// The exported audio-hash functions.
#include "tellora/audiohash.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fingerprint/audiohash/frame_kernel.h"
#include "fingerprint/audiohash/hash_tables.h"
#include "fingerprint/audiohash/hash_words.h"
#include "fingerprint/audiohash/reference_hash.h"

using tellora::audiohash::HashTables;
using tellora::audiohash::kBands;

namespace {

// What `fftsetup` points to: the state's hold on the shared tables.
struct TransformSetup {
  std::shared_ptr<const HashTables> tables;
};

bool prepareState(hashst* st, int32_t sr) {
  auto tables = tellora::audiohash::tablesForRate(sr);
  if (!tables) return false;
  const uint32_t N = tables->N;
  hashst s{};
  s.frame = static_cast<float*>(calloc(N, sizeof(float)));
  s.split = static_cast<float*>(calloc(N, sizeof(float)));
  s.mag = static_cast<float*>(calloc(N / 2, sizeof(float)));
  s.absdiffs = static_cast<float*>(calloc(32, sizeof(float)));
  s.sortidx = static_cast<uint8_t*>(calloc(32, 1));
  auto* setup = new (std::nothrow) TransformSetup{tables};
  if (!s.frame || !s.split || !s.mag || !s.absdiffs || !s.sortidx || !setup) {
    free(s.frame), free(s.split), free(s.mag), free(s.absdiffs), free(s.sortidx);
    delete setup;
    return false;
  }
  s.window = const_cast<float*>(tables->window.data());
  s.wts = const_cast<float**>(tables->weightRows.data());
  s.framelength = N;
  s.fftsetup = setup;
  *st = s;
  return true;
}

void freeFrames(float** frames, int32_t count) {
  if (!frames) return;
  for (int32_t k = 0; k < count; ++k)
    free(frames[k]);
  free(frames);
}

// A state hashed a second time keeps its tables but hands the transform an
// exponent of 0: one point, so the data pass through unchanged.
bool reusedStateEnergies(const float* samples, hashst* st, int32_t F, int32_t A, float** frames) {
  const uint32_t N = st->framelength;
  float* spectrum = static_cast<float*>(malloc(sizeof(float) * (N + 2)));
  if (!spectrum) return false;
  for (int32_t k = 0; k < F; ++k)
    tellora::audiohash::referenceFrameEnergies(samples + static_cast<size_t>(k) * A, N, st->window,
                                               st->wts, nullptr, st->frame, st->split, st->mag,
                                               spectrum, frames[k]);
  free(spectrum);
  return true;
}

}  // namespace

extern "C" {

int32_t audiohash(const float* samples, uint32_t nbsamples, hashres* hash, hashst* st, int32_t P,
                  int32_t sr) {
  if (!samples || nbsamples == 0 || !hash || !st || sr < 6000 || P < 0 || P > 32) return -1;

  const bool reused = st->framelength != 0;
  if (!reused && !prepareState(st, sr)) return -1;

  const int32_t N = static_cast<int32_t>(st->framelength);
  const int32_t A = N - (31 * N) / 32;
  const int32_t F =
      static_cast<int32_t>((double)(static_cast<int32_t>(nbsamples) / A) - (double)(N / A) + 1);
  const int32_t nbhashes = F - 2;

  hashres r{};
  r.nbframes = F;
  r.nbhashes = nbhashes;
  r.ntoggles = P;
  r.bitsperword = 32;
  bool ok = true;
  if (F > 0) {
    r.frames = static_cast<float**>(calloc(F, sizeof(float*)));
    ok = r.frames != nullptr;
    for (int32_t k = 0; ok && k < F; ++k) {
      r.frames[k] = static_cast<float*>(calloc(kBands, sizeof(float)));
      ok = r.frames[k] != nullptr;
    }
  }
  if (ok && nbhashes > 0) {
    r.hashes = static_cast<uint32_t*>(calloc(nbhashes, sizeof(uint32_t)));
    ok = r.hashes != nullptr;
    if (ok && P > 0) {
      r.toggles = static_cast<uint32_t*>(calloc(nbhashes, sizeof(uint32_t)));
      ok = r.toggles != nullptr;
    }
  }
  if (ok && F > 0) {
    if (reused) {
      ok = reusedStateEnergies(samples, st, F, A, r.frames);
    } else {
      const auto* setup = static_cast<const TransformSetup*>(st->fftsetup);
      ok = tellora::audiohash::computeFrameEnergies(*setup->tables, samples, F,
                                                    static_cast<uint32_t>(A), r.frames);
    }
  }
  if (!ok) {
    freeFrames(r.frames, F);
    free(r.hashes);
    free(r.toggles);
    return -1;
  }
  if (nbhashes > 0)
    tellora::audiohash::computeHashWords(r.frames, F, P, r.hashes, r.toggles, st->absdiffs,
                                         st->sortidx);
  *hash = r;
  return 0;
}

void inithashst(hashst* st) {
  if (st) *st = hashst{};
}

void freehashst(hashst* st) {
  if (!st) return;
  free(st->frame);
  free(st->split);
  free(st->mag);
  free(st->absdiffs);
  free(st->sortidx);
  // window and wts belong to the shared tables that fftsetup holds.
  delete static_cast<TransformSetup*>(st->fftsetup);
  *st = hashst{};
}

void freehash(hashres* hash) {
  if (!hash) return;
  free(hash->hashes);
  freeFrames(hash->frames, hash->nbframes);
  free(hash->toggles);
  hash->hashes = nullptr;
  hash->frames = nullptr;
  hash->toggles = nullptr;
}

int32_t getexpframelength(int32_t sr, float secs) {
  const float product = secs * static_cast<float>(sr);
  // Products that do not fit an int32 are clamped; NaN and negatives give -1.
  if (!(product >= 1.0f)) return -1;
  int32_t v = product >= 2147483648.0f ? INT32_MAX : static_cast<int32_t>(product);
  int32_t shifts = 0;
  while (v != 0) {
    v >>= 1;
    ++shifts;
  }
  return shifts - 1;
}

float* GetHammingWindow(uint32_t N) {
  if (N == 0) return nullptr;
  float* w = static_cast<float*>(malloc(sizeof(float) * N));
  if (!w) return nullptr;
  for (uint32_t i = 0; i < N; ++i)
    w[i] = tellora::audiohash::hammingValue(i, N);
  return w;
}

float** GetWts(int32_t sr, int32_t nbins) {
  if (nbins <= 0) return nullptr;
  auto** rows = static_cast<float**>(calloc(kBands, sizeof(float*)));
  float* bark = static_cast<float*>(malloc(sizeof(float) * nbins));
  bool ok = rows && bark;
  if (ok) tellora::audiohash::computeBarkOfBins(sr, nbins, bark);
  for (int b = 0; ok && b < kBands; ++b) {
    rows[b] = static_cast<float*>(malloc(sizeof(float) * nbins));
    ok = rows[b] != nullptr;
    if (ok) tellora::audiohash::computeBandWeights(sr, nbins, b, bark, rows[b]);
  }
  free(bark);
  if (!ok) {
    if (rows)
      for (int b = 0; b < kBands; ++b)
        free(rows[b]);
    free(rows);
    return nullptr;
  }
  return rows;
}

void sort_barkdiffs(float* values, uint8_t* idx, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    int32_t min = i;
    for (int32_t j = i + 1; j < n; ++j)
      if (values[j] < values[min]) min = j;
    if (min != i) {
      uint32_t a, b;  // swapped as raw bit patterns
      std::memcpy(&a, &values[i], 4);
      std::memcpy(&b, &values[min], 4);
      std::memcpy(&values[i], &b, 4);
      std::memcpy(&values[min], &a, 4);
      const uint8_t t = idx[i];
      idx[i] = idx[min];
      idx[min] = t;
    }
  }
}

}  // extern "C"
