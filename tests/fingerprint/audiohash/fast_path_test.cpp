// The fast path (several frames per vector) against the straightforward one:
// energies, words and toggles must be identical to the last bit.
#include <gtest/gtest.h>

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
using tellora::testing::babble;
using tellora::testing::noise;
using tellora::testing::sweep;

void expectSameResult(const hashres& a, const hashres& b) {
  ASSERT_EQ(a.nbframes, b.nbframes);
  ASSERT_EQ(a.nbhashes, b.nbhashes);
  for (int k = 0; k < a.nbframes; ++k)
    ASSERT_EQ(std::memcmp(a.frames[k], b.frames[k], 33 * sizeof(float)), 0) << "frame " << k;
  for (int w = 0; w < a.nbhashes; ++w) {
    ASSERT_EQ(a.hashes[w], b.hashes[w]) << "word " << w;
    if (a.toggles) {
      ASSERT_EQ(a.toggles[w], b.toggles[w]) << "toggles " << w;
    }
  }
}

struct Signal {
  const char* name;
  std::vector<float> samples;
  int sr;
};

std::vector<Signal> signals() {
  return {{"noise", noise(3968, 1), 8000},
          {"babble", babble(3968 * 3, 2, 8000), 8000},
          {"sweep", sweep(5000, 50, 3900, 8000), 8000},
          {"quiet noise", noise(3968, 3, 1e-4f), 8000},
          {"clipped", noise(3968, 4, 4.0f), 8000},
          {"6 kHz", babble(4000, 5, 6000), 6000},
          {"16 kHz", babble(9000, 6, 16000), 16000},
          {"44.1 kHz", sweep(30000, 100, 15000, 44100), 44100}};
}

TEST(FastPath, AudiohashMatchesTheStraightforwardComputation) {
  for (const auto& s : signals()) {
    for (int P : {0, 5}) {
      SCOPED_TRACE(std::string(s.name) + " P=" + std::to_string(P));
      const tellora::testing::Hashed fast(s.samples, P, s.sr);
      hashres ref{};
      ASSERT_EQ(fast.status, 0);
      ASSERT_EQ(referenceAudiohash(s.samples.data(), s.samples.size(), &ref, P, s.sr), 0);
      expectSameResult(fast.res, ref);
      freehash(&ref);
    }
  }
}

// Every lane count and every partial last batch, with each kernel the CPU has.
TEST(FastPath, EachKernelMatchesFrameByFrameForAnyFrameCount) {
  auto tables = tablesForRate(8000);
  ASSERT_TRUE(tables);
  const auto samples = babble(2048 + 64 * 20, 9, 8000);
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
