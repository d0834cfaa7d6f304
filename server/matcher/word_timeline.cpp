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

void WordTimeline::copyRange(int64_t from, size_t count, uint32_t* words, uint8_t* present) const {
  std::fill_n(words, count, 0u);
  std::fill_n(present, count, uint8_t{0});
  if (newest_ == kNone || count == 0) return;
  // Only slots in (newest - capacity, newest] can be held.
  const int64_t low = std::max(from, newest_ - capacity() + 1);
  const int64_t high = std::min(from + static_cast<int64_t>(count) - 1, newest_);
  if (low > high) return;
  size_t c = cell(low);
  for (int64_t slot = low; slot <= high; ++slot) {
    if (slots_[c] == slot) {
      const auto i = static_cast<size_t>(slot - from);
      words[i] = words_[c];
      present[i] = 1;
    }
    if (++c == slots_.size()) c = 0;
  }
}

namespace {

// Slots [first, first + size) of a timeline copied out, so that the
// comparisons at every shift run over plain arrays.
struct Run {
  int64_t first = 0;
  std::vector<uint32_t> words;
  std::vector<uint8_t> present;

  void fill(const WordTimeline& t, int64_t from, int64_t to) {
    first = from;
    const auto size = static_cast<size_t>(std::max<int64_t>(0, to - from + 1));
    words.resize(size);
    present.resize(size);
    t.copyRange(from, size, words.data(), present.data());
  }
};

// The runs of one comparison, kept per thread: comparing allocates nothing
// once the buffers have grown.
struct RunPair {
  Run a, b;
};
RunPair& scratchRuns() {
  thread_local RunPair runs;
  return runs;
}

struct Sums {
  double score = 0;
  int64_t differing = 0;
  int32_t overlap = 0;
};

struct PortableBits {
  static int count(uint32_t x) { return bitCount(x); }
};

template <class Bits, bool kCountDiffering>
[[gnu::always_inline]] inline Sums sumWith(const Run& a, const Run& b, int64_t offset,
                                           const double* table, uint32_t scored) {
  Sums s;
  const uint32_t* bw = b.words.data() + offset;
  const uint8_t* bp = b.present.data() + offset;
  const uint32_t* aw = a.words.data();
  const uint8_t* ap = a.present.data();
  const size_t n = a.words.size();
  for (size_t i = 0; i < n; ++i) {
    if (!(ap[i] & bp[i])) continue;
    const uint32_t difference = aw[i] ^ bw[i];
    s.score += table[Bits::count(difference & scored)];
    if constexpr (kCountDiffering) s.differing += Bits::count(difference);
    ++s.overlap;
  }
  return s;
}

using SumFunction = Sums (*)(const Run&, const Run&, int64_t, const double*, uint32_t);

template <bool kCountDiffering>
Sums sumPortable(const Run& a, const Run& b, int64_t offset, const double* table, uint32_t scored) {
  return sumWith<PortableBits, kCountDiffering>(a, b, offset, table, scored);
}

// Bit counting is most of a comparison: where the processor counts bits in
// one instruction (every x86-64 made since 2008), use it, chosen at run time
// so that the build still runs on the oldest ones.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
struct HardwareBits {
  [[gnu::always_inline]] static int count(uint32_t x) { return __builtin_popcount(x); }
};

template <bool kCountDiffering>
__attribute__((target("popcnt"))) Sums sumHardware(const Run& a, const Run& b, int64_t offset,
                                                   const double* table, uint32_t scored) {
  return sumWith<HardwareBits, kCountDiffering>(a, b, offset, table, scored);
}

template <bool kCountDiffering>
SumFunction pickSum() {
  return __builtin_cpu_supports("popcnt") ? &sumHardware<kCountDiffering>
                                          : &sumPortable<kCountDiffering>;
}
#else
template <bool kCountDiffering>
SumFunction pickSum() {
  return &sumPortable<kCountDiffering>;
}
#endif

// a's run against b's run moved by `shift` slots (b's run must cover it).
// Counting the differing bits as well costs a second count per word: only
// the comparisons that report a bit error rate do.
Sums sumAt(const Run& a, const Run& b, int32_t shift, const WordScores& scores,
           bool countDiffering) {
  static const SumFunction withBits = pickSum<true>(), scoreOnly = pickSum<false>();
  return (countDiffering ? withBits : scoreOnly)(a, b, a.first + shift - b.first, scores.table(),
                                                 scores.scoredBits());
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
constexpr int32_t kChanceReach = 60;

Agreement bestShift(const Run& a, const Run& b, int32_t fromShift, int32_t toShift,
                    int32_t minOverlap, const WordScores& scores) {
  double bestScore = 0;
  int32_t best = 0, bestOverlap = 0;
  for (int32_t shift = fromShift; shift <= toShift; ++shift) {
    const Sums s = sumAt(a, b, shift, scores, false);
    if (s.overlap < std::max(minOverlap, 1)) continue;
    const double score = s.score / s.overlap;
    if (bestOverlap == 0 || score > bestScore) {
      bestScore = score;
      best = shift;
      bestOverlap = s.overlap;
    }
  }
  if (bestOverlap == 0) return {};
  return toAgreement(sumAt(a, b, best, scores, true), best);
}

Agreement chanceOf(const Run& a, const Run& b, int32_t minOverlap, const WordScores& scores) {
  Sums total;
  for (int32_t shift : kChanceShifts) {
    const Sums s = sumAt(a, b, shift, scores, true);
    if (s.overlap < std::max(minOverlap, 1)) continue;
    total.score += s.score;
    total.differing += s.differing;
    total.overlap += s.overlap;
  }
  return total.overlap ? toAgreement(total, 0) : Agreement{};
}

// Whether `count` words from `at` of a run carry information (see isInformative).
bool informative(const Run& run, int64_t at, int32_t count) {
  int32_t present = 0, zero = 0, changes = 0;
  bool havePrevious = false;
  uint32_t previous = 0;
  const auto from = static_cast<size_t>(at - run.first);
  for (size_t i = from; i < from + static_cast<size_t>(count); ++i) {
    if (!run.present[i]) continue;
    const uint32_t w = run.words[i];
    ++present;
    if (w == 0) ++zero;
    if (havePrevious && previous != w) ++changes;
    previous = w;
    havePrevious = true;
  }
  if (present == 0) return false;
  return zero * 5 < present && changes * 2 > present;
}

}  // namespace

bool isInformative(const WordTimeline& t, int64_t endSlot, int32_t window) {
  Run& run = scratchRuns().a;
  run.fill(t, endSlot - window + 1, endSlot);
  return informative(run, run.first, window);
}

WindowAssessment assessWindow(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                              int32_t window, int32_t fromShift, int32_t toShift,
                              int32_t minOverlap, const WordScores& scores) {
  WindowAssessment out;
  const int64_t first = endSlot - window + 1;
  const int32_t reach = std::max({kChanceReach, std::abs(fromShift), std::abs(toShift)});
  // One copy of each side serves the search over the shifts, the chance
  // shifts and both informativeness checks.
  RunPair& runs = scratchRuns();
  runs.a.fill(a, first, endSlot);
  runs.b.fill(b, first - reach, endSlot + reach);
  out.agreement = bestShift(runs.a, runs.b, fromShift, toShift, minOverlap, scores);
  if (out.agreement.overlap < minOverlap) return out;
  out.chance = chanceOf(runs.a, runs.b, minOverlap / 2, scores);
  if (out.chance.overlap == 0) return out;
  out.informative = informative(runs.a, first, window) &&
                    informative(runs.b, first + out.agreement.shift, window);
  return out;
}

}  // namespace tellora::server
