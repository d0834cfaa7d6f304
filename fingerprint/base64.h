// Standard Base64 (RFC 4648 alphabet, '=' padding, no line breaks).
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tellora {

std::string base64Encode(std::span<const uint8_t> bytes);

}  // namespace tellora
