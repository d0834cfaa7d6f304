// Base64 and the byte order of the fingerprint's words.
#include "fingerprint/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fingerprint/part_fingerprint.h"

namespace tellora {
namespace {

std::string encode(const std::string& text) {
  return base64Encode(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

TEST(Base64, MatchesTheRfc4648TestVectors) {
  EXPECT_EQ(encode(""), "");
  EXPECT_EQ(encode("f"), "Zg==");
  EXPECT_EQ(encode("fo"), "Zm8=");
  EXPECT_EQ(encode("foo"), "Zm9v");
  EXPECT_EQ(encode("foob"), "Zm9vYg==");
  EXPECT_EQ(encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(encode("foobar"), "Zm9vYmFy");
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

TEST(FingerprintWords, EachWordIsWrittenLeastSignificantByteFirst) {
  // 01 02 03 04 is "AQIDBA==".
  EXPECT_EQ(fingerprintFromWords(std::vector<uint32_t>{0x04030201u}), "AQIDBA==");
  // Words stay in order: 01 02 03 04 | 80 00 00 00.
  EXPECT_EQ(fingerprintFromWords(std::vector<uint32_t>{0x04030201u, 0x00000080u}), "AQIDBIAAAAA=");
  EXPECT_EQ(fingerprintFromWords({}), "");
}

TEST(FingerprintWords, TwentyNineWordsMake156Characters) {
  const std::string text = fingerprintFromWords(std::vector<uint32_t>(29, 0xDEADBEEFu));
  EXPECT_EQ(text.size(), 156u);
  EXPECT_EQ(text.substr(152), "rd4=");
  EXPECT_EQ(text.substr(0, 8), "776t3u++");
}

}  // namespace
}  // namespace tellora
