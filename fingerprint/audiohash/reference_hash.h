// The audio hash computed the straightforward way: one frame at a time through
// libkissfft, powers by pow(), plain loops. The fast path must match it bit for
// bit; tests and the benchmark hold it to that. Also serves the rare state that
// is hashed a second time, whose transform degenerates to the identity.
#pragma once

#include <cstdint>

#include "tellora/audiohash.h"

namespace tellora::audiohash {

// Band energies of the frame at `samples` (N items). `fft` is a kiss_fftr_cfg for
// N points, or null for the identity transform. frame and split hold N floats,
// mag N/2 (its bin N/2 - 2 is left as it is), spectrum N/2 + 1 complex pairs.
void referenceFrameEnergies(const float* samples, uint32_t N, const float* window,
                            float* const* wts, void* fft, float* frame, float* split, float* mag,
                            float* spectrum, float* energies);

// audiohash() by the straightforward path, with tables of its own.
int32_t referenceAudiohash(const float* samples, uint32_t nbsamples, hashres* hash, int32_t P,
                           int32_t sr);

}  // namespace tellora::audiohash
