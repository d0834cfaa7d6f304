#include "audio/portaudio_library.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#ifdef TELLORA_HAVE_ALSA
#include <alsa/asoundlib.h>
#endif

namespace tellora {

namespace {

std::mutex libraryMutex;
int references = 0;  // guarded by libraryMutex

#ifdef TELLORA_HAVE_ALSA
// ALSA reports every configuration it probes and cannot find; none of it is
// ours to show.
void ignoreAlsaError(const char*, int, const char*, int, const char*, ...) {}
#endif

// Points fd 2 at /dev/null for its lifetime. The JACK client library prints
// its probing straight to fd 2, with no hook to silence it. Other threads'
// stderr output during those milliseconds is lost too; that is the price.
class StderrSilenced {
 public:
  StderrSilenced() {
    std::fflush(stderr);
    saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved_ < 0) return;  // no stderr to protect
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0 || dup2(null, STDERR_FILENO) < 0) {
      if (null >= 0) close(null);
      close(saved_);
      saved_ = -1;
      return;
    }
    close(null);
  }
  ~StderrSilenced() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  StderrSilenced(const StderrSilenced&) = delete;
  StderrSilenced& operator=(const StderrSilenced&) = delete;

 private:
  int saved_ = -1;
};

}  // namespace

PaError acquirePortAudio() {
  std::lock_guard lock(libraryMutex);
  if (references == 0) {
#ifdef TELLORA_HAVE_ALSA
    snd_lib_error_set_handler(&ignoreAlsaError);
#endif
    PaError error;
    {
      StderrSilenced silenced;
      error = Pa_Initialize();
    }
    if (error != paNoError) return error;
  }
  ++references;
  return paNoError;
}

void releasePortAudio() {
  std::lock_guard lock(libraryMutex);
  if (references == 0) return;
  if (--references == 0) Pa_Terminate();
}

}  // namespace tellora
