// SPDX-License-Identifier: MIT
// Inverse of a small matrix: Gauss-Jordan elimination on [A | I] in a static work area.
#include <cstring>

#include "matrix/layout.h"

namespace ox {
namespace {

constexpr int32_t kMaxSize = 40;
constexpr std::ptrdiff_t kPitch = 2 * kMaxSize;

// Rows 0 to 39 are the augmented matrix, row 40 is the temporary of a row exchange. Never cleared: when the
// last pivot is zero the row behind the matrix is taken as pivot row, whatever an earlier call left there.
float work[kMaxSize + 1][kPitch];

void exchange_rows(int32_t k, int32_t m, int32_t n) {
  float* const temporary = work[kMaxSize];
  const std::size_t bytes = static_cast<std::size_t>(2 * n - k) * sizeof(float);
  // At n = 40 row m can be the temporary itself, shifted by k: the copies may overlap.
  std::memmove(temporary, &work[k][k], bytes);
  std::memmove(&work[k][k], &work[m][k], bytes);
  std::memmove(&work[m][k], temporary, bytes);
}

// Row to exchange with row k, whose pivot is zero. Nothing is searched for size, and the last candidate is taken
// untested: behind the last pivot that is the row past the matrix.
int32_t replacement_row(int32_t k, int32_t n) {
  for (int32_t m = k + 1; m < n - 1; ++m)
    if (work[m][k] != 0.0f) return m;
  return n - 1 > k + 1 ? n - 1 : k + 1;
}

void eliminate_column(int32_t k, int32_t n) {
  const float* const pivot_row = work[k];
  for (int32_t i = 0; i < n; ++i) {
    if (i == k) continue;
    float* const row = work[i];
    const double f = static_cast<double>(row[k]) / static_cast<double>(pivot_row[k]);
    // Cleared columns are computed too: what they become can be seen by a later, smaller call.
    for (int32_t j = 0; j < 2 * n; ++j)
      row[j] = static_cast<float>(static_cast<double>(row[j]) - static_cast<double>(pivot_row[j]) * f);
  }
}

void normalise_row(int32_t r, int32_t n) {
  const double reciprocal = 1.0 / static_cast<double>(work[r][r]);
  for (int32_t j = 0; j < 2 * n; ++j)
    work[r][j] = static_cast<float>(static_cast<double>(work[r][j]) * reciprocal);
}

}  // namespace
}  // namespace ox

int32_t ox_mat_inv(const ox_mat_t* src, ox_mat_t* dst) {
  using namespace ox;
  if (src->type != dst->type) return -1;
  if (src->rows != dst->rows) return -1;
  if (src->type != OX_F32 || src->cols != dst->cols) return -1;
  const int32_t n = src->rows;
  if (n > kMaxSize) return -1;
  if (n <= 0) return 0;

  const std::size_t row_bytes = static_cast<std::size_t>(n) * sizeof(float);
  for (int32_t r = 0; r < n; ++r) {
    std::memcpy(work[r], static_cast<const char*>(src->data) + static_cast<std::size_t>(r) * row_bytes, row_bytes);
    std::memset(work[r] + n, 0, row_bytes);
    work[r][n + r] = 1.0f;
  }
  for (int32_t k = 0; k < n; ++k) {
    if (work[k][k] == 0.0f) exchange_rows(k, replacement_row(k, n), n);
    eliminate_column(k, n);
  }
  for (int32_t r = 0; r < n; ++r) normalise_row(r, n);
  for (int32_t r = 0; r < n; ++r)
    std::memcpy(static_cast<char*>(dst->data) + static_cast<std::size_t>(r) * row_bytes, work[r] + n, row_bytes);
  return 0;
}
