#include "audio/portaudio_source.h"

#include <cerrno>

#include "audio/audio_ticks.h"
#include "audio/portaudio_library.h"
#include "runtime/clock.h"

namespace tellora {

namespace {

// Errors after which another try cannot help: the device is gone or refuses
// this user. ALSA passes negative errno values up as host errors.
bool meansNotPermitted(PaError error) {
  if (error == paDeviceUnavailable || error == paInvalidDevice) return true;
  if (error != paUnanticipatedHostError) return false;
  const PaHostErrorInfo* host = Pa_GetLastHostErrorInfo();
  if (host == nullptr) return false;
  const long code = host->errorCode < 0 ? -host->errorCode : host->errorCode;
  return code == EACCES || code == EPERM;
}

TLRAudioStartResult classify(PaError error, const char* routine) {
  return meansNotPermitted(error) ? TLRAudioStartResult::notPermitted(error, routine)
                                  : TLRAudioStartResult::failure(error, routine);
}

}  // namespace

TLRPortAudioSource::~TLRPortAudioSource() {
  stop();
}

TLRAudioStartResult TLRPortAudioSource::start(const TLRAudioSourceFormat& format, BlockSink sink) {
  if (holdsLibrary_) return TLRAudioStartResult::failure(paStreamIsNotStopped, "start");
  const PaError initError = acquirePortAudio();
  if (initError != paNoError) return TLRAudioStartResult::failure(initError, "Pa_Initialize");
  holdsLibrary_ = true;

  const PaDeviceIndex count = Pa_GetDeviceCount();
  if (count <= 0) {
    return TLRAudioStartResult::notPermitted(count < 0 ? count : paNoDevice, "Pa_GetDeviceCount");
  }
  const PaDeviceIndex device = Pa_GetDefaultInputDevice();
  if (device == paNoDevice) {
    return TLRAudioStartResult::notPermitted(paNoDevice, "Pa_GetDefaultInputDevice");
  }
  const PaDeviceInfo* info = Pa_GetDeviceInfo(device);
  if (info == nullptr || info->maxInputChannels < 1) {
    return TLRAudioStartResult::notPermitted(paInvalidDevice, "Pa_GetDeviceInfo");
  }

  PaStreamParameters input{};
  input.device = device;
  input.channelCount = 1;
  input.sampleFormat = paInt16;
  // The consumer works in 100 ms blocks, so a roomy device buffer costs
  // nothing and keeps a busy machine from overrunning it.
  input.suggestedLatency = info->defaultHighInputLatency;
  input.hostApiSpecificStreamInfo = nullptr;

  sink_ = std::move(sink);
  itemsDelivered_ = 0;
  sampleRate_ = format.sampleRate;
  ticksPerSecond_ = ticksPerSecond();

  PaStream* stream = nullptr;
  const PaError openError = Pa_OpenStream(&stream, &input, nullptr, format.sampleRate,
                                          format.itemsPerBlock, paClipOff, &streamCallback, this);
  if (openError != paNoError) return classify(openError, "Pa_OpenStream");
  stream_ = stream;

  // The first block's first item is captured as the stream starts.
  startTicks_ = monotonicTicks();
  const PaError startError = Pa_StartStream(stream_);
  if (startError != paNoError) return classify(startError, "Pa_StartStream");
  return TLRAudioStartResult::success();
}

void TLRPortAudioSource::stop() {
  if (stream_ != nullptr) {
    // Errors are of no use here: abort and close report success even when the
    // server is long gone.
    Pa_AbortStream(stream_);
    Pa_CloseStream(stream_);
    stream_ = nullptr;
  }
  if (holdsLibrary_) {
    releasePortAudio();
    holdsLibrary_ = false;
  }
}

int TLRPortAudioSource::streamCallback(const void* input, void*, unsigned long frameCount,
                                       const PaStreamCallbackTimeInfo*, PaStreamCallbackFlags,
                                       void* userData) {
  auto* self = static_cast<TLRPortAudioSource*>(userData);
  if (input != nullptr && frameCount > 0) {
    const double firstItemTicks = self->startTicks_ + static_cast<double>(self->itemsDelivered_) *
                                                          self->ticksPerSecond_ / self->sampleRate_;
    self->sink_(static_cast<const int16_t*>(input), static_cast<uint32_t>(frameCount),
                firstItemTicks);
  }
  self->itemsDelivered_ += frameCount;
  return paContinue;
}

TLRAudioSourceFactory portAudioSourceFactory() {
  return [] { return std::make_unique<TLRPortAudioSource>(); };
}

}  // namespace tellora
