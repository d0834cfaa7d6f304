// Where the recorder's audio comes from. A source captures mono signed 16-bit
// items at the rate it is asked for and hands them over block by block; the
// recorder owns one source per recording run and builds a new one, through a
// factory, for every start. The default is the default input device through
// PortAudio; tellora/host_fed_audio.h feeds audio the host captures itself,
// and hosts may implement sources of their own.
#ifndef TELLORA_AUDIO_SOURCE_H
#define TELLORA_AUDIO_SOURCE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tellora/export.h"

namespace tellora {

// The outcome of TLRAudioSource::start().
struct TELLORA_EXPORT TLRAudioStartResult {
  enum class Kind {
    started,
    notPermitted,  // the user (or a sandbox) refused access: retrying cannot help
    failed,        // anything else, a busy or missing device too: worth another try later
  };

  Kind kind = Kind::started;
  int status = 0;       // the backend's status code of the failure
  std::string routine;  // the backend routine that failed

  static TLRAudioStartResult success() { return {}; }
  static TLRAudioStartResult notPermitted(int status, std::string routine) {
    return {Kind::notPermitted, status, std::move(routine)};
  }
  static TLRAudioStartResult failure(int status, std::string routine) {
    return {Kind::failed, status, std::move(routine)};
  }
  bool ok() const { return kind == Kind::started; }
};

// What the recorder asks a source for.
struct TLRAudioSourceFormat {
  double sampleRate = 8000.0;
  uint32_t itemsPerBlock = 800;  // the block size a live source should aim at
};

class TELLORA_EXPORT TLRAudioSource {
 public:
  // Receives one block: mono signed 16-bit items, their count, and the monotonic
  // tick of the first item (nanoseconds of CLOCK_MONOTONIC, the SDK's clock). `items` is valid only
  // during the call. May be called on any thread, one block at a time, never after stop() has
  // returned.
  using BlockSink =
      std::function<void(const int16_t* items, uint32_t count, double firstItemTicks)>;

  virtual ~TLRAudioSource() = default;

  // Starts delivering blocks to `sink`. Called once per source, on the SDK's loop.
  virtual TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) = 0;
  // Stops delivering; must return promptly even when the backend hangs. Called
  // on the SDK's loop; also called on a source that failed to start.
  virtual void stop() = 0;

  // A live source delivers blocks steadily, so a gap this long means it died
  // silently (sound server killed, device unplugged) and the recorder restarts
  // it. nullopt: gaps are normal for this source (the host pauses, a file ends).
  virtual std::optional<std::chrono::milliseconds> stallTimeout() const { return std::nullopt; }
};

// Builds a fresh, unstarted source. Called on the SDK's loop at every start.
using TLRAudioSourceFactory = std::function<std::unique_ptr<TLRAudioSource>()>;

// Status the recorder reports when a started source stopped delivering blocks:
// the value PortAudio uses for "timed out", whatever the backend.
inline constexpr int TLRAudioSourceStalledStatus = -9987;

}  // namespace tellora

#endif  // TELLORA_AUDIO_SOURCE_H
