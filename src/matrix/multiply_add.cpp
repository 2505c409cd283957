// SPDX-License-Identifier: MIT
// dst = a * b + c, a * b^T + c, c - a * b, I - a * b.
#include "matrix/product.h"

void ox_mat_muladd(const ox_mat_t* a, const ox_mat_t* b, const ox_mat_t* c, ox_mat_t* dst, uint32_t flags) {
  if (a->type & ox::kChannelField) return;
  if (b->type != a->type || c->type != a->type || dst->type != a->type) return;
  const bool b_transposed = flags & OX_MAT_TRANSPOSE_B;
  const int32_t n = b_transposed ? b->rows : b->cols;
  if (a->cols != (b_transposed ? b->cols : b->rows)) return;
  if (c->rows != a->rows || c->cols != n || dst->rows != a->rows || dst->cols != n) return;
  ox::product(*a, false, *b, b_transposed, c, *dst, {a->rows, n, a->cols}, false);
}

void ox_mat_submul(const ox_mat_t* c, const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst, uint32_t flags) {
  if (a->type & ox::kChannelField) return;
  if (c && c->type != a->type) return;
  if (b->type != a->type || dst->type != a->type) return;
  if (a->cols != b->rows || dst->rows != a->rows || dst->cols != b->cols) return;
  if (flags & OX_MAT_IDENTITY_C) {
    ox_mat_setidentity(dst);
    c = dst;
  } else if (c->rows != a->rows || c->cols != b->cols) {  // NOLINT(clang-analyzer-core.NullDereference): not null here
    return;
  }
  ox::product(*a, false, *b, false, c, *dst, {a->rows, b->cols, a->cols}, true);
}
