// Deterministic test sounds and the files that carry them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tellora::testaudio {

// A linear sweep from f0 to f1 Hz over `seconds`, at amplitude 0.5.
std::vector<float> chirp(int rate, double seconds, double f0, double f1);

// A sound defined in continuous time, so that the same sound can be rendered at
// any sample rate: 40 steady partials from 30 Hz to 3.3 kHz (inside an 8000 Hz
// file's band), each with its own slowly drifting loudness, never repeating
// within minutes. Peaks stay below 0.75. Rendered at `rate` from startSeconds on.
std::vector<float> renderChord(int rate, double startSeconds, double seconds);

// Adds uniform noise of the given peak amplitude from a fixed generator.
void addNoise(std::vector<float>& samples, float amplitude, uint32_t seed);

// Rounds [-1, 1] samples to 16-bit items (scale 32767, clamped).
std::vector<int16_t> toItems(const std::vector<float>& samples);

// Interleaves one channel per vector (all of the same length).
std::vector<int16_t> interleave(const std::vector<std::vector<int16_t>>& channels);

// Writes interleaved 16-bit items; format is a libsndfile major format
// (SF_FORMAT_WAV, SF_FORMAT_FLAC, ...), always with 16-bit PCM. Throws when
// the file cannot be written.
void writeItems(const std::string& path, const std::vector<int16_t>& interleaved, int channels,
                int rate, int majorFormat);

// Writes mono 32-bit float samples as they are (no clamping) to a float WAV.
void writeFloatWav(const std::string& path, const std::vector<float>& samples, int rate);

}  // namespace tellora::testaudio
