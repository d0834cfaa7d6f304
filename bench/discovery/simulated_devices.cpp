#include "bench/discovery/simulated_devices.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <numeric>
#include <random>

#include "tools/scenes/scene_audio.h"

namespace tellora::scenes {

std::vector<SimulatedDevice> simulateDevices(const RoomSet& set) {
  std::seed_seq spread{set.seed, 0x2545F491u};
  std::mt19937 rng(spread);
  std::vector<SimulatedDevice> devices;
  for (int r = 0; r < set.rooms; ++r) {
    const double snr = kRoomSnrsDb[r % std::size(kRoomSnrsDb)];
    // Every room, and the place a device walks to, has talkers of its own.
    const uint32_t seed = set.seed * 1000 + r;
    const Room room =
        makeRoom(seed, set.seconds, {randomTalker(seed, 4), randomTalker(seed + 77, 4)});
    const Room elsewhere = makeRoom(seed + 500, set.seconds,
                                    {randomTalker(seed + 500, 4), randomTalker(seed + 577, 4)});
    const int count = 2 + static_cast<int>(rng() % 2);
    for (int d = 0; d < count; ++d) {
      SimulatedDevice dev;
      dev.room = r;
      dev.snrDb = snr;
      dev.startMs = rng() % 3000;
      // In every other group of four rooms (one of each SNR) the first device walks
      // out two thirds of the way in.
      dev.changeMs = (d == 0 && (r / 4) % 2 == 0) ? set.seconds * 1000 * 2 / 3 : INFINITY;
      Signal scene = room.scene;
      if (std::isfinite(dev.changeMs)) {
        const size_t from = static_cast<size_t>(dev.changeMs * kRate / 1000);
        std::copy(elsewhere.scene.begin() + from, elsewhere.scene.end(), scene.begin() + from);
      }
      DeviceChannel ch;
      ch.gain = 0.3 + (rng() % 100) / 100.0;
      ch.snrDb = snr;
      ch.reverb = (rng() % 50) / 100.0;
      ch.delayMs = 2 + rng() % 40;
      ch.bandLimited = rng() % 4 != 0;
      ch.seed = rng();
      const double clockError = static_cast<double>(rng() % 101) - 50.0;
      const double latency = 30 + rng() % 120;
      // The first part reaches the server about half a second after the start.
      for (auto& p : fingerprintParts(toItems(hear(scene, ch)), clockError, latency))
        if (p.arrivalMs >= dev.startMs + 500) dev.parts.push_back(std::move(p));
      devices.push_back(std::move(dev));
    }
  }
  return devices;
}

namespace {

constexpr uint32_t kCacheMagic = 0x544C4443;  // "TLDC"
constexpr uint32_t kCacheVersion = 1;

template <typename T>
void put(std::FILE* f, const T& v) {
  std::fwrite(&v, sizeof v, 1, f);
}

template <typename T>
bool get(std::FILE* f, T& v) {
  return std::fread(&v, sizeof v, 1, f) == 1;
}

bool load(const std::string& path, const RoomSet& set, std::vector<SimulatedDevice>& devices) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  uint32_t magic = 0, version = 0, seed = 0, deviceCount = 0;
  int rooms = 0;
  double seconds = 0;
  bool ok = get(f, magic) && get(f, version) && get(f, rooms) && get(f, seconds) && get(f, seed) &&
            get(f, deviceCount) && magic == kCacheMagic && version == kCacheVersion &&
            rooms == set.rooms && seconds == set.seconds && seed == set.seed &&
            deviceCount < 100000;
  for (uint32_t d = 0; ok && d < deviceCount; ++d) {
    SimulatedDevice dev;
    uint32_t partCount = 0;
    ok = get(f, dev.room) && get(f, dev.snrDb) && get(f, dev.startMs) && get(f, dev.changeMs) &&
         get(f, partCount) && partCount < 1000000;
    for (uint32_t p = 0; ok && p < partCount; ++p) {
      Part part;
      uint32_t words = 0;
      ok = get(f, part.stimeMs) && get(f, part.arrivalMs) && get(f, words) && words < 4096;
      if (!ok) break;
      part.words.resize(words);
      ok = std::fread(part.words.data(), sizeof(uint32_t), words, f) == words;
      dev.parts.push_back(std::move(part));
    }
    devices.push_back(std::move(dev));
  }
  std::fclose(f);
  if (!ok) devices.clear();
  return ok;
}

void save(const std::string& path, const RoomSet& set,
          const std::vector<SimulatedDevice>& devices) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return;
  put(f, kCacheMagic);
  put(f, kCacheVersion);
  put(f, set.rooms);
  put(f, set.seconds);
  put(f, set.seed);
  put(f, static_cast<uint32_t>(devices.size()));
  for (const auto& dev : devices) {
    put(f, dev.room);
    put(f, dev.snrDb);
    put(f, dev.startMs);
    put(f, dev.changeMs);
    put(f, static_cast<uint32_t>(dev.parts.size()));
    for (const auto& part : dev.parts) {
      put(f, part.stimeMs);
      put(f, part.arrivalMs);
      put(f, static_cast<uint32_t>(part.words.size()));
      std::fwrite(part.words.data(), sizeof(uint32_t), part.words.size(), f);
    }
  }
  std::fclose(f);
}

}  // namespace

std::vector<SimulatedDevice> simulateDevicesCached(const RoomSet& set, const std::string& path) {
  std::vector<SimulatedDevice> devices;
  if (load(path, set, devices)) return devices;
  devices = simulateDevices(set);
  save(path, set, devices);
  return devices;
}

namespace {

// A random reordering of the word's bits that keeps the lower 22 (the bands
// the matcher scores and indexes) among themselves. Unlike a XOR mask, it
// keeps silence silent, and two copies of one sound do not differ by one
// constant word that may happen to have few bits set.
std::array<int, 32> shuffledBits(std::mt19937& rng) {
  std::array<int, 32> to{};
  std::iota(to.begin(), to.end(), 0);
  std::shuffle(to.begin(), to.begin() + 22, rng);
  std::shuffle(to.begin() + 22, to.end(), rng);
  return to;
}

uint32_t moveBits(uint32_t word, const std::array<int, 32>& to) {
  uint32_t out = 0;
  for (int bit = 0; bit < 32; ++bit)
    if (word & (1u << bit)) out |= 1u << to[static_cast<size_t>(bit)];
  return out;
}

}  // namespace

std::vector<SimulatedDevice> replicateRooms(const std::vector<SimulatedDevice>& devices,
                                            int copies) {
  int rooms = 0;
  for (const auto& d : devices)
    rooms = std::max(rooms, d.room + 1);
  std::mt19937 rng(12345);
  std::vector<SimulatedDevice> out;
  out.reserve(devices.size() * static_cast<size_t>(copies));
  for (int copy = 0; copy < copies; ++copy) {
    // One reordering per copy of a room: the copy's devices still agree.
    std::vector<std::array<int, 32>> orders;
    for (int room = 0; room < rooms; ++room)
      orders.push_back(shuffledBits(rng));
    for (const auto& d : devices) {
      SimulatedDevice c = d;
      c.room = d.room + copy * rooms;
      if (copy > 0)
        for (auto& part : c.parts)
          for (auto& w : part.words)
            w = moveBits(w, orders[static_cast<size_t>(d.room)]);
      out.push_back(std::move(c));
    }
  }
  return out;
}

}  // namespace tellora::scenes
