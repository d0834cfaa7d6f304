// The index that picks candidate pairs: which earlier words an insert meets,
// across the blocks it keeps words in and the ring it reuses for them.
#include "server/matcher/candidate_index.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

using tellora::server::CandidateIndex;
using tellora::server::ClientKey;
using Hits = std::vector<std::pair<ClientKey, int32_t>>;

constexpr uint32_t kMask = 0x003FFFFF;
constexpr int32_t kHorizon = 250, kMaxShift = 18;

Hits insert(CandidateIndex& index, ClientKey client, int64_t slot, uint32_t word) {
  Hits hits;
  index.insert(client, slot, word,
               [&](ClientKey other, int32_t shift) { hits.emplace_back(other, shift); });
  return hits;
}

// Shifts up to +-maxShift meet, whichever blocks the two words fall in and
// on both sides of slot 0; one slot further does not.
TEST(CandidateIndexTest, WordsMeetWithinTheShiftAcrossBlocks) {
  for (int64_t base : {-1000, -33, -1, 0, 31, 32, 63, 5000}) {
    for (int32_t shift : {-19, -18, -5, 0, 1, 17, 18, 19}) {
      CandidateIndex index(kMask, kHorizon, kMaxShift);
      insert(index, 1, base + shift, 0x1234);
      const Hits hits = insert(index, 2, base, 0x1234);
      if (shift < -kMaxShift || shift > kMaxShift) {
        EXPECT_TRUE(hits.empty()) << base << " " << shift;
      } else {
        EXPECT_EQ(hits, (Hits{{1, shift}})) << base << " " << shift;
      }
    }
  }
}

TEST(CandidateIndexTest, OnlyOtherClientsWithTheSameKeyMeet) {
  CandidateIndex index(kMask, kHorizon, kMaxShift);
  insert(index, 1, 100, 0xFF001234);  // bits outside the key do not matter
  insert(index, 2, 100, 0x1235);
  insert(index, 3, 100, 0);  // silence is not indexed
  EXPECT_EQ(insert(index, 1, 101, 0x1234), Hits{});
  EXPECT_EQ(insert(index, 4, 102, 0x00001234), (Hits{{1, -1}, {1, -2}}));
  EXPECT_EQ(insert(index, 5, 100, 0), Hits{});
}

// Words older than the horizon behind the newest are gone, even where they
// share a kept block with younger ones, and a word arriving that late is
// not kept; after a long gap the reused ring holds none of the old words.
TEST(CandidateIndexTest, WordsBehindTheHorizonAreForgotten) {
  CandidateIndex index(kMask, kHorizon, kMaxShift);
  insert(index, 1, 1000, 0x77);
  insert(index, 9, 1000 + kHorizon + 5, 0x99);      // moves the horizon past slot 1000
  EXPECT_EQ(insert(index, 2, 1004, 0x77), Hits{});  // too late itself: not kept
  EXPECT_EQ(insert(index, 3, 1006, 0x77), Hits{});

  insert(index, 1, 2000, 0x55);
  for (int64_t slot = 2001; slot < 2000 + 20 * kHorizon; slot += 7)
    insert(index, 8, slot, 0x66);
  const int64_t lap = 2000 + 20 * kHorizon;
  EXPECT_EQ(insert(index, 2, lap, 0x55), Hits{});
  EXPECT_EQ(insert(index, 3, lap + 1, 0x55), (Hits{{2, -1}}));
}

// A key shared by a crowd of words in one block stops yielding hits: the
// cost of a word stays bounded however many clients hold its key.
TEST(CandidateIndexTest, AKeyCommonToACrowdYieldsBoundedHits) {
  CandidateIndex index(kMask, kHorizon, kMaxShift);
  for (ClientKey client = 1; client <= 1000; ++client)
    insert(index, client, 64, 0x4242);
  const Hits hits = insert(index, 5000, 64, 0x4242);
  EXPECT_GT(hits.size(), 10u);
  EXPECT_LT(hits.size(), 100u);
}

}  // namespace
