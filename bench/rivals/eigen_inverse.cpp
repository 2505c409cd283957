// SPDX-License-Identifier: MIT
// Eigen's inverse of a matrix whose size it learns at run time: LU with partial pivoting, in single precision.
#include "rivals/eigen_map.h"

namespace bench {
namespace {

void inverse(const float* src, float* dst, long n) { out<float>(dst, n) = in<float>(src, n).inverse(); }

}  // namespace

void add_eigen_inverse(Author& author) { author.inverse = inverse; }

}  // namespace bench
