// Eight frames at a time: 256-bit vectors. Compiled with -mavx2 (never FMA: a
// product is rounded before it is added) and called only on CPUs that have it.
#include "fingerprint/audiohash/frame_kernel_impl.h"

namespace tellora::audiohash {

bool computeFrameEnergiesAvx2(const HashTables& tables, const float* samples, int32_t F,
                              uint32_t step, float* const* frames) {
#if defined(TELLORA_KERNEL_AVX2)
  return FrameKernel<8>::run(tables, samples, F, step, frames);
#else
  return computeFrameEnergiesGeneric(tables, samples, F, step, frames);
#endif
}

}  // namespace tellora::audiohash
