// Behaviour of the exported hash and comparison functions: refusals, the
// inputs whose words are known, toggles, the shared tables and the alignment
// search; then the hash against computations it does not share code with: one
// written here from the algorithm's definition (plain loops, a double-precision
// DFT), and the frame-by-frame libkissfft path that every batched kernel must
// match to the bit. Word and frame counts, refusals, the helpers' ranges and
// the whole call against the libkissfft path are also checked on every fuzzer
// input; finding an excerpt is the compare command's test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "fingerprint/audiohash/frame_kernel.h"
#include "fingerprint/audiohash/hash_tables.h"
#include "fingerprint/audiohash/reference_hash.h"
#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/fingerprint/audiohash/test_signals.h"

namespace {

using tellora::testing::babble;
using tellora::testing::Hashed;
using tellora::testing::noise;
using namespace tellora::audiohash;

hashres wordsAsHash(std::vector<uint32_t>& words) {
  hashres r{};
  r.hashes = words.data();
  r.nbhashes = static_cast<int32_t>(words.size());
  r.bitsperword = 32;
  return r;
}

TEST(AudiohashRefusal, BadArgumentsAreRefusedAndLeaveOutputsUntouched) {
  const std::vector<float> samples(4000, 0.1f);
  const float* x = samples.data();
  hashres res;
  std::memset(&res, 0xAB, sizeof res);
  const hashres before = res;
  hashst st;
  inithashst(&st);
  std::vector<uint32_t> shortWords(10, 1), longWords(20, 1);
  const hashres s = wordsAsHash(shortWords), l = wordsAsHash(longWords);
  uint32_t index = 42;
  float conf = 4.2f;
  const std::pair<const char*, std::function<int32_t()>> calls[] = {
      {"null samples", [&] { return audiohash(nullptr, 4000, &res, &st, 0, 8000); }},
      {"null result", [&] { return audiohash(x, 4000, nullptr, &st, 0, 8000); }},
      {"null state", [&] { return audiohash(x, 4000, &res, nullptr, 0, 8000); }},
      {"no samples", [&] { return audiohash(x, 0, &res, &st, 0, 8000); }},
      {"rate 5999", [&] { return audiohash(x, 4000, &res, &st, 0, 5999); }},
      {"P 33", [&] { return audiohash(x, 4000, &res, &st, 33, 8000); }},
      {"null first hash", [&] { return audio_distance_ber(nullptr, &l, 4, &index, &conf, .35f); }},
      {"null second hash", [&] { return audio_distance_ber(&s, nullptr, 4, &index, &conf, .35f); }},
      {"longer first", [&] { return audio_distance_ber(&l, &s, 4, &index, &conf, .35f); }},
      {"block size 0", [&] { return audio_distance_ber(&s, &l, 0, &index, &conf, .35f); }},
      {"null index", [&] { return audio_distance_ber(&s, &l, 4, nullptr, &conf, .35f); }}};
  for (const auto& [what, call] : calls)
    EXPECT_EQ(call(), -1) << what;
  EXPECT_EQ(std::memcmp(&res, &before, sizeof res), 0);
  EXPECT_EQ(st.framelength, 0u);
  EXPECT_EQ(index, 42u);
  EXPECT_EQ(conf, 4.2f);
  freehashst(&st);  // safe after refusals: inithashst cleared the pointers
}

TEST(AudiohashKnownWords, SilenceAndDcGiveZeroWords) {
  for (float level : {0.0f, -0.25f}) {
    Hashed h(std::vector<float>(3968, level));
    ASSERT_EQ(h.status, 0);
    EXPECT_EQ(h.words(), std::vector<uint32_t>(29, 0)) << level;
    // The signed DC bin feeds the lowest band.
    EXPECT_EQ(h.res.frames[0][0] < 0, level < 0) << level;
  }
}

TEST(AudiohashToggles, TheLeastReliableBitsAndNeverTheWords) {
  const auto sound = babble(3968, 11);
  const Hashed plain(sound, 0);
  for (int P : {1, 3, 8, 32}) {
    Hashed h(sound, P);
    ASSERT_EQ(h.status, 0);
    for (int w = 0; w < h.res.nbhashes; ++w) {
      const uint32_t mask = h.res.toggles[w];
      // No kept bit has a smaller rounded-down |difference| than a toggled one.
      double maxToggled = 0, minKept = INFINITY;
      for (int m = 0; m < 32; ++m) {
        const float *next = h.res.frames[w + 2], *prev = h.res.frames[w];
        const double d = std::floor(std::fabs((next[m] - next[m + 1]) - (prev[m] - prev[m + 1])));
        const bool toggled = mask >> (31 - m) & 1u;
        maxToggled = std::max(maxToggled, toggled ? d : 0.0);
        minKept = std::min(minKept, toggled ? INFINITY : d);
      }
      EXPECT_LE(maxToggled, minKept) << "P " << P << " word " << w;
    }
    EXPECT_EQ(h.words(), plain.words());
  }
}

TEST(AudiohashHelpers, SelectionSortIsNotStableAndOffsetsFollowTheRate) {
  float values[3] = {1, 1, 0};
  uint8_t idx[3] = {0, 1, 2};
  sort_barkdiffs(values, idx, 3);
  // The swap moved band 0 behind band 1: a stable sort would give 2, 0, 1.
  EXPECT_EQ(std::vector<float>(values, values + 3), (std::vector<float>{0, 1, 1}));
  EXPECT_EQ(std::vector<int>(idx, idx + 3), (std::vector<int>{2, 1, 0}));
  EXPECT_FLOAT_EQ(get_offset_secs(8000, 125), 1.0f);   // steps of 64
  EXPECT_FLOAT_EQ(get_offset_secs(16000, 125), 1.0f);  // N = 4096: steps of 128, 8 ms too
}

TEST(AudiohashState, TablesAreSharedPerRateAndAStateServesOneCall) {
  const auto samples = babble(3968, 4);
  Hashed a(samples), b(samples);
  EXPECT_EQ(a.st.window, b.st.window);
  EXPECT_EQ(a.st.wts, b.st.wts);
  EXPECT_NE(a.st.mag, b.st.mag);  // scratch is per state
  freehashst(&a.st);
  EXPECT_EQ(Hashed(samples).words(), b.words());  // the tables outlive a freed state

  // A second call on a prepared state runs a degenerate transform.
  hashres again{};
  ASSERT_EQ(audiohash(samples.data(), 3968, &again, &b.st, 0, 8000), 0);
  ASSERT_EQ(again.nbhashes, 29);
  EXPECT_NE(std::vector<uint32_t>(again.hashes, again.hashes + 29), b.words());
  freehash(&again);
}

TEST(AudiohashThreads, ConcurrentCallsMatchSequentialOnes) {
  std::vector<std::vector<float>> inputs;
  std::vector<std::vector<uint32_t>> expected;
  for (uint32_t s = 0; s < 6; ++s) {
    inputs.push_back(babble(8000, s));
    expected.push_back(Hashed(inputs.back()).words());
  }
  std::vector<int> mismatches(inputs.size(), 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < inputs.size(); ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round)
        if (Hashed(inputs[t], 0, round % 2 ? 8000 : 11025).status != 0 ||
            Hashed(inputs[t]).words() != expected[t])
          ++mismatches[t];
    });
  for (auto& th : threads)
    th.join();
  EXPECT_EQ(mismatches, std::vector<int>(inputs.size(), 0));
}

TEST(BlockDistance, WeighsHighBitsMoreAndHonoursToggles) {
  const uint32_t zero[2] = {0, 0}, top[2] = {0x80000000u, 0}, low[2] = {1, 0};
  const uint32_t all[2] = {0xFFFFFFFFu, 0xFFFFFFFFu};
  const struct {
    const uint32_t *a, *toggles, *b;
    float distance;
  } cases[] = {{top, nullptr, top, 0},
               {top, all, zero, 0},
               {top, top, zero, 0},
               {top, nullptr, zero, 32.0f / 64},
               {low, nullptr, zero, 1.0f / 64},
               {all, nullptr, zero, 1}};
  for (const auto& c : cases)
    EXPECT_FLOAT_EQ(ph_compare_blocks(c.a, c.toggles, c.b, 2), c.distance) << c.distance;
}

// The block walk as it is: it stops before the last whole block, and entries
// it never writes keep their initial 0, a perfect match.
TEST(AlignmentSearch, UnvisitedBlocksScoreAsPerfectMatches) {
  std::vector<uint32_t> ones(32, 0xFFFFFFFFu), zeros(32, 0), zeros40(40, 0);
  std::vector<uint32_t> match8(48, 0xFFFFFFFFu);  // zeros40 matches at offset 8
  std::fill(match8.begin() + 8, match8.end(), 0u);
  std::vector<uint32_t> ten(10, 1);
  struct Case {
    const char* what;
    std::vector<uint32_t>*a, *b;
    uint32_t blockSize, index;
    float conf;
  };
  for (const Case& c : {Case{"opposite, one offset", &ones, &zeros, 16, 0, 0.75f},
                        Case{"equal, one offset", &ones, &ones, 16, 0, 1.0f},
                        Case{"stale second block", &zeros40, &match8, 16, 8, 1.0f},
                        Case{"blocks longer than the hash", &ten, &ten, 64, 0xFFFFFFFFu, -1.0f}}) {
    const hashres a = wordsAsHash(*c.a), b = wordsAsHash(*c.b);
    uint32_t index = 7;
    float conf = 0;
    ASSERT_EQ(audio_distance_ber(&a, &b, c.blockSize, &index, &conf, 0.35f), 0) << c.what;
    EXPECT_EQ(index, c.index) << c.what;
    EXPECT_FLOAT_EQ(conf, c.conf) << c.what;
  }
}

const double kCentres[33] = {50,   75,   100,  125,  150,  200,  250,  300,  350,  400,  450,
                             510,  570,  635,  700,  770,  840,  920,  1000, 1085, 1170, 1270,
                             1370, 1485, 1600, 1725, 1850, 2000, 2150, 2325, 2500, 2700, 2900};

// Band energies of every frame at 8000 Hz, all in double.
std::vector<std::vector<double>> energiesInDouble(const std::vector<float>& x) {
  const int N = 2048, A = 64, half = N / 2;
  const int F = static_cast<int>(x.size()) / A - N / A + 1;
  const auto bark = [](double hz) { return 6.0 * std::asinh(hz / 600.0); };
  std::vector<std::vector<double>> weights(33, std::vector<double>(half));
  for (int b = 0; b < 33; ++b)
    for (int j = 0; j < half; ++j) {
      const double u = (bark(j * 4000.0 / half) - bark(kCentres[b])) / 1.06;
      weights[b][j] = std::pow(10.0, std::min(0.0, std::min(-2.5 * (u - 0.5), u + 0.5)));
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
  const size_t n = 2048 + 64 * 14;
  auto sweep = tellora::testaudio::chirp(8000, static_cast<double>(n) / 8000, 80, 3800);
  sweep.resize(n);
  const std::pair<const char*, std::vector<float>> signals[] = {
      {"babble", babble(n, 31)}, {"sweep", sweep}, {"noise", noise(n, 32)}};
  for (const auto& [name, x] : signals) {
    SCOPED_TRACE(name);
    const auto E = energiesInDouble(x);
    const Hashed hashed(x);
    ASSERT_EQ(hashed.res.nbhashes, static_cast<int>(E.size()) - 2);
    int compared = 0;
    for (int w = 0; w < hashed.res.nbhashes; ++w)
      for (int m = 0; m < 32; ++m) {
        const double d = (E[w + 2][m] - E[w + 2][m + 1]) - (E[w][m] - E[w][m + 1]);
        const double scale = std::fabs(E[w + 2][m]) + std::fabs(E[w][m]) + 1e-9;
        if (std::fabs(d) < 1e-4 * scale) continue;  // within float rounding of zero
        ++compared;
        const bool bit = (hashed.res.hashes[w] >> (31 - m)) & 1u;
        EXPECT_EQ(bit, d > 0) << "word " << w << " band pair " << m;
      }
    EXPECT_GT(compared, hashed.res.nbhashes * 30);  // nearly every bit is decided clearly
  }
}

// Every lane count and every partial last batch, with each kernel the CPU has.
TEST(FastPath, EachKernelMatchesFrameByFrameForAnyFrameCount) {
  const auto tables = tablesForRate(8000);
  ASSERT_TRUE(tables);
  const auto samples = babble(2048 + 64 * 20, 9);
  using Kernel = bool (*)(const HashTables&, const float*, int32_t, uint32_t, float* const*);
  std::vector<std::pair<const char*, Kernel>> kernels = {{"generic", computeFrameEnergiesGeneric}};
  if (cpuHasAvx2()) kernels.push_back({"avx2", computeFrameEnergiesAvx2});
  for (int32_t F = 1; F <= 21; ++F) {
    // Frame by frame through libkissfft itself.
    hashres ref{};
    ASSERT_EQ(referenceAudiohash(samples.data(), 2048 + 64 * (F - 1), &ref, 0, 8000), 0);
    for (auto [name, kernel] : kernels) {
      std::vector<std::vector<float>> out(F, std::vector<float>(33, -1.0f));
      std::vector<float*> rows;
      for (auto& r : out)
        rows.push_back(r.data());
      ASSERT_TRUE(kernel(*tables, samples.data(), F, 64, rows.data()));
      for (int k = 0; k < F; ++k)
        ASSERT_EQ(std::memcmp(out[k].data(), ref.frames[k], 33 * 4), 0)
            << name << " F=" << F << " frame " << k;
    }
    freehash(&ref);
  }
}

}  // namespace
