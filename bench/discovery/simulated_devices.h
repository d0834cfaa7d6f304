// The devices of the discovery benchmark: simulated rooms whose devices hear
// the room's scene through their own gain, noise, reverb, band-limiting and
// clock error, some of them walking out into another scene.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/discovery/device_fingerprints.h"

namespace tellora::scenes {

struct SimulatedDevice {
  int room = 0;
  double snrDb = 0;
  double startMs = 0;   // when it starts searching
  double changeMs = 0;  // when its scene turns into another one (infinity: never)
  std::vector<Part> parts;
};

struct RoomSet {
  int rooms = 48;
  double seconds = 45;
  uint32_t seed = 7;
};

// The signal-to-noise ratios the rooms take in turn.
inline constexpr double kRoomSnrsDb[] = {20, 10, 5, 0};

std::vector<SimulatedDevice> simulateDevices(const RoomSet& set);

// Synthesising and hashing the rooms takes most of a run; a cache file keeps
// the result for runs over the same set. Resynthesises (and rewrites the file)
// when the file is missing or holds another set.
std::vector<SimulatedDevice> simulateDevicesCached(const RoomSet& set, const std::string& path);

// The devices `copies` times over, each copy of a room a room of its own: the
// bits of its devices' words reordered alike, so that the devices of one room
// still agree as before and different rooms are unrelated. Makes the
// thousands of clients a server meets out of one synthesised set.
std::vector<SimulatedDevice> replicateRooms(const std::vector<SimulatedDevice>& devices,
                                            int copies);

}  // namespace tellora::scenes
