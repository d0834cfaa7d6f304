#include "server/matcher/candidate_index.h"

namespace tellora::server {

CandidateIndex::CandidateIndex(uint32_t keyMask, int32_t horizonSlots)
    : keyMask_(keyMask), horizonSlots_(horizonSlots) {}

void CandidateIndex::insert(ClientKey client, int64_t slot, uint32_t word, int32_t maxShift,
                            const std::function<void(ClientKey)>& onHit) {
  const uint32_t key = word & keyMask_;
  if (key == 0) return;
  if (newest_ != INT64_MIN && slot < newest_ - horizonSlots_) return;  // too late to matter
  for (auto it = slots_.lower_bound(slot - maxShift);
       it != slots_.end() && it->first <= slot + maxShift; ++it) {
    auto [first, last] = it->second.equal_range(key);
    for (auto m = first; m != last; ++m)
      if (m->second != client) onHit(m->second);
  }
  slots_[slot].emplace(key, client);
  ++entries_;
  if (slot > newest_) {
    newest_ = slot;
    evictBefore(newest_ - horizonSlots_);
  }
}

void CandidateIndex::evictBefore(int64_t slot) {
  while (!slots_.empty() && slots_.begin()->first < slot) {
    entries_ -= slots_.begin()->second.size();
    slots_.erase(slots_.begin());
  }
}

}  // namespace tellora::server
