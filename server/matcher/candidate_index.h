// An index of recent hash words by their most reliable bits, so that the
// matcher compares only clients whose words have met there: the work grows
// with the number of clients that hear similar sound, not with the square of
// all clients.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

namespace tellora::server {

using ClientKey = uint64_t;

class CandidateIndex {
 public:
  // keyMask picks the word bits that form the key; horizonSlots is how far
  // behind the newest slot entries are kept.
  CandidateIndex(uint32_t keyMask, int32_t horizonSlots);

  // Records the word of `client` at `slot` and reports every other client that
  // holds the same key within +-maxShift slots, with the other's slot minus
  // `slot`. Words whose key is 0 (silence, steady sound) are not indexed.
  void insert(ClientKey client, int64_t slot, uint32_t word, int32_t maxShift,
              const std::function<void(ClientKey other, int32_t shift)>& onHit);

  size_t size() const { return entries_; }

 private:
  struct Entry {
    int64_t slot;
    ClientKey client;
  };
  void evictBefore(int64_t slot);

  uint32_t keyMask_;
  int32_t horizonSlots_;
  int64_t newest_ = INT64_MIN;
  size_t entries_ = 0;
  std::unordered_map<uint32_t, std::vector<Entry>> byKey_;
  std::map<int64_t, std::vector<uint32_t>> keysBySlot_;  // what to evict, oldest first
};

}  // namespace tellora::server
