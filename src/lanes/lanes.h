// SPDX-License-Identifier: MIT
// Vectors of one width behind a small interface: no algorithm here, and no instruction set in a kernel.
//
// Included by each width's source, which sets OX_LANE_BYTES. Everything is in an unnamed namespace: what is compiled
// for a wider instruction set can never stand in for its namesake elsewhere.
#pragma once

#include "lanes/scalars.h"

#if defined(__ARM_NEON) && defined(__arm__)
#include <arm_neon.h>
#endif
#if OX_LANE_BYTES > 16
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ox {
namespace {

#if OX_LANE_BYTES == 64 || defined(__aarch64__)
constexpr int kVectorRegisters = 32;
#elif defined(__i386__)
constexpr int kVectorRegisters = 8;
#else
constexpr int kVectorRegisters = 16;
#endif

// What a vector without masks says of a row's last part: nothing, it is taken whole.
struct NoMask {};

// What every set of lanes has beside its elements: the running sums of a product, plain vectors as a rule.
template <class L, class T, class V> struct PlainSums {
  using Sum = V;
  using Factor = V;
  static constexpr int kRegistersPerSum = 1;
  static OX_INLINE Sum start(V c) { return c; }
  static OX_INLINE V finish(Sum s) { return s; }
  static OX_INLINE Factor factor(T x) { return L::splat(x); }
  // Whether a factor can be a lane: then FourFactors are four that stand side by side, as load_factors brings them.
  static constexpr bool kByLane = false;
  static OX_INLINE Sum mul_add(Sum s, Factor a, V b) { return L::add(s, L::mul(a, b)); }
};

// One scalar as a vector of one lane: types the machine has no vectors for.
template <class T> struct OneLane : PlainSums<OneLane<T>, T, T> {
  using Scalar = T;
  using Vec = T;
  static constexpr std::ptrdiff_t kCount = 1;
  static constexpr bool kMasked = false, kFlushes = false;
  using Mask = NoMask;
  static OX_INLINE Mask mask(std::ptrdiff_t) { return {}; }
  static OX_INLINE Vec load(const Stored<T>* p) { return p->value; }
  static OX_INLINE Vec load(const Stored<T>* p, Mask) { return p->value; }
  static OX_INLINE void store(Stored<T>* p, Vec v) { p->value = v; }
  static OX_INLINE void store(Stored<T>* p, Vec v, Mask) { p->value = v; }
  static OX_INLINE Vec splat(T x) { return x; }
  static OX_INLINE Vec add(Vec a, Vec b) { return ox::add(a, b); }
  static OX_INLINE Vec sub(Vec a, Vec b) { return ox::sub(a, b); }
  static OX_INLINE Vec mul(Vec a, Vec b) { return ox::mul(a, b); }
};

#if !defined(__arm__)
// Floats as doubles. Left to the conversion of vectors, gcc 12 takes wide ones apart: four instructions instead of one.
template <class To, class From> OX_INLINE To to_doubles(From v) {
#if OX_LANE_BYTES > 16
  if constexpr (sizeof(To) == 32) return (To)_mm256_cvtps_pd((__m128)v);
#endif
#if OX_LANE_BYTES == 64 && !defined(OX_EMULATE_64)
  if constexpr (sizeof(To) == 64) return (To)_mm512_maskz_cvtps_pd(0xFF, (__m256)v);
#endif
  return __builtin_convertvector(v, To);
}
#endif

#if defined(__SSE2__)
typedef double TwoDoubles __attribute__((vector_size(16)));
// Rounded to floats and back. The compiler's own conversions clear what is behind two floats, or take doubles for four.
OX_INLINE TwoDoubles through_floats(TwoDoubles v) { return (TwoDoubles)_mm_cvtps_pd(_mm_cvtpd_ps((__m128d)v)); }
#endif
#if OX_LANE_BYTES == 32
typedef double FourDoubles __attribute__((vector_size(32)));
OX_INLINE FourDoubles side_by_side(TwoDoubles low, TwoDoubles high) {
  return (FourDoubles)_mm256_insertf128_pd(_mm256_castpd128_pd256((__m128d)low), (__m128d)high, 1);
}
#endif

// The compiler's own vectors, of Bytes bytes.
template <class T, int Bytes> struct CompilerLanes {
  using Scalar = T;
  typedef T Vec __attribute__((vector_size(Bytes)));
  static constexpr std::ptrdiff_t kCount = Bytes / static_cast<int>(sizeof(T));
  static constexpr bool kMasked = false, kFlushes = false;
  using Mask = NoMask;
  static OX_INLINE Mask mask(std::ptrdiff_t) { return {}; }
  static OX_INLINE Vec load(const Stored<T>* p) {
    Vec v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
  }
  static OX_INLINE Vec load(const Stored<T>* p, Mask) { return load(p); }
  static OX_INLINE void store(Stored<T>* p, Vec v) { __builtin_memcpy(p, &v, sizeof v); }
  static OX_INLINE void store(Stored<T>* p, Vec v, Mask) { store(p, v); }
  static OX_INLINE Vec splat(T x) {
#if defined(__SSE2__)
    // SSE2 spreads words of 32 bits in one instruction, and fills one up sooner by a product than in a vector.
    if constexpr (Bytes == 16 && sizeof(T) < 4)
      return (Vec)CompilerLanes<uint32_t, Bytes>::splat(x * (~0u / static_cast<T>(~0)));
#endif
    return x - Vec{};  // x - 0 is x, -0 too; the compiler makes it a broadcast
  }
  static OX_INLINE Vec add(Vec a, Vec b) { return a + b; }
  static OX_INLINE Vec sub(Vec a, Vec b) { return a - b; }
  static OX_INLINE Vec mul(Vec a, Vec b) { return a * b; }
};

template <class T, int Bytes>
struct PlainLanes : CompilerLanes<T, Bytes>,
                    PlainSums<CompilerLanes<T, Bytes>, T, typename CompilerLanes<T, Bytes>::Vec> {};

template <class T, int Bytes> struct Lanes : PlainLanes<T, Bytes> {};

#if defined(__x86_64__) || defined(__i386__)
// What x86 multiplies only in lanes of twice the size: even and odd elements are summed apart in such lanes, of which
// only the low half counts. What stands above it never reaches down, so a factor may have anything there.
template <class T, class WideScalar, int Bytes> struct ApartLanes : CompilerLanes<T, Bytes> {
  using Vec = typename CompilerLanes<T, Bytes>::Vec;
  typedef WideScalar Wide __attribute__((vector_size(Bytes)));
  struct Sum {
    Wide even, odd;
  };
  using Factor = Wide;
  static constexpr int kRegistersPerSum = 2, kBits = 8 * sizeof(T);
  static constexpr bool kByLane = false;
  static OX_INLINE Wide low_product(Wide a, Wide b) {
#if defined(__SSE2__)
    if constexpr (sizeof(T) == 4) return (Wide)_mm_mul_epu32((__m128i)a, (__m128i)b);
#endif
    return a * b;
  }
  static OX_INLINE Vec mul(Vec a, Vec b) {
    // An odd byte may stay where it is, with nothing below it: its product is where it belongs.
    if constexpr (sizeof(T) == 1) {
      const Wide low = (Wide)a * (Wide)b & T(~T{0}), high = ((Wide)a >> kBits) * ((Wide)b >> kBits << kBits);
      return (Vec)(low | high);
    } else {
      return finish({low_product((Wide)a, (Wide)b), low_product((Wide)a >> kBits, (Wide)b >> kBits)});
    }
  }
  static OX_INLINE Sum start(Vec c) { return {(Wide)c, (Wide)c >> kBits}; }
  static OX_INLINE Vec finish(Sum s) { return (Vec)((s.even & static_cast<T>(~T{0})) | (s.odd << kBits)); }
  static OX_INLINE Factor factor(T x) { return (Factor)CompilerLanes<T, Bytes>::splat(x); }
  static OX_INLINE Sum mul_add(Sum s, Factor a, Factor same, Vec b) {
    return {s.even + low_product(a, (Wide)b), s.odd + low_product(same, (Wide)b >> kBits)};
  }
  static OX_INLINE Sum mul_add(Sum s, Factor a, Vec b) { return mul_add(s, a, a, b); }
};
template <int Bytes> struct Lanes<uint8_t, Bytes> : ApartLanes<uint8_t, uint16_t, Bytes> {};
#endif

#if defined(__SSE2__) && OX_LANE_BYTES == 16
template <int Bytes> struct Lanes<uint32_t, Bytes> : ApartLanes<uint32_t, uint64_t, Bytes> {};
#endif

#if defined(__SSE2__) && OX_LANE_BYTES < 64
// Products of halves: of both low ones, and crosswise, of which the low half counts, as a high one. These are summed
// apart, to be moved there once.
template <int Bytes> struct Lanes<uint64_t, Bytes> : CompilerLanes<uint64_t, Bytes> {
  using Vec = typename CompilerLanes<uint64_t, Bytes>::Vec;
  struct Sum {
    Vec low, crosswise;
  };
  using Factor = Vec;
  static constexpr int kRegistersPerSum = 2;
  static constexpr bool kByLane = false;
  static OX_INLINE Sum start(Vec c) { return {c, Vec{}}; }
  static OX_INLINE Factor factor(uint64_t x) { return CompilerLanes<uint64_t, Bytes>::splat(x); }
#if OX_LANE_BYTES == 32  // both crosswise products at once, a sum of 32 bits in either half
  static OX_INLINE Vec finish(Sum s) { return s.low + (s.crosswise << 32) + (s.crosswise >> 32 << 32); }
  static OX_INLINE Sum mul_add(Sum s, Factor a, Vec b) {
    const __m256i exchanged = _mm256_shuffle_epi32((__m256i)b, 0xB1);
    return {s.low + (Vec)_mm256_mul_epu32((__m256i)a, (__m256i)b),
            (Vec)_mm256_add_epi32((__m256i)s.crosswise, _mm256_mullo_epi32((__m256i)a, exchanged))};
  }
#else
  static OX_INLINE Vec finish(Sum s) { return s.low + (s.crosswise << 32); }
  static OX_INLINE Sum mul_add(Sum s, Factor a, Vec b) {
    return {s.low + (Vec)_mm_mul_epu32((__m128i)a, (__m128i)b),
            s.crosswise + (Vec)_mm_mul_epu32((__m128i)a, (__m128i)(b >> 32)) +
                (Vec)_mm_mul_epu32((__m128i)(a >> 32), (__m128i)b)};
  }
#endif
};
#endif

#if defined(__arm__)
// ARMv7: no vectors of doubles, no products of 64-bit lanes.
template <int Bytes> struct Lanes<double, Bytes> : OneLane<double> {};
template <int Bytes> struct Lanes<uint64_t, Bytes> : OneLane<uint64_t> {};

#if defined(__ARM_NEON)
// By intrinsics: the compiler splits its own float vectors into scalars, as NEON turns subnormals into zero. VMLA rounds
// the product before it adds, so it is the multiply and add of the plain loop in one instruction.
template <int Bytes> struct Lanes<float, Bytes> {
  using Scalar = float;
  using Vec = float32x4_t;
  using Sum = Vec;
  using Factor = Vec;
  static constexpr int kRegistersPerSum = 1;
  static constexpr std::ptrdiff_t kCount = 4;
  static constexpr bool kMasked = false, kFlushes = true;
  using Mask = NoMask;
  static OX_INLINE Mask mask(std::ptrdiff_t) { return {}; }
  static OX_INLINE Vec load(const Stored<float>* p) { return vld1q_f32(reinterpret_cast<const float*>(p)); }
  static OX_INLINE Vec load(const Stored<float>* p, Mask) { return load(p); }
  static OX_INLINE void store(Stored<float>* p, Vec v) { vst1q_f32(reinterpret_cast<float*>(p), v); }
  static OX_INLINE void store(Stored<float>* p, Vec v, Mask) { store(p, v); }
  static OX_INLINE Vec splat(float x) { return vdupq_n_f32(x); }
  static OX_INLINE Vec add(Vec a, Vec b) { return vaddq_f32(a, b); }
  static OX_INLINE Vec sub(Vec a, Vec b) { return vsubq_f32(a, b); }
  static OX_INLINE Vec mul(Vec a, Vec b) { return vmulq_f32(a, b); }
  static OX_INLINE Sum start(Vec c) { return c; }
  static OX_INLINE Vec finish(Sum s) { return s; }
  static OX_INLINE Factor factor(float x) { return vdupq_n_f32(x); }
  static OX_INLINE Sum mul_add(Sum s, Factor a, Vec b) { return vmlaq_f32(s, a, b); }
  static constexpr bool kByLane = true;
  using FourFactors = Vec;
  static OX_INLINE FourFactors load_factors(const Stored<float>* p) { return load(p); }
  template <int kLane> static OX_INLINE Sum mul_add_lane(Sum s, FourFactors a, Vec b) {
    return vmlaq_lane_f32(s, b, kLane < 2 ? vget_low_f32(a) : vget_high_f32(a), kLane % 2);
  }
};

// VMLA takes a lane as factor for integers too, but for bytes.
template <int Bytes> struct Lanes<uint16_t, Bytes> : PlainLanes<uint16_t, Bytes> {
  using Vec = typename CompilerLanes<uint16_t, Bytes>::Vec;
  static constexpr bool kByLane = true;
  using FourFactors = uint16x4_t;
  static OX_INLINE FourFactors load_factors(const Stored<uint16_t>* p) {
    return vld1_u16(reinterpret_cast<const uint16_t*>(p));
  }
  template <int kLane> static OX_INLINE Vec mul_add_lane(Vec s, FourFactors a, Vec b) {
    return (Vec)vmlaq_lane_u16((uint16x8_t)s, (uint16x8_t)b, a, kLane);
  }
};
template <int Bytes> struct Lanes<uint32_t, Bytes> : PlainLanes<uint32_t, Bytes> {
  using Vec = typename CompilerLanes<uint32_t, Bytes>::Vec;
  static constexpr bool kByLane = true;
  using FourFactors = uint32x4_t;
  static OX_INLINE FourFactors load_factors(const Stored<uint32_t>* p) {
    return vld1q_u32(reinterpret_cast<const uint32_t*>(p));
  }
  template <int kLane> static OX_INLINE Vec mul_add_lane(Vec s, FourFactors a, Vec b) {
    return (Vec)vmlaq_lane_u32((uint32x4_t)s, (uint32x4_t)b, kLane < 2 ? vget_low_u32(a) : vget_high_u32(a), kLane % 2);
  }
};
#endif
#endif

#if defined(__arm__) && defined(__ARM_NEON)
// Four columns of up to four rows: the loads themselves spread a row over the lanes.
OX_INLINE void load_columns_of_4(CompilerLanes<uint32_t, 16>::Vec (&columns)[4], const Stored<uint32_t>* src,
                                 std::ptrdiff_t row, std::ptrdiff_t rows) {
  const auto* p = reinterpret_cast<const uint32_t*>(src);
  uint32x4x4_t v;
#if !defined(__clang__)  // which knows no operand of four registers
  // Every lane is loaded, so none need be cleared. What is not volatile would be copied from one block to the next.
  if (rows >= 4)
    asm volatile("" : "=w"(v));
  else
#endif
    v = {{vdupq_n_u32(0), vdupq_n_u32(0), vdupq_n_u32(0), vdupq_n_u32(0)}};
  v = vld4q_lane_u32(p, v, 0);
  if (rows > 1) v = vld4q_lane_u32(p + row, v, 1);
  if (rows > 2) v = vld4q_lane_u32(p + 2 * row, v, 2);
  if (rows > 3) v = vld4q_lane_u32(p + 3 * row, v, 3);
#pragma GCC unroll 4
  for (int c = 0; c < 4; ++c) columns[c] = (CompilerLanes<uint32_t, 16>::Vec)v.val[c];
}
#endif

#if OX_LANE_BYTES >= 32
// Rows of four or eight floats, two in a vector. The factor of each half is one of its own.
template <int kCols> struct FloatRowPairs;
template <> struct FloatRowPairs<4> : Lanes<float, 32> {
  using Row = Lanes<float, 16>;
  static OX_INLINE Vec load_twice(const Stored<float>* p) {
    return (Vec)_mm256_broadcast_ps(reinterpret_cast<const __m128*>(p));
  }
  // The first four floats of two rows that are kApart apart.
  template <int kApart> static OX_INLINE Vec load_both(const Stored<float>* p) {
    return (Vec)_mm256_insertf128_ps(_mm256_castps128_ps256((__m128)Row::load(p)), (__m128)Row::load(p + kApart), 1);
  }
  template <int kLane> static OX_INLINE Sum mul_add_lane(Sum s, Vec a, Vec b) {
    return mul_add(s, (Vec)_mm256_permute_ps((__m256)a, kLane * 0x55), b);
  }
};
#endif

#if OX_LANE_BYTES == 64
template <> struct FloatRowPairs<8> : Lanes<float, 64> {
  using Row = Lanes<float, 32>;
  static OX_INLINE Vec load_twice(const Stored<float>* p) {
    const auto v = Row::load(p);
    return __builtin_shufflevector(v, v, 0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7);
  }
  // The first four or eight floats of two rows that are so far apart.
  template <int kApart> static OX_INLINE Vec load_both(const Stored<float>* p) {
    if constexpr (kApart == 8) return load(p);
    const auto v = Row::load(p);
    return __builtin_shufflevector(v, v, 0, 1, 2, 3, 0, 1, 2, 3, 4, 5, 6, 7, 4, 5, 6, 7);
  }
  template <int kLane> static OX_INLINE Sum mul_add_lane(Sum s, Vec a, Vec b) {
    constexpr int k = kLane, n = kLane + 8;
    return mul_add(s, __builtin_shufflevector(a, a, k, k, k, k, k, k, k, k, n, n, n, n, n, n, n, n), b);
  }
};
#endif

#if OX_LANE_BYTES == 64
// Two vectors of half the size, one behind the other.
typedef uint64_t Words32 __attribute__((vector_size(32)));
typedef uint64_t Words64 __attribute__((vector_size(64)));
OX_INLINE Words64 join_halves(Words32 low, Words32 high) {
#if defined(OX_EMULATE_64)
  return __builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7);
#else
  // Left to it, the compiler loads the higher one before it moves it up: two instructions instead of one.
  const Words64 wide = __builtin_shufflevector(low, Words32{}, 0, 1, 2, 3, 4, 5, 6, 7);
  return (Words64)_mm512_maskz_inserti64x4(0xFF, (__m512i)wide, (__m256i)high, 1);
#endif
}

// Masks for whole vectors of 64 bytes: the end of a row is loaded and stored by part.
typedef uint8_t Bytes64 __attribute__((vector_size(64)));
#if defined(OX_EMULATE_64)
// For tests alone, where the processor has no AVX-512 or a sanitizer is to see what is touched: by copies.
template <int kSize> struct MaskedMoves {
  using Mask = std::size_t;  // bytes
  static OX_INLINE Mask mask(std::ptrdiff_t count) { return static_cast<std::size_t>(count) * kSize; }
  static OX_INLINE Bytes64 load(const void* p, Mask bytes) {
    Bytes64 v = {};
    __builtin_memcpy(&v, p, bytes);
    return v;
  }
  static OX_INLINE void store(void* p, Bytes64 v, Mask bytes) { __builtin_memcpy(p, &v, bytes); }
};
#else
template <int kSize> struct MaskedMoves;
#define OX_MASKED_MOVES(size, mask_type, suffix)                                                                      \
  template <> struct MaskedMoves<size> {                                                                              \
    using Mask = mask_type;                                                                                           \
    static OX_INLINE Mask mask(std::ptrdiff_t count) { return static_cast<Mask>(~uint64_t{0} >> (64 - count)); }      \
    static OX_INLINE Bytes64 load(const void* p, Mask m) { return (Bytes64)_mm512_maskz_loadu_##suffix(m, p); }       \
    static OX_INLINE void store(void* p, Bytes64 v, Mask m) { _mm512_mask_storeu_##suffix(p, m, (__m512i)v); }        \
  };
OX_MASKED_MOVES(1, __mmask64, epi8)
OX_MASKED_MOVES(2, __mmask32, epi16)
OX_MASKED_MOVES(4, __mmask16, epi32)
OX_MASKED_MOVES(8, __mmask8, epi64)
#endif

template <class Base> struct MaskedLanes : Base {
  using T = typename Base::Scalar;
  using Vec = typename Base::Vec;
  using Moves = MaskedMoves<sizeof(T)>;
  using Mask = typename Moves::Mask;
  static constexpr bool kMasked = true;
  // The first count lanes, 1 to kCount of them.
  static OX_INLINE Mask mask(std::ptrdiff_t count) { return Moves::mask(count); }
  using Base::load;
  using Base::store;
  static OX_INLINE Vec load(const Stored<T>* p, Mask m) { return (Vec)Moves::load(p, m); }
  static OX_INLINE void store(Stored<T>* p, Vec v, Mask m) { Moves::store(p, (Bytes64)v, m); }
};
template <class T> using NativeLanes = MaskedLanes<Lanes<T, 64>>;
#else
template <class T> using NativeLanes = Lanes<T, OX_LANE_BYTES>;
#endif

}  // namespace
}  // namespace ox
