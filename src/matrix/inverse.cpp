// SPDX-License-Identifier: MIT
// Inverse of a small matrix: Gauss-Jordan elimination on [A | I] in a static work area.
#include "kernels/kernels.h"

namespace {

// Rows 0 to 39 are the augmented matrix, row 40 is the temporary of a row exchange. Never cleared: when the
// last pivot is zero the row behind the matrix is taken as pivot row, whatever an earlier call left there.
ox::InverseWork work;

}  // namespace

int32_t ox_mat_inv(const ox_mat_t* src, ox_mat_t* dst) {
  if (src->type != dst->type) return -1;
  if (src->rows != dst->rows) return -1;
  if (src->type != OX_F32 || src->cols != dst->cols) return -1;
  const int32_t n = src->rows;
  if (n > ox::kMostInverse) return -1;
  if (n <= 0) return 0;
  ox::kernels().gauss_jordan(work, n, src->data, dst->data);
  return 0;
}
