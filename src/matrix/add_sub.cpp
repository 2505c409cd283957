// SPDX-License-Identifier: MIT
// dst = a + b, a - b.
#include "matrix/elementwise.h"

namespace ox {
namespace {

struct Add {
  template <class T> T operator()(T a, T b) const { return add(a, b); }
};
struct Sub {
  template <class T> T operator()(T a, T b) const { return sub(a, b); }
};

template <class Op> void binary(const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t& dst) {
  if (!same_shape(a, b) || !same_shape(dst, a)) return;
  with_depth(a.type, [&](auto zero) {
    using T = decltype(zero);
    each_scalar<T>(scalar_count(a), scalars<T>(dst), Op{}, scalars<T>(a), scalars<T>(b));
  });
}

}  // namespace
}  // namespace ox

void ox_mat_add(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) { ox::binary<ox::Add>(*a, *b, *dst); }
void ox_mat_sub(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) { ox::binary<ox::Sub>(*a, *b, *dst); }
