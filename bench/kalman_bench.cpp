// SPDX-License-Identifier: MIT
// One predict and one correct of a filter with 8 states and 4 measurements: the tracker's filter.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "contest.h"
#include "reference.h"
#include "rivals/load.h"

namespace bench {
namespace {

constexpr std::size_t N = kStates, M = kMeasurements;
constexpr float kMeasured[M] = {101.5f, 52.25f, 20.5f, 39.0f};

// States cx, cy, previous cx, previous cy, w, h, previous w, previous h: next = 2 * current - previous.
Filter start() {
  Filter f{};
  for (const std::size_t pair : {0u, 4u})
    for (std::size_t i = pair; i < pair + 2; ++i) {
      f.A[i * N + i] = 2;
      f.A[i * N + i + 2] = -1;
      f.A[(i + 2) * N + i] = 1;
    }
  for (std::size_t i = 0; i < M; ++i) {
    f.H[i * N + (i < 2 ? i : i + 2)] = 1;
    f.R[i * M + i] = 1;
  }
  for (std::size_t i = 0; i < N; ++i) {
    f.Q[i * N + i] = 0.1f;
    f.P[i * N + i] = 1;
  }
  const float x[N] = {100, 50, 99, 50.5f, 20, 40, 20, 40};
  std::copy_n(x, N, f.x);
  return f;
}

Reals reals(const float* data, std::size_t rows, std::size_t cols) {
  Reals m(rows, cols);
  for (std::size_t i = 0; i < m.data.size(); ++i) m.data[i] = static_cast<double>(data[i]);
  return m;
}

// One cycle from the start. Its longest chain is five products of at most 8 terms, 40 roundings, and an inverse, which
// makes what came before it larger by the condition of S. That is below 8: S is R + H P' H^T with R the identity and
// P' = A A^T + Q, whose largest variance is 5.1.
Expected one_cycle() {
  const Filter f = start();
  const Reals A = reals(f.A, N, N), Q = reals(f.Q, N, N), H = reals(f.H, M, N), R = reals(f.R, M, M);
  const Reals z = reals(kMeasured, M, 1);
  const Reals x_pre = product(A, reals(f.x, N, 1));
  const Reals P_pre = sum(product(product(A, reals(f.P, N, N)), transposed(A)), Q);
  const Reals PHt = product(P_pre, transposed(H));
  const Reals K = product(PHt, inverse(sum(product(H, PHt), R)));
  const Reals x = sum(x_pre, product(K, sum(z, product(H, x_pre), -1)));
  const Reals P = product(sum(identity(N), product(K, H), -1), P_pre);

  Expected expected{P.data, std::vector<double>(N * N, 8 * 40 * kEps * largest(P_pre))};
  expected.value.insert(expected.value.end(), x.data.begin(), x.data.end());
  expected.bound.resize(N * N + N, 8 * 40 * kEps * largest(x_pre));
  return expected;
}

void contend_ox(const std::string& table, const std::string& row, const std::shared_ptr<Reference>& reference) {
  ox_kalman_t* kf = ox_kalman_create(N, M, 0, nullptr, nullptr, nullptr, nullptr);
  ox_mat_t* z = ox_mat_create(M, 1, OX_TYPE(OX_F32, 1));
  if (!kf || !z) std::abort();
  std::copy_n(kMeasured, M, static_cast<float*>(z->data));
  const auto prepare = [=] {
    const Filter f = start();
    std::memcpy(kf->transition_matrix->data, f.A, sizeof f.A);
    std::memcpy(kf->measurement_matrix->data, f.H, sizeof f.H);
    std::memcpy(kf->process_noise_cov->data, f.Q, sizeof f.Q);
    std::memcpy(kf->measurement_noise_cov->data, f.R, sizeof f.R);
    std::memcpy(kf->error_cov_post->data, f.P, sizeof f.P);
    std::memcpy(kf->state_post->data, f.x, sizeof f.x);
  };
  const auto result = [kf, out = static_cast<float*>(new_array(OX_F32, N * N + N))] {
    std::memcpy(out, kf->error_cov_post->data, N * N * sizeof *out);
    std::memcpy(out + N * N, kf->state_post->data, N * sizeof *out);
    return static_cast<const void*>(out);
  };
  contend(table, row, "ox", {OX_F32, prepare, result, reference}, [=] {
    ox_kalman_predict(kf);
    ox_kalman_correct(kf, z);
  });
}

void contend_rival(const std::string& table, const std::string& row, const std::string& column,
                   const std::shared_ptr<Reference>& reference, Cycle cycle) {
  static_assert(offsetof(Filter, x) == offsetof(Filter, P) + sizeof Filter::P, "P and x are one array");
  Filter* filter = new Filter(start());
  float* z = static_cast<float*>(new_array(OX_F32, M));
  std::copy_n(kMeasured, M, z);
  contend(table, row, column,
          {OX_F32, [=] { *filter = start(); }, [=] { return static_cast<const void*>(filter->P); }, reference},
          [=] { cycle(filter, z); });
}

}  // namespace

void register_contests() {
  const std::string table = "kalman", row = "8 states, 4 measurements";
  const auto reference = std::make_shared<Reference>(one_cycle);
  contend_ox(table, row, reference);
  for (const char* name : {"sse2", "avx2", "native"})
    if (const Rivals* rival = rivals(name)) {
      contend_rival(table, row, std::string("eigen ") + name, reference, rival->eigen.cycle);
      contend_rival(table, row, std::string("eigen lazy ") + name, reference, rival->eigen.cycle_lazy);
    }
  contend_rival(table, row, "plain native", reference, rivals("native")->plain.cycle);
}

}  // namespace bench
