// The fingerprint of one cut part: its items hashed and the words encoded as
// the server expects them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tellora {

// Base64 of the words, each as 4 bytes least significant first, in order.
std::string fingerprintFromWords(std::span<const uint32_t> words);
// The words back (what a server reads); nullopt for text that is not Base64 of
// whole words.
std::optional<std::vector<uint32_t>> wordsFromFingerprint(std::string_view fingerprint);

// Hashes the items at sampleRate with a fresh hash state and no toggles and
// returns fingerprintFromWords of the result. A part too short for one word,
// or one the hash refuses, gives "". Thread-safe: touches nothing shared.
std::string fingerprintOfPart(std::span<const int16_t> items, int32_t sampleRate);

}  // namespace tellora
