// What a failed PortAudio start means to the recorder: a refused permission
// (error 101, no retry) or anything else (retried).
#pragma once

#include <portaudio.h>

#include <string>

#include "tellora/audio_source.h"

namespace tellora {

// `host` is Pa_GetLastHostErrorInfo() for paUnanticipatedHostError, else unused.
TLRAudioStartResult classifyPortAudioFailure(PaError error, const PaHostErrorInfo* host,
                                             std::string routine);

}  // namespace tellora
