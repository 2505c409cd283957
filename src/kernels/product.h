// SPDX-License-Identifier: MIT
// The kernel of the three products, for all scalar types and all widths; large ones of integers may go by pairs of terms.
//
// Lanes run across the columns of the result and k is innermost, with a tile of several rows and vectors of running
// sums in registers. So each element is summed in rising k, exactly as the plain loop does it, and blocking changes no
// bit: a running sum that is stored and loaded again is the same number.
#pragma once

#include "kernels/kernels.h"
#include "kernels/product_by_pairs.h"
#include "kernels/transpose.h"
#include "lanes/flush.h"

namespace ox {
namespace {

template <class T> struct Factors {
  const Stored<T>* a;
  std::ptrdiff_t a_row, a_col;
  const Stored<T>* b;
  std::ptrdiff_t b_row;  // rows of b, or of a panel of it, are contiguous here
};

// How the last vector of a tile is loaded and stored: moved left to end with the row,
template <class L> struct MovedTail {
  std::ptrdiff_t offset;
  template <class T> OX_INLINE typename L::Vec load(const Stored<T>* p) const { return L::load(p + offset); }
  template <class T> OX_INLINE void store(Stored<T>* p, typename L::Vec v) const { L::store(p + offset, v); }
};
// or masked, where the row is shorter than a vector: a load through a mask costs the vector unit an operation.
template <class L> struct MaskedTail {
  typename L::Mask mask;
  template <class T> OX_INLINE typename L::Vec load(const Stored<T>* p) const { return L::load(p, mask); }
  template <class T> OX_INLINE void store(Stored<T>* p, typename L::Vec v) const { L::store(p, v, mask); }
};

// Sums start from the addend, or from -0: -0 + x is x, the sign of a zero included, so the first product is as if stored.
template <class T> constexpr T kNoAddend = static_cast<T>(-0.0);

// One element by the scalar unit.
template <class T>
OX_INLINE void plain_dot(const Factors<T>& f, std::ptrdiff_t terms, const Stored<T>* c, Stored<T>* dst, bool subtract) {
  T sum = c ? c->value : kNoAddend<T>;
  const Stored<T>* a = f.a;
  const Stored<T>* b = f.b;
  for (; terms > 0; --terms, a += f.a_col, b += f.b_row) {
    const T term = ox::mul(a->value, b->value);
    sum = subtract ? ox::sub(sum, term) : ox::add(sum, term);
  }
  dst->value = sum;
}

// By the scalar unit: where the vector unit has flushed a subnormal, and where there is too little to fill a vector. The
// factors come by value: where their address is known to nobody, they stay in registers.
template <class T>
__attribute__((noinline)) void plain(Factors<T> f, std::ptrdiff_t b_col, std::ptrdiff_t rows, std::ptrdiff_t cols,
                                     std::ptrdiff_t terms, const Stored<T>* c, Stored<T>* dst, std::ptrdiff_t pitch,
                                     bool subtract) {
  for (; rows > 0; --rows, f.a += f.a_row, dst += pitch) {
    Factors<T> column = f;
    for (std::ptrdiff_t j = 0; j < cols; ++j, column.b += b_col)
      plain_dot(column, terms, c ? c + j : nullptr, dst + j, subtract);
    if (c) c += pitch;
  }
}

// One row of b, kVectors vectors of it.
template <class L, int kVectors, class T, class Tail>
OX_INLINE void load_row(typename L::Vec (&row)[kVectors], const Stored<T>* b, const Tail& tail) {
#pragma GCC unroll 4
  for (int v = 0; v + 1 < kVectors; ++v) row[v] = L::load(b + v * L::kCount);
  row[kVectors - 1] = tail.load(b);
}

// Adds a(r, k) * row for one k, where a holds the factors of four successive k for each row of the tile.
template <class L, int kLane, int kRows, int kVectors, class FourFactors>
OX_INLINE void add_lane(typename L::Sum (&sums)[kRows][kVectors], const FourFactors (&a)[kRows],
                        const typename L::Vec (&row)[kVectors]) {
#pragma GCC unroll 12
  for (int r = 0; r < kRows; ++r)
#pragma GCC unroll 4
    for (int v = 0; v < kVectors; ++v) sums[r][v] = L::template mul_add_lane<kLane>(sums[r][v], a[r], row[v]);
}

// Adds a(r, k) * row for one k and one r, where a holds the factors of successive rows.
template <class L, int kRow, int kVectors>
OX_INLINE void add_to_row(typename L::Sum (&sums)[kVectors], typename L::FourFactors a,
                          const typename L::Vec (&row)[kVectors]) {
#pragma GCC unroll 4
  for (int v = 0; v < kVectors; ++v) sums[v] = L::template mul_add_lane<kRow>(sums[v], a, row[v]);
}

// Lanes whose factors stand in memory as whole vectors.
template <class Base> struct SpreadLanes : Base {};
template <class L> constexpr bool kSpread = false;
template <class Base> constexpr bool kSpread<SpreadLanes<Base>> = true;

template <class L, class T> OX_INLINE typename L::Factor factor_at(const Stored<T>* p) {
  if constexpr (kSpread<L>)
    return (typename L::Factor)L::load(p);
  else
    return L::factor(p->value);
}

// Factors in memory that meet two vectors, or one twice, in even and in odd lanes, are loaded twice, by way of a zero that
// the compiler does not know: a load takes the place of the copy that a product, which destroys a factor, would cost.
// Where two vectors are loaded each term, more than every other row would be more loads than the processor has time for.
template <class L, int kVectors> constexpr bool kLoadsTwice = kSpread<L> && kVectors * L::kRegistersPerSum == 2;

// Adds a(r, k) * row for one k.
template <class L, int kRows, int kVectors, class T>
OX_INLINE void add_term(typename L::Sum (&sums)[kRows][kVectors], const Stored<T>* a, std::ptrdiff_t a_row,
                        const typename L::Vec (&row)[kVectors], std::ptrdiff_t zero = 0) {
#pragma GCC unroll 12
  for (int r = 0; r < kRows; ++r) {
    const auto x = factor_at<L>(a + r * a_row);
    if constexpr (kLoadsTwice<L, kVectors> && kVectors == 1) {
      sums[r][0] = L::mul_add(sums[r][0], x, factor_at<L>(a + r * a_row + zero), row[0]);
    } else if constexpr (kLoadsTwice<L, kVectors>) {
      sums[r][0] = L::mul_add(sums[r][0], x, row[0]);
      sums[r][1] = L::mul_add(sums[r][1], factor_at<L>(a + r * a_row + (r % 2 == 0 ? zero : 0)), row[1]);
    } else {
#pragma GCC unroll 4
      for (int v = 0; v < kVectors; ++v) sums[r][v] = L::mul_add(sums[r][v], x, row[v]);
    }
  }
}

#if defined(__x86_64__)
constexpr bool kSse2 = OX_LANE_BYTES == 16;
#else
constexpr bool kSse2 = false;
#endif
// SSE2 takes two instructions to spread a factor. Shared by four vectors they cost less than what it takes to load two of
// those again for each row, as twelve sums leave no room for them.
template <class L>
constexpr bool kSpreadsInTwo = kSse2 && sizeof(typename L::Scalar) == 4 && kIsFloat<typename L::Scalar>;
// Integers of 8 and 16 bits take four and more, and all but those of 16 meet half a vector at a time: the factors of a few
// rows are spread once for all columns.
template <class L>
constexpr bool kSpreadsAhead = kSse2 && sizeof(typename L::Scalar) <= 4 && !kIsFloat<typename L::Scalar>;

// Rows of three vectors, or an odd number, as tiles of three: 32 registers have room for eight rows of them.
template <class L>
constexpr bool kThrees = OX_LANE_BYTES == 64 && sizeof(typename L::Scalar) == 4 && kIsFloat<typename L::Scalar>;

// Tiles that take two terms a turn, as what they do beside products and sums is all that they could be faster by. A pragma
// cannot depend on the template, so their loop stands twice.
constexpr int kRowsUnrolled = 6;
template <class L, int kRows, int kVectors>
constexpr bool kTwoTerms =
    kSpread<L> || (kVectors > 1 && (kRows == kRowsUnrolled || (kThrees<L> && kRows == 8)));

// kRows x kVectors vectors of the result. All are loaded before the first is stored, so dst may be c even where the
// last vector overlaps the one before.
template <class L, int kRows, int kVectors, class T, class Tail>
OX_INLINE void tile(const Factors<T>& f, std::ptrdiff_t terms, const Stored<T>* c, Stored<T>* dst, std::ptrdiff_t pitch,
                    const Tail& tail, Watch<L>& watch) {
  typename L::Sum sums[kRows][kVectors];
  std::ptrdiff_t terms_left = terms;
  const Stored<T>* a = f.a;
  const Stored<T>* b = f.b;
  typename L::Vec row[kVectors];
  if (c) {
#pragma GCC unroll 12
    for (int r = 0; r < kRows; ++r) {
#pragma GCC unroll 4
      for (int v = 0; v + 1 < kVectors; ++v) sums[r][v] = L::start(L::load(c + r * pitch + v * L::kCount));
      sums[r][kVectors - 1] = L::start(tail.load(c + r * pitch));
    }
  } else {
#pragma GCC unroll 12
    for (int r = 0; r < kRows; ++r)
#pragma GCC unroll 4
      for (int v = 0; v < kVectors; ++v) sums[r][v] = L::start(L::splat(kNoAddend<T>));
    // Before the loop the compiler leaves out what adds nothing: the first product is the sum.
    if constexpr (!L::kByLane) {
      load_row<L>(row, b, tail);
      add_term<L>(sums, a, f.a_row, row);
      --terms_left;
      a += f.a_col;
      b += f.b_row;
    }
  }
  if constexpr (L::kByLane) {
    if (f.a_col == 1) {
      for (; terms_left >= 4; terms_left -= 4, a += 4) {
        typename L::FourFactors factors[kRows];
#pragma GCC unroll 12
        for (int r = 0; r < kRows; ++r) factors[r] = L::load_factors(a + r * f.a_row);
        load_row<L>(row, b, tail);
        add_lane<L, 0>(sums, factors, row);
        load_row<L>(row, b += f.b_row, tail);
        add_lane<L, 1>(sums, factors, row);
        load_row<L>(row, b += f.b_row, tail);
        add_lane<L, 2>(sums, factors, row);
        load_row<L>(row, b += f.b_row, tail);
        add_lane<L, 3>(sums, factors, row);
        b += f.b_row;
      }
    } else if constexpr (kRows == 4) {  // a_row is 1
      for (; terms_left > 0; --terms_left, a += f.a_col, b += f.b_row) {
        const auto factors = L::load_factors(a);
        load_row<L>(row, b, tail);
        add_to_row<L, 0>(sums[0], factors, row);
        add_to_row<L, 1>(sums[1], factors, row);
        add_to_row<L, 2>(sums[2], factors, row);
        add_to_row<L, 3>(sums[3], factors, row);
      }
    }
  }
  if constexpr (kTwoTerms<L, kRows, kVectors>) {
    std::ptrdiff_t zero = 0;
    if constexpr (kLoadsTwice<L, kVectors>) asm("" : "+r"(zero));
#pragma GCC unroll 2
    for (; terms_left > 0; --terms_left, a += f.a_col, b += f.b_row) {
      load_row<L>(row, b, tail);
      add_term<L>(sums, a, f.a_row, row, zero);
    }
  } else {
    // What is bound by the fetching of its instructions gains 5 % where the loop begins, behind what prepares it, in the
    // middle of a cache line.
    if constexpr (kSpreadsInTwo<L> && kVectors == 4) asm(".p2align 6");
    for (; terms_left > 0; --terms_left, a += f.a_col, b += f.b_row) {
      load_row<L>(row, b, tail);
      add_term<L>(sums, a, f.a_row, row);
    }
  }
#pragma GCC unroll 12
  for (int r = 0; r < kRows; ++r)
#pragma GCC unroll 4
    for (int v = 0; v < kVectors; ++v) watch.await(sums[r][v]);
  if constexpr (L::kFlushes)
    if (watch.tripped()) {
      plain(f, 1, kRows, tail.offset + L::kCount, terms, c, dst, pitch, false);
      return watch.clear();
    }
#pragma GCC unroll 12
  for (int r = 0; r < kRows; ++r) {
#pragma GCC unroll 4
    for (int v = 0; v + 1 < kVectors; ++v) L::store(dst + r * pitch + v * L::kCount, L::finish(sums[r][v]));
    tail.store(dst + r * pitch, L::finish(sums[r][kVectors - 1]));
  }
}

// The rows of a band of columns that are left for tiles of kRows, then of fewer.
template <class L, int kRows, int kVectors, class T, class Tail>
OX_INLINE void rows_by(Factors<T>& f, std::ptrdiff_t& rows, std::ptrdiff_t terms, const Stored<T>*& c, Stored<T>*& dst,
                       std::ptrdiff_t pitch, const Tail& tail, Watch<L>& watch) {
  constexpr int kFewer = kRows == 12 ? 8 : kRows == kRowsUnrolled ? 4 : kRows / 2;
  // Eight rows are better taken as twice four than as six and two, and sixteen as twice eight.
  for (; rows >= kRows && (rows - kFewer != kFewer || kRows == 2 * kFewer); rows -= kRows) {
    tile<L, kRows, kVectors>(f, terms, c, dst, pitch, tail, watch);
    f.a += kRows * f.a_row;
    dst += kRows * pitch;
    if (c) c += kRows * pitch;
  }
  if constexpr (kRows > 1) rows_by<L, kFewer, kVectors>(f, rows, terms, c, dst, pitch, tail, watch);
}

// Running sums fill half the registers, where widest_tile and rows_of_band know no better; factors and rows of b share
// the rest.
template <class L, int kVectors> constexpr int rows_of_tile() {
  int rows = L::kByLane ? 4 : 8;  // by lane, the factors of each row take a register too
  while (rows > 1 && rows * kVectors * L::kRegistersPerSum > kVectorRegisters / 2) rows /= 2;
  return rows;
}

struct Shape {
  int rows, vectors;
};
// Where the shapes were measured, twelve registers of sums of 16, 24 of 32: with half as many, a term takes more loads for
// each product.
template <class L> constexpr Shape widest_tile() {
  using T = typename L::Scalar;
  if (kSpreadsInTwo<L>) return {3, 4};
  if (OX_LANE_BYTES == 32) {
    if (kIsFloat<T>) return {kRowsUnrolled, 2};
    if (sizeof(T) == 4) return {3, 4};
    if (sizeof(T) == 1) return {kRowsUnrolled, 1};
  }
  if (kThrees<L>) return {kRowsUnrolled, 4};
  if (OX_LANE_BYTES == 64) return {rows_of_tile<L, 2>(), 2};  // loads are no bound here
  constexpr int kVectors = kVectorRegisters >= 32 ? 4 : 2;
  return {rows_of_tile<L, kVectors>(), kVectors};
}
template <class L> constexpr int kMostVectors = widest_tile<L>().vectors;
template <class L, int kVectors> constexpr int rows_of_band() {
  constexpr Shape kWidest = widest_tile<L>();
  if (kThrees<L> && kVectors == 1) return 12;
  if (kThrees<L> && kVectors == 3) return 8;
  return kVectors == kWidest.vectors ? kWidest.rows : rows_of_tile<L, kVectors>();
}

// A band: the first cols columns, kVectors vectors, of a result whose rows are p.n apart. Rows of b are contiguous.
template <class L, int kVectors>
__attribute__((noinline)) void band(const ProductArgs& p, std::ptrdiff_t cols, Watch<L>& watch) {
  using T = typename L::Scalar;
  Factors<T> f{in<T>(p.a), p.a_row, p.a_col, in<T>(p.b), p.b_row};
  std::ptrdiff_t rows = p.m;
  const Stored<T>* c = in<T>(p.c);
  Stored<T>* dst = out<T>(p.dst);
  constexpr int kRows = rows_of_band<L, kVectors>();
  if constexpr (L::kMasked && kVectors == 1)
    rows_by<L, kRows, kVectors>(f, rows, p.k, c, dst, p.n, MaskedTail<L>{L::mask(cols)}, watch);
  else
    rows_by<L, kRows, kVectors>(f, rows, p.k, c, dst, p.n, MovedTail<L>{cols - L::kCount}, watch);
}

// What is subtracted goes into a panel negated; where there is no panel, the other factor is. c - a * b is c + a * -b to
// the last bit, as rounding knows no sign, so subtraction needs no kernel of its own.
template <class T>
OX_INLINE void negate_panel(Stored<T>* panel, std::ptrdiff_t width, std::ptrdiff_t terms, std::ptrdiff_t cols) {
  using Bits = typename BitsOfSize<sizeof(T)>::type;
  using V = CompilerLanes<Bits, OX_LANE_BYTES>;
  auto* row = reinterpret_cast<Stored<Bits>*>(panel);
  for (std::ptrdiff_t k = 0; k < terms; ++k, row += width) {
    std::ptrdiff_t j = 0;
    for (; j + V::kCount <= cols; j += V::kCount) {
      const auto v = V::load(row + j);
      V::store(row + j, kIsFloat<T> ? v ^ kSignBit<Bits> : -v);
    }
    for (; j < cols; ++j) {
      const Bits v = row[j].value;
      row[j].value = kIsFloat<T> ? static_cast<Bits>(v ^ kSignBit<Bits>) : ox::sub(Bits{0}, v);
    }
  }
}

// Rows of b that are short of a vector, or are columns of a transposed factor, or lie far apart, are brought together
// in a panel, on the stack or in the result: terms rows of `width` scalars, whole vectors unless the machine has none of
// the type.
template <class L, class T>
__attribute__((noinline)) void fill_panel(Stored<T>* panel, std::ptrdiff_t width, const Stored<T>* b,
                                          std::ptrdiff_t b_row, std::ptrdiff_t b_col, std::ptrdiff_t terms,
                                          std::ptrdiff_t cols, bool negate) {
  using Bits = typename BitsOfSize<sizeof(T)>::type;
  using V = CompilerLanes<Bits, OX_LANE_BYTES>;
  auto* to = reinterpret_cast<Stored<Bits>*>(panel);
  // Behind the last real column whole vectors may be loaded; what they find there is multiplied, and thrown away.
  if (cols < L::kCount && !L::kMasked)
    for (std::ptrdiff_t i = 0; i < terms * width; i += V::kCount) V::store(to + i, typename V::Vec{});
  const auto* from = reinterpret_cast<const Stored<Bits>*>(b);
  if (b_col != 1) {
    transpose_block<(L::kCount > 1)>(from, b_col, cols, terms, to, width);
  } else if (cols == width && L::kCount > 1) {
    for (std::ptrdiff_t k = 0; k < terms; ++k, from += b_row, to += width)
      for (std::ptrdiff_t j = 0; j < cols; j += V::kCount) V::store(to + j, V::load(from + j));
  } else {
    copy_block(from, b_row, terms, cols, to, width);
  }
  if (negate) negate_panel(panel, width, terms, cols);
}

constexpr std::ptrdiff_t kPanelBytes = std::ptrdiff_t{14} * 1024;

// Where a cache line begins in storage that has room for part of one more than is asked for. To have the compiler align
// the storage itself takes code at every entry.
constexpr std::size_t kCacheLine = 64;
template <class T> OX_INLINE Stored<T>* line_in(Stored<T>* storage) {
  return storage + (0 - reinterpret_cast<uintptr_t>(storage)) % kCacheLine / sizeof(T);
}

// By panels of most_terms rows at most.
template <class L, int kVectors, class T = typename L::Scalar>
void band_by_panels_in(Stored<T>* panel, std::ptrdiff_t most_terms, const ProductArgs& whole, std::ptrdiff_t cols,
                       Watch<L>& watch) {
  constexpr std::ptrdiff_t kWidth = kVectors * L::kCount;
  // Field by field: a copy as a whole would be by vectors, which have to wait for the words just stored.
  ProductArgs p = {whole.m,     whole.n, whole.k, whole.a, whole.a_row, whole.a_col, panel,
                   kWidth, 1, whole.c, whole.dst, whole.subtract};
  std::ptrdiff_t k = 0;
  do {
    p.k = whole.k - k < most_terms ? whole.k - k : most_terms;
    fill_panel<L>(panel, kWidth, in<T>(whole.b) + k * whole.b_row, whole.b_row, whole.b_col, p.k, cols, p.subtract);
    p.a = in<T>(whole.a) + k * p.a_col;
    if (L::kMasked || cols >= L::kCount) {
      band<L, kVectors>(p, cols, watch);
    } else if constexpr (kVectors == 1) {
      // The row of the result is shorter than a vector too: it goes through one of its own.
      for (std::ptrdiff_t i = 0; i < whole.m; ++i) {
        Stored<T> row[L::kCount] = {};
        ProductArgs one = p;
        one.m = 1;
        one.n = L::kCount;
        one.a = in<T>(p.a) + i * p.a_row;
        one.dst = row;
        if (p.c) {
          copy_block(in<T>(p.c) + i * p.n, 0, 1, cols, row, 0);
          one.c = row;
        }
        band<L, 1>(one, L::kCount, watch);
        copy_block(row, 0, 1, cols, out<T>(p.dst) + i * p.n, 0);
      }
    }
    p.c = p.dst;
    k += most_terms;
  } while (k < whole.k);
}

template <class L, int kVectors> constexpr std::ptrdiff_t terms_of_panel(std::ptrdiff_t bytes) {
  return bytes / (kVectors * L::kCount * static_cast<std::ptrdiff_t>(sizeof(typename L::Scalar)));
}

template <class L, int kVectors>
__attribute__((noinline)) void band_by_panels(const ProductArgs& p, std::ptrdiff_t cols, Watch<L>& watch) {
  using T = typename L::Scalar;
  alignas(8) Stored<T> storage[(kPanelBytes + kCacheLine - 8) / sizeof(T)];
  band_by_panels_in<L, kVectors>(line_in(storage), terms_of_panel<L, kVectors>(kPanelBytes), p, cols, watch);
}

// Whether rows of b lie on so many pages that they are better brought together, where many rows of a meet them. Vectors
// of 64 bytes that are cache lines are better loaded from where they are, if a second-level cache holds them.
template <class T> OX_INLINE bool far_apart(const ProductArgs& p) {
  const std::ptrdiff_t row = p.b_row * static_cast<std::ptrdiff_t>(sizeof(T));
  const bool lines = OX_LANE_BYTES == 64 && (reinterpret_cast<uintptr_t>(p.b) | static_cast<uintptr_t>(row)) % 64 == 0;
  return p.m >= 32 && p.k * row > std::ptrdiff_t{32} * 1024 * (lines ? 32 : 1);
}

// Longer panels than the stack has room for stand in the last rows of the result, until these are due themselves: sums
// seldom wait in the result then, and rows of a are read through.
template <class L> constexpr bool kLends = OX_LANE_BYTES > 16 && kIsFloat<typename L::Scalar>;
// More than a first-level cache holds: that all terms come in one pass matters more.
constexpr std::ptrdiff_t kLentBytes = std::ptrdiff_t{64} * 1024;

// How many rows: whole tiles, an eighth of the result at most, or none.
template <class L> std::ptrdiff_t rows_to_lend(const ProductArgs& p) {
  using T = typename L::Scalar;
  constexpr std::ptrdiff_t kSize = sizeof(T), kTile = rows_of_band<L, kMostVectors<L>>();
  const std::ptrdiff_t panel = p.k * kMostVectors<L> * L::kCount * kSize;
  // Columns of a, a scalar from each line, are not better read through.
  if (p.c || p.a_col != 1 || (p.b_col == 1 && !far_apart<T>(p))) return 0;
  const std::ptrdiff_t bytes = (panel < kLentBytes ? panel : kLentBytes) + static_cast<std::ptrdiff_t>(kCacheLine);
  const std::ptrdiff_t rows = (bytes / (p.n * kSize) / kTile + 1) * kTile;
  return p.m < 8 * rows ? 0 : rows;
}

template <class L, int kVectors, class T>
OX_INLINE void columns(const ProductArgs& p, Stored<T>* lent, std::ptrdiff_t cols, Watch<L>& watch) {
  const bool narrow = !L::kMasked && cols < L::kCount;
  if (kLends<L> && lent)
    band_by_panels_in<L, kVectors>(lent, terms_of_panel<L, kVectors>(kLentBytes), p, cols, watch);
  else if (p.b_col == 1 && !narrow && !far_apart<T>(p) && !p.subtract)
    band<L, kVectors>(p, cols, watch);
  else
    band_by_panels<L, kVectors>(p, cols, watch);
}

template <class L> __attribute__((noinline)) void product_in(const ProductArgs& whole) {
  using T = typename L::Scalar;
  Watch<L> watch;
  if (whole.n <= L::kCount) return columns<L, 1, T>(whole, nullptr, whole.n, watch);
  ProductArgs p = {whole.m,     whole.n,     whole.k, whole.a,   whole.a_row,   whole.a_col, whole.b,
                   whole.b_row, whole.b_col, whole.c, whole.dst, whole.subtract};
  Stored<T>* lent = nullptr;
  if (kLends<L> && p.k > terms_of_panel<L, kMostVectors<L>>(kPanelBytes)) {
    const std::ptrdiff_t rows = rows_to_lend<L>(whole);
    p.m -= rows;
    if (rows > 0) lent = line_in(out<T>(p.dst) + p.m * p.n);
  }
  for (;;) {
    for (std::ptrdiff_t rest = p.n; rest > 0;) {
      const std::ptrdiff_t vectors = (rest + L::kCount - 1) / L::kCount;
      std::ptrdiff_t cols = rest;
      // An odd vector goes first, or three, so that the last of the row, which may be moved left, has the one that it
      // overlaps beside it.
      if (vectors % 2 == 1 || (kMostVectors<L> == 1 && (vectors > 2 || rest == 2 * L::kCount))) {
        constexpr int kOdd = kThrees<L> ? 3 : 1;
        if (vectors > kOdd) cols = kOdd * L::kCount;
        columns<L, kOdd>(p, lent, cols, watch);
      } else if (kMostVectors<L> < 4 || vectors == 2) {
        if (vectors > 2) cols = 2 * L::kCount;
        columns<L, 2>(p, lent, cols, watch);
      } else if constexpr (kMostVectors<L> >= 4) {
        if (vectors > 4) cols = 4 * L::kCount;
        columns<L, 4>(p, lent, cols, watch);
      }
      rest -= cols;
      p.b = in<T>(p.b) + cols * p.b_col;
      if (p.c) p.c = in<T>(p.c) + cols;
      p.dst = out<T>(p.dst) + cols;
    }
    if (!kLends<L> || !lent) return;
    lent = nullptr;
    p.a = in<T>(p.a) + p.m * p.a_row;
    p.b = whole.b;
    p.dst = out<T>(whole.dst) + p.m * p.n;
    p.m = whole.m - p.m;
  }
}

// A vector for each lane of v, which it has in all its lanes.
template <class V> OX_INLINE void spread_lanes(V v, unsigned char* to) {
  constexpr int kLanes = sizeof v / sizeof v[0];
  if constexpr (kLanes == 4) {
    const V spread[] = {__builtin_shufflevector(v, v, 0, 0, 0, 0), __builtin_shufflevector(v, v, 1, 1, 1, 1),
                        __builtin_shufflevector(v, v, 2, 2, 2, 2), __builtin_shufflevector(v, v, 3, 3, 3, 3)};
    __builtin_memcpy(to, spread, sizeof spread);
  } else {
    using Twice = typename CompilerLanes<typename BitsOfSize<2 * sizeof v[0]>::type, sizeof v>::Vec;
    spread_lanes((Twice)zip<0, kLanes>(v, v, std::make_integer_sequence<int, kLanes>{}), to);
    spread_lanes((Twice)zip<1, kLanes>(v, v, std::make_integer_sequence<int, kLanes>{}), to + kLanes / 2 * sizeof v);
  }
}

// Four rows at a time, against all columns: terms of them are spread first. Rows of b are contiguous.
template <class L> __attribute__((noinline)) void product_by_spread(const ProductArgs& p) {
  using T = typename L::Scalar;
  using V = CompilerLanes<T, OX_LANE_BYTES>;
  using S = SpreadLanes<L>;
  constexpr std::ptrdiff_t kRows = 4, kPairRows = kRows / L::kRegistersPerSum;
  constexpr std::ptrdiff_t kTerms = kPanelBytes / (kRows * OX_LANE_BYTES), kRow = kTerms * L::kCount;
  alignas(OX_LANE_BYTES) Stored<T> factors[kRows * kRow];
  Watch<S> watch;
  const std::ptrdiff_t vectors = (p.n + L::kCount - 1) / L::kCount;
  // By two vectors where the registers have room for their sums in all rows, and for the last of the row, which may be
  // moved left, with the one that it overlaps.
  const std::ptrdiff_t singles = kPairRows == kRows ? vectors % 2 : p.n % L::kCount == 0 ? vectors : vectors - 2;
  const Stored<T>* a = in<T>(p.a);
  const Stored<T>* c = in<T>(p.c);
  Stored<T>* dst = out<T>(p.dst);
  std::ptrdiff_t rows = p.m;
  for (; rows >= kRows; rows -= kRows, a += kRows * p.a_row, dst += kRows * p.n) {
    const Stored<T>* addend = c;
    for (std::ptrdiff_t k = 0; k < p.k; k += kTerms) {
      const std::ptrdiff_t terms = p.k - k < kTerms ? p.k - k : kTerms;
      for (std::ptrdiff_t r = 0; r < kRows; ++r) {
        const Stored<T>* from = a + r * p.a_row + k * p.a_col;
        Stored<T>* to = factors + r * kRow;
        std::ptrdiff_t left = terms;
        if (p.a_col == 1)
          for (; left >= L::kCount; left -= L::kCount, from += L::kCount, to += L::kCount * L::kCount)
            spread_lanes(V::load(from), reinterpret_cast<unsigned char*>(to));
        for (; left > 0; --left, from += p.a_col, to += L::kCount) V::store(to, V::splat(from->value));
      }
      Factors<T> f{factors, kRow, L::kCount, in<T>(p.b) + k * p.b_row, p.b_row};
      std::ptrdiff_t j = 0;
      for (; j < singles * L::kCount; j += L::kCount, f.b += L::kCount)
        tile<S, kRows, 1>(f, terms, addend ? addend + j : nullptr, dst + j, p.n, MovedTail<S>{0}, watch);
      for (; j < p.n; j += 2 * L::kCount, f.b += 2 * L::kCount) {
        const std::ptrdiff_t beyond = p.n - j - L::kCount;
        const MovedTail<S> tail{beyond < L::kCount ? beyond : L::kCount};
        f.a = factors;
        for (std::ptrdiff_t r = j; r < j + kRows * p.n; r += kPairRows * p.n, f.a += kPairRows * kRow)
          tile<S, kPairRows, 2>(f, terms, addend ? addend + r : nullptr, dst + r, p.n, tail, watch);
      }
      addend = dst;
    }
    if (c) c += kRows * p.n;
  }
  if (rows > 0)
    product_in<L>({rows, p.n, p.k, a, p.a_row, p.a_col, p.b, p.b_row, p.b_col, c, dst, p.subtract});
}

// A result whose rows are one or two whole vectors, as those of a tracker's filter, or four where no panel is needed: every
// distance is a constant. Panels have so many terms at most.
constexpr std::ptrdiff_t kNarrowTerms = 64;

template <class L, int kVectors> __attribute__((noinline)) void narrow(const ProductArgs& p) {
  using T = typename L::Scalar;
  constexpr std::ptrdiff_t kCols = kVectors * L::kCount;
  constexpr bool kPanel = kVectors <= 2;
  Stored<T> panel[kPanel ? kNarrowTerms * kCols : 1];
  Factors<T> f{in<T>(p.a), p.a_row, p.a_col, in<T>(p.b), kCols};
  if (kPanel && (p.b_col != 1 || p.subtract)) {
    using Bits = typename BitsOfSize<sizeof(T)>::type;
    auto* const to = reinterpret_cast<Stored<Bits>*>(panel);
    if (p.b_col == 1)
      copy_block(in<Bits>(p.b), 0, 1, p.k * kCols, to, 0);
    else
      transpose_strip<false>(in<Bits>(p.b), p.b_col, kCols, p.k, to, kCols);
    if (p.subtract) negate_panel(panel, 0, 1, p.k * kCols);
    f.b = panel;
  }
  Watch<L> watch;
  std::ptrdiff_t rows = p.m;
  const Stored<T>* c = in<T>(p.c);
  Stored<T>* dst = out<T>(p.dst);
  constexpr MovedTail<L> kTail{kCols - L::kCount};
  rows_by<L, rows_of_band<L, kVectors>(), kVectors>(f, rows, p.k, c, dst, kCols, kTail, watch);
}

// One such row, by columns of b that stand in a row each: a matrix times a column. They are transposed in registers.
template <class L, int kVectors> __attribute__((noinline)) void row_by_columns(const ProductArgs& p) {
  using T = typename L::Scalar;
  using Bits = typename BitsOfSize<sizeof(T)>::type;
  constexpr int kPart = kColumnsAtOnce<T>;
  const Stored<T>* const c = in<T>(p.c);
  typename L::Sum sums[kVectors];
#pragma GCC unroll 4
  for (int v = 0; v < kVectors; ++v) sums[v] = L::start(c ? L::load(c + v * L::kCount) : L::splat(kNoAddend<T>));
  Watch<L> watch;
  const Stored<T>* a = in<T>(p.a);
  const Stored<Bits>* b = in<Bits>(p.b);
  for (std::ptrdiff_t k = 0; k < p.k; k += kPart, b += kPart) {
    typename L::Factor factors[kPart];
#pragma GCC unroll 4
    for (int i = 0; i < kPart; ++i, a += p.a_col) factors[i] = L::factor(p.subtract ? -a->value : a->value);
#pragma GCC unroll 4
    for (int v = 0; v < kVectors; ++v) {
      typename CompilerLanes<Bits, OX_LANE_BYTES>::Vec columns[kPart];
      load_columns(columns, b + v * L::kCount * p.b_col, p.b_col, L::kCount);
#pragma GCC unroll 4
      for (int i = 0; i < kPart; ++i) sums[v] = L::mul_add(sums[v], factors[i], (typename L::Vec)columns[i]);
    }
  }
#pragma GCC unroll 4
  for (int v = 0; v < kVectors; ++v) watch.await(sums[v]);
  if constexpr (L::kFlushes)
    if (watch.tripped()) {
      plain<T>({in<T>(p.a), 0, p.a_col, in<T>(p.b), 1}, p.b_col, 1, p.n, p.k, c, out<T>(p.dst), p.n, p.subtract);
      return watch.clear();
    }
#pragma GCC unroll 4
  for (int v = 0; v < kVectors; ++v) L::store(out<T>(p.dst) + v * L::kCount, L::finish(sums[v]));
}

template <class L, int kVectors, class T = typename L::Scalar> OX_INLINE void whole_vectors(const ProductArgs& p) {
  // Wider vectors take longer to transpose than to go through the panel; doubles would go two columns at a time.
  if constexpr (OX_LANE_BYTES == 16 && sizeof(T) == 4)
    if (p.m == 1 && p.b_col != 1 && p.k % kColumnsAtOnce<T> == 0) return row_by_columns<L, kVectors>(p);
  narrow<L, kVectors>(p);
}

// Rows of two or three floats, loaded and stored by parts.
template <class L, int kCols, class T>
OX_INLINE typename L::Vec load_short(const Stored<T>* p, std::ptrdiff_t next) {
  typedef T Pair __attribute__((vector_size(8)));
  Pair low = {p->value, p[next].value}, high = {};
  if (next == 1) __builtin_memcpy(&low, p, sizeof low);
  if (kCols == 3) high[0] = p[2 * next].value;
  return (typename L::Vec)__builtin_shufflevector(low, high, 0, 1, 2, 3);
}
template <class L, int kCols, class T> OX_INLINE void store_short(Stored<T>* p, typename L::Vec v) {
  for (int i = 0; i < kCols; ++i) p[i].value = v[i];
}

template <class L, int kCols, int kRows, class T>
OX_INLINE void short_tile(const Factors<T>& f, std::ptrdiff_t b_col, std::ptrdiff_t terms, const Stored<T>* c,
                          Stored<T>* dst, bool subtract, Watch<L>& watch) {
  typename L::Sum sums[kRows];
#pragma GCC unroll 4
  for (int r = 0; r < kRows; ++r)
    sums[r] = L::start(c ? load_short<L, kCols>(c + r * kCols, 1) : L::splat(kNoAddend<T>));
  const Stored<T>* a = f.a;
  const Stored<T>* b = f.b;
  for (std::ptrdiff_t k = 0; k < terms; ++k, a += f.a_col, b += f.b_row) {
    const auto row = b_col == 1 ? load_short<L, kCols>(b, 1) : load_short<L, kCols>(b, b_col);
#pragma GCC unroll 4
    for (int r = 0; r < kRows; ++r) {
      const T x = a[r * f.a_row].value;
      sums[r] = L::mul_add(sums[r], L::factor(subtract ? -x : x), row);
    }
  }
#pragma GCC unroll 4
  for (int r = 0; r < kRows; ++r) watch.await(sums[r]);
  if constexpr (L::kFlushes)
    if (watch.tripped()) {
      plain(f, b_col, kRows, kCols, terms, c, dst, kCols, subtract);
      return watch.clear();
    }
#pragma GCC unroll 4
  for (int r = 0; r < kRows; ++r) store_short<L, kCols>(dst + r * kCols, L::finish(sums[r]));
}

template <class L, int kCols> __attribute__((noinline)) void short_rows(const ProductArgs& p) {
  using T = typename L::Scalar;
  Watch<L> watch;
  Factors<T> f{in<T>(p.a), p.a_row, p.a_col, in<T>(p.b), p.b_row};
  const Stored<T>* c = in<T>(p.c);
  Stored<T>* dst = out<T>(p.dst);
  for (std::ptrdiff_t rows = p.m; rows > 0;) {
    const int taken = rows >= kCols ? kCols : 1;
    if (taken == kCols)
      short_tile<L, kCols, kCols>(f, p.b_col, p.k, c, dst, p.subtract, watch);
    else
      short_tile<L, kCols, 1>(f, p.b_col, p.k, c, dst, p.subtract, watch);
    rows -= taken;
    f.a += taken * f.a_row;
    dst += std::ptrdiff_t{kCols} * taken;
    if (c) c += std::ptrdiff_t{kCols} * taken;
  }
}

template <class T> void product(const ProductArgs& p);

// A column is computed as a row, so that lanes run along it: the product of two numbers has no order. Out of line, as all
// that needs room on the stack: what only chooses a way should save no registers.
template <class T> __attribute__((noinline)) void column_as_row(const ProductArgs& p) {
  product<T>({1, p.m, p.k, p.b, 0, p.b_row, p.a, p.a_col, p.a_row, p.c, p.dst, p.subtract});
}
template <class T> __attribute__((noinline)) void column_product(const ProductArgs& p) {
  if (p.m > 1) return column_as_row<T>(p);
  plain_dot<T>({in<T>(p.a), p.a_row, p.a_col, in<T>(p.b), p.b_row}, p.k, in<T>(p.c), out<T>(p.dst), p.subtract);
}

template <class T> void product(const ProductArgs& p) {
  using L = NativeLanes<T>;
  if (p.n == 1) return column_product<T>(p);
#if OX_LANE_BYTES == 16
  if constexpr (kIsFloat<T> && L::kCount == 4) {
    if (p.n == 2) return short_rows<L, 2>(p);
    if (p.n == 3) return short_rows<L, 3>(p);
  }
  constexpr std::ptrdiff_t kPlainWork = 64;  // so few products are done before a panel is filled
  if (p.n < L::kCount && p.m <= kPlainWork && p.k <= kPlainWork && p.m * p.n * p.k <= kPlainWork)
    return plain<T>({in<T>(p.a), p.a_row, p.a_col, in<T>(p.b), p.b_row}, p.b_col, p.m, p.n, p.k, in<T>(p.c),
                    out<T>(p.dst), p.n, p.subtract);
#elif OX_LANE_BYTES == 32
  if (p.n < L::kCount) return kernels_16.product[kDepthOf<T>](p);
#else
  // What is a whole vector elsewhere is done there: it needs no mask, and every distance is a constant.
  if (kIsFloat<T>) {
    if (2 * p.n == L::kCount) return kernels_32.product[kDepthOf<T>](p);
    if (4 * p.n == L::kCount) return kernels_16.product[kDepthOf<T>](p);
  }
#endif
  if constexpr (kIsFloat<T> && L::kCount > 1 && (!L::kMasked || kThrees<L>))
    if ((p.b_col == 1 && !p.subtract) || p.k <= kNarrowTerms) {
      if (p.n == L::kCount) return whole_vectors<L, 1>(p);
      if (p.n == 2 * L::kCount) return whole_vectors<L, 2>(p);
    }
  if constexpr (kThrees<L>)
    if (p.n == 4 * L::kCount && p.b_col == 1 && !p.subtract && !far_apart<T>(p)) return narrow<L, 4>(p);
  // A row that is shorter than a masked vector needs no panel, and nothing that would choose one.
  if constexpr (kIsFloat<T> && L::kMasked)
    if (p.n < L::kCount && p.b_col == 1 && !p.subtract) {
      Watch<L> watch;
      return band<L, 1>(p, p.n, watch);
    }
  if constexpr (kHasPairs<T>) {
    using P = PairLanes<T>;
    if (p.m >= 16 && p.n >= P::kLeastCols && p.k >= P::kCount && p.a_col == 1 && p.b_col == 1 && !p.subtract) {
      const std::ptrdiff_t done = rows_by_pairs<P>(p);
      if (done < p.m)
        product_in<L>({p.m - done, p.n, p.k, in<T>(p.a) + done * p.a_row, p.a_row, p.a_col, p.b, p.b_row, p.b_col,
                       p.c ? in<T>(p.c) + done * p.n : nullptr, out<T>(p.dst) + done * p.n, p.subtract});
      return;
    }
  }
  if constexpr (kSpreadsAhead<L>) {
    // Two vectors, so that the last has one beside it, and as many columns as the spreading is shared by for it to pay.
    constexpr std::ptrdiff_t kLeast = 2 * L::kCount > 16 ? 2 * L::kCount : 16;
    if (p.n >= kLeast && p.m >= 4 && p.b_col == 1 && !p.subtract) return product_by_spread<L>(p);
  }
  product_in<L>(p);
}

}  // namespace
}  // namespace ox
