#include "tests/tools/test_audio.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <type_traits>

namespace tellora::testaudio {
namespace {

constexpr double kPi = 3.14159265358979323846;

// A small fixed hash of an integer.
uint32_t mix(uint32_t v) {
  v ^= v >> 16;
  v *= 0x7feb352du;
  v ^= v >> 15;
  v *= 0x846ca68bu;
  v ^= v >> 16;
  return v;
}

// A pseudo-random number in [0, 1) for each key.
double unitValue(uint32_t key) {
  return static_cast<double>(mix(key) & 0xFFFFFFu) / 16777216.0;
}

constexpr int kPartials = 40;

// Writes frames of `channels` items.
template <class Item>
void writeFrames(const std::string& path, const std::vector<Item>& items, int channels, int rate,
                 int format) {
  SF_INFO info{0, rate, channels, format, 0, 0};
  SNDFILE* file = sf_format_check(&info) ? sf_open(path.c_str(), SFM_WRITE, &info) : nullptr;
  if (file == nullptr)
    throw std::runtime_error("cannot write " + path + ": " + sf_strerror(nullptr));
  const auto frames = static_cast<sf_count_t>(items.size() / channels);
  sf_count_t written = 0;
  if constexpr (std::is_same_v<Item, float>)
    written = sf_writef_float(file, items.data(), frames);
  else
    written = sf_writef_short(file, items.data(), frames);
  sf_close(file);
  if (written != frames) throw std::runtime_error("short write to " + path);
}

double driftingChord(double seconds) {
  double sum = 0.0;
  for (uint32_t p = 0; p < kPartials; ++p) {
    const uint32_t key = p * 7u;
    // Evenly spread on the Bark scale from 0.3 to 14.4 Bark (30 Hz to 3.3 kHz),
    // so that every band of the hash hears something.
    const double bark = 0.3 + 14.1 * (p + 0.8 * unitValue(key + 1)) / kPartials;
    const double frequency = 600.0 * std::sinh(bark / 6.0);
    double drift = 0.0;
    for (uint32_t k = 0; k < 2; ++k) {
      const double rate = 0.5 + 5.5 * unitValue(key + 2 + k);
      drift += std::cos(2.0 * kPi * rate * seconds + 2.0 * kPi * unitValue(key + 4 + k));
    }
    const double amplitude = (0.5 + 0.25 * drift) * (0.5 + 0.25 * drift);
    sum += amplitude * std::sin(2.0 * kPi * frequency * seconds + 2.0 * kPi * unitValue(key + 6));
  }
  return sum * 0.6 / std::sqrt(static_cast<double>(kPartials));
}

}  // namespace

std::vector<float> chirp(int rate, double seconds, double f0, double f1) {
  std::vector<float> samples(static_cast<size_t>(seconds * rate));
  const double sweep = (f1 - f0) / seconds;
  for (size_t i = 0; i < samples.size(); ++i) {
    const double t = static_cast<double>(i) / rate;
    samples[i] = static_cast<float>(0.5 * std::sin(2.0 * kPi * (f0 * t + 0.5 * sweep * t * t)));
  }
  return samples;
}

std::vector<float> renderChord(int rate, double startSeconds, double seconds) {
  std::vector<float> samples(static_cast<size_t>(std::llround(seconds * rate)));
  for (size_t i = 0; i < samples.size(); ++i)
    samples[i] = static_cast<float>(driftingChord(startSeconds + static_cast<double>(i) / rate));
  return samples;
}

void addNoise(std::vector<float>& samples, float amplitude, uint32_t seed) {
  uint32_t state = seed;
  for (float& s : samples) {
    state = state * 1664525u + 1013904223u;
    const float unit = static_cast<float>(state >> 8) / static_cast<float>(1u << 24);
    s += amplitude * (2.0f * unit - 1.0f);
  }
}

std::vector<int16_t> toItems(const std::vector<float>& samples) {
  std::vector<int16_t> items(samples.size());
  for (size_t i = 0; i < samples.size(); ++i)
    items[i] = static_cast<int16_t>(
        std::lround(std::clamp(static_cast<double>(samples[i]) * 32767.0, -32768.0, 32767.0)));
  return items;
}

std::vector<int16_t> interleave(const std::vector<std::vector<int16_t>>& channels) {
  std::vector<int16_t> out;
  for (size_t f = 0; !channels.empty() && f < channels.front().size(); ++f)
    for (const auto& channel : channels)
      out.push_back(channel.at(f));
  return out;
}

void writeItems(const std::string& path, const std::vector<int16_t>& interleaved, int channels,
                int rate, int majorFormat) {
  writeFrames(path, interleaved, channels, rate, majorFormat | SF_FORMAT_PCM_16);
}

void writeFloatWav(const std::string& path, const std::vector<float>& samples, int rate) {
  writeFrames(path, samples, 1, rate, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
}

}  // namespace tellora::testaudio
