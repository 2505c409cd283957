// SPDX-License-Identifier: MIT
// dst = a * b, a^T * b or a * b^T.
#include "matrix/product.h"

namespace {

// Each form stands alone, with few registers to save: to multiply small matrices takes no longer than to find out how.
template <bool kTransposeA, bool kTransposeB>
OX_INLINE void multiply(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) {
  const int32_t m = kTransposeA ? a->cols : a->rows;
  const int32_t k = kTransposeA ? a->rows : a->cols;
  const int32_t n = kTransposeB ? b->rows : b->cols;
  if (!OX_USUALLY((kTransposeB ? b->cols : b->rows) == k && dst->rows == m && dst->cols == n)) return;
  ox::product(*a, kTransposeA, *b, kTransposeB, nullptr, *dst, {m, n, k}, false);
}

__attribute__((noinline)) void multiply_transposed_a(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) {
  multiply<true, false>(a, b, dst);
}
__attribute__((noinline)) void multiply_transposed_b(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) {
  multiply<false, true>(a, b, dst);
}

}  // namespace

void ox_mat_mul(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst, uint32_t flags) {
  if (!OX_USUALLY(!(a->type & ox::kChannelField) && b->type == a->type && dst->type == a->type)) return;
  if (flags & OX_MAT_TRANSPOSE_A) return multiply_transposed_a(a, b, dst);
  if (flags & OX_MAT_TRANSPOSE_B) return multiply_transposed_b(a, b, dst);
  multiply<false, false>(a, b, dst);
}
