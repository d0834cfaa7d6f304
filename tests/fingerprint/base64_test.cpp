// Base64 and the byte order of the fingerprint's words.
#include "fingerprint/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "fingerprint/part_fingerprint.h"

namespace tellora {
namespace {

std::vector<uint8_t> bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

TEST(Base64, UsesTheStandardAlphabetWithoutLineBreaks) {
  // Every 6-bit value once, in order: the whole alphabet, '+' and '/' last.
  std::vector<uint8_t> bytes;
  for (uint32_t v = 0; v < 64; v += 4) {
    const uint32_t group = (v << 18) | ((v + 1) << 12) | ((v + 2) << 6) | (v + 3);
    for (int shift : {16, 8, 0})
      bytes.push_back(static_cast<uint8_t>(group >> shift));
  }
  EXPECT_EQ(base64Encode(bytes),
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
  EXPECT_EQ(base64Encode(std::vector<uint8_t>(300, 0xFF)), std::string(400, '/'));
}

TEST(Base64, MatchesTheRfc4648TestVectorsBothWays) {
  const std::pair<std::string_view, std::string_view> vectors[] = {{"", ""},
                                                                   {"f", "Zg=="},
                                                                   {"fo", "Zm8="},
                                                                   {"foo", "Zm9v"},
                                                                   {"foob", "Zm9vYg=="},
                                                                   {"fooba", "Zm9vYmE="},
                                                                   {"foobar", "Zm9vYmFy"}};
  for (const auto& [text, encoded] : vectors) {
    EXPECT_EQ(base64Encode(bytesOf(text)), encoded);
    EXPECT_EQ(base64Decode(encoded), bytesOf(text));
  }
  std::vector<uint8_t> every(256);
  for (int v = 0; v < 256; ++v)
    every[v] = static_cast<uint8_t>(v);
  EXPECT_EQ(base64Decode(base64Encode(every)), every);
}

TEST(Base64Decode, RefusesWhatTheEncoderNeverWrites) {
  using namespace std::string_view_literals;
  for (std::string_view bad :
       {"Zg="sv, "Zm9v\nYmFy"sv, "Zm9-"sv /* URL-safe */, "Zm 9"sv, "Zg==Zm9v"sv, "Zm=v"sv,
        "Z==="sv, "===="sv, "Zh=="sv /* bits under the padding */, "Zm9="sv, "Zm\0v"sv,
        "Zm\xC3\xA9"sv})
    EXPECT_FALSE(base64Decode(bad)) << bad;
}

TEST(FingerprintWords, EachWordIsWrittenLeastSignificantByteFirstInOrder) {
  // 01 02 03 04 | 80 00 00 00.
  EXPECT_EQ(fingerprintFromWords(std::vector<uint32_t>{0x04030201u, 0x00000080u}), "AQIDBIAAAAA=");
  EXPECT_EQ(fingerprintFromWords({}), "");
}

}  // namespace
}  // namespace tellora
