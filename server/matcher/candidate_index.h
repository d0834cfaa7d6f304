// An index of recent hash words by their most reliable bits, so that the
// matcher compares only clients whose words have met there: the work grows
// with the number of clients that hear similar sound, not with the square of
// all clients.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tellora::server {

using ClientKey = uint64_t;

class CandidateIndex {
 public:
  // keyMask picks the word bits that form the key; horizonSlots is how far
  // behind the newest slot entries are kept. maxShift is the widest shift a
  // lookup asks for.
  CandidateIndex(uint32_t keyMask, int32_t horizonSlots, int32_t maxShift);

  // Records the word of `client` at `slot` and calls onHit(other, shift) for
  // every other client that holds the same key within +-maxShift slots, with
  // the other's slot minus `slot`. Words whose key is 0 (silence, steady
  // sound) are not indexed.
  template <class OnHit>
  void insert(ClientKey client, int64_t slot, uint32_t word, OnHit&& onHit);
  // Starts loading what an insert of this word will read: called a few words
  // ahead, the index's cache misses overlap instead of following each other.
  void prefetch(int64_t slot, uint32_t word) const;

 private:
  // Entries live in blocks of kBlockSlots consecutive slots, each a small
  // chained hash table over flat arrays; a block that falls behind the
  // horizon is reused whole for a newer one, so nothing is allocated or
  // searched to forget old words.
  static constexpr int32_t kBlockSlots = 32;
  static constexpr uint32_t kEnd = UINT32_MAX;
  // A key that this many other words of one block share is as common as a
  // steady sound: its further entries add chance hits, not evidence, and
  // walking them would make every word's cost grow with the clients.
  static constexpr int kCommonKeyEntries = 48;
  struct Entry {
    uint32_t key;
    uint32_t next;  // the previous entry of the same bucket, kEnd for none
    int64_t slot;
    ClientKey client;
  };
  struct Block {
    int64_t number = INT64_MIN;   // slot / kBlockSlots of the slots it holds
    std::vector<uint32_t> heads;  // bucket -> newest entry
    std::vector<Entry> entries;
  };

  static int64_t blockOf(int64_t slot);
  static uint32_t bucketOf(uint32_t key, size_t buckets);
  size_t cellOf(int64_t number) const;
  Block& blockFor(int64_t number);
  void add(Block& block, const Entry& entry);

  uint32_t keyMask_;
  int32_t horizonSlots_;
  int32_t maxShift_;
  int64_t newest_ = INT64_MIN;
  std::vector<Block> ring_;
};

template <class OnHit>
void CandidateIndex::insert(ClientKey client, int64_t slot, uint32_t word, OnHit&& onHit) {
  const uint32_t key = word & keyMask_;
  if (key == 0) return;
  if (newest_ != INT64_MIN && slot < newest_ - horizonSlots_) return;  // too late to matter
  if (slot > newest_) newest_ = slot;
  const int64_t oldest = newest_ - horizonSlots_;  // older entries are as good as gone
  for (int64_t number = blockOf(slot - maxShift_); number <= blockOf(slot + maxShift_); ++number) {
    const Block& block = ring_[cellOf(number)];
    if (block.number != number || block.entries.empty()) continue;
    int sameKey = 0;
    for (uint32_t i = block.heads[bucketOf(key, block.heads.size())];
         i != kEnd && sameKey < kCommonKeyEntries;) {
      const Entry& e = block.entries[i];
      if (e.key == key) {
        ++sameKey;
        if (e.client != client && e.slot >= oldest && e.slot >= slot - maxShift_ &&
            e.slot <= slot + maxShift_)
          onHit(e.client, static_cast<int32_t>(e.slot - slot));
      }
      i = e.next;
    }
  }
  add(blockFor(blockOf(slot)), Entry{key, kEnd, slot, client});
}

}  // namespace tellora::server
