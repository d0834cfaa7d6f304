#include "fingerprint/part_fingerprint.h"

#include <vector>

#include "fingerprint/base64.h"
#include "fingerprint/pcm.h"
#include "tellora/audiohash.h"

namespace tellora {

std::string fingerprintFromWords(std::span<const uint32_t> words) {
  // Byte order is fixed here rather than taken from the host, so the server
  // reads the same words from every device.
  std::vector<uint8_t> bytes;
  bytes.reserve(words.size() * 4);
  for (const uint32_t word : words) {
    bytes.push_back(static_cast<uint8_t>(word));
    bytes.push_back(static_cast<uint8_t>(word >> 8));
    bytes.push_back(static_cast<uint8_t>(word >> 16));
    bytes.push_back(static_cast<uint8_t>(word >> 24));
  }
  return base64Encode(bytes);
}

std::optional<std::vector<uint32_t>> wordsFromFingerprint(std::string_view fingerprint) {
  const auto bytes = base64Decode(fingerprint);
  if (!bytes || bytes->size() % 4 != 0) return std::nullopt;
  std::vector<uint32_t> words;
  words.reserve(bytes->size() / 4);
  for (size_t i = 0; i < bytes->size(); i += 4) {
    words.push_back(uint32_t{(*bytes)[i]} | uint32_t{(*bytes)[i + 1]} << 8 |
                    uint32_t{(*bytes)[i + 2]} << 16 | uint32_t{(*bytes)[i + 3]} << 24);
  }
  return words;
}

std::string fingerprintOfPart(std::span<const int16_t> items, int32_t sampleRate) {
  std::vector<float> samples(items.size());
  pcmItemsToFloats(items.data(), items.size(), samples.data());

  // A state serves one call (a prepared state would hash with a degenerate
  // transform), so every part gets its own.
  hashst state;
  inithashst(&state);
  hashres result{};
  // The status is not examined: a refused call leaves the result empty, which
  // encodes as "".
  audiohash(samples.data(), static_cast<uint32_t>(samples.size()), &result, &state, 0, sampleRate);
  std::string fingerprint;
  if (result.hashes != nullptr && result.nbhashes > 0) {
    fingerprint = fingerprintFromWords({result.hashes, static_cast<size_t>(result.nbhashes)});
  }
  freehash(&result);
  freehashst(&state);
  return fingerprint;
}

}  // namespace tellora
