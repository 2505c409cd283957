// SPDX-License-Identifier: MIT
// From headers to the kernel of the three products.
#pragma once

#include <cstring>

#include "kernels/kernels.h"
#include "matrix/layout.h"

namespace ox {

// Shape of a product: result [m x n], k terms an element.
struct Extent {
  int32_t m, n, k;
};

// No terms: the addend alone, or zeros. The factors may have no storage at all.
__attribute__((noinline)) inline void sum_without_terms(const ox_mat_t* c, const ox_mat_t& dst, Extent size) {
  const std::size_t bytes = static_cast<std::size_t>(size.m) * static_cast<std::size_t>(size.n) * scalar_size(dst.type);
  if (c)
    std::memmove(dst.data, c->data, bytes);
  else
    std::memset(dst.data, 0, bytes);
}

// dst = c + or - a * b with either factor transposed; without c the products alone. A transposed factor is the same
// storage with its strides exchanged.
inline void product(const ox_mat_t& a, bool a_transposed, const ox_mat_t& b, bool b_transposed, const ox_mat_t* c,
                    const ox_mat_t& dst, Extent size, bool subtract) {
  if (size.m <= 0 || size.n <= 0) return;
  if (size.k <= 0) return sum_without_terms(c, dst, size);
  ProductArgs p;
  p.m = size.m;
  p.n = size.n;
  p.k = size.k;
  p.a = a.data;
  p.a_row = a_transposed ? 1 : a.cols;
  p.a_col = a_transposed ? a.cols : 1;
  p.b = b.data;
  p.b_row = b_transposed ? 1 : b.cols;
  p.b_col = b_transposed ? b.cols : 1;
  p.c = c ? c->data : nullptr;
  p.dst = dst.data;
  p.subtract = subtract;
  kernels().product[a.type & 7u](p);
}

}  // namespace ox
