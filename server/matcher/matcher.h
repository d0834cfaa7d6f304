// Decides which searching clients hear the same sound. No network code: the
// server feeds it fingerprints and mode changes with the server's time, and
// pushes the found and lost events it returns.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

#include "server/matcher/candidate_index.h"
#include "server/matcher/word_timeline.h"

namespace tellora::server {

struct MatcherConfig {
  int32_t windowSlots = 250;       // words per comparison at most: 2 s
  int32_t nearbyWindowSlots = 100; // a nearby pair is watched over its last 0.8 s
  int32_t minOverlap = 90;         // fewer aligned words decide nothing
  int32_t maxShift = 18;           // +-144 ms: two clocks each +-50 ms off, plus propagation
  double matchBer = 0.32;          // bit error rate of a match at the best shift...
  double minContrast = 0.12;       // ...this far below the rate at unrelated shifts
  int matchesToFind = 2;           // consecutive matches that make a pair nearby...
  double strongMatchBer = 0.24;    // ...unless one is this good
  double lostAfterMs = 1000;       // a nearby pair that keeps mismatching this long is lost
  double quietLostAfterMs = 10000; // a nearby pair with no evidence either way this long
  double evaluateEveryMs = 200;    // how often a candidate or nearby pair is compared
  double candidateMemoryMs = 3000; // a pair is a candidate while its last two index hits are this recent
  double silentAfterMs = 2000;     // a client without fingerprints for this long is lost
  int32_t historySlots = 750;      // 6 s of words kept per client
  uint32_t keyMask = 0x000FFFFF;   // index key: the 20 upper-band bits, the most reliable
};

struct MatchEvent {
  enum class Kind { found, lost };
  Kind kind;
  ClientKey a, b;  // a < b
  // The evidence of the last comparison (for found: the one that decided).
  double bitErrorRate = 1.0;
  double chanceBitErrorRate = 0.5;
  int32_t shift = 0;
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

 private:
  static constexpr double kNever = -std::numeric_limits<double>::infinity();
  struct Client {
    explicit Client(int32_t history) : words(history) {}
    WordTimeline words;
    bool searching = false;
    double lastFingerprintMs = kNever;
  };
  struct Pair {
    double lastHitMs = kNever;
    double previousHitMs = kNever;
    double lastEvaluationMs = kNever;
    double lastMatchMs = kNever;
    double mismatchSinceMs = kNever;  // first mismatch since the last match
    int consecutiveMatches = 0;
    bool nearby = false;
    double lastBer = 1.0, lastChance = 0.5;
    int32_t lastShift = 0;
  };
  struct PairHash {
    size_t operator()(const std::pair<ClientKey, ClientKey>& p) const {
      return std::hash<uint64_t>()(p.first * 0x9E3779B97F4A7C15ull ^ p.second);
    }
  };
  using PairKey = std::pair<ClientKey, ClientKey>;
  static PairKey key(ClientKey a, ClientKey b) { return a < b ? PairKey{a, b} : PairKey{b, a}; }

  // Returns false when the pair should be forgotten.
  bool update(const PairKey& k, Pair& p, double nowMs);
  void evaluate(const PairKey& k, Pair& p, const Client& a, const Client& b, double nowMs);

  MatcherConfig config_;
  std::unordered_map<ClientKey, Client> clients_;
  std::unordered_map<PairKey, Pair, PairHash> pairs_;
  CandidateIndex index_;
  std::vector<MatchEvent> events_;
  MatcherStats stats_;
};

}  // namespace tellora::server
