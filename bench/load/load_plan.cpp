#include "bench/load/load_plan.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace tellora::load {

namespace {

// The next stream, from `from` on, with exactly `size` members; `from` when
// there is none.
size_t streamOfSize(const RoomStreams& streams, size_t from, int size) {
  const auto& all = streams.streams();
  for (size_t i = 0; i < all.size(); ++i) {
    const size_t s = (from + i) % all.size();
    if (std::ssize(all[s].members) == size) return s;
  }
  return from;
}

}  // namespace

LoadPlan makePlan(const RoomStreams& streams, int n, double rampMs, uint32_t seed) {
  std::mt19937 rng(seed);
  const auto& all = streams.streams();
  LoadPlan plan;
  size_t next = 0;
  int placed = 0;
  while (placed < n) {
    const int left = n - placed;
    size_t s = next % all.size();
    int size = static_cast<int>(all[s].members.size());
    // Never leave a single phone for the last room.
    if (left <= 3) {
      s = streamOfSize(streams, s, left);
    } else if (left - size == 1) {
      s = streamOfSize(streams, s, size == 3 ? 2 : 3);
    }
    size = std::min(left, static_cast<int>(all[s].members.size()));
    ++next;
    RoomPlan room;
    room.stream = s;
    room.mask = static_cast<uint32_t>(rng());
    room.startIndex = all[s].first + static_cast<int64_t>(rng() % all[s].length());
    room.firstPhone = placed;
    room.phones = size;
    for (int m = 0; m < size; ++m) {
      PhonePlan phone;
      phone.room = static_cast<int>(plan.rooms.size());
      phone.member = m;
      phone.sendDelayMs = 20 + std::uniform_real_distribution<double>(0, kPartStepMs)(rng);
      plan.phones.push_back(phone);
    }
    plan.rooms.push_back(room);
    placed += size;
  }
  std::vector<int> order(plan.phones.size());
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), rng);
  for (size_t rank = 0; rank < order.size(); ++rank)
    plan.phones[static_cast<size_t>(order[rank])].startMs =
        rampMs * static_cast<double>(rank) / static_cast<double>(order.size());
  return plan;
}

}  // namespace tellora::load
