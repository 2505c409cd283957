// SPDX-License-Identifier: MIT
// The hook of the tests: the kernels for vectors of so many bytes, or of fewer where the processor has no such vectors.
// Where a build emulates 64 bytes, the library itself takes them only on a processor that has such vectors.
#pragma once

#include "kernels/kernels.h"

#if defined(__x86_64__)
inline const ox::Kernels* kernels_for_test(int bytes) {
#if defined(OX_EMULATE_64)
  if (bytes == 64 && ox::kernels_of(32)->bytes == 32) return &ox::kernels_64;
#endif
  return ox::kernels_of(bytes);
}
#endif
