// The recent hash words of one client, placed on the server's clock: slot t
// holds the word whose analysis step starts at t * 8 ms of server time.
#pragma once

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

// How well two timelines agree over a window ending at `endSlot`, at the best
// of the shifts within +-maxShift slots (clock error between the devices).
struct Agreement {
  double bitErrorRate = 1.0;  // at the best shift
  int32_t overlap = 0;        // words compared at the best shift
  int32_t shift = 0;          // b's slot minus a's slot
};
Agreement compareTimelines(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                           int32_t window, int32_t maxShift, int32_t minOverlap);

// The bit error rate of the same two timelines at shifts far outside any clock
// error (+-30 to +-60 slots): what unrelated moments of the two sounds share.
// Words of real sound share structure, so this is well below 0.5; hearing the
// same sound shows as a best-shift rate clearly under it. 0.5 when nothing
// overlaps there.
double chanceBitErrorRate(const WordTimeline& a, const WordTimeline& b, int64_t endSlot,
                          int32_t window, int32_t minOverlap);

// True when the words in the window carry information: silence and steady
// tones hash to long runs of equal (often zero) words that any two quiet
// rooms share.
bool isInformative(const WordTimeline& t, int64_t endSlot, int32_t window);

}  // namespace tellora::server
