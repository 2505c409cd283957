// SPDX-License-Identifier: MIT
// The register peak of separate multiplications and additions, and what an elimination in double precision of floats in
// memory takes at the least.
#include <immintrin.h>

#include "rivals/authors.h"

namespace bench {
namespace {

#if defined(__AVX512F__)
constexpr int kBytes = 64;
#elif defined(__AVX2__)
constexpr int kBytes = 32;
#else
constexpr int kBytes = 16;
#endif

// What a width multiplies at once, how many terms of a product that is, and an equation that 1 solves.
template <class T> struct Lanes {
  using Scalar = T;
  typedef T Vec __attribute__((vector_size(kBytes)));
  static Vec mul(Vec a, Vec b) { return a * b; }
  static constexpr T kFactor = 3, kStep = static_cast<T>(-2);
};
struct Floats32 : Lanes<float> {
  static constexpr int kTerms = kBytes / 4;
  static constexpr float kFactor = 0.75f, kStep = 0.25f;  // no rounding
};
struct Words16 : Lanes<unsigned short> {
  static constexpr int kTerms = kBytes / 2;
};
struct Words32 : Lanes<unsigned> {
  static constexpr int kTerms = kBytes / 4;
};
#if defined(__AVX2__) && !defined(__AVX512F__)
// Magnitudes by signed bytes, two products in a word.
struct Bytes : Words16 {
  static constexpr int kTerms = kBytes;
  static Vec mul(Vec a, Vec b) {
    return (Vec)_mm256_maddubs_epi16((__m256i)b, _mm256_sign_epi8((__m256i)a, (__m256i)b));
  }
};
#else
using Bytes = Words16;  // no product of bytes, or none that the kernel uses
#endif

// A chain is v = v * factor + step, whose fixed point is 1. A multiplication and an addition one after the other take 4 to
// 8 cycles on processors that start two pairs a cycle, and up to 11 where it is one: 8 to 16 chains keep them busy. With
// the two constants, 14 fill the sixteen registers of the narrow widths.
constexpr int kChains = 14;

template <class L> double peak(long terms, long* lanes) {
  using Vec = typename L::Vec;
  using Scalar = typename L::Scalar;
  Vec factor = L::kFactor - Vec{}, step = L::kStep - Vec{};
  asm("" : "+x"(factor), "+x"(step));  // the compiler must not know them
  Vec v[kChains];
  for (Vec& chain : v) {
    chain = Scalar{1} - Vec{};
    asm("" : "+x"(chain));
  }
  for (long i = 0; i < terms / L::kTerms / kChains; ++i) {
#pragma GCC unroll 14
    for (Vec& chain : v) chain = L::mul(chain, factor) + step;
  }
  Vec all = v[0];
  for (int i = 1; i < kChains; ++i) all += v[i];
  constexpr int kLanes = sizeof all / sizeof all[0];
  double sum = 0;
  for (int i = 0; i < kLanes; ++i) sum += static_cast<double>(all[i]);
  *lanes = long{kChains} * kLanes;
  return sum;
}

// SSE2 multiplies words of 16 bits: three times for a product of 32 bits.
double peak_of_halves(long terms, long* lanes) { return peak<Words16>(3 * terms, lanes); }

#if !defined(__AVX512F__)
// The innermost loop of a product by tiles of kRows rows and kVectors vectors, kLoaded of them from memory, all in the
// first-level cache: beside products and sums a row of b and the factors are loaded, and what the instructions ask for.
template <class T, class Factor, int kRows, int kVectors, int kLoaded> double loop(long terms, long* lanes) {
  typedef T Vec __attribute__((vector_size(kBytes)));
  constexpr bool kSpread = sizeof(Factor) == sizeof(Vec);  // as whole vectors, where to spread them takes SSE2 too long
  constexpr int kLanes = sizeof(Vec) / sizeof(T), kTerms = 64;
  struct {
    alignas(64) Factor factors[kRows][kTerms] = {};
    alignas(64) Vec b[kTerms][kLoaded] = {};
  } cached;
  Vec sums[kRows][kVectors];
  for (auto& row : sums)
    for (Vec& sum : row) sum = T{1} - Vec{};
  constexpr long kTurn = long{kTerms} * kRows * kVectors * kLanes;
  for (long i = 0; i < (terms + kTurn / 2) / kTurn; ++i) {
    long zero = 0;
    asm("" : "+m"(cached), "+r"(zero));
#pragma GCC unroll 2
    for (int k = 0; k < kTerms; ++k) {
      Vec b[kVectors];
#pragma GCC unroll 4
      for (int v = 0; v < kLoaded; ++v) b[v] = cached.b[k][v];
      if constexpr (kLoaded < kVectors) b[1] = b[0] >> 4 * sizeof(T);  // odd elements, where only words are multiplied
#pragma GCC unroll 4
      for (int r = 0; r < kRows; ++r) {
        const Factor* const a = cached.factors[r] + k;
        const Vec first = *a - Vec{};
#pragma GCC unroll 4
        for (int v = 0; v < kVectors; ++v) {
          // What a product of SSE2 destroys is loaded again or copied for the next one. Half of each is the fastest; all
          // loaded, where a single row of b is.
          const bool again = kSpread && v > 0 && (kLoaded < kVectors || r % 2 == 0);
          sums[r][v] += (again ? a[zero] - Vec{} : first) * b[v];
        }
      }
    }
  }
  Vec all = {};
  for (const auto& row : sums)
    for (const Vec& sum : row) all += sum;
  double total = 0;
  for (int i = 0; i < kLanes; ++i) total += static_cast<double>(all[i]);
  *lanes = long{kRows} * kVectors * kLanes;
  return total;
}
#endif

#if defined(__AVX512F__)
using Doubles = __m512d;
using Floats = __m256;
Doubles widened(Floats v) { return _mm512_cvtps_pd(v); }
Floats rounded(Doubles v) { return _mm512_cvtpd_ps(v); }
#elif defined(__AVX2__)
using Doubles = __m256d;
using Floats = __m128;
Doubles widened(Floats v) { return _mm256_cvtps_pd(v); }
Floats rounded(Doubles v) { return _mm256_cvtpd_ps(v); }
#else
using Doubles = __m128d;
typedef float Floats __attribute__((vector_size(8)));
Doubles widened(Floats v) { return __builtin_convertvector(v, Doubles); }
Floats rounded(Doubles v) { return __builtin_convertvector(v, Floats); }
#endif

// A step is v = v - pivot * factor, each number rounded to float as it is stored. Two rows share the pivots, as in an
// elimination that loads them once for both; with pivots of zero all stay at 1.
double eliminate(long steps, long* lanes) {
  constexpr int kVectors = 16, kLanes = kBytes / 8;
  alignas(64) float rows[2][kVectors * kLanes];
  alignas(64) double pivots[kVectors * kLanes] = {};
  for (auto& row : rows)
    for (float& v : row) v = 1;
  Doubles factor = 0.75 - Doubles{};
  for (long i = 0; i < steps / (2 * kVectors); ++i) {
    asm("" : "+x"(factor), "+m"(rows), "+m"(pivots));
    for (int v = 0; v < kVectors; ++v) {
      Doubles pivot;
      __builtin_memcpy(&pivot, pivots + v * kLanes, sizeof pivot);
#pragma GCC unroll 2
      for (auto& row : rows) {
        Floats part;
        __builtin_memcpy(&part, row + v * kLanes, sizeof part);
        part = rounded(widened(part) - pivot * factor);
        __builtin_memcpy(row + v * kLanes, &part, sizeof part);
      }
    }
  }
  double sum = 0;
  for (const auto& row : rows)
    for (const float v : row) sum += static_cast<double>(v);
  *lanes = 2 * kVectors * kLanes;
  return sum;
}

}  // namespace

void add_peak(Rivals& rivals) {
  rivals.peak[kS8] = peak<Bytes>;
  rivals.peak[kS16] = peak<Words16>;
  rivals.peak[kS32] = kBytes == 16 ? peak_of_halves : peak<Words32>;
  rivals.peak[kF32] = peak<Floats32>;
  // Shapes whose sums the compiler keeps in registers here, the fastest of those; the kernels' own may be others.
#if !defined(__AVX2__)
  rivals.loop[kS8] = loop<unsigned short, Words16::Vec, 4, 2, 1>;
  rivals.loop[kS16] = loop<unsigned short, Words16::Vec, 4, 2, 2>;
#elif !defined(__AVX512F__)
  rivals.loop[kS32] = loop<unsigned, unsigned, 3, 3, 3>;
#endif
  rivals.eliminate = eliminate;
  rivals.peak_bytes = kBytes;
}

}  // namespace bench
