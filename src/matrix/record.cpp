// SPDX-License-Identifier: MIT
// The matrix record: laying a header, making and freeing a matrix, printing one.
#include <cstdio>
#include <cstdlib>

#include "matrix/layout.h"

namespace {

// The formats are part of the interface; U16 is shown as a signed number on purpose.
void print_scalar(uint32_t type, const void* data, std::ptrdiff_t index) {
  const auto at = [=](auto zero) {
    return (static_cast<const ox::Stored<decltype(zero)>*>(data) + index)->value;
  };
  switch (type & 7u) {
    case OX_U8: std::printf(" %3d", at(uint8_t{})); break;
    case OX_S8: std::printf(" %c", at(int8_t{})); break;
    case OX_U16:
    case OX_S16: std::printf(" %6d", at(int16_t{})); break;
    case OX_S32: std::printf(" %11d", at(int32_t{})); break;
    case OX_F32: std::printf(" %10f", static_cast<double>(at(float{}))); break;
    case OX_S64: std::printf(" %11lld", static_cast<long long>(at(int64_t{}))); break;
    default: std::printf(" %10f", at(double{})); break;  // OX_F64
  }
}

}  // namespace

ox_mat_t* ox_mat_initheader(ox_mat_t* hdr, int32_t rows, int32_t cols, uint32_t type, void* data) {
  if (!hdr) return nullptr;
  hdr->type = type;
  hdr->rows = rows;
  hdr->cols = cols;
  hdr->step = ox::wrapped_product(static_cast<uint32_t>(cols), ox::channels(type) << ox::scalar_size_log2(type));
  hdr->data = data;
  return hdr;
}

ox_mat_t* ox_mat_create(int32_t rows, int32_t cols, uint32_t type) {
  const uint32_t header = sizeof(ox_mat_t);
  const uint32_t elements = static_cast<uint32_t>(rows) * static_cast<uint32_t>(cols) *
                                 ox::channels(type) * ox::scalar_size(type);
  const uint32_t wrapped = header + elements;
  // Nonsense sizes may wrap to less than a header, which is still written.
  auto* m = static_cast<ox_mat_t*>(std::malloc(wrapped < header ? header : wrapped));
  if (!m) return nullptr;
  return ox_mat_initheader(m, rows, cols, type, m + 1);
}

void ox_mat_release(ox_mat_t* m) {
  if (m && m->data == m + 1) std::free(m);
}

void ox_mat_print(const char* name, const ox_mat_t* m) {
  // The step counts scalars here, not elements: a row shows its first cols scalars whatever the channels.
  const int32_t stride = m->step / static_cast<int32_t>(ox::scalar_size(m->type));
  if (name) std::printf("%s=\n", name);
  for (std::ptrdiff_t r = 0; r < m->rows; ++r) {
    for (std::ptrdiff_t i = 0; i < m->cols; ++i) print_scalar(m->type, m->data, r * stride + i);
    std::printf("\n");
  }
}
