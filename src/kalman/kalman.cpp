// SPDX-License-Identifier: MIT
// Linear Kalman filter. All arithmetic is done by the matrix routines; the letters, n states, m measurements:
//   x [n x 1] state   P [n x n] its covariance   z [m x 1] measurement   y [m x 1] innovation
//   A [n x n] transition   H [m x n] measurement model   Q [n x n], R [m x m] noise   S [m x m], K [n x m] gain
#include <cstddef>
#include <cstdlib>

#include "kernels/kernels.h"

namespace {

constexpr int kOwnedSlots = 10;  // x' to temp5; the model's four follow
constexpr int kSlots = 14;

enum Dim { kOne, kN, kM };

struct Slot {
  ox_mat_t* ox_kalman_t::*matrix;
  Dim rows, cols;
};

constexpr Slot kSlotTable[kSlots] = {
    {&ox_kalman_t::state_pre, kN, kOne},
    {&ox_kalman_t::state_post, kN, kOne},
    {&ox_kalman_t::error_cov_pre, kN, kN},
    {&ox_kalman_t::error_cov_post, kN, kN},
    {&ox_kalman_t::gain, kN, kM},
    {&ox_kalman_t::temp1, kN, kN},
    {&ox_kalman_t::temp2, kN, kM},
    {&ox_kalman_t::temp3, kM, kM},
    {&ox_kalman_t::temp4, kM, kM},
    {&ox_kalman_t::temp5, kM, kOne},
    {&ox_kalman_t::transition_matrix, kN, kN},
    {&ox_kalman_t::measurement_matrix, kM, kN},
    {&ox_kalman_t::process_noise_cov, kN, kN},
    {&ox_kalman_t::measurement_noise_cov, kM, kM},
};

// Adds a header with its elements to a size, rounded up so that the next header is aligned. False when uncountable.
bool add_matrix(const Slot& slot, std::size_t rows, std::size_t cols, std::size_t* total) {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(rows, cols, &bytes)) return false;
  // I - K*H of a filter without states: setting an empty identity writes its first diagonal value all the same.
  if (bytes == 0 && slot.matrix == &ox_kalman_t::temp1) bytes = 1;
  if (__builtin_mul_overflow(bytes, sizeof(float), &bytes)) return false;
  if (__builtin_add_overflow(bytes, sizeof(ox_mat_t) + alignof(ox_mat_t) - 1, &bytes)) return false;
  return !__builtin_add_overflow(*total, bytes - bytes % alignof(ox_mat_t), total);
}

bool has_size(const ox_mat_t* m, int32_t rows, int32_t cols) {
  return m->type == OX_F32 && m->rows == rows && m->cols == cols;
}

// Whether no product of predict or correct would refuse and all have the sizes that there are kernels for. Headers are the
// caller's to change, so each is looked at each time.
bool predicts_in_fixed_sizes(const ox_kalman_t& kf) {
  constexpr int32_t n = ox::kStates;
  return has_size(kf.transition_matrix, n, n) && has_size(kf.process_noise_cov, n, n) &&
         has_size(kf.state_pre, n, 1) && has_size(kf.state_post, n, 1) && has_size(kf.error_cov_pre, n, n) &&
         has_size(kf.error_cov_post, n, n) && has_size(kf.temp1, n, n);
}

bool corrects_in_fixed_sizes(const ox_kalman_t& kf, const ox_mat_t* measurement) {
  constexpr int32_t n = ox::kStates, m = ox::kMeasurements;
  return has_size(kf.measurement_matrix, m, n) && has_size(kf.measurement_noise_cov, m, m) &&
         has_size(kf.state_pre, n, 1) && has_size(kf.state_post, n, 1) &&
         has_size(kf.error_cov_pre, n, n) && has_size(kf.error_cov_post, n, n) && has_size(kf.gain, n, m) &&
         has_size(kf.temp1, n, n) && has_size(kf.temp2, n, m) && has_size(kf.temp3, m, m) &&
         has_size(kf.temp4, m, m) && has_size(kf.temp5, m, 1) && has_size(measurement, m, 1);
}

}  // namespace

ox_kalman_t* ox_kalman_create(uint32_t state_dim, uint32_t meas_dim, uint32_t external_model,
                              ox_mat_t* transition_matrix, ox_mat_t* measurement_matrix, ox_mat_t* process_noise_cov,
                              ox_mat_t* measurement_noise_cov) {
  const int owned = external_model ? kOwnedSlots : kSlots;
  const uint32_t size[] = {1, state_dim, meas_dim};  // by Dim
  std::size_t offset[kSlots + 1] = {sizeof(ox_kalman_t)};
  for (int s = 0; s < owned; ++s) {
    offset[s + 1] = offset[s];
    if (!add_matrix(kSlotTable[s], size[kSlotTable[s].rows], size[kSlotTable[s].cols], &offset[s + 1])) return nullptr;
  }
  void* const block = std::calloc(1, offset[owned]);
  if (!block) return nullptr;
  auto* const kf = static_cast<ox_kalman_t*>(block);
  kf->state_dim = state_dim;
  kf->meas_dim = meas_dim;
  for (int s = 0; s < owned; ++s) {
    void* const at = static_cast<char*>(block) + offset[s];
    auto* const header = static_cast<ox_mat_t*>(at);
    kf->*kSlotTable[s].matrix =
        ox_mat_initheader(header, static_cast<int32_t>(size[kSlotTable[s].rows]),
                          static_cast<int32_t>(size[kSlotTable[s].cols]), OX_F32, header + 1);
  }
  kf->storage = kf->state_pre;
  if (external_model) {
    kf->transition_matrix = transition_matrix;
    kf->measurement_matrix = measurement_matrix;
    kf->process_noise_cov = process_noise_cov;
    kf->measurement_noise_cov = measurement_noise_cov;
  }
  return kf;
}

void ox_kalman_release(ox_kalman_t* kf) { std::free(kf); }

void ox_kalman_predict(ox_kalman_t* kf) {
  if (predicts_in_fixed_sizes(*kf)) return ox::kernels().predict(*kf);
  const ox_mat_t *A = kf->transition_matrix, *Q = kf->process_noise_cov;
  ox_mat_mul(A, kf->state_post, kf->state_pre, 0);                                     // x' = A*x
  ox_mat_mul(A, kf->error_cov_post, kf->temp1, OX_MAT_TRANSPOSE_B);                    // A*P^T
  ox_mat_muladd(kf->temp1, A, Q, kf->error_cov_pre, OX_MAT_TRANSPOSE_B);               // P' = (A*P^T)*A^T + Q
}

void ox_kalman_correct(ox_kalman_t* kf, const ox_mat_t* measurement) {
  if (corrects_in_fixed_sizes(*kf, measurement)) {
    ox::kernels().innovation_covariance(*kf);
    ox_mat_inv(kf->temp3, kf->temp4);
    return ox::kernels().update(*kf, *measurement);
  }
  const ox_mat_t *H = kf->measurement_matrix, *R = kf->measurement_noise_cov;
  const ox_mat_t *x_pre = kf->state_pre, *P_pre = kf->error_cov_pre;
  ox_mat_mul(P_pre, H, kf->temp2, OX_MAT_TRANSPOSE_B);                                 // P'*H^T
  ox_mat_muladd(H, kf->temp2, R, kf->temp3, 0);                                        // S = H*P'*H^T + R
  ox_mat_inv(kf->temp3, kf->temp4);                                                    // S^-1, singular or not
  ox_mat_mul(kf->temp2, kf->temp4, kf->gain, OX_MAT_TRANSPOSE_B);                      // K = P'*H^T*(S^-1)^T
  ox_mat_submul(measurement, H, x_pre, kf->temp5, 0);                                  // y = z - H*x'
  ox_mat_muladd(kf->gain, kf->temp5, x_pre, kf->state_post, 0);                        // x = x' + K*y
  ox_mat_submul(nullptr, kf->gain, H, kf->temp1, OX_MAT_IDENTITY_C);                   // I - K*H
  ox_mat_mul(kf->temp1, P_pre, kf->error_cov_post, OX_MAT_TRANSPOSE_B);                // P = (I - K*H)*P'^T
}
