// Four frames at a time: 128-bit vectors, available on every x86-64 and ARM64.
#include "fingerprint/audiohash/frame_kernel_impl.h"

namespace tellora::audiohash {

bool computeFrameEnergiesGeneric(const HashTables& tables, const float* samples, int32_t F,
                                 uint32_t step, float* const* frames) {
  return FrameKernel<4>::run(tables, samples, F, step, frames);
}

}  // namespace tellora::audiohash
