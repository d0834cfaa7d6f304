// Decides which searching clients hear the same sound. No network code: the
// server feeds it fingerprints and mode changes with the server's time, and
// pushes the found and lost events it returns. docs/matching.md gives the
// rules and where each number comes from.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "server/matcher/candidate_index.h"
#include "server/matcher/word_timeline.h"

namespace tellora::server {

struct MatcherConfig {
  // Comparing two clients' words.
  int32_t windowSlots = 250;         // finding compares at most the last 2 s of words
  int32_t minOverlap = 60;           // fewer aligned words (0.5 s) decide nothing
  int32_t maxShift = 18;             // +-144 ms: two clocks each +-50 ms off, plus propagation
  double clearBitError = 0.10;       // word scores: bits apart in a word both devices heard clearly
  double clearShare = 0.20;          // ...and the share of such words
  uint32_t scoredBits = 0x003FFFFF;  // ...counting the 22 upper-band bits (as the index key)

  // Finding: evidence = (score at the best shift - chance score) * (overlap / 125)^exponent.
  double findEvidence = 3.5;      // unrelated rooms reached 3.1 at most on the benchmark
  double evidenceExponent = 0.3;  // unrelated sounds' evidence shrinks this slowly with overlap

  // Keeping: a nearby pair is watched over its recent words near its shift.
  int32_t nearbyWindowSlots = 100;     // 0.8 s
  int32_t trackShift = 2;              // clocks drift a little after the find
  double keepEvidence = 1.0;           // rarely reached by unrelated sounds, rarely missed by one
  double lostAfterMs = 1000;           // a nearby pair that keeps mismatching this long is lost
  double quietLostAfterMs = 10000;     // a nearby pair with no evidence either way this long
  double nearbyEvaluateEveryMs = 200;  // (candidates are compared at every new part)

  // Candidates: pairs whose words meet in the index at one shift, often.
  int32_t candidateHits = 8;        // hits within +-1 of one shift...
  double candidateWithinMs = 1000;  // ...within this long make a pair a candidate...
  double candidateHoldMs = 2000;    // ...for this long
  uint32_t keyMask = 0x003FFFFF;    // index key: the 22 upper-band bits, the most reliable
  int32_t indexHorizonSlots = 250;  // 2 s: covers the spread of arrival delays

  // Clients.
  double silentAfterMs = 2000;         // a client without fingerprints for this long is lost
  int32_t historySlots = 750;          // 6 s of words kept per client
  double maxFingerprintAgeMs = 10000;  // a part starting longer before now is ignored...
  double maxFingerprintLeadMs = 2000;  // ...and so is one starting this far after now
};

struct MatchEvent {
  enum class Kind { found, lost };
  Kind kind;
  ClientKey a, b;  // a < b
  // The evidence of the last comparison (for found: the one that decided).
  double bitErrorRate = 0.5;
  double chanceBitErrorRate = 0.5;
  int32_t shift = 0;
  double evidence = 0;
};

// One comparison of two clients' recent words.
struct PairAssessment {
  Agreement agreement;  // at the best shift
  Agreement chance;     // at unrelated shifts
  double evidence = 0;
  bool informative = false;
  bool decisive = false;  // enough words overlap to decide either way
};

// Compares the words of a and b up to the newest slot both have: over
// config.windowSlots at every shift, or, for a nearby pair, over
// config.nearbyWindowSlots near its tracked shift.
PairAssessment assessPair(const WordTimeline& a, const WordTimeline& b, const MatcherConfig& config,
                          const WordScores& scores,
                          std::optional<int32_t> trackedShift = std::nullopt);

// One comparison made by the matcher, for tuning and diagnostics.
struct PairComparison {
  ClientKey a, b;  // a < b
  double nowMs;
  PairAssessment assessment;
  double threshold;  // the evidence it needed
  bool nearby;       // before this comparison
  bool match;
};

struct MatcherStats {
  uint64_t indexHits = 0;
  uint64_t evaluations = 0;
};

class Matcher {
 public:
  explicit Matcher(MatcherConfig config = {});

  // Mode 3 makes a client a candidate; any other mode, or leaving, ends its pairs.
  void setSearching(ClientKey client, bool searching, double nowMs);
  // Ends the client's pairs (their lost events come with the next advance).
  void removeClient(ClientKey client, double nowMs);
  // One fingerprint part: its words and its start on the server clock.
  void addFingerprint(ClientKey client, std::span<const uint32_t> words, double stimeMs,
                      double nowMs);
  // Compares the pairs that are due and returns what changed since the last call.
  std::vector<MatchEvent> advance(double nowMs);

  bool areNearby(ClientKey a, ClientKey b) const;
  size_t candidatePairs() const { return pairs_.size(); }
  const MatcherStats& stats() const { return stats_; }
  const MatcherConfig& config() const { return config_; }
  const WordScores& wordScores() const { return scores_; }
  // Called with every comparison (the benchmark's view of the margins).
  void onComparison(std::function<void(const PairComparison&)> observer) {
    observer_ = std::move(observer);
  }

 private:
  static constexpr double kNever = -std::numeric_limits<double>::infinity();
  struct Client {
    explicit Client(int32_t history) : words(history) {}
    WordTimeline words;
    bool searching = false;
    double lastFingerprintMs = kNever;
    uint64_t parts = 0;  // fingerprints received: a pair compares again only after new ones
  };
  struct Hit {
    double atMs = kNever;
    int32_t shift = 0;
  };
  // The latest index hits of two clients: kept for every pair whose words
  // met in the last candidateWithinMs, most of them by chance, so small and
  // swept rather than visited every tick.
  struct HitLog {
    std::array<Hit, 16> hits;  // oldest overwritten
    size_t nextHit = 0;
    double lastHitMs = kNever;
  };
  // A pair the matcher compares: a candidate, or nearby.
  struct Pair {
    double candidateUntilMs = kNever;
    uint64_t comparedPartsA = 0, comparedPartsB = 0;
    double lastEvaluationMs = kNever;
    double lastMatchMs = kNever;
    double mismatchSinceMs = kNever;  // first mismatch since the last match
    bool nearby = false;
    int32_t shift = 0;  // when nearby: the shift it was found at, tracked since
    MatchEvent last{MatchEvent::Kind::found, 0, 0};  // evidence of the last comparison
  };
  struct PairHash {
    size_t operator()(const std::pair<ClientKey, ClientKey>& p) const {
      return std::hash<uint64_t>()(p.first * 0x9E3779B97F4A7C15ull ^ p.second);
    }
  };
  using PairKey = std::pair<ClientKey, ClientKey>;
  static PairKey key(ClientKey a, ClientKey b) { return a < b ? PairKey{a, b} : PairKey{b, a}; }

  void recordHit(const PairKey& k, int32_t shift, double nowMs);
  void sweepHits(double nowMs);
  // Returns false when the pair should be forgotten.
  bool update(const PairKey& k, Pair& p, double nowMs);
  void evaluate(const PairKey& k, Pair& p, const Client& a, const Client& b, double nowMs);
  void report(MatchEvent::Kind kind, const PairKey& k, const Pair& p);

  MatcherConfig config_;
  WordScores scores_;
  std::unordered_map<ClientKey, Client> clients_;
  std::unordered_map<PairKey, Pair, PairHash> pairs_;
  std::unordered_map<PairKey, HitLog, PairHash> hits_;
  double lastHitSweepMs_ = kNever;
  CandidateIndex index_;
  std::vector<MatchEvent> events_;
  MatcherStats stats_;
  std::function<void(const PairComparison&)> observer_;
};

}  // namespace tellora::server
