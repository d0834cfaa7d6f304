// The default input device through PortAudio: the recorder's usual source.
#pragma once

#include <portaudio.h>

#include <atomic>
#include <cstdint>
#include <optional>

#include "audio/block_clock.h"
#include "tellora/audio_source.h"

namespace tellora {

// Mono paInt16 at the requested rate, in blocks of the requested size (800
// items at 8000 Hz), delivered on PortAudio's callback thread. Blocks are
// stamped by a TLRBlockClock from the monotonic clock at each callback minus
// the age PortAudio reports for the block (the difference of two of its own
// times, so their base, which differs between ALSA plugins, drops out).
class TLRPortAudioSource final : public TLRAudioSource {
 public:
  TLRPortAudioSource() = default;
  ~TLRPortAudioSource() override;
  TLRPortAudioSource(const TLRPortAudioSource&) = delete;
  TLRPortAudioSource& operator=(const TLRPortAudioSource&) = delete;

  // Only a device that refuses this user is notPermitted; see
  // audio/portaudio_start_errors.h.
  TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) override;
  // Aborts, never stops, the stream: Pa_StopStream waits for a callback that a
  // dead server never sends, for ever.
  void stop() override;
  // A running stream delivers every 100 ms; a second of nothing means the
  // server died or the device went away, and PortAudio would not tell.
  std::optional<std::chrono::milliseconds> stallTimeout() const override {
    return std::chrono::seconds(1);
  }

  // Input overflows so far (items the device dropped before we read them).
  uint64_t overflows() const { return overflows_.load(std::memory_order_relaxed); }

 private:
  static int streamCallback(const void* input, void* output, unsigned long frameCount,
                            const PaStreamCallbackTimeInfo* timeInfo,
                            PaStreamCallbackFlags statusFlags, void* userData);
  TLRAudioStartResult fail(PaError error, const char* routine);

  bool holdsLibrary_ = false;
  PaStream* stream_ = nullptr;
  BlockSink sink_;
  // Made before the stream starts, used on the callback thread only.
  std::optional<TLRBlockClock> clock_;
  double ticksPerSecond_ = 0;
  double sampleRate_ = 0;
  std::atomic<uint64_t> overflows_{0};
  std::atomic<double> lostTicks_{0};
  std::atomic<uint64_t> reanchors_{0};
};

// The recorder's default: a new TLRPortAudioSource per start.
TLRAudioSourceFactory portAudioSourceFactory();

}  // namespace tellora
