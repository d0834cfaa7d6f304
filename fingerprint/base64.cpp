#include "fingerprint/base64.h"

namespace tellora {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The 6-bit value of an alphabet character, -1 for any other byte.
int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

std::string base64Encode(std::span<const uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t group =
        (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    text.push_back(kAlphabet[(group >> 18) & 63]);
    text.push_back(kAlphabet[(group >> 12) & 63]);
    text.push_back(kAlphabet[(group >> 6) & 63]);
    text.push_back(kAlphabet[group & 63]);
  }
  const size_t rest = bytes.size() - i;
  if (rest == 0) return text;
  uint32_t group = uint32_t{bytes[i]} << 16;
  if (rest == 2) group |= uint32_t{bytes[i + 1]} << 8;
  text.push_back(kAlphabet[(group >> 18) & 63]);
  text.push_back(kAlphabet[(group >> 12) & 63]);
  text.push_back(rest == 2 ? kAlphabet[(group >> 6) & 63] : '=');
  text.push_back('=');
  return text;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::vector<uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    // Padding only in the last group: "xx==" or "xxx=".
    const size_t padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
    if (padding == 1 && text[i + 2] == '=') return std::nullopt;
    uint32_t group = 0;
    for (size_t k = 0; k < 4; ++k) {
      const int value = k < 4 - padding ? sextet(text[i + k]) : 0;
      if (value < 0) return std::nullopt;
      group = (group << 6) | static_cast<uint32_t>(value);
    }
    // Bits under the padding must be zero, or two texts would decode alike.
    if ((padding == 1 && (group & 0xFF) != 0) || (padding == 2 && (group & 0xFFFF) != 0))
      return std::nullopt;
    bytes.push_back(static_cast<uint8_t>(group >> 16));
    if (padding < 2) bytes.push_back(static_cast<uint8_t>(group >> 8));
    if (padding < 1) bytes.push_back(static_cast<uint8_t>(group));
  }
  return bytes;
}

}  // namespace tellora
