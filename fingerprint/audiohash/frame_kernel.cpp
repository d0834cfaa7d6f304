#include "fingerprint/audiohash/frame_kernel.h"

namespace tellora::audiohash {

bool cpuHasAvx2() {
#if defined(TELLORA_KERNEL_AVX2)
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
#else
  return false;
#endif
}

bool computeFrameEnergies(const HashTables& tables, const float* samples, int32_t F, uint32_t step,
                          float* const* frames) {
  if (cpuHasAvx2()) return computeFrameEnergiesAvx2(tables, samples, F, step, frames);
  return computeFrameEnergiesGeneric(tables, samples, F, step, frames);
}

}  // namespace tellora::audiohash
