// SPDX-License-Identifier: MIT
// The filter as a user of Eigen writes it who knows his sizes when he compiles: fixed types, no heap, Eigen's closed
// form of the 4 x 4 inverse. Twice: with *, for which Eigen picks the product that it has for large matrices when the
// sides are 8, and with lazyProduct, for the user who has measured that.
#include "rivals/eigen_map.h"

namespace bench {
namespace {

template <int R, int C> using Fixed = Eigen::Matrix<float, R, C, C == 1 ? Eigen::ColMajor : Eigen::RowMajor>;
template <int R, int C> Eigen::Map<const Fixed<R, C>, Eigen::Aligned16> fixed(const float* p) {
  return Eigen::Map<const Fixed<R, C>, Eigen::Aligned16>(p);
}
template <int R, int C> Eigen::Map<Fixed<R, C>, Eigen::Aligned16> fixed(float* p) {
  return Eigen::Map<Fixed<R, C>, Eigen::Aligned16>(p);
}

template <bool kLazy> void cycle(Filter* filter, const float* measurement) {
  constexpr int N = kStates, M = kMeasurements;
  const Filter& model = *filter;
  const auto A = fixed<N, N>(model.A), Q = fixed<N, N>(model.Q);
  const auto H = fixed<M, N>(model.H);
  const auto R = fixed<M, M>(model.R);
  const auto z = fixed<M, 1>(measurement);
  auto x = fixed<N, 1>(filter->x);
  auto P = fixed<N, N>(filter->P);

  if constexpr (kLazy) {
    const Fixed<N, 1> x_pre = A.lazyProduct(x);
    const Fixed<N, N> AP = A.lazyProduct(P);
    const Fixed<N, N> P_pre = AP.lazyProduct(A.transpose()) + Q;

    const Fixed<N, M> PHt = P_pre.lazyProduct(H.transpose());
    const Fixed<M, M> S = H.lazyProduct(PHt) + R;
    const Fixed<M, M> S_inverse = S.inverse();
    const Fixed<N, M> K = PHt.lazyProduct(S_inverse);
    const Fixed<M, 1> y = z - H.lazyProduct(x_pre);
    x = x_pre + K.lazyProduct(y);
    const Fixed<N, N> I_KH = Fixed<N, N>::Identity() - K.lazyProduct(H);
    P = I_KH.lazyProduct(P_pre);
  } else {
    const Fixed<N, 1> x_pre = A * x;
    const Fixed<N, N> P_pre = A * P * A.transpose() + Q;

    const Fixed<N, M> PHt = P_pre * H.transpose();
    const Fixed<M, M> S = H * PHt + R;
    const Fixed<N, M> K = PHt * S.inverse();
    x = x_pre + K * (z - H * x_pre);
    P.noalias() = (Fixed<N, N>::Identity() - K * H) * P_pre;
  }
}

}  // namespace

void add_eigen_cycle(Author& author) {
  author.cycle = cycle<false>;
  author.cycle_lazy = cycle<true>;
}

}  // namespace bench
