// PortAudio initialised once per process, shared by every PortAudio source.
#pragma once

#include <portaudio.h>

namespace tellora {

// Takes a reference on PortAudio, initialising it on the first one. The probing
// that Pa_Initialize prints (ALSA and JACK, some eighty lines) goes to the
// debug log (audio/backend_chatter.h). Returns paNoError or Pa_Initialize's error; only a
// successful call must be paired with releasePortAudio(). Thread-safe.
PaError acquirePortAudio();
// Drops a reference; the last one terminates PortAudio, so that the next
// acquire scans the devices again (a sound server that came up meanwhile).
void releasePortAudio();

}  // namespace tellora
