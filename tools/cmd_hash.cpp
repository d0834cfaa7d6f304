// tellora hash: the hash words of one audio file, one word per line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "tools/commands.h"
#include "tools/file_hash.h"

namespace tellora::cli {
namespace {

struct HashOptions {
  std::string path;
  int toggleBits = 0;
  int sampleRate = 8000;
  bool json = false;
};

void printHash(const FileHash& hash, bool json) {
  const auto words = hash.words();
  const auto toggles = hash.toggles();
  for (size_t i = 0; i < words.size(); ++i) {
    if (json) {
      // Hex digits need no escaping inside a JSON string.
      std::printf("{\"index\":%zu,\"word\":\"%08x\"", i, static_cast<unsigned>(words[i]));
      if (!toggles.empty()) std::printf(",\"toggles\":\"%08x\"", static_cast<unsigned>(toggles[i]));
      std::printf("}\n");
    } else if (toggles.empty()) {
      std::printf("%08x\n", static_cast<unsigned>(words[i]));
    } else {
      std::printf("%08x %08x\n", static_cast<unsigned>(words[i]),
                  static_cast<unsigned>(toggles[i]));
    }
  }
}

}  // namespace

void addHashCommand(CLI::App& app) {
  auto options = std::make_shared<HashOptions>();
  CLI::App* command = app.add_subcommand("hash", "Print the audio hash of an audio file");
  command->add_option("FILE", options->path, "Audio file (WAV, FLAC, OGG, ...)")->required();
  command
      ->add_option("-t,--toggles", options->toggleBits,
                   "Number of least reliable bits to mark in each word")
      ->check(CLI::Range(0, 32))
      ->capture_default_str();
  command
      ->add_option("-r,--rate", options->sampleRate, "Sample rate in Hz to resample to and hash at")
      ->check(CLI::Range(1, 2147483647))
      ->capture_default_str();
  command->add_flag("--json", options->json, "One JSON object per word instead of plain text");
  command->footer(
      "The file is mixed to mono and resampled to the rate. Output: one line per hash word,\n"
      "in frame order (one word per 64 samples at 8000 Hz), as 8 lowercase hex digits;\n"
      "with --toggles P > 0 each line also carries the word's toggle mask:\n"
      "  0f3a9c21\n"
      "  0f3a9c21 00010880\n"
      "With --json: {\"index\":0,\"word\":\"0f3a9c21\",\"toggles\":\"00010880\"}");
  command->callback([options] {
    printHash(FileHash::fromFile(options->path, options->sampleRate, options->toggleBits),
              options->json);
  });
}

}  // namespace tellora::cli
