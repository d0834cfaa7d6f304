// Synthetic sound scenes for discovery tests: speech from espeak-ng, music and
// noise, mixed into rooms, and the way one device hears a room.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tellora::scenes {

constexpr int kRate = 8000;
using Signal = std::vector<float>;

// Speech by espeak-ng at 8000 Hz (voice such as "en+f3", words per minute,
// pitch 0..99). Empty when espeak-ng is missing or fails.
Signal speech(const std::string& voice, const std::string& text, int wordsPerMinute, int pitch);

// A few random sentences (no two rooms share their words in step).
std::string randomSentences(uint32_t seed, int sentences);
// Speech of a random voice, speed and pitch saying random sentences.
Signal randomTalker(uint32_t seed, int sentences);

// A few bars of synthetic music: chords of harmonic notes with envelopes and a
// noise-burst beat, all drawn from the seed.
Signal music(uint32_t seed, double seconds);

// Pink-ish noise (a sum of filtered white noises), unit RMS.
Signal noise(uint32_t seed, double seconds);

double rms(const Signal& x);
// Adds `part` scaled to `level` times its own RMS into `mix`, starting at `at`.
void addAt(Signal& mix, const Signal& part, size_t at, double level);

struct Room {
  Signal scene;  // what the room sounds like at its centre
};

// A room of `seconds`: its talkers (recordings of its own) taking turns, maybe
// music, background noise.
Room makeRoom(uint32_t seed, double seconds, const std::vector<Signal>& talkers);
// The same talkers and background noise as makeRoom(), with music always
// playing at `musicLevel` (RMS; speech turns are at 0.1).
Room makeRoomWithMusic(uint32_t seed, double seconds, const std::vector<Signal>& talkers,
                       double musicLevel);

// How one device hears a room.
struct DeviceChannel {
  double gain = 1.0;        // linear
  double snrDb = 20.0;      // scene to device noise
  double reverb = 0.3;      // 0 = dry, up to ~0.6
  double delayMs = 10.0;    // propagation from the sound to this device
  bool bandLimited = true;  // a phone microphone: 200 Hz to 3400 Hz
  uint32_t seed = 1;
};
Signal hear(const Signal& scene, const DeviceChannel& channel);

// Device audio as 16-bit items (what the recorder delivers).
std::vector<int16_t> toItems(const Signal& x);

}  // namespace tellora::scenes
