#include "server/matcher/word_timeline.h"

#include <algorithm>
#include <cmath>

namespace tellora::server {

WordTimeline::WordTimeline(int32_t capacitySlots)
    : slots_(static_cast<size_t>(capacitySlots), kNone),
      words_(static_cast<size_t>(capacitySlots), 0) {}

size_t WordTimeline::cell(int64_t slot) const {
  const auto n = static_cast<int64_t>(slots_.size());
  return static_cast<size_t>(((slot % n) + n) % n);
}

void WordTimeline::put(int64_t slot, uint32_t word) {
  if (newest_ != kNone && slot <= newest_ - capacity()) return;  // too old to keep
  const size_t c = cell(slot);
  slots_[c] = slot;
  words_[c] = word;
  if (newest_ == kNone || slot > newest_) newest_ = slot;
}

std::optional<uint32_t> WordTimeline::at(int64_t slot) const {
  if (newest_ == kNone || slot > newest_ || slot <= newest_ - capacity()) return std::nullopt;
  const size_t c = cell(slot);
  if (slots_[c] != slot) return std::nullopt;
  return words_[c];
}

WordScores::WordScores(double bitError, double clearShare, uint32_t scoredBits)
    : scoredBits_(scoredBits) {
  // Likelihood of k of n bits differing: clearShare * Binomial(n, bitError) +
  // (1 - clearShare) * Binomial(n, 1/2), over Binomial(n, 1/2).
  const int n = bitCount(scoredBits);
  for (int k = 0; k <= n; ++k) {
    const double clear = std::pow(2 * bitError, k) * std::pow(2 * (1 - bitError), n - k);
    table_[static_cast<size_t>(k)] = std::log(clearShare * clear + (1 - clearShare));
  }
}

namespace {

// Slots [first, first + size) of a timeline copied out, absent words marked,
// so that the comparisons at every shift run over plain arrays.
struct Run {
  int64_t first = 0;
  std::vector<uint32_t> words;
  std::vector<uint8_t> present;

  Run(const WordTimeline& t, int64_t from, int64_t to) : first(from) {
    const auto size = static_cast<size_t>(std::max<int64_t>(0, to - from + 1));
    words.resize(size);
    present.resize(size);
    for (size_t i = 0; i < size; ++i) {
      const auto w = t.at(from + static_cast<int64_t>(i));
      present[i] = w.has_value();
      words[i] = w.value_or(0);
    }
  }
};

struct Sums {
  double score = 0;
  int64_t differing = 0;
  int32_t overlap = 0;
};

// a's run against b's run moved by `shift` slots (b's run must cover it).
Sums sumAt(const Run& a, const Run& b, int32_t shift, const WordScores& scores) {
  Sums s;
  const int64_t offset = a.first + shift - b.first;
  for (size_t i = 0; i < a.words.size(); ++i) {
    const auto j = static_cast<size_t>(static_cast<int64_t>(i) + offset);
    if (!a.present[i] || !b.present[j]) continue;
    const uint32_t difference = a.words[i] ^ b.words[j];
    s.score += scores.ofDifference(difference);
    s.differing += bitCount(difference);
    ++s.overlap;
  }
  return s;
}

Agreement toAgreement(const Sums& s, int32_t shift) {
  Agreement out;
  out.score = s.score / s.overlap;
  out.bitErrorRate = static_cast<double>(s.differing) / (32.0 * s.overlap);
  out.overlap = s.overlap;
  out.shift = shift;
  return out;
}

constexpr int32_t kChanceShifts[] = {-60, -50, -40, -30, 30, 40, 50, 60};

}  // namespace

Agreement compareTimelines(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                           int32_t window, int32_t fromShift, int32_t toShift, int32_t minOverlap,
                           const WordScores& scores) {
  const int64_t first = endSlot - window + 1;
  const Run ra(a, first, endSlot), rb(b, first + fromShift, endSlot + toShift);
  Agreement best;
  for (int32_t shift = fromShift; shift <= toShift; ++shift) {
    const Sums s = sumAt(ra, rb, shift, scores);
    if (s.overlap < std::max(minOverlap, 1)) continue;
    const Agreement here = toAgreement(s, shift);
    if (best.overlap == 0 || here.score > best.score) best = here;
  }
  return best;
}

Agreement chanceAgreement(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                          int32_t window, int32_t minOverlap, const WordScores& scores) {
  const int64_t first = endSlot - window + 1;
  const Run ra(a, first, endSlot), rb(b, first - 60, endSlot + 60);
  Sums total;
  for (int32_t shift : kChanceShifts) {
    const Sums s = sumAt(ra, rb, shift, scores);
    if (s.overlap < std::max(minOverlap, 1)) continue;
    total.score += s.score;
    total.differing += s.differing;
    total.overlap += s.overlap;
  }
  return total.overlap ? toAgreement(total, 0) : Agreement{};
}

bool isInformative(const WordTimeline& t, int64_t endSlot, int32_t window) {
  int32_t present = 0, zero = 0, changes = 0;
  std::optional<uint32_t> previous;
  for (int64_t s = endSlot - window + 1; s <= endSlot; ++s) {
    const auto w = t.at(s);
    if (!w) continue;
    ++present;
    if (*w == 0) ++zero;
    if (previous && *previous != *w) ++changes;
    previous = w;
  }
  if (present == 0) return false;
  return zero * 5 < present && changes * 2 > present;
}

}  // namespace tellora::server
