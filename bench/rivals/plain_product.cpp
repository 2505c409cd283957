// SPDX-License-Identifier: MIT
// Plain loops, in the order that a compiler can vectorise without changing a sum.
#include "rivals/authors.h"

namespace bench {
namespace {

template <class T> void product(const void* pa, const void* pb, void* pdst, long n) {
  const T* a = static_cast<const T*>(pa);
  const T* b = static_cast<const T*>(pb);
  T* __restrict dst = static_cast<T*>(pdst);
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < n; ++j) dst[i * n + j] = 0;
    for (long k = 0; k < n; ++k)
      for (long j = 0; j < n; ++j) dst[i * n + j] = static_cast<T>(dst[i * n + j] + a[i * n + k] * b[k * n + j]);
  }
}

void product_ta(const void* pa, const void* pb, void* pdst, long n) {
  const float* a = static_cast<const float*>(pa);
  const float* b = static_cast<const float*>(pb);
  float* __restrict dst = static_cast<float*>(pdst);
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < n; ++j) dst[i * n + j] = 0;
    for (long k = 0; k < n; ++k)
      for (long j = 0; j < n; ++j) dst[i * n + j] += a[k * n + i] * b[k * n + j];
  }
}

// Rows meet rows: each sum runs along the vectors and stays scalar.
void product_tb(const void* pa, const void* pb, void* pdst, long n) {
  const float* a = static_cast<const float*>(pa);
  const float* b = static_cast<const float*>(pb);
  float* __restrict dst = static_cast<float*>(pdst);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) {
      float sum = 0;
      for (long k = 0; k < n; ++k) sum += a[i * n + k] * b[j * n + k];
      dst[i * n + j] = sum;
    }
}

}  // namespace

void add_plain_products(Author& author) {
  author.product[kS8] = product<int8_t>;
  author.product[kS16] = product<int16_t>;
  author.product[kS32] = product<int32_t>;
  author.product[kF32] = product<float>;
  author.product_ta = product_ta;
  author.product_tb = product_tb;
}

}  // namespace bench
