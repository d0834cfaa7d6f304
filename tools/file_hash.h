// An audio file read, mixed to mono, resampled and hashed: the part every
// command shares.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tellora/audiohash.h"

namespace tellora::cli {

class FileHash {
 public:
  // Reads path at sampleRate and hashes it with `toggleBits` toggles per word.
  // Throws InputError for a file that cannot be read, holds no audio, is too
  // short for one hash word, or a rate the hash refuses.
  static FileHash fromFile(const std::string& path, int sampleRate, int toggleBits);

  FileHash(FileHash&& other) noexcept;
  FileHash& operator=(FileHash&&) = delete;
  FileHash(const FileHash&) = delete;
  FileHash& operator=(const FileHash&) = delete;
  ~FileHash();

  const hashres& result() const { return result_; }
  std::span<const uint32_t> words() const;
  // Empty when no toggles were asked for.
  std::span<const uint32_t> toggles() const;

 private:
  FileHash() = default;

  hashres result_{};
};

// Samples needed for one hash word at sampleRate: a frame and two steps.
uint32_t minimumSamplesForOneWord(int sampleRate);

}  // namespace tellora::cli
