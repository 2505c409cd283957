// SPDX-License-Identifier: MIT
#include "kalman.h"

#include <utility>

namespace reference {
namespace {

using Floats = std::vector<float>;

constexpr std::size_t kMaxInverse = 40;
constexpr std::size_t kPitch = 2 * kMaxInverse;

// Row 40 is the exchange buffer: a search for a pivot that runs past a 40 x 40 matrix ends in it.
float work[kMaxInverse + 1][kPitch];

// Element (r, c) of a matrix with `cols` columns, or of its transpose.
float at(const Floats& a, std::size_t cols, std::size_t r, std::size_t c) { return a[r * cols + c]; }

// The named intermediate forces the rounding of the product before the sum.
float add_product(float sum, float x, float y) {
  const float product = x * y;
  return sum + product;
}

float subtract_product(float minuend, float x, float y) {
  const float product = x * y;
  return minuend - product;
}

// dst [rows x cols] = a [rows x inner] * b [inner x cols]
void multiply(const Floats& a, const Floats& b, Floats& dst, std::size_t rows, std::size_t inner, std::size_t cols) {
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t j = 0; j < cols; ++j) {
      // The first product is stored, not added to zero: 0 + -0 would lose the sign.
      float sum = inner == 0 ? 0.0f : at(a, inner, i, 0) * at(b, cols, 0, j);
      for (std::size_t k = 1; k < inner; ++k) sum = add_product(sum, at(a, inner, i, k), at(b, cols, k, j));
      dst[i * cols + j] = sum;
    }
  }
}

// dst [rows x cols] = a [rows x inner] * b^T, b [cols x inner]
void multiply_transposed(const Floats& a, const Floats& b, Floats& dst, std::size_t rows, std::size_t inner,
                         std::size_t cols) {
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t j = 0; j < cols; ++j) {
      float sum = inner == 0 ? 0.0f : at(a, inner, i, 0) * at(b, inner, j, 0);
      for (std::size_t k = 1; k < inner; ++k) sum = add_product(sum, at(a, inner, i, k), at(b, inner, j, k));
      dst[i * cols + j] = sum;
    }
  }
}

// dst = a * b + c
void multiply_add(const Floats& a, const Floats& b, const Floats& c, Floats& dst, std::size_t rows, std::size_t inner,
                  std::size_t cols) {
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t j = 0; j < cols; ++j) {
      float sum = at(c, cols, i, j);
      for (std::size_t k = 0; k < inner; ++k) sum = add_product(sum, at(a, inner, i, k), at(b, cols, k, j));
      dst[i * cols + j] = sum;
    }
  }
}

// dst = a * b^T + c
void multiply_transposed_add(const Floats& a, const Floats& b, const Floats& c, Floats& dst, std::size_t rows,
                             std::size_t inner, std::size_t cols) {
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t j = 0; j < cols; ++j) {
      float sum = at(c, cols, i, j);
      for (std::size_t k = 0; k < inner; ++k) sum = add_product(sum, at(a, inner, i, k), at(b, inner, j, k));
      dst[i * cols + j] = sum;
    }
  }
}

// dst = c - a * b
void subtract_multiply(const Floats& c, const Floats& a, const Floats& b, Floats& dst, std::size_t rows,
                       std::size_t inner, std::size_t cols) {
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t j = 0; j < cols; ++j) {
      float rest = at(c, cols, i, j);
      for (std::size_t k = 0; k < inner; ++k) rest = subtract_product(rest, at(a, inner, i, k), at(b, cols, k, j));
      dst[i * cols + j] = rest;
    }
  }
}

// dst [size x size] = I - a * b
void identity_subtract_multiply(const Floats& a, const Floats& b, Floats& dst, std::size_t size, std::size_t inner) {
  Floats identity(size * size, 0.0f);
  for (std::size_t i = 0; i < size; ++i) identity[i * size + i] = 1.0f;
  subtract_multiply(identity, a, b, dst, size, inner, size);
}

void exchange_rows(std::size_t k, std::size_t m, std::size_t width) {
  float* const buffer = work[kMaxInverse];
  const std::size_t count = width - k;
  for (std::size_t j = 0; j < count; ++j) buffer[j] = work[k][k + j];
  for (std::size_t j = 0; j < count; ++j) work[k][k + j] = work[m][k + j];
  for (std::size_t j = 0; j < count; ++j) work[m][k + j] = buffer[j];
}

}  // namespace

void kalman_inverse(const Floats& src, Floats& dst, std::size_t n) {
  if (n > kMaxInverse) return;
  const std::size_t width = 2 * n;

  for (std::size_t r = 0; r < n; ++r) {
    for (std::size_t c = 0; c < n; ++c) work[r][c] = src[r * n + c];
    for (std::size_t c = n; c < width; ++c) work[r][c] = c - n == r ? 1.0f : 0.0f;
  }

  for (std::size_t k = 0; k < n; ++k) {
    if (work[k][k] == 0.0f) {
      // Rows k+1 to n-2 are tested; the fall-back, which may be the row behind the matrix, is not.
      std::size_t m = k + 1;
      while (m + 1 < n && work[m][k] == 0.0f) ++m;
      exchange_rows(k, m, width);
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (i == k) continue;
      const double factor = static_cast<double>(work[i][k]) / static_cast<double>(work[k][k]);
      for (std::size_t j = 0; j < width; ++j) {
        const double product = static_cast<double>(work[k][j]) * factor;
        work[i][j] = static_cast<float>(static_cast<double>(work[i][j]) - product);
      }
    }
  }

  for (std::size_t r = 0; r < n; ++r) {
    const double reciprocal = 1.0 / static_cast<double>(work[r][r]);
    for (std::size_t j = 0; j < width; ++j)
      work[r][j] = static_cast<float>(static_cast<double>(work[r][j]) * reciprocal);
  }

  for (std::size_t r = 0; r < n; ++r) {
    for (std::size_t c = 0; c < n; ++c) dst[r * n + c] = work[r][n + c];
  }
}

KalmanModel::KalmanModel(std::size_t n, std::size_t m)
    : transition(n * n, 0.0f), measurement(m * n, 0.0f), process_noise(n * n, 0.0f), measurement_noise(m * m, 0.0f) {}

Kalman::Kalman(std::size_t n_states, std::size_t n_measurements, std::shared_ptr<const KalmanModel> its_model)
    : n(n_states),
      m(n_measurements),
      model(std::move(its_model)),
      state_pre(n, 0.0f),
      state_post(n, 0.0f),
      error_cov_pre(n * n, 0.0f),
      error_cov_post(n * n, 0.0f),
      gain(n * m, 0.0f),
      temp1(n * n, 0.0f),
      temp2(n * m, 0.0f),
      temp3(m * m, 0.0f),
      temp4(m * m, 0.0f),
      temp5(m, 0.0f) {}

void Kalman::predict() {
  multiply(model->transition, state_post, state_pre, n, n, 1);
  multiply_transposed(model->transition, error_cov_post, temp1, n, n, n);
  multiply_transposed_add(temp1, model->transition, model->process_noise, error_cov_pre, n, n, n);
}

void Kalman::correct(const Floats& z) {
  multiply_transposed(error_cov_pre, model->measurement, temp2, n, n, m);
  multiply_add(model->measurement, temp2, model->measurement_noise, temp3, m, n, m);
  kalman_inverse(temp3, temp4, m);
  multiply_transposed(temp2, temp4, gain, n, m, m);
  if (z.size() == m) subtract_multiply(z, model->measurement, state_pre, temp5, m, n, 1);
  multiply_add(gain, temp5, state_pre, state_post, n, m, 1);
  identity_subtract_multiply(gain, model->measurement, temp1, n, m);
  multiply_transposed(temp1, error_cov_pre, error_cov_post, n, n, n);
}

}  // namespace reference
