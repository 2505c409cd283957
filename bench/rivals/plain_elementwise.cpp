// SPDX-License-Identifier: MIT
#include "rivals/authors.h"

namespace bench {
namespace {

template <class T> void add(const void* pa, const void* pb, void* pdst, long count) {
  const T* a = static_cast<const T*>(pa);
  const T* b = static_cast<const T*>(pb);
  T* __restrict dst = static_cast<T*>(pdst);
  for (long i = 0; i < count; ++i) dst[i] = static_cast<T>(a[i] + b[i]);
}
template <class T> void scale(const void* pa, const void* pb, void* pdst, long count) {
  const T* a = static_cast<const T*>(pa);
  const T factor = *static_cast<const T*>(pb);
  T* __restrict dst = static_cast<T*>(pdst);
  for (long i = 0; i < count; ++i) dst[i] = static_cast<T>(factor * a[i]);
}
template <class T> void negate(const void* pa, const void*, void* pdst, long count) {
  const T* a = static_cast<const T*>(pa);
  T* __restrict dst = static_cast<T*>(pdst);
  for (long i = 0; i < count; ++i) dst[i] = static_cast<T>(-a[i]);
}
template <class T> void set_one(const void*, const void*, void* pdst, long count) {
  T* dst = static_cast<T*>(pdst);
  for (long i = 0; i < count; ++i) dst[i] = 1;
}

template <class T> void add_depth(Author& author, Depth depth) {
  author.add[depth] = add<T>;
  author.scale[depth] = scale<T>;
  author.negate[depth] = negate<T>;
  author.set_one[depth] = set_one<T>;
}

}  // namespace

void add_plain_elementwise(Author& author) {
  add_depth<uint8_t>(author, kU8);
  add_depth<int16_t>(author, kS16);
  add_depth<int32_t>(author, kS32);
  add_depth<float>(author, kF32);
  add_depth<double>(author, kF64);
}

}  // namespace bench
