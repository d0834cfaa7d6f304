// Diagnostics that the audio libraries below PortAudio print on their own
// (ALSA's configuration probing, JACK's "server is not running"), sent to the
// SDK's debug log instead of the host's stderr. Nothing process-wide of the
// host is touched: no file descriptor, and no handler a host installed.
#pragma once

namespace tellora {

// Routes the chatter of the calls this thread makes into the audio libraries
// while it lives. Nests.
class AudioBackendChatterScope {
 public:
  AudioBackendChatterScope();
  ~AudioBackendChatterScope();
  AudioBackendChatterScope(const AudioBackendChatterScope&) = delete;
  AudioBackendChatterScope& operator=(const AudioBackendChatterScope&) = delete;

 private:
  void* previousAlsaHandler_ = nullptr;
};

// The same for the rest of the calling thread's life: for the backend's own
// callback thread, which the SDK does not start or end. Idempotent.
void routeAudioBackendChatterOnThisThread();

// JACK has only a process-wide error hook. While PortAudio is held, a
// forwarder sits in it: lines of threads inside a scope go to the debug log,
// every other thread's still reach the hook that was there before. Called
// under PortAudio's reference lock, on the first acquire and the last release.
void installJackForwarder();
void removeJackForwarder();

}  // namespace tellora
