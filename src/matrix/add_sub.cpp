// SPDX-License-Identifier: MIT
// dst = a + b, a - b.
#include "kernels/kernels.h"
#include "matrix/layout.h"

void ox_mat_add(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) {
  if (!ox::same_shape(*a, *b) || !ox::same_shape(*dst, *a)) return;
  ox::kernels().add[a->type & 7u](a->data, b->data, dst->data, ox::scalar_count(*a));
}

void ox_mat_sub(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) {
  if (!ox::same_shape(*a, *b) || !ox::same_shape(*dst, *a)) return;
  ox::kernels().sub[a->type & 7u](a->data, b->data, dst->data, ox::scalar_count(*a));
}
