// Band energies of every analysis frame of a buffer: the hot loop of the hash.
#pragma once

#include <cstdint>

#include "fingerprint/audiohash/hash_tables.h"

namespace tellora::audiohash {

// Fills frames[k][0..32] for k in [0, F): the band energies of the frame that
// starts at sample k * step. Bit-identical to computing each frame alone with
// libkissfft (see reference_hash.h); frames run several at a time, one per
// vector lane, with the widest vectors the CPU offers. Returns false when
// scratch memory cannot be allocated.
bool computeFrameEnergies(const HashTables& tables, const float* samples, int32_t F, uint32_t step,
                          float* const* frames);

// The kernels behind it, one per instruction set (for tests and benchmarks).
bool computeFrameEnergiesGeneric(const HashTables& tables, const float* samples, int32_t F,
                                 uint32_t step, float* const* frames);
bool computeFrameEnergiesAvx2(const HashTables& tables, const float* samples, int32_t F,
                              uint32_t step, float* const* frames);
bool cpuHasAvx2();

}  // namespace tellora::audiohash
