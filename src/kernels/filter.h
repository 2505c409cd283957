// SPDX-License-Identifier: MIT
// Predict and correct of a filter of 8 states and 4 measurements, a tracker's: the products that src/kalman/kalman.cpp
// lists, in its order and with all they store, but of sizes known when compiled. What remains are the sums.
#pragma once

#include "kernels/product.h"

namespace ox {
namespace {

// Lanes for rows of kCols floats: no wider than a row.
template <int kCols> using RowLanes = Lanes<float, (4 * kCols < OX_LANE_BYTES ? 4 * kCols : OX_LANE_BYTES)>;
using FloatWatch = Watch<Lanes<float, 16>>;

#if OX_LANE_BYTES >= 32
// Two rows at once: half the factors to spread, and half the products and sums.
template <class L, int kRows, int kTerms>
OX_INLINE void product_by_row_pairs(const Stored<float>* a, const Stored<float>* b, const Stored<float>* c,
                                    Stored<float>* dst) {
  constexpr std::ptrdiff_t kPairs = kRows / 2, kCols = L::kCount / 2;
  constexpr int kHeld = kTerms < kCols ? kTerms : kCols;  // terms whose factors are in a vector
  static_assert(kRows % 2 == 0 && kTerms % kHeld == 0 && kHeld % 4 == 0);
  typename L::Sum sums[kPairs][1];
#pragma GCC unroll 4
  for (std::ptrdiff_t p = 0; p < kPairs; ++p) sums[p][0] = c ? L::load(c + p * L::kCount) : L::splat(kNoAddend<float>);
  for (int k = 0; k < kTerms; k += kHeld, a += kHeld, b += kHeld * kCols) {
    typename L::Vec factors[kPairs];
#pragma GCC unroll 4
    for (std::ptrdiff_t p = 0; p < kPairs; ++p) factors[p] = L::template load_both<kTerms>(a + 2 * p * kTerms);
    add_lane<L, 0>(sums, factors, {L::load_twice(b)});
    add_lane<L, 1>(sums, factors, {L::load_twice(b + kCols)});
    add_lane<L, 2>(sums, factors, {L::load_twice(b + 2 * kCols)});
    add_lane<L, 3>(sums, factors, {L::load_twice(b + 3 * kCols)});
    if constexpr (kHeld == 8) {
      add_lane<L, 4>(sums, factors, {L::load_twice(b + 4 * kCols)});
      add_lane<L, 5>(sums, factors, {L::load_twice(b + 5 * kCols)});
      add_lane<L, 6>(sums, factors, {L::load_twice(b + 6 * kCols)});
      add_lane<L, 7>(sums, factors, {L::load_twice(b + 7 * kCols)});
    }
  }
#pragma GCC unroll 4
  for (std::ptrdiff_t p = 0; p < kPairs; ++p) L::store(dst + p * L::kCount, sums[p][0]);
}
#endif

// dst = c + a * b, or a * b where c is null, of packed matrices.
template <int kRows, int kTerms, int kCols>
OX_INLINE void fixed_product(const Stored<float>* a, const Stored<float>* b, const Stored<float>* c, Stored<float>* dst,
                             FloatWatch& watch) {
#if OX_LANE_BYTES >= 32
  if constexpr (kRows > 1 && 8 * kCols <= OX_LANE_BYTES)
    return product_by_row_pairs<FloatRowPairs<kCols>, kRows, kTerms>(a, b, c, dst);
#endif
  using L = RowLanes<kCols>;
  constexpr int kVectors = kCols / L::kCount;
  std::ptrdiff_t rows = kRows;
  Factors<float> f{a, kTerms, 1, b, kCols};
  rows_by<L, rows_of_tile<L, kVectors>(), kVectors>(f, rows, kTerms, c, dst, kCols, MovedTail<L>{kCols - L::kCount},
                                                     watch);
}

__attribute__((noinline)) void product_of_states(const Stored<float>* a, const Stored<float>* b, const Stored<float>* c,
                                                 Stored<float>* dst, FloatWatch& watch) {
  fixed_product<kStates, kStates, kStates>(a, b, c, dst, watch);
}

// dst [kCols x kRows] = the transpose of src [kRows x kCols].
template <int kRows, int kCols> OX_INLINE void fixed_transpose(const Stored<float>* src, Stored<float>* dst) {
  using L = CompilerLanes<uint32_t, (4 * kRows < OX_LANE_BYTES ? 4 * kRows : OX_LANE_BYTES)>;
#pragma GCC unroll 2
  for (std::ptrdiff_t i = 0; i < kRows; i += L::kCount)
#pragma GCC unroll 2
    for (std::ptrdiff_t j = 0; j < kCols; j += kColumnsAtOnce<float>)
      transpose_tile<L>(in<uint32_t>(src + i * kCols + j), kCols, L::kCount, out<uint32_t>(dst + j * kRows + i), kRows);
}

template <int kCount> OX_INLINE void negated(const Stored<float>* src, Stored<float>* dst) {
  using V = CompilerLanes<uint32_t, 16>;
  for (int i = 0; i < kCount; i += V::kCount)
    V::store(out<uint32_t>(dst + i), V::load(in<uint32_t>(src + i)) ^ kSignBit<uint32_t>);
}

OX_INLINE Stored<float>* elements(const ox_mat_t* m) { return out<float>(m->data); }

void predict(const ox_kalman_t& kf) {
  Stored<float> model[kStates * kStates], covariance[kStates * kStates];  // transposed
  const Stored<float>* const A = elements(kf.transition_matrix);
  FloatWatch watch;
  fixed_transpose<kStates, kStates>(A, model);
  fixed_product<1, kStates, kStates>(elements(kf.state_post), model, nullptr, elements(kf.state_pre), watch);
  fixed_transpose<kStates, kStates>(elements(kf.error_cov_post), covariance);
  product_of_states(A, covariance, nullptr, elements(kf.temp1), watch);
  product_of_states(elements(kf.temp1), model, elements(kf.process_noise_cov), elements(kf.error_cov_pre), watch);
}

void innovation_covariance(const ox_kalman_t& kf) {
  Stored<float> model[kStates * kMeasurements];  // transposed
  const Stored<float>* const H = elements(kf.measurement_matrix);
  FloatWatch watch;
  fixed_transpose<kMeasurements, kStates>(H, model);
  fixed_product<kStates, kStates, kMeasurements>(elements(kf.error_cov_pre), model, nullptr, elements(kf.temp2), watch);
  fixed_product<kMeasurements, kStates, kMeasurements>(H, elements(kf.temp2), elements(kf.measurement_noise_cov),
                                                       elements(kf.temp3), watch);
}

void update(const ox_kalman_t& kf, const ox_mat_t& measurement) {
  Stored<float> panel[kStates * kStates], state[kStates];
  Stored<float>* const K = elements(kf.gain);
  const Stored<float>* const H = elements(kf.measurement_matrix);
  const Stored<float>* const x_pre = elements(kf.state_pre);
  FloatWatch watch;
  fixed_transpose<kMeasurements, kMeasurements>(elements(kf.temp4), panel);
  fixed_product<kStates, kMeasurements, kMeasurements>(elements(kf.temp2), panel, nullptr, K, watch);
  negated<kStates>(x_pre, state);
  fixed_transpose<kMeasurements, kStates>(H, panel);
  fixed_product<1, kStates, kMeasurements>(state, panel, elements(&measurement), elements(kf.temp5), watch);
  fixed_transpose<kStates, kMeasurements>(K, panel);
  fixed_product<1, kMeasurements, kStates>(elements(kf.temp5), panel, x_pre, elements(kf.state_post), watch);
  negated<kMeasurements * kStates>(H, panel);
  fixed_product<kStates, kMeasurements, kStates>(K, panel, in<float>(kIdentity), elements(kf.temp1), watch);
  fixed_transpose<kStates, kStates>(elements(kf.error_cov_pre), panel);
  product_of_states(elements(kf.temp1), panel, nullptr, elements(kf.error_cov_post), watch);
}

}  // namespace
}  // namespace ox
