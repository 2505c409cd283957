// SPDX-License-Identifier: MIT
// dst = a * b, a^T * b or a * b^T.
#include "matrix/product.h"

void ox_mat_mul(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst, uint32_t flags) {
  if (a->type & ox::kChannelField) return;
  if (b->type != a->type || dst->type != a->type) return;
  const bool a_transposed = flags & OX_MAT_TRANSPOSE_A;
  const bool b_transposed = !a_transposed && (flags & OX_MAT_TRANSPOSE_B);
  const int32_t m = a_transposed ? a->cols : a->rows;
  const int32_t k = a_transposed ? a->rows : a->cols;
  const int32_t n = b_transposed ? b->rows : b->cols;
  if ((b_transposed ? b->cols : b->rows) != k || dst->rows != m || dst->cols != n) return;
  ox::product(*a, a_transposed, *b, b_transposed, nullptr, *dst, {m, n, k}, false);
}
