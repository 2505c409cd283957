// SPDX-License-Identifier: MIT
// The elimination of the inverse: storage in single, arithmetic in double precision, lanes across the columns.
//
// Rows are computed up to a whole number of vectors. What that leaves behind column 2n - 1 of a row r below n is never
// seen: a later, smaller call looks past itself only at row n', columns n' - 1 to 2n' - 1, and 2n' <= 2r < 2n.
#pragma once

#include "kernels/kernels.h"
#include "kernels/transpose.h"

namespace ox {
namespace {

#if defined(__arm__)
// No vectors of doubles: eight at a time in registers of their own.
constexpr int kDoubles = 8;
constexpr bool kConvertsEachLane = true;
struct DoubleVec {
  double lane[kDoubles];
};
template <class Value> OX_INLINE DoubleVec each_double(Value value) {
  DoubleVec v;
#pragma GCC unroll 8
  for (int i = 0; i < kDoubles; ++i) v.lane[i] = value(i);
  return v;
}
OX_INLINE DoubleVec load_doubles(const float* p) {
  return each_double([=](int i) { return static_cast<double>(p[i]); });
}
OX_INLINE void store_doubles(float* p, const DoubleVec& v) {
#pragma GCC unroll 8
  for (int i = 0; i < kDoubles; ++i) p[i] = static_cast<float>(v.lane[i]);
}
OX_INLINE DoubleVec operator*(const DoubleVec& v, double x) {
  return each_double([&](int i) { return v.lane[i] * x; });
}
OX_INLINE DoubleVec operator-(const DoubleVec& a, const DoubleVec& b) {
  return each_double([&](int i) { return a.lane[i] - b.lane[i]; });
}
#else
constexpr int kDoubles = OX_LANE_BYTES / 8;
constexpr bool kConvertsEachLane = false;
typedef float FloatVec __attribute__((vector_size(OX_LANE_BYTES / 2)));
typedef double DoubleVec __attribute__((vector_size(OX_LANE_BYTES)));
OX_INLINE DoubleVec load_doubles(const float* p) {
  FloatVec v;
  __builtin_memcpy(&v, p, sizeof v);
  return __builtin_convertvector(v, DoubleVec);
}
OX_INLINE void store_doubles(float* p, DoubleVec v) {
  const FloatVec f = __builtin_convertvector(v, FloatVec);
  __builtin_memcpy(p, &f, sizeof f);
}
#endif

constexpr std::ptrdiff_t kWorkRow = std::ptrdiff_t{2} * kMostInverse;

void exchange_rows(InverseWork& work, int32_t k, int32_t m, int32_t n) {
  float* const temporary = work[kMostInverse];
  const std::size_t bytes = static_cast<std::size_t>(2 * n - k) * sizeof(float);
  // At n = 40 row m can be the temporary itself, shifted by k: the copies may overlap.
  __builtin_memmove(temporary, &work[k][k], bytes);
  __builtin_memmove(&work[k][k], &work[m][k], bytes);
  __builtin_memmove(&work[m][k], temporary, bytes);
}

// Row to exchange with row k, whose pivot is zero. Nothing is searched for size, and the last candidate is taken
// untested: behind the last pivot that is the row past the matrix.
int32_t replacement_row(const InverseWork& work, int32_t k, int32_t n) {
  for (int32_t m = k + 1; m < n - 1; ++m)
    if (work[m][k] != 0.0f) return m;
  return n - 1 > k + 1 ? n - 1 : k + 1;
}

// [A | I], n rows of 2n columns. The zeros are stored in whole vectors of four: n + n rounded up is at most a row.
void augment(InverseWork& work, const Stored<float>* src, int32_t n) {
  using L = CompilerLanes<float, 16>;
  for (int32_t r = 0; r < n; ++r, src += n) {
    auto* row = reinterpret_cast<Stored<float>*>(work[r]);
    copy_block(src, 0, 1, n, row, 0);
    for (int32_t j = 0; j < n; j += 4) L::store(row + n + j, L::Vec{});
    row[n + r].value = 1.0f;
  }
}

void gauss_jordan(InverseWork& work, int32_t n, const void* src, void* dst) {
  const int32_t width = 2 * n;
  augment(work, in<float>(src), n);
  // Column k, ahead of the rows it belongs to: the divisions of the next step wait for these numbers alone, not for whole
  // rows to be stored and loaded again.
  double column[kMostInverse], factors[kMostInverse];
  for (int32_t i = 0; i < n; ++i) column[i] = static_cast<double>(work[i][0]);
  for (int32_t k = 0; k < n; ++k) {
    if (column[k] == 0.0) {
      exchange_rows(work, k, replacement_row(work, k, n), n);
      for (int32_t i = 0; i < n; ++i) column[i] = static_cast<double>(work[i][k]);
    }
    const double pivot = column[k], ahead = static_cast<double>(work[k][k + 1]);
    for (int32_t i = 0; i < n; ++i) {
      if (i == k) continue;
      factors[i] = column[i] / pivot;
      column[i] = static_cast<double>(static_cast<float>(static_cast<double>(work[i][k + 1]) - ahead * factors[i]));
    }
    column[k] = ahead;
    // Cleared columns are computed too: what they become can be seen by a later, smaller call. Few vectors go one
    // after another, each against all rows, many row after row: with AVX-512 54 against 62 ns at n = 4, but 18 against
    // 13 us at n = 40. Where each lane is converted by itself, pivots that stay in registers are worth more than either.
    if (kConvertsEachLane || n <= kDoubles) {
      for (int32_t j = 0; j < width; j += kDoubles) {
        const DoubleVec pivots = load_doubles(work[k] + j);
        float* at = work[0] + j;
        for (int32_t i = 0; i < n; ++i, at += kWorkRow)
          if (i != k) store_doubles(at, load_doubles(at) - pivots * factors[i]);
      }
    } else {
      DoubleVec pivots[2 * kMostInverse / kDoubles];
      for (int32_t j = 0; j < width; j += kDoubles) pivots[j / kDoubles] = load_doubles(work[k] + j);
      for (int32_t i = 0; i < n; ++i) {
        if (i == k) continue;
        for (int32_t j = 0; j < width; j += kDoubles)
          store_doubles(work[i] + j, load_doubles(work[i] + j) - pivots[j / kDoubles] * factors[i]);
      }
    }
  }
  for (int32_t r = 0; r < n; ++r) {
    const double reciprocal = 1.0 / static_cast<double>(work[r][r]);
    for (int32_t j = 0; j < width; j += kDoubles) store_doubles(work[r] + j, load_doubles(work[r] + j) * reciprocal);
  }
  copy_block(reinterpret_cast<const Stored<float>*>(work[0] + n), kWorkRow, n, n, out<float>(dst), n);
}

}  // namespace
}  // namespace ox
