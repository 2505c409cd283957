// SPDX-License-Identifier: MIT
// What is right, in double precision, in loops that nobody times.
#pragma once

#include <cstddef>
#include <vector>

namespace bench {

// Row-major.
struct Reals {
  std::size_t rows, cols;
  std::vector<double> data;
  Reals(std::size_t r, std::size_t c) : rows(r), cols(c), data(r * c) {}
  double& at(std::size_t r, std::size_t c) { return data[r * cols + c]; }
  double at(std::size_t r, std::size_t c) const { return data[r * cols + c]; }
};

Reals identity(std::size_t n);
Reals transposed(const Reals& a);
Reals absolute(const Reals& a);
Reals product(const Reals& a, const Reals& b);
Reals sum(const Reals& a, const Reals& b, double sign = 1);  // a + sign * b
Reals inverse(const Reals& a);                               // with partial pivoting
double largest(const Reals& a);                              // magnitude of an entry

}  // namespace bench
