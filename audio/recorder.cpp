#include "audio/recorder.h"

#include <algorithm>
#include <cstring>

#include "audio/portaudio_source.h"
#include "runtime/clock.h"
#include "runtime/log.h"
#include "tellora/error.h"
#include "tellora/notifications.h"

namespace tellora {

namespace {

// Routine named when a running source went quiet.
constexpr const char* kStallRoutine = "audioDataReceived";

}  // namespace

TLRRecorder::TLRRecorder(double sampleRate, TLRAudioSourceFactory sourceFactory) {
  setSourceFactory(std::move(sourceFactory));
  setupAudioFormat(sampleRate);
  for (auto& buffer : buffers_)
    buffer.reserve(itemsPerBuffer());
}

TLRRecorder::~TLRRecorder() {
  // Loop tasks check alive_ before touching the recorder; dropping it on the
  // loop means none of them is half-way through when the members go.
  auto teardown = [this] {
    if (source_) source_->stop();
    source_.reset();
    alive_.reset();
  };
  auto& loop = EventLoop::main();
  if (loop.isCurrent()) {
    teardown();
  } else {
    loop.call(teardown);
  }
}

void TLRRecorder::setSourceFactory(TLRAudioSourceFactory sourceFactory) {
  sourceFactory_ = sourceFactory ? std::move(sourceFactory) : portAudioSourceFactory();
}

void TLRRecorder::setupAudioFormat(double sampleRate) {
  format_ = TLRAudioFormat{};
  format_.sampleRate = sampleRate;
  format_.bytesPerFrame = format_.channelsPerFrame * 2;
  format_.bytesPerPacket = format_.bytesPerFrame;
}

uint32_t TLRRecorder::itemsPerBuffer() const {
  // 100 ms per buffer: 1600 bytes, 800 items at 8000 Hz.
  const auto bytes = static_cast<uint32_t>(format_.bytesPerFrame * format_.sampleRate * 0.1);
  return format_.bytesPerFrame == 0 ? 0 : bytes / format_.bytesPerFrame;
}

int64_t TLRRecorder::currentTime() const {
  return static_cast<int64_t>(wallClockSeconds());
}

void TLRRecorder::startRecording() {
  if (isRec_) return;
  needSetStartTime_ = true;
  // Whatever was pending is superseded by this attempt.
  ++retryGeneration_;
  const uint64_t session = ++session_;

  if (!source_) source_ = sourceFactory_();
  if (!source_) {
    debugf("Error with code %d occure - %s", -1, "makeAudioSource");
    scheduleRetry(-1, "makeAudioSource");
    return;
  }

  const TLRAudioSourceFormat request{format_.sampleRate, itemsPerBuffer()};
  const TLRAudioStartResult result = source_->start(request, makeSink(session));
  switch (result.kind) {
    case TLRAudioStartResult::Kind::started: {
      // State first: an observer of the notification may call back in.
      attemptCount_ = 1;
      isRec_ = true;
      if (const auto timeout = source_->stallTimeout()) {
        lastBlockAt_ = std::chrono::steady_clock::now();
        watchForStall(session, *timeout);
      }
      TLRNotificationCenter::defaultCenter().post(TLRAudioConnectSuccNotification);
      return;
    }
    case TLRAudioStartResult::Kind::notPermitted: {
      shutDownSource();
      // Only a refused permission ends here; a busy or missing device is
      // retried like any other failure.
      debugf("Error with code %d occure - %s", result.status, result.routine.c_str());
      const auto error = TLRError::make(101, {{"message", std::string("Microphone is disabled")}});
      if (auto handler = errorHandler_.lock()) handler->recordStoppedWithError(error);
      return;
    }
    case TLRAudioStartResult::Kind::failed:
      // A fresh source next time: PortAudio lists devices once per
      // initialisation, so releasing it lets the retry find a server or a
      // device that has appeared since.
      shutDownSource();
      debugf("Error with code %d occure - %s", result.status, result.routine.c_str());
      scheduleRetry(result.status, result.routine);
      return;
  }
}

void TLRRecorder::stopRecording() {
  ++retryGeneration_;
  if (!isRec_) return;
  shutDownSource();
  isRec_ = false;
}

void TLRRecorder::shutDownSource() {
  if (source_) source_->stop();
  source_.reset();
}

TLRAudioSource::BlockSink TLRRecorder::makeSink(uint64_t session) {
  // Runs on the backend's thread: copy the block and hop onto the loop.
  return [this, session, alive = std::weak_ptr<int>(alive_)](const int16_t* items, uint32_t count,
                                                             double firstItemTicks) {
    std::vector<int16_t> copy(items, items + count);
    EventLoop::main().post([this, session, alive, copy = std::move(copy), firstItemTicks] {
      if (alive.expired()) return;
      deliverBlock(session, copy, firstItemTicks);
    });
  };
}

void TLRRecorder::deliverBlock(uint64_t session, const std::vector<int16_t>& items,
                               double firstItemTicks) {
  if (!isRec_ || session != session_) return;  // a block of a run that has ended
  lastBlockAt_ = std::chrono::steady_clock::now();

  auto& buffer = buffers_[nextBuffer_];
  nextBuffer_ = (nextBuffer_ + 1) % buffers_.size();
  // Grows only for a block longer than any before; otherwise the memory stays put.
  if (buffer.size() < items.size()) buffer.resize(items.size());
  std::copy(items.begin(), items.end(), buffer.begin());

  if (auto delegate = delegate_.lock()) {
    delegate->audioDataReceived(buffer.data(), static_cast<uint32_t>(items.size()), firstItemTicks);
  }
}

void TLRRecorder::watchForStall(uint64_t session, Duration timeout) {
  const auto deadline = lastBlockAt_ + timeout;
  const auto now = std::chrono::steady_clock::now();
  if (now < deadline) {
    EventLoop::main().postAfter(deadline - now,
                                [this, session, timeout, alive = std::weak_ptr<int>(alive_)] {
                                  if (alive.expired() || !isRec_ || session != session_) return;
                                  watchForStall(session, timeout);
                                });
    return;
  }
  // The source went quiet without a word (PortAudio reports nothing when the
  // sound server dies): treat it like a failed start.
  shutDownSource();
  isRec_ = false;
  debugf("Error with code %d occure - %s", TLRAudioSourceStalledStatus, kStallRoutine);
  scheduleRetry(TLRAudioSourceStalledStatus, kStallRoutine);
}

void TLRRecorder::scheduleRetry(int status, const std::string& routine) {
  const uint64_t generation = ++retryGeneration_;
  // The delay grows by one unit per attempt and the attempts never end: a
  // microphone that comes back late is still picked up.
  const Duration delay = retryDelayUnit_ * attemptCount_;
  EventLoop::main().postAfter(
      delay, [this, generation, status, routine, alive = std::weak_ptr<int>(alive_)] {
        if (alive.expired() || generation != retryGeneration_) return;
        attemptCount_ += 1;
        TLRUserInfo info{
            {"message", strprintf("Error with code %d occure - %s attemptCount == %li", status,
                                  routine.c_str(), static_cast<long>(attemptCount_))}};
        TLRNotificationCenter::defaultCenter().post(TLRAudioErrorNotification, std::move(info));
        // An observer may have destroyed or restarted the recorder meanwhile.
        if (alive.expired() || generation != retryGeneration_) return;
        startRecording();
      });
}

}  // namespace tellora
