#include "server/matcher/matcher.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace tellora::server {

namespace {

// Overlap at which evidence is quoted: 1 s of words.
constexpr double kReferenceOverlap = 125;

}  // namespace

PairAssessment assessPair(const WordTimeline& a, const WordTimeline& b, const MatcherConfig& config,
                          const WordScores& scores, std::optional<int32_t> trackedShift) {
  PairAssessment out;
  if (a.empty() || b.empty()) return out;
  const int32_t window = trackedShift ? config.nearbyWindowSlots : config.windowSlots;
  const int32_t minOverlap = std::min(config.minOverlap, window * 6 / 10);
  const int32_t from = trackedShift ? *trackedShift - config.trackShift : -config.maxShift;
  const int32_t to = trackedShift ? *trackedShift + config.trackShift : config.maxShift;
  const int64_t end = std::min(a.newestSlot(), b.newestSlot());
  const WindowAssessment judged = assessWindow(a, b, end, window, from, to, minOverlap, scores);
  out.agreement = judged.agreement;
  out.chance = judged.chance;
  if (out.agreement.overlap < minOverlap || out.chance.overlap == 0) return out;
  out.decisive = true;
  out.informative = judged.informative;
  out.evidence = (out.agreement.score - out.chance.score) *
                 std::pow(out.agreement.overlap / kReferenceOverlap, config.evidenceExponent);
  return out;
}

Matcher::Matcher(MatcherConfig config)
    : config_(config),
      scores_(config.clearBitError, config.clearShare, config.scoredBits),
      index_(config.keyMask, config.indexHorizonSlots, config.maxShift) {}

void Matcher::setSearching(ClientKey client, bool searching, double) {
  auto it = clients_.try_emplace(client, config_.historySlots).first;
  // A return to searching starts from a clean slate: earlier words are stale.
  if (searching && !it->second.searching) it->second.words = WordTimeline(config_.historySlots);
  it->second.searching = searching;
}

void Matcher::removeClient(ClientKey client, double) {
  if (clients_.erase(client) == 0) return;
  for (auto it = pairs_.begin(); it != pairs_.end();) {
    if (it->first.first != client && it->first.second != client) {
      ++it;
      continue;
    }
    if (it->second.nearby) report(MatchEvent::Kind::lost, it->first, it->second);
    it = pairs_.erase(it);
  }
}

void Matcher::addFingerprint(ClientKey client, std::span<const uint32_t> words, double stimeMs,
                             double nowMs) {
  auto it = clients_.find(client);
  if (it == clients_.end() || !it->second.searching || words.empty()) return;
  // A start far from now is a broken clock or a replay; its words would
  // displace the client's real ones.
  if (!std::isfinite(stimeMs) || stimeMs < nowMs - config_.maxFingerprintAgeMs ||
      stimeMs > nowMs + config_.maxFingerprintLeadMs)
    return;
  Client& c = it->second;
  c.lastFingerprintMs = nowMs;
  ++c.parts;
  const int64_t first = std::llround(stimeMs / kSlotMs);
  constexpr size_t kPrefetchAhead = 8;
  for (size_t i = 0; i < words.size(); ++i) {
    const int64_t slot = first + static_cast<int64_t>(i);
    if (i + kPrefetchAhead < words.size())
      index_.prefetch(slot + kPrefetchAhead, words[i + kPrefetchAhead]);
    const auto held = c.words.at(slot);
    c.words.put(slot, words[i]);
    if (held && *held == words[i]) continue;  // already indexed (overlapping parts)
    index_.insert(client, slot, words[i], [&](ClientKey other, int32_t shift) {
      ++stats_.indexHits;
      const PairKey k = key(client, other);
      // Shifts are b's slot minus a's.
      recordHit(k, client == k.first ? shift : -shift, nowMs);
    });
  }
}

void Matcher::recordHit(const PairKey& k, int32_t shift, double nowMs) {
  HitLog& log = hits_[k];
  log.lastHitMs = nowMs;
  // Words of one sound meet at one shift again and again; chance meetings of
  // common keys scatter over the shifts.
  int agreeing = 1;
  for (const Hit& h : log.hits)
    if (nowMs - h.atMs <= config_.candidateWithinMs && std::abs(h.shift - shift) <= 1) ++agreeing;
  log.hits[log.nextHit] = {nowMs, shift};
  log.nextHit = (log.nextHit + 1) % log.hits.size();
  if (agreeing >= config_.candidateHits)
    pairs_[k].candidateUntilMs = nowMs + config_.candidateHoldMs;
}

void Matcher::sweepHits(double nowMs) {
  if (nowMs - lastHitSweepMs_ < config_.candidateWithinMs) return;
  lastHitSweepMs_ = nowMs;
  std::erase_if(hits_, [&](const auto& entry) {
    return nowMs - entry.second.lastHitMs > config_.candidateWithinMs;
  });
}

std::vector<MatchEvent> Matcher::advance(double nowMs) {
  for (auto it = pairs_.begin(); it != pairs_.end();) {
    if (update(it->first, it->second, nowMs))
      ++it;
    else
      it = pairs_.erase(it);
  }
  sweepHits(nowMs);
  return std::exchange(events_, {});
}

bool Matcher::update(const PairKey& k, Pair& p, double nowMs) {
  auto a = clients_.find(k.first), b = clients_.find(k.second);
  const bool bothSearching =
      a != clients_.end() && b != clients_.end() && a->second.searching && b->second.searching;
  const bool bothSending = bothSearching &&
                           nowMs - a->second.lastFingerprintMs < config_.silentAfterMs &&
                           nowMs - b->second.lastFingerprintMs < config_.silentAfterMs;
  if (!bothSending) {
    if (p.nearby) report(MatchEvent::Kind::lost, k, p);
    return false;
  }
  const bool candidate = nowMs <= p.candidateUntilMs;
  if (!p.nearby && !candidate) return false;  // its hits are kept apart until it is again
  const bool newWords = a->second.parts != p.comparedPartsA || b->second.parts != p.comparedPartsB;
  const bool due = !p.nearby || nowMs - p.lastEvaluationMs >= config_.nearbyEvaluateEveryMs;
  if (newWords && due) {
    p.comparedPartsA = a->second.parts;
    p.comparedPartsB = b->second.parts;
    evaluate(k, p, a->second, b->second, nowMs);
  }
  const bool mismatching =
      p.mismatchSinceMs != kNever && nowMs - p.mismatchSinceMs >= config_.lostAfterMs;
  if (p.nearby && (mismatching || nowMs - p.lastMatchMs >= config_.quietLostAfterMs)) {
    p.nearby = false;
    p.mismatchSinceMs = kNever;
    p.candidateUntilMs = kNever;  // found again only on fresh index hits
    report(MatchEvent::Kind::lost, k, p);
  }
  return true;
}

void Matcher::evaluate(const PairKey& k, Pair& p, const Client& a, const Client& b, double nowMs) {
  p.lastEvaluationMs = nowMs;
  ++stats_.evaluations;
  const PairAssessment assessment =
      assessPair(a.words, b.words, config_, scores_,
                 p.nearby ? std::optional<int32_t>(p.shift) : std::nullopt);
  if (!assessment.decisive) return;  // not enough words to decide either way
  const double threshold = p.nearby ? config_.keepEvidence : config_.findEvidence;
  const bool match = assessment.informative && assessment.evidence >= threshold;
  if (observer_) observer_({k.first, k.second, nowMs, assessment, threshold, p.nearby, match});
  if (!assessment.informative) return;  // silence or a steady tone: no evidence either way
  p.last.bitErrorRate = assessment.agreement.bitErrorRate;
  p.last.chanceBitErrorRate = assessment.chance.bitErrorRate;
  p.last.shift = assessment.agreement.shift;
  p.last.evidence = assessment.evidence;
  if (!match) {
    if (p.mismatchSinceMs == kNever) p.mismatchSinceMs = nowMs;
    return;
  }
  p.lastMatchMs = nowMs;
  p.mismatchSinceMs = kNever;
  p.shift = assessment.agreement.shift;
  if (!p.nearby) {
    p.nearby = true;
    report(MatchEvent::Kind::found, k, p);
  }
}

void Matcher::report(MatchEvent::Kind kind, const PairKey& k, const Pair& p) {
  MatchEvent e = p.last;
  e.kind = kind;
  e.a = k.first;
  e.b = k.second;
  events_.push_back(e);
}

bool Matcher::areNearby(ClientKey a, ClientKey b) const {
  auto it = pairs_.find(key(a, b));
  return it != pairs_.end() && it->second.nearby;
}

}  // namespace tellora::server
