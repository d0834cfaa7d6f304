#include "server/matcher/candidate_index.h"

#include <algorithm>

namespace tellora::server {

CandidateIndex::CandidateIndex(uint32_t keyMask, int32_t horizonSlots)
    : keyMask_(keyMask), horizonSlots_(horizonSlots) {}

void CandidateIndex::insert(ClientKey client, int64_t slot, uint32_t word, int32_t maxShift,
                            const std::function<void(ClientKey, int32_t)>& onHit) {
  const uint32_t key = word & keyMask_;
  if (key == 0) return;
  if (newest_ != INT64_MIN && slot < newest_ - horizonSlots_) return;  // too late to matter
  auto& entries = byKey_[key];
  for (const Entry& e : entries)
    if (e.client != client && e.slot >= slot - maxShift && e.slot <= slot + maxShift)
      onHit(e.client, static_cast<int32_t>(e.slot - slot));
  entries.push_back({slot, client});
  keysBySlot_[slot].push_back(key);
  ++entries_;
  if (slot > newest_) {
    newest_ = slot;
    evictBefore(newest_ - horizonSlots_);
  }
}

void CandidateIndex::evictBefore(int64_t slot) {
  while (!keysBySlot_.empty() && keysBySlot_.begin()->first < slot) {
    const int64_t old = keysBySlot_.begin()->first;
    for (uint32_t key : keysBySlot_.begin()->second) {
      auto it = byKey_.find(key);
      if (it == byKey_.end()) continue;
      auto& entries = it->second;
      const auto gone = std::remove_if(entries.begin(), entries.end(),
                                       [&](const Entry& e) { return e.slot == old; });
      entries_ -= static_cast<size_t>(entries.end() - gone);
      entries.erase(gone, entries.end());
      if (entries.empty()) byKey_.erase(it);
    }
    keysBySlot_.erase(keysBySlot_.begin());
  }
}

}  // namespace tellora::server
