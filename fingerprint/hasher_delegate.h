// What the hasher tells the session above it.
#pragma once

#include <string>

namespace tellora {

// Receives fingerprints on the SDK's loop.
class TLRHasherDelegate {
 public:
  virtual ~TLRHasherDelegate() = default;
  // `fingerprint` is the Base64 of one part's hash words; the times are
  // wall-clock milliseconds since 1970: `endTime` that of the first item that
  // did not fit into the part, `startTime` the part's length before it.
  virtual void fingerprintGenerated(const std::string& fingerprint, double startTime,
                                    double endTime) = 0;
};

}  // namespace tellora
