// The frame-energy kernel, written once for any lane count. Included by one
// source file per instruction set, each compiled with its own target flags.
#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <vector>

#include "fingerprint/audiohash/frame_kernel.h"
#include "fingerprint/audiohash/lane_fft.h"

namespace tellora::audiohash {

// GCC vectors of 4 and 8 floats (the attribute cannot depend on a template argument).
template <int Lanes>
struct LaneVector;
template <>
struct LaneVector<4> {
  typedef float type __attribute__((vector_size(16)));
};
template <>
struct LaneVector<8> {
  typedef float type __attribute__((vector_size(32)));
};

template <int Lanes>
class FrameKernel {
 public:
  using V = typename LaneVector<Lanes>::type;
  using Cpx = LaneCpx<V>;

  static bool run(const HashTables& t, const float* samples, int32_t F, uint32_t step,
                  float* const* frames) {
    Scratch* s = scratchFor(t.N);
    if (!s) return false;
    LaneFft<V> fft(t.fft);
    for (int32_t k0 = 0; k0 < F; k0 += Lanes) {
      const int count = static_cast<int>(std::min<int32_t>(Lanes, F - k0));
      loadWindowedFrames(t, samples, k0, count, step, s->in.data());
      fft.forward(s->in.data(), s->tmp.data(), s->out.data());
      spectrum(t, s->out.data(), s->mag.data());
      bandEnergies(t, s->mag.data(), frames + k0, count);
    }
    return true;
  }

 private:
  struct Scratch {
    uint32_t N = 0;
    std::vector<Cpx> in, tmp, out;
    std::vector<V> mag;
  };

  // Per thread, reused across calls: the pipeline hashes many short parts.
  static Scratch* scratchFor(uint32_t N) {
    thread_local std::unique_ptr<Scratch> scratch;
    if (scratch && scratch->N == N) return scratch.get();
    try {
      auto fresh = std::make_unique<Scratch>();
      fresh->N = N;
      fresh->in.resize(N / 2);
      fresh->tmp.resize(N / 2);
      fresh->out.resize(N / 2 + 1);
      fresh->mag.resize(N / 2);
      scratch = std::move(fresh);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    return scratch.get();
  }

  // Lane l holds frame k0 + l (the last frame again in lanes past `count`),
  // windowed and packed as complex pairs of even and odd samples.
  static void loadWindowedFrames(const HashTables& t, const float* samples, int32_t k0, int count,
                                 uint32_t step, Cpx* in) {
    const float* starts[Lanes];
    for (int l = 0; l < Lanes; ++l)
      starts[l] = samples + static_cast<size_t>(k0 + std::min(l, count - 1)) * step;
    const float* w = t.window.data();
    for (uint32_t n = 0; n < t.N / 2; ++n) {
      V re, im;
      for (int l = 0; l < Lanes; ++l) {
        re[l] = starts[l][2 * n];
        im[l] = starts[l][2 * n + 1];
      }
      in[n].r = re * w[2 * n];
      in[n].i = im * w[2 * n + 1];
    }
  }

  // The transform's output doubled (the scale the hash is defined on), then
  // magnitudes in double. Bin N/2 - 2 is never assigned and stays 0.
  static void spectrum(const HashTables& t, const Cpx* out, V* mag) {
    const uint32_t bins = t.N / 2;
    mag[0] = out[0].r * 2.0f;
    for (uint32_t j = 1; j + 2 < bins; ++j) {
      const V a = out[j].r * 2.0f;
      const V b = out[j].i * 2.0f;
      V m;
      for (int l = 0; l < Lanes; ++l) {
        const double ad = a[l], bd = b[l];
        m[l] = static_cast<float>(std::sqrt(ad * ad + bd * bd));
      }
      mag[j] = m;
    }
    mag[bins - 2] = V{};
    mag[bins - 1] = out[bins].r * 2.0f;
  }

  // E[b] accumulates weight * magnitude over the bins in ascending order, each
  // product rounded to float before it is added: the same sums as one frame at
  // a time, with bands in groups so the adds of a group overlap.
  static void bandEnergies(const HashTables& t, const V* mag, float* const* frames, int count) {
    constexpr int kGroup = 11;
    static_assert(kBands % kGroup == 0);
    const uint32_t bins = t.N / 2;
    for (int b0 = 0; b0 < kBands; b0 += kGroup) {
      V acc[kGroup];
      for (int g = 0; g < kGroup; ++g)
        acc[g] = V{};
      const float* w = t.weightsByBin.data() + b0;
      for (uint32_t j = 0; j < bins; ++j, w += kBandStride) {
        const V m = mag[j];
        for (int g = 0; g < kGroup; ++g)
          acc[g] = acc[g] + w[g] * m;
      }
      for (int l = 0; l < count; ++l)
        for (int g = 0; g < kGroup; ++g)
          frames[l][b0 + g] = acc[g][l];
    }
  }
};

}  // namespace tellora::audiohash
