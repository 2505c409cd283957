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
typedef float Vec __attribute__((vector_size(kBytes)));

// A chain is v = v * factor + step, whose fixed point is 1. A multiplication and an addition take 6 to 8 cycles one
// after the other, and no processor starts more than two pairs a cycle: 12 to 16 chains keep it busy. With the two
// constants, 14 fill the sixteen registers of the narrow widths.
constexpr int kChains = 14;

double peak(long pairs, long* lanes) {
  Vec factor = 0.75f - Vec{}, step = 0.25f - Vec{};
  asm("" : "+x"(factor), "+x"(step));  // the compiler must not know them
  Vec v[kChains];
  for (Vec& chain : v) {
    chain = 1.0f - Vec{};
    asm("" : "+x"(chain));
  }
  for (long i = 0; i < pairs / kChains; ++i) {
#pragma GCC unroll 14
    for (Vec& chain : v) chain = chain * factor + step;
  }
  Vec all = v[0];
  for (int i = 1; i < kChains; ++i) all += v[i];
  double sum = 0;
  for (int i = 0; i < kBytes / 4; ++i) sum += static_cast<double>(all[i]);
  *lanes = kChains * (kBytes / 4);
  return sum;
}

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
  rivals.peak = peak;
  rivals.eliminate = eliminate;
  rivals.peak_bytes = kBytes;
}

}  // namespace bench
