// Audio the host captures itself and pushes in, for platforms where the SDK
// cannot open the microphone (or the host already holds it).
#ifndef TELLORA_HOST_FED_AUDIO_H
#define TELLORA_HOST_FED_AUDIO_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "tellora/audio_source.h"
#include "tellora/export.h"

namespace tellora {

// The host keeps one feed and puts its sourceFactory() in the configuration's
// audioSourceFactory. While the SDK records, pushed blocks reach it (on the
// SDK's loop); otherwise they are dropped. One recording draws from a feed at
// a time.
class TELLORA_EXPORT TLRHostFedAudio : public std::enable_shared_from_this<TLRHostFedAudio> {
 public:
  static std::shared_ptr<TLRHostFedAudio> create();

  // One block of mono signed 16-bit items at the recorder's sample rate (see
  // sampleRate()), best about 100 ms long. `firstItemTicks` is the monotonic
  // tick of the first item (CLOCK_MONOTONIC nanoseconds); without it the block
  // is taken to end now. Copies the items. Any thread. Returns false when dropped.
  bool push(const int16_t* items, uint32_t count,
            std::optional<double> firstItemTicks = std::nullopt);

  // The rate the running recording asked for; nullopt while none runs.
  std::optional<double> sampleRate() const;

  // Sources that draw from this feed; the factory keeps the feed alive.
  TLRAudioSourceFactory sourceFactory();

 private:
  class Source;
  TLRHostFedAudio() = default;
  void attach(const Source* source, TLRAudioSource::BlockSink sink, double sampleRate);
  void detach(const Source* source);

  mutable std::mutex mutex_;
  const Source* attached_ = nullptr;  // all three guarded by mutex_
  TLRAudioSource::BlockSink sink_;
  double sampleRate_ = 0;
};

}  // namespace tellora

#endif  // TELLORA_HOST_FED_AUDIO_H
