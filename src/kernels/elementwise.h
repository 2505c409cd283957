// SPDX-License-Identifier: MIT
// The one loop of the element-wise routines and of the fill with ones.
#pragma once

#include "kernels/kernels.h"
#include "kernels/transpose.h"
#include "lanes/flush.h"

namespace ox {
namespace {

struct Add {
  template <class L> OX_INLINE typename L::Vec apply(typename L::Vec a, typename L::Vec b) const { return L::add(a, b); }
};
struct Sub {
  template <class L> OX_INLINE typename L::Vec apply(typename L::Vec a, typename L::Vec b) const { return L::sub(a, b); }
};
template <class T> struct Scale {
  T factor;
  template <class L> OX_INLINE typename L::Vec apply(typename L::Vec v) const { return L::mul(L::splat(factor), v); }
};
// On the bits of a float: adding the sign bit flips it, what is carried out is lost. NaNs keep their payload.
template <class T> struct FlipSign {
  template <class L> OX_INLINE typename L::Vec apply(typename L::Vec v) const {
    return L::add(v, L::splat(kSignBit<T>));
  }
};
template <class T> struct Negate {
  template <class L> OX_INLINE typename L::Vec apply(typename L::Vec v) const { return L::sub(L::splat(T{0}), v); }
};
template <class T> struct One {
  template <class L> OX_INLINE typename L::Vec apply() const { return L::splat(T{1}); }
};

constexpr int kUnrolled = 4;  // vectors a step, all loaded before the first is stored

// Whether steps of so many bytes give what the plain loop gives. In place they do, as a step loads before it stores. A
// destination below its source is written behind what is still to be read; above it, by less than a step, it is not.
OX_INLINE bool steps_allowed(const void* dst, const void* src, std::size_t step_bytes) {
  const auto above = reinterpret_cast<uintptr_t>(dst) - reinterpret_cast<uintptr_t>(src);
  return above == 0 || above >= step_bytes;
}

// One vector, and on to the next. NEON's loads and stores know no offset, but can move their pointer on. The compiler has
// them do so only where it cannot see how far apart the places are, else it adds each distance to the first one, and only
// where the load stands before the move.
template <class L, class T> OX_INLINE typename L::Vec take(const Stored<T>*& p) {
  auto v = L::load(p);
  p += L::kCount;
#if defined(__arm__) && defined(__ARM_NEON)
  asm("" : "+r"(p), "+w"(v));
#endif
  return v;
}
template <class L, class T> OX_INLINE void put(Stored<T>*& p, typename L::Vec v) {
  L::store(p, v);
  p += L::kCount;
#if defined(__arm__) && defined(__ARM_NEON)
  asm("" : "+r"(p));
#endif
}

template <class L, int kVectors, class T, class Op, class... Sources>
OX_INLINE void step(Stored<T>*& dst, const Op& op, Watch<L>& watch, const Sources*&... src) {
  constexpr std::ptrdiff_t kStep = kVectors * L::kCount;
  typename L::Vec v[kVectors];
#pragma GCC unroll 4
  for (int i = 0; i < kVectors; ++i) v[i] = op.template apply<L>(take<L>(src)...);
#pragma GCC unroll 4
  for (int i = 0; i < kVectors; ++i) watch.await(v[i]);
  if constexpr (L::kFlushes)
    if (watch.tripped()) {
      for (std::ptrdiff_t i = kStep; i > 0; --i, ++dst)
        dst->value = op.template apply<OneLane<T>>(src[-i].value...);
      return watch.clear();
    }
#pragma GCC unroll 4
  for (int i = 0; i < kVectors; ++i) put<L>(dst, v[i]);
}

// dst[i] = op(src[i]...), with the result of the plain loop in rising order whatever overlaps.
template <class T, class Op, class... Sources>
void each_scalar(std::ptrdiff_t count, Stored<T>* dst, Op op, const Sources*... src) {
  using L = NativeLanes<T>;
  constexpr std::ptrdiff_t kStep = kUnrolled * L::kCount;
  if (L::kCount > 1 && (... && steps_allowed(dst, src, kStep * sizeof(T)))) {
    Watch<L> watch;
    for (; count >= kStep; count -= kStep) step<L, kUnrolled>(dst, op, watch, src...);
    if (count == 0) return;
    for (; count >= L::kCount; count -= L::kCount) step<L, 1>(dst, op, watch, src...);
    if constexpr (L::kMasked) {
      if (count > 0) {
        const auto rest = L::mask(count);
        L::store(dst, op.template apply<L>(L::load(src, rest)...), rest);
      }
      return;
    }
  }
  for (; count > 0; --count, ++dst, (..., ++src)) dst->value = op.template apply<OneLane<T>>(src->value...);
}

template <class T> void add_each(const void* a, const void* b, void* dst, std::ptrdiff_t count) {
  each_scalar(count, out<T>(dst), Add{}, in<T>(a), in<T>(b));
}
template <class T> void sub_each(const void* a, const void* b, void* dst, std::ptrdiff_t count) {
  each_scalar(count, out<T>(dst), Sub{}, in<T>(a), in<T>(b));
}
// The factor is read once, before anything is stored: it may stand inside dst.
template <class T> void scale_each(const void* factor, const void* src, void* dst, std::ptrdiff_t count) {
  each_scalar(count, out<T>(dst), Scale<T>{in<T>(factor)->value}, in<T>(src));
}
template <class T> void negate_each(const void* src, void* dst, std::ptrdiff_t count) {
  using Bits = typename BitsOfSize<sizeof(T)>::type;
  if constexpr (kIsFloat<T>)
    each_scalar(count, out<Bits>(dst), FlipSign<Bits>{}, in<Bits>(src));
  else
    each_scalar(count, out<T>(dst), Negate<T>{}, in<T>(src));
}

// From here on, a little more than a first-level cache holds, fills by four vectors of 64 bytes a turn run at one of two
// speeds, most often at three quarters of the other; by one a turn almost always at the faster, if the loop lies in one
// line of the cache.
constexpr std::ptrdiff_t kOneVectorBytes = std::ptrdiff_t{52} * 1024;

template <class T> void fill_ones(void* dst, std::ptrdiff_t count);
template <class T> __attribute__((noinline)) void fill_by_one_vector(Stored<T>* dst, std::ptrdiff_t count) {
  using L = NativeLanes<T>;
  const auto ones = L::splat(T{1});
  asm(".p2align 6");
  for (; count >= L::kCount; count -= L::kCount, dst += L::kCount) L::store(dst, ones);
  fill_ones<T>(dst, count);
}

template <class T> void fill_ones(void* dst, std::ptrdiff_t count) {
  if constexpr (OX_LANE_BYTES == 64)
    if (count >= kOneVectorBytes / static_cast<std::ptrdiff_t>(sizeof(T)))
      return fill_by_one_vector(out<T>(dst), count);
  each_scalar(count, out<T>(dst), One<T>{});
}

}  // namespace
}  // namespace ox
