// SPDX-License-Identifier: MIT
// What every matrix routine has to write, as plain loops over bytes.
//
// The library is fast and may be wrong; this is slow and meant to be read at a glance. It shares no code
// with the library and takes only the constants from its header. Scalars are moved by memcpy, so that any
// alignment and any overlap of the operands is defined and means: one scalar after the other, index rising.
// The operands of one call may point into one buffer or into several.
#ifndef OX_TESTS_REFERENCE_MATRIX_H
#define OX_TESTS_REFERENCE_MATRIX_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace reference {

struct Matrix {
  std::uint32_t type;
  std::int32_t rows;
  std::int32_t cols;
  std::int32_t step;
  unsigned char* data;
};

std::size_t scalar_size(std::uint32_t type);
std::size_t channels(std::uint32_t type);
std::int32_t packed_step(std::uint32_t type, std::int32_t cols);
// rows * cols * channels as the library counts them: modulo 2^32, then read as a signed number.
std::int32_t scalar_count(const Matrix& m);

void setzero(const Matrix& m);
void setone(const Matrix& m);
void setidentity(const Matrix& m);
void setdiagonal(const unsigned char* values, const Matrix& m);

void neg(const Matrix& src, const Matrix& dst);
void scale(const unsigned char* factor, const Matrix& src, const Matrix& dst);
void add(const Matrix& a, const Matrix& b, const Matrix& dst);
void sub(const Matrix& a, const Matrix& b, const Matrix& dst);
void transpose(const Matrix& src, const Matrix& dst);

void mul(const Matrix& a, const Matrix& b, const Matrix& dst, std::uint32_t flags);
void muladd(const Matrix& a, const Matrix& b, const Matrix& c, const Matrix& dst, std::uint32_t flags);
void submul(const Matrix* c, const Matrix& a, const Matrix& b, const Matrix& dst, std::uint32_t flags);

// An inverter with a work area of its own: some results depend on what earlier calls left there, so one
// object stands for one process that uses the library.
class Inverter {
 public:
  std::int32_t inv(const Matrix& src, const Matrix& dst);

 private:
  static constexpr std::int32_t kMost = 40;
  static constexpr std::int32_t kPitch = 80;
  static constexpr std::int32_t kExchangeRow = kMost;

  float& at(std::int32_t row, std::int32_t col);
  void exchange(std::int32_t k, std::int32_t m, std::int32_t n);

  // The row used for exchanges follows the work rows, where the search for a pivot may meet it as row 40.
  float work_[(kMost + 1) * kPitch] = {};
};

// The text that ox_mat_print writes.
std::string print_text(const char* name, const Matrix& m);

void matmult_3x3(const float* A, const float* B, float* C);
void matmult_3x3t(const float* A, const float* B, float* C);
void matmult_3x3vec(const float* A, const float* v, float* w);
void matmult_3x3tvec(const float* A, const float* v, float* w);
void matneg_3x3(float* A);
float matdet_3x3(const float* A);
void vecoutp_3(const float* u, const float* v, float* C);
void veccrossp_3(const float* u, const float* v, float* w);
float vecdotp_3(const float* u, const float* v);

}  // namespace reference

#endif
