// SPDX-License-Identifier: MIT
// Transposition of blocks: bits move, nothing is computed.
#pragma once

#include <utility>

#include "lanes/lanes.h"

namespace ox {
namespace {

template <int kSize> struct BitsOfSize;
template <> struct BitsOfSize<1> { using type = uint8_t; };
template <> struct BitsOfSize<2> { using type = uint16_t; };
template <> struct BitsOfSize<4> { using type = uint32_t; };
template <> struct BitsOfSize<8> { using type = uint64_t; };

// Two vectors of half the size, one behind the other.
template <class Vec, class Half, int... kLane>
OX_INLINE Vec join(Half low, Half high, std::integer_sequence<int, kLane...>) {
  return __builtin_shufflevector(low, high, kLane...);
}

// Parts of 16 bytes, one from every kPart-th row; zeros for rows from `rows` on.
template <class T, int Bytes>
OX_INLINE typename CompilerLanes<T, Bytes>::Vec load_parts(const Stored<T>* src, std::ptrdiff_t row,
                                                           std::ptrdiff_t first, std::ptrdiff_t rows) {
  constexpr std::ptrdiff_t kPart = 16 / sizeof(T);
  if constexpr (Bytes == 16) {
    return first < rows ? CompilerLanes<T, 16>::load(src + first * row) : typename CompilerLanes<T, 16>::Vec{};
  } else {
    const auto low = load_parts<T, Bytes / 2>(src, row, first, rows);
    const auto high = load_parts<T, Bytes / 2>(src, row, first + Bytes / 32 * kPart, rows);
    return join<typename CompilerLanes<T, Bytes>::Vec>(low, high, std::make_integer_sequence<int, Bytes / int{sizeof(T)}>{});
  }
}

// The lower (kHalf 0) or upper halves of two vectors, lane by lane in turn, in each 16 bytes by themselves.
template <int kHalf, int kPart, class Vec, int... kLane>
OX_INLINE Vec zip(Vec a, Vec b, std::integer_sequence<int, kLane...>) {
  constexpr int n = sizeof...(kLane);
  return __builtin_shufflevector(
      a, b, (kLane / kPart * kPart + kHalf * kPart / 2 + kLane % kPart / 2 + (kLane & 1) * n)...);
}

// kPart vectors as the rows of squares of 16 bytes, side by side. Zipping row i with row i + n/2 for all i, log2(n) times
// over, is a transposition of each: a round rotates the bits of an element's address (row, column) by one place.
template <int kPart, int kLanes, class Vec> OX_INLINE void transpose_squares(Vec (&rows)[kPart]) {
  Vec zipped[kPart];
#pragma GCC unroll 4
  for (int round = 1; round < kPart; round *= 2) {
#pragma GCC unroll 16
    for (int i = 0; i < kPart / 2; ++i) {
      zipped[2 * i] = zip<0, kPart>(rows[i], rows[i + kPart / 2], std::make_integer_sequence<int, kLanes>{});
      zipped[2 * i + 1] = zip<1, kPart>(rows[i], rows[i + kPart / 2], std::make_integer_sequence<int, kLanes>{});
    }
#pragma GCC unroll 16
    for (int i = 0; i < kPart; ++i) rows[i] = zipped[i];
  }
}

// How many columns are transposed together: as many as fill 16 bytes of a row.
template <class T> constexpr int kColumnsAtOnce = 16 / int{sizeof(T)};

// The first kPart columns of as many rows as a vector has lanes, a vector each; zeros for rows from `rows` on.
template <class T, int kPart, class Vec>
OX_INLINE void load_columns(Vec (&columns)[kPart], const Stored<T>* src, std::ptrdiff_t row, std::ptrdiff_t rows) {
#if defined(__arm__) && defined(__ARM_NEON)
  if constexpr (sizeof(T) == 4) return load_columns_of_4(columns, src, row, rows);
#endif
#pragma GCC unroll 16
  for (int r = 0; r < kPart; ++r) columns[r] = load_parts<T, sizeof(Vec)>(src, row, r, rows);
  transpose_squares<kPart, sizeof(Vec) / sizeof(T)>(columns);
}

// dst(j, i) = src(i, j) for the columns of src that load_columns takes.
template <class L, class T>
OX_INLINE void transpose_tile(const Stored<T>* src, std::ptrdiff_t src_row, std::ptrdiff_t rows, Stored<T>* dst,
                              std::ptrdiff_t dst_row) {
  constexpr int kPart = kColumnsAtOnce<T>;
  typename L::Vec columns[kPart];
  load_columns(columns, src, src_row, rows);
#pragma GCC unroll 16
  for (int c = 0; c < kPart; ++c, dst += dst_row) L::store(dst, columns[c]);
}

// dst(j, i) = src(i, j), vector after vector of a row of dst.
template <bool kPadded, int kBytes = OX_LANE_BYTES, class T>
OX_INLINE void transpose_strip(const Stored<T>* src, std::ptrdiff_t src_row, std::ptrdiff_t rows, std::ptrdiff_t cols,
                               Stored<T>* dst, std::ptrdiff_t dst_row) {
  using L = CompilerLanes<T, kBytes>;
  constexpr int kPart = kColumnsAtOnce<T>;
  std::ptrdiff_t high;
  for (; rows > 0; rows -= high, src += high * src_row, dst += high) {
    high = rows < L::kCount ? rows : L::kCount;
    const Stored<T>* from = src;
    Stored<T>* to = dst;
    std::ptrdiff_t left = cols;
    if (kPadded || high == L::kCount)
      for (; left >= kPart; left -= kPart, from += kPart, to += kPart * dst_row)
        transpose_tile<L>(from, src_row, kPadded ? high : L::kCount, to, dst_row);
    for (; left > 0; --left, ++from, to += dst_row) {
      const Stored<T>* element = from;
      for (std::ptrdiff_t r = 0; r < high; ++r, element += src_row) to[r] = *element;
    }
  }
}

// The columns of src that lie in one cache line, down all rows: the line is read at once, dst is written along its rows.
template <bool kPadded, class T>
__attribute__((noinline)) void transpose_line(const Stored<T>* src, std::ptrdiff_t src_row, std::ptrdiff_t rows,
                                              std::ptrdiff_t cols, Stored<T>* dst, std::ptrdiff_t dst_row) {
  // Panels of bytes and 16-bit words are filled as fast by vectors of half the size, with half the code. Vectors of 64
  // bytes, put together from parts of 16, are faster only where both sizes are known.
  constexpr int kHalf = OX_LANE_BYTES > 16 ? OX_LANE_BYTES / 2 : OX_LANE_BYTES;
  constexpr int kBytes = OX_LANE_BYTES > 32 || (kPadded && sizeof(T) <= 2) ? kHalf : OX_LANE_BYTES;
  transpose_strip<kPadded, kBytes>(src, src_row, rows, cols, dst, dst_row);
}

// dst(j, i) = src(i, j) for rows x cols elements of src; the two do not overlap. With kPadded a row of dst may be stored
// to in whole vectors: what reads it next as a vector need not wait for parts.
template <bool kPadded, class T>
OX_INLINE void transpose_block(const Stored<T>* src, std::ptrdiff_t src_row, std::ptrdiff_t rows, std::ptrdiff_t cols,
                               Stored<T>* dst, std::ptrdiff_t dst_row) {
  constexpr std::ptrdiff_t kLine = 64 / sizeof(T);
  for (; cols > kLine; cols -= kLine, src += kLine, dst += kLine * dst_row)
    transpose_line<kPadded>(src, src_row, rows, kLine, dst, dst_row);
  transpose_line<kPadded>(src, src_row, rows, cols, dst, dst_row);
}

#if OX_LANE_BYTES == 64
// Words of 32 and 64 bits, half as many columns as rows: each vector is loaded as parts of two rows, of which it exchanges
// a half with one other vector at the end.
template <class T>
OX_INLINE void transpose_wide_tile(const Stored<T>* src, std::ptrdiff_t src_row, Stored<T>* dst, std::ptrdiff_t dst_row) {
  using L = CompilerLanes<T, 64>;
  const auto load = [](const Stored<T>* p) { return (Words32)CompilerLanes<T, 32>::load(p); };
  constexpr int kPart = kColumnsAtOnce<T>;
  const std::ptrdiff_t quarter = kPart * src_row;
  typename L::Vec first[kPart], second[kPart];
#pragma GCC unroll 4
  for (int r = 0; r < kPart; ++r, src += src_row) {
    first[r] = (typename L::Vec)join_halves(load(src), load(src + quarter));
    second[r] = (typename L::Vec)join_halves(load(src + 2 * quarter), load(src + 3 * quarter));
  }
  transpose_squares<kPart, L::kCount>(first);
  transpose_squares<kPart, L::kCount>(second);
  Stored<T>* right = dst + kPart * dst_row;
#pragma GCC unroll 4
  for (int c = 0; c < kPart; ++c, dst += dst_row, right += dst_row) {
    const auto a = (Words64)first[c], b = (Words64)second[c];
    L::store(dst, (typename L::Vec)__builtin_shufflevector(a, b, 0, 1, 4, 5, 8, 9, 12, 13));
    L::store(right, (typename L::Vec)__builtin_shufflevector(a, b, 2, 3, 6, 7, 10, 11, 14, 15));
  }
}

// Rows in whole vectors, 64 columns at a time: so many rows of dst stay in the first-level cache, unless they are so far
// apart that they meet in few of its sets. Then only the columns of src that lie in one cache line.
template <class T>
void transpose_wide(const Stored<T>* src, std::ptrdiff_t rows, std::ptrdiff_t cols, Stored<T>* dst) {
  constexpr std::ptrdiff_t kSize = sizeof(T), kRows = 64 / kSize, kTile = kRows / 2;
  const std::ptrdiff_t band = rows * kSize % 1024 == 0 ? kRows : 64;
  const std::ptrdiff_t whole = rows / kRows * kRows;
  for (std::ptrdiff_t first = 0; first + kTile <= cols; first += band) {
    const std::ptrdiff_t past = cols - first < band ? cols : first + band;
    for (std::ptrdiff_t i = 0; i < whole; i += kRows) {
      const Stored<T>* from = src + i * cols + first;
      Stored<T>* to = dst + first * rows + i;
      for (std::ptrdiff_t left = past - first; left >= kTile; left -= kTile, from += kTile, to += kTile * rows)
        transpose_wide_tile(from, cols, to, rows);
    }
  }
  const std::ptrdiff_t done = cols / kTile * kTile;
  if (done < cols) transpose_line<false>(src + done, cols, whole, cols - done, dst + done * rows, rows);
  if (whole < rows) transpose_block<false>(src + whole * cols, cols, rows - whole, cols, dst + whole, rows);
}
#endif

// dst(i, j) = src(i, j) for rows x cols elements; the two do not overlap.
template <class T>
void copy_block(const Stored<T>* src, std::ptrdiff_t src_row, std::ptrdiff_t rows, std::ptrdiff_t cols, Stored<T>* dst,
                std::ptrdiff_t dst_row) {
  using L = CompilerLanes<T, 16>;
  using Half = CompilerLanes<T, 8>;
  for (; rows > 0; --rows, src += src_row, dst += dst_row) {
    std::ptrdiff_t j = 0;
    for (; j + L::kCount <= cols; j += L::kCount) L::store(dst + j, L::load(src + j));
    if (j + Half::kCount <= cols) {
      Half::store(dst + j, Half::load(src + j));
      j += Half::kCount;
    }
    for (; j < cols; ++j) dst[j] = src[j];
  }
}

}  // namespace
}  // namespace ox
