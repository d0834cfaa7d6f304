// The default input device through PortAudio: the recorder's usual source.
#pragma once

#include <portaudio.h>

#include <cstdint>

#include "tellora/audio_source.h"

namespace tellora {

// Mono paInt16 at the requested rate, in blocks of the requested size (800
// items at 8000 Hz), delivered on PortAudio's callback thread. Blocks are
// stamped from the monotonic clock read at stream start plus the items
// delivered so far: the stream's own timestamps have no fixed base (wall clock
// under one ALSA plugin, time since boot under another).
class TLRPortAudioSource final : public TLRAudioSource {
 public:
  TLRPortAudioSource() = default;
  ~TLRPortAudioSource() override;
  TLRPortAudioSource(const TLRPortAudioSource&) = delete;
  TLRPortAudioSource& operator=(const TLRPortAudioSource&) = delete;

  // No device at all, or one the user may not open: notPermitted.
  TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) override;
  // Aborts, never stops, the stream: Pa_StopStream waits for a callback that a
  // dead server never sends, for ever.
  void stop() override;
  // A running stream delivers every 100 ms; a second of nothing means the
  // server died or the device went away, and PortAudio would not tell.
  std::optional<std::chrono::milliseconds> stallTimeout() const override {
    return std::chrono::seconds(1);
  }

 private:
  static int streamCallback(const void* input, void* output, unsigned long frameCount,
                            const PaStreamCallbackTimeInfo* timeInfo,
                            PaStreamCallbackFlags statusFlags, void* userData);

  bool holdsLibrary_ = false;
  PaStream* stream_ = nullptr;
  BlockSink sink_;
  // Written before the stream starts, read on the callback thread.
  double startTicks_ = 0;
  double ticksPerSecond_ = 0;
  double sampleRate_ = 0;
  uint64_t itemsDelivered_ = 0;  // callback thread only
};

// The recorder's default: a new TLRPortAudioSource per start.
TLRAudioSourceFactory portAudioSourceFactory();

}  // namespace tellora
