// SPDX-License-Identifier: MIT
// Build with -ffp-contract=off: each product below is rounded before it meets the sum.
#include "matrix.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ox.h"

namespace reference {
namespace {

// Integer arithmetic wraps, and then signed and unsigned depths of one width give the same bits. So four
// unsigned types stand for the six integer depths. The work is done in 64 bits: a narrower unsigned type
// would be promoted to int, whose overflow is undefined.
template <class T>
T sum(T x, T y) {
  return static_cast<T>(static_cast<std::uint64_t>(x) + static_cast<std::uint64_t>(y));
}
template <class T>
T difference(T x, T y) {
  return static_cast<T>(static_cast<std::uint64_t>(x) - static_cast<std::uint64_t>(y));
}
template <class T>
T product(T x, T y) {
  return static_cast<T>(static_cast<std::uint64_t>(x) * static_cast<std::uint64_t>(y));
}

template <>
float sum(float x, float y) {
  return x + y;
}
template <>
float difference(float x, float y) {
  return x - y;
}
template <>
float product(float x, float y) {
  return x * y;
}
template <>
double sum(double x, double y) {
  return x + y;
}
template <>
double difference(double x, double y) {
  return x - y;
}
template <>
double product(double x, double y) {
  return x * y;
}

template <class T>
T load(const unsigned char* data, std::int64_t index) {
  T value;
  std::memcpy(&value, data + index * static_cast<std::int64_t>(sizeof(T)), sizeof(T));
  return value;
}

template <class T>
void store(unsigned char* data, std::int64_t index, T value) {
  std::memcpy(data + index * static_cast<std::int64_t>(sizeof(T)), &value, sizeof(T));
}

// Calls f with a value of the type that the depth computes in.
template <class F>
void with_depth(std::uint32_t type, F f) {
  switch (type & 7u) {
    case OX_U8:
    case OX_S8:
      return f(std::uint8_t{});
    case OX_U16:
    case OX_S16:
      return f(std::uint16_t{});
    case OX_S32:
      return f(std::uint32_t{});
    case OX_F32:
      return f(float{});
    case OX_S64:
      return f(std::uint64_t{});
    default:
      return f(double{});
  }
}

std::int32_t as_signed(std::uint32_t bits) {
  std::int32_t value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

std::uint32_t bits_of(std::int32_t value) { return static_cast<std::uint32_t>(value); }

bool same_headers(const Matrix& x, const Matrix& y) {
  return x.type == y.type && x.rows == y.rows && x.cols == y.cols;
}

// The walk that identity and diagonal share. values holds `count` scalars; its last one is used again when
// it runs out, which is how the identity gets by with a single one.
void diagonal_walk(const std::vector<unsigned char>& values, const Matrix& m) {
  const std::size_t size = scalar_size(m.type);
  const std::size_t pitch = size * channels(m.type);
  const std::vector<unsigned char> zero(size, 0);
  unsigned char* p = m.data;
  std::size_t next_value = 0;
  const auto write = [&](const unsigned char* scalar) {
    std::memcpy(p, scalar, size);
    p += pitch;
  };
  const auto write_diagonal = [&] {
    write(values.data() + next_value);
    if (next_value + size < values.size()) next_value += size;
  };

  const std::int64_t n = std::min(m.rows, m.cols);
  write_diagonal();
  for (std::int64_t i = 1; i < n; ++i) {
    for (std::int64_t j = 0; j < m.cols; ++j) write(zero.data());
    write_diagonal();
  }
  const std::int64_t cols = m.cols;
  for (std::int64_t k = n * (cols + 1) - cols; k < m.rows * cols; ++k) write(zero.data());
}

}  // namespace

std::size_t scalar_size(std::uint32_t type) {
  static const std::size_t sizes[8] = {1, 1, 2, 2, 4, 4, 8, 8};
  return sizes[type & 7u];
}

std::size_t channels(std::uint32_t type) { return ((type >> 3) & 31u) + 1u; }

std::int32_t packed_step(std::uint32_t type, std::int32_t cols) {
  const std::uint64_t element = channels(type) * scalar_size(type);
  return as_signed(static_cast<std::uint32_t>(bits_of(cols) * element));
}

std::int32_t scalar_count(const Matrix& m) {
  const std::uint64_t element = channels(m.type);
  return as_signed(static_cast<std::uint32_t>(bits_of(m.rows) * (bits_of(m.cols) * element)));
}

void setzero(const Matrix& m) {
  const bool opposite_signs = (m.rows < 0) != (m.step < 0);
  if (opposite_signs) return;
  const auto bytes = static_cast<std::uint32_t>(std::uint64_t{bits_of(m.rows)} * bits_of(m.step));
  for (std::uint32_t i = 0; i < bytes; ++i) m.data[i] = 0;
}

void setone(const Matrix& m) {
  with_depth(m.type, [&](auto zero) {
    using T = decltype(zero);
    for (std::int32_t i = 0; i < scalar_count(m); ++i) store<T>(m.data, i, T{1});
  });
}

void setidentity(const Matrix& m) {
  with_depth(m.type, [&](auto zero) {
    using T = decltype(zero);
    std::vector<unsigned char> one(sizeof(T));
    store<T>(one.data(), 0, T{1});
    diagonal_walk(one, m);
  });
}

void setdiagonal(const unsigned char* values, const Matrix& m) {
  const auto count = static_cast<std::size_t>(std::max(std::min(m.rows, m.cols), std::int32_t{1}));
  diagonal_walk(std::vector<unsigned char>(values, values + count * scalar_size(m.type)), m);
}

void neg(const Matrix& src, const Matrix& dst) {
  if (!same_headers(src, dst)) return;
  const std::uint32_t depth = src.type & 7u;
  if (depth == OX_U8 || depth == OX_U16) return;
  with_depth(depth, [&](auto zero) {
    using T = decltype(zero);
    for (std::int32_t i = 0; i < scalar_count(src); ++i) {
      if (depth == OX_F32 || depth == OX_F64) {
        // The sign bit is the highest of the last byte: all targets are little-endian. Through a float
        // register a NaN could lose bits.
        unsigned char scalar[sizeof(T)];
        std::memcpy(scalar, src.data + static_cast<std::size_t>(i) * sizeof(T), sizeof(T));
        scalar[sizeof(T) - 1] ^= 0x80u;
        std::memcpy(dst.data + static_cast<std::size_t>(i) * sizeof(T), scalar, sizeof(T));
      } else {
        store<T>(dst.data, i, difference(zero, load<T>(src.data, i)));
      }
    }
  });
}

void scale(const unsigned char* factor, const Matrix& src, const Matrix& dst) {
  if (!same_headers(src, dst)) return;
  with_depth(src.type, [&](auto zero) {
    using T = decltype(zero);
    const T f = load<T>(factor, 0);
    for (std::int32_t i = 0; i < scalar_count(src); ++i) store<T>(dst.data, i, product(f, load<T>(src.data, i)));
  });
}

void add(const Matrix& a, const Matrix& b, const Matrix& dst) {
  if (!same_headers(a, b) || !same_headers(dst, a)) return;
  with_depth(a.type, [&](auto zero) {
    using T = decltype(zero);
    for (std::int32_t i = 0; i < scalar_count(a); ++i)
      store<T>(dst.data, i, sum(load<T>(a.data, i), load<T>(b.data, i)));
  });
}

void sub(const Matrix& a, const Matrix& b, const Matrix& dst) {
  if (!same_headers(a, b) || !same_headers(dst, a)) return;
  with_depth(a.type, [&](auto zero) {
    using T = decltype(zero);
    for (std::int32_t i = 0; i < scalar_count(a); ++i)
      store<T>(dst.data, i, difference(load<T>(a.data, i), load<T>(b.data, i)));
  });
}

void transpose(const Matrix& src, const Matrix& dst) {
  if (src.type != dst.type || src.rows != dst.cols || src.cols != dst.rows) return;
  const std::size_t size = scalar_size(src.type);
  const std::size_t scalars = channels(src.type);
  for (std::int32_t i = 0; i < src.rows; ++i) {
    for (std::int32_t j = 0; j < src.cols; ++j) {
      const auto row = static_cast<std::size_t>(i);
      const auto col = static_cast<std::size_t>(j);
      const std::size_t from = (row * static_cast<std::size_t>(src.cols) + col) * scalars;
      const std::size_t to = (col * static_cast<std::size_t>(src.rows) + row) * scalars;
      // One scalar at a time, through a copy: source and destination scalar may overlap in part.
      for (std::size_t c = 0; c < scalars; ++c) {
        unsigned char scalar[8];
        std::memcpy(scalar, src.data + (from + c) * size, size);
        std::memcpy(dst.data + (to + c) * size, scalar, size);
      }
    }
  }
}

void mul(const Matrix& a, const Matrix& b, const Matrix& dst, std::uint32_t flags) {
  if (channels(a.type) != 1 || b.type != a.type || dst.type != a.type) return;
  const bool a_transposed = (flags & OX_MAT_TRANSPOSE_A) != 0;
  const bool b_transposed = !a_transposed && (flags & OX_MAT_TRANSPOSE_B) != 0;
  const std::int32_t M = a_transposed ? a.cols : a.rows;
  const std::int32_t K = a_transposed ? a.rows : a.cols;
  const std::int32_t N = b_transposed ? b.rows : b.cols;
  const std::int32_t K_of_b = b_transposed ? b.cols : b.rows;
  if (K != K_of_b || dst.rows != M || dst.cols != N) return;
  with_depth(a.type, [&](auto zero) {
    using T = decltype(zero);
    for (std::int64_t i = 0; i < M; ++i) {
      for (std::int64_t j = 0; j < N; ++j) {
        T total = zero;
        for (std::int64_t k = 0; k < K; ++k) {
          const T x = load<T>(a.data, a_transposed ? k * M + i : i * K + k);
          const T y = load<T>(b.data, b_transposed ? j * K + k : k * N + j);
          const T term = product(x, y);
          // The first term is not added to a zero, which would turn -0 into +0.
          total = k == 0 ? term : sum(total, term);
        }
        store<T>(dst.data, i * N + j, total);
      }
    }
  });
}

void muladd(const Matrix& a, const Matrix& b, const Matrix& c, const Matrix& dst, std::uint32_t flags) {
  if (channels(a.type) != 1 || b.type != a.type || c.type != a.type || dst.type != a.type) return;
  const bool b_transposed = (flags & OX_MAT_TRANSPOSE_B) != 0;
  const std::int32_t M = a.rows;
  const std::int32_t K = a.cols;
  const std::int32_t N = b_transposed ? b.rows : b.cols;
  const std::int32_t K_of_b = b_transposed ? b.cols : b.rows;
  if (K != K_of_b || c.rows != M || c.cols != N || dst.rows != M || dst.cols != N) return;
  with_depth(a.type, [&](auto zero) {
    using T = decltype(zero);
    for (std::int64_t i = 0; i < M; ++i) {
      for (std::int64_t j = 0; j < N; ++j) {
        if (K <= 0) {
          // A copy, not a value: a NaN keeps its bits.
          std::memmove(dst.data + (i * N + j) * static_cast<std::int64_t>(sizeof(T)),
                       c.data + (i * N + j) * static_cast<std::int64_t>(sizeof(T)), sizeof(T));
          continue;
        }
        T total = load<T>(c.data, i * N + j);
        for (std::int64_t k = 0; k < K; ++k) {
          const T x = load<T>(a.data, i * K + k);
          const T y = load<T>(b.data, b_transposed ? j * K + k : k * N + j);
          const T term = product(x, y);
          total = sum(total, term);
        }
        store<T>(dst.data, i * N + j, total);
      }
    }
  });
}

void submul(const Matrix* c, const Matrix& a, const Matrix& b, const Matrix& dst, std::uint32_t flags) {
  if (channels(a.type) != 1) return;
  if (c != nullptr && c->type != a.type) return;
  if (b.type != a.type || dst.type != a.type) return;
  const bool identity = (flags & OX_MAT_IDENTITY_C) != 0;
  const std::int32_t M = a.rows;
  const std::int32_t K = a.cols;
  const std::int32_t N = b.cols;
  if (K != b.rows || dst.rows != M || dst.cols != N) return;
  if (!identity && (c->rows != M || c->cols != N)) return;
  if (identity) {
    setidentity(dst);
  } else if (M > 0 && N > 0) {
    const auto count = static_cast<std::size_t>(M) * static_cast<std::size_t>(N);
    std::memmove(dst.data, c->data, count * scalar_size(a.type));
  }
  if (K <= 0) return;
  with_depth(a.type, [&](auto zero) {
    using T = decltype(zero);
    for (std::int64_t i = 0; i < M; ++i) {
      for (std::int64_t j = 0; j < N; ++j) {
        T total = load<T>(dst.data, i * N + j);
        for (std::int64_t k = 0; k < K; ++k) {
          const T term = product(load<T>(a.data, i * K + k), load<T>(b.data, k * N + j));
          total = difference(total, term);
        }
        store<T>(dst.data, i * N + j, total);
      }
    }
  });
}

float& Inverter::at(std::int32_t row, std::int32_t col) { return work_[row * kPitch + col]; }

void Inverter::exchange(std::int32_t k, std::int32_t m, std::int32_t n) {
  const std::size_t bytes = static_cast<std::size_t>(2 * n - k) * sizeof(float);
  // memmove, because row m may be the exchange row itself.
  std::memmove(&at(kExchangeRow, 0), &at(k, k), bytes);
  std::memmove(&at(k, k), &at(m, k), bytes);
  std::memmove(&at(m, k), &at(kExchangeRow, 0), bytes);
}

std::int32_t Inverter::inv(const Matrix& src, const Matrix& dst) {
  if (src.type != dst.type || src.rows != dst.rows) return -1;
  if (src.type != OX_F32 || src.cols != dst.cols) return -1;
  const std::int32_t n = src.rows;
  if (n > kMost) return -1;
  if (n <= 0) return 0;
  const std::size_t row_bytes = static_cast<std::size_t>(n) * sizeof(float);

  for (std::int32_t r = 0; r < n; ++r) {
    std::memcpy(&at(r, 0), src.data + static_cast<std::size_t>(r) * row_bytes, row_bytes);
    for (std::int32_t c = n; c < 2 * n; ++c) at(r, c) = c == n + r ? 1.0f : 0.0f;
  }

  for (std::int32_t k = 0; k < n; ++k) {
    if (at(k, k) == 0.0f) {
      std::int32_t m = std::max(n - 1, k + 1);
      for (std::int32_t row = n - 2; row > k; --row) {
        if (at(row, k) != 0.0f) m = row;
      }
      exchange(k, m, n);
    }
    for (std::int32_t i = 0; i < n; ++i) {
      if (i == k) continue;
      const double factor = static_cast<double>(at(i, k)) / static_cast<double>(at(k, k));
      for (std::int32_t j = 0; j < 2 * n; ++j) {
        const double term = static_cast<double>(at(k, j)) * factor;
        at(i, j) = static_cast<float>(static_cast<double>(at(i, j)) - term);
      }
    }
  }

  for (std::int32_t r = 0; r < n; ++r) {
    const double reciprocal = 1.0 / static_cast<double>(at(r, r));
    for (std::int32_t c = 0; c < 2 * n; ++c)
      at(r, c) = static_cast<float>(static_cast<double>(at(r, c)) * reciprocal);
  }
  for (std::int32_t r = 0; r < n; ++r)
    std::memcpy(dst.data + static_cast<std::size_t>(r) * row_bytes, &at(r, n), row_bytes);
  return 0;
}

std::string print_text(const char* name, const Matrix& m) {
  std::string text;
  if (name != nullptr) {
    text += name;
    text += "=\n";
  }
  // 310 digits before the point, 6 behind it and a sign are the longest number.
  char number[400];
  const std::int32_t stride = m.step / static_cast<std::int32_t>(scalar_size(m.type));
  for (std::int32_t r = 0; r < m.rows; ++r) {
    for (std::int32_t i = 0; i < m.cols; ++i) {
      const std::int64_t at = std::int64_t{r} * stride + i;
      int length = 0;
      switch (m.type & 7u) {
        case OX_U8:
          length = std::snprintf(number, sizeof number, " %3d", load<std::uint8_t>(m.data, at));
          break;
        case OX_S8:
          length = std::snprintf(number, sizeof number, " %c", load<std::uint8_t>(m.data, at));
          break;
        case OX_U16:
        case OX_S16:
          length = std::snprintf(number, sizeof number, " %6d", load<std::int16_t>(m.data, at));
          break;
        case OX_S32:
          length = std::snprintf(number, sizeof number, " %11d", load<std::int32_t>(m.data, at));
          break;
        case OX_F32:
          length = std::snprintf(number, sizeof number, " %10f", static_cast<double>(load<float>(m.data, at)));
          break;
        case OX_S64:
          length = std::snprintf(number, sizeof number, " %11lld",
                                 static_cast<long long>(load<std::int64_t>(m.data, at)));
          break;
        default:
          length = std::snprintf(number, sizeof number, " %10f", load<double>(m.data, at));
          break;
      }
      text.append(number, static_cast<std::size_t>(length));
    }
    text += '\n';
  }
  return text;
}

namespace {

// (t0 + t1) + t2 in double precision, rounded once.
float three_terms(float x0, float y0, float x1, float y1, float x2, float y2) {
  const double t0 = static_cast<double>(x0) * static_cast<double>(y0);
  const double t1 = static_cast<double>(x1) * static_cast<double>(y1);
  const double t2 = static_cast<double>(x2) * static_cast<double>(y2);
  const double first_two = t0 + t1;
  return static_cast<float>(first_two + t2);
}

float cross_term(float x0, float y0, float x1, float y1) {
  const double t0 = static_cast<double>(x0) * static_cast<double>(y0);
  const double t1 = static_cast<double>(x1) * static_cast<double>(y1);
  return static_cast<float>(t0 - t1);
}

}  // namespace

void matmult_3x3(const float* A, const float* B, float* C) {
  for (std::ptrdiff_t r = 0; r < 3; ++r)
    for (std::ptrdiff_t c = 0; c < 3; ++c)
      C[3 * r + c] = three_terms(A[3 * r], B[c], A[3 * r + 1], B[3 + c], A[3 * r + 2], B[6 + c]);
}

void matmult_3x3t(const float* A, const float* B, float* C) {
  for (std::ptrdiff_t r = 0; r < 3; ++r)
    for (std::ptrdiff_t c = 0; c < 3; ++c) C[3 * r + c] = vecdotp_3(A + 3 * r, B + 3 * c);
}

void matmult_3x3vec(const float* A, const float* v, float* w) {
  for (std::ptrdiff_t r = 0; r < 3; ++r) w[r] = vecdotp_3(A + 3 * r, v);
}

void matmult_3x3tvec(const float* A, const float* v, float* w) {
  for (std::ptrdiff_t r = 0; r < 3; ++r) w[r] = three_terms(A[r], v[0], A[3 + r], v[1], A[6 + r], v[2]);
}

void matneg_3x3(float* A) {
  for (int i = 0; i < 9; ++i) {
    std::uint32_t bits;
    std::memcpy(&bits, A + i, sizeof bits);
    bits ^= 0x80000000u;
    std::memcpy(A + i, &bits, sizeof bits);
  }
}

float matdet_3x3(const float* A) {
  const float c1_left = A[5] * A[6];
  const float c1_right = A[3] * A[8];
  const float c1 = c1_left - c1_right;
  const float c0_left = A[4] * A[8];
  const float c0_right = A[5] * A[7];
  const float c0 = c0_left - c0_right;
  const float c2_left = A[3] * A[7];
  const float c2_right = A[4] * A[6];
  const float c2 = c2_left - c2_right;
  const float term1 = A[1] * c1;
  const float term0 = A[0] * c0;
  const float term2 = A[2] * c2;
  const float first_two = term1 + term0;
  return first_two + term2;
}

void vecoutp_3(const float* u, const float* v, float* C) {
  for (std::ptrdiff_t r = 0; r < 3; ++r)
    for (std::ptrdiff_t c = 0; c < 3; ++c) C[3 * r + c] = u[r] * v[c];
}

void veccrossp_3(const float* u, const float* v, float* w) {
  w[0] = cross_term(u[1], v[2], u[2], v[1]);
  w[1] = cross_term(u[2], v[0], u[0], v[2]);
  w[2] = cross_term(u[0], v[1], u[1], v[0]);
}

float vecdotp_3(const float* u, const float* v) { return three_terms(u[0], v[0], u[1], v[1], u[2], v[2]); }

}  // namespace reference
