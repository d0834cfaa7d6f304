#include "audio/portaudio_start_errors.h"

#include <cerrno>

namespace tellora {

// Linux has no record-permission prompt. The one refusal that can be told
// apart is the kernel's (or a sandbox's, e.g. AppArmor or seccomp) EACCES or
// EPERM when the device node is opened, which ALSA and OSS pass up as a
// negative errno. Everything else is worth another try: a device that is
// busy (paDeviceUnavailable, EBUSY), one that vanished or is not listed yet
// (paInvalidDevice, no device at all while the sound server starts), a server
// that refused for a moment. A sound server's own refusals reach ALSA as EIO
// and are retried too: they cannot be told apart from its other failures.
TLRAudioStartResult classifyPortAudioFailure(PaError error, const PaHostErrorInfo* host,
                                             std::string routine) {
  if (error == paUnanticipatedHostError && host != nullptr &&
      (host->hostApiType == paALSA || host->hostApiType == paOSS)) {
    const long code = host->errorCode < 0 ? -host->errorCode : host->errorCode;
    if (code == EACCES || code == EPERM)
      return TLRAudioStartResult::notPermitted(error, std::move(routine));
  }
  return TLRAudioStartResult::failure(error, std::move(routine));
}

}  // namespace tellora
