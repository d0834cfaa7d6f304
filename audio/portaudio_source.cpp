#include "audio/portaudio_source.h"

#include "audio/audio_ticks.h"
#include "audio/backend_chatter.h"
#include "audio/portaudio_library.h"
#include "audio/portaudio_start_errors.h"
#include "runtime/clock.h"
#include "runtime/log.h"

namespace tellora {

namespace {

// Seconds between the capture of a block's first item and its callback, as
// the stream reports it; nullopt when the backend reports no usable times.
std::optional<double> reportedAge(const PaStreamCallbackTimeInfo* timeInfo) {
  if (timeInfo == nullptr || timeInfo->inputBufferAdcTime <= 0 || timeInfo->currentTime <= 0)
    return std::nullopt;
  const double age = timeInfo->currentTime - timeInfo->inputBufferAdcTime;
  if (!(age >= 0 && age < 2.0)) return std::nullopt;  // not a buffering delay
  return age;
}

}  // namespace

TLRPortAudioSource::~TLRPortAudioSource() {
  stop();
}

TLRAudioStartResult TLRPortAudioSource::fail(PaError error, const char* routine) {
  return classifyPortAudioFailure(
      error, error == paUnanticipatedHostError ? Pa_GetLastHostErrorInfo() : nullptr, routine);
}

TLRAudioStartResult TLRPortAudioSource::start(const TLRAudioSourceFormat& format, BlockSink sink) {
  if (holdsLibrary_) return TLRAudioStartResult::failure(paStreamIsNotStopped, "start");
  const PaError initError = acquirePortAudio();
  if (initError != paNoError) return fail(initError, "Pa_Initialize");
  holdsLibrary_ = true;
  AudioBackendChatterScope chatter;

  // No input yet is not a refusal: the sound server may still be coming up,
  // and the retry initialises PortAudio afresh.
  const PaDeviceIndex count = Pa_GetDeviceCount();
  if (count <= 0) return fail(count < 0 ? count : paNoDevice, "Pa_GetDeviceCount");
  const PaDeviceIndex device = Pa_GetDefaultInputDevice();
  if (device == paNoDevice) return fail(paNoDevice, "Pa_GetDefaultInputDevice");
  const PaDeviceInfo* info = Pa_GetDeviceInfo(device);
  if (info == nullptr || info->maxInputChannels < 1)
    return fail(paInvalidDevice, "Pa_GetDeviceInfo");

  PaStreamParameters input{};
  input.device = device;
  input.channelCount = 1;
  input.sampleFormat = paInt16;
  // The consumer works in 100 ms blocks, so a roomy device buffer costs
  // nothing and keeps a busy machine from overrunning it.
  input.suggestedLatency = info->defaultHighInputLatency;
  input.hostApiSpecificStreamInfo = nullptr;

  sink_ = std::move(sink);
  sampleRate_ = format.sampleRate;
  ticksPerSecond_ = ticksPerSecond();
  clock_.emplace(sampleRate_, ticksPerSecond_);

  PaStream* stream = nullptr;
  const PaError openError = Pa_OpenStream(&stream, &input, nullptr, format.sampleRate,
                                          format.itemsPerBlock, paClipOff, &streamCallback, this);
  if (openError != paNoError) return fail(openError, "Pa_OpenStream");
  stream_ = stream;

  const PaError startError = Pa_StartStream(stream_);
  if (startError != paNoError) return fail(startError, "Pa_StartStream");
  return TLRAudioStartResult::success();
}

void TLRPortAudioSource::stop() {
  AudioBackendChatterScope chatter;
  if (stream_ != nullptr) {
    // Errors are of no use here: abort and close report success even when the
    // server is long gone.
    Pa_AbortStream(stream_);
    Pa_CloseStream(stream_);
    stream_ = nullptr;
    if (overflows() > 0 || reanchors_.load() > 0) {
      debugf("Tellora: audio input had %llu overflows (%.0f ms lost), %llu drift corrections",
             static_cast<unsigned long long>(overflows()), convertInMilicec(lostTicks_.load()),
             static_cast<unsigned long long>(reanchors_.load()));
    }
  }
  if (holdsLibrary_) {
    releasePortAudio();
    holdsLibrary_ = false;
  }
}

int TLRPortAudioSource::streamCallback(const void* input, void*, unsigned long frameCount,
                                       const PaStreamCallbackTimeInfo* timeInfo,
                                       PaStreamCallbackFlags statusFlags, void* userData) {
  routeAudioBackendChatterOnThisThread();
  auto* self = static_cast<TLRPortAudioSource*>(userData);
  if (input == nullptr || frameCount == 0) return paContinue;

  const double now = monotonicTicks();
  // Without the stream's times, the block's own length is the least it can
  // have waited; the clock trusts only the earliest estimates anyway.
  const double age = reportedAge(timeInfo).value_or(frameCount / self->sampleRate_);
  const bool overflowed = (statusFlags & paInputOverflow) != 0;
  TLRBlockClock& clock = *self->clock_;
  const double firstItemTicks =
      clock.stamp(static_cast<uint32_t>(frameCount), now - age * self->ticksPerSecond_, overflowed);
  if (overflowed) {
    self->overflows_.store(clock.overflows(), std::memory_order_relaxed);
    self->lostTicks_.store(clock.lostTicks(), std::memory_order_relaxed);
  }
  self->reanchors_.store(clock.reanchors(), std::memory_order_relaxed);

  self->sink_(static_cast<const int16_t*>(input), static_cast<uint32_t>(frameCount),
              firstItemTicks);
  return paContinue;
}

TLRAudioSourceFactory portAudioSourceFactory() {
  return [] { return std::make_unique<TLRPortAudioSource>(); };
}

}  // namespace tellora
