// The three sound files of the demo: A and B are two devices in room 1 (A
// walks into room 3 halfway), C is in room 2. 8000 Hz mono 16-bit WAV.
#pragma once

#include <cstdint>
#include <string>

namespace tellora::demo {

struct DemoAudioPlan {
  uint32_t seed = 7;
  double seconds = 40;   // length of every file
  double changeAt = 18;  // where A's file moves from room 1 to room 3
};

struct DemoAudioFiles {
  std::string a, b, c;
};

// Writes A.wav, B.wav and C.wav into `folder`. Throws std::runtime_error when
// espeak-ng gives no speech or a file cannot be written.
DemoAudioFiles writeDemoAudio(const std::string& folder, const DemoAudioPlan& plan);

}  // namespace tellora::demo
