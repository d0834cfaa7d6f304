// Speed of the audio hash on a 10-minute buffer at 8000 Hz, one core, reported
// as "×realtime" (seconds of audio hashed per second of CPU). Before timing, the
// result is checked bit for bit against the straightforward computation.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fingerprint/audiohash/frame_kernel.h"
#include "fingerprint/audiohash/hash_tables.h"
#include "fingerprint/audiohash/reference_hash.h"
#include "fingerprint/audiohash/test_signals.h"
#include "tellora/audiohash.h"

namespace {

constexpr int kRate = 8000;
constexpr double kSeconds = 600.0;

const std::vector<float>& tenMinutes() {
  static const auto samples =
      tellora::testing::babble(static_cast<size_t>(kSeconds * kRate), 2024, kRate);
  return samples;
}

bool sameResult(const hashres& a, const hashres& b) {
  if (a.nbframes != b.nbframes || a.nbhashes != b.nbhashes) return false;
  for (int k = 0; k < a.nbframes; ++k)
    if (std::memcmp(a.frames[k], b.frames[k], 33 * sizeof(float)) != 0) return false;
  return std::memcmp(a.hashes, b.hashes, sizeof(uint32_t) * a.nbhashes) == 0;
}

// Fails the run unless the fast path equals the straightforward one.
void checkBitIdentical() {
  static bool checked = false;
  if (checked) return;
  const auto& x = tenMinutes();
  hashres fast{}, ref{};
  hashst st;
  inithashst(&st);
  if (audiohash(x.data(), x.size(), &fast, &st, 0, kRate) != 0 ||
      tellora::audiohash::referenceAudiohash(x.data(), x.size(), &ref, 0, kRate) != 0 ||
      !sameResult(fast, ref)) {
    std::fprintf(stderr, "audiohash differs from the straightforward computation\n");
    std::exit(1);
  }
  std::printf("check: %d hash words bit-identical to the straightforward computation\n",
              fast.nbhashes);
  freehash(&fast);
  freehash(&ref);
  freehashst(&st);
  checked = true;
}

// Seconds of audio per second of CPU, shown as "×realtime" after each run.
void reportRealtime(benchmark::State& state) {
  state.counters["audio_s"] = benchmark::Counter(kSeconds);
}

class RealtimeReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      auto audio = run.counters.find("audio_s");
      if (audio == run.counters.end() || run.iterations == 0) continue;
      const double cpuSeconds =
          run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      std::printf("  %s: %.0f ×realtime (one core)\n", run.benchmark_name().c_str(),
                  audio->second.value / cpuSeconds);
    }
    std::fflush(stdout);
  }
};

// The whole exported call: fresh state, frames, words, release.
void BM_Audiohash10Minutes(benchmark::State& state) {
  checkBitIdentical();
  const auto& x = tenMinutes();
  for (auto _ : state) {
    hashst st;
    hashres res{};
    inithashst(&st);
    benchmark::DoNotOptimize(audiohash(x.data(), x.size(), &res, &st, 0, kRate));
    freehash(&res);
    freehashst(&st);
  }
  reportRealtime(state);
}
BENCHMARK(BM_Audiohash10Minutes)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// The band-energy kernels alone, per instruction set.
void runKernel(benchmark::State& state, bool avx2) {
  if (avx2 && !tellora::audiohash::cpuHasAvx2()) {
    state.SkipWithError("no AVX2 on this CPU");
    return;
  }
  const auto& x = tenMinutes();
  auto tables = tellora::audiohash::tablesForRate(kRate);
  const int32_t F = static_cast<int32_t>(x.size() / 64 - 31);
  std::vector<float> store(static_cast<size_t>(F) * 33);
  std::vector<float*> frames(F);
  for (int32_t k = 0; k < F; ++k)
    frames[k] = store.data() + static_cast<size_t>(k) * 33;
  for (auto _ : state) {
    if (avx2)
      tellora::audiohash::computeFrameEnergiesAvx2(*tables, x.data(), F, 64, frames.data());
    else
      tellora::audiohash::computeFrameEnergiesGeneric(*tables, x.data(), F, 64, frames.data());
    benchmark::ClobberMemory();
  }
  reportRealtime(state);
}
void BM_EnergiesGeneric(benchmark::State& state) {
  runKernel(state, false);
}
void BM_EnergiesAvx2(benchmark::State& state) {
  runKernel(state, true);
}
BENCHMARK(BM_EnergiesGeneric)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_EnergiesAvx2)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The straightforward computation, for scale.
void BM_Straightforward10Minutes(benchmark::State& state) {
  const auto& x = tenMinutes();
  for (auto _ : state) {
    hashres res{};
    tellora::audiohash::referenceAudiohash(x.data(), x.size(), &res, 0, kRate);
    freehash(&res);
  }
  reportRealtime(state);
}
BENCHMARK(BM_Straightforward10Minutes)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RealtimeReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
