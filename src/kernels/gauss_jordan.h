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
// No vectors of doubles: as many as are asked for, in registers of their own.
constexpr int kDoubles = 8;
constexpr bool kConvertsEachLane = true;
template <class T, int n> struct Each { T lane[n]; };
template <int n> using Floats = Each<float, n>;
template <int n> using Doubles = Each<double, n>;
template <class V, class Value> OX_INLINE V each_lane(Value value) {
  V v;
#pragma GCC unroll 8
  for (int i = 0; i < static_cast<int>(sizeof v.lane / sizeof *v.lane); ++i) v.lane[i] = value(i);
  return v;
}
template <int n> OX_INLINE Doubles<n> operator*(const Doubles<n>& v, double x) {
  return each_lane<Doubles<n>>([&](int i) { return v.lane[i] * x; });
}
template <int n> OX_INLINE Doubles<n> operator-(const Doubles<n>& a, const Doubles<n>& b) {
  return each_lane<Doubles<n>>([&](int i) { return a.lane[i] - b.lane[i]; });
}
template <int n> OX_INLINE Doubles<n> widened(const Floats<n>& v) {
  return each_lane<Doubles<n>>([&](int i) { return static_cast<double>(v.lane[i]); });
}
template <int n> OX_INLINE Floats<n> rounded(const Doubles<n>& v) {
  return each_lane<Floats<n>>([&](int i) { return static_cast<float>(v.lane[i]); });
}
template <int n> OX_INLINE float lane_of(const Floats<n>& v, int i) { return v.lane[i]; }
template <int n> OX_INLINE Floats<n> unit(std::ptrdiff_t lane) {
  return each_lane<Floats<n>>([=](int i) { return i == lane ? 1.0f : 0.0f; });
}
template <int n> OX_INLINE Floats<n> load_floats(const Stored<float>* p) {
  return each_lane<Floats<n>>([=](int i) { return p[i].value; });
}
template <int n> OX_INLINE void store_floats(Stored<float>* p, const Floats<n>& v) {
#pragma GCC unroll 8
  for (int i = 0; i < n; ++i) p[i].value = v.lane[i];
}
#else
constexpr int kDoubles = OX_LANE_BYTES / 8;
constexpr bool kConvertsEachLane = false;
template <class T, int n> struct VectorOf { typedef T Vec __attribute__((vector_size(n * sizeof(T)))); };
template <int n> using Floats = typename VectorOf<float, n>::Vec;
template <int n> using Doubles = typename VectorOf<double, n>::Vec;
template <int n> OX_INLINE Doubles<n> widened(Floats<n> v) { return to_doubles<Doubles<n>>(v); }
template <int n> OX_INLINE Floats<n> rounded(Doubles<n> v) { return __builtin_convertvector(v, Floats<n>); }
template <int n> OX_INLINE float lane_of(Floats<n> v, int i) { return v[i]; }
template <int n> OX_INLINE Floats<n> unit(std::ptrdiff_t lane) {
  Floats<n> v = {};
  if (lane >= 0 && lane < n) v[lane] = 1.0f;
  return v;
}
template <int n> OX_INLINE Floats<n> load_floats(const Stored<float>* p) {
  Floats<n> v;
  __builtin_memcpy(&v, p, sizeof v);
  return v;
}
template <int n> OX_INLINE void store_floats(Stored<float>* p, Floats<n> v) { __builtin_memcpy(p, &v, sizeof v); }
#endif

OX_INLINE Doubles<kDoubles> load_doubles(const float* p) {
  return widened<kDoubles>(load_floats<kDoubles>(in<float>(p)));
}
OX_INLINE void store_doubles(float* p, const Doubles<kDoubles>& v) {
  store_floats<kDoubles>(out<float>(p), rounded<kDoubles>(v));
}

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

#if OX_LANE_BYTES < 64
// A row of [A | I] for n = 4, in parts.
constexpr int kPartOf4 = kDoubles < 4 ? kDoubles : 4, kPartsOf4 = 8 / kPartOf4;
struct RowOf4 {
  Floats<kPartOf4> part[kPartsOf4];
  OX_INLINE double at(int column) const {
    return static_cast<double>(lane_of<kPartOf4>(part[column / kPartOf4], column % kPartOf4));
  }
};

// A step of the elimination, column k. False where the pivot is zero: then nothing is done.
template <int k> OX_INLINE bool step_of_4(RowOf4 (&rows)[4], double (&column)[4]) {
  const double pivot = column[k];
  if (pivot == 0.0) return false;
  Doubles<kPartOf4> pivots[kPartsOf4];
#pragma GCC unroll 4
  for (int p = 0; p < kPartsOf4; ++p) pivots[p] = widened<kPartOf4>(rows[k].part[p]);
  constexpr int kNext = k < 3 ? k + 1 : k;
  const double ahead = rows[k].at(kNext);
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    if (i == k) continue;
    const double factor = column[i] / pivot;
    column[i] = static_cast<double>(static_cast<float>(rows[i].at(kNext) - ahead * factor));
#pragma GCC unroll 4
    for (int p = 0; p < kPartsOf4; ++p)
      rows[i].part[p] = rounded<kPartOf4>(widened<kPartOf4>(rows[i].part[p]) - pivots[p] * factor);
  }
  column[k] = ahead;
  return true;
}

// n = 4, a tracker's, with [A | I] in registers. False, and nothing is written, where rows have to be exchanged.
bool invert_4(InverseWork& work, const Stored<float>* src, Stored<float>* dst) {
  RowOf4 rows[4];
  double column[4];
#pragma GCC unroll 4
  for (int r = 0; r < 4; ++r, src += 4) {
#pragma GCC unroll 4
    for (std::ptrdiff_t p = 0; p < kPartsOf4 / 2; ++p) {
      rows[r].part[p] = load_floats<kPartOf4>(src + p * kPartOf4);
      rows[r].part[kPartsOf4 / 2 + p] = unit<kPartOf4>(r - p * kPartOf4);
    }
    column[r] = static_cast<double>(src->value);
  }
  if (!step_of_4<0>(rows, column) || !step_of_4<1>(rows, column) || !step_of_4<2>(rows, column) ||
      !step_of_4<3>(rows, column))
    return false;
#pragma GCC unroll 4
  for (int r = 0; r < 4; ++r, dst += 4) {
    const double reciprocal = 1.0 / rows[r].at(r);
#pragma GCC unroll 4
    for (std::ptrdiff_t p = 0; p < kPartsOf4; ++p) {
      const Floats<kPartOf4> part = rounded<kPartOf4>(widened<kPartOf4>(rows[r].part[p]) * reciprocal);
      store_floats<kPartOf4>(out<float>(&work[r][p * kPartOf4]), part);
      if (p >= kPartsOf4 / 2) store_floats<kPartOf4>(dst + (p - kPartsOf4 / 2) * kPartOf4, part);
    }
  }
  return true;
}
#endif

// From so many rows on it pays to divide in vectors, and to finish row after row.
constexpr int32_t kManyRows = 8;

// The factors of step k, and column k + 1 as it will be after it.
OX_INLINE void find_factors(const InverseWork& work, int32_t k, int32_t n, double ahead, double (&column)[kMostInverse],
                            double (&factors)[kMostInverse]) {
  const double pivot = column[k];
#if !defined(__arm__)
  if (n >= kManyRows) {
    // Row k and, up to a whole vector, rows behind the matrix are computed too, and not used.
    for (int32_t i = 0; i < n; i += kDoubles) {
      Doubles<kDoubles> v;
      __builtin_memcpy(&v, column + i, sizeof v);
      v /= pivot;
      __builtin_memcpy(factors + i, &v, sizeof v);
      Floats<kDoubles> next = {};
#pragma GCC unroll 8
      for (int r = 0; r < kDoubles; ++r) next[r] = work[i + r][k + 1];
      v = widened<kDoubles>(rounded<kDoubles>(widened<kDoubles>(next) - v * ahead));
      __builtin_memcpy(column + i, &v, sizeof v);
    }
    return;
  }
#endif
  for (int32_t i = 0; i < n; ++i) {
    if (i == k) continue;
    factors[i] = column[i] / pivot;
    column[i] = static_cast<double>(static_cast<float>(static_cast<double>(work[i][k + 1]) - ahead * factors[i]));
  }
}

void gauss_jordan(InverseWork& work, int32_t n, const void* src, void* dst) {
#if OX_LANE_BYTES == 64
  if (n == 4) return kernels_32.gauss_jordan(work, n, src, dst);  // four doubles are 32 bytes
#else
  if (n == 4 && invert_4(work, in<float>(src), out<float>(dst))) return;
#endif
  const int32_t width = 2 * n;
  augment(work, in<float>(src), n);
  // Column k, ahead of the rows it belongs to: the divisions of the next step wait for these numbers alone, not for whole
  // rows to be stored and loaded again.
  double column[kMostInverse], factors[kMostInverse];
  for (int32_t i = 0; i < n; ++i) column[i] = static_cast<double>(work[i][0]);
  for (int32_t i = n; i % kDoubles != 0; ++i) column[i] = 0.0;  // divided with the others, where vectors are
  bool exchanged = false;
  for (int32_t k = 0; k < n; ++k) {
    if (column[k] == 0.0) {
      exchanged = true;
      exchange_rows(work, k, replacement_row(work, k, n), n);
      for (int32_t i = 0; i < n; ++i) column[i] = static_cast<double>(work[i][k]);
    }
    const double ahead = static_cast<double>(work[k][k + 1]);
    find_factors(work, k, n, ahead, column, factors);
    column[k] = ahead;
    // Until rows are exchanged, the pivot row is +0 behind column n + k, and no row changes there. Not so by a factor that
    // is infinite or a NaN, but then none of the row's later factors is a number, and they make NaNs of what was left out;
    // the last column of the last row meets no later one than that of step n - 2. docs/numerics.md has the argument.
    const int32_t used = exchanged || k >= n - 2 ? width : n + k + 1;
    // Cleared columns are computed too: what they become can be seen by a later, smaller call. Few vectors go one after
    // another, each against all rows; many go row after row, row k with them, which is put back: a third faster at n = 40
    // with AVX-512. Where each lane is converted by itself, pivots that stay in registers are worth more than either.
    if (kConvertsEachLane || n < kManyRows) {
      for (int32_t j = 0; j < used; j += kDoubles) {
        const Doubles<kDoubles> pivots = load_doubles(work[k] + j);
        float* at = work[0] + j;
        for (int32_t i = 0; i < n; ++i, at += kWorkRow)
          if (i != k) store_doubles(at, load_doubles(at) - pivots * factors[i]);
      }
    } else {
      Doubles<kDoubles> pivots[2 * kMostInverse / kDoubles];
      const std::ptrdiff_t vectors = (used + kDoubles - 1) / kDoubles;
      for (std::ptrdiff_t v = 0; v < vectors; ++v) pivots[v] = load_doubles(work[k] + v * kDoubles);
      for (int32_t i = 0; i < n; ++i) {
        float* const row = work[i];
        const double factor = factors[i];
        for (std::ptrdiff_t v = 0; v < vectors; ++v)
          store_doubles(row + v * kDoubles, load_doubles(row + v * kDoubles) - pivots[v] * factor);
      }
      for (std::ptrdiff_t v = 0; v < vectors; ++v) store_doubles(work[k] + v * kDoubles, pivots[v]);
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
