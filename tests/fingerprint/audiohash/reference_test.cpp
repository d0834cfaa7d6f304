// The hash against computations it does not share code with: one written here
// from the algorithm's definition (plain loops, a double-precision DFT), and
// the frame-by-frame libkissfft path that every batched kernel must match to
// the bit. The whole call against that path runs on every input of the fuzzer.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "fingerprint/audiohash/frame_kernel.h"
#include "fingerprint/audiohash/hash_tables.h"
#include "fingerprint/audiohash/reference_hash.h"
#include "tellora/audiohash.h"
#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/fingerprint/audiohash/test_signals.h"

namespace {

using namespace tellora::audiohash;

const double kCentres[33] = {50,   75,   100,  125,  150,  200,  250,  300,  350,  400,  450,
                             510,  570,  635,  700,  770,  840,  920,  1000, 1085, 1170, 1270,
                             1370, 1485, 1600, 1725, 1850, 2000, 2150, 2325, 2500, 2700, 2900};

double bark(double hz) {
  return 6.0 * std::asinh(hz / 600.0);
}

// Band energies of every frame, all in double.
std::vector<std::vector<double>> energiesInDouble(const std::vector<float>& x, int sr) {
  const int N = 2048, A = 64, half = N / 2;
  const int F = static_cast<int>(x.size()) / A - N / A + 1;
  std::vector<std::vector<double>> weights(33, std::vector<double>(half));
  for (int b = 0; b < 33; ++b)
    for (int j = 0; j < half; ++j) {
      const double u = (bark(j * (sr / 2.0) / half) - bark(kCentres[b])) / 1.06;
      const double e = std::min(0.0, std::min(-2.5 * (u - 0.5), u + 0.5));
      weights[b][j] = std::pow(10.0, e);
    }
  std::vector<double> cosTable(N), sinTable(N);
  for (int n = 0; n < N; ++n) {
    cosTable[n] = std::cos(2 * M_PI * n / N);
    sinTable[n] = std::sin(2 * M_PI * n / N);
  }
  std::vector<std::vector<double>> energies(F, std::vector<double>(33, 0.0));
  std::vector<double> frame(N), mag(half);
  for (int k = 0; k < F; ++k) {
    for (int n = 0; n < N; ++n)
      frame[n] = (0.54 - 0.46 * std::cos(2 * M_PI * n / (N - 1))) * x[k * A + n];
    for (int j = 0; j < half; ++j) {
      double re = 0, im = 0;
      for (int n = 0; n < N; ++n) {
        const int phase = static_cast<int>((static_cast<long>(j) * n) % N);
        re += frame[n] * cosTable[phase];
        im -= frame[n] * sinTable[phase];
      }
      mag[j] = 2 * std::hypot(re, im);  // the hash works on twice the DFT
    }
    double dc = 0, nyquist = 0;
    for (int n = 0; n < N; ++n) {
      dc += frame[n];
      nyquist += (n % 2 ? -frame[n] : frame[n]);
    }
    mag[0] = 2 * dc;    // signed
    mag[half - 2] = 0;  // the bin the hash never fills
    mag[half - 1] = 2 * nyquist;
    for (int b = 0; b < 33; ++b)
      for (int j = 0; j < half; ++j)
        energies[k][b] += weights[b][j] * mag[j];
  }
  return energies;
}

// The two round differently, so a bit may differ only where its difference is
// within rounding noise of zero.
TEST(IndependentComputation, WordsAgreeWhereverTheDifferenceIsClearOfRounding) {
  const std::vector<std::pair<const char*, std::vector<float>>> signals = {
      {"babble", tellora::testing::babble(2048 + 64 * 14, 31, 8000)},
      {"sweep", tellora::testing::sweep(2048 + 64 * 14, 80, 3800, 8000)},
      {"noise", tellora::testing::noise(2048 + 64 * 14, 32)}};
  for (const auto& [name, x] : signals) {
    SCOPED_TRACE(name);
    const auto E = energiesInDouble(x, 8000);
    const tellora::testing::Hashed hashed(x);
    ASSERT_EQ(hashed.status, 0);
    const hashres& res = hashed.res;
    ASSERT_EQ(res.nbhashes, static_cast<int>(E.size()) - 2);
    int compared = 0;
    for (int w = 0; w < res.nbhashes; ++w) {
      for (int m = 0; m < 32; ++m) {
        const double d = (E[w + 2][m] - E[w + 2][m + 1]) - (E[w][m] - E[w][m + 1]);
        const double scale = std::fabs(E[w + 2][m]) + std::fabs(E[w][m]) + 1e-9;
        if (std::fabs(d) < 1e-4 * scale) continue;  // within float rounding of zero
        ++compared;
        const bool bit = (res.hashes[w] >> (31 - m)) & 1u;
        EXPECT_EQ(bit, d > 0) << "word " << w << " band pair " << m;
      }
    }
    EXPECT_GT(compared, res.nbhashes * 30);  // nearly every bit is decided clearly
  }
}

// Every lane count and every partial last batch, with each kernel the CPU has.
TEST(FastPath, EachKernelMatchesFrameByFrameForAnyFrameCount) {
  auto tables = tablesForRate(8000);
  ASSERT_TRUE(tables);
  const auto samples = tellora::testing::babble(2048 + 64 * 20, 9, 8000);
  for (int32_t F = 1; F <= 21; ++F) {
    std::vector<std::vector<float>> expected(F, std::vector<float>(33));
    {
      // Frame by frame through libkissfft itself.
      hashres ref{};
      ASSERT_EQ(referenceAudiohash(samples.data(), 2048 + 64 * (F - 1), &ref, 0, 8000), 0);
      for (int k = 0; k < F; ++k)
        std::memcpy(expected[k].data(), ref.frames[k], 33 * 4);
      freehash(&ref);
    }
    using Kernel = bool (*)(const HashTables&, const float*, int32_t, uint32_t, float* const*);
    std::vector<std::pair<const char*, Kernel>> kernels = {
        {"generic", computeFrameEnergiesGeneric}};
    if (cpuHasAvx2()) kernels.push_back({"avx2", computeFrameEnergiesAvx2});
    for (auto [name, kernel] : kernels) {
      std::vector<std::vector<float>> out(F, std::vector<float>(33, -1.0f));
      std::vector<float*> rows;
      for (auto& r : out)
        rows.push_back(r.data());
      ASSERT_TRUE(kernel(*tables, samples.data(), F, 64, rows.data()));
      for (int k = 0; k < F; ++k)
        ASSERT_EQ(std::memcmp(out[k].data(), expected[k].data(), 33 * 4), 0)
            << name << " F=" << F << " frame " << k;
    }
  }
}

}  // namespace
