#include "server/matcher/word_timeline.h"

#include <bit>

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

namespace {

// Differing bits and compared words at one shift.
std::pair<int64_t, int32_t> differenceAt(const WordTimeline& a, const WordTimeline& b,
                                         int64_t endSlot, int32_t window, int32_t shift) {
  int64_t differing = 0;
  int32_t overlap = 0;
  for (int64_t t = endSlot - window + 1; t <= endSlot; ++t) {
    const auto wa = a.at(t);
    if (!wa) continue;
    const auto wb = b.at(t + shift);
    if (!wb) continue;
    differing += std::popcount(*wa ^ *wb);
    ++overlap;
  }
  return {differing, overlap};
}

}  // namespace

Agreement compareTimelines(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                           int32_t window, int32_t maxShift, int32_t minOverlap) {
  Agreement best;
  for (int32_t shift = -maxShift; shift <= maxShift; ++shift) {
    const auto [differing, overlap] = differenceAt(a, b, endSlot, window, shift);
    if (overlap < minOverlap) continue;
    const double ber = static_cast<double>(differing) / (32.0 * overlap);
    if (ber < best.bitErrorRate) best = {ber, overlap, shift};
  }
  return best;
}

double chanceBitErrorRate(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                          int32_t window, int32_t minOverlap) {
  int64_t differing = 0, compared = 0;
  for (int32_t shift : {-60, -50, -40, -30, 30, 40, 50, 60}) {
    const auto [d, overlap] = differenceAt(a, b, endSlot, window, shift);
    if (overlap < minOverlap) continue;
    differing += d;
    compared += overlap;
  }
  return compared ? static_cast<double>(differing) / (32.0 * compared) : 0.5;
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
