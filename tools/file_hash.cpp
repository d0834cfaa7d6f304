#include "tools/file_hash.h"

#include <limits>
#include <vector>

#include "audio/file/audio_file_reader.h"
#include "fingerprint/pcm.h"
#include "tools/input_error.h"

namespace tellora::cli {
namespace {

// A hash state serves one call; this frees it whatever happens to the call.
class HashState {
 public:
  HashState() { inithashst(&state_); }
  ~HashState() { freehashst(&state_); }
  HashState(const HashState&) = delete;
  HashState& operator=(const HashState&) = delete;
  hashst* get() { return &state_; }

 private:
  hashst state_{};
};

}  // namespace

uint32_t minimumSamplesForOneWord(int sampleRate) {
  const int32_t exponent = getexpframelength(sampleRate, 0.4f);
  if (exponent < 0) return 0;
  const int64_t frame = int64_t{1} << exponent;
  const int64_t step = frame - (31 * frame) / 32;
  return static_cast<uint32_t>(frame + 2 * step);
}

FileHash FileHash::fromFile(const std::string& path, int sampleRate, int toggleBits) {
  auto decoded = audiofile::readAudioFile(path, sampleRate);
  if (auto* error = std::get_if<std::string>(&decoded)) throw InputError(*error);
  const std::vector<int16_t>& items = std::get<audiofile::DecodedAudio>(decoded).items;

  // The hash counts samples and frames in signed 32-bit integers.
  if (items.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
    throw InputError(path + " is too long to hash: " + std::to_string(items.size()) +
                     " samples at " + std::to_string(sampleRate) + " Hz");
  }
  std::vector<float> samples(items.size());
  pcmItemsToFloats(items.data(), items.size(), samples.data());

  FileHash hash;
  HashState state;
  if (audiohash(samples.data(), static_cast<uint32_t>(samples.size()), &hash.result_, state.get(),
                toggleBits, sampleRate) != 0) {
    throw InputError("the audio hash refused " + path + " at " + std::to_string(sampleRate) +
                     " Hz (rate not supported, or out of memory)");
  }
  if (hash.result_.nbhashes < 1) {
    throw InputError(path + " is too short to hash: " + std::to_string(items.size()) +
                     " samples at " + std::to_string(sampleRate) + " Hz, one hash word needs " +
                     std::to_string(minimumSamplesForOneWord(sampleRate)));
  }
  return hash;
}

FileHash::FileHash(FileHash&& other) noexcept : result_(other.result_) {
  other.result_ = hashres{};
}

FileHash::~FileHash() {
  freehash(&result_);
}

std::span<const uint32_t> FileHash::words() const {
  if (result_.hashes == nullptr || result_.nbhashes <= 0) return {};
  return {result_.hashes, static_cast<size_t>(result_.nbhashes)};
}

std::span<const uint32_t> FileHash::toggles() const {
  if (result_.toggles == nullptr || result_.nbhashes <= 0) return {};
  return {result_.toggles, static_cast<size_t>(result_.nbhashes)};
}

}  // namespace tellora::cli
