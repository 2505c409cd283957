// SPDX-License-Identifier: MIT
#include "contest.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

// The library's own hook, which only a static library shows.
namespace ox {
struct Kernels;
extern const Kernels* chosen_kernels;
const Kernels* kernels_of(int bytes);
}  // namespace ox

namespace bench {
namespace {

// Calls visit with a null pointer to the type of a depth.
template <class Visit> auto with_type(unsigned depth, Visit visit) {
  switch (depth) {
    case OX_U8: return visit(static_cast<std::uint8_t*>(nullptr));
    case OX_S8: return visit(static_cast<std::int8_t*>(nullptr));
    case OX_U16: return visit(static_cast<std::uint16_t*>(nullptr));
    case OX_S16: return visit(static_cast<std::int16_t*>(nullptr));
    case OX_S32: return visit(static_cast<std::int32_t*>(nullptr));
    case OX_F32: return visit(static_cast<float*>(nullptr));
    case OX_S64: return visit(static_cast<std::int64_t*>(nullptr));
    default: return visit(static_cast<double*>(nullptr));
  }
}

}  // namespace

std::size_t scalar_bytes(unsigned depth) {
  return with_type(depth, [](auto* type) { return sizeof *type; });
}

double scalar(unsigned depth, const void* data, std::size_t i) {
  return with_type(depth, [=](auto* type) {
    const auto* scalars = static_cast<decltype(type)>(const_cast<void*>(data));
    return static_cast<double>(scalars[i]);
  });
}

void set_scalar(unsigned depth, void* data, std::size_t i, double value) {
  with_type(depth, [=](auto* type) {
    using Scalar = std::remove_pointer_t<decltype(type)>;
    static_cast<Scalar*>(data)[i] = static_cast<Scalar>(value);
  });
}

double wrapped(unsigned depth, double value) {
  const double values = std::ldexp(1.0, static_cast<int>(8 * scalar_bytes(depth)));
  const bool has_sign = depth != OX_U8 && depth != OX_U16;
  double rest = std::fmod(value, values);
  if (rest < 0) rest += values;
  return has_sign && rest >= values / 2 ? rest - values : rest;
}

namespace {

void* new_storage(std::size_t least_bytes, std::size_t offset) {
  const std::size_t bytes = (least_bytes + offset + kPage) / kPage * kPage;
  void* block = std::aligned_alloc(kPage, bytes);
  if (!block) std::abort();
  std::memset(block, 0, bytes);  // so that every page is there
  return static_cast<char*>(block) + offset;
}

}  // namespace

void* new_array(unsigned depth, std::size_t count) {
  static std::size_t arrays = 0;
  const std::size_t place = kOperandPlaces - 1 - arrays++ % kOperandPlaces;
  return new_storage(count * scalar_bytes(depth), place * kOperandPlace);
}

void* new_scalar(unsigned depth) { return new_storage(scalar_bytes(depth), kScalarPlace); }

void fill(unsigned depth, void* data, std::size_t count, int least, int most, unsigned seed) {
  std::mt19937 random(seed);
  const unsigned span = static_cast<unsigned>(most - least) + 1;
  for (std::size_t i = 0; i < count; ++i) set_scalar(depth, data, i, least + static_cast<double>(random() % span));
}

void fill_reals(float* data, std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  for (std::size_t i = 0; i < count; ++i) {
    const auto bits = static_cast<unsigned>(random());
    const float magnitude = 0.5f + static_cast<float>(bits >> 9) / (1 << 24);
    data[i] = bits & 1 ? -magnitude : magnitude;
  }
}

ox_mat_t square(unsigned depth, long n, void* data) {
  ox_mat_t header;
  ox_mat_initheader(&header, static_cast<int32_t>(n), static_cast<int32_t>(n), OX_TYPE(depth, 1), data);
  return header;
}

Answer array_answer(unsigned depth, void* data, std::size_t count, std::shared_ptr<Reference> reference) {
  const std::size_t bytes = count * scalar_bytes(depth);
  return {depth, [=] { std::memset(data, 0xAA, bytes); }, [=] { return data; }, std::move(reference)};
}

void check(const std::string& name, const Answer& answer, const std::function<void()>& run) {
  answer.prepare();
  run();
  const void* result = answer.result();
  const Expected& expected = answer.reference->get();
  for (std::size_t i = 0; i < expected.value.size(); ++i) {
    const double got = scalar(answer.depth, result, i);
    const double bound = expected.bound.empty() ? 0 : expected.bound[i];
    if (std::fabs(got - expected.value[i]) <= bound) continue;
    std::fprintf(stderr, "%s is wrong: scalar %zu is %.17g, not %.17g within %g\n", name.c_str(), i, got,
                 expected.value[i], bound);
    std::exit(1);
  }
}

void clear_upper_registers() {
  if (__builtin_cpu_supports("avx")) asm volatile("vzeroupper" ::: "memory");
}

FixedWidth::FixedWidth(int bytes) : chosen_(ox::chosen_kernels) {
  if (bytes) ox::chosen_kernels = ox::kernels_of(bytes);
}
FixedWidth::~FixedWidth() { ox::chosen_kernels = static_cast<const ox::Kernels*>(chosen_); }

bool has_width(int bytes) { return bytes == 16 || ox::kernels_of(bytes) != ox::kernels_of(bytes / 2); }

}  // namespace bench
