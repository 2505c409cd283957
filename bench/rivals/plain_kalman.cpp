// SPDX-License-Identifier: MIT
// The filter in plain loops of fixed sizes, summed in rising k, with the inverse by Gauss-Jordan in double precision.
#include "rivals/authors.h"

namespace bench {
namespace {

// dst = c + a * b, or c - a * b, or without c; b may stand transposed.
enum Sign { kPlus, kMinus };
template <int M, int K, int N, bool kTransposeB = false, Sign kSign = kPlus>
void product(const float* a, const float* b, const float* c, float* __restrict dst) {
  for (int i = 0; i < M; ++i)
    for (int j = 0; j < N; ++j) {
      float sum = c ? c[i * N + j] : 0.0f;
      for (int k = 0; k < K; ++k) {
        const float term = a[i * K + k] * (kTransposeB ? b[j * K + k] : b[k * N + j]);
        sum = kSign == kPlus ? sum + term : sum - term;
      }
      dst[i * N + j] = sum;
    }
}

// S is a covariance: its pivots are positive.
template <int N> void inverse(const float* src, float* dst) {
  double work[N][2 * N];
  for (int i = 0; i < N; ++i)
    for (int j = 0; j < N; ++j) {
      work[i][j] = static_cast<double>(src[i * N + j]);
      work[i][N + j] = i == j ? 1.0 : 0.0;
    }
  for (int i = 0; i < N; ++i) {
    const double pivot = work[i][i];
    for (int j = 0; j < 2 * N; ++j) work[i][j] /= pivot;
    for (int r = 0; r < N; ++r) {
      if (r == i) continue;
      const double factor = work[r][i];
      for (int j = 0; j < 2 * N; ++j) work[r][j] -= factor * work[i][j];
    }
  }
  for (int i = 0; i < N; ++i)
    for (int j = 0; j < N; ++j) dst[i * N + j] = static_cast<float>(work[i][N + j]);
}

void cycle(Filter* filter, const float* z) {
  constexpr int N = kStates, M = kMeasurements;
  float x_pre[N], AP[N * N], P_pre[N * N], PHt[N * M], S[M * M], S_inverse[M * M], K[N * M], y[M], I_KH[N * N];
  float identity[N * N] = {};
  for (int i = 0; i < N; ++i) identity[i * N + i] = 1.0f;
  Filter& f = *filter;
  product<N, N, 1>(f.A, f.x, nullptr, x_pre);
  product<N, N, N>(f.A, f.P, nullptr, AP);
  product<N, N, N, true>(AP, f.A, f.Q, P_pre);
  product<N, N, M, true>(P_pre, f.H, nullptr, PHt);
  product<M, N, M>(f.H, PHt, f.R, S);
  inverse<M>(S, S_inverse);
  product<N, M, M>(PHt, S_inverse, nullptr, K);
  product<M, N, 1, false, kMinus>(f.H, x_pre, z, y);
  product<N, M, 1>(K, y, x_pre, f.x);
  product<N, M, N, false, kMinus>(K, f.H, identity, I_KH);
  product<N, N, N>(I_KH, P_pre, nullptr, f.P);
}

}  // namespace

void add_plain_cycle(Author& author) { author.cycle = cycle; }

}  // namespace bench
