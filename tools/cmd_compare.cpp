// tellora compare: where a short recording sits inside a long one.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "tools/commands.h"
#include "tools/file_hash.h"
#include "tools/input_error.h"

namespace tellora::cli {
namespace {

constexpr int kCompareRate = 8000;
constexpr uint32_t kNoAlignment = 0xFFFFFFFFu;
// The exit status of a comparison that found no match (1 and 2 are errors).
constexpr int kNoMatchStatus = 3;

struct CompareOptions {
  std::string shortPath;
  std::string longPath;
  uint32_t blockSize = 16;
  float threshold = 0.35f;
  // The confidence is 0.5 · (1 + close − far), close and far being the
  // blocks' summed similarity on either side of the threshold. Above 0.5 the
  // close blocks outweigh the far ones; unrelated sound has no close block
  // at all and stays at or below 0.5, whatever it is.
  float minConfidence = 0.5f;
  bool json = false;
};

CLI::Validator unitInterval() {
  return CLI::Validator(
      [](std::string& input) -> std::string {
        float value = 0;
        if (!CLI::detail::lexical_cast(input, value) || !(value >= 0.0f && value <= 1.0f)) {
          return "Value " + input + " is not a number from 0 to 1";
        }
        return {};
      },
      "number from 0 to 1");
}

void compare(const CompareOptions& options) {
  const FileHash shortHash = FileHash::fromFile(options.shortPath, kCompareRate, 0);
  const FileHash longHash = FileHash::fromFile(options.longPath, kCompareRate, 0);
  const size_t shortWords = shortHash.words().size();
  const size_t longWords = longHash.words().size();
  if (shortWords > longWords) {
    throw InputError(options.shortPath + " (" + std::to_string(shortWords) +
                     " hash words) is longer than " + options.longPath + " (" +
                     std::to_string(longWords) + ")");
  }
  // The comparison never scores the last whole block, so one block needs one
  // word more than its size.
  if (shortWords <= options.blockSize) {
    throw InputError(options.shortPath + " is too short for blocks of " +
                     std::to_string(options.blockSize) + " words: " + std::to_string(shortWords) +
                     " hash words, at least " + std::to_string(options.blockSize + 1ull) +
                     " needed");
  }

  uint32_t bestIndex = kNoAlignment;
  float confidence = -1.0f;
  if (audio_distance_ber(&shortHash.result(), &longHash.result(), options.blockSize, &bestIndex,
                         &confidence, options.threshold) != 0) {
    throw InputError("comparing the hashes failed: out of memory");
  }
  if (bestIndex == kNoAlignment || !std::isfinite(confidence)) {
    throw InputError("no alignment of " + options.shortPath + " inside " + options.longPath +
                     " could be scored");
  }
  const double offset = get_offset_secs(kCompareRate, bestIndex);
  const bool match = confidence > options.minConfidence;
  if (options.json) {
    const nlohmann::json verdict = {
        {"offset", std::round(offset * 1000) / 1000},
        {"confidence", std::round(static_cast<double>(confidence) * 10000) / 10000},
        {"match", match}};
    std::printf("%s\n", verdict.dump().c_str());
  } else {
    std::printf("offset %.3f s\n", offset);
    std::printf("confidence %.4f\n", static_cast<double>(confidence));
    std::printf("%s\n", match ? "match" : "no match");
  }
  if (!match) throw CommandExit{kNoMatchStatus};
}

}  // namespace

void addCompareCommand(CLI::App& app) {
  auto options = std::make_shared<CompareOptions>();
  CLI::App* command =
      app.add_subcommand("compare", "Find where a short audio file sits inside a long one");
  command->add_option("SHORT", options->shortPath, "The shorter audio file")->required();
  command->add_option("LONG", options->longPath, "The longer audio file")->required();
  command->add_option("-b,--block-size", options->blockSize, "Hash words per compared block")
      ->check(CLI::Range(1u, 4294967295u))
      ->capture_default_str();
  command
      ->add_option("--threshold", options->threshold,
                   "Block distance up to which a block counts as close")
      ->check(unitInterval())
      ->capture_default_str();
  command
      ->add_option("--min-confidence", options->minConfidence,
                   "Confidence above which the files match (0.5: close blocks outweigh far ones)")
      ->check(unitInterval())
      ->capture_default_str();
  command->add_flag("--json", options->json, "One JSON object instead of plain text");
  command->footer(
      "Both files are mixed to mono and hashed at 8000 Hz. Output, three lines: the start of\n"
      "SHORT inside LONG in seconds (3 decimals; one hash word is 0.008 s), the confidence\n"
      "of that alignment (4 decimals, 0 to 1, higher is better) and the verdict:\n"
      "  offset 1.000 s\n"
      "  confidence 0.9812\n"
      "  match\n"
      "With --json: {\"confidence\":0.9812,\"match\":true,\"offset\":1.0}\n"
      "Exit status: 0 for a match, 3 for no match, 1 or 2 for bad input.");
  command->callback([options] { compare(*options); });
}

}  // namespace tellora::cli
