#include "audio/portaudio_library.h"

#include <mutex>

#include "audio/backend_chatter.h"

namespace tellora {

namespace {

std::mutex libraryMutex;
int references = 0;  // guarded by libraryMutex

}  // namespace

PaError acquirePortAudio() {
  std::lock_guard lock(libraryMutex);
  if (references == 0) {
    installJackForwarder();
    PaError error;
    {
      AudioBackendChatterScope chatter;
      error = Pa_Initialize();
    }
    if (error != paNoError) {
      removeJackForwarder();
      return error;
    }
  }
  ++references;
  return paNoError;
}

void releasePortAudio() {
  std::lock_guard lock(libraryMutex);
  if (references == 0) return;
  if (--references == 0) {
    {
      AudioBackendChatterScope chatter;
      Pa_Terminate();
    }
    removeJackForwarder();
  }
}

}  // namespace tellora
