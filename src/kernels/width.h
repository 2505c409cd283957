// SPDX-License-Identifier: MIT
// The table of one width. Included once by each width's source, after OX_LANE_BYTES and OX_TABLE are set.
#pragma once

#include "kernels/elementwise.h"
#include "kernels/filter.h"
#include "kernels/gauss_jordan.h"
#include "kernels/nearest.h"
#include "kernels/product.h"

namespace ox {

namespace {

template <int kSizeLog2> void transpose(const void* src, std::ptrdiff_t rows, std::ptrdiff_t cols, void* dst) {
  using Bits = typename BitsOfSize<1 << kSizeLog2>::type;
#if OX_LANE_BYTES == 64
  if constexpr (kSizeLog2 >= 2)
    if (rows << kSizeLog2 >= 64) return transpose_wide(in<Bits>(src), rows, cols, out<Bits>(dst));
  kernels_32.transpose[kSizeLog2](src, rows, cols, dst);
#else
  transpose_block<false>(in<Bits>(src), cols, rows, cols, out<Bits>(dst), rows);
#endif
}

}  // namespace

#define OX_BY_DEPTH(kernel) \
  { kernel<uint8_t>, kernel<uint8_t>, kernel<uint16_t>, kernel<uint16_t>, kernel<uint32_t>, kernel<float>, kernel<uint64_t>, kernel<double> }

extern const Kernels OX_TABLE;
const Kernels OX_TABLE = {
    OX_LANE_BYTES,
    OX_BY_DEPTH(product),
    OX_BY_DEPTH(add_each),
    OX_BY_DEPTH(sub_each),
    OX_BY_DEPTH(scale_each),
    OX_BY_DEPTH(negate_each),
    OX_BY_DEPTH(fill_ones),
    {transpose<0>, transpose<1>, transpose<2>, transpose<3>},
    gauss_jordan,
    nearest<FloatLanes>,
    predict,
    innovation_covariance,
    update,
};

}  // namespace ox
