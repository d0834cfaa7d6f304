#include "tests/audio/audio_test_files.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>

namespace tellora::audiotest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/tellora-audio-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeWav(const std::string& path, const std::vector<int16_t>& interleaved, int channels,
              int rate) {
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (file == nullptr) throw std::runtime_error("cannot write " + path);
  const auto frames = static_cast<sf_count_t>(interleaved.size() / channels);
  const sf_count_t written = sf_writef_short(file, interleaved.data(), frames);
  sf_close(file);
  if (written != frames) throw std::runtime_error("short write to " + path);
}

std::vector<int16_t> toneBursts(double seconds, uint32_t seed) {
  constexpr int kRate = 8000;
  constexpr double kPi = 3.14159265358979323846;
  const size_t count = static_cast<size_t>(seconds * kRate);
  std::vector<double> mix(count, 0.0);
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> pitch(150.0, 3500.0);
  std::uniform_int_distribution<size_t> length(160, 960);
  std::uniform_real_distribution<double> level(0.1, 0.3);
  std::uniform_real_distribution<double> noise(-0.02, 0.02);
  // Three overlapping layers, so no stretch is a single steady tone.
  for (int layer = 0; layer < 3; ++layer) {
    for (size_t start = 0; start < count;) {
      const size_t n = length(random);
      const double frequency = pitch(random);
      const double amplitude = level(random);
      for (size_t i = 0; i < n && start + i < count; ++i) {
        const double envelope = 0.5 - 0.5 * std::cos(2.0 * kPi * i / n);
        mix[start + i] += amplitude * envelope * std::sin(2.0 * kPi * frequency * i / kRate);
      }
      start += n / 2;
    }
  }
  std::vector<int16_t> items(count);
  for (size_t i = 0; i < count; ++i) {
    const double v = std::clamp(mix[i] + noise(random), -1.0, 1.0);
    items[i] = static_cast<int16_t>(std::lround(v * 32767.0));
  }
  return items;
}

}  // namespace tellora::audiotest
