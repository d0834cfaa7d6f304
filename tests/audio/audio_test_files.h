// Real files for the audio tests: scratch directories, WAV files, and a sound
// whose every hash word is distinct.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tellora::audiotest {

// A fresh directory under $TMPDIR (or /tmp), removed with its content.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Writes interleaved 16-bit items as a 16-bit PCM WAV; throws when it cannot.
void writeWav(const std::string& path, const std::vector<int16_t>& interleaved, int channels,
              int rate);

// Seconds of pseudo-random tone bursts at 8000 Hz: overlapping raised-cosine
// bursts, 20 to 120 ms long, at pitches between 150 Hz and 3.5 kHz, over a
// little noise. Deterministic for a seed.
std::vector<int16_t> toneBursts(double seconds, uint32_t seed);

}  // namespace tellora::audiotest
