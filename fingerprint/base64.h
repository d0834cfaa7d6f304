// Standard Base64 (RFC 4648 alphabet, '=' padding, no line breaks).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tellora {

std::string base64Encode(std::span<const uint8_t> bytes);

// The bytes of a canonical encoding as base64Encode writes it; nullopt for
// anything else: characters outside the alphabet, line breaks, a length that
// is not a multiple of 4, misplaced padding, or non-zero bits under the padding.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

}  // namespace tellora
