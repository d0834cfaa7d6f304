#include "bench/load/room_streams.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace tellora::load {

RoomStreams::RoomStreams(std::vector<scenes::SimulatedDevice> devices)
    : devices_(std::move(devices)) {
  std::map<int, std::vector<const scenes::SimulatedDevice*>> rooms;
  for (const auto& d : devices_)
    rooms[d.room].push_back(&d);
  for (const auto& [room, members] : rooms) {
    if (members.size() < 2) continue;
    const bool walks = std::any_of(members.begin(), members.end(),
                                   [](const auto* d) { return std::isfinite(d->changeMs); });
    if (walks) continue;
    // Parts carry their device's clock error (within +-50 ms), well inside
    // half a step, so rounding recovers the index.
    const auto indexOf = [](const scenes::Part& p) {
      return static_cast<int64_t>(std::lround(p.stimeMs / kPartStepMs));
    };
    int64_t lo = INT64_MIN, hi = INT64_MAX;
    for (const auto* d : members) {
      if (d->parts.empty()) {
        hi = lo;
        break;
      }
      lo = std::max(lo, indexOf(d->parts.front()));
      hi = std::min(hi, indexOf(d->parts.back()));
    }
    if (hi - lo < 20) continue;
    Stream s;
    s.first = lo;
    for (const auto* d : members) {
      std::vector<StreamPart> column(static_cast<size_t>(hi - lo + 1));
      for (const auto& p : d->parts) {
        const int64_t i = indexOf(p);
        if (i < lo || i > hi) continue;
        column[static_cast<size_t>(i - lo)] = {&p.words, p.stimeMs - i * kPartStepMs};
      }
      s.members.push_back(std::move(column));
    }
    streams_.push_back(std::move(s));
  }
}

bool RoomStreams::partAt(size_t s, int member, int64_t index, uint32_t mask,
                         std::vector<uint32_t>& words, double& clockErrorMs) const {
  const Stream& stream = streams_[s];
  const int64_t length = stream.length();
  int64_t offset = (index - stream.first) % length;
  if (offset < 0) offset += length;
  const int64_t cycle = (index - stream.first - offset) / length;
  const StreamPart& part = stream.members[static_cast<size_t>(member)][static_cast<size_t>(offset)];
  if (part.words == nullptr) return false;
  const uint32_t cycleMask = mask ^ static_cast<uint32_t>(cycle * 0x9E3779B9u);
  words.resize(part.words->size());
  std::transform(part.words->begin(), part.words->end(), words.begin(),
                 [cycleMask](uint32_t w) { return w ^ cycleMask; });
  clockErrorMs = part.clockErrorMs;
  return true;
}

}  // namespace tellora::load
