#include "server/matcher/matcher.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace tellora::server {

Matcher::Matcher(MatcherConfig config)
    : config_(config), index_(config.keyMask, config.historySlots) {}

void Matcher::setSearching(ClientKey client, bool searching, double) {
  auto it = clients_.try_emplace(client, config_.historySlots).first;
  it->second.searching = searching;
}

void Matcher::removeClient(ClientKey client, double nowMs) {
  auto it = clients_.find(client);
  if (it == clients_.end()) return;
  it->second.searching = false;
  advance(nowMs);  // reports the pairs it ends before the client is gone
  clients_.erase(it);
}

void Matcher::addFingerprint(ClientKey client, std::span<const uint32_t> words, double stimeMs,
                             double nowMs) {
  auto it = clients_.find(client);
  if (it == clients_.end() || !it->second.searching || words.empty()) return;
  if (!std::isfinite(stimeMs)) return;
  Client& c = it->second;
  c.lastFingerprintMs = nowMs;
  const int64_t first = std::llround(stimeMs / kSlotMs);
  for (size_t i = 0; i < words.size(); ++i) {
    const int64_t slot = first + static_cast<int64_t>(i);
    const auto held = c.words.at(slot);
    c.words.put(slot, words[i]);
    if (held && *held == words[i]) continue;  // already indexed (overlapping parts)
    index_.insert(client, slot, words[i], config_.maxShift, [&](ClientKey other) {
      ++stats_.indexHits;
      Pair& pair = pairs_[key(client, other)];
      pair.previousHitMs = pair.lastHitMs;
      pair.lastHitMs = nowMs;
    });
  }
}

std::vector<MatchEvent> Matcher::advance(double nowMs) {
  for (auto it = pairs_.begin(); it != pairs_.end();) {
    if (update(it->first, it->second, nowMs))
      ++it;
    else
      it = pairs_.erase(it);
  }
  return std::exchange(events_, {});
}

bool Matcher::update(const PairKey& k, Pair& p, double nowMs) {
  auto a = clients_.find(k.first), b = clients_.find(k.second);
  const bool bothSearching = a != clients_.end() && b != clients_.end() && a->second.searching &&
                             b->second.searching;
  const bool bothSending =
      bothSearching && nowMs - a->second.lastFingerprintMs < config_.silentAfterMs &&
      nowMs - b->second.lastFingerprintMs < config_.silentAfterMs;
  if (!bothSending) {
    if (p.nearby)
      events_.push_back({MatchEvent::Kind::lost, k.first, k.second, p.lastBer, p.lastChance,
                         p.lastShift});
    return false;
  }
  // One chance collision of index keys is not enough to start comparing.
  const bool candidate = nowMs - p.previousHitMs <= config_.candidateMemoryMs;
  if (!p.nearby && !candidate && nowMs - p.lastHitMs > config_.candidateMemoryMs) return false;
  if ((p.nearby || candidate) && nowMs - p.lastEvaluationMs >= config_.evaluateEveryMs)
    evaluate(k, p, a->second, b->second, nowMs);
  const bool mismatching =
      p.mismatchSinceMs != kNever && nowMs - p.mismatchSinceMs >= config_.lostAfterMs;
  if (p.nearby && (mismatching || nowMs - p.lastMatchMs >= config_.quietLostAfterMs)) {
    p.nearby = false;
    p.consecutiveMatches = 0;
    p.mismatchSinceMs = kNever;
    events_.push_back({MatchEvent::Kind::lost, k.first, k.second, p.lastBer, p.lastChance,
                       p.lastShift});
  }
  return true;
}

void Matcher::evaluate(const PairKey& k, Pair& p, const Client& a, const Client& b,
                       double nowMs) {
  p.lastEvaluationMs = nowMs;
  ++stats_.evaluations;
  // Finding takes the longer window (evidence); keeping watches the recent
  // words only, so that a change of scene shows soon.
  const int32_t window = p.nearby ? config_.nearbyWindowSlots : config_.windowSlots;
  const int32_t minOverlap = std::min(config_.minOverlap, window * 8 / 10);
  const int64_t end = std::min(a.words.newestSlot(), b.words.newestSlot());
  const Agreement agreement =
      compareTimelines(a.words, b.words, end, window, config_.maxShift, minOverlap);
  if (agreement.overlap < minOverlap) return;  // not enough to decide either way
  const bool informative = isInformative(a.words, end, window) &&
                           isInformative(b.words, end + agreement.shift, window);
  const double chance = chanceBitErrorRate(a.words, b.words, end, window, minOverlap / 2);
  p.lastBer = agreement.bitErrorRate;
  p.lastChance = chance;
  p.lastShift = agreement.shift;
  const bool match = informative && agreement.bitErrorRate <= config_.matchBer &&
                     chance - agreement.bitErrorRate >= config_.minContrast;
  if (!informative) return;  // silence or a steady tone: no evidence either way
  if (!match) {
    p.consecutiveMatches = 0;
    if (p.mismatchSinceMs == kNever) p.mismatchSinceMs = nowMs;
    return;
  }
  ++p.consecutiveMatches;
  p.lastMatchMs = nowMs;
  p.mismatchSinceMs = kNever;
  const bool strong = agreement.bitErrorRate <= config_.strongMatchBer &&
                      chance - agreement.bitErrorRate >= 2 * config_.minContrast;
  if (!p.nearby && (p.consecutiveMatches >= config_.matchesToFind || strong)) {
    p.nearby = true;
    events_.push_back({MatchEvent::Kind::found, k.first, k.second, p.lastBer, p.lastChance,
                       p.lastShift});
  }
}

bool Matcher::areNearby(ClientKey a, ClientKey b) const {
  auto it = pairs_.find(key(a, b));
  return it != pairs_.end() && it->second.nearby;
}

}  // namespace tellora::server
