// tellora fingerprint: the fingerprints the SDK would send for an audio file,
// cut and hashed by the same pipeline that handles live audio.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "audio/audio_ticks.h"
#include "audio/file/audio_file_reader.h"
#include "audio/recorder.h"
#include "fingerprint/hash_queue.h"
#include "fingerprint/hasher.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "tools/commands.h"
#include "tools/input_error.h"

namespace tellora::cli {
namespace {

constexpr int kRate = 8000;
constexpr double kPartDuration = 0.5;
constexpr uint32_t kBlockItems = 800;  // the recorder's 100 ms blocks
// Blocks fed between waits for the hash queue, so that a long file does not
// queue all its parts (and their copies) at once.
constexpr size_t kBlocksPerBatch = 100;

struct FingerprintOptions {
  std::string path;
  bool json = false;
};

// Time as the file sees it: both clocks stand at the first item of the block
// being fed, zero at the file's first item. The pipeline's wall-clock
// milliseconds are then milliseconds from the start of the file.
class FileClock final : public Clock {
 public:
  void moveTo(uint64_t item) { ticks_.store(ticksForItems(static_cast<double>(item), kRate)); }
  double wallSeconds() override { return convertInMilicec(ticks_.load()) / 1000.0; }
  double monotonicTicks() override { return ticks_.load(); }

 private:
  std::atomic<double> ticks_{0.0};
};

// Installs the file's clock for the lifetime of the object.
class InstalledClock {
 public:
  explicit InstalledClock(Clock& clock) { setClockForTesting(&clock); }
  ~InstalledClock() { setClockForTesting(nullptr); }
  InstalledClock(const InstalledClock&) = delete;
  InstalledClock& operator=(const InstalledClock&) = delete;
};

struct Part {
  double start = 0;
  double end = 0;
  std::string fingerprint;
};

// Collects the parts on the loop, in the order they were cut.
class PartCollector final : public TLRHasherDelegate {
 public:
  void fingerprintGenerated(const std::string& fingerprint, double startTime,
                            double endTime) override {
    parts_.push_back({startTime, endTime, fingerprint});
  }
  std::vector<Part> take() { return std::exchange(parts_, {}); }

 private:
  std::vector<Part> parts_;
};

// Three decimals, never "-0.000" for a value a rounding error below zero.
std::string formatMs(double ms) {
  double rounded = std::round(ms * 1000.0) / 1000.0;
  if (rounded == 0.0) rounded = 0.0;
  char text[64];
  std::snprintf(text, sizeof text, "%.3f", rounded);
  return text;
}

void printParts(const std::vector<Part>& parts, bool json) {
  for (const Part& part : parts) {
    const std::string start = formatMs(part.start);
    const std::string end = formatMs(part.end);
    // Base64 needs no escaping inside a JSON string.
    if (json) {
      std::printf("{\"start\":%s,\"end\":%s,\"fingerprint\":\"%s\"}\n", start.c_str(), end.c_str(),
                  part.fingerprint.c_str());
    } else {
      std::printf("%s %s %s\n", start.c_str(), end.c_str(), part.fingerprint.c_str());
    }
  }
}

void fingerprintFile(const FingerprintOptions& options) {
  auto decoded = audiofile::readAudioFile(options.path, kRate);
  if (auto* error = std::get_if<std::string>(&decoded)) throw InputError(*error);
  const std::vector<int16_t>& items = std::get<audiofile::DecodedAudio>(decoded).items;

  FileClock fileClock;
  const InstalledClock installed(fileClock);
  EventLoop& loop = EventLoop::main();
  const auto collector = std::make_shared<PartCollector>();

  // A recorder that never records: it only lends the hasher its format.
  auto hasher = loop.call([&collector] {
    auto recorder =
        std::make_shared<TLRRecorder>(kRate, [] { return std::unique_ptr<TLRAudioSource>(); });
    auto created = TLRHasher::create(std::move(recorder), kPartDuration);
    created->setDelegate(collector);
    created->setSending(true);
    return created;
  });

  uint64_t offset = 0;
  while (offset < items.size()) {
    loop.call([&] {
      for (size_t block = 0; block < kBlocksPerBatch && offset < items.size(); ++block) {
        const auto count =
            static_cast<uint32_t>(std::min<uint64_t>(kBlockItems, items.size() - offset));
        fileClock.moveTo(offset);
        hasher->audioDataReceived(items.data() + offset, count,
                                  ticksForItems(static_cast<double>(offset), kRate));
        offset += count;
      }
    });
    // Every part cut so far is hashed once the queue drains; its result is
    // then queued on the loop ahead of the call that collects it.
    hashQueue().drain();
    printParts(loop.call([&collector] { return collector->take(); }), options.json);
  }
  loop.call([&hasher] { hasher.reset(); });
}

}  // namespace

void addFingerprintCommand(CLI::App& app) {
  auto options = std::make_shared<FingerprintOptions>();
  CLI::App* command = app.add_subcommand(
      "fingerprint", "Print the fingerprints the SDK would send for an audio file");
  command->add_option("FILE", options->path, "Audio file (WAV, FLAC, OGG, ...)")->required();
  command->add_flag("--json", options->json, "One JSON object per line instead of plain text");
  command->footer(
      "The file is mixed to mono, resampled to 8000 Hz and fed in 100 ms blocks through the\n"
      "SDK's hasher, which cuts a part of 3968 samples (about 0.5 s) whenever a sample no\n"
      "longer fits, every 1856 samples (232 ms) after the first. Output: one line per part,\n"
      "START END FINGERPRINT, the times in milliseconds from the start of the file (END is\n"
      "the first sample that did not fit) and the fingerprint as Base64 of the hash words:\n"
      "  0.000 496.000 q3Jt...AAA=\n"
      "With --json: {\"start\":0.000,\"end\":496.000,\"fingerprint\":\"q3Jt...AAA=\"}\n"
      "A file too short for one part (3969 samples) prints nothing and succeeds.");
  command->callback([options] { fingerprintFile(*options); });
}

}  // namespace tellora::cli
