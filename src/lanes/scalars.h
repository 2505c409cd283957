// SPDX-License-Identifier: MIT
// The scalar types, once: what a matrix stores, how it is reached, how it is computed with.
#pragma once

#include <cstddef>

#include "lanes/rounding.h"
#include "ox.h"

// Forced, so that no copy of a shared function is left behind by a source that is compiled for a wider instruction set.
#define OX_INLINE inline __attribute__((always_inline))

namespace ox {

// Each depth is computed in one of six types. Signed and unsigned integers of one width wrap to the same bits, so the
// unsigned type serves both and no signed arithmetic, whose overflow is undefined, occurs anywhere. Here is one depth of
// each type, to find it in a table by.
template <class T> inline constexpr uint32_t kDepthOf = OX_U8;
template <> inline constexpr uint32_t kDepthOf<uint16_t> = OX_U16;
template <> inline constexpr uint32_t kDepthOf<uint32_t> = OX_S32;
template <> inline constexpr uint32_t kDepthOf<uint64_t> = OX_S64;
template <> inline constexpr uint32_t kDepthOf<float> = OX_F32;
template <> inline constexpr uint32_t kDepthOf<double> = OX_F64;

// A scalar inside a matrix. Callers store int32_t, float, int64_t ... there, so the access may alias them all;
// an 8-byte scalar behind the 20-byte header of a 32-bit build is aligned to 4 only.
template <class T>
struct __attribute__((packed, may_alias, aligned(sizeof(T) < 4 ? sizeof(T) : 4))) Stored {
  T value;
};

template <class T> OX_INLINE const Stored<T>* in(const void* p) { return static_cast<const Stored<T>*>(p); }
template <class T> OX_INLINE Stored<T>* out(void* p) { return static_cast<Stored<T>*>(p); }

// Arithmetic of one scalar. Narrow unsigned types would be promoted to int, where 65535 * 65535 overflows.
template <class T> struct Wide { using type = unsigned; };
template <> struct Wide<uint64_t> { using type = uint64_t; };
template <> struct Wide<float> { using type = float; };
template <> struct Wide<double> { using type = double; };

template <class T> constexpr bool kIsFloat = static_cast<T>(0.5) != 0;
// The sign of a scalar, in the unsigned type of its size.
template <class Bits> constexpr Bits kSignBit = static_cast<Bits>(Bits{1} << (8 * sizeof(Bits) - 1));

template <class T> OX_INLINE T add(T a, T b) {
  using W = typename Wide<T>::type;
  return static_cast<T>(static_cast<W>(a) + static_cast<W>(b));
}
template <class T> OX_INLINE T sub(T a, T b) {
  using W = typename Wide<T>::type;
  return static_cast<T>(static_cast<W>(a) - static_cast<W>(b));
}
template <class T> OX_INLINE T mul(T a, T b) {
  using W = typename Wide<T>::type;
  return static_cast<T>(static_cast<W>(a) * static_cast<W>(b));
}

// Calls f with a zero of the type that a type word's scalars are computed in.
template <class F> inline void with_depth(uint32_t type, F&& f) {
  switch (type & 7u) {
    case OX_U8:
    case OX_S8: return f(uint8_t{});
    case OX_U16:
    case OX_S16: return f(uint16_t{});
    case OX_S32: return f(uint32_t{});
    case OX_F32: return f(float{});
    case OX_S64: return f(uint64_t{});
    default: return f(double{});  // OX_F64
  }
}

}  // namespace ox
