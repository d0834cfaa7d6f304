// Base64 and the byte order of the fingerprint's words.
#include "fingerprint/base64.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fingerprint/part_fingerprint.h"

namespace tellora {
namespace {

std::string encode(const std::string& text) {
  return base64Encode(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

std::optional<std::string> decode(std::string_view text) {
  const auto bytes = base64Decode(text);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

TEST(Base64, UsesTheStandardAlphabetWithoutLineBreaks) {
  // Every 6-bit value once, in order: the whole alphabet, '+' and '/' last.
  std::vector<uint8_t> bytes;
  for (int v = 0; v < 64; v += 4) {
    const uint32_t group = (v << 18) | ((v + 1) << 12) | ((v + 2) << 6) | (v + 3);
    bytes.push_back(static_cast<uint8_t>(group >> 16));
    bytes.push_back(static_cast<uint8_t>(group >> 8));
    bytes.push_back(static_cast<uint8_t>(group));
  }
  EXPECT_EQ(base64Encode(bytes),
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");

  const std::vector<uint8_t> many(300, 0xFF);
  const std::string long_text = base64Encode(many);
  EXPECT_EQ(long_text.size(), 400u);
  EXPECT_EQ(long_text.find_first_not_of('/'), std::string::npos);
}

TEST(Base64, MatchesTheRfc4648TestVectorsBothWays) {
  const std::string texts[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  const std::string encoded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (size_t i = 0; i < std::size(texts); ++i) {
    EXPECT_EQ(encode(texts[i]), encoded[i]);
    EXPECT_EQ(decode(encoded[i]), texts[i]);
  }
  std::vector<uint8_t> every(256);
  for (int v = 0; v < 256; ++v)
    every[v] = static_cast<uint8_t>(v);
  EXPECT_EQ(base64Decode(base64Encode(every)), every);
}

TEST(Base64Decode, RefusesWhatTheEncoderNeverWrites) {
  EXPECT_FALSE(base64Decode("Zg="));         // length not a multiple of 4
  EXPECT_FALSE(base64Decode("Zm9v\nYmFy"));  // line break
  EXPECT_FALSE(base64Decode("Zm9-"));        // URL-safe alphabet
  EXPECT_FALSE(base64Decode("Zm 9"));
  EXPECT_FALSE(base64Decode("Zg==Zm9v"));  // padding before the end
  EXPECT_FALSE(base64Decode("Zm=v"));      // padding inside a group
  EXPECT_FALSE(base64Decode("Z==="));
  EXPECT_FALSE(base64Decode("===="));
  EXPECT_FALSE(base64Decode("Zh=="));  // non-zero bits under the padding
  EXPECT_FALSE(base64Decode("Zm9="));
  EXPECT_FALSE(base64Decode(std::string_view("Zm\0v", 4)));
  EXPECT_FALSE(base64Decode("Zm\xC3\xA9"));  // bytes beyond ASCII
}

TEST(FingerprintWords, EachWordIsWrittenLeastSignificantByteFirstInOrder) {
  // 01 02 03 04 | 80 00 00 00.
  EXPECT_EQ(fingerprintFromWords(std::vector<uint32_t>{0x04030201u, 0x00000080u}), "AQIDBIAAAAA=");
  EXPECT_EQ(fingerprintFromWords({}), "");
  const std::string part = fingerprintFromWords(std::vector<uint32_t>(29, 0xDEADBEEFu));
  EXPECT_EQ(part.size(), 156u);
  EXPECT_EQ(part.substr(0, 8), "776t3u++");
  EXPECT_EQ(part.substr(152), "rd4=");
}

}  // namespace
}  // namespace tellora
