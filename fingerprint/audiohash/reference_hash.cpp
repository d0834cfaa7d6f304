#include "fingerprint/audiohash/reference_hash.h"

#include "kiss_fftr.h"

#include <cmath>
#include <cstdlib>
#include <vector>

#include "fingerprint/audiohash/hash_tables.h"
#include "fingerprint/audiohash/hash_words.h"

namespace tellora::audiohash {

void referenceFrameEnergies(const float* samples, uint32_t N, const float* window,
                            float* const* wts, void* fft, float* frame, float* split, float* mag,
                            float* spectrum, float* energies) {
  const uint32_t half = N / 2;
  for (uint32_t i = 0; i < N; ++i)
    frame[i] = window[i] * samples[i];

  // Interleaved to split complex: real parts first, imaginary parts after.
  for (uint32_t j = 0; j < half; ++j) {
    split[j] = frame[2 * j];
    split[half + j] = frame[2 * j + 1];
  }
  if (fft) {
    // The hash is defined on twice the plain DFT, with the Nyquist value packed
    // into the imaginary slot of DC.
    auto* out = reinterpret_cast<kiss_fft_cpx*>(spectrum);
    kiss_fftr(static_cast<kiss_fftr_cfg>(fft), frame, out);
    split[0] = out[0].r * 2.0f;
    split[half] = out[half].r * 2.0f;
    for (uint32_t j = 1; j < half; ++j) {
      split[j] = out[j].r * 2.0f;
      split[half + j] = out[j].i * 2.0f;
    }
  }
  for (uint32_t j = 0; j < half; ++j) {
    frame[2 * j] = split[j];
    frame[2 * j + 1] = split[half + j];
  }

  mag[0] = frame[0];
  for (uint32_t j = 1; j + 2 < half; ++j)
    mag[j] = static_cast<float>(
        std::sqrt(std::pow((double)frame[2 * j], 2.0) + std::pow((double)frame[2 * j + 1], 2.0)));
  mag[half - 1] = frame[1];

  for (int b = 0; b < kBands; ++b) {
    float e = 0;
    for (uint32_t j = 0; j < half; ++j)
      e = e + (wts[b][j] * mag[j]);
    energies[b] = e;
  }
}

int32_t referenceAudiohash(const float* samples, uint32_t nbsamples, hashres* hash, int32_t P,
                           int32_t sr) {
  if (!samples || nbsamples == 0 || !hash || sr < 6000 || P < 0 || P > 32) return -1;
  const int32_t log2N = getexpframelength(sr, 0.4f);
  const uint32_t N = 1u << log2N;
  const int32_t A = static_cast<int32_t>(N) - (31 * static_cast<int32_t>(N)) / 32;
  const int32_t F =
      static_cast<int32_t>(static_cast<int32_t>(nbsamples) / A - static_cast<int32_t>(N) / A + 1);

  float* window = GetHammingWindow(N);
  float** wts = GetWts(sr, static_cast<int32_t>(N / 2));
  kiss_fftr_cfg fft = kiss_fftr_alloc(static_cast<int>(N), 0, nullptr, nullptr);
  std::vector<float> frame(N), split(N), mag(N / 2, 0.0f), spectrum(N + 2);

  hashres r{};
  r.nbframes = F;
  r.nbhashes = F - 2;
  r.ntoggles = P;
  r.bitsperword = 32;
  if (F > 0) {
    r.frames = static_cast<float**>(calloc(F, sizeof(float*)));
    for (int32_t k = 0; k < F; ++k) {
      r.frames[k] = static_cast<float*>(calloc(kBands, sizeof(float)));
      referenceFrameEnergies(samples + static_cast<size_t>(k) * A, N, window, wts, fft,
                             frame.data(), split.data(), mag.data(), spectrum.data(), r.frames[k]);
    }
  }
  if (r.nbhashes > 0) {
    r.hashes = static_cast<uint32_t*>(calloc(r.nbhashes, sizeof(uint32_t)));
    if (P > 0) r.toggles = static_cast<uint32_t*>(calloc(r.nbhashes, sizeof(uint32_t)));
    float absdiffs[32];
    uint8_t sortidx[32];
    computeHashWords(r.frames, F, P, r.hashes, r.toggles, absdiffs, sortidx);
  }
  *hash = r;

  kiss_fftr_free(fft);
  for (int b = 0; b < kBands; ++b)
    free(wts[b]);
  free(wts);
  free(window);
  return 0;
}

}  // namespace tellora::audiohash
