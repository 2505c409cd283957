// SPDX-License-Identifier: MIT
// Lanes that multiply two successive terms of an integer product at once and add them up, where x86 has an instruction
// for it. Rows of b are put together in pairs first, and factors spread, which takes a large product to pay.
#pragma once

#include "lanes/lanes.h"

namespace ox {
namespace {

#if defined(__x86_64__) && OX_LANE_BYTES < 64
template <class T> constexpr bool kHasPairs = sizeof(T) == (OX_LANE_BYTES == 16 ? 4 : 1) && !kIsFloat<T>;
#else
template <class T> constexpr bool kHasPairs = false;
#endif

// A Row is a vector of columns of two rows of b. store_factors makes the factors of the pairs of a whole vector of terms,
// kFactorBytes each, and add_pair adds what one pair of each row of the tile contributes. A panel has kPanelVectors vectors
// of kPanelPairs pairs: the more vectors, the more share the factors of a row, the more pairs, the fewer sums wait in the
// result. With the factors of four rows beside them they fill the stack that a product may take. Results of fewer columns
// than kLeastCols are not faster by pairs.
template <class T> struct PairLanes;

#if defined(__x86_64__) && OX_LANE_BYTES == 16
// 32 bits, of which SSE2 multiplies 16, signed ones, eight at a time. As x is high * 2^16 + low, with a low half of -2^15 to
// 2^15 - 1, a product is low * low + (high * low + low * high) * 2^16, and the last part counts by its lower half alone:
// three multiplications for two terms of four columns, where products of even and odd elements take four.
template <> struct PairLanes<uint32_t> : CompilerLanes<uint32_t, 16> {
  struct Sum {
    Vec low, crosswise;
  };
  struct Row {
    Vec lows, highs;
  };
  static constexpr std::ptrdiff_t kFactorBytes = 32, kPanelVectors = 16, kPanelPairs = 24, kLeastCols = 16;

  static OX_INLINE Sum start(Vec c) { return {c, Vec{}}; }
  static OX_INLINE Vec finish(Sum s) { return s.low + (s.crosswise << 16); }
  static OX_INLINE Row row(Vec first, Vec second) {
    return {(first & 0xFFFF) | (second << 16), ((first + 0x8000) >> 16) | ((second + 0x8000) & 0xFFFF0000)};
  }
  static OX_INLINE void store_factors(Vec terms, unsigned char* to) {
    typedef uint16_t Halves __attribute__((vector_size(16)));
    const auto halves = (Halves)(terms + ((terms & 0x8000) << 1));
    const auto pairs = (Vec)__builtin_shufflevector(halves, halves, 0, 2, 1, 3, 4, 6, 5, 7);
    const Vec factors[] = {spread<0>(pairs), spread<1>(pairs), spread<2>(pairs), spread<3>(pairs)};
    __builtin_memcpy(to, factors, sizeof factors);
  }
  // What the compiler does not know to be in memory it loads once, and then copies: else it would load rows of b for each
  // product. Of the factors half are loaded as often as they are needed, which is fastest.
  template <int kRows, int kVectors>
  static OX_INLINE void add_pair(Sum (&sums)[kRows][kVectors], const unsigned char* factors, std::ptrdiff_t factor_row,
                                 const Row* row) {
    Row b[kVectors];
#pragma GCC unroll 2
    for (int v = 0; v < kVectors; ++v) {
      b[v] = row[v];
      asm("" : "+x"(b[v].lows), "+x"(b[v].highs));
    }
#pragma GCC unroll 4
    for (int r = 0; r < kRows; ++r) {
      const auto* a = reinterpret_cast<const __m128i*>(factors + r * factor_row);
      __m128i lows = _mm_load_si128(a), highs = _mm_load_si128(a + 1);
      if (r % 2 == 0) asm("" : "+x"(lows), "+x"(highs));
#pragma GCC unroll 2
      for (int v = 0; v < kVectors; ++v) {
        sums[r][v].low += (Vec)_mm_madd_epi16((__m128i)b[v].lows, lows);
        sums[r][v].crosswise += (Vec)_mm_madd_epi16((__m128i)b[v].highs, lows);
        sums[r][v].crosswise += (Vec)_mm_madd_epi16((__m128i)b[v].lows, highs);
      }
    }
  }

 private:
  template <int kLane> static OX_INLINE Vec spread(Vec v) {
    return __builtin_shufflevector(v, v, kLane, kLane, kLane, kLane);
  }
};
#endif

#if OX_LANE_BYTES == 32
// 8 bits: AVX2 multiplies unsigned by signed ones and adds two products in 16 bits, saturated. They stay in range where the
// unsigned one is a magnitude, 128 at most, and its sign goes to the other: the sum is 2 * 128 * 127 at most and
// 2 * 128 * -128 at least, as -128 negated is -128 again, which is the same in 8 bits.
template <> struct PairLanes<uint8_t> : CompilerLanes<uint8_t, 32> {
  struct Sum {
    Vec low, high;  // of each 16 columns the first and the last eight, in 16 bits
  };
  using Row = Sum;
  static constexpr std::ptrdiff_t kFactorBytes = 4, kPanelVectors = 4, kPanelPairs = 52, kLeastCols = 64;

  static OX_INLINE Sum start(Vec c) { return row(c, Vec{}); }
  static OX_INLINE Vec finish(Sum s) {
    const __m256i byte = _mm256_set1_epi16(0xFF);
    return (Vec)_mm256_packus_epi16(_mm256_and_si256((__m256i)s.low, byte), _mm256_and_si256((__m256i)s.high, byte));
  }
  static OX_INLINE Row row(Vec first, Vec second) {
    return {(Vec)_mm256_unpacklo_epi8((__m256i)first, (__m256i)second),
            (Vec)_mm256_unpackhi_epi8((__m256i)first, (__m256i)second)};
  }
  static OX_INLINE void store_factors(Vec terms, unsigned char* to) {
    const __m256i magnitudes = _mm256_abs_epi8((__m256i)terms);
    const __m256i low = _mm256_unpacklo_epi16((__m256i)terms, magnitudes);
    const __m256i high = _mm256_unpackhi_epi16((__m256i)terms, magnitudes);
    const __m256i factors[] = {_mm256_permute2x128_si256(low, high, 0x20), _mm256_permute2x128_si256(low, high, 0x31)};
    __builtin_memcpy(to, factors, sizeof factors);
  }
  template <int kRows, int kVectors>
  static OX_INLINE void add_pair(Sum (&sums)[kRows][kVectors], const unsigned char* factors, std::ptrdiff_t factor_row,
                                 const Row* row) {
#pragma GCC unroll 4
    for (int r = 0; r < kRows; ++r) {
      const auto* a = reinterpret_cast<const Stored<int16_t>*>(factors + r * factor_row);
      const __m256i signs = _mm256_set1_epi16(a[0].value), magnitudes = _mm256_set1_epi16(a[1].value);
#pragma GCC unroll 2
      for (int v = 0; v < kVectors; ++v) {
        add_products(sums[r][v].low, signs, magnitudes, row[v].low);
        add_products(sums[r][v].high, signs, magnitudes, row[v].high);
      }
    }
  }

 private:
  static OX_INLINE void add_products(Vec& sum, __m256i signs, __m256i magnitudes, Vec b) {
    const __m256i products = _mm256_maddubs_epi16(magnitudes, _mm256_sign_epi8((__m256i)b, signs));
    sum = (Vec)_mm256_add_epi16((__m256i)sum, products);
    asm("" : "+x"(sum));  // or gcc keeps each sum twice, and copies it
  }
};
#endif

}  // namespace
}  // namespace ox
