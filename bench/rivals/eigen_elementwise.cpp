// SPDX-License-Identifier: MIT
#include "rivals/eigen_map.h"

namespace bench {
namespace {

template <class T> using InRow = Eigen::Map<const Eigen::Array<T, 1, Eigen::Dynamic>, Eigen::Aligned64>;
template <class T> using OutRow = Eigen::Map<Eigen::Array<T, 1, Eigen::Dynamic>, Eigen::Aligned64>;

template <class T> InRow<T> row(const void* p, long count) { return InRow<T>(static_cast<const T*>(p), count); }
template <class T> OutRow<T> row(void* p, long count) { return OutRow<T>(static_cast<T*>(p), count); }

template <class T> void add(const void* a, const void* b, void* dst, long count) {
  row<T>(dst, count) = row<T>(a, count) + row<T>(b, count);
}
template <class T> void scale(const void* a, const void* b, void* dst, long count) {
  row<T>(dst, count) = *static_cast<const T*>(b) * row<T>(a, count);
}
template <class T> void negate(const void* a, const void*, void* dst, long count) {
  row<T>(dst, count) = -row<T>(a, count);
}
template <class T> void set_one(const void*, const void*, void* dst, long count) {
  row<T>(dst, count).setOnes();
}

template <class T> void add_depth(Author& author, Depth depth) {
  author.add[depth] = add<T>;
  author.scale[depth] = scale<T>;
  author.negate[depth] = negate<T>;
  author.set_one[depth] = set_one<T>;
}

}  // namespace

void add_eigen_elementwise(Author& author) {
  add_depth<uint8_t>(author, kU8);
  add_depth<int16_t>(author, kS16);
  add_depth<int32_t>(author, kS32);
  add_depth<float>(author, kF32);
  add_depth<double>(author, kF64);
}

}  // namespace bench
