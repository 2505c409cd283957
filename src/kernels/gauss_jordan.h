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
template <int n> OX_INLINE Doubles<n> operator/(const Doubles<n>& v, double x) {
  return each_lane<Doubles<n>>([&](int i) { return v.lane[i] / x; });
}
template <int n> OX_INLINE Doubles<n> operator*(const Doubles<n>& a, const Doubles<n>& b) {
  return each_lane<Doubles<n>>([&](int i) { return a.lane[i] * b.lane[i]; });
}
template <int n> OX_INLINE Doubles<n> operator/(const Doubles<n>& a, const Doubles<n>& b) {
  return each_lane<Doubles<n>>([&](int i) { return a.lane[i] / b.lane[i]; });
}
OX_INLINE double lane_of(const Doubles<2>& v, int i) { return v.lane[i]; }
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
OX_INLINE double lane_of(Doubles<2> v, int i) { return v[i]; }
template <int n> OX_INLINE Floats<n> load_floats(const Stored<float>* p) {
  Floats<n> v;
  __builtin_memcpy(&v, p, sizeof v);
  return v;
}
template <int n> OX_INLINE void store_floats(Stored<float>* p, Floats<n> v) { __builtin_memcpy(p, &v, sizeof v); }
#endif

OX_INLINE Doubles<2> pair_of(double a, double b) {
  const Doubles<2> v = {a, b};
  return v;
}

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
// Doubles as they are once stored in single precision.
OX_INLINE double through_float(double x) { return static_cast<double>(static_cast<float>(x)); }
template <int n> OX_INLINE Doubles<n> through_float(const Doubles<n>& v) { return widened<n>(rounded<n>(v)); }
#if defined(__SSE2__)
template <> OX_INLINE Doubles<2> through_float<2>(const Doubles<2>& v) { return through_floats(v); }
#endif

// A row of [A | I] for n = 4.
constexpr int kPartOf4 = OX_LANE_BYTES == 32 ? 4 : 2, kPartsOf4 = 8 / kPartOf4;
struct RowOf4 {
  Doubles<kPartOf4> part[kPartsOf4];
  Doubles<2> low;  // columns 4 and 5 up to step 1, when columns 6 and 7 are still I's
  // Columns 0 and 1, columns 2 and 3.
  OX_INLINE Doubles<2> first() const {
#if OX_LANE_BYTES == 32
    return __builtin_shufflevector(part[0], part[0], 0, 1);
#else
    return part[0];
#endif
  }
  OX_INLINE Doubles<2> second() const {
#if OX_LANE_BYTES == 32
    return __builtin_shufflevector(part[0], part[0], 2, 3);
#else
    return part[1];
#endif
  }
  OX_INLINE void complete(Doubles<2> high) {
#if OX_LANE_BYTES == 32
    part[1] = side_by_side(low, high);
#else
    part[2] = low;
    part[3] = high;
#endif
  }
};

// A step of the elimination in a row, in the first kParts of it.
template <int kParts> OX_INLINE void eliminate(RowOf4& row, const RowOf4& pivots, double factor) {
#pragma GCC unroll 4
  for (int p = 0; p < kParts; ++p) row.part[p] = through_float<kPartOf4>(row.part[p] - pivots.part[p] * factor);
}
OX_INLINE void eliminate_with_low(RowOf4& row, const RowOf4& pivots, double factor) {
  eliminate<kPartsOf4 / 2>(row, pivots, factor);
  row.low = through_float<2>(row.low - pivots.low * factor);
}

void invert_any(InverseWork& work, int32_t n, const void* src, void* dst);

// n = 4, a tracker's, with [A | I] in registers. What the next factors wait for is computed by itself, ahead of the rows,
// for two of them at once where it can be. Columns of I are left out as below. Nothing is written before it is known that
// no rows have to be exchanged: invert_any starts anew.
void invert_4(InverseWork& work, const Stored<float>* src, Stored<float>* dst) {
  RowOf4 rows[4];
#pragma GCC unroll 4
  for (std::ptrdiff_t i = 0; i < 4; ++i)
#pragma GCC unroll 4
    for (std::ptrdiff_t p = 0; p < kPartsOf4 / 2; ++p)
      rows[i].part[p] = widened<kPartOf4>(load_floats<kPartOf4>(src + 4 * i + p * kPartOf4));

  const Doubles<2> first0 = rows[0].first(), first1 = rows[1].first();
  const Doubles<2> first2 = rows[2].first(), first3 = rows[3].first();
  // From memory once more: the first factor waits for nothing else.
  const double p0 = static_cast<double>(src->value), a01 = lane_of(first0, 1), a02 = lane_of(rows[0].second(), 0);
  if (p0 == 0.0) return invert_any(work, 4, src, dst);
  const double f1 = static_cast<double>(src[4].value) / p0;
  const Doubles<2> f23 = pair_of(lane_of(first2, 0), lane_of(first3, 0)) / p0;
  const double p1 = through_float(lane_of(first1, 1) - a01 * f1);
  const Doubles<2> next23 = through_float<2>(pair_of(lane_of(first2, 1), lane_of(first3, 1)) - f23 * a01);
  eliminate<kPartsOf4 / 2>(rows[1], rows[0], f1);
  eliminate<kPartsOf4 / 2>(rows[2], rows[0], lane_of(f23, 0));
  eliminate<kPartsOf4 / 2>(rows[3], rows[0], lane_of(f23, 1));
  const Doubles<2> column4 = through_float<2>(pair_of(0.0, 0.0) - f23);
  rows[0].low = pair_of(1.0, 0.0);
  rows[1].low = pair_of(through_float(0.0 - f1), 1.0);
  rows[2].low = pair_of(lane_of(column4, 0), 0.0);
  rows[3].low = pair_of(lane_of(column4, 1), 0.0);

  if (p1 == 0.0) return invert_any(work, 4, src, dst);
  const Doubles<2> g23 = next23 / p1;
  const double g0 = a01 / p1;
  const Doubles<2> row1 = rows[1].second(), old2 = rows[2].second(), old3 = rows[3].second();
  const double a12 = lane_of(row1, 0);
  const Doubles<2> after23 = through_float<2>(pair_of(lane_of(old2, 0), lane_of(old3, 0)) - g23 * a12);
  const double after0 = through_float(a02 - a12 * g0);
  eliminate_with_low(rows[2], rows[1], lane_of(g23, 0));
  eliminate_with_low(rows[3], rows[1], lane_of(g23, 1));
  eliminate_with_low(rows[0], rows[1], g0);
  rows[0].complete(pair_of(0.0, 0.0));
  rows[1].complete(pair_of(0.0, 0.0));
  rows[2].complete(pair_of(1.0, 0.0));
  rows[3].complete(pair_of(0.0, 1.0));

  const double p2 = lane_of(after23, 0);
  if (p2 == 0.0) return invert_any(work, 4, src, dst);
  const double h3 = lane_of(after23, 1) / p2;
  const Doubles<2> h01 = pair_of(after0, a12) / p2;
  const Doubles<2> row0 = rows[0].second(), row2 = rows[2].second(), row3 = rows[3].second();
  const double a23 = lane_of(row2, 1);
  const double p3 = through_float(lane_of(row3, 1) - a23 * h3);
  const Doubles<2> last01 = through_float<2>(pair_of(lane_of(row0, 1), lane_of(row1, 1)) - h01 * a23);
  eliminate<kPartsOf4>(rows[3], rows[2], h3);
  eliminate<kPartsOf4>(rows[0], rows[2], lane_of(h01, 0));
  eliminate<kPartsOf4>(rows[1], rows[2], lane_of(h01, 1));

  if (p3 == 0.0) return invert_any(work, 4, src, dst);
  const Doubles<2> e01 = last01 / p3;
  const double e2 = a23 / p3;
  const Doubles<2> d01 = through_float<2>(pair_of(lane_of(rows[0].first(), 0), lane_of(rows[1].first(), 1)) -
                                          rows[3].first() * e01);
  const double d2 = through_float(lane_of(row2, 0) - lane_of(rows[3].second(), 0) * e2);
  eliminate<kPartsOf4>(rows[0], rows[3], lane_of(e01, 0));
  eliminate<kPartsOf4>(rows[1], rows[3], lane_of(e01, 1));
  eliminate<kPartsOf4>(rows[2], rows[3], e2);
  const Doubles<2> q01 = pair_of(1.0, 1.0) / d01;
  const double reciprocals[4] = {lane_of(q01, 0), lane_of(q01, 1), 1.0 / d2, 1.0 / p3};
#pragma GCC unroll 4
  for (std::ptrdiff_t i = 0; i < 4; ++i)
#pragma GCC unroll 4
    for (std::ptrdiff_t p = 0; p < kPartsOf4; ++p) {
      const Floats<kPartOf4> part = rounded<kPartOf4>(rows[i].part[p] * reciprocals[i]);
      store_floats<kPartOf4>(out<float>(work[i] + p * kPartOf4), part);
      if (p >= kPartsOf4 / 2) store_floats<kPartOf4>(dst + 4 * i + (p - kPartsOf4 / 2) * kPartOf4, part);
    }
}
#endif

// From so many rows on it pays to divide in vectors, and to finish row after row.
constexpr int32_t kManyRows = 8;

// The factors of step k, and column k + 1 as it will be after it.
OX_INLINE void find_factors(const InverseWork& work, int32_t k, int32_t n, double ahead, double (&column)[kMostInverse],
                            double (&factors)[kMostInverse]) {
  const double pivot = column[k];
  const float* below = work[0] + k + 1;
#if !defined(__arm__)
  if (n >= kManyRows) {
    // Row k and, up to a whole vector, rows behind the matrix are computed too, and not used.
    for (std::ptrdiff_t i = 0; i < n; i += kDoubles, below += kDoubles * kWorkRow) {
      Doubles<kDoubles> v;
      __builtin_memcpy(&v, column + i, sizeof v);
      v /= pivot;
      __builtin_memcpy(factors + i, &v, sizeof v);
      Floats<kDoubles> next = {};
#pragma GCC unroll 8
      for (int r = 0; r < kDoubles; ++r) next[r] = below[r * kWorkRow];
      v = widened<kDoubles>(rounded<kDoubles>(widened<kDoubles>(next) - v * ahead));
      __builtin_memcpy(column + i, &v, sizeof v);
    }
    return;
  }
#endif
  for (std::ptrdiff_t i = 0; i < n; ++i, below += kWorkRow) {
    if (i == k) continue;
    factors[i] = column[i] / pivot;
    column[i] = static_cast<double>(static_cast<float>(static_cast<double>(*below) - ahead * factors[i]));
  }
}

// A step in rows one behind the other, vector after vector.
template <int kRows>
OX_INLINE void eliminate_rows(float* rows, const double* factors, const Doubles<kDoubles>* pivots,
                              std::ptrdiff_t vectors) {
  for (; vectors > 0; --vectors, rows += kDoubles, ++pivots)
#pragma GCC unroll 2
    for (std::ptrdiff_t r = 0; r < kRows; ++r) {
      float* const at = rows + r * kWorkRow;
      store_doubles(at, load_doubles(at) - *pivots * factors[r]);
    }
}

__attribute__((noinline)) void invert_any(InverseWork& work, int32_t n, const void* src, void* dst) {
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
    // another, each against all rows; many go along two rows at a time, row k with them, which is put back. Where each lane
    // is converted by itself, pivots that stay in registers are worth more.
    if (kConvertsEachLane || n < kManyRows) {
      for (std::ptrdiff_t j = 0; j < used; j += kDoubles) {
        const Doubles<kDoubles> pivots = load_doubles(work[k] + j);
        float* at = work[0] + j;
        for (std::ptrdiff_t i = 0; i < n; ++i, at += kWorkRow)
          if (i != k) store_doubles(at, load_doubles(at) - pivots * factors[i]);
      }
    } else {
      Doubles<kDoubles> pivots[2 * kMostInverse / kDoubles];
      const std::ptrdiff_t vectors = (used + kDoubles - 1) / kDoubles;
      float* at = work[k];
      for (std::ptrdiff_t v = 0; v < vectors; ++v, at += kDoubles) pivots[v] = load_doubles(at);
      for (std::ptrdiff_t i = 0; i + 1 < n; i += 2) eliminate_rows<2>(work[i], factors + i, pivots, vectors);
      if (n % 2 != 0) eliminate_rows<1>(work[n - 1], factors + n - 1, pivots, vectors);
      for (std::ptrdiff_t v = vectors; v > 0; --v) store_doubles(at -= kDoubles, pivots[v - 1]);
    }
  }
  for (int32_t r = 0; r < n; ++r) {
    const double reciprocal = 1.0 / static_cast<double>(work[r][r]);
    float* at = work[r];
    for (int32_t j = 0; j < width; j += kDoubles, at += kDoubles) store_doubles(at, load_doubles(at) * reciprocal);
  }
  copy_block(reinterpret_cast<const Stored<float>*>(work[0] + n), kWorkRow, n, n, out<float>(dst), n);
}

void gauss_jordan(InverseWork& work, int32_t n, const void* src, void* dst) {
#if OX_LANE_BYTES == 64
  if (n == 4) return kernels_32.gauss_jordan(work, n, src, dst);  // four doubles are 32 bytes
#else
  if (n == 4) return invert_4(work, in<float>(src), out<float>(dst));
#endif
  invert_any(work, n, src, dst);
}

}  // namespace
}  // namespace ox
