// Behaviour of the exported hash functions: refusals, the special inputs
// whose words are known, toggles, and the shared tables. Word and frame counts,
// refusals and the table helpers' ranges are checked on every fuzzer input.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/fingerprint/audiohash/test_signals.h"

namespace {

using tellora::testing::babble;
using tellora::testing::noise;

using tellora::testing::Hashed;

// Refused rates, toggle counts and lengths are checked on every fuzzer input;
// null records it cannot pass.
TEST(AudiohashRefusal, NullArgumentsAreRefusedAndLeaveRecordsUntouched) {
  std::vector<float> samples(4000, 0.1f);
  hashres res;
  hashst st;
  std::memset(&res, 0xAB, sizeof res);
  inithashst(&st);
  const hashres before = res;

  EXPECT_EQ(audiohash(nullptr, 4000, &res, &st, 0, 8000), -1);
  EXPECT_EQ(audiohash(samples.data(), 4000, nullptr, &st, 0, 8000), -1);
  EXPECT_EQ(audiohash(samples.data(), 4000, &res, nullptr, 0, 8000), -1);
  EXPECT_EQ(std::memcmp(&res, &before, sizeof res), 0);
  EXPECT_EQ(st.framelength, 0u);
  freehashst(&st);  // safe after refusals: inithashst cleared the pointers
}

TEST(AudiohashKnownWords, SilenceAndDcGiveZeroWords) {
  Hashed silence(std::vector<float>(3968, 0.0f));
  ASSERT_EQ(silence.status, 0);
  EXPECT_EQ(silence.words(), std::vector<uint32_t>(29, 0));
  for (int k = 0; k < silence.res.nbframes; ++k)
    for (int b = 0; b < 33; ++b)
      EXPECT_EQ(silence.res.frames[k][b], 0.0f);

  Hashed dc(std::vector<float>(3968, -0.25f));
  EXPECT_LT(dc.res.frames[0][0], 0.0f);  // the signed DC bin feeds the lowest band
  EXPECT_EQ(dc.words(), std::vector<uint32_t>(29, 0));
}

// Rounded-down |d| of each bit of word w, from the frame energies the call returns.
std::vector<double> roundedDiffs(const hashres& r, int w) {
  std::vector<double> diffs(32);
  for (int m = 0; m < 32; ++m) {
    const float* next = r.frames[w + 2];
    const float* prev = r.frames[w];
    const float d = (next[m] - next[m + 1]) - (prev[m] - prev[m + 1]);
    diffs[31 - m] = std::floor(std::fabs((double)d));  // indexed by bit position
  }
  return diffs;
}

TEST(AudiohashToggles, TheLeastReliableBitsAndNeverTheWords) {
  const auto scaled = babble(3968, 11, 8000);
  const Hashed plain(scaled, 0);
  for (int P : {1, 3, 8, 32}) {
    Hashed h(scaled, P);
    ASSERT_EQ(h.status, 0);
    ASSERT_EQ(h.res.ntoggles, P);
    for (int w = 0; w < h.res.nbhashes; ++w) {
      const uint32_t mask = h.res.toggles[w];
      EXPECT_EQ(std::popcount(mask), P);
      // No untoggled bit is less reliable than a toggled one.
      const auto diffs = roundedDiffs(h.res, w);
      double maxToggled = 0, minKept = INFINITY;
      for (int bit = 0; bit < 32; ++bit) {
        if (mask >> bit & 1u)
          maxToggled = std::max(maxToggled, diffs[bit]);
        else
          minKept = std::min(minKept, diffs[bit]);
      }
      EXPECT_LE(maxToggled, minKept) << "word " << w;
    }
    EXPECT_EQ(h.words(), plain.words());
  }
}

TEST(AudiohashHelpers, SelectionSortIsNotStable) {
  float values[3] = {1, 1, 0};
  uint8_t idx[3] = {0, 1, 2};
  sort_barkdiffs(values, idx, 3);
  EXPECT_EQ(values[0], 0);
  EXPECT_EQ(values[2], 1);
  // The swap moved band 0 behind band 1: a stable sort would give 2, 0, 1.
  EXPECT_EQ(idx[0], 2);
  EXPECT_EQ(idx[1], 1);
  EXPECT_EQ(idx[2], 0);
}

TEST(AudiohashState, TablesAreSharedPerRateAndOutliveOtherStates) {
  auto samples = noise(3968, 21);
  Hashed a(samples), b(samples);
  ASSERT_EQ(a.status, 0);
  ASSERT_EQ(b.status, 0);
  EXPECT_EQ(a.st.window, b.st.window);
  EXPECT_EQ(a.st.wts, b.st.wts);
  EXPECT_NE(a.st.mag, b.st.mag);  // scratch is per state
  freehashst(&a.st);
  Hashed c(samples);
  EXPECT_EQ(c.words(), b.words());
}

TEST(AudiohashState, ASecondCallOnAPreparedStateDegeneratesTheTransform) {
  auto samples = babble(3968, 4, 8000);
  Hashed fresh(samples);
  hashres again{};
  ASSERT_EQ(audiohash(samples.data(), 3968, &again, &fresh.st, 0, 8000), 0);
  ASSERT_EQ(again.nbhashes, 29);
  EXPECT_NE(std::vector<uint32_t>(again.hashes, again.hashes + 29), fresh.words());
  freehash(&again);
}

TEST(AudiohashThreads, ConcurrentCallsMatchSequentialOnes) {
  std::vector<std::vector<float>> inputs;
  std::vector<std::vector<uint32_t>> expected;
  for (uint32_t s = 0; s < 6; ++s) {
    inputs.push_back(babble(8000, s, 8000));
    expected.push_back(Hashed(inputs.back()).words());
  }
  std::vector<std::thread> threads;
  std::vector<int> mismatches(inputs.size(), 0);
  for (size_t t = 0; t < inputs.size(); ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round)
        if (Hashed(inputs[t], 0, round % 2 ? 8000 : 11025).status != 0 ||
            Hashed(inputs[t]).words() != expected[t])
          ++mismatches[t];
    });
  for (auto& th : threads)
    th.join();
  for (int m : mismatches)
    EXPECT_EQ(m, 0);
}

}  // namespace
