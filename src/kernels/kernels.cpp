// SPDX-License-Identifier: MIT
// The choice of a width: once, when the library is loaded. What all widths share.
#include "kernels/kernels.h"

namespace ox {

const float kIdentity[kStates][kStates] = {
    {1, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0, 0, 0}, {0, 0, 1, 0, 0, 0, 0, 0}, {0, 0, 0, 1, 0, 0, 0, 0},
    {0, 0, 0, 0, 1, 0, 0, 0}, {0, 0, 0, 0, 0, 1, 0, 0}, {0, 0, 0, 0, 0, 0, 1, 0}, {0, 0, 0, 0, 0, 0, 0, 1}};

}  // namespace ox

#if defined(__x86_64__)

namespace ox {

const Kernels* chosen_kernels = &kernels_16;

const Kernels* kernels_of(int bytes) {
  __builtin_cpu_init();
  if (bytes >= 64 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
    return &kernels_64;
  if (bytes >= 32 && __builtin_cpu_supports("avx2")) return &kernels_32;
  return &kernels_16;
}

namespace {

// A call from another constructor that runs before this one finds the narrowest width: the same bits, only slower.
__attribute__((constructor)) void choose() { chosen_kernels = kernels_of(64); }

}  // namespace
}  // namespace ox

#endif
