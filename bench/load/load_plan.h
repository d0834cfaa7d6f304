// Who the emulated phones are: rooms of 2-3 phones, each room playing one of
// the streams under its own mask from its own place, and when each phone
// starts and how late after a part's end it sends it.
#pragma once

#include <cstdint>
#include <vector>

#include "bench/load/room_streams.h"

namespace tellora::load {

struct RoomPlan {
  size_t stream = 0;
  uint32_t mask = 0;       // XORed into every word: rooms on one stream stay unrelated
  int64_t startIndex = 0;  // the stream's part index playing when the round starts
  int firstPhone = 0;
  int phones = 0;
};

struct PhonePlan {
  int room = 0;
  int member = 0;
  double startMs = 0;      // from the round's start: when it connects
  double sendDelayMs = 0;  // from a part's end to its sending (hashing, queueing)
};

struct LoadPlan {
  std::vector<RoomPlan> rooms;
  std::vector<PhonePlan> phones;
};

// n phones in rooms of the streams' sizes; connections spread evenly over
// rampMs in random order so that room members do not start together.
LoadPlan makePlan(const RoomStreams& streams, int n, double rampMs, uint32_t seed);

}  // namespace tellora::load
