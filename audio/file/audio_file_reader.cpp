#include "audio/file/audio_file_reader.h"

#include <fcntl.h>
#include <samplerate.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>

namespace tellora::audiofile {
namespace {

constexpr sf_count_t kChunkFrames = 4096;

// libsndfile scales 16-bit items by 1/32768 when it reads them as double, so
// the same factor brings them back exactly.
constexpr double kItemScale = 32768.0;

// Library messages sometimes carry line breaks; errors here are one line.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '.'))
    text.pop_back();
  return text;
}

int16_t toItem(double value) {
  if (std::isnan(value)) return 0;
  const double scaled = value * kItemScale;
  if (scaled >= 32767.0) return 32767;
  if (scaled <= -32768.0) return -32768;
  return static_cast<int16_t>(std::lround(scaled));
}

struct SndFileCloser {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using SndFilePtr = std::unique_ptr<SNDFILE, SndFileCloser>;

struct ResamplerDeleter {
  void operator()(SRC_STATE* state) const { src_delete(state); }
};
using ResamplerPtr = std::unique_ptr<SRC_STATE, ResamplerDeleter>;

// Streams mono blocks through libsamplerate so that only the 16-bit result of
// a long file is ever held in memory.
class MonoResampler {
 public:
  static std::variant<MonoResampler, std::string> create(double ratio) {
    int error = 0;
    ResamplerPtr state(src_new(SRC_SINC_BEST_QUALITY, 1, &error));
    if (!state) return oneLine(src_strerror(error));
    return MonoResampler(std::move(state), ratio);
  }

  // Converts one block (empty with endOfInput to drain the converter) and
  // appends the result to items. Returns an error text or an empty string.
  std::string process(const std::vector<float>& block, bool endOfInput,
                      std::vector<int16_t>& items) {
    // libsamplerate ignores a call without an input pointer, even a draining one.
    static const float kNoInput = 0.0f;
    SRC_DATA data{};
    data.data_in = block.empty() ? &kNoInput : block.data();
    data.input_frames = static_cast<long>(block.size());
    data.end_of_input = endOfInput ? 1 : 0;
    data.src_ratio = ratio_;
    for (;;) {
      data.data_out = output_.data();
      data.output_frames = static_cast<long>(output_.size());
      if (int error = src_process(state_.get(), &data); error != 0) {
        return oneLine(src_strerror(error));
      }
      for (long i = 0; i < data.output_frames_gen; ++i)
        items.push_back(toItem(output_[i]));
      data.data_in += data.input_frames_used;
      data.input_frames -= data.input_frames_used;
      const bool inputLeft = data.input_frames > 0;
      const bool drainingMore = endOfInput && data.output_frames_gen > 0;
      if (!inputLeft && !drainingMore) return {};
    }
  }

 private:
  MonoResampler(ResamplerPtr state, double ratio)
      : state_(std::move(state)),
        ratio_(ratio),
        output_(static_cast<size_t>(std::ceil(kChunkFrames * ratio)) + 64) {}

  ResamplerPtr state_;
  double ratio_;
  std::vector<float> output_;
};

// Checks with a plain open first so that a missing or unreadable file is told
// apart from one libsndfile does not recognise.
std::variant<SndFilePtr, std::string> openSoundFile(const std::string& path, SF_INFO& info) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "cannot open " + path + ": " + std::strerror(errno);
  struct stat status {};
  const bool statted = ::fstat(fd, &status) == 0;
  const int statError = statted ? (S_ISDIR(status.st_mode) ? EISDIR : 0) : errno;
  ::close(fd);
  if (statError != 0) return "cannot open " + path + ": " + std::strerror(statError);

  info = SF_INFO{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) return path + " is not an audio file: " + oneLine(sf_strerror(nullptr));
  if (info.channels <= 0 || info.samplerate <= 0) {
    sf_close(file);
    return path + " is not an audio file: no channels or no sample rate";
  }
  return SndFilePtr(file);
}

// The header's frame count is only a hint (unknown for streams, anything in a
// damaged file), so it sizes the first allocation within reason.
size_t reserveHint(sf_count_t frames, double ratio) {
  constexpr double kMaxHint = 1 << 24;
  if (frames <= 0) return 0;
  return static_cast<size_t>(std::min(static_cast<double>(frames) * ratio + 1.0, kMaxHint));
}

}  // namespace

std::variant<DecodedAudio, std::string> readAudioFile(const std::string& path, int targetRate) {
  SF_INFO info{};
  auto opened = openSoundFile(path, info);
  if (auto* error = std::get_if<std::string>(&opened)) return *error;
  SndFilePtr file = std::move(std::get<SndFilePtr>(opened));

  DecodedAudio audio;
  audio.sampleRate = targetRate;
  audio.sourceRate = info.samplerate;
  audio.sourceChannels = info.channels;

  const bool resample = info.samplerate != targetRate;
  std::optional<MonoResampler> resampler;
  if (resample) {
    const double ratio = static_cast<double>(targetRate) / info.samplerate;
    const std::string failure = "cannot resample " + path + " from " +
                                std::to_string(info.samplerate) + " Hz to " +
                                std::to_string(targetRate) + " Hz";
    if (targetRate <= 0 || !src_is_valid_ratio(ratio)) return failure + ": ratio out of range";
    auto created = MonoResampler::create(ratio);
    if (auto* error = std::get_if<std::string>(&created)) return failure + ": " + *error;
    resampler.emplace(std::move(std::get<MonoResampler>(created)));
  }
  audio.items.reserve(reserveHint(info.frames, static_cast<double>(targetRate) / info.samplerate));

  const size_t channels = static_cast<size_t>(info.channels);
  std::vector<double> interleaved(static_cast<size_t>(kChunkFrames) * channels);
  std::vector<float> mono;
  mono.reserve(static_cast<size_t>(kChunkFrames));
  sf_count_t framesRead = 0;
  for (;;) {
    const sf_count_t got = sf_readf_double(file.get(), interleaved.data(), kChunkFrames);
    if (got <= 0) break;
    framesRead += got;
    mono.clear();
    for (sf_count_t f = 0; f < got; ++f) {
      const double* frame = &interleaved[static_cast<size_t>(f) * channels];
      double sum = 0.0;
      for (size_t c = 0; c < channels; ++c)
        sum += frame[c];
      double value = sum / static_cast<double>(channels);
      if (std::isnan(value)) value = 0.0;
      if (!resample) {
        audio.items.push_back(toItem(value));
      } else {
        // Infinities would smear NaN over the sinc filter's whole reach.
        if (std::isinf(value)) value = value > 0 ? 1.0 : -1.0;
        mono.push_back(static_cast<float>(value));
      }
    }
    if (resample) {
      if (std::string error = resampler->process(mono, false, audio.items); !error.empty()) {
        return "cannot resample " + path + ": " + error;
      }
    }
  }
  if (const int error = sf_error(file.get()); error != SF_ERR_NO_ERROR) {
    return "cannot read " + path + ": " + oneLine(sf_error_number(error));
  }
  if (resample && framesRead > 0) {
    if (std::string error = resampler->process({}, true, audio.items); !error.empty()) {
      return "cannot resample " + path + ": " + error;
    }
  }
  if (audio.items.empty()) return path + " holds no audio";
  return audio;
}

}  // namespace tellora::audiofile
