// SPDX-License-Identifier: MIT
#include "reference.h"

#include <algorithm>
#include <cmath>

namespace bench {

Reals identity(std::size_t n) {
  Reals m(n, n);
  for (std::size_t i = 0; i < n; ++i) m.at(i, i) = 1;
  return m;
}

Reals transposed(const Reals& a) {
  Reals m(a.cols, a.rows);
  for (std::size_t r = 0; r < a.rows; ++r)
    for (std::size_t c = 0; c < a.cols; ++c) m.at(c, r) = a.at(r, c);
  return m;
}

Reals absolute(const Reals& a) {
  Reals m = a;
  for (double& x : m.data) x = std::fabs(x);
  return m;
}

Reals product(const Reals& a, const Reals& b) {
  Reals m(a.rows, b.cols);
  for (std::size_t r = 0; r < a.rows; ++r)
    for (std::size_t k = 0; k < a.cols; ++k)
      for (std::size_t c = 0; c < b.cols; ++c) m.at(r, c) += a.at(r, k) * b.at(k, c);
  return m;
}

Reals sum(const Reals& a, const Reals& b, double sign) {
  Reals m = a;
  for (std::size_t i = 0; i < m.data.size(); ++i) m.data[i] += sign * b.data[i];
  return m;
}

Reals inverse(const Reals& a) {
  const std::size_t n = a.rows;
  Reals work = a, m = identity(n);
  for (std::size_t i = 0; i < n; ++i) {
    std::size_t best = i;
    for (std::size_t r = i; r < n; ++r)
      if (std::fabs(work.at(r, i)) > std::fabs(work.at(best, i))) best = r;
    for (std::size_t c = 0; c < n; ++c) {
      std::swap(work.at(i, c), work.at(best, c));
      std::swap(m.at(i, c), m.at(best, c));
    }
    const double pivot = work.at(i, i);
    for (std::size_t c = 0; c < n; ++c) {
      work.at(i, c) /= pivot;
      m.at(i, c) /= pivot;
    }
    for (std::size_t r = 0; r < n; ++r) {
      const double factor = work.at(r, i);
      if (r == i) continue;
      for (std::size_t c = 0; c < n; ++c) {
        work.at(r, c) -= factor * work.at(i, c);
        m.at(r, c) -= factor * m.at(i, c);
      }
    }
  }
  return m;
}

double largest(const Reals& a) {
  double most = 0;
  for (double x : a.data) most = std::max(most, std::fabs(x));
  return most;
}

}  // namespace bench
