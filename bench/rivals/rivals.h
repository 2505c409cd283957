// SPDX-License-Identifier: MIT
// What a module of rivals offers. Each module is the same sources compiled for one instruction set; plain C types and
// function pointers only, so that nothing inline is shared with the programme that opens it.
#pragma once

#include <stdint.h>

namespace bench {

// Row-major, packed, n x n; every array starts at a multiple of 64 bytes.
using Product = void (*)(const void* a, const void* b, void* dst, long n);
using Transpose = void (*)(const void* src, void* dst, long n);
using Inverse = void (*)(const float* src, float* dst, long n);
// count scalars. scale: b is one scalar, the factor; negate: b is not read; set_one: a and b are not read.
using Elementwise = void (*)(const void* a, const void* b, void* dst, long count);

constexpr int kStates = 8, kMeasurements = 4;

// One filter: the model, and the state that a cycle of predict and correct changes.
struct alignas(64) Filter {
  float A[kStates * kStates];
  float Q[kStates * kStates];
  float H[kMeasurements * kStates];
  float R[kMeasurements * kMeasurements];
  float P[kStates * kStates];
  float x[kStates];
};
using Cycle = void (*)(Filter* filter, const float* z);

// The routines of one author. Arrays go by depth, OX_U8 to OX_F64; null where there is none.
struct Author {
  Product product[8];
  Product product_ta;  // OX_F32: a transposed
  Product product_tb;  // OX_F32: b transposed
  Elementwise add[8], scale[8], negate[8], set_one[8];
  Transpose transpose[8];
  Inverse inverse;
  Cycle cycle;
  Cycle cycle_lazy;  // Eigen's other way to multiply
};

struct Rivals {
  const char* name;
  Author eigen;
  Author plain;
  // By depth: does the multiplications and additions of so many terms of a product, separate ones of vectors of
  // peak_bytes, in registers and in independent chains. Returns the sum of all lanes, of which each is 1 but for
  // rounding, and writes how many lanes these are.
  double (*peak[8])(long terms, long* lanes);
  // By depth, or null: the same in the innermost loop of a product by tiles, which loads from the first-level cache.
  double (*loop[8])(long terms, long* lanes);
  // The same for so many steps of an elimination, of peak_bytes / 8 numbers each, which are floats in memory and doubles
  // in between.
  double (*eliminate)(long steps, long* lanes);
  int peak_bytes;
};

}  // namespace bench
