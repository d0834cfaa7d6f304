// Parsing JSON that anyone on the network may have written.
#pragma once

#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tellora::server {

// Arrays and objects nested deeper than this are refused: serialising (and
// destroying) a value recurses once per level, so a frame of a million '['
// must not get that far.
constexpr int kMaxJsonDepth = 32;

// The value, or nullopt for text that is not one JSON value or nests too deep.
// Never throws on bad input.
std::optional<nlohmann::json> parseUntrustedJson(std::string_view text);

// Serialises without throwing: invalid UTF-8 in strings becomes U+FFFD.
std::string dumpJson(const nlohmann::json& value);

// The value as a signed 64-bit integer when it is a JSON integer that fits.
std::optional<int64_t> asInt64(const nlohmann::json& value);

}  // namespace tellora::server
