// SPDX-License-Identifier: MIT
// The one kernel of the three products.
#pragma once

#include "matrix/layout.h"

namespace ox {

// Shape of a product: result [m x n], k terms an element.
struct Extent {
  std::ptrdiff_t m, n, k;
};

// A factor as the kernel sees it: element (r, c), whichever way the storage runs.
template <class T> struct Factor {
  const Stored<T>* data;
  std::ptrdiff_t row, col;
  T operator()(std::ptrdiff_t r, std::ptrdiff_t c) const { return data[r * row + c * col].value; }
};

template <class T> inline Factor<T> plain(const ox_mat_t& x) { return {scalars<T>(x), x.cols, 1}; }
template <class T> inline Factor<T> transposed(const ox_mat_t& x) { return {scalars<T>(x), 1, x.cols}; }

template <class T> inline Factor<T> factor(const ox_mat_t& x, bool transpose) {
  return transpose ? transposed<T>(x) : plain<T>(x);
}

// How the terms of an element are joined. first() is the running value after the term k = 0.
struct Product {
  static constexpr bool kHasAddend = false;
  // Stored, not added to zero: 0 + -0 is +0 and the sign would be lost.
  template <class T> static T first(T, T term) { return term; }
  template <class T> static T next(T sum, T term) { return add(sum, term); }
};
struct ProductPlus {
  static constexpr bool kHasAddend = true;
  template <class T> static T first(T c, T term) { return add(c, term); }
  template <class T> static T next(T sum, T term) { return add(sum, term); }
};
struct MinusProduct {
  static constexpr bool kHasAddend = true;
  template <class T> static T first(T c, T term) { return sub(c, term); }
  template <class T> static T next(T sum, T term) { return sub(sum, term); }
};

// dst(i, j) = Join over rising k of a(i, k) * b(k, j), from c(i, j) where there is an addend. dst may be c.
template <class Join, class T>
void product(const Extent& size, Factor<T> a, Factor<T> b, const Stored<T>* c, Stored<T>* dst) {
  for (std::ptrdiff_t i = 0; i < size.m; ++i) {
    for (std::ptrdiff_t j = 0; j < size.n; ++j) {
      const std::ptrdiff_t at = i * size.n + j;
      T sum = Join::kHasAddend ? c[at].value : T{0};
      if (size.k > 0) sum = Join::first(sum, mul(a(i, 0), b(0, j)));
      for (std::ptrdiff_t k = 1; k < size.k; ++k) sum = Join::next(sum, mul(a(i, k), b(k, j)));
      dst[at].value = sum;
    }
  }
}

}  // namespace ox
