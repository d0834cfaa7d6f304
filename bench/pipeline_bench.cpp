// CPU cost of the whole hasher pipeline per second of audio: 800-item blocks
// handed to the hasher on the SDK's loop as the recorder hands them, parts cut,
// each hashed on "hashQueue" with its own state, encoded as Base64 and carried
// back to the delegate on the loop. Reported as a percentage of one core (CPU
// time of every thread over the audio's duration); the target is below 0.2 %.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "audio/recorder.h"
#include "fingerprint/audiohash/test_signals.h"
#include "fingerprint/hash_queue.h"
#include "fingerprint/hasher.h"
#include "fingerprint/pcm.h"
#include "runtime/event_loop.h"

namespace {

constexpr int kRate = 8000;
constexpr uint32_t kBlockItems = 800;
constexpr double kSeconds = 60.0;
constexpr double kTicksPerItem = 1e9 / kRate;

const std::vector<int16_t>& oneMinute() {
  static const auto items = [] {
    const auto samples = tellora::testing::babble(static_cast<size_t>(kSeconds * kRate), 7, kRate);
    std::vector<int16_t> out(samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
      out[i] = static_cast<int16_t>(std::lround(std::clamp(samples[i], -1.0f, 1.0f) * 32767.0f));
    }
    return out;
  }();
  return items;
}

// Counts on the loop, where fingerprints arrive.
class CountingDelegate final : public tellora::TLRHasherDelegate {
 public:
  void fingerprintGenerated(const std::string& fingerprint, double, double) override {
    ++parts;
    characters += fingerprint.size();
  }
  size_t parts = 0;
  size_t characters = 0;
};

void BM_PipelineOneMinute(benchmark::State& state) {
  auto& loop = tellora::EventLoop::main();
  const auto& items = oneMinute();
  const auto delegate = std::make_shared<CountingDelegate>();
  size_t expectedParts = 0;

  for (auto _ : state) {
    auto hasher = loop.call([&delegate] {
      auto recorder = std::make_shared<tellora::TLRRecorder>(
          kRate, [] { return std::unique_ptr<tellora::TLRAudioSource>(); });
      auto created = tellora::TLRHasher::create(std::move(recorder), 0.5);
      created->setDelegate(delegate);
      created->setSending(true);
      return created;
    });
    loop.call([&delegate] { delegate->parts = 0; });
    // One loop task per block, like the recorder's hand-over from its backend.
    for (size_t offset = 0; offset < items.size(); offset += kBlockItems) {
      loop.post([hasher, block = items.data() + offset, offset] {
        hasher->audioDataReceived(block, kBlockItems, static_cast<double>(offset) * kTicksPerItem);
      });
    }
    loop.drain();                  // every part cut and queued
    tellora::hashQueue().drain();  // every part hashed, its result queued on the loop
    const size_t parts = loop.call([&delegate] { return delegate->parts; });
    if (expectedParts != 0 && parts != expectedParts) {
      state.SkipWithError("parts went missing");
      break;
    }
    expectedParts = parts;
    loop.call([&hasher] { hasher.reset(); });
  }
  state.counters["audio_s"] = benchmark::Counter(kSeconds);
  state.counters["parts"] = benchmark::Counter(static_cast<double>(expectedParts));
}
BENCHMARK(BM_PipelineOneMinute)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->MinTime(3.0);

// Prints the figure that matters: CPU of all threads over audio time.
class CoreShareReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      auto audio = run.counters.find("audio_s");
      if (audio == run.counters.end() || run.iterations == 0 || run.error_occurred) continue;
      const double cpuSeconds =
          run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      const double share = 100.0 * cpuSeconds / audio->second.value;
      std::printf(
          "  %s: %.3f %% of one core per second of audio (%.0f x real time; target < 0.2 %%)\n",
          run.benchmark_name().c_str(), share, audio->second.value / cpuSeconds);
    }
    std::fflush(stdout);
  }
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  CoreShareReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
