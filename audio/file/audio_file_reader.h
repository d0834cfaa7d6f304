// Reads audio files for the tools and the file-backed audio source: any format
// libsndfile reads, mixed to mono and resampled (libsamplerate) to one rate, as
// signed 16-bit items. Not part of libtellora.so: hosts and tools link it
// separately (target tellora_audiofile).
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace tellora::audiofile {

struct DecodedAudio {
  std::vector<int16_t> items;  // mono
  int sampleRate = 0;          // the rate asked for
  int sourceRate = 0;          // the file's own rate
  int sourceChannels = 0;
};

// The decoded audio, or a one-line error naming the file ("cannot open x.wav:
// No such file or directory", "x.txt is not an audio file: ...", "x.wav holds
// no audio"). Channels are averaged; a file at another rate than targetRate is
// resampled with the best sinc converter; items are rounded to nearest (halves
// away from zero) and clamped, so a 16-bit mono file at targetRate comes back
// item for item. NaN samples become 0.
std::variant<DecodedAudio, std::string> readAudioFile(const std::string& path, int targetRate);

}  // namespace tellora::audiofile
