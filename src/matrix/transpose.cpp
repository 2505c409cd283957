// SPDX-License-Identifier: MIT
// dst = src transposed, moving whole elements.
#include "matrix/layout.h"

namespace ox {
namespace {

// T is an unsigned integer of the scalar's size: bits move, nothing is computed.
template <class T> void transpose(const ox_mat_t& src, const ox_mat_t& dst) {
  const std::ptrdiff_t rows = src.rows, cols = src.cols;
  const auto element = static_cast<std::ptrdiff_t>(channels(src.type));
  const Stored<T>* from = scalars<T>(src);
  Stored<T>* const to = scalars<T>(dst);
  for (std::ptrdiff_t i = 0; i < rows; ++i)
    for (std::ptrdiff_t j = 0; j < cols; ++j)
      for (std::ptrdiff_t c = 0; c < element; ++c) to[(j * rows + i) * element + c].value = (from++)->value;
}

}  // namespace
}  // namespace ox

void ox_mat_transpose(const ox_mat_t* src, ox_mat_t* dst) {
  if (src->type != dst->type || src->rows != dst->cols || src->cols != dst->rows) return;
  switch (ox::scalar_size_log2(src->type)) {
    case 0: return ox::transpose<uint8_t>(*src, *dst);
    case 1: return ox::transpose<uint16_t>(*src, *dst);
    case 2: return ox::transpose<uint32_t>(*src, *dst);
    case 3: return ox::transpose<uint64_t>(*src, *dst);
  }
}
