// SPDX-License-Identifier: MIT
// dst = -src, factor * src.
#include "kernels/kernels.h"
#include "matrix/layout.h"

void ox_mat_neg(const ox_mat_t* src, ox_mat_t* dst) {
  if (!ox::same_shape(*src, *dst)) return;
  const uint32_t depth = src->type & 7u;
  if (depth == OX_U8 || depth == OX_U16) return;  // an unsigned matrix has no negation: no error, no change
  ox::kernels().negate[depth](src->data, dst->data, ox::scalar_count(*src));
}

void ox_mat_scale(const void* factor, const ox_mat_t* src, ox_mat_t* dst) {
  if (!ox::same_shape(*src, *dst)) return;
  ox::kernels().scale[src->type & 7u](factor, src->data, dst->data, ox::scalar_count(*src));
}
