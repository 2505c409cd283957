// SPDX-License-Identifier: MIT
// Linear Kalman filter in plain loops over single-precision arrays, row-major and packed.
//
//   x [n x 1]  state       P [n x n]  its covariance     A [n x n]  transition   Q [n x n]  process noise
//   z [m x 1]  measurement S [m x m]  its covariance     H [m x n]  observation  R [m x m]  measurement noise
//   K [n x m]  gain        x' P'      predicted state and covariance
#ifndef OX_TESTS_REFERENCE_KALMAN_H
#define OX_TESTS_REFERENCE_KALMAN_H

#include <cstddef>
#include <memory>
#include <vector>

namespace reference {

struct KalmanModel {
  KalmanModel(std::size_t n, std::size_t m);

  std::vector<float> transition;         // A
  std::vector<float> measurement;        // H
  std::vector<float> process_noise;      // Q
  std::vector<float> measurement_noise;  // R
};

class Kalman {
 public:
  Kalman(std::size_t n, std::size_t m, std::shared_ptr<const KalmanModel> model);

  // x' = A*x,  P' = (A*P^T)*A^T + Q
  void predict();

  // x = x' + K*(z - H*x'),  P = (I - K*H)*P'^T. A z of another length than m leaves the innovation as it was.
  void correct(const std::vector<float>& z);

  std::size_t n;
  std::size_t m;
  std::shared_ptr<const KalmanModel> model;  // shared by several filters, never written

  std::vector<float> state_pre;       // x'
  std::vector<float> state_post;      // x
  std::vector<float> error_cov_pre;   // P'
  std::vector<float> error_cov_post;  // P
  std::vector<float> gain;            // K
  std::vector<float> temp1;           // A*P^T, later I - K*H
  std::vector<float> temp2;           // P'*H^T
  std::vector<float> temp3;           // S
  std::vector<float> temp4;           // inverse of S
  std::vector<float> temp5;           // z - H*x'
};

// Gauss-Jordan inverse of n x n floats in the work area that all filters share; it is never cleared, and a zero
// last pivot brings in what earlier calls left. dst keeps its contents for n above 40. dst may be src.
void kalman_inverse(const std::vector<float>& src, std::vector<float>& dst, std::size_t n);

}  // namespace reference

#endif
