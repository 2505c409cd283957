// SPDX-License-Identifier: MIT
// dst = src transposed, moving whole elements.
#include "kernels/kernels.h"
#include "matrix/layout.h"

namespace ox {
namespace {

// Element by element, source row after source row: what overlaps gives what this loop gives. T is an unsigned integer
// of the scalar's size: bits move, nothing is computed.
template <class T> void transpose_plain(const ox_mat_t& src, const ox_mat_t& dst) {
  const std::ptrdiff_t rows = src.rows, cols = src.cols;
  const auto element = static_cast<std::ptrdiff_t>(channels(src.type));
  const Stored<T>* from = scalars<T>(src);
  Stored<T>* const to = scalars<T>(dst);
  for (std::ptrdiff_t i = 0; i < rows; ++i)
    for (std::ptrdiff_t j = 0; j < cols; ++j)
      for (std::ptrdiff_t c = 0; c < element; ++c) to[(j * rows + i) * element + c].value = (from++)->value;
}

bool overlap(const void* a, const void* b, std::size_t bytes) {
  const auto distance = reinterpret_cast<uintptr_t>(a) - reinterpret_cast<uintptr_t>(b);
  return distance < bytes || 0 - distance < bytes;
}

}  // namespace
}  // namespace ox

void ox_mat_transpose(const ox_mat_t* src, ox_mat_t* dst) {
  if (src->type != dst->type || src->rows != dst->cols || src->cols != dst->rows) return;
  if (src->rows < 1 || src->cols < 1) return;
  const uint32_t size_log2 = ox::scalar_size_log2(src->type);
  const std::size_t bytes = (static_cast<std::size_t>(src->rows) * static_cast<std::size_t>(src->cols)) << size_log2;
  if (ox::channels(src->type) == 1 && !ox::overlap(src->data, dst->data, bytes))
    return ox::kernels().transpose[size_log2](src->data, src->rows, src->cols, dst->data);
  switch (size_log2) {
    case 0: return ox::transpose_plain<uint8_t>(*src, *dst);
    case 1: return ox::transpose_plain<uint16_t>(*src, *dst);
    case 2: return ox::transpose_plain<uint32_t>(*src, *dst);
    default: return ox::transpose_plain<uint64_t>(*src, *dst);
  }
}
