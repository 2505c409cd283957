// SPDX-License-Identifier: MIT
// What the library is measured against: Eigen, and plain loops as the compiler makes them at -O3. Sizes are known at
// run time only, but for the filter's.
#include <Eigen/Dense>

#include "calls.h"

namespace calls {
namespace {

// A function that is called as if from another source: nothing of its caller is known in it.
#define OUT_OF_LINE __attribute__((noipa))

template <class T> using Dynamic = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
template <class T> using Flat = Eigen::Array<T, Eigen::Dynamic, 1>;

template <class T> Dynamic<T> square(const std::vector<T>& values, int n) {
  return Eigen::Map<const Dynamic<T>>(values.data(), n, n);
}

OUT_OF_LINE void eigen_product(const Dynamic<float>& a, const Dynamic<float>& b, Dynamic<float>& dst) {
  dst.noalias() = a * b;
}
OUT_OF_LINE void eigen_product_at(const Dynamic<float>& a, const Dynamic<float>& b, Dynamic<float>& dst) {
  dst.noalias() = a.transpose() * b;
}
OUT_OF_LINE void eigen_product_bt(const Dynamic<float>& a, const Dynamic<float>& b, Dynamic<float>& dst) {
  dst.noalias() = a * b.transpose();
}

void add_eigen_product(std::vector<Case>& cases, int n, Form form) {
  cases.push_back({std::string("eigen/f32/") + name_of(form) + "/" + std::to_string(n),
                   [n, form](unsigned count) {
                     const ProductOperands<float> o(n, form);
                     const Dynamic<float> a = square(o.a, n), b = square(o.b, n);
                     Dynamic<float> dst(n, n);
                     const auto right = [&] { return o.right(dst.data()); };
                     if (form == kTransposeA)
                       return counted(
                           count, [&] { eigen_product_at(a, b, dst); }, right);
                     if (form == kTransposeB)
                       return counted(
                           count, [&] { eigen_product_bt(a, b, dst); }, right);
                     return counted(
                         count, [&] { eigen_product(a, b, dst); }, right);
                   },
                   "", ""});
}

// Integers in unsigned arithmetic at least as wide as int, so that they wrap.
template <class T> struct ArithmeticType { using type = uint32_t; };
template <> struct ArithmeticType<float> { using type = float; };
template <class T> using Arithmetic = typename ArithmeticType<T>::type;

template <class T>
OUT_OF_LINE void plain_product(int n, const T* __restrict a, const T* __restrict b, T* __restrict dst) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      T sum = 0;
      for (int k = 0; k < n; ++k)
        sum = static_cast<T>(static_cast<Arithmetic<T>>(sum) +
                             static_cast<Arithmetic<T>>(a[i * n + k]) * static_cast<Arithmetic<T>>(b[k * n + j]));
      dst[i * n + j] = sum;
    }
}

// The order of loops that a compiler vectorises best: whole rows of b are added to a row of the result.
template <class T>
OUT_OF_LINE void plain_product_by_rows(int n, const T* __restrict a, const T* __restrict b, T* __restrict dst) {
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) dst[i * n + j] = 0;
    for (int k = 0; k < n; ++k)
      for (int j = 0; j < n; ++j)
        dst[i * n + j] =
            static_cast<T>(static_cast<Arithmetic<T>>(dst[i * n + j]) +
                           static_cast<Arithmetic<T>>(a[i * n + k]) * static_cast<Arithmetic<T>>(b[k * n + j]));
  }
}

template <class T> void add_plain_products(std::vector<Case>& cases, int n) {
  const std::string rest = std::string("/") + name_of<T>() + "/a*b/" + std::to_string(n);
  const auto run = [n](auto product) {
    return [n, product](unsigned count) {
      ProductOperands<T> o(n, kPlain);
      return counted(
          count, [&] { product(n, o.a.data(), o.b.data(), o.dst.data()); }, [&] { return o.right(o.dst.data()); });
    };
  };
  cases.push_back({"loops" + rest, run(plain_product<T>), "", ""});
  cases.push_back({"loops-by-rows" + rest, run(plain_product_by_rows<T>), "", ""});
}

template <class T> OUT_OF_LINE void eigen_add(const Flat<T>& a, const Flat<T>& b, Flat<T>& dst) { dst = a + b; }
template <class T> OUT_OF_LINE void eigen_scale(const Flat<T>& a, const Flat<T>&, Flat<T>& dst) { dst = T{3} * a; }
template <class T> OUT_OF_LINE void eigen_neg(const Flat<T>& a, const Flat<T>&, Flat<T>& dst) { dst = -a; }

template <class T> OUT_OF_LINE void plain_add(int n, const T* a, const T* b, T* dst) {
  for (int i = 0; i < n; ++i) dst[i] = static_cast<T>(a[i] + b[i]);
}
template <class T> OUT_OF_LINE void plain_scale(int n, const T* a, const T*, T* dst) {
  for (int i = 0; i < n; ++i) dst[i] = static_cast<T>(T{3} * a[i]);
}
template <class T> OUT_OF_LINE void plain_neg(int n, const T* a, const T*, T* dst) {
  for (int i = 0; i < n; ++i) dst[i] = static_cast<T>(-a[i]);
}

template <class T> void add_elementwise(std::vector<Case>& cases) {
  const auto add_pair = [&](const std::string& operation, auto eigen, auto plain, auto expected) {
    const std::string rest = std::string("/") + name_of<T>() + "/" + operation + "/" + std::to_string(kElements);
    const auto check = [expected](const T* result) {
      const auto a = numbers<T>(kElements, 1), b = numbers<T>(kElements, 2);
      for (std::size_t i = 0; i < kElements; ++i)
        if (result[i] != static_cast<T>(expected(a[i], b[i]))) return false;
      return true;
    };
    cases.push_back({"eigen" + rest,
                     [eigen, check](unsigned count) {
                       const auto va = numbers<T>(kElements, 1), vb = numbers<T>(kElements, 2);
                       const Flat<T> a = Eigen::Map<const Flat<T>>(va.data(), kElements);
                       const Flat<T> b = Eigen::Map<const Flat<T>>(vb.data(), kElements);
                       Flat<T> dst(kElements);
                       return counted(
                           count, [&] { eigen(a, b, dst); }, [&] { return check(dst.data()); });
                     },
                     "", ""});
    cases.push_back({"loops" + rest,
                     [plain, check](unsigned count) {
                       const auto a = numbers<T>(kElements, 1), b = numbers<T>(kElements, 2);
                       std::vector<T> dst(kElements);
                       return counted(
                           count, [&] { plain(kElements, a.data(), b.data(), dst.data()); },
                           [&] { return check(dst.data()); });
                     },
                     "", ""});
  };
  add_pair("add", eigen_add<T>, plain_add<T>, [](T a, T b) { return a + b; });
  add_pair("scale", eigen_scale<T>, plain_scale<T>, [](T a, T) { return T{3} * a; });
  add_pair("neg", eigen_neg<T>, plain_neg<T>, [](T a, T) { return -a; });
}

template <class T> OUT_OF_LINE void eigen_transpose(const Dynamic<T>& src, Dynamic<T>& dst) { dst = src.transpose(); }
template <class T> OUT_OF_LINE void plain_transpose(int n, const T* __restrict src, T* __restrict dst) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) dst[j * n + i] = src[i * n + j];
}

template <class T> void add_transpose(std::vector<Case>& cases) {
  constexpr int n = kTransposeSize;
  const std::string rest = std::string("/") + name_of<T>() + "/transpose/" + std::to_string(n);
  const auto check = [](const T* result) {
    const auto src = numbers<T>(n * n, 1);
    for (std::size_t i = 0; i < n * n; ++i)
      if (result[i] != src[i % n * n + i / n]) return false;
    return true;
  };
  cases.push_back({"eigen" + rest,
                   [check](unsigned count) {
                     const Dynamic<T> src = square(numbers<T>(n * n, 1), n);
                     Dynamic<T> dst(kTransposeSize, kTransposeSize);
                     return counted(
                         count, [&] { eigen_transpose(src, dst); }, [&] { return check(dst.data()); });
                   },
                   "", ""});
  cases.push_back({"loops" + rest,
                   [check](unsigned count) {
                     const auto src = numbers<T>(n * n, 1);
                     std::vector<T> dst(n * n);
                     return counted(
                         count, [&] { plain_transpose(n, src.data(), dst.data()); }, [&] { return check(dst.data()); });
                   },
                   "", ""});
}

OUT_OF_LINE void eigen_inverse(const Dynamic<float>& m, Dynamic<float>& dst) { dst = m.inverse(); }

void add_inverse(std::vector<Case>& cases, int n) {
  cases.push_back({"eigen/f32/inv/" + std::to_string(n),
                   [n](unsigned count) {
                     const auto values = invertible(n);
                     const Dynamic<float> m = square(values, n);
                     Dynamic<float> dst(n, n);
                     return counted(
                         count, [&] { eigen_inverse(m, dst); },
                         [&] { return is_inverse(n, values.data(), dst.data()); });
                   },
                   "", ""});
}

// The equations by hand, all sizes fixed. A plain product of this size goes through Eigen's blocked kernel, a lazy one
// is unrolled; both are measured.
template <int kRows, int kCols> using Fixed =
    Eigen::Matrix<float, kRows, kCols, kCols == 1 ? Eigen::ColMajor : Eigen::RowMajor>;
template <bool kLazy, class A, class B> EIGEN_STRONG_INLINE auto times(const A& a, const B& b) {
  if constexpr (kLazy)
    return a.lazyProduct(b);
  else
    return a * b;
}

template <bool kLazy> struct EigenFilter {
  Fixed<kStates, kStates> A, Q, P, P_pre, temporary;
  Fixed<kMeasured, kStates> H;
  Fixed<kMeasured, kMeasured> R, S, S_inverse;
  Fixed<kStates, 1> x, x_pre;
  Fixed<kMeasured, 1> z, y;
  Fixed<kStates, kMeasured> PHt, K;

  OUT_OF_LINE void predict() {
    x_pre.noalias() = times<kLazy>(A, x);
    temporary.noalias() = times<kLazy>(A, P);
    P_pre = Q;
    P_pre.noalias() += times<kLazy>(temporary, A.transpose());
  }
  OUT_OF_LINE void correct() {
    PHt.noalias() = times<kLazy>(P_pre, H.transpose());
    S = R;
    S.noalias() += times<kLazy>(H, PHt);
    S_inverse = S.inverse();
    K.noalias() = times<kLazy>(PHt, S_inverse);
    y = z;
    y.noalias() -= times<kLazy>(H, x_pre);
    x = x_pre;
    x.noalias() += times<kLazy>(K, y);
    temporary.setIdentity();
    temporary.noalias() -= times<kLazy>(K, H);
    P.noalias() = times<kLazy>(temporary, P_pre);
  }
};

template <bool kLazy> void add_filter(std::vector<Case>& cases, Steps steps) {
  cases.push_back(
      {std::string(kLazy ? "eigen-lazy" : "eigen") + "/kalman-8-4/" + name_of(steps),
       [steps](unsigned count) {
         EigenFilter<kLazy> f;
         const FilterModel& model = filter_model();
         const auto set = [](auto& m, const float* values) { m = Eigen::Map<const std::decay_t<decltype(m)>>(values); };
         set(f.A, model.A);
         set(f.H, model.H);
         set(f.Q, model.Q);
         set(f.R, model.R);
         set(f.x, model.x);
         set(f.P, model.P);
         set(f.z, model.z);
         if (steps == kCorrect) f.predict();
         if (steps == kPredict)
           return counted(
               count, [&] { f.predict(); }, [&] { return is_filtered(steps, f.x_pre.data(), f.P_pre.data()); });
         const auto right = [&] { return is_filtered(steps, f.x.data(), f.P.data()); };
         if (steps == kCorrect)
           return counted(
               count, [&] { f.correct(); }, right);
         return counted(
             count, [&] { f.predict(), f.correct(); }, right);
       },
       "", ""});
}

using Doubles = Eigen::MatrixXd;

}  // namespace

const FilterModel& filter_model() {
  static const FilterModel model = [] {
    FilterModel m = {};
    const auto coupling = numbers<float>(kStates * kStates, 4);
    for (int i = 0; i < kStates; ++i) {
      for (int j = 0; j < kStates; ++j)
        m.A[i * kStates + j] = 0.01f * coupling[static_cast<std::size_t>(i * kStates + j)];
      m.A[i * kStates + i] += 1.0f;
      if (i < kMeasured) {
        m.A[i * kStates + kMeasured + i] += 1.0f;
        m.H[i * kStates + i] = 1.0f;
        m.R[i * kMeasured + i] = 1.0f;
        m.z[i] = static_cast<float>(i);
      }
      m.Q[i * kStates + i] = 0.1f;
      m.P[i * kStates + i] = 2.0f;
      m.x[i] = 0.5f * static_cast<float>(i);
    }
    return m;
  }();
  return model;
}

bool is_filtered(Steps steps, const float* x, const float* P) {
  const FilterModel& m = filter_model();
  const auto wide = [](const float* values, int rows, int cols) -> Doubles {
    return Eigen::Map<const Dynamic<float>>(values, rows, cols).cast<double>();
  };
  const Doubles A = wide(m.A, kStates, kStates), H = wide(m.H, kMeasured, kStates);
  Doubles mean = A * wide(m.x, kStates, 1);
  Doubles covariance = A * wide(m.P, kStates, kStates) * A.transpose() + wide(m.Q, kStates, kStates);
  if (steps != kPredict) {
    const Doubles S = H * covariance * H.transpose() + wide(m.R, kMeasured, kMeasured);
    const Doubles K = covariance * H.transpose() * S.inverse();
    mean += K * (wide(m.z, kMeasured, 1) - H * mean);
    covariance = (Doubles::Identity(kStates, kStates) - K * H) * covariance;
  }
  // No path to an element has more than 64 roundings, none of a number above 16, and S is nearly a multiple of the
  // identity.
  const double most = 64 * 0x1p-24 * 16;
  return (mean - wide(x, kStates, 1)).cwiseAbs().maxCoeff() <= most &&
         (covariance - wide(P, kStates, kStates)).cwiseAbs().maxCoeff() <= most;
}

void add_rival_cases(std::vector<Case>& cases) {
  for (const Form form : kForms)
    for (const int n : kProductSizes) add_eigen_product(cases, n, form);
  for (const int n : kProductSizes) add_plain_products<float>(cases, n);
  for (const int n : {8, 32}) add_plain_products<int8_t>(cases, n);
  for (const int n : {8, 32}) add_plain_products<int16_t>(cases, n);
  for (const int n : {8, 32}) add_plain_products<int32_t>(cases, n);
  for (const int n : kInverseSizes) add_inverse(cases, n);
  for (const Steps steps : kSteps) {
    add_filter<false>(cases, steps);
    add_filter<true>(cases, steps);
  }
  add_elementwise<float>(cases);
  add_elementwise<int16_t>(cases);
  add_transpose<float>(cases);
  add_transpose<uint8_t>(cases);
}

}  // namespace calls
