#include "tools/demo/demo_audio.h"

#include <sndfile.h>

#include <algorithm>
#include <stdexcept>

#include "tools/scenes/scene_audio.h"

namespace tellora::demo {

namespace {

using scenes::DeviceChannel;
using scenes::Room;
using scenes::Signal;

Room room(uint32_t seed, double seconds) {
  const Signal first = scenes::randomTalker(seed, 4), second = scenes::randomTalker(seed + 1, 4);
  if (first.empty() || second.empty())
    throw std::runtime_error("espeak-ng produced no speech (is the espeak-ng package installed?)");
  return scenes::makeRoomWithMusic(seed, seconds, {first, second}, 0.06);
}

void writeWav(const std::string& path, const Signal& sound) {
  SF_INFO info{};
  info.samplerate = scenes::kRate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file) throw std::runtime_error("cannot write " + path + ": " + sf_strerror(nullptr));
  const std::vector<int16_t> items = scenes::toItems(sound);
  const sf_count_t written =
      sf_write_short(file, items.data(), static_cast<sf_count_t>(items.size()));
  const bool closed = sf_close(file) == 0;
  if (written != static_cast<sf_count_t>(items.size()) || !closed)
    throw std::runtime_error("cannot write " + path);
}

}  // namespace

DemoAudioFiles writeDemoAudio(const std::string& folder, const DemoAudioPlan& plan) {
  const uint32_t base = plan.seed * 100;
  const Room room1 = room(base + 10, plan.seconds);
  const Room room2 = room(base + 20, plan.seconds);
  const Room room3 = room(base + 30, plan.seconds);

  // A hears room 1, then room 3 from `changeAt` on, through one microphone.
  Signal aScene = room1.scene;
  const size_t change = std::min(aScene.size(), static_cast<size_t>(plan.changeAt * scenes::kRate));
  std::copy(room3.scene.begin() + static_cast<std::ptrdiff_t>(change), room3.scene.end(),
            aScene.begin() + static_cast<std::ptrdiff_t>(change));

  // Two phones a few metres apart: different gain, noise and echo, and B a
  // little further from the talkers.
  DeviceChannel a{.gain = 0.9, .snrDb = 20, .reverb = 0.2, .delayMs = 5, .seed = base + 1};
  DeviceChannel b{.gain = 0.5, .snrDb = 14, .reverb = 0.45, .delayMs = 35, .seed = base + 2};
  DeviceChannel c{.gain = 0.7, .snrDb = 18, .reverb = 0.3, .delayMs = 12, .seed = base + 3};

  DemoAudioFiles files{folder + "/A.wav", folder + "/B.wav", folder + "/C.wav"};
  writeWav(files.a, scenes::hear(aScene, a));
  writeWav(files.b, scenes::hear(room1.scene, b));
  writeWav(files.c, scenes::hear(room2.scene, c));
  return files;
}

}  // namespace tellora::demo
