// Hash comparison: the bit-length distance, offsets and alignment search.
// ph_bitcount itself is checked against the highest set bit by the fuzzer.
#include <gtest/gtest.h>

#include <vector>

#include "tellora/audiohash.h"
#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/fingerprint/audiohash/test_signals.h"

namespace {

hashres wordsAsHash(std::vector<uint32_t>& words, std::vector<uint32_t>* toggles = nullptr) {
  hashres r{};
  r.hashes = words.data();
  r.toggles = toggles ? toggles->data() : nullptr;
  r.nbhashes = static_cast<int32_t>(words.size());
  r.bitsperword = 32;
  return r;
}

TEST(BlockDistance, WeighsHighBitsMoreAndHonoursToggles) {
  const uint32_t zero[2] = {0, 0};
  const uint32_t top[2] = {0x80000000u, 0};
  const uint32_t low[2] = {1, 0};
  const uint32_t all[2] = {0xFFFFFFFFu, 0xFFFFFFFFu};
  EXPECT_EQ(ph_compare_blocks(top, nullptr, top, 2), 0.0f);
  EXPECT_EQ(ph_compare_blocks(top, all, zero, 2), 0.0f);  // every bit toggled: no distance
  EXPECT_FLOAT_EQ(ph_compare_blocks(top, nullptr, zero, 2), 32.0f / 64);
  EXPECT_FLOAT_EQ(ph_compare_blocks(low, nullptr, zero, 2), 1.0f / 64);
  const uint32_t topMask[2] = {0x80000000u, 0};
  EXPECT_EQ(ph_compare_blocks(top, topMask, zero, 2), 0.0f);
  EXPECT_FLOAT_EQ(ph_compare_blocks(all, nullptr, zero, 2), 1.0f);
}

TEST(AlignmentSearch, FindsWhereAnExcerptStartsInTheLongerHash) {
  const auto longer = tellora::testing::babble(8000 * 6, 77, 8000);
  const std::vector<float> excerpt(longer.begin() + 8000, longer.begin() + 8000 * 3);
  tellora::testing::Hashed a(excerpt), b(longer);
  uint32_t index = 0;
  float conf = 0;
  ASSERT_EQ(audio_distance_ber(&a.res, &b.res, 16, &index, &conf, 0.35f), 0);
  EXPECT_EQ(index, 125u);  // 1 s = 8000 samples = 125 steps of 64
  EXPECT_FLOAT_EQ(get_offset_secs(8000, index), 1.0f);
  EXPECT_FLOAT_EQ(get_offset_secs(16000, 125), 1.0f);  // N = 4096: a step of 128 is 8 ms too
  EXPECT_GT(conf, 0.95f);
}

TEST(AlignmentSearch, EqualLengthsHaveOneOffsetAndTheLastBlockIsNeverCompared) {
  // 32 words in blocks of 16: two blocks per alignment, but the walk stops
  // before the last whole block, whose entry keeps its initial 0 (a perfect
  // match). Completely different hashes therefore still score 0.75.
  std::vector<uint32_t> ones(32, 0xFFFFFFFFu), zeros(32, 0);
  hashres a = wordsAsHash(ones), b = wordsAsHash(zeros);
  uint32_t index = 7;
  float conf = 0;
  ASSERT_EQ(audio_distance_ber(&a, &b, 16, &index, &conf, 0.35f), 0);
  EXPECT_EQ(index, 0u);
  EXPECT_FLOAT_EQ(conf, 0.75f);
  ASSERT_EQ(audio_distance_ber(&a, &a, 16, &index, &conf, 0.35f), 0);
  EXPECT_FLOAT_EQ(conf, 1.0f);
}

TEST(AlignmentSearch, StaleBlocksCarryOverBetweenOffsets) {
  // 40 words in blocks of 16: the walk compares one block per alignment, the
  // second entry is never written and stays 0 at every offset.
  std::vector<uint32_t> a_words(40, 0), b_words(48, 0xFFFFFFFFu);
  for (int i = 0; i < 40; ++i)
    b_words[8 + i] = 0;  // a matches b at offset 8
  hashres a = wordsAsHash(a_words), b = wordsAsHash(b_words);
  uint32_t index = 0;
  float conf = 0;
  ASSERT_EQ(audio_distance_ber(&a, &b, 16, &index, &conf, 0.35f), 0);
  EXPECT_EQ(index, 8u);
  EXPECT_FLOAT_EQ(conf, 1.0f);
}

TEST(AlignmentSearch, RefusalsLeaveOutputsUntouchedAndTooLongBlocksScoreNothing) {
  std::vector<uint32_t> shortWords(10, 1), longWords(20, 1);
  hashres s = wordsAsHash(shortWords), l = wordsAsHash(longWords);
  uint32_t index = 42;
  float conf = 4.2f;
  EXPECT_EQ(audio_distance_ber(nullptr, &l, 4, &index, &conf, 0.35f), -1);
  EXPECT_EQ(audio_distance_ber(&s, nullptr, 4, &index, &conf, 0.35f), -1);
  EXPECT_EQ(audio_distance_ber(&l, &s, 4, &index, &conf, 0.35f), -1);  // longer first
  EXPECT_EQ(audio_distance_ber(&s, &l, 0, &index, &conf, 0.35f), -1);
  EXPECT_EQ(audio_distance_ber(&s, &l, 4, nullptr, &conf, 0.35f), -1);
  EXPECT_EQ(index, 42u);
  EXPECT_EQ(conf, 4.2f);

  // Blocks longer than the hash: accepted, but nothing is scored.
  ASSERT_EQ(audio_distance_ber(&s, &s, 64, &index, &conf, 0.35f), 0);
  EXPECT_EQ(index, 0xFFFFFFFFu);
  EXPECT_EQ(conf, -1.0f);
}

}  // namespace
