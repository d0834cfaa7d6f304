// Random tokens and secret comparison for the identities the server issues.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tellora::server {

using Sha256 = std::array<uint8_t, 32>;

// `bytes` bytes from OpenSSL's CSPRNG as lower-case hex; nullopt when the
// generator is not seeded or fails.
std::optional<std::string> randomHexToken(std::size_t bytes);

Sha256 sha256(std::string_view text);

// Compares in time independent of where the digests differ.
bool sameDigest(const Sha256& a, const Sha256& b);

}  // namespace tellora::server
