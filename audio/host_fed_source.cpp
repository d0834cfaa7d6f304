#include "tellora/host_fed_audio.h"

#include "audio/audio_ticks.h"
#include "runtime/clock.h"

namespace tellora {

class TLRHostFedAudio::Source final : public TLRAudioSource {
 public:
  explicit Source(std::shared_ptr<TLRHostFedAudio> feed) : feed_(std::move(feed)) {}
  ~Source() override { stop(); }

  TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) override {
    feed_->attach(this, std::move(sink), format.sampleRate);
    return TLRAudioStartResult::success();
  }
  void stop() override { feed_->detach(this); }

 private:
  std::shared_ptr<TLRHostFedAudio> feed_;
};

std::shared_ptr<TLRHostFedAudio> TLRHostFedAudio::create() {
  return std::shared_ptr<TLRHostFedAudio>(new TLRHostFedAudio());
}

bool TLRHostFedAudio::push(const int16_t* items, uint32_t count,
                           std::optional<double> firstItemTicks) {
  if (items == nullptr && count > 0) return false;
  // The sink runs under the lock, so once detach() returns no block can still
  // be on its way into a stopped source.
  std::lock_guard lock(mutex_);
  if (attached_ == nullptr) return false;
  const double ticks =
      firstItemTicks ? *firstItemTicks : monotonicTicks() - ticksForItems(count, sampleRate_);
  sink_(items, count, ticks);
  return true;
}

std::optional<double> TLRHostFedAudio::sampleRate() const {
  std::lock_guard lock(mutex_);
  if (attached_ == nullptr) return std::nullopt;
  return sampleRate_;
}

TLRAudioSourceFactory TLRHostFedAudio::sourceFactory() {
  return [feed = shared_from_this()] { return std::make_unique<Source>(feed); };
}

void TLRHostFedAudio::attach(const Source* source, TLRAudioSource::BlockSink sink,
                             double sampleRate) {
  std::lock_guard lock(mutex_);
  // A newer recording takes the feed over from an older one.
  attached_ = source;
  sink_ = std::move(sink);
  sampleRate_ = sampleRate;
}

void TLRHostFedAudio::detach(const Source* source) {
  std::lock_guard lock(mutex_);
  if (attached_ != source) return;
  attached_ = nullptr;
  sink_ = nullptr;
}

}  // namespace tellora
