// SPDX-License-Identifier: MIT
// Large products of integers, two terms at a time: their sums wrap, so the order in which terms are added is free.
#pragma once

#include "kernels/kernels.h"
#include "lanes/pairs.h"

namespace ox {
namespace {

// kRows x kVectors vectors of the result, the last vector moved. All are loaded before the first is stored, so dst may be c
// even where the last overlaps the one before.
template <class P, int kRows, int kVectors, class T>
OX_INLINE void tile_by_pairs(const unsigned char* factors, std::ptrdiff_t factor_row, const typename P::Row* panel,
                             std::ptrdiff_t panel_row, std::ptrdiff_t pairs, const Stored<T>* c, Stored<T>* dst,
                             std::ptrdiff_t pitch, std::ptrdiff_t moved) {
  const auto at = [=](int r, int v) { return r * pitch + v * P::kCount + (v + 1 == kVectors ? moved : 0); };
  typename P::Sum sums[kRows][kVectors];
#pragma GCC unroll 4
  for (int r = 0; r < kRows; ++r)
#pragma GCC unroll 2
    for (int v = 0; v < kVectors; ++v) sums[r][v] = P::start(c ? P::load(c + at(r, v)) : typename P::Vec{});
  for (; pairs > 0; --pairs, factors += P::kFactorBytes, panel += panel_row)
    P::add_pair(sums, factors, factor_row, panel);
#pragma GCC unroll 4
  for (int r = 0; r < kRows; ++r)
#pragma GCC unroll 2
    for (int v = 0; v < kVectors; ++v) P::store(dst + at(r, v), P::finish(sums[r][v]));
}

// The factors of so many terms of a row, a vector at least; zeros where the last term has no other. Behind them there must
// be room for those of one vector more.
template <class P, class T>
OX_INLINE void store_factors(const Stored<T>* a, std::ptrdiff_t terms, unsigned char* to) {
  const auto place = [=](std::ptrdiff_t k) { return to + k / 2 * P::kFactorBytes; };
  const std::ptrdiff_t in_pairs = terms / 2 * 2;
  std::ptrdiff_t k = 0;
  for (; k + P::kCount <= in_pairs; k += P::kCount) P::store_factors(P::load(a + k), place(k));
  if (k < in_pairs) {  // the last group, moved to end with them
    k = in_pairs - P::kCount;
    P::store_factors(P::load(a + k), place(k));
  }
  if (in_pairs < terms) P::store_factors(typename P::Vec{a[in_pairs].value}, place(in_pairs));
}

// Pairs of so many rows of b, vectors of them, the last moved. What stands for a second row that is not there meets zeros.
template <class P, class T>
OX_INLINE void pair_rows(const Stored<T>* b, std::ptrdiff_t b_row, std::ptrdiff_t terms, std::ptrdiff_t vectors,
                         std::ptrdiff_t moved, typename P::Row* to) {
  for (; terms > 0; terms -= 2, b += 2 * b_row)
    for (std::ptrdiff_t v = 0; v < vectors; ++v, ++to) {
      const Stored<T>* const from = b + v * P::kCount + (v + 1 == vectors ? moved : 0);
      *to = P::row(P::load(from), P::load(from + (terms > 1 ? b_row : 0)));
    }
}

// All rows of the result but the last few, fewer than four: returns how many. Rows of a are contiguous, of a vector at
// least, and rows of b, of two; nothing is subtracted.
template <class P> __attribute__((noinline)) std::ptrdiff_t rows_by_pairs(const ProductArgs& p) {
  using T = typename P::Scalar;
  constexpr std::ptrdiff_t kRows = 4, kVectors = P::kPanelVectors, kPairs = P::kPanelPairs;
  constexpr std::ptrdiff_t kFactorRow = (kPairs + P::kCount / 2) * P::kFactorBytes;
  typename P::Row panel[kPairs * kVectors];
  alignas(16) unsigned char factors[kRows * kFactorRow];
  static_assert(sizeof panel + sizeof factors <= 15 * 1024 + 512, "with what else stands there, 16 KiB of stack");
  const std::ptrdiff_t rows = p.m / kRows * kRows;
  std::ptrdiff_t taken, terms;
  for (std::ptrdiff_t j = 0; j < p.n; j += taken * P::kCount) {
    // An odd number of vectors first, so that the last of the row, which may be moved left, has one beside it.
    const std::ptrdiff_t vectors = (p.n - j + P::kCount - 1) / P::kCount;
    taken = vectors < kVectors ? vectors : kVectors - vectors % 2;
    const std::ptrdiff_t moved = taken < vectors ? 0 : p.n - j - taken * P::kCount;
    const std::ptrdiff_t singles = moved == 0 ? taken : taken - 2;
    const Stored<T>* c = p.c ? in<T>(p.c) + j : nullptr;
    // About as many terms in each part, as short ones take longer, and a vector of them at least.
    static_assert((kPairs + 1) / 2 * 2 - 1 >= P::kCount, "where there are two parts, each has half a panel");
    std::ptrdiff_t parts = ((p.k + 1) / 2 + kPairs - 1) / kPairs;
    for (std::ptrdiff_t k = 0; k < p.k; k += terms, --parts) {
      const std::ptrdiff_t pairs = ((p.k - k + 1) / 2 + parts - 1) / parts;
      terms = parts > 1 ? 2 * pairs : p.k - k;
      pair_rows<P>(in<T>(p.b) + k * p.b_row + j, p.b_row, terms, taken, moved, panel);
      const Stored<T>* a = in<T>(p.a) + k;
      const Stored<T>* addend = c;
      Stored<T>* dst = out<T>(p.dst) + j;
      for (std::ptrdiff_t i = 0; i < rows; i += kRows, a += kRows * p.a_row, dst += kRows * p.n) {
        for (std::ptrdiff_t r = 0; r < kRows; ++r) store_factors<P>(a + r * p.a_row, terms, factors + r * kFactorRow);
        std::ptrdiff_t v = 0;
        for (; v < singles; ++v) {
          const std::ptrdiff_t at = v * P::kCount;
          tile_by_pairs<P, kRows, 1>(factors, kFactorRow, panel + v, taken, pairs, addend ? addend + at : nullptr,
                                     dst + at, p.n, 0);
        }
        if (v < taken)
          for (std::ptrdiff_t r = 0; r < kRows; r += 2) {
            const std::ptrdiff_t at = r * p.n + v * P::kCount;
            tile_by_pairs<P, 2, 2>(factors + r * kFactorRow, kFactorRow, panel + v, taken, pairs,
                                   addend ? addend + at : nullptr, dst + at, p.n, moved);
          }
        if (addend) addend += kRows * p.n;
      }
      c = out<T>(p.dst) + j;
    }
  }
  return rows;
}

}  // namespace
}  // namespace ox
