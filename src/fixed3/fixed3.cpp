// SPDX-License-Identifier: MIT
// 3 x 3 matrices and 3-vectors of floats on bare arrays.
#include <cstddef>
#include <cstring>

#include "lanes/rounding.h"
#include "ox.h"

namespace {

// Three products of elements `step` apart. The products are exact in double precision; the sum is rounded once.
float dot(const float* a, std::ptrdiff_t a_step, const float* b, std::ptrdiff_t b_step) {
  const double t0 = static_cast<double>(a[0]) * static_cast<double>(b[0]);
  const double t1 = static_cast<double>(a[a_step]) * static_cast<double>(b[b_step]);
  const double t2 = static_cast<double>(a[2 * a_step]) * static_cast<double>(b[2 * b_step]);
  return static_cast<float>((t0 + t1) + t2);
}

// a * b - c * d
float difference(float a, float b, float c, float d) {
  return static_cast<float>(static_cast<double>(a) * static_cast<double>(b) -
                            static_cast<double>(c) * static_cast<double>(d));
}

}  // namespace

void _matmult_3x3(const float* A, const float* B, float* C) {
  for (std::ptrdiff_t r = 0; r < 3; ++r)
    for (std::ptrdiff_t c = 0; c < 3; ++c) C[3 * r + c] = dot(A + 3 * r, 1, B + c, 3);
}

void _matmult_3x3t(const float* A, const float* B, float* C) {
  for (std::ptrdiff_t r = 0; r < 3; ++r)
    for (std::ptrdiff_t c = 0; c < 3; ++c) C[3 * r + c] = dot(A + 3 * r, 1, B + 3 * c, 1);
}

void _matmult_3x3vec(const float* A, const float* v, float* w) {
  for (std::ptrdiff_t r = 0; r < 3; ++r) w[r] = dot(A + 3 * r, 1, v, 1);
}

void _matmult_3x3tvec(const float* A, const float* v, float* w) {
  for (std::ptrdiff_t r = 0; r < 3; ++r) w[r] = dot(A + r, 3, v, 1);
}

void _matneg_3x3(float* A) {
  // By the sign bit: a NaN moved through a floating register could lose its payload.
  for (int i = 0; i < 9; ++i) {
    uint32_t bits;
    std::memcpy(&bits, &A[i], sizeof bits);
    bits ^= 0x80000000u;
    std::memcpy(&A[i], &bits, sizeof bits);
  }
}

float _matdet_3x3(const float* A) {
  // Single precision on purpose, unlike the products: each product and each sum is rounded.
  const float c1 = A[5] * A[6] - A[3] * A[8];
  const float c0 = A[4] * A[8] - A[5] * A[7];
  const float c2 = A[3] * A[7] - A[4] * A[6];
  return ((A[1] * c1) + (A[0] * c0)) + (A[2] * c2);
}

void _vecoutp_3(const float* u, const float* v, float* C) {
  for (std::ptrdiff_t r = 0; r < 3; ++r)
    for (std::ptrdiff_t c = 0; c < 3; ++c) C[3 * r + c] = u[r] * v[c];
}

void _veccrossp_3(const float* u, const float* v, float* w) {
  w[0] = difference(u[1], v[2], u[2], v[1]);
  w[1] = difference(u[2], v[0], u[0], v[2]);
  w[2] = difference(u[0], v[1], u[1], v[0]);
}

float _vecdotp_3(const float* u, const float* v) { return dot(u, 1, v, 1); }
