// SPDX-License-Identifier: MIT
// Opens the rivals. Each of them is a library of its own, whose symbols meet no other's.
#pragma once

#include <string>
#include <vector>

#include "rivals/rivals.h"

namespace bench {

// The module compiled for sse2, avx2, avx512 or native; null when this processor lacks the instructions.
const Rivals* rivals(const std::string& name);

// OpenBLAS on one thread. FORTRAN calls take every argument by address.
struct OpenBlas {
  std::string column;  // "openblas CORE"
  void (*sgemm)(int order, int transpose_a, int transpose_b, int m, int n, int k, float alpha, const float* a, int lda,
                const float* b, int ldb, float beta, float* c, int ldc);
  void (*sgetrf)(const int* m, const int* n, float* a, const int* lda, int* pivots, int* info);
  void (*sgetri)(const int* n, float* a, const int* lda, const int* pivots, float* work, const int* work_count,
                 int* info);
};

// As it chooses its kernels by itself, and, where the processor has AVX-512 and it does not know that, made to use it.
const std::vector<OpenBlas>& openblas();

}  // namespace bench
