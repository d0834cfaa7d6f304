#include "fingerprint/base64.h"

namespace tellora {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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

}  // namespace tellora
