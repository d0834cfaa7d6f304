// The recent hash words of one client, placed on the server's clock (slot t
// holds the word whose analysis step starts at t * 8 ms of server time), and
// how much two clients' words agree.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace tellora::server {

// Milliseconds of one hash step at 8000 Hz (64 samples).
constexpr double kSlotMs = 8.0;

class WordTimeline {
 public:
  explicit WordTimeline(int32_t capacitySlots);

  // Stores a word; slots more than the capacity behind the newest are forgotten.
  void put(int64_t slot, uint32_t word);
  std::optional<uint32_t> at(int64_t slot) const;
  // Copies slots [from, from + count) into plain arrays, absent words as 0
  // with present[i] = 0: comparisons then run over arrays, not the ring.
  void copyRange(int64_t from, size_t count, uint32_t* words, uint8_t* present) const;
  bool empty() const { return newest_ == kNone; }
  int64_t newestSlot() const { return newest_; }
  int32_t capacity() const { return static_cast<int32_t>(slots_.size()); }

 private:
  static constexpr int64_t kNone = INT64_MIN;
  size_t cell(int64_t slot) const;
  std::vector<int64_t> slots_;  // which slot each cell holds, kNone when empty
  std::vector<uint32_t> words_;
  int64_t newest_ = kNone;
};

// Set bits of a word. The portable build has no popcount instruction, and the
// library call that std::popcount becomes would dominate a comparison.
inline int bitCount(uint32_t x) {
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  x = (x + (x >> 4)) & 0x0F0F0F0Fu;
  return static_cast<int>((x * 0x01010101u) >> 24);
}

// The score of one pair of words: the log-likelihood ratio that they are the
// same moment of the same sound rather than unrelated, from the bits of
// `scoredBits` that differ. Of the words two devices make from one sound, a
// share comes out nearly equal (a few bits apart) and the rest is dominated by
// each device's own noise and as good as unrelated; the mixture gives a word
// with few differing bits a large score and caps what a far-off word costs,
// so that quiet moments in a shared sound dilute the evidence instead of
// cancelling it.
class WordScores {
 public:
  // bitError: share of differing bits in a word both devices heard clearly;
  // clearShare: share of words heard clearly.
  WordScores(double bitError, double clearShare, uint32_t scoredBits = 0xFFFFFFFFu);
  double operator()(uint32_t a, uint32_t b) const { return ofDifference(a ^ b); }
  double ofDifference(uint32_t difference) const {
    return table_[static_cast<size_t>(bitCount(difference & scoredBits_))];
  }
  // The score of k differing scored bits.
  const double* table() const { return table_.data(); }
  uint32_t scoredBits() const { return scoredBits_; }

 private:
  uint32_t scoredBits_;
  std::array<double, 33> table_{};
};

// How well two timelines agree at one shift, or at several together (see
// assessWindow).
struct Agreement {
  double score = 0;           // mean word score at the best shift
  double bitErrorRate = 0.5;  // at the best shift
  int32_t overlap = 0;        // words compared at the best shift; 0: none had minOverlap
  int32_t shift = 0;          // b's slot minus a's slot
};

// True when the words in the window carry information: silence and steady
// tones hash to long runs of equal (often zero) words that any two quiet
// rooms share.
bool isInformative(const WordTimeline& t, int64_t endSlot, int32_t window);

// One pair judged over a window of `window` slots ending at `endSlot` (each
// side copied out once): the agreement at the best of the shifts in
// [fromShift, toShift] (the clock error between the devices); when it
// overlaps by minOverlap, the chance agreement: the same timelines at shifts
// far outside any clock error (+-30 to +-60 slots), what unrelated moments of
// the two sounds share (words of real sound share structure, so unrelated
// moments score above plain noise; hearing the same sound shows as a
// best-shift score clearly above this), over minOverlap / 2; when that
// overlaps too, whether both windows are informative.
struct WindowAssessment {
  Agreement agreement;
  Agreement chance;
  bool informative = false;
};
WindowAssessment assessWindow(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                              int32_t window, int32_t fromShift, int32_t toShift,
                              int32_t minOverlap, const WordScores& scores);

}  // namespace tellora::server
