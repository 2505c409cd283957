// SPDX-License-Identifier: MIT
// The one loop of the element-wise routines.
#pragma once

#include "matrix/layout.h"

namespace ox {

// dst[i] = op(a[i], ...) in rising index order, whatever overlaps.
template <class T, class Op, class... Sources>
inline void each_scalar(std::ptrdiff_t count, Stored<T>* dst, Op op, const Sources*... sources) {
  for (std::ptrdiff_t i = 0; i < count; ++i) dst[i].value = op(sources[i].value...);
}

}  // namespace ox
