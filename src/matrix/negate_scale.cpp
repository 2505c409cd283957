// SPDX-License-Identifier: MIT
// dst = -src, factor * src.
#include "matrix/elementwise.h"

namespace ox {
namespace {

// Negation looks at bits only: integers of one width wrap alike, and a float flips its sign bit, which keeps the
// payload of a NaN on every machine. So it runs on the unsigned type of the width.
template <class T> struct Bits { using type = T; };
template <> struct Bits<float> { using type = uint32_t; };
template <> struct Bits<double> { using type = uint64_t; };

}  // namespace
}  // namespace ox

void ox_mat_neg(const ox_mat_t* src, ox_mat_t* dst) {
  using namespace ox;
  if (!same_shape(*src, *dst)) return;
  const uint32_t depth_code = src->type & 7u;
  if (depth_code == OX_U8 || depth_code == OX_U16) return;  // an unsigned matrix has no negation: no error, no change
  with_depth(src->type, [&](auto zero) {
    using T = decltype(zero);
    using B = typename Bits<T>::type;
    constexpr bool is_float = static_cast<T>(0.5) != 0;
    constexpr B sign = static_cast<B>(B{1} << (8 * sizeof(B) - 1));
    each_scalar<B>(
        scalar_count(*src), scalars<B>(*dst),
        [](B v) { return is_float ? static_cast<B>(v ^ sign) : sub(B{0}, v); }, scalars<B>(*src));
  });
}

void ox_mat_scale(const void* factor, const ox_mat_t* src, ox_mat_t* dst) {
  using namespace ox;
  if (!same_shape(*src, *dst)) return;
  with_depth(src->type, [&](auto zero) {
    using T = decltype(zero);
    // Read once: the factor may stand inside dst.
    const T f = static_cast<const Stored<T>*>(factor)->value;
    each_scalar<T>(scalar_count(*src), scalars<T>(*dst), [f](T v) { return mul(f, v); }, scalars<T>(*src));
  });
}
