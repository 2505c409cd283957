// SPDX-License-Identifier: MIT
// Eigen's view of the arrays: sizes known at run time, rows first, and the alignment stated, which a matrix of Eigen's
// own would have too.
#pragma once

#include <Eigen/Dense>

#include "rivals/authors.h"

namespace bench {
namespace {

template <class T> using Matrix = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
template <class T> using In = Eigen::Map<const Matrix<T>, Eigen::Aligned64>;
template <class T> using Out = Eigen::Map<Matrix<T>, Eigen::Aligned64>;

template <class T> In<T> in(const void* p, long n) { return In<T>(static_cast<const T*>(p), n, n); }
template <class T> Out<T> out(void* p, long n) { return Out<T>(static_cast<T*>(p), n, n); }

}  // namespace
}  // namespace bench
