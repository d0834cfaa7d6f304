#include "server/matcher/candidate_index.h"

#include <algorithm>

namespace tellora::server {

CandidateIndex::CandidateIndex(uint32_t keyMask, int32_t horizonSlots, int32_t maxShift)
    : keyMask_(keyMask),
      horizonSlots_(horizonSlots),
      maxShift_(maxShift),
      // Blocks from the horizon's to the newest's, plus one of slack: the
      // cell of a block is never taken by a newer one while it may be asked.
      ring_(static_cast<size_t>(horizonSlots / kBlockSlots + 3)) {}

int64_t CandidateIndex::blockOf(int64_t slot) {
  // Rounded towards minus infinity; slots may be negative in tests.
  return slot >= 0 ? slot / kBlockSlots : -((-slot + kBlockSlots - 1) / kBlockSlots);
}

uint32_t CandidateIndex::bucketOf(uint32_t key, size_t buckets) {
  return static_cast<uint32_t>((key * 0x9E3779B1u) >> 8) & static_cast<uint32_t>(buckets - 1);
}

void CandidateIndex::prefetch(int64_t slot, uint32_t word) const {
  const uint32_t key = word & keyMask_;
  if (key == 0) return;
  for (int64_t number = blockOf(slot - maxShift_); number <= blockOf(slot + maxShift_); ++number) {
    const Block& block = ring_[cellOf(number)];
    if (block.number == number && !block.heads.empty())
      __builtin_prefetch(&block.heads[bucketOf(key, block.heads.size())]);
  }
}

size_t CandidateIndex::cellOf(int64_t number) const {
  const auto cells = static_cast<int64_t>(ring_.size());
  return static_cast<size_t>(((number % cells) + cells) % cells);
}

CandidateIndex::Block& CandidateIndex::blockFor(int64_t number) {
  Block& block = ring_[cellOf(number)];
  if (block.number != number) {
    block.number = number;
    block.entries.clear();
    std::fill(block.heads.begin(), block.heads.end(), kEnd);
  }
  return block;
}

void CandidateIndex::add(Block& block, const Entry& entry) {
  // Kept at most half full; growing rehashes the block's entries.
  if (block.entries.size() + 1 > block.heads.size() / 2) {
    block.heads.assign(std::max<size_t>(64, block.heads.size() * 2), kEnd);
    for (uint32_t i = 0; i < block.entries.size(); ++i) {
      uint32_t& head = block.heads[bucketOf(block.entries[i].key, block.heads.size())];
      block.entries[i].next = head;
      head = i;
    }
  }
  uint32_t& head = block.heads[bucketOf(entry.key, block.heads.size())];
  block.entries.push_back(entry);
  block.entries.back().next = head;
  head = static_cast<uint32_t>(block.entries.size() - 1);
}

}  // namespace tellora::server
