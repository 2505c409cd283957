// SPDX-License-Identifier: MIT
// The inverse of n x n matrices, n known at run time. The library computes in double precision, its rivals in single.
#include <cstdlib>
#include <cstring>

#include "contest.h"
#include "reference.h"
#include "rivals/load.h"

namespace bench {
namespace {

// |L| |U| of a = L U. No rows are exchanged, not by a rival with partial pivoting either: a diagonal entry is larger
// than the rest of its column together.
Reals factors(const Reals& a) {
  const std::size_t n = a.rows;
  Reals lower = identity(n), upper = a;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t r = i + 1; r < n; ++r) {
      const double factor = upper.at(r, i) / upper.at(i, i);
      lower.at(r, i) = factor;
      for (std::size_t c = 0; c < n; ++c) upper.at(r, c) -= factor * upper.at(i, c);
    }
  return product(absolute(lower), absolute(upper));
}

// An inverse X of A = L U, by elimination in single precision, is off by at most 3n * eps/2 * |X| |L| |U| |X| to first
// order (Higham, Accuracy and Stability of Numerical Algorithms, ch. 14). Twice that, as the rivals' order is unknown.
std::shared_ptr<Reference> inverse_reference(const float* src, std::size_t n) {
  return std::make_shared<Reference>([=] {
    Reals a(n, n);
    for (std::size_t i = 0; i < n * n; ++i) a.data[i] = static_cast<double>(src[i]);
    const Reals x = inverse(a);
    Reals bound = product(product(absolute(x), factors(a)), absolute(x));
    for (double& entry : bound.data) entry *= 3 * static_cast<double>(n) * kEps;
    return Expected{x.data, bound.data};
  });
}

void register_size(long n) {
  const std::string row = std::to_string(n);
  const auto size = static_cast<std::size_t>(n), count = size * size;
  float* src = static_cast<float*>(new_array(OX_F32, count));
  float* dst = static_cast<float*>(new_array(OX_F32, count));
  fill_reals(src, count, 1);
  for (std::size_t i = 0; i < size; ++i) src[i * size + i] = static_cast<float>(n) + 1.0f;
  const Answer answer = array_answer(OX_F32, dst, count, inverse_reference(src, size));

  const ox_mat_t a = square(OX_F32, n, src);
  ox_mat_t x = square(OX_F32, n, dst);
  contend("inverse", row, "ox", answer, [=]() mutable { ox_mat_inv(&a, &x); });
  for (const char* name : {"sse2", "avx2", "native"})
    if (const Rivals* rival = rivals(name))
      contend("inverse", row, std::string("eigen ") + name, answer,
              [=, run = rival->eigen.inverse] { run(src, dst, n); });
  // LAPACK sees the transposed matrix and leaves the transposed inverse, which is what is wanted. It works in place.
  int* pivots = static_cast<int*>(new_array(OX_S32, size));
  float* work = static_cast<float*>(new_array(OX_F32, 64 * size));
  const int order = static_cast<int>(n), work_count = static_cast<int>(64 * size);
  for (const OpenBlas& blas : openblas())
    contend("inverse", row, "lapack, " + blas.column, answer, [=, sgetrf = blas.sgetrf, sgetri = blas.sgetri] {
      int info;
      std::memcpy(dst, src, count * sizeof *dst);
      sgetrf(&order, &order, dst, &order, pivots, &info);
      if (!info) sgetri(&order, dst, &order, pivots, work, &work_count, &info);
    });
}

// What is left of an inverse of ox's kind without the factors, the reciprocals, the exchange of rows and the copies: the
// steps alone, as many as it takes with the columns of I that no factor has met left out, on the widest vectors.
void register_steps(long n) {
  const Rivals* widest = nullptr;
  for (const char* name : {"sse2", "avx2", "native"})
    if (const Rivals* rival = rivals(name))
      if (!widest || rival->peak_bytes > widest->peak_bytes) widest = rival;
  if (!widest) return;
  const long lanes_a_step = widest->peak_bytes / 8;
  long steps = 0;
  for (long k = 0; k < n; ++k) {
    const long columns = k < n - 2 ? n + k + 1 : 2 * n;
    steps += (n - 1) * ((columns + lanes_a_step - 1) / lanes_a_step);
  }
  const auto sum = static_cast<double*>(new_array(OX_F64, 2));
  const auto ones = std::make_shared<Reference>([sum] { return Expected{{sum[1]}, {}}; });
  contend("inverse", std::to_string(n), "steps alone", array_answer(OX_F64, sum, 2, ones), [=] {
    long lanes;
    sum[0] = widest->eliminate(steps, &lanes);
    sum[1] = static_cast<double>(lanes);  // every number ends as it starts, at exactly 1
  });
}

}  // namespace

void register_contests() {
  for (const long n : {2L, 4L, 8L, 16L, 40L}) register_size(n);
  register_steps(40);
}

}  // namespace bench
