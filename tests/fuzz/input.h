// SPDX-License-Identifier: MIT
// What the fuzz targets share: the bytes of an input read as numbers, the vector width it asks for, and the way out
// when something is wrong.
#ifndef OX_TESTS_FUZZ_INPUT_H
#define OX_TESTS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "reference/kalman.h"
#include "reference/matrix.h"
#include "widths.h"

namespace fuzz {

// libFuzzer keeps the input of a programme that aborts.
[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "difference: %s\n", what.c_str());
  std::abort();
}

// Behind the end there are zeros.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return at_ == size_; }
  std::uint8_t byte() { return at_ < size_ ? data_[at_++] : std::uint8_t{0}; }
  std::uint32_t word() {
    std::uint32_t bits = 0;
    for (unsigned shift = 0; shift < 32; shift += 8) bits |= std::uint32_t{byte()} << shift;
    return bits;
  }
  std::int32_t between(std::int32_t low, std::int32_t high) { return low + byte() % (high - low + 1); }
  template <class T, std::size_t n> T pick(const T (&choices)[n]) { return choices[byte() % n]; }
  bool one_in(std::int32_t n) { return between(1, n) == n; }  // never behind the end

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// Of all widths, emulated ones too.
inline void choose_width(std::uint8_t byte) {
#if defined(__x86_64__)
  static const ox::Kernels* const kernels[] = {kernels_for_test(16), kernels_for_test(32), kernels_for_test(64)};
  ox::chosen_kernels = kernels[byte % 3];
#else
  static_cast<void>(byte);
#endif
}

// The inverse of a singular matrix shows what earlier calls left in the work area. This leaves the same there in the
// library and in both references, so that what an input does never depends on the inputs before it. It serves inverses
// below `size`; with 40, all of them.
class SameWorkArea {
 public:
  void begin_input() { size_ = 0; }

  void prepare(std::int32_t size) {
    if (size <= size_) return;
    size_ = size;
    // The ones stand beside the diagonal, so that there is an exchange, which fills the row for exchanges too.
    const auto n = static_cast<std::size_t>(size);
    std::vector<float> src(n * n, 0.0f), dst(n * n);
    for (std::size_t r = 0; r < n; ++r) src[r * n + (r + 1) % n] = 1.0f;
    ox_mat_t from{OX_F32, size, size, 4 * size, src.data()}, to{OX_F32, size, size, 4 * size, dst.data()};
    ox_mat_inv(&from, &to);
    const auto bytes = [](std::vector<float>& v) { return reinterpret_cast<unsigned char*>(v.data()); };
    inverter.inv({OX_F32, size, size, 4 * size, bytes(src)}, {OX_F32, size, size, 4 * size, bytes(dst)});
    reference::kalman_inverse(src, dst, n);
  }

  reference::Inverter inverter;

 private:
  std::int32_t size_ = 0;
};

}  // namespace fuzz

#endif
