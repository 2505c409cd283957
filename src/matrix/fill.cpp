// SPDX-License-Identifier: MIT
// Fills: zero, one, identity, diagonal.
#include <cstring>

#include "matrix/layout.h"

namespace ox {
namespace {

template <class T> void fill_ones(const ox_mat_t& m) {
  Stored<T>* const p = scalars<T>(m);
  const std::ptrdiff_t count = scalar_count(m);
  for (std::ptrdiff_t i = 0; i < count; ++i) p[i].value = 1;
}

// Writes value(i) at (i, i) and zero elsewhere, in one walk over packed elements. The first diagonal value
// is written before any size is looked at, and a grid without rows receives cols zeros: wanted, and said in
// the header. Index arithmetic in 64 bits, as rows * cols of a large byte matrix passes 2^31.
template <class T, class Value> void fill_diagonal(const ox_mat_t& m, Value value) {
  const auto element = static_cast<std::ptrdiff_t>(channels(m.type));
  Stored<T>* p = scalars<T>(m);
  const auto put = [&](T v) {
    p->value = v;
    p += element;
  };
  const int64_t rows = m.rows, cols = m.cols;
  const int64_t n = rows < cols ? rows : cols;
  put(value(0));
  for (int64_t i = 1; i < n; ++i) {
    // Between two diagonal places of a packed grid lie exactly cols elements.
    for (int64_t j = 0; j < cols; ++j) put(0);
    put(value(i));
  }
  for (int64_t k = n * (cols + 1) - cols; k < rows * cols; ++k) put(0);
}

}  // namespace
}  // namespace ox

void ox_mat_setzero(ox_mat_t* m) {
  // One negative factor would make a length near 4 GiB.
  if ((m->rows < 0) != (m->step < 0)) return;
  std::memset(m->data, 0, static_cast<uint32_t>(m->rows) * static_cast<uint32_t>(m->step));
}

void ox_mat_setone(ox_mat_t* m) {
  ox::with_depth(m->type, [&](auto zero) { ox::fill_ones<decltype(zero)>(*m); });
}

void ox_mat_setidentity(ox_mat_t* m) {
  ox::with_depth(m->type, [&](auto zero) {
    using T = decltype(zero);
    ox::fill_diagonal<T>(*m, [](int64_t) { return T{1}; });
  });
}

void ox_mat_setdiagonal(const void* values, ox_mat_t* m) {
  ox::with_depth(m->type, [&](auto zero) {
    using T = decltype(zero);
    const auto* v = static_cast<const ox::Stored<T>*>(values);
    ox::fill_diagonal<T>(*m, [v](int64_t i) { return v[i].value; });
  });
}
