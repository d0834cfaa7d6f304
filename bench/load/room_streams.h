// The sounds the emulated rooms hear: the simulated rooms' fingerprint parts,
// lined up per part index so that every member of a room has a part for every
// index of the room's range.
#pragma once

#include <cstdint>
#include <vector>

#include "bench/discovery/simulated_devices.h"

namespace tellora::load {

// One part every 1856 items at 8000 Hz.
inline constexpr double kPartStepMs = 232;
// A part spans 3968 items.
inline constexpr double kPartSpanMs = 496;

struct StreamPart {
  const std::vector<uint32_t>* words = nullptr;  // null: the hash gave nothing here
  double clockErrorMs = 0;                       // the device's stime error for it
};

struct Stream {
  int64_t first = 0;                             // part index of the first column
  std::vector<std::vector<StreamPart>> members;  // [member][index - first]
  int64_t length() const { return members.empty() ? 0 : std::ssize(members[0]); }
};

class RoomStreams {
 public:
  // Keeps the rooms whose devices stay in the room throughout: a device that
  // walks out would end its pairs in the middle of the measurement.
  explicit RoomStreams(std::vector<scenes::SimulatedDevice> devices);
  // The streams point into the devices held here.
  RoomStreams(const RoomStreams&) = delete;
  RoomStreams& operator=(const RoomStreams&) = delete;

  const std::vector<Stream>& streams() const { return streams_; }

  // Member `member` of a room playing stream `s` under `mask`, at sound index
  // `index` (any value: the stream repeats, with a new mask every cycle so
  // that a repeat never looks like an echo). False when the member has no part
  // there; words gets the masked words.
  bool partAt(size_t s, int member, int64_t index, uint32_t mask, std::vector<uint32_t>& words,
              double& clockErrorMs) const;

 private:
  std::vector<scenes::SimulatedDevice> devices_;
  std::vector<Stream> streams_;
};

}  // namespace tellora::load
