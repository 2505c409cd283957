// SPDX-License-Identifier: MIT
// Fills: zero, one, identity, diagonal.
#include <cstring>

#include "kernels/kernels.h"
#include "matrix/layout.h"

namespace ox {
namespace {

// Writes value(i) at (i, i) and zero elsewhere, in one walk over packed elements. The first diagonal value
// is written before any size is looked at, and a grid without rows receives cols zeros: wanted, and said in
// the header. Index arithmetic in 64 bits, as rows * cols of a large byte matrix passes 2^31.
template <class T, class Value> void fill_diagonal(const ox_mat_t& m, Value value) {
  const auto element = static_cast<std::ptrdiff_t>(channels(m.type));
  Stored<T>* p = scalars<T>(m);
  const auto put = [&](T v) {
    p->value = v;
    p += element;
  };
  const int64_t rows = m.rows, cols = m.cols;
  const int64_t n = rows < cols ? rows : cols;
  put(value(0));
  for (int64_t i = 1; i < n; ++i) {
    // Between two diagonal places of a packed grid lie exactly cols elements.
    for (int64_t j = 0; j < cols; ++j) put(0);
    put(value(i));
  }
  for (int64_t k = n * (cols + 1) - cols; k < rows * cols; ++k) put(0);
}

#if defined(__x86_64__)
// What fills a second-level cache and more the processor's own loop fills faster, as it fetches nothing that it overwrites.
// It is fast on aligned words: what stands before the first of those is stored as a word that overlaps it.
constexpr std::ptrdiff_t kSecondLevelBytes = std::ptrdiff_t{1024} * 1024, kWord = 8;

__attribute__((noinline)) void set_many(const ox_mat_t& m, std::ptrdiff_t count) {
  const auto fill_ones = kernels().fill_ones[m.type & 7u];
  auto* dst = static_cast<unsigned char*>(m.data);
  const auto size = static_cast<std::ptrdiff_t>(scalar_size(m.type));
  const auto address = reinterpret_cast<intptr_t>(dst);
  if (count * size >= kSecondLevelBytes && address % size == 0) {
    uint64_t ones;
    fill_ones(&ones, kWord / size);
    std::memcpy(dst, &ones, kWord);
    const std::ptrdiff_t first = kWord - address % kWord, bytes = count * size - first;
    dst += first;
    std::ptrdiff_t words = bytes / kWord;
    asm volatile("rep stosq" : "+D"(dst), "+c"(words) : "a"(ones) : "memory");
    count = bytes % kWord / size;
  }
  fill_ones(dst, count);
}
#endif

}  // namespace
}  // namespace ox

void ox_mat_setzero(ox_mat_t* m) {
  // One negative factor would make a length near 4 GiB.
  if ((m->rows < 0) != (m->step < 0)) return;
  const uint32_t bytes = static_cast<uint32_t>(m->rows) * static_cast<uint32_t>(m->step);
  if (bytes > 0) std::memset(m->data, 0, bytes);
}

void ox_mat_setone(ox_mat_t* m) {
  const int32_t count = ox::scalar_count(*m);
#if defined(__x86_64__)
  if (count >= ox::kSecondLevelBytes / 8) return ox::set_many(*m, count);
#endif
  ox::kernels().fill_ones[m->type & 7u](m->data, count);
}

void ox_mat_setidentity(ox_mat_t* m) {
  ox::with_depth(m->type, [&](auto zero) {
    using T = decltype(zero);
    if (m->rows < 1 || m->cols < 1 || ox::channels(m->type) > 1)
      return ox::fill_diagonal<T>(*m, [](int64_t) { return T{1}; });
    // The same for packed scalars, all zeros at once.
    const auto rows = static_cast<std::size_t>(m->rows), cols = static_cast<std::size_t>(m->cols);
    std::memset(m->data, 0, rows * cols * sizeof(T));
    for (std::size_t i = 0; i < rows && i < cols; ++i) ox::scalars<T>(*m)[i * (cols + 1)].value = 1;
  });
}

void ox_mat_setdiagonal(const void* values, ox_mat_t* m) {
  // As unsigned integers of the scalar's size: a NaN in a floating register could lose its bits.
  const auto fill = [&](auto zero) {
    const auto* v = ox::in<decltype(zero)>(values);
    ox::fill_diagonal<decltype(zero)>(*m, [v](int64_t i) { return v[i].value; });
  };
  switch (ox::scalar_size_log2(m->type)) {
    case 0: return fill(uint8_t{});
    case 1: return fill(uint16_t{});
    case 2: return fill(uint32_t{});
    default: return fill(uint64_t{});
  }
}
