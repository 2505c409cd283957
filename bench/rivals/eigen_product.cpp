// SPDX-License-Identifier: MIT
// Eigen's products and transposes; noalias, which spares it a temporary.
#include "rivals/eigen_map.h"

namespace bench {
namespace {

template <class T> void product(const void* a, const void* b, void* dst, long n) {
  out<T>(dst, n).noalias() = in<T>(a, n) * in<T>(b, n);
}
void product_ta(const void* a, const void* b, void* dst, long n) {
  out<float>(dst, n).noalias() = in<float>(a, n).transpose() * in<float>(b, n);
}
void product_tb(const void* a, const void* b, void* dst, long n) {
  out<float>(dst, n).noalias() = in<float>(a, n) * in<float>(b, n).transpose();
}
template <class T> void transpose(const void* src, void* dst, long n) {
  out<T>(dst, n) = in<T>(src, n).transpose();
}

}  // namespace

void add_eigen_products(Author& author) {
  author.product[kS8] = product<int8_t>;
  author.product[kS16] = product<int16_t>;
  author.product[kS32] = product<int32_t>;
  author.product[kF32] = product<float>;
  author.product_ta = product_ta;
  author.product_tb = product_tb;
  author.transpose[kU8] = transpose<uint8_t>;
  author.transpose[kF32] = transpose<float>;
}

}  // namespace bench
